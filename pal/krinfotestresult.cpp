#include "krinfotestresult.h"

#include <QJsonObject>

namespace Pal {

KrInfoTestResult::KrInfoTestResult(const QString &name, const QString &value, const bool &showType)
    : KrSelfTestResult(true, name, showType)
    , m_value(value)
{
    setType(SelfTestResultType::Info);
}

KrInfoTestResult::KrInfoTestResult(const KrInfoTestResult &other)
    : KrSelfTestResult(other)
    , m_value(other.m_value)
{
    setType(SelfTestResultType::Info);
}

KrInfoTestResult &KrInfoTestResult::operator=(const KrInfoTestResult &other)
{
    if (this != &other) {
        KrSelfTestResult::operator=(other);
        m_value = other.m_value;
    }
    return *this;
}

KrInfoTestResult::~KrInfoTestResult() = default;

QJsonObject KrInfoTestResult::generateJsonObject() const
{
    QJsonObject object = KrSelfTestResult::generateJsonObject();
    // Information has no outcome to show.
    object.remove(QStringLiteral("status"));
    object.insert(QStringLiteral("value"), m_value);
    return object;
}

} // namespace Pal
