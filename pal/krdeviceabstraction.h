#pragma once

#include <pal/krpal_export.h>

#include <QByteArray>
#include <QHash>
#include <QObject>
#include <QVariant>

#include <atomic>
#include <functional>
#include <memory>

class QThread;

namespace Pal {

class KrAbstractDeviceProxy;

/// From command id to the function that turns (command id, value) into the bytes sent.
using CommandFormatters = QHash<quint16, std::function<QByteArray(quint16, const QVariant &)>>;

/// One device of the board under a device key. Commands are formatted on the caller's thread
/// and written through the device proxy on the device's own command thread; the caller waits
/// at most a time-out, so a hung device cannot block it.
///
/// One command at a time: callers must not run write() or doCommand() on the same device
/// abstraction from two threads at once; that is the application's to avoid. A command that
/// times out keeps running to its end; the next command, and the destructor, wait for it.
class KRPAL_EXPORT KrDeviceAbstraction : public QObject
{
    Q_OBJECT
public:
    /// With a non-empty @p id and a proxy, the proxy is adopted as a child and its signals are
    /// forwarded. The parameter types are spelled as the configuration's factory names them.
    Q_INVOKABLE KrDeviceAbstraction(const QByteArray &id, KrAbstractDeviceProxy *deviceProxy,
        CommandFormatters &formatters, QObject *parent = nullptr);
    /// Without formatters there is no command thread, and every write() is rejected.
    Q_INVOKABLE KrDeviceAbstraction(
        const QByteArray &id, KrAbstractDeviceProxy *deviceProxy, QObject *parent = nullptr);
    ~KrDeviceAbstraction() override;

    /// Returns the proxy's write result, 7 when the command is rejected (no proxy, no
    /// formatter for @p commandId, or no command thread) and -1, with status report 70, after
    /// @p timeoutMs. The time-out ends the wait, not the proxy's write().
    qint64 write(quint16 commandId, QVariant value, quint32 timeoutMs);
    /// As above, with timeoutInMs().
    qint64 write(quint16 commandId, QVariant value);
    /// The proxy's read result, or -1 without proxy.
    qint64 read(char *data, qint64 maxSize);
    /// One request-and-reply exchange on the caller's thread: the formatter of @p commandId,
    /// called with an empty value, makes the request, so a request carries no parameter.
    /// The proxy's result, or -1 when rejected (no proxy or no formatter).
    virtual qint64 ioctl(quint16 commandId, char *buffer, quint32 size, quint32 timeoutMs);
    /// A hook for devices that gather data on request (KrPalRoot::collectData()); the base
    /// does nothing.
    virtual void collectData();
    /// Consulted once for every rejected command; its answer does not change the result.
    virtual bool commandBlacklisted(quint16 commandId);

    /// The time-out of write() without one; 4000 ms until changed.
    void setTimeoutInMs(quint32 timeoutMs);
    /// The time-out of write() without one.
    quint32 timeoutInMs() const;
    /// The device key given at construction.
    const QByteArray &id() const;

    /// Runs @p job on the command thread and waits at most @p timeoutMs for it: the job's
    /// result, or -1 (reported) after the time-out. Without a command thread the job is not
    /// run and -1 is returned at once, unreported. An empty job throws
    /// std::bad_function_call here, on the caller's thread.
    qint64 doCommand(std::function<qint64()> job, quint32 timeoutMs);
    /// The command thread's body: stores the job's result and ends the thread.
    void doWork(std::function<qint64()> job, qint64 *result);
    /// Waits for the previous command to end and removes its closure.
    void prepareThread();

Q_SIGNALS:
    /// The proxy's readyRead(), on the thread that emitted it; nothing else emits it (a
    /// KrDataCollector emits its own rawDataReady(const QByteArray &)).
    void rawDataReady(const KrDeviceAbstraction &deviceAbstraction);
    /// The proxy's dataReady(), forwarded.
    void dataReady(const char *data, int size);

private:
    void adoptProxy();
    void waitForCommandThread();

    KrAbstractDeviceProxy *m_deviceProxy;
    QByteArray m_id;
    CommandFormatters m_formatters;
    std::unique_ptr<QThread> m_commandThread;
    quint32 m_timeoutMs;
    // Counts the jobs that ended; see waitForCommandThread().
    std::atomic<quint64> m_jobsFinished{0};
};

} // namespace Pal
