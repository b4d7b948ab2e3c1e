#include "krdatetestresult.h"

namespace Pal {

KrDateTestResult::KrDateTestResult(const QString &name, const QString &value, const bool &showType)
    : KrInfoTestResult(name, value, showType)
{
    setType(SelfTestResultType::Date);
}

KrDateTestResult::KrDateTestResult(const KrDateTestResult &other)
    : KrInfoTestResult(other)
{
    setType(SelfTestResultType::Date);
}

KrDateTestResult &KrDateTestResult::operator=(const KrDateTestResult &other)
{
    KrInfoTestResult::operator=(other);
    return *this;
}

KrDateTestResult::~KrDateTestResult() = default;

} // namespace Pal
