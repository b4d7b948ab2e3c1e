#pragma once

#include <pal/krabstractselftestresult.h>
#include <pal/krpal_export.h>

#include <QJsonObject>

namespace Pal {

/// A result whose JSON object the application builds itself; rendering hands it back, with
/// only the "type" key added on request. The pass flag is kept but not rendered.
class KRPAL_EXPORT KrJsonTestResult : public KrAbstractSelfTestResult
{
    Q_OBJECT
public:
    KrJsonTestResult(const bool &pass, const QJsonObject &payload, const bool &showType);
    KrJsonTestResult(const KrJsonTestResult &other);
    KrJsonTestResult &operator=(const KrJsonTestResult &other);
    ~KrJsonTestResult() override;

    QJsonObject generateJsonObject() const override;

private:
    QJsonObject m_payload;
};

} // namespace Pal
