#include "krtemperaturetestresult.h"

#include "krselftestjson_p.h"

#include <QJsonObject>

namespace Pal {

KrTemperatureTestResult::KrTemperatureTestResult(const bool &pass, const QString &name, const double &expected,
    const double &tolerance, const double &actual, const bool &showType)
    : KrNumericTestResult(pass, name, expected, tolerance, actual, showType)
{
    setType(SelfTestResultType::Temperature);
}

KrTemperatureTestResult::KrTemperatureTestResult(const KrTemperatureTestResult &other)
    : KrNumericTestResult(other)
{
    setType(SelfTestResultType::Temperature);
}

KrTemperatureTestResult &KrTemperatureTestResult::operator=(const KrTemperatureTestResult &other)
{
    KrNumericTestResult::operator=(other);
    return *this;
}

KrTemperatureTestResult::~KrTemperatureTestResult() = default;

QJsonObject KrTemperatureTestResult::generateJsonObject() const
{
    return Internal::NumericJson::render(*this, QLatin1String(" &deg;C"));
}

} // namespace Pal
