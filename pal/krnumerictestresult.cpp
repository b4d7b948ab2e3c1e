#include "krnumerictestresult.h"

#include "krselftestjson_p.h"

#include <QJsonObject>

namespace Pal {

KrNumericTestResult::KrNumericTestResult(const bool &pass, const QString &name, const double &expected,
    const double &tolerance, const double &actual, const bool &showType)
    : KrSelfTestResult(pass, name, showType)
    , m_expected(expected)
    , m_tolerance(tolerance)
    , m_actual(actual)
{
    setType(SelfTestResultType::NumericPassFail);
}

KrNumericTestResult::KrNumericTestResult(const KrNumericTestResult &other)
    : KrSelfTestResult(other)
    , m_expected(other.m_expected)
    , m_tolerance(other.m_tolerance)
    , m_actual(other.m_actual)
{
    setType(SelfTestResultType::NumericPassFail);
}

KrNumericTestResult &KrNumericTestResult::operator=(const KrNumericTestResult &other)
{
    if (this != &other) {
        KrSelfTestResult::operator=(other);
        m_expected = other.m_expected;
        m_tolerance = other.m_tolerance;
        m_actual = other.m_actual;
    }
    return *this;
}

KrNumericTestResult::~KrNumericTestResult() = default;

QJsonObject KrNumericTestResult::generateJsonObject() const
{
    return Internal::NumericJson::render(*this, QLatin1String());
}

} // namespace Pal
