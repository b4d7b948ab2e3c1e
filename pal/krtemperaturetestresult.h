#pragma once

#include <pal/krnumerictestresult.h>
#include <pal/krpal_export.h>

namespace Pal {

/// A measured temperature; its numbers render in degrees Celsius, the degree sign spelt as the HTML entity.
class KRPAL_EXPORT KrTemperatureTestResult : public KrNumericTestResult
{
    Q_OBJECT
public:
    /// As KrNumericTestResult, each number followed by its unit.
    KrTemperatureTestResult(const bool &pass, const QString &name, const double &expected, const double &tolerance,
        const double &actual, const bool &showType);
    /// Copies the numbers, the name and the base's state.
    KrTemperatureTestResult(const KrTemperatureTestResult &other);
    /// Assigns the numbers, the name and the base's state.
    KrTemperatureTestResult &operator=(const KrTemperatureTestResult &other);
    ~KrTemperatureTestResult() override;

    QJsonObject generateJsonObject() const override;
};

} // namespace Pal
