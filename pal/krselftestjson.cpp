#include "krselftestjson_p.h"

#include <pal/krabstractselftestresult.h>
#include <pal/krnumerictestresult.h>

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

QJsonObject NumericJson::render(const KrNumericTestResult &result, QLatin1String unit)
{
    const auto text = [unit](double value) {
        return unit.isEmpty() ? measurementText(value) : QString(measurementText(value) + unit);
    };
    QJsonObject object = result.KrSelfTestResult::generateJsonObject();
    object.insert(QStringLiteral("expected"), text(result.m_expected));
    object.insert(QStringLiteral("tolerance"), text(result.m_tolerance));
    object.insert(QStringLiteral("actual"), text(result.m_actual));
    return object;
}

} // namespace Internal
} // namespace Pal
