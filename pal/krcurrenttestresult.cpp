#include "krcurrenttestresult.h"

#include "krselftestjson_p.h"

#include <QJsonObject>

namespace Pal {

KrCurrentTestResult::KrCurrentTestResult(const bool &pass, const QString &name, const double &expected,
    const double &tolerance, const double &actual, const bool &showType)
    : KrNumericTestResult(pass, name, expected, tolerance, actual, showType)
{
    setType(SelfTestResultType::Current);
}

KrCurrentTestResult::KrCurrentTestResult(const KrCurrentTestResult &other)
    : KrNumericTestResult(other)
{
    setType(SelfTestResultType::Current);
}

KrCurrentTestResult &KrCurrentTestResult::operator=(const KrCurrentTestResult &other)
{
    KrNumericTestResult::operator=(other);
    return *this;
}

KrCurrentTestResult::~KrCurrentTestResult() = default;

QJsonObject KrCurrentTestResult::generateJsonObject() const
{
    return Internal::NumericJson::render(*this, QLatin1String(" A"));
}

} // namespace Pal
