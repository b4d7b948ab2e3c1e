#pragma once

#include <pal/krnumerictestresult.h>
#include <pal/krpal_export.h>

namespace Pal {

/// A measured temperature; its numbers render in degrees Celsius, the degree sign spelt as the HTML entity.
class KRPAL_EXPORT KrTemperatureTestResult : public KrNumericTestResult
{
    Q_OBJECT
public:
    KrTemperatureTestResult(const bool &pass, const QString &name, const double &expected, const double &tolerance,
        const double &actual, const bool &showType);
    KrTemperatureTestResult(const KrTemperatureTestResult &other);
    KrTemperatureTestResult &operator=(const KrTemperatureTestResult &other);
    ~KrTemperatureTestResult() override;

    QJsonObject generateJsonObject() const override;
};

} // namespace Pal
