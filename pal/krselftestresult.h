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
    KrSelfTestResult(const bool &pass, const QString &name, const bool &showType);
    KrSelfTestResult(const KrSelfTestResult &other);
    KrSelfTestResult &operator=(const KrSelfTestResult &other);
    ~KrSelfTestResult() override;

    QJsonObject generateJsonObject() const override;

private:
    QString m_name;
};

} // namespace Pal
