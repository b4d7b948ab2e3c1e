#include "krfpgatypetestresult.h"

namespace Pal {

KrFpgaTypeTestResult::KrFpgaTypeTestResult(const QString &name, const QString &value, const bool &showType)
    : KrInfoTestResult(name, value, showType)
{
    setType(SelfTestResultType::FpgaType);
}

KrFpgaTypeTestResult::KrFpgaTypeTestResult(const KrFpgaTypeTestResult &other)
    : KrInfoTestResult(other)
{
    setType(SelfTestResultType::FpgaType);
}

KrFpgaTypeTestResult &KrFpgaTypeTestResult::operator=(const KrFpgaTypeTestResult &other)
{
    KrInfoTestResult::operator=(other);
    return *this;
}

KrFpgaTypeTestResult::~KrFpgaTypeTestResult() = default;

} // namespace Pal
