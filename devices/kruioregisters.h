#pragma once

#include <pal/devices/krpaldevices_export.h>

#include <QByteArray>
#include <QList>
#include <QPair>

namespace Pal {

/// The bytes that a KrUioDeviceProxy takes and gives, for command formatters:
/// @code
/// formatters.insert(SetRateDivider, [](quint16, const QVariant &value) {
///     return KrUioRegisters::write(RateDividerOffset, value.toUInt());
/// });
/// formatters.insert(ReadStatus, [](quint16, const QVariant &) {
///     return KrUioRegisters::offsets({StatusOffset, SampleCountOffset});
/// });
/// @endcode
/// and, after ioctl(ReadStatus, reply, sizeof reply): KrUioRegisters::values(reply, result).
class KRPALDEVICES_EXPORT KrUioRegisters
{
public:
    KrUioRegisters() = delete;

    /// The write() batch that stores each value at its byte offset, in list order.
    static QByteArray writes(const QList<QPair<quint32, quint32>> &offsetValuePairs);
    /// The write() batch of one store.
    static QByteArray write(quint32 offset, quint32 value);
    /// The ioctl() request that reads the registers at these byte offsets, in list order.
    static QByteArray offsets(const QList<quint32> &offsets);
    /// The register values in an ioctl() reply of @p size bytes (its result): empty for a
    /// failed call.
    static QList<quint32> values(const char *reply, qint64 size);
};

} // namespace Pal
