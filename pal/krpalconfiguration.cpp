#include "krpalconfiguration.h"

#include "krabstractdeviceproxy.h"
#include "krpalroot.h"
#include "krstatusreport_p.h"

namespace Pal {

namespace {
const char createPalRootFunction[] = "QSharedPointer<Pal::KrPalRoot> Pal::KrPalConfiguration::createPalRoot() const";
const char createKrDeviceAbstractionFunction[] = "std::shared_ptr<Pal::KrDeviceAbstraction> "
                                                 "Pal::KrPalConfiguration::createKrDeviceAbstraction(const "
                                                 "QByteArray&) const";

// Only a QObject class can be built into a proxy or a device. Qt's newInstance() and
// className() would read through the null fields of the base's empty meta-object, and Qt's
// public interface tells that one apart from other meta-objects only by their superclass:
// newInstance() is asked only of classes derived from QObject (QObject itself has no
// invokable constructor), and a class name only of meta-objects that have a superclass. So
// QObject's own meta-object is reported like the empty one, and a gadget's never built.
bool isConstructible(const QMetaObject &metaObject)
{
    return metaObject.inherits(&QObject::staticMetaObject);
}

QString className(const QMetaObject &metaObject)
{
    return metaObject.superClass() ? Internal::fromEightBit(metaObject.className()) : QString();
}
} // namespace

KrPalConfiguration::KrPalConfiguration() = default;

KrPalConfiguration::~KrPalConfiguration() = default;

QList<quint16> KrPalConfiguration::commandIds(const QByteArray &id) const
{
    Q_UNUSED(id)
    return {};
}

CommandFormatters KrPalConfiguration::commandFormatters(const QByteArray &id) const
{
    Q_UNUSED(id)
    return {};
}

QMetaObject KrPalConfiguration::deviceProxy(const QByteArray &id) const
{
    Q_UNUSED(id)
    return QMetaObject();
}

std::shared_ptr<KrDeviceAbstraction> KrPalConfiguration::createDeviceAbstraction(const QByteArray &id) const
{
    Q_UNUSED(id)
    return {};
}

QMetaObject KrPalConfiguration::deviceAbstraction(const QByteArray &id) const
{
    Q_UNUSED(id)
    return QMetaObject();
}

QSharedPointer<KrPalRoot> KrPalConfiguration::createPalRoot() const
{
    QSharedPointer<KrPalRoot> root(new KrPalRoot);
    const QList<QByteArray> ids = deviceAbstractionIds();
    for (const QByteArray &id : ids) {
        std::shared_ptr<KrDeviceAbstraction> device = createDeviceAbstraction(id);
        if (!device)
            device = createKrDeviceAbstraction(id);
        if (device) {
            // A refused device dies with the moved reference, before the next key is built.
            root->addDeviceAbstraction(id, std::move(device));
            continue;
        }
        Internal::reportStatus(51, __FILE__, 40, createPalRootFunction,
            {QStringLiteral("creating KrPalRoot"),
                Internal::throughLocalEightBit(
                    QStringLiteral("device %1 couldn't be constructed").arg(Internal::fromEightBit(id)))});
    }
    return root;
}

std::shared_ptr<KrDeviceAbstraction> KrPalConfiguration::createKrDeviceAbstraction(
    const QByteArray &deviceAbstractionId) const
{
    if (deviceAbstractionId.isEmpty()) {
        Internal::reportStatus(
            39, __FILE__, 69, createKrDeviceAbstractionFunction, {QStringLiteral("deviceAbstractionId")});
        return {};
    }

    const QMetaObject proxyClass = deviceProxy(deviceAbstractionId);
    std::unique_ptr<QObject> proxyObject(isConstructible(proxyClass) ? proxyClass.newInstance() : nullptr);
    if (!proxyObject) {
        Internal::reportStatus(50, __FILE__, 79, createKrDeviceAbstractionFunction, {className(proxyClass)});
        return {};
    }
    // A class outside the proxy hierarchy reaches the device as no proxy at all rather than
    // as a pointer of the wrong type; it is still owned and deleted like a proxy.
    KrAbstractDeviceProxy *proxy = qobject_cast<KrAbstractDeviceProxy *>(proxyObject.get());

    const QMetaObject deviceClass = deviceAbstraction(deviceAbstractionId);
    // The device copies the formatters: this local copy dies when the factory returns.
    CommandFormatters formatters = commandFormatters(deviceAbstractionId);
    QObject *deviceObject = isConstructible(deviceClass)
        ? deviceClass.newInstance(QGenericArgument("const QByteArray&", &deviceAbstractionId),
            QGenericArgument("KrAbstractDeviceProxy*", &proxy), QGenericArgument("CommandFormatters&", &formatters))
        : nullptr;
    // The configuration promises a device abstraction class; its object is taken as one.
    std::shared_ptr<KrDeviceAbstraction> device(static_cast<KrDeviceAbstraction *>(deviceObject));
    if (!device) {
        Internal::reportStatus(50, __FILE__, 94, createKrDeviceAbstractionFunction, {className(deviceClass)});
        return {};
    }

    proxyObject.release()->setParent(device.get());
    return device;
}

} // namespace Pal
