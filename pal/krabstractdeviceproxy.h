#pragma once

#include <pal/krpal_export.h>

#include <QObject>

namespace Pal {

/// The byte transport to one hardware device, written by the application for each kind of
/// device access. It knows nothing of command ids, formatting or time-outs.
///
/// write() is called on the command thread of the device abstraction that uses the proxy, a
/// thread started for each command; read() on whatever thread calls the device abstraction
/// or on a data collector's thread; ioctl() on the caller's thread. They may overlap: any
/// serialisation the device needs is the proxy's own business. Since the calls come from
/// several threads, a proxy uses plain descriptors with poll() rather than Qt I/O objects
/// (QSerialPort, QSocketNotifier), which belong to one thread.
///
/// The device abstraction's time-out bounds its caller's wait, not the proxy's call: a
/// write() that never returns holds up the next command and the device's destruction. Each
/// call bounds itself (poll() with a deadline), and read() returns 0 at once when no input
/// is waiting.
/// A concrete proxy declares an invokable constructor callable with no arguments so that a
/// configuration can build it by class name.
class KRPAL_EXPORT KrAbstractDeviceProxy : public QObject
{
    Q_OBJECT
public:
    /// A subclass that the factory builds declares `Q_INVOKABLE explicit X(QObject *parent = nullptr)`.
    explicit KrAbstractDeviceProxy(QObject *parent = nullptr);
    ~KrAbstractDeviceProxy() override;

    /// Sends @p size bytes; the bytes are valid for the duration of the call only.
    virtual qint64 write(const char *data, qint64 size) = 0;
    /// Copies at most @p maxSize bytes of input: -1 on failure, 0 when nothing was read.
    virtual qint64 read(char *data, qint64 maxSize) = 0;
    /// One request-and-reply exchange; enforcing @p timeoutMs is the proxy's job.
    virtual qint64 ioctl(char *request, int requestSize, char *reply, quint32 replySize, quint32 timeoutMs) = 0;

Q_SIGNALS:
    /// Input is waiting. Re-emitted by every device abstraction that adopted the proxy as its
    /// rawDataReady(), on the thread that emitted it; the only source of that signal.
    void readyRead();
    /// @p size bytes of input, valid during the emission only; re-emitted as the device
    /// abstraction's dataReady().
    void dataReady(const char *data, int size);
};

} // namespace Pal
