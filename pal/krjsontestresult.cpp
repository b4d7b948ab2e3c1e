#include "krjsontestresult.h"

#include "krselftestjson_p.h"

namespace Pal {

KrJsonTestResult::KrJsonTestResult(const bool &pass, const QJsonObject &payload, const bool &showType)
    : KrAbstractSelfTestResult(pass, showType)
    , m_payload(payload)
{
    setType(SelfTestResultType::Json);
}

KrJsonTestResult::KrJsonTestResult(const KrJsonTestResult &other)
    : KrAbstractSelfTestResult(other)
    , m_payload(other.m_payload)
{
    setType(SelfTestResultType::Json);
}

KrJsonTestResult &KrJsonTestResult::operator=(const KrJsonTestResult &other)
{
    if (this != &other) {
        KrAbstractSelfTestResult::operator=(other);
        m_payload = other.m_payload;
    }
    return *this;
}

KrJsonTestResult::~KrJsonTestResult() = default;

QJsonObject KrJsonTestResult::generateJsonObject() const
{
    // The shown type replaces the payload's own "type" in the copy only.
    QJsonObject object = m_payload;
    Internal::insertTypeKey(object, *this);
    return object;
}

} // namespace Pal
