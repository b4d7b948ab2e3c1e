// Arbitrary JSON payloads and strings through every self-test result class.
//
// The input is taken as a JSON document. An object is the free-form payload, and its members
// also supply the other results' arguments: "name" and "value" (strings), "expected",
// "tolerance" and "actual" (numbers, or texts such as "nan"), "pass" and "showType"
// (booleans) and "setType" (any integer, given to setType). Anything else is taken as text,
// and becomes the name, the value and a payload of one member. Hand-made seeds are therefore
// plain JSON files.
//
// Every rendering is compared whole with the object the rendering rules give: the keys each
// class renders and no others, "status" from the pass flag, numbers as the C library's %.2f
// with the unit appended, "type" as the key name of the type (empty for a value the
// enumeration lacks) only when shown, the payload unchanged apart from "type". Rendering
// twice gives the same object, copies and assignments follow the copy rules, and every
// rendering survives the JSON text that an application sends, as far as Qt can carry the input
// itself.

#include "fuzzsupport.h"

#include <pal/krcurrenttestresult.h>
#include <pal/krdatetestresult.h>
#include <pal/krfpgatypetestresult.h>
#include <pal/krinfotestresult.h>
#include <pal/krjsontestresult.h>
#include <pal/krnumerictestresult.h>
#include <pal/krselftestresult.h>
#include <pal/krtemperaturetestresult.h>
#include <pal/krversiontestresult.h>
#include <pal/krvoltagetestresult.h>

#include <QJsonDocument>
#include <QJsonObject>

#include <cstdint>

using Pal::KrAbstractSelfTestResult;
using Type = KrAbstractSelfTestResult::SelfTestResultType;

namespace {

struct Arguments
{
    QJsonObject payload;
    QString name;
    QString value;
    double expected = 0;
    double tolerance = 0;
    double actual = 0;
    bool pass = false;
    bool showType = false;
    int setType = 0;
    // Whether Qt's own JSON text carries the payload unchanged; lone surrogates, for one, do not.
    bool textRoundTrips = false;
};

QJsonObject roundTripped(const QJsonObject &object)
{
    return QJsonDocument::fromJson(QJsonDocument(object).toJson(QJsonDocument::Compact)).object();
}

double numberOf(const QJsonValue &value)
{
    // A text reaches what JSON numbers cannot: nan, inf and -inf.
    return value.isString() ? value.toString().toDouble() : value.toDouble();
}

Arguments argumentsFrom(const QByteArray &input)
{
    Arguments arguments;
    const QJsonDocument document = QJsonDocument::fromJson(input);
    if (document.isObject()) {
        const QJsonObject object = document.object();
        arguments.payload = object;
        arguments.name = object.value(QLatin1String("name")).toString();
        arguments.value = object.value(QLatin1String("value")).toString();
        arguments.expected = numberOf(object.value(QLatin1String("expected")));
        arguments.tolerance = numberOf(object.value(QLatin1String("tolerance")));
        arguments.actual = numberOf(object.value(QLatin1String("actual")));
        arguments.pass = object.value(QLatin1String("pass")).toBool();
        arguments.showType = object.value(QLatin1String("showType")).toBool();
        arguments.setType = object.value(QLatin1String("setType")).toInt();
    } else {
        const QString text = QString::fromUtf8(input);
        arguments.payload.insert(QLatin1String("text"), text);
        arguments.name = text;
        arguments.value = text.mid(text.size() / 2);
        arguments.pass = input.size() % 2;
        arguments.showType = input.size() % 3;
        arguments.setType = input.size() % 13 - 1;
    }
    arguments.textRoundTrips = roundTripped(arguments.payload) == arguments.payload;
    return arguments;
}

// The key names of the types, by value.
QString typeName(Type type)
{
    static const char *const names[] = {"Base", "PassFail", "NumericPassFail", "Info", "Voltage", "Temperature",
        "Current", "Version", "Date", "FpgaType", "Json"};
    const int value = int(type);
    return value >= 0 && value <= 10 ? QLatin1String(names[value]) : QLatin1String("");
}

void insertType(QJsonObject &object, const KrAbstractSelfTestResult &result)
{
    if (result.showType())
        object.insert(QLatin1String("type"), typeName(result.type()));
}

// The texts a number may render as, with its unit: two where the value lies exactly halfway
// (see cNumberTexts).
QStringList numberTexts(double value, const char *unit)
{
    QStringList texts;
    for (const QString &text : FuzzSupport::cNumberTexts(value, "%.2f"))
        texts << text + QLatin1String(unit);
    return texts;
}

QJsonObject expectedSelfTest(const Pal::KrSelfTestResult &result, const QString &name)
{
    QJsonObject object{
        {QLatin1String("name"), name}, {QLatin1String("status"), QLatin1String(result.didPass() ? "pass" : "fail")}};
    insertType(object, result);
    return object;
}

QJsonObject expectedInfo(const Pal::KrInfoTestResult &result, const Arguments &arguments)
{
    QJsonObject object{{QLatin1String("name"), arguments.name}, {QLatin1String("value"), arguments.value}};
    insertType(object, result);
    return object;
}

QJsonObject expectedJson(const Pal::KrJsonTestResult &result, const Arguments &arguments)
{
    QJsonObject object = arguments.payload;
    insertType(object, result);
    return object;
}

// Renders every copy the copy rules allow and compares each whole with @p expected.
template<typename Result, typename Expected>
void checkRenderings(const Result &result, Type classType, const Arguments &arguments, Expected expected)
{
    const QJsonObject rendered = result.generateJsonObject();
    FUZZ_COMPARE(rendered, expected(result));
    FUZZ_COMPARE(result.generateJsonObject(), rendered);
    if (arguments.textRoundTrips)
        FUZZ_COMPARE(roundTripped(rendered), rendered);

    // A copy takes its class's type; an assignment copies the source's.
    Result changed(result);
    FUZZ_COMPARE(changed.type(), classType);
    changed.setType(Type(arguments.setType));
    changed.setShowType(!result.showType());
    FUZZ_COMPARE(changed.didPass(), result.didPass());
    FUZZ_COMPARE(changed.generateJsonObject(), expected(changed));

    Result assigned(result);
    assigned = changed;
    FUZZ_COMPARE(assigned.type(), Type(arguments.setType));
    FUZZ_COMPARE(assigned.generateJsonObject(), changed.generateJsonObject());
    const Result copied(changed);
    FUZZ_COMPARE(copied.type(), classType);
    FUZZ_COMPARE(copied.generateJsonObject(), expected(copied));
    const Result &self = assigned;
    assigned = self;
    FUZZ_COMPARE(assigned.type(), Type(arguments.setType));
}

template<typename Result>
void checkNumeric(const Arguments &arguments, Type classType, const char *unit)
{
    const Result result(
        arguments.pass, arguments.name, arguments.expected, arguments.tolerance, arguments.actual, arguments.showType);
    FUZZ_COMPARE(result.type(), classType);
    const QPair<QLatin1String, QStringList> numbers[]
        = {{QLatin1String("expected"), numberTexts(arguments.expected, unit)},
            {QLatin1String("tolerance"), numberTexts(arguments.tolerance, unit)},
            {QLatin1String("actual"), numberTexts(arguments.actual, unit)}};
    checkRenderings(result, classType, arguments, [&](const Result &shown) {
        const QJsonObject rendered = shown.generateJsonObject();
        QJsonObject object = expectedSelfTest(shown, arguments.name);
        for (const auto &number : numbers) {
            const QString text = rendered.value(number.first).toString();
            object.insert(number.first, number.second.contains(text) ? text : number.second.first());
        }
        return object;
    });
}

template<typename Result>
void checkInfo(const Arguments &arguments, Type classType)
{
    const Result result(arguments.name, arguments.value, arguments.showType);
    FUZZ_COMPARE(result.type(), classType);
    FUZZ_CHECK(result.didPass());
    checkRenderings(result, classType, arguments, [&](const Result &shown) { return expectedInfo(shown, arguments); });
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const Arguments arguments = argumentsFrom(QByteArray(reinterpret_cast<const char *>(data), int(size)));

    const Pal::KrSelfTestResult selfTest(arguments.pass, arguments.name, arguments.showType);
    FUZZ_COMPARE(selfTest.type(), Type::Base);
    checkRenderings(selfTest, Type::Base, arguments,
        [&](const Pal::KrSelfTestResult &shown) { return expectedSelfTest(shown, arguments.name); });

    checkInfo<Pal::KrInfoTestResult>(arguments, Type::Info);
    checkInfo<Pal::KrDateTestResult>(arguments, Type::Date);
    checkInfo<Pal::KrFpgaTypeTestResult>(arguments, Type::FpgaType);
    checkInfo<Pal::KrVersionTestResult>(arguments, Type::Version);

    checkNumeric<Pal::KrNumericTestResult>(arguments, Type::NumericPassFail, "");
    checkNumeric<Pal::KrVoltageTestResult>(arguments, Type::Voltage, " V");
    checkNumeric<Pal::KrTemperatureTestResult>(arguments, Type::Temperature, " &deg;C");
    checkNumeric<Pal::KrCurrentTestResult>(arguments, Type::Current, " A");

    const Pal::KrJsonTestResult json(arguments.pass, arguments.payload, arguments.showType);
    FUZZ_COMPARE(json.type(), Type::Json);
    FUZZ_COMPARE(json.didPass(), arguments.pass);
    checkRenderings(json, Type::Json, arguments,
        [&](const Pal::KrJsonTestResult &shown) { return expectedJson(shown, arguments); });
    return 0;
}
