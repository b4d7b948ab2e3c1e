#include "krserialdeviceproxy.h"

#include "krserialline_p.h"

#include <cerrno>

#include <sys/file.h>
#include <sys/ioctl.h>

namespace Pal {

struct KrSerialDeviceProxy::Settings
{
    Internal::SerialLine line;
    qint32 takenBaudRate = 0;
    bool exclusive = true;
    Rs485 rs485;
};

KrSerialDeviceProxy::KrSerialDeviceProxy(const QString &path, qint32 baudRate, QObject *parent)
    : KrFileDeviceProxy(path, false, parent)
    , m_settings(new Settings)
{
    m_settings->line.baudRate = baudRate;
    open();
}

KrSerialDeviceProxy::~KrSerialDeviceProxy() = default;

bool KrSerialDeviceProxy::setBaudRate(qint32 baudRate)
{
    return change([baudRate](Settings &settings) { settings.line.baudRate = baudRate; });
}

qint32 KrSerialDeviceProxy::baudRate() const
{
    const std::lock_guard<std::mutex> lock(m_settingsMutex);
    return m_settings->takenBaudRate ? m_settings->takenBaudRate : m_settings->line.baudRate;
}

bool KrSerialDeviceProxy::setDataBits(int dataBits)
{
    return change([dataBits](Settings &settings) { settings.line.dataBits = dataBits; });
}

int KrSerialDeviceProxy::dataBits() const
{
    const std::lock_guard<std::mutex> lock(m_settingsMutex);
    return m_settings->line.dataBits;
}

bool KrSerialDeviceProxy::setParity(Parity parity)
{
    return change([parity](Settings &settings) { settings.line.parity = parity; });
}

KrSerialDeviceProxy::Parity KrSerialDeviceProxy::parity() const
{
    const std::lock_guard<std::mutex> lock(m_settingsMutex);
    return m_settings->line.parity;
}

bool KrSerialDeviceProxy::setStopBits(int stopBits)
{
    return change([stopBits](Settings &settings) { settings.line.stopBits = stopBits; });
}

int KrSerialDeviceProxy::stopBits() const
{
    const std::lock_guard<std::mutex> lock(m_settingsMutex);
    return m_settings->line.stopBits;
}

bool KrSerialDeviceProxy::setFlowControl(FlowControl flowControl)
{
    return change([flowControl](Settings &settings) { settings.line.flowControl = flowControl; });
}

KrSerialDeviceProxy::FlowControl KrSerialDeviceProxy::flowControl() const
{
    const std::lock_guard<std::mutex> lock(m_settingsMutex);
    return m_settings->line.flowControl;
}

bool KrSerialDeviceProxy::setExclusive(bool exclusive)
{
    return change([exclusive](Settings &settings) { settings.exclusive = exclusive; });
}

bool KrSerialDeviceProxy::isExclusive() const
{
    const std::lock_guard<std::mutex> lock(m_settingsMutex);
    return m_settings->exclusive;
}

bool KrSerialDeviceProxy::setRs485(const Rs485 &rs485)
{
    return change([rs485](Settings &settings) { settings.rs485 = rs485; });
}

KrSerialDeviceProxy::Rs485 KrSerialDeviceProxy::rs485() const
{
    const std::lock_guard<std::mutex> lock(m_settingsMutex);
    return m_settings->rs485;
}

bool KrSerialDeviceProxy::prepareNode(int descriptor, QString *error)
{
    Settings settings;
    {
        const std::lock_guard<std::mutex> lock(m_settingsMutex);
        settings = *m_settings;
    }
    const auto refuse = [this, error](const QString &why) {
        *error = path() + QLatin1Char(' ') + why;
        return false;
    };
    if (!Internal::isTerminal(descriptor))
        return refuse(QStringLiteral("is not a terminal"));
    // TIOCEXCL keeps out other opens, except root's; the lock keeps out every proxy.
    if (settings.exclusive) {
        // Without waiting, so no signal interrupts it.
        if (::flock(descriptor, LOCK_EX | LOCK_NB) < 0) {
            // GCOVR_EXCL_BR_START: besides a lock held elsewhere only a kernel out of lock memory refuses it
            return refuse(errno == EWOULDBLOCK ? QStringLiteral("is in use") : qt_error_string(errno));
            // GCOVR_EXCL_BR_STOP
        }
        ::ioctl(descriptor, TIOCEXCL);
    } else {
        ::flock(descriptor, LOCK_UN);
        ::ioctl(descriptor, TIOCNXCL);
    }
    QString refusal = Internal::applySerialLine(descriptor, settings.line, &settings.takenBaudRate);
    // A driver without RS-485 refuses even to switch it off, so it is only touched when asked.
    if (refusal.isEmpty() && (settings.rs485.enabled || m_rs485Applied))
        refusal = Internal::applyRs485(descriptor, &settings.rs485);
    if (!refusal.isEmpty())
        return refuse(refusal);
    m_rs485Applied = settings.rs485.enabled;
    Internal::flushSerialInput(descriptor);
    const std::lock_guard<std::mutex> lock(m_settingsMutex);
    m_settings->takenBaudRate = settings.takenBaudRate;
    m_settings->rs485 = settings.rs485;
    return true;
}

bool KrSerialDeviceProxy::change(const std::function<void(Settings &)> &edit)
{
    {
        const std::lock_guard<std::mutex> lock(m_settingsMutex);
        edit(*m_settings);
    }
    return open();
}

} // namespace Pal
