#include "krselftestresult.h"

#include "krselftestjson_p.h"

#include <QJsonObject>

namespace Pal {

KrSelfTestResult::KrSelfTestResult(const bool &pass, const QString &name, const bool &showType)
    : KrAbstractSelfTestResult(pass, showType)
    , m_name(name)
{
    setType(SelfTestResultType::Base);
}

KrSelfTestResult::KrSelfTestResult(const KrSelfTestResult &other)
    : KrAbstractSelfTestResult(other)
    , m_name(other.m_name)
{
    setType(SelfTestResultType::Base);
}

KrSelfTestResult &KrSelfTestResult::operator=(const KrSelfTestResult &other)
{
    if (this != &other) {
        KrAbstractSelfTestResult::operator=(other);
        m_name = other.m_name;
    }
    return *this;
}

KrSelfTestResult::~KrSelfTestResult() = default;

QJsonObject KrSelfTestResult::generateJsonObject() const
{
    QJsonObject object;
    object.insert(QStringLiteral("name"), m_name);
    object.insert(QStringLiteral("status"), didPass() ? QStringLiteral("pass") : QStringLiteral("fail"));
    Internal::insertTypeKey(object, *this);
    return object;
}

} // namespace Pal
