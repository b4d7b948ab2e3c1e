#pragma once

#include <pal/krnumerictestresult.h>
#include <pal/krpal_export.h>

namespace Pal {

/// A measured voltage; its numbers render in volts.
class KRPAL_EXPORT KrVoltageTestResult : public KrNumericTestResult
{
    Q_OBJECT
public:
    /// As KrNumericTestResult, each number followed by its unit.
    KrVoltageTestResult(const bool &pass, const QString &name, const double &expected, const double &tolerance,
        const double &actual, const bool &showType);
    /// Copies the numbers, the name and the base's state.
    KrVoltageTestResult(const KrVoltageTestResult &other);
    /// Assigns the numbers, the name and the base's state.
    KrVoltageTestResult &operator=(const KrVoltageTestResult &other);
    ~KrVoltageTestResult() override;

    QJsonObject generateJsonObject() const override;
};

} // namespace Pal
