#include "krvoltagetestresult.h"

#include "krselftestjson_p.h"

#include <QJsonObject>

namespace Pal {

KrVoltageTestResult::KrVoltageTestResult(const bool &pass, const QString &name, const double &expected,
    const double &tolerance, const double &actual, const bool &showType)
    : KrNumericTestResult(pass, name, expected, tolerance, actual, showType)
{
    setType(SelfTestResultType::Voltage);
}

KrVoltageTestResult::KrVoltageTestResult(const KrVoltageTestResult &other)
    : KrNumericTestResult(other)
{
    setType(SelfTestResultType::Voltage);
}

KrVoltageTestResult &KrVoltageTestResult::operator=(const KrVoltageTestResult &other)
{
    KrNumericTestResult::operator=(other);
    return *this;
}

KrVoltageTestResult::~KrVoltageTestResult() = default;

QJsonObject KrVoltageTestResult::generateJsonObject() const
{
    return Internal::NumericJson::render(*this, QLatin1String(" V"));
}

} // namespace Pal
