#pragma once

#include <pal/krdeviceabstraction.h>
#include <pal/krpal_export.h>

#include <QByteArray>
#include <QList>
#include <QMetaObject>
#include <QSharedPointer>

#include <memory>

namespace Pal {

class KrPalRoot;

/// An application's description of its board, from which the library builds the root of
/// device abstractions. For each device key a subclass either names the proxy class and the
/// device abstraction class, both built through their invokable constructors, or builds the
/// device itself in createDeviceAbstraction(), which is asked first.
///
/// The factory finds constructors by their spelling, so a device abstraction class built by
/// name declares, inside namespace Pal or after `using Pal::KrAbstractDeviceProxy;` and
/// `using Pal::CommandFormatters;`,
/// @code
/// Q_INVOKABLE MyDevice(const QByteArray &id, KrAbstractDeviceProxy *proxy, CommandFormatters &formatters);
/// @endcode
/// and a proxy class `Q_INVOKABLE explicit MyProxy(QObject *parent = nullptr);`. Spelled
/// `Pal::KrAbstractDeviceProxy *` or `const CommandFormatters &`, the constructor is not
/// found: the key's device is missing from the root, with status report 50 naming the class
/// and 51 naming the key.
class KRPAL_EXPORT KrPalConfiguration
{
public:
    KrPalConfiguration();
    virtual ~KrPalConfiguration();

    /// The command ids that the device under @p id accepts, for the application's own use.
    virtual QList<quint16> commandIds(const QByteArray &id) const;
    /// The formatters of the device under @p id, passed to its constructor; empty by default.
    /// ioctl() calls a request's formatter with an empty value.
    virtual CommandFormatters commandFormatters(const QByteArray &id) const;
    /// The proxy class of the device under @p id (`X::staticMetaObject`); none by default.
    virtual QMetaObject deviceProxy(const QByteArray &id) const;
    /// A device built by hand; an empty pointer lets the library build it from its classes.
    virtual std::shared_ptr<KrDeviceAbstraction> createDeviceAbstraction(const QByteArray &id) const;
    /// The device keys of the board, in the order in which they are built.
    virtual QList<QByteArray> deviceAbstractionIds() const = 0;
    /// The device class of the device under @p id; none by default.
    virtual QMetaObject deviceAbstraction(const QByteArray &id) const;

    /// A new root holding every device that could be built; never null. Each key that yields
    /// no device is reported and left out.
    QSharedPointer<KrPalRoot> createPalRoot() const;
    /// Builds the device of @p deviceAbstractionId from its proxy and device classes; the
    /// proxy becomes the device's child. An empty pointer after a reported failure.
    std::shared_ptr<KrDeviceAbstraction> createKrDeviceAbstraction(const QByteArray &deviceAbstractionId) const;
};

} // namespace Pal
