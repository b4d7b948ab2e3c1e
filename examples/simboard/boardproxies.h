#pragma once

#include "boardwiring.h"

#include <pal/devices/krfiledeviceproxy.h>
#include <pal/devices/krserialdeviceproxy.h>
#include <pal/devices/kruiodeviceproxy.h>

#include <cstring>

// The board's proxies, built by the configuration by class name without arguments: each
// names its node and settings. On the instrument the nodes are fixed ("/dev/ttyPS1",
// "/dev/adc-stream", "/dev/ttyPS2", "/" for the UIO tree); the simulated instrument makes its nodes when it
// starts, so here their paths come from BoardWiring.

/// The front end, a controller on a serial line: one text line per command or request, one
/// answer line each ("OK" or "ERR ..." for a command, the value for a request). Commands and
/// requests are both exchanges, which the line runs one at a time; a request waits for a
/// running command no longer than its own time-out.
class FrontEndProxy : public Pal::KrSerialDeviceProxy
{
    Q_OBJECT
public:
    Q_INVOKABLE explicit FrontEndProxy(QObject *parent = nullptr)
        : KrSerialDeviceProxy(BoardWiring::nodePath("frontend"), 460800, parent)
    {
    }

    /// How long a command may wait for its answer. The device abstraction stops waiting much
    /// earlier, but its command thread, and with it the abstraction's destructor, waits for
    /// this call: the limit keeps a front end that never answers from holding them for ever.
    static constexpr int commandLimitMs = 10000;

    /// @p size when the front end answered "OK", -2 when it refused the command, -1 when the
    /// line failed or no answer came within commandLimitMs.
    qint64 write(const char *data, qint64 size) override
    {
        QByteArray answer;
        if (exchange(data, size, &answer, 256, "\n", QDeadlineTimer(commandLimitMs, Qt::PreciseTimer)) != Io::Done)
            return -1;
        return answer == "OK\n" ? size : answer.startsWith("ERR") ? -2 : -1;
    }
    /// The front end sends nothing unasked.
    qint64 read(char *, qint64) override { return 0; }
    /// The answer without its line feed; -2 for "ERR ...", -1 when the line failed, no answer
    /// came within @p timeoutMs or it does not fit.
    qint64 ioctl(char *request, int requestSize, char *reply, quint32 replySize, quint32 timeoutMs) override
    {
        QByteArray answer;
        if (exchange(request, requestSize, &answer, qint64(replySize) + 1, "\n",
                QDeadlineTimer(qint64(timeoutMs), Qt::PreciseTimer))
                != Io::Done
            || !answer.endsWith('\n'))
            return -1;
        answer.chop(1);
        if (answer.startsWith("ERR"))
            return -2;
        std::memcpy(reply, answer.constData(), size_t(answer.size()));
        return answer.size();
    }
};

/// The ADC's sample stream, a read-only node. Input is handed out in whole buffers, as a DMA
/// driver hands out whole blocks, so every buffer a data collector emits holds samples only.
class AdcStreamProxy : public Pal::KrFileDeviceProxy
{
    Q_OBJECT
public:
    Q_INVOKABLE explicit AdcStreamProxy(QObject *parent = nullptr)
        : KrFileDeviceProxy(BoardWiring::nodePath("adc"), parent)
    {
    }

    /// Exactly @p maxSize bytes when that many wait, 0 when fewer, -1 when the node failed.
    qint64 read(char *data, qint64 maxSize) override
    {
        const qint64 waiting = bytesAvailable();
        return waiting < 0 ? -1 : waiting < maxSize || maxSize <= 0 ? 0 : KrFileDeviceProxy::read(data, maxSize);
    }
};

/// The ADC's control registers (enable, rate divider, status), a UIO block found by its name.
class AdcControlProxy : public Pal::KrUioDeviceProxy
{
    Q_OBJECT
public:
    Q_INVOKABLE explicit AdcControlProxy(QObject *parent = nullptr)
        : KrUioDeviceProxy(QStringLiteral("adc-ctrl"), 0, BoardWiring::nodePath("root"), parent)
    {
    }
};

/// The GPS receiver's serial line: NMEA sentences at 9600 baud, which the receiver sends unasked.
class GpsReceiverProxy : public Pal::KrSerialDeviceProxy
{
    Q_OBJECT
public:
    Q_INVOKABLE explicit GpsReceiverProxy(QObject *parent = nullptr)
        : KrSerialDeviceProxy(BoardWiring::nodePath("gps"), 9600, parent)
    {
    }
};
