#pragma once

#include <pal/krabstractdeviceproxy.h>

#include <QByteArray>
#include <QDeadlineTimer>

/// A device proxy over the descriptor of one port of the board. The port's node is opened
/// non-blocking, and every wait is a poll() with a deadline, so no call of the proxy blocks
/// longer than its caller allows, and a far end that goes away ends every wait at once.
class PortProxy : public Pal::KrAbstractDeviceProxy
{
    Q_OBJECT
public:
    ~PortProxy() override;

    bool isOpen() const;

protected:
    /// Opens the node that @p port is wired to (see BoardWiring); a port that is not wired or
    /// cannot be opened is logged, and every operation on it then fails.
    PortProxy(const QByteArray &port, QObject *parent);

    enum class Io
    {
        Done,
        TimedOut,
        Failed
    };

    /// Writes all @p size bytes, waiting for room until @p deadline.
    Io writeAll(const char *data, qint64 size, QDeadlineTimer deadline);
    /// Reads what is waiting, at most @p maxSize bytes: their count, 0 when nothing is
    /// waiting, -1 when the far end has gone or the read failed.
    qint64 readAvailable(char *data, qint64 maxSize);
    /// Waits until @p deadline for input; Failed when the far end has gone.
    Io waitForInput(QDeadlineTimer deadline);
    /// How many bytes wait to be read, without reading them; -1 on failure.
    qint64 bytesAvailable() const;
    /// Whether the far end has hung up, without waiting.
    bool hungUp() const;

private:
    Io waitFor(short events, QDeadlineTimer deadline);

    int m_descriptor = -1;
};
