// Internal: the rendering steps that several self-test results share. Not installed.
#pragma once

#include <QString>

class QJsonObject;

namespace Pal {

class KrAbstractSelfTestResult;

namespace Internal {

/// Sets "type" to the key name of the result's type when the result shows its type; the key
/// name is empty for a value the enumeration does not know.
void insertTypeKey(QJsonObject &object, const KrAbstractSelfTestResult &result);

/// A measured number as results render it: two decimals, a point, no grouping, in any locale.
QString measurementText(double value);

/// Appends @p unit to the rendered "expected", "tolerance" and "actual" texts.
void appendUnit(QJsonObject &object, QLatin1String unit);

} // namespace Internal
} // namespace Pal
