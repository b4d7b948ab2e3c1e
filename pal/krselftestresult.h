#pragma once

#include <pal/krabstractselftestresult.h>
#include <pal/krpal_export.h>

#include <QString>

namespace Pal {

/// A named test with a pass or fail outcome.
class KRPAL_EXPORT KrSelfTestResult : public KrAbstractSelfTestResult
{
    Q_OBJECT
public:
    /// A named pass/fail outcome: renders "name" and "status" ("pass" or "fail").
    KrSelfTestResult(const bool &pass, const QString &name, const bool &showType);
    /// Copies the name with the base's state.
    KrSelfTestResult(const KrSelfTestResult &other);
    /// Assigns the name with the base's state.
    KrSelfTestResult &operator=(const KrSelfTestResult &other);
    ~KrSelfTestResult() override;

    QJsonObject generateJsonObject() const override;

private:
    QString m_name;
};

} // namespace Pal
