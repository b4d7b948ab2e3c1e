#pragma once

#include "portproxy.h"

/// The proxy of the board's ADC, which streams 16-bit samples once told to. Commands are
/// register writes that the ADC does not answer. Input is handed out in whole buffers, as a
/// DMA driver hands out whole blocks: read() gives 0 until @c maxSize bytes are waiting, so
/// every buffer that a data collector emits holds samples only, never trailing zeros.
class AdcStreamProxy : public PortProxy
{
    Q_OBJECT
public:
    Q_INVOKABLE explicit AdcStreamProxy(QObject *parent = nullptr);
    ~AdcStreamProxy() override;

    /// Sends a command: @p size, or -1 when the line failed or stayed full for writeLimitMs.
    qint64 write(const char *data, qint64 size) override;
    /// Exactly @p maxSize bytes when that many are waiting, announced by readyRead() first;
    /// 0 when fewer are waiting; -1 when the ADC has gone. Never waits.
    qint64 read(char *data, qint64 maxSize) override;
    /// The ADC answers no requests: -1.
    qint64 ioctl(char *request, int requestSize, char *reply, quint32 replySize, quint32 timeoutMs) override;

    static constexpr int writeLimitMs = 1000;
};
