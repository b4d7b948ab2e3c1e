#pragma once

#include <pal/devices/krfiledeviceproxy.h>

#include <functional>
#include <memory>
#include <mutex>

namespace Pal {

/// A device proxy over a tty: an on-chip UART, a USB serial adapter, a pseudo-terminal. The
/// line runs raw and 8-bit clean at any rate, held exclusively unless told otherwise; input
/// that waited before an open is discarded, as it answers nothing the application sent.
/// Every setting is read back from the driver: one it does not take closes the proxy, and
/// errorString() names it. Settings are kept across a reopen after the device came back.
class KRPALDEVICES_EXPORT KrSerialDeviceProxy : public KrFileDeviceProxy
{
    Q_OBJECT
public:
    /// The parity bit of each character.
    enum class Parity
    {
        None, ///< no parity bit
        Even, ///< even parity
        Odd ///< odd parity
    };
    Q_ENUM(Parity)
    /// How the two ends pace each other.
    enum class FlowControl
    {
        None, ///< no flow control
        RtsCts, ///< hardware handshake on RTS and CTS
        XonXoff ///< software handshake with XON (^Q) and XOFF (^S)
    };
    Q_ENUM(FlowControl)

    /// RS-485 half duplex, driven by the UART's driver: RTS marks the time the line is sent on.
    struct Rs485
    {
        bool enabled = false; ///< half duplex on
        bool rtsOnSend = true; ///< RTS high while sending (low when false)
        quint32 delayBeforeSendMs = 0; ///< RTS set this long before the first bit
        quint32 delayAfterSendMs = 0; ///< RTS held this long after the last bit
    };

    /// Opens the tty at @p path at @p baudRate, 8 data bits, no parity, 1 stop bit, no flow
    /// control, exclusively. A tty missing now is looked for again by later operations.
    explicit KrSerialDeviceProxy(const QString &path, qint32 baudRate = 115200, QObject *parent = nullptr);
    ~KrSerialDeviceProxy() override;

    /// Each setter applies its setting at once when the line is open, and keeps it for later
    /// opens: false, with errorString(), when the driver did not take it.
    bool setBaudRate(qint32 baudRate);
    /// The rate the driver took, which may differ from the one asked for by up to 3 %.
    qint32 baudRate() const;
    /// Data bits per character, 5 to 8 (8 unless changed).
    bool setDataBits(int dataBits);
    /// The data bits per character.
    int dataBits() const;
    /// The parity (none unless changed).
    bool setParity(Parity parity);
    /// The parity.
    Parity parity() const;
    /// Stop bits, 1 or 2 (1 unless changed).
    bool setStopBits(int stopBits);
    /// The stop bits.
    int stopBits() const;
    /// The flow control (none unless changed).
    bool setFlowControl(FlowControl flowControl);
    /// The flow control.
    FlowControl flowControl() const;
    /// Exclusive access (on unless changed): a second open of the tty, from this process or
    /// another, fails as "in use". Held with TIOCEXCL and an advisory flock(), since TIOCEXCL
    /// does not hold against root.
    bool setExclusive(bool exclusive);
    /// Whether the tty is held exclusively.
    bool isExclusive() const;
    /// Switches RS-485 on or off; a driver without it refuses.
    bool setRs485(const Rs485 &rs485);
    /// The RS-485 settings the driver took.
    Rs485 rs485() const;

protected:
    bool prepareNode(int descriptor, QString *error) override;

private:
    struct Settings;
    bool change(const std::function<void(Settings &)> &edit);

    mutable std::mutex m_settingsMutex;
    std::unique_ptr<Settings> m_settings;
    bool m_rs485Applied = false; // under the node's mutex, in prepareNode()
};

} // namespace Pal
