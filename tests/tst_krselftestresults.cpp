#include <pal/krcurrenttestresult.h>
#include <pal/krdatetestresult.h>
#include <pal/krfpgatypetestresult.h>
#include <pal/krjsontestresult.h>
#include <pal/krtemperaturetestresult.h>
#include <pal/krversiontestresult.h>
#include <pal/krvoltagetestresult.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QLocale>
#include <QSharedPointer>
#include <QTest>

using namespace Pal;
using Type = KrAbstractSelfTestResult::SelfTestResultType;
using ResultPointer = QSharedPointer<KrAbstractSelfTestResult>;

namespace {

QByteArray toJson(const KrAbstractSelfTestResult &result)
{
    return QJsonDocument(result.generateJsonObject()).toJson(QJsonDocument::Compact);
}

template<typename T>
T *withType(T *result, Type type)
{
    result->setType(type);
    return result;
}

QJsonObject serdesPayload()
{
    return QJsonObject{{"lanes", 4}, {"type", "serdes"}};
}

} // namespace

class TestKrSelfTestResults : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void render_data();
    void render();
    void copyAndAssign_data();
    void copyAndAssign();
    void copyIsParentlessAndAssignmentKeepsObject();
    void jsonPayloadSurvivesRendering();
};

void TestKrSelfTestResults::initTestCase()
{
    // Every rendering below runs under a locale that writes decimal commas.
    QLocale::setDefault(QLocale(QLocale::German));
    QCOMPARE(QLocale().toString(3.31, 'f', 2), QStringLiteral("3,31"));
}

void TestKrSelfTestResults::render_data()
{
    QTest::addColumn<ResultPointer>("result");
    QTest::addColumn<QByteArray>("className");
    QTest::addColumn<QByteArray>("expected");
    auto addRow = [](const char *name, KrAbstractSelfTestResult *result, const char *className, const char *json) {
        QTest::newRow(name) << ResultPointer(result) << QByteArray(QByteArray("Pal::") + className) << QByteArray(json);
    };

    addRow("voltage example", new KrVoltageTestResult(true, "VCC", 3.3, 0.1, 3.312, true), "KrVoltageTestResult",
        R"({"actual":"3.31 V","expected":"3.30 V","name":"VCC",)"
        R"("status":"pass","tolerance":"0.10 V","type":"Voltage"})");
    addRow("numeric, type hidden", new KrNumericTestResult(false, "Fan speed", 3.3, 0.1, 3.312, false),
        "KrNumericTestResult",
        R"({"actual":"3.31","expected":"3.30","name":"Fan speed","status":"fail","tolerance":"0.10"})");
    addRow("numeric, whole and negative", new KrNumericTestResult(true, "Speed", 3000, -0.5, -1234.567, true),
        "KrNumericTestResult",
        R"({"actual":"-1234.57","expected":"3000.00","name":"Speed","status":"pass",)"
        R"("tolerance":"-0.50","type":"NumericPassFail"})");
    addRow("numeric, equal values but failed", new KrNumericTestResult(false, "Fan", 2, 0, 2, false),
        "KrNumericTestResult",
        R"({"actual":"2.00","expected":"2.00","name":"Fan","status":"fail","tolerance":"0.00"})");
    addRow("voltage, negative", new KrVoltageTestResult(false, "VEE", -0.5, 0, -0.5, false), "KrVoltageTestResult",
        R"({"actual":"-0.50 V","expected":"-0.50 V","name":"VEE",)"
        R"("status":"fail","tolerance":"0.00 V"})");
    addRow("temperature", new KrTemperatureTestResult(true, "Board", 25, 5, 27.3, true), "KrTemperatureTestResult",
        R"({"actual":"27.30 &deg;C","expected":"25.00 &deg;C","name":"Board",)"
        R"("status":"pass","tolerance":"5.00 &deg;C","type":"Temperature"})");
    addRow("current", new KrCurrentTestResult(true, "I0", 1.5, 0.25, 1.4213, true), "KrCurrentTestResult",
        R"({"actual":"1.42 A","expected":"1.50 A","name":"I0","status":"pass",)"
        R"("tolerance":"0.25 A","type":"Current"})");
    addRow("numeric typed as date", withType(new KrNumericTestResult(true, "N", 1, 1, 1, true), Type::Date),
        "KrNumericTestResult",
        R"({"actual":"1.00","expected":"1.00","name":"N",)"
        R"("status":"pass","tolerance":"1.00","type":"Date"})");
    addRow("type without key", withType(new KrSelfTestResult(true, "Fan", true), Type(11)), "KrSelfTestResult",
        R"({"name":"Fan","status":"pass","type":""})");

    addRow("pass/fail example", new KrSelfTestResult(false, "Fan", true), "KrSelfTestResult",
        R"({"name":"Fan","status":"fail","type":"Base"})");
    addRow("pass/fail, null name", new KrSelfTestResult(true, QString(), false), "KrSelfTestResult",
        R"({"name":"","status":"pass"})");
    addRow("info example", new KrInfoTestResult("Firmware", "1.2.3", true), "KrInfoTestResult",
        R"({"name":"Firmware","type":"Info","value":"1.2.3"})");
    addRow("info, type hidden, empty", new KrInfoTestResult(QString(), "", false), "KrInfoTestResult",
        R"({"name":"","value":""})");
    addRow("info typed as version", withType(new KrInfoTestResult("Fw", "2", true), Type::Version), "KrInfoTestResult",
        R"({"name":"Fw","type":"Version","value":"2"})");
    addRow("date", new KrDateTestResult("Built", "2024-01-02", true), "KrDateTestResult",
        R"({"name":"Built","type":"Date","value":"2024-01-02"})");
    addRow("fpga type", new KrFpgaTypeTestResult("FPGA", "7z020", true), "KrFpgaTypeTestResult",
        R"({"name":"FPGA","type":"FpgaType","value":"7z020"})");
    addRow("version, type hidden", new KrVersionTestResult("Fw", "1.2.3", false), "KrVersionTestResult",
        R"({"name":"Fw","value":"1.2.3"})");

    addRow("json, type shown", new KrJsonTestResult(true, serdesPayload(), true), "KrJsonTestResult",
        R"({"lanes":4,"type":"Json"})");
    addRow("json, type hidden, failed", new KrJsonTestResult(false, serdesPayload(), false), "KrJsonTestResult",
        R"({"lanes":4,"type":"serdes"})");
    addRow("json, empty", new KrJsonTestResult(true, {}, false), "KrJsonTestResult", "{}");
    addRow("json, empty, type shown", new KrJsonTestResult(true, {}, true), "KrJsonTestResult", R"({"type":"Json"})");
    const QJsonObject nested{{"a", QJsonArray{1, "x", QJsonValue()}}, {"b", QJsonObject{{"c", true}}}, {"d", 0.5}};
    addRow("json, nested", new KrJsonTestResult(true, nested, false), "KrJsonTestResult",
        R"({"a":[1,"x",null],"b":{"c":true},"d":0.5})");
}

void TestKrSelfTestResults::render()
{
    QFETCH(ResultPointer, result);
    QFETCH(QByteArray, className);
    QFETCH(QByteArray, expected);

    QCOMPARE(QByteArray(result->metaObject()->className()), className);
    QCOMPARE(toJson(*result), expected);
    QCOMPARE(toJson(*result), expected);
}

void TestKrSelfTestResults::copyAndAssign_data()
{
    QTest::addColumn<QByteArray>("copied");
    QTest::addColumn<QByteArray>("assigned");
    QTest::addColumn<QByteArray>("expectedCopied");
    QTest::addColumn<QByteArray>("expectedAssigned");

    // A copy renders as its source would with the class's own type; an assigned result renders
    // exactly as its source, whose type here is one that no class sets itself.
    auto addRow = [](const char *name, auto &&source, auto &&target) {
        const QByteArray withOwnType = toJson(source);
        source.setType(Type::PassFail);
        const std::decay_t<decltype(source)> copy(source);
        target = source;
        QTest::newRow(name) << toJson(copy) << toJson(target) << withOwnType << toJson(source);
    };
    addRow("pass/fail", KrSelfTestResult(false, "Fan", true), KrSelfTestResult(true, "X", false));
    addRow("info", KrInfoTestResult("Fw", "1.2", true), KrInfoTestResult("X", "Y", false));
    addRow("date", KrDateTestResult("D", "today", true), KrDateTestResult("X", "Y", false));
    addRow("fpga type", KrFpgaTypeTestResult("F", "7z", true), KrFpgaTypeTestResult("X", "Y", false));
    addRow("version", KrVersionTestResult("V", "3", true), KrVersionTestResult("X", "Y", false));
    addRow("numeric", KrNumericTestResult(true, "N", 1, 2, 3, true), KrNumericTestResult(false, "X", 0, 0, 0, false));
    addRow("voltage", KrVoltageTestResult(true, "V", 1, 2, 3, true), KrVoltageTestResult(false, "X", 0, 0, 0, false));
    addRow("temperature", KrTemperatureTestResult(true, "T", 1, 2, 3, true),
        KrTemperatureTestResult(false, "X", 0, 0, 0, false));
    addRow("current", KrCurrentTestResult(true, "I", 1, 2, 3, true), KrCurrentTestResult(false, "X", 0, 0, 0, false));
    addRow("json", KrJsonTestResult(true, serdesPayload(), true), KrJsonTestResult(false, {}, false));

    KrNumericTestResult self(true, "S", 1, 2, 3, true);
    self.setType(Type::Version);
    const QByteArray before = toJson(self);
    KrNumericTestResult &alias = self;
    self = alias;
    QTest::newRow("self-assignment") << before << toJson(self) << before << before;
}

void TestKrSelfTestResults::copyAndAssign()
{
    QFETCH(QByteArray, copied);
    QFETCH(QByteArray, assigned);
    QFETCH(QByteArray, expectedCopied);
    QFETCH(QByteArray, expectedAssigned);

    QCOMPARE(copied, expectedCopied);
    QCOMPARE(assigned, expectedAssigned);
}

void TestKrSelfTestResults::copyIsParentlessAndAssignmentKeepsObject()
{
    QObject owner;
    auto *source = new KrSelfTestResult(true, "Fan", false);
    source->setParent(&owner);
    source->setObjectName(QStringLiteral("source"));

    const KrSelfTestResult copy(*source);
    QCOMPARE(copy.parent(), nullptr);
    QCOMPARE(copy.objectName(), QString());

    KrSelfTestResult target(false, "Other", false);
    target.setObjectName(QStringLiteral("target"));
    target = *source;
    QCOMPARE(target.parent(), nullptr);
    QCOMPARE(target.objectName(), QStringLiteral("target"));
    QCOMPARE(toJson(target), toJson(*source));
}

void TestKrSelfTestResults::jsonPayloadSurvivesRendering()
{
    KrJsonTestResult result(true, serdesPayload(), true);
    QCOMPARE(toJson(result), QByteArray(R"({"lanes":4,"type":"Json"})"));
    result.setShowType(false);
    QCOMPARE(toJson(result), QByteArray(R"({"lanes":4,"type":"serdes"})"));
    result.setShowType(true);
    QCOMPARE(toJson(result), QByteArray(R"({"lanes":4,"type":"Json"})"));
}

QTEST_GUILESS_MAIN(TestKrSelfTestResults)
#include "tst_krselftestresults.moc"
