#include "adcstreamproxy.h"

AdcStreamProxy::AdcStreamProxy(QObject *parent)
    : PortProxy(QByteArrayLiteral("adc"), parent)
{
}

AdcStreamProxy::~AdcStreamProxy() = default;

qint64 AdcStreamProxy::write(const char *data, qint64 size)
{
    return writeAll(data, size, QDeadlineTimer(writeLimitMs, Qt::PreciseTimer)) == Io::Done ? size : -1;
}

qint64 AdcStreamProxy::read(char *data, qint64 maxSize)
{
    if (maxSize <= 0)
        return 0;
    const qint64 waiting = bytesAvailable();
    if (waiting < 0)
        return -1;
    if (waiting < maxSize)
        return hungUp() ? -1 : 0;

    Q_EMIT readyRead();
    qint64 filled = 0;
    while (filled < maxSize) {
        const qint64 count = readAvailable(data + filled, maxSize - filled);
        if (count < 0)
            return -1;
        filled += count;
        // The bytes were counted as waiting, so they are there; this only guards a short read.
        if (count == 0 && waitForInput(QDeadlineTimer(writeLimitMs, Qt::PreciseTimer)) != Io::Done)
            return -1;
    }
    return filled;
}

qint64 AdcStreamProxy::ioctl(char *request, int requestSize, char *reply, quint32 replySize, quint32 timeoutMs)
{
    Q_UNUSED(request)
    Q_UNUSED(requestSize)
    Q_UNUSED(reply)
    Q_UNUSED(replySize)
    Q_UNUSED(timeoutMs)
    return -1;
}
