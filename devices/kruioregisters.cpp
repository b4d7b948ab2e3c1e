#include "kruioregisters.h"

#include <QtEndian>

namespace Pal {

QByteArray KrUioRegisters::writes(const QList<QPair<quint32, quint32>> &offsetValuePairs)
{
    QByteArray bytes;
    bytes.reserve(offsetValuePairs.size() * 8);
    for (const QPair<quint32, quint32> &pair : offsetValuePairs) {
        char little[8];
        qToLittleEndian(pair.first, little);
        qToLittleEndian(pair.second, little + 4);
        bytes.append(little, 8);
    }
    return bytes;
}

QByteArray KrUioRegisters::write(quint32 offset, quint32 value)
{
    return writes({qMakePair(offset, value)});
}

QByteArray KrUioRegisters::offsets(const QList<quint32> &offsets)
{
    QByteArray bytes;
    bytes.reserve(offsets.size() * 4);
    for (const quint32 offset : offsets) {
        char little[4];
        qToLittleEndian(offset, little);
        bytes.append(little, 4);
    }
    return bytes;
}

QList<quint32> KrUioRegisters::values(const char *reply, qint64 size)
{
    QList<quint32> result;
    if (!reply || size <= 0)
        return result;
    result.reserve(int(size / 4));
    for (qint64 at = 0; at + 4 <= size; at += 4)
        result.append(qFromLittleEndian<quint32>(reply + at));
    return result;
}

} // namespace Pal
