#include "krpalroot.h"

#include "krdeviceabstraction.h"
#include "krstatusreport_p.h"

namespace Pal {

namespace {
const char addDeviceAbstractionFunction[] = "StatusCode Pal::KrPalRoot::addDeviceAbstraction(const QByteArray&, "
                                            "std::shared_ptr<Pal::KrDeviceAbstraction>)";
const char deviceAbstractionFunction[] = "Pal::KrDeviceAbstraction* Pal::KrPalRoot::deviceAbstraction(const char*)";
const char collectDataFunction[] = "void Pal::KrPalRoot::collectData(const char*) const";

const char reservedKey[] = "NULL";

// The root's reference is held for the call, so the device outlives its own collectData().
// An empty entry is skipped: there is no device to ask.
void collectFrom(std::shared_ptr<KrDeviceAbstraction> deviceAbstraction)
{
    if (deviceAbstraction)
        deviceAbstraction->collectData();
}
} // namespace

KrPalRoot::KrPalRoot(QObject *parent)
    : QObject(parent)
{
}

KrPalRoot::~KrPalRoot()
{
    m_deviceAbstractions.clear();
}

StatusCode KrPalRoot::addDeviceAbstraction(
    const QByteArray &key, std::shared_ptr<KrDeviceAbstraction> deviceAbstraction)
{
    if (m_deviceAbstractions.contains(key)) {
        const QByteArray message = QByteArray("KrDeviceAbstraction with key = ") + key;
        return Internal::reportStatus(46, __FILE__, 25, addDeviceAbstractionFunction,
            {Internal::fromEightBit(message), QStringLiteral("KrPalRoot")});
    }
    if (qstrcmp(key, reservedKey) == 0)
        return Internal::reportStatus(39, __FILE__, 30, addDeviceAbstractionFunction, {QStringLiteral("key")});

    m_deviceAbstractions.insert(key, std::move(deviceAbstraction));
    return 0;
}

KrDeviceAbstraction *KrPalRoot::deviceAbstraction(const char *key)
{
    const QByteArray keyBytes(key);
    // constFind: lookups run on several threads at once and must never detach the registry.
    const auto entry = m_deviceAbstractions.constFind(keyBytes);
    if (entry != m_deviceAbstractions.constEnd())
        return entry->get();

    Internal::reportStatus(47, __FILE__, 44, deviceAbstractionFunction,
        {Internal::throughLocalEightBit(
            QStringLiteral("KrDeviceAbstraction with key = %1 KrPalRoot").arg(Internal::fromEightBit(keyBytes)))});
    return nullptr;
}

void KrPalRoot::collectData(const char *key) const
{
    if (!key) {
        for (const std::shared_ptr<KrDeviceAbstraction> &deviceAbstraction : m_deviceAbstractions)
            collectFrom(deviceAbstraction);
        return;
    }

    const QByteArray keyBytes(key);
    const auto entry = m_deviceAbstractions.constFind(keyBytes);
    if (entry != m_deviceAbstractions.constEnd()) {
        collectFrom(*entry);
        return;
    }

    Internal::reportStatus(47, __FILE__, 74, collectDataFunction,
        {Internal::throughLocalEightBit(QStringLiteral("Device ID %1").arg(Internal::fromEightBit(keyBytes))),
            QStringLiteral("KrPalRoot")});
}

} // namespace Pal
