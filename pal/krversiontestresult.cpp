#include "krversiontestresult.h"

namespace Pal {

KrVersionTestResult::KrVersionTestResult(const QString &name, const QString &value, const bool &showType)
    : KrInfoTestResult(name, value, showType)
{
    setType(SelfTestResultType::Version);
}

KrVersionTestResult::KrVersionTestResult(const KrVersionTestResult &other)
    : KrInfoTestResult(other)
{
    setType(SelfTestResultType::Version);
}

KrVersionTestResult &KrVersionTestResult::operator=(const KrVersionTestResult &other)
{
    KrInfoTestResult::operator=(other);
    return *this;
}

KrVersionTestResult::~KrVersionTestResult() = default;

} // namespace Pal
