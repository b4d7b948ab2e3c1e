// Rendering a voltage result as JSON, against building the same object by hand from the same
// numbers.

#include "benchsupport.h"

#include <pal/krvoltagetestresult.h>

#include <QJsonObject>

#include <benchmark/benchmark.h>

namespace Bench {

namespace {

constexpr double expected = 3.3;
constexpr double tolerance = 0.1;
constexpr double actual = 3.312;

QJsonObject byHand(const QString &name, bool pass, double expectedValue, double toleranceValue, double actualValue)
{
    const QLatin1String unit(" V");
    QJsonObject object;
    object.insert(QStringLiteral("name"), name);
    object.insert(QStringLiteral("status"), pass ? QStringLiteral("pass") : QStringLiteral("fail"));
    object.insert(QStringLiteral("type"), QStringLiteral("Voltage"));
    object.insert(QStringLiteral("expected"), QString(QString::number(expectedValue, 'f', 2) + unit));
    object.insert(QStringLiteral("tolerance"), QString(QString::number(toleranceValue, 'f', 2) + unit));
    object.insert(QStringLiteral("actual"), QString(QString::number(actualValue, 'f', 2) + unit));
    return object;
}

void rendering(benchmark::State &state)
{
    const QString name = QStringLiteral("VCC");
    const Pal::KrVoltageTestResult result(true, name, expected, tolerance, actual, true);
    const QJsonObject wanted = byHand(name, true, expected, tolerance, actual);
    if (result.generateJsonObject() != wanted) {
        state.SkipWithError("the rendered object differs from the one built by hand");
        return;
    }
    double numbers[3] = {expected, tolerance, actual};
    alternate(state,
        {{"generateJsonObject", [&] { return result.generateJsonObject().size() == 6; }, 10},
            {"by_hand",
                [&] {
                    benchmark::DoNotOptimize(numbers);
                    return byHand(name, opaque(true), numbers[0], numbers[1], numbers[2]).size() == 6;
                },
                10}});
}

} // namespace

void registerResultRendering()
{
    benchmark::RegisterBenchmark("json/voltage_result", &rendering)->UseRealTime();
}

} // namespace Bench
