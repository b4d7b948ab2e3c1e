#include "krserialline_p.h"

// Only the kernel's definitions: <asm/termbits.h> defines struct termios2 and BOTHER, and
// clashes with the C library's <termios.h>.
#include <asm/ioctls.h>
#include <asm/termbits.h>
#include <linux/serial.h>

#include <cerrno>
#include <cstdlib>

extern "C" int ioctl(int descriptor, unsigned long request, ...) noexcept;

namespace Pal {
namespace Internal {

namespace {

int control(int descriptor, unsigned long request, void *argument)
{
    int result;
    do
        result = ::ioctl(descriptor, request, argument);
    while (result < 0 && errno == EINTR);
    return result;
}

tcflag_t sizeFlag(int dataBits)
{
    switch (dataBits) {
    case 5:
        return CS5;
    case 6:
        return CS6;
    case 7:
        return CS7;
    default:
        return CS8;
    }
}

tcflag_t parityFlags(KrSerialDeviceProxy::Parity parity)
{
    switch (parity) {
    case KrSerialDeviceProxy::Parity::Even:
        return PARENB;
    case KrSerialDeviceProxy::Parity::Odd:
        return PARENB | PARODD;
    case KrSerialDeviceProxy::Parity::None:
        break;
    }
    return 0;
}

QLatin1String parityName(KrSerialDeviceProxy::Parity parity)
{
    switch (parity) {
    case KrSerialDeviceProxy::Parity::Even:
        return QLatin1String("even");
    case KrSerialDeviceProxy::Parity::Odd:
        return QLatin1String("odd");
    case KrSerialDeviceProxy::Parity::None:
        break;
    }
    return QLatin1String("no");
}

} // namespace

bool isTerminal(int descriptor)
{
    termios line;
    return control(descriptor, TCGETS, &line) == 0;
}

QString applySerialLine(int descriptor, const SerialLine &wanted, qint32 *baudRate)
{
    if (wanted.baudRate <= 0)
        return QStringLiteral("has no baud rate %1").arg(wanted.baudRate);
    if (wanted.dataBits < 5 || wanted.dataBits > 8)
        return QStringLiteral("has no %1 data bits").arg(wanted.dataBits);
    if (wanted.stopBits != 1 && wanted.stopBits != 2)
        return QStringLiteral("has no %1 stop bits").arg(wanted.stopBits);
    termios2 line;
    if (control(descriptor, TCGETS2, &line) < 0)
        return QStringLiteral("has no line settings: %1").arg(qt_error_string(errno));
    // Raw: no echo, no line editing, no signals, no CR/LF translation, no stripped bit.
    line.c_iflag &= ~tcflag_t(
        IGNBRK | BRKINT | PARMRK | ISTRIP | INLCR | IGNCR | ICRNL | IUCLC | IXON | IXOFF | IXANY | INPCK | IMAXBEL);
    line.c_oflag &= ~tcflag_t(OPOST);
    line.c_lflag &= ~tcflag_t(ECHO | ECHOE | ECHOK | ECHONL | ICANON | ISIG | IEXTEN);
    line.c_cflag &= ~tcflag_t(CSIZE | PARENB | PARODD | CMSPAR | CSTOPB | CRTSCTS | CBAUD | (CBAUD << IBSHIFT));
    // Any rate, through BOTHER; the input runs at the output's rate.
    line.c_cflag |= CLOCAL | CREAD | BOTHER | sizeFlag(wanted.dataBits) | parityFlags(wanted.parity);
    if (wanted.stopBits == 2)
        line.c_cflag |= CSTOPB;
    if (wanted.flowControl == KrSerialDeviceProxy::FlowControl::RtsCts)
        line.c_cflag |= CRTSCTS;
    if (wanted.flowControl == KrSerialDeviceProxy::FlowControl::XonXoff)
        line.c_iflag |= IXON | IXOFF;
    line.c_ispeed = speed_t(wanted.baudRate);
    line.c_ospeed = speed_t(wanted.baudRate);
    line.c_cc[VMIN] = 0;
    line.c_cc[VTIME] = 0;
    if (control(descriptor, TCSETS2, &line) < 0)
        return QStringLiteral("refuses its line settings: %1").arg(qt_error_string(errno));

    termios2 taken;
    if (control(descriptor, TCGETS2, &taken) < 0)
        return QStringLiteral("has no line settings: %1").arg(qt_error_string(errno));
    *baudRate = qint32(taken.c_ospeed);
    if ((taken.c_cflag & CSIZE) != sizeFlag(wanted.dataBits))
        return QStringLiteral("does not take %1 data bits").arg(wanted.dataBits);
    if ((taken.c_cflag & (PARENB | PARODD)) != parityFlags(wanted.parity))
        return QStringLiteral("does not take %1 parity").arg(parityName(wanted.parity));
    if (bool(taken.c_cflag & CSTOPB) != (wanted.stopBits == 2))
        return QStringLiteral("does not take %1 stop bits").arg(wanted.stopBits);
    if (bool(taken.c_cflag & CRTSCTS) != (wanted.flowControl == KrSerialDeviceProxy::FlowControl::RtsCts))
        return QStringLiteral("does not take the RTS/CTS flow control setting");
    if (bool(taken.c_iflag & IXON) != (wanted.flowControl == KrSerialDeviceProxy::FlowControl::XonXoff))
        return QStringLiteral("does not take the XON/XOFF flow control setting");
    if (std::llabs(qint64(taken.c_ospeed) - wanted.baudRate) * 100 > qint64(wanted.baudRate) * 3)
        return QStringLiteral("does not take the baud rate %1 (it runs at %2)").arg(wanted.baudRate).arg(*baudRate);
    return QString();
}

QString applyRs485(int descriptor, KrSerialDeviceProxy::Rs485 *rs485)
{
    serial_rs485 mode{};
    if (rs485->enabled) {
        mode.flags = SER_RS485_ENABLED | (rs485->rtsOnSend ? SER_RS485_RTS_ON_SEND : SER_RS485_RTS_AFTER_SEND);
        mode.delay_rts_before_send = rs485->delayBeforeSendMs;
        mode.delay_rts_after_send = rs485->delayAfterSendMs;
    }
    if (control(descriptor, TIOCSRS485, &mode) < 0 || control(descriptor, TIOCGRS485, &mode) < 0) {
        const int error = errno;
        if (error == ENOTTY || error == EINVAL)
            return QStringLiteral("does not support RS-485 (%1)").arg(qt_error_string(error));
        return QStringLiteral("refuses RS-485: %1").arg(qt_error_string(error));
    }
    const bool enabled = mode.flags & SER_RS485_ENABLED;
    if (enabled != rs485->enabled)
        return QStringLiteral("does not take RS-485 %1").arg(QLatin1String(rs485->enabled ? "on" : "off"));
    if (enabled && bool(mode.flags & SER_RS485_RTS_ON_SEND) != rs485->rtsOnSend)
        return QStringLiteral("does not take the RS-485 RTS polarity");
    // The driver may round the delays to what it can do: those are the ones in effect.
    rs485->delayBeforeSendMs = mode.delay_rts_before_send;
    rs485->delayAfterSendMs = mode.delay_rts_after_send;
    return QString();
}

void flushSerialInput(int descriptor)
{
    int result;
    do
        result = ::ioctl(descriptor, TCFLSH, TCIFLUSH);
    while (result < 0 && errno == EINTR);
}

} // namespace Internal
} // namespace Pal
