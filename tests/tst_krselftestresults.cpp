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

const QJsonObject serdes{{"lanes", 4}, {"type", "serdes"}};

} // namespace

class TestKrSelfTestResults : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    // Every rendering runs under a locale that writes decimal commas.
    void initTestCase() { QLocale::setDefault(QLocale(QLocale::German)); }

    // Expected JSON is written with ' for ".
    void render_data()
    {
        QTest::addColumn<ResultPointer>("result");
        QTest::addColumn<QByteArray>("expected");
        const auto row = [](const char *name, KrAbstractSelfTestResult *result, const char *json) {
            QTest::newRow(name) << ResultPointer(result) << QByteArray(json).replace('\'', '"');
        };
        row("voltage example", new KrVoltageTestResult(true, "VCC", 3.3, 0.1, 3.312, true),
            "{'actual':'3.31 V','expected':'3.30 V','name':'VCC','status':'pass','tolerance':'0.10 "
            "V','type':'Voltage'}");
        // Rounded from the stored value; the status is the flag, never computed.
        row("numeric, type hidden", new KrNumericTestResult(false, "Fan", 3.3, 0.1, 3.312, false),
            "{'actual':'3.31','expected':'3.30','name':'Fan','status':'fail','tolerance':'0.10'}");
        row("numeric, whole and negative", new KrNumericTestResult(true, "N", 3000, -0.5, -1234.567, true),
            "{'actual':'-1234.57','expected':'3000.00','name':'N','status':'pass','tolerance':'-0.50',"
            "'type':'NumericPassFail'}");
        row("temperature", new KrTemperatureTestResult(true, "T", 25, 5, 27.3, true),
            "{'actual':'27.30 &deg;C','expected':'25.00 &deg;C','name':'T','status':'pass',"
            "'tolerance':'5.00 &deg;C','type':'Temperature'}");
        row("current", new KrCurrentTestResult(true, "I", 1.5, 0.25, 1.4213, true),
            "{'actual':'1.42 A','expected':'1.50 A','name':'I','status':'pass','tolerance':'0.25 A','type':'Current'}");
        row("pass/fail", new KrSelfTestResult(false, "F", true), "{'name':'F','status':'fail','type':'Base'}");
        auto *unknownType = new KrSelfTestResult(true, "", true);
        unknownType->setType(Type(11));
        row("type without a key", unknownType, "{'name':'','status':'pass','type':''}");
        row("info", new KrInfoTestResult("F", "1.2.3", true), "{'name':'F','type':'Info','value':'1.2.3'}");
        row("date", new KrDateTestResult("D", "2024", true), "{'name':'D','type':'Date','value':'2024'}");
        row("fpga type", new KrFpgaTypeTestResult("F", "7z", true), "{'name':'F','type':'FpgaType','value':'7z'}");
        row("version, type hidden, empty", new KrVersionTestResult(QString(), "", false), "{'name':'','value':''}");
        // The payload's own "type" is replaced only while the type is shown.
        row("json, type shown", new KrJsonTestResult(true, serdes, true), "{'lanes':4,'type':'Json'}");
        const QJsonObject nested{{"a", QJsonArray{1, "x", QJsonValue()}}, {"b", QJsonObject{{"c", true}}}, {"type", 1}};
        row("json, failed", new KrJsonTestResult(false, nested, false), "{'a':[1,'x',null],'b':{'c':true},'type':1}");
        row("json, empty, type shown", new KrJsonTestResult(true, {}, true), "{'type':'Json'}");
    }
    // Rendering with the other show-type flag in between changes nothing.
    void render()
    {
        QFETCH(ResultPointer, result);
        QFETCH(QByteArray, expected);
        QCOMPARE(toJson(*result), expected);
        result->setShowType(!result->showType());
        toJson(*result);
        result->setShowType(!result->showType());
        QCOMPARE(toJson(*result), expected);
    }

    // A copy renders as its source would with its class's own type; an assigned result, also
    // after assigning itself, renders exactly as its source, whose type no class sets itself.
    void copyAndAssign()
    {
        const auto row = [](const char *name, auto &&source, auto &&target) {
            const QByteArray withOwnType = toJson(source);
            source.setType(Type::PassFail);
            const std::decay_t<decltype(source)> copy(source);
            target = source;
            target = static_cast<const std::decay_t<decltype(target)> &>(target);
            QVERIFY2(toJson(copy) == withOwnType && toJson(target) == toJson(source), name);
        };
        row("pass/fail", KrSelfTestResult(false, "Fan", true), KrSelfTestResult(true, "X", false));
        row("info", KrInfoTestResult("Fw", "1.2", true), KrInfoTestResult("X", "Y", false));
        row("date", KrDateTestResult("D", "today", true), KrDateTestResult("X", "Y", false));
        row("fpga type", KrFpgaTypeTestResult("F", "7z", true), KrFpgaTypeTestResult("X", "Y", false));
        row("version", KrVersionTestResult("V", "3", true), KrVersionTestResult("X", "Y", false));
        row("numeric", KrNumericTestResult(true, "N", 1, 2, 3, true), KrNumericTestResult(false, "X", 0, 0, 0, false));
        row("voltage", KrVoltageTestResult(true, "V", 1, 2, 3, true), KrVoltageTestResult(false, "X", 0, 0, 0, false));
        row("temperature", KrTemperatureTestResult(true, "T", 1, 2, 3, true),
            KrTemperatureTestResult(false, "X", 0, 0, 0, false));
        row("current", KrCurrentTestResult(true, "I", 1, 2, 3, true), KrCurrentTestResult(false, "X", 0, 0, 0, false));
        row("json", KrJsonTestResult(true, serdes, true), KrJsonTestResult(false, {}, false));
        // The QObject part is never copied.
        QObject owner;
        KrSelfTestResult parented(true, "Fan", false);
        parented.setParent(&owner);
        QCOMPARE(KrSelfTestResult(parented).parent(), nullptr);
    }
};

QTEST_GUILESS_MAIN(TestKrSelfTestResults)
#include "tst_krselftestresults.moc"
