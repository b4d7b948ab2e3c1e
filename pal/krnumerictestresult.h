#pragma once

#include <pal/krpal_export.h>
#include <pal/krselftestresult.h>

namespace Pal {

namespace Internal {
class NumericJson;
}

/// A named measurement with its expected value, tolerance and actual value. The caller decides
/// whether it passed; the result never compares the numbers itself.
class KRPAL_EXPORT KrNumericTestResult : public KrSelfTestResult
{
    Q_OBJECT
public:
    /// Renders "expected", "tolerance" and "actual" as text with two decimals beside "name" and
    /// "status"; @p pass is the caller's verdict.
    KrNumericTestResult(const bool &pass, const QString &name, const double &expected, const double &tolerance,
        const double &actual, const bool &showType);
    /// Copies the numbers with the name and the base's state.
    KrNumericTestResult(const KrNumericTestResult &other);
    /// Assigns the numbers with the name and the base's state.
    KrNumericTestResult &operator=(const KrNumericTestResult &other);
    ~KrNumericTestResult() override;

    QJsonObject generateJsonObject() const override;

private:
    // Renders the numbers, with the unit of the result classes that carry one, in one pass.
    friend class Internal::NumericJson;

    double m_expected;
    double m_tolerance;
    double m_actual;
};

} // namespace Pal
