// Internal: the rendering steps that several self-test results share. Not installed.
#pragma once

#include <QString>

class QJsonObject;

namespace Pal {

class KrAbstractSelfTestResult;
class KrNumericTestResult;

namespace Internal {

/// Sets "type" to the key name of the result's type when the result shows its type; the key
/// name is empty for a value the enumeration does not know.
void insertTypeKey(QJsonObject &object, const KrAbstractSelfTestResult &result);

/// A measured number as results render it: two decimals, a point, no grouping, in any locale.
QString measurementText(double value);

/// The object of a numeric result: its pass/fail object with "expected", "tolerance" and
/// "actual" as texts followed by @p unit (none when empty). Each text is built once with its
/// unit, rather than rendered bare and then read back to append the unit.
class NumericJson
{
public:
    static QJsonObject render(const KrNumericTestResult &result, QLatin1String unit);
};

} // namespace Internal
} // namespace Pal
