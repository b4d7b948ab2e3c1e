// Runs krpal-demo as its users do: how it exits, what its JSON document says, what it leaves.

#include "toolprocess.h"

#include <QDateTime>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <tuple>

namespace {

// The demo's exit code (-1 if it crashed or hung), its standard output and its standard error.
std::tuple<int, QByteArray, QByteArray> runDemo(const QString &options, const QStringList &more = {})
{
    QProcess process;
    startTool(process, KRPAL_DEMO, options.split(' ', Qt::SkipEmptyParts) + more);
    const bool exited = process.waitForFinished(60000) && process.exitStatus() == QProcess::NormalExit;
    return {exited ? process.exitCode() : -1, process.readAllStandardOutput(), process.readAllStandardError()};
}

// The board's calibration after the demo's field calibration, whose fix time is the moment it ran.
const QString fieldCalibrated = "FACTORY_TCXO=2048\nFACTORY_TEMPERATURE=25.5\nFACTORY_TUNING_SENSITIVITY=0.0125\n"
                                "FIELD_TCXO=2060\nFIELD_TEMPERATURE=30.5\nFIELD_TUNING_SENSITIVITY=0.0126\n"
                                "FIELD_FIX_TIME=<now>\nFIX_DECAY_TIME=3600\nREF_SOURCE_DISPLAY=1";

} // namespace

class TestKrPalDemo : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { SKIP_WITHOUT_TOOLS(); }
    void jsonRun()
    {
        const auto [code, out, err] = runDemo("--json --duration 0.3 --rate 20000 --buffer-size 1000");
        QCOMPARE(err, QByteArray());
        QCOMPARE(code, 0);
        QJsonObject document = QJsonDocument::fromJson(out).object();
        const QJsonArray steps = document.take("steps").toArray();
        document.remove("elapsedMs");
        QCOMPARE(document,
            (QJsonObject{{"application", "simboard"}, {"ok", true}, {"failedSteps", QJsonArray()},
                {"settings",
                    QJsonObject{{"durationSeconds", 0.3}, {"rate", 20000}, {"bufferSize", 1000}, {"tcxoFile", ""}}}}));

        // The steps in the order of the flow, each with the status reports that came during it;
        // any other report or log message would have failed its step.
        QStringList ids;
        QJsonObject reports;
        for (const QJsonValue &step : steps) {
            ids << step["id"].toString();
            QVERIFY2(step["ok"].toBool(), qPrintable(ids.last()));
            // Where in the library a report comes from is its unit tests' business.
            QJsonArray stepReports;
            for (const QJsonValue &report : step["statusReports"].toArray()) {
                QJsonObject object = report.toObject();
                object.remove("line");
                stepReports.append(object);
            }
            if (!stepReports.isEmpty())
                reports[ids.last()] = stepReports;
        }
        QCOMPARE(ids.join(' '),
            "instrument build command request timeout registers stream tcxo-create tcxo-read tcxo-field self-test gps "
            "shutdown");
        QCOMPARE(reports,
            (QJsonObject{
                {"command",
                    QJsonArray{
                        QJsonObject{{"code", 47}, {"meaning", "no device under that key"}, {"file", "krpalroot.cpp"},
                            {"function", "Pal::KrDeviceAbstraction* Pal::KrPalRoot::deviceAbstraction(const char*)"},
                            {"arguments", QJsonArray{"KrDeviceAbstraction with key = dac KrPalRoot"}}}}},
                {"timeout",
                    QJsonArray{QJsonObject{{"code", 70}, {"meaning", "a hardware command timed out"},
                        {"file", "krdeviceabstraction.cpp"},
                        {"function",
                            "qint64 Pal::KrDeviceAbstraction::doCommand(std::function<long long int()>, quint32)"},
                        {"arguments", QJsonArray{" sending a hardware command"}}}}}}));

        QVERIFY2(!QFile::exists(steps[1]["values"]["tcxoFile"].toString()), "the temporary calibration file is gone");
        // Whole buffers of the size asked for, summed up in the self-test (the demo checks their order).
        QCOMPARE(steps[5]["values"],
            QJsonValue(QJsonObject{{"reset", QJsonArray{0, 0, 0}}, {"enableResult", 8},
                {"refused", QJsonArray{1, 0, 2}}, {"stopResult", 8}}));
        QJsonObject stream = steps[6]["values"].toObject();
        QCOMPARE(stream["samples"].toInt() * 2, stream["buffers"].toInt() * 1000);
        stream["type"] = "Json";
        QCOMPARE(steps[10]["values"]["selfTest"][10], QJsonValue(stream));
        // The fix as the receiver's sentences give it, at the time it sent them.
        QJsonObject gps = steps[11]["values"].toObject();
        const QDateTime time = QDateTime::fromString(gps.take("time").toString(), Qt::ISODate);
        QVERIFY(time.isValid() && qAbs(time.secsTo(QDateTime::currentDateTimeUtc())) < 60);
        QCOMPARE(gps,
            (QJsonObject{{"latitude", 48.137154}, {"longitude", 11.576124}, {"altitude", 519.0}, {"satellites", 9},
                {"valid", true}, {"fix", true}, {"hasDate", true}, {"dropped", 0}}));
    }

    // A board's calibration file made on the first run, read on the second; no progress line on a pipe.
    void calibrationFileStaysWhereAsked()
    {
        QTemporaryDir directory;
        QVERIFY(directory.isValid());
        const QString path = directory.filePath("board/tcxo.cal");
        for (int run = 0; run < 2; ++run) {
            const auto [code, out, err] = runDemo("--duration 0.1 --tcxo-file", {path});
            QCOMPARE(err, QByteArray());
            QCOMPARE(code, 0);
            QVERIFY(!out.contains('\r'));
            QVERIFY(out.contains("\n\nAll 13 steps behaved as expected, in "));
            QFile file(path);
            QVERIFY(file.open(QIODevice::ReadOnly));
            QCOMPARE(QString(file.readAll())
                         .replace(QRegularExpression("FIELD_FIX_TIME=\\d{13}\n"), "FIELD_FIX_TIME=<now>\n"),
                fieldCalibrated);
        }
    }

    void failedStepsAreNamed()
    {
        // No directory can be made under /dev/null: the three TCXO steps fail, the others still run.
        const auto [code, out, err] = runDemo("--duration 0.1 --tcxo-file /dev/null/tcxo.cal");
        QCOMPARE(err, QByteArray("krpal-demo: failed steps: tcxo-create, tcxo-read, tcxo-field\n"));
        QCOMPARE(code, 1);
        QVERIFY(out.contains("\n   FAILED: the file does not hold the nine lines of the factory calibration\n"));
        QVERIFY(out.endsWith("\n3 of 13 steps failed: tcxo-create, tcxo-read, tcxo-field.\n"));
    }

    void badOptions_data()
    {
        QTest::addColumn<QString>("options");
        QTest::addColumn<QByteArray>("message");
        const auto badOption = [](const char *name, const char *options, const char *message) {
            QTest::newRow(name) << QString(options) << QByteArray(message);
        };
        badOption("duration zero", "--duration 0", "--duration wants seconds above 0 and at most 600, not \"0\"");
        badOption("duration text", "--duration=abc", "--duration wants seconds above 0 and at most 600, not \"abc\"");
        badOption(
            "rate too high", "--rate 1000001", "--rate wants samples per second from 1 to 1000000, not \"1000001\"");
        badOption("odd buffer size", "--buffer-size 1023",
            "--buffer-size wants an even number of bytes from 2 to 65536, not \"1023\"");
        badOption("empty calibration path", "--tcxo-file=", "--tcxo-file wants a path");
        badOption("unknown option", "--speed", "Unknown option 'speed'.");
        badOption("stray argument", "now", "unexpected argument \"now\"");
    }

    void badOptions()
    {
        QFETCH(QString, options);
        QFETCH(QByteArray, message);
        const auto [code, out, err] = runDemo(options);
        QCOMPARE(code, 2);
        QCOMPARE(out, QByteArray());
        QCOMPARE(err, "krpal-demo: " + message + " (see --help)\n");
    }
};

QTEST_GUILESS_MAIN(TestKrPalDemo)
#include "tst_krpaldemo.moc"
