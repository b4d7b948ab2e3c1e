#pragma once

#include <pal/krnumerictestresult.h>
#include <pal/krpal_export.h>

namespace Pal {

/// A measured current; its numbers render in amperes.
class KRPAL_EXPORT KrCurrentTestResult : public KrNumericTestResult
{
    Q_OBJECT
public:
    /// As KrNumericTestResult, each number followed by its unit.
    KrCurrentTestResult(const bool &pass, const QString &name, const double &expected, const double &tolerance,
        const double &actual, const bool &showType);
    /// Copies the numbers, the name and the base's state.
    KrCurrentTestResult(const KrCurrentTestResult &other);
    /// Assigns the numbers, the name and the base's state.
    KrCurrentTestResult &operator=(const KrCurrentTestResult &other);
    ~KrCurrentTestResult() override;

    QJsonObject generateJsonObject() const override;
};

} // namespace Pal
