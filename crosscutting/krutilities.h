#pragma once

#include <QMetaEnum>
#include <QMetaObject>
#include <QString>

namespace Crosscutting {
namespace KrUtilities {

/// The key name of @p value in the enumeration @p enumName of T's meta-object, or the empty
/// string when T has no such enumeration or the value has no key.
template<typename T>
QString enumValueToString(const QString &enumName, int value)
{
    QString result = QStringLiteral("");
    const QMetaObject metaObject = T::staticMetaObject;
    const int index = metaObject.indexOfEnumerator(enumName.toLatin1().constData());
    if (index != -1) {
        const char *key = metaObject.enumerator(index).valueToKey(value);
        if (key)
            result = QString::fromUtf8(key);
    }
    return result;
}

} // namespace KrUtilities
} // namespace Crosscutting
