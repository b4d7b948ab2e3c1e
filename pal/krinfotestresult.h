#pragma once

#include <pal/krpal_export.h>
#include <pal/krselftestresult.h>

#include <QString>

namespace Pal {

/// A named piece of information, such as a version or a date, reported as text without an
/// outcome. Its pass flag is always set.
class KRPAL_EXPORT KrInfoTestResult : public KrSelfTestResult
{
    Q_OBJECT
public:
    KrInfoTestResult(const QString &name, const QString &value, const bool &showType);
    KrInfoTestResult(const KrInfoTestResult &other);
    KrInfoTestResult &operator=(const KrInfoTestResult &other);
    ~KrInfoTestResult() override;

    QJsonObject generateJsonObject() const override;

private:
    QString m_value;
};

} // namespace Pal
