#pragma once

#include <pal/krpal_export.h>

#include <crosscutting/crosscutting.h>

#include <QByteArray>
#include <QHash>
#include <QObject>

#include <memory>

namespace Pal {

class KrDeviceAbstraction;

/// The device abstractions of one application, each under its device key. A root is filled
/// by its configuration before it is shared and only read afterwards, so it takes no lock:
/// lookups and collectData() may run on several threads at once.
class KRPAL_EXPORT KrPalRoot : public QObject
{
    Q_OBJECT
public:
    /// An empty root; KrPalConfiguration::createPalRoot() builds filled ones.
    explicit KrPalRoot(QObject *parent = nullptr);
    /// Releases the root's reference to every device before the QObject children go.
    ~KrPalRoot() override;

    /// Registers @p deviceAbstraction under @p key: 0 on success, otherwise the status
    /// reporter's answer to the report of a taken key or of the reserved key "NULL". An empty
    /// pointer is registered like any other; lookups then yield null for it.
    StatusCode addDeviceAbstraction(const QByteArray &key, std::shared_ptr<KrDeviceAbstraction> deviceAbstraction);
    /// The device under @p key (a null @p key means the empty key), valid while the root
    /// lives; null, and reported, for an unregistered key.
    KrDeviceAbstraction *deviceAbstraction(const char *key);
    /// Asks the device under @p key, or every device when @p key is null, to collect data.
    void collectData(const char *key) const;

private:
    QHash<const QByteArray, std::shared_ptr<KrDeviceAbstraction>> m_deviceAbstractions;
};

} // namespace Pal
