#pragma once

#include <pal/devices/krserialdeviceproxy.h>

#include <QString>

namespace Pal {
namespace Internal {

/// The settings of a tty line, applied through the kernel's termios2 interface: its own file,
/// since the kernel's <asm/termbits.h>, which any rate needs, clashes with <termios.h>.
struct SerialLine
{
    qint32 baudRate = 115200;
    int dataBits = 8;
    KrSerialDeviceProxy::Parity parity = KrSerialDeviceProxy::Parity::None;
    int stopBits = 1;
    KrSerialDeviceProxy::FlowControl flowControl = KrSerialDeviceProxy::FlowControl::None;
};

/// Whether @p descriptor is a tty.
bool isTerminal(int descriptor);
/// Puts the line into raw mode with @p line's settings and reads them back. Returns what the
/// driver did not take ("does not take 7 data bits"), empty when it took everything;
/// @p baudRate receives the rate in effect.
QString applySerialLine(int descriptor, const SerialLine &line, qint32 *baudRate);
/// Switches RS-485 as @p rs485 asks and reads back what the driver took into it; returns
/// what it refused, empty when it took the mode.
QString applyRs485(int descriptor, KrSerialDeviceProxy::Rs485 *rs485);
/// Discards the input waiting on the line.
void flushSerialInput(int descriptor);

} // namespace Internal
} // namespace Pal
