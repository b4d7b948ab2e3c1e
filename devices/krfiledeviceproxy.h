#pragma once

#include <pal/devices/krpaldevices_export.h>
#include <pal/krabstractdeviceproxy.h>

#include <QByteArray>
#include <QDeadlineTimer>
#include <QString>

#include <atomic>
#include <condition_variable>
#include <mutex>

class QSocketNotifier;

namespace Pal {

/// A device proxy over a node reached with open(2): a character device, a FIFO, a
/// pseudo-terminal. No call blocks past its own deadline: read() never waits, write() waits
/// at most writeTimeoutMs(), ioctl() at most its time-out. When the node fails or goes away
/// (a USB adapter pulled, a driver reloaded) the operation returns -1, one warning is logged,
/// and a later operation opens the path again, at most once per reopenIntervalMs().
///
/// write() (a command thread), read() (a data collector's thread) and ioctl() (any caller)
/// may run at once: the bytes of two writes, or of a write and a request, never interleave,
/// and a reply belongs to the exchange that asked for it.
class KRPALDEVICES_EXPORT KrFileDeviceProxy : public KrAbstractDeviceProxy
{
    Q_OBJECT
public:
    /// Opens @p path read-write, or read-only or write-only where the node's permissions
    /// allow only that. A node that is missing now is looked for again by later operations.
    explicit KrFileDeviceProxy(const QString &path, QObject *parent = nullptr);
    ~KrFileDeviceProxy() override;

    /// The node's path as given, also while the node is missing.
    QString path() const;
    /// Whether the node is open now; false while it is missing or after it failed.
    bool isOpen() const;
    /// Why the last open or operation failed, naming the node; empty after a good open.
    QString errorString() const;

    /// How long write() may wait for room; 1000 ms unless changed.
    void setWriteTimeoutMs(int timeoutMs);
    /// How long write() may wait for room, in milliseconds.
    int writeTimeoutMs() const;
    /// The bytes that end a reply to ioctl(); "\n" unless changed. Empty: a reply fills the
    /// caller's buffer.
    void setReplyTerminator(const QByteArray &terminator);
    /// The bytes that end a reply to ioctl().
    QByteArray replyTerminator() const;
    /// The least time between two attempts to open a failed node again; 500 ms unless changed.
    void setReopenIntervalMs(int intervalMs);
    /// The least time between two attempts to open a failed node again, in milliseconds.
    int reopenIntervalMs() const;

    /// Sends every byte before the write deadline: @p size, or -1.
    qint64 write(const char *data, qint64 size) override;
    /// The bytes waiting, at most @p maxSize; 0 when none (or while an ioctl() waits for its
    /// reply, which the reply owns); -1 when the node failed or is gone. Never waits.
    qint64 read(char *data, qint64 maxSize) override;
    /// Sends @p request (nothing when @p requestSize is 0) and reads the reply up to and with
    /// the reply terminator: its length, @p replySize when the buffer filled first, -1 when no
    /// whole reply came within @p timeoutMs or the node failed. Input left from an earlier
    /// exchange is discarded first.
    qint64 ioctl(char *request, int requestSize, char *reply, quint32 replySize, quint32 timeoutMs) override;

protected:
    /// For subclasses that prepare the node after each open: the node is opened by open(),
    /// which the subclass's constructor calls once its settings are in place.
    KrFileDeviceProxy(const QString &path, bool openNow, QObject *parent);

    /// How a building block ended.
    enum class Io
    {
        Done, ///< every byte went, or the reply is whole
        TimedOut, ///< the deadline passed first
        Failed ///< the node failed or is gone (errorString() says why)
    };

    /// Holds the line for one write or one exchange: waits for it at most until the deadline.
    /// An exchange also owns the input while held (read() gives 0), and starts by discarding
    /// what input is left from earlier, which answers nothing that is asked now.
    class KRPALDEVICES_EXPORT Line
    {
    public:
        /// What the line is held for.
        enum Use
        {
            Write, ///< one write: other writes and exchanges wait
            Exchange ///< a request and its reply: the input belongs to it as well
        };
        /// Waits for the line until @p deadline; isHeld() tells whether it came.
        Line(KrFileDeviceProxy &proxy, Use use, QDeadlineTimer deadline);
        ~Line();
        Line(const Line &) = delete;
        Line &operator=(const Line &) = delete;

        /// Whether the line came before the deadline.
        bool isHeld() const { return m_held; }

    private:
        KrFileDeviceProxy &m_proxy;
        Use m_use;
        bool m_held = false;
    };

    /// Writes all @p size bytes before @p deadline, holding a Line.
    Io writeAll(const char *data, qint64 size, QDeadlineTimer deadline);
    /// Reads into @p reply until it ends with @p terminator or holds @p maxSize bytes (with an
    /// empty terminator: exactly @p maxSize bytes), before @p deadline, holding an Exchange
    /// line. Bytes beyond stay for the next read.
    Io readReply(QByteArray *reply, qint64 maxSize, const QByteArray &terminator, QDeadlineTimer deadline);
    /// One whole exchange: takes the line, sends @p request, reads the reply as readReply().
    Io exchange(const char *request, qint64 requestSize, QByteArray *reply, qint64 maxSize,
        const QByteArray &terminator, QDeadlineTimer deadline);

    /// How many bytes wait to be read, without reading them (a stream proxy that hands out
    /// whole blocks asks before it reads); -1 when the node failed or is gone.
    qint64 bytesAvailable();

    /// Opens the node now (see the protected constructor), or reconfigures it when open after
    /// a setting changed. False with errorString() when it failed.
    bool open();
    /// Called after every open, and by open() on an open node, with the descriptor: a
    /// subclass applies its settings. False, with @p error set, refuses the node.
    virtual bool prepareNode(int descriptor, QString *error);

private Q_SLOTS:
    void watchInput();
    void rearmWatch();

private:
    friend class Line;

    int acquireLocked(std::unique_lock<std::mutex> &lock);
    void releaseLocked(int descriptor);
    void release(int descriptor);
    bool openLocked();
    void closeLocked();
    void failLocked(int descriptor, const QString &why, bool lost);
    void failed(int descriptor, int error, const char *operation);
    void setError(const QString &why);
    Io waitFor(int descriptor, short events, QDeadlineTimer deadline, const char *what);
    void drainStaleInput(int descriptor);
    void inputTaken();

    const QString m_path;
    std::atomic<int> m_writeTimeoutMs{1000};
    std::atomic<int> m_reopenIntervalMs{500};

    // The descriptor and everything that changes with it, under m_mutex. An operation holds
    // a use of the descriptor while it works with it, outside the mutex; a node found failed
    // is closed when its last use ends, so no poll() ever sees its number reused.
    mutable std::mutex m_mutex;
    int m_descriptor = -1;
    int m_uses = 0;
    bool m_failed = false; // the open descriptor failed; closed with its last use
    bool m_warned = false; // this loss was logged; cleared when the node is back
    bool m_isPipe = false;
    bool m_isTty = false;
    bool m_readable = false;
    QDeadlineTimer m_nextOpen; // no open attempt before it
    QString m_error;
    QByteArray m_terminator = QByteArrayLiteral("\n");
    quint64 m_generation = 0; // counts opens, so a watch knows its descriptor is gone

    // Who holds the line, waited for with a deadline (a timed mutex would do, but the thread
    // sanitizer of this tool chain does not see its timed lock).
    std::condition_variable m_lineFree;
    bool m_lineTaken = false;
    // An exchange owns the input while it waits for its reply. Bytes read beyond a reply are
    // input for read(); they are touched under m_mutex, or by the exchange while it owns them.
    bool m_exchanging = false;
    QByteArray m_input;

    // Watched on the proxy's thread, through a duplicate of the descriptor that the watch
    // owns, so that the operations can close theirs on any thread.
    QSocketNotifier *m_notifier = nullptr;
    int m_watchedDescriptor = -1;
    quint64 m_watchedGeneration = 0;
    std::atomic<bool> m_watchPaused{false};
};

} // namespace Pal
