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
    /// Renders "name" and "value", without "status".
    KrInfoTestResult(const QString &name, const QString &value, const bool &showType);
    /// Copies the value with the name and the base's state.
    KrInfoTestResult(const KrInfoTestResult &other);
    /// Assigns the value with the name and the base's state.
    KrInfoTestResult &operator=(const KrInfoTestResult &other);
    ~KrInfoTestResult() override;

    QJsonObject generateJsonObject() const override;

private:
    QString m_value;
};

} // namespace Pal
