#include "krselftestjson_p.h"

#include <pal/krabstractselftestresult.h>

#include <crosscutting/crosscutting.h>

#include <QJsonObject>

namespace Pal {
namespace Internal {

void insertTypeKey(QJsonObject &object, const KrAbstractSelfTestResult &result)
{
    if (!result.showType())
        return;
    object.insert(QStringLiteral("type"),
        Crosscutting::KrUtilities::enumValueToString<KrAbstractSelfTestResult>(
            QStringLiteral("SelfTestResultType"), static_cast<int>(result.type())));
}

QString measurementText(double value)
{
    // QString::number formats in the C locale, never in QLocale's default.
    return QString::number(value, 'f', 2);
}

void appendUnit(QJsonObject &object, QLatin1String unit)
{
    for (const QString &key : {QStringLiteral("expected"), QStringLiteral("tolerance"), QStringLiteral("actual")})
        object.insert(key, QString(object.value(key).toString() + unit));
}

} // namespace Internal
} // namespace Pal
