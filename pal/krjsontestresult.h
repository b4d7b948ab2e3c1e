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
    /// Renders @p payload as it is; @p pass is kept for didPass() only.
    KrJsonTestResult(const bool &pass, const QJsonObject &payload, const bool &showType);
    /// Copies the payload with the base's state.
    KrJsonTestResult(const KrJsonTestResult &other);
    /// Assigns the payload with the base's state.
    KrJsonTestResult &operator=(const KrJsonTestResult &other);
    ~KrJsonTestResult() override;

    QJsonObject generateJsonObject() const override;

private:
    QJsonObject m_payload;
};

} // namespace Pal
