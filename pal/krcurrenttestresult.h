#pragma once

#include <pal/krnumerictestresult.h>
#include <pal/krpal_export.h>

namespace Pal {

/// A measured current; its numbers render in amperes.
class KRPAL_EXPORT KrCurrentTestResult : public KrNumericTestResult
{
    Q_OBJECT
public:
    KrCurrentTestResult(const bool &pass, const QString &name, const double &expected, const double &tolerance,
        const double &actual, const bool &showType);
    KrCurrentTestResult(const KrCurrentTestResult &other);
    KrCurrentTestResult &operator=(const KrCurrentTestResult &other);
    ~KrCurrentTestResult() override;

    QJsonObject generateJsonObject() const override;
};

} // namespace Pal
