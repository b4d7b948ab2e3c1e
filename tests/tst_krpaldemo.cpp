// Runs krpal-demo as its users do and checks what it prints and how it exits.

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <sys/stat.h>

namespace {

struct Run
{
    int exitCode = -1;
    QByteArray out;
    QByteArray err;
};

// A short stream keeps every run well under two seconds; the hung command takes most of it.
Run runDemo(const QStringList &arguments)
{
    QProcess process;
    process.start(QStringLiteral(KRPAL_DEMO), arguments);
    Run run;
    if (!process.waitForFinished(60000)) {
        process.kill();
        process.waitForFinished();
        return run;
    }
    run.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    run.out = process.readAllStandardOutput();
    run.err = process.readAllStandardError();
    return run;
}

QJsonObject step(const QJsonObject &document, const QString &id)
{
    const QJsonArray steps = document.value(QLatin1String("steps")).toArray();
    for (const QJsonValue &step : steps) {
        if (step.toObject().value(QLatin1String("id")).toString() == id)
            return step.toObject();
    }
    return {};
}

const QByteArray factoryLines[]
    = {"FACTORY_TCXO=2048", "FACTORY_TEMPERATURE=25.5", "FACTORY_TUNING_SENSITIVITY=0.0125"};

} // namespace

class TestKrPalDemo : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void textRunWalksEveryStep();
    void jsonRunRecordsWhatTheLibraryDid();
    void calibrationFileStaysWhereAsked();
    void failedStepsAreNamed();
    void badOptions_data();
    void badOptions();
    void help();
};

void TestKrPalDemo::textRunWalksEveryStep()
{
    const Run run = runDemo({QStringLiteral("--duration"), QStringLiteral("0.3")});
    QCOMPARE(run.err, QByteArray());
    QCOMPARE(run.exitCode, 0);
    const QString out = QString::fromUtf8(run.out);
    // Not a terminal: no progress line, and every step in order.
    QVERIFY(!out.contains(QLatin1Char('\r')));
    const QStringList expected = {
        QStringLiteral("1. Start the simulated instrument"),
        QStringLiteral("2. Build the board and register it"),
        QStringLiteral("     \"tcxo\": Pal::TcxoCalDevice over the file "),
        QStringLiteral("3. Send a hardware command, end to end"),
        QStringLiteral("   write(SetFrequency, 1575420000) returned 16 after "),
        QStringLiteral("4. Exchange a request and its reply"),
        QStringLiteral("   ioctl(Identify) returned 28 after "),
        QStringLiteral("5. Time out a command to a hung device"),
        QStringLiteral("   write(SetAttenuation, 10.5) with a time-out of 250 ms returned -1 after "),
        QStringLiteral("   The library reported: status report 70 (a hardware command timed out) from "
                       "krdeviceabstraction.cpp line 168, in qint64 Pal::KrDeviceAbstraction::doCommand("
                       "std::function<long long int()>, quint32): \" sending a hardware command\""),
        QStringLiteral("6. Stream samples through a data collector"),
        QStringLiteral("   Every one of the "),
        QStringLiteral("7. Create the TCXO calibration"),
        QStringLiteral("       FACTORY_TCXO=2048"),
        QStringLiteral("       REF_SOURCE_DISPLAY=1"),
        QStringLiteral("8. Read the calibration back"),
        QStringLiteral("9. Record a field calibration"),
        QStringLiteral("       FIELD_TCXO=2051  ->  FIELD_TCXO=2060"),
        QStringLiteral("10. Report a self-test of every result type"),
        QStringLiteral("                   \"type\": \"FpgaType\","),
        QStringLiteral("11. Read a GPS fix"),
        QStringLiteral("12. Shut down"),
        QStringLiteral("All 12 steps behaved as expected, in "),
    };
    int from = 0;
    for (const QString &line : expected) {
        const int at = out.indexOf(QLatin1Char('\n') + line, from);
        QVERIFY2(at >= 0, qPrintable(QStringLiteral("missing, or out of order: ") + line));
        from = at + 1;
    }
    QCOMPARE(out.count(QStringLiteral("\n   ok (")), 12);
    QVERIFY(!out.contains(QLatin1String("FAILED")));
}

void TestKrPalDemo::jsonRunRecordsWhatTheLibraryDid()
{
    const Run run = runDemo({QStringLiteral("--json"), QStringLiteral("--duration"), QStringLiteral("0.3"),
        QStringLiteral("--rate"), QStringLiteral("20000"), QStringLiteral("--buffer-size"), QStringLiteral("1000")});
    QCOMPARE(run.err, QByteArray());
    QCOMPARE(run.exitCode, 0);
    QJsonParseError error;
    const QJsonObject document = QJsonDocument::fromJson(run.out, &error).object();
    QCOMPARE(error.error, QJsonParseError::NoError);

    QCOMPARE(document.value(QLatin1String("ok")), QJsonValue(true));
    QCOMPARE(document.value(QLatin1String("failedSteps")), QJsonValue(QJsonArray()));
    QCOMPARE(document.value(QLatin1String("settings")).toObject(),
        (QJsonObject{{QStringLiteral("durationSeconds"), 0.3}, {QStringLiteral("rate"), 20000},
            {QStringLiteral("bufferSize"), 1000}, {QStringLiteral("tcxoFile"), QString()}}));
    QStringList ids;
    for (const QJsonValue &step : document.value(QLatin1String("steps")).toArray())
        ids << step.toObject().value(QLatin1String("id")).toString();
    QCOMPARE(ids,
        QStringList({QStringLiteral("instrument"), QStringLiteral("build"), QStringLiteral("command"),
            QStringLiteral("request"), QStringLiteral("timeout"), QStringLiteral("stream"),
            QStringLiteral("tcxo-create"), QStringLiteral("tcxo-read"), QStringLiteral("tcxo-field"),
            QStringLiteral("self-test"), QStringLiteral("gps"), QStringLiteral("shutdown")}));

    // The reports exactly as the library made them, and nothing else reported anywhere.
    const QJsonArray unknownKey = {QJsonObject{{QStringLiteral("code"), 47},
        {QStringLiteral("meaning"), QStringLiteral("no device under that key")},
        {QStringLiteral("file"), QStringLiteral("krpalroot.cpp")}, {QStringLiteral("line"), 44},
        {QStringLiteral("function"),
            QStringLiteral("Pal::KrDeviceAbstraction* Pal::KrPalRoot::deviceAbstraction(const char*)")},
        {QStringLiteral("arguments"), QJsonArray{QStringLiteral("KrDeviceAbstraction with key = dac KrPalRoot")}}}};
    const QJsonArray timedOut = {QJsonObject{{QStringLiteral("code"), 70},
        {QStringLiteral("meaning"), QStringLiteral("a hardware command timed out")},
        {QStringLiteral("file"), QStringLiteral("krdeviceabstraction.cpp")}, {QStringLiteral("line"), 168},
        {QStringLiteral("function"),
            QStringLiteral("qint64 Pal::KrDeviceAbstraction::doCommand(std::function<long long int()>, quint32)")},
        {QStringLiteral("arguments"), QJsonArray{QStringLiteral(" sending a hardware command")}}}};
    for (const QJsonValue &value : document.value(QLatin1String("steps")).toArray()) {
        const QJsonObject step = value.toObject();
        const QString id = step.value(QLatin1String("id")).toString();
        QVERIFY2(step.value(QLatin1String("ok")).toBool(), qPrintable(id));
        const QJsonArray expected = id == QLatin1String("command") ? unknownKey
            : id == QLatin1String("timeout")                       ? timedOut
                                                                   : QJsonArray();
        QCOMPARE(step.value(QLatin1String("statusReports")).toArray(), expected);
    }

    const QJsonObject build = step(document, QStringLiteral("build"));
    const QString tcxoFile
        = build.value(QLatin1String("values")).toObject().value(QLatin1String("tcxoFile")).toString();
    QCOMPARE(build.value(QLatin1String("messages")).toArray(),
        (QJsonArray{QJsonObject{{QStringLiteral("level"), QStringLiteral("critical")},
            {QStringLiteral("category"), QStringLiteral("default")},
            {QStringLiteral("text"), QStringLiteral("Cannot open file \"%1\"").arg(tcxoFile)}}}));
    QVERIFY2(!QFile::exists(tcxoFile), "a temporary calibration file is removed with the run");

    const QJsonObject timeout = step(document, QStringLiteral("timeout")).value(QLatin1String("values")).toObject();
    QCOMPARE(timeout.value(QLatin1String("hungResult")), QJsonValue(-1));
    QCOMPARE(timeout.value(QLatin1String("busyRequestResult")), QJsonValue(-1));
    QCOMPARE(timeout.value(QLatin1String("nextResult")), QJsonValue(6));

    const QJsonObject stream = step(document, QStringLiteral("stream")).value(QLatin1String("values")).toObject();
    QVERIFY(stream.value(QLatin1String("buffers")).toInt() >= 3);
    QCOMPARE(stream.value(QLatin1String("bufferSize")), QJsonValue(1000));
    QCOMPARE(stream.value(QLatin1String("bytes")).toInt(), stream.value(QLatin1String("buffers")).toInt() * 1000);
    QCOMPARE(stream.value(QLatin1String("mismatches")), QJsonValue(0));
    QCOMPARE(stream.value(QLatin1String("announced")), stream.value(QLatin1String("buffers")));

    const QJsonArray selfTest = step(document, QStringLiteral("self-test"))
                                    .value(QLatin1String("values"))
                                    .toObject()
                                    .value(QLatin1String("selfTest"))
                                    .toArray();
    QStringList types;
    for (const QJsonValue &result : selfTest)
        types << result.toObject().value(QLatin1String("type")).toString();
    QCOMPARE(types,
        QStringList({QStringLiteral("Base"), QStringLiteral("PassFail"), QStringLiteral("NumericPassFail"),
            QStringLiteral("Voltage"), QStringLiteral("Current"), QStringLiteral("Temperature"), QStringLiteral("Info"),
            QStringLiteral("Version"), QStringLiteral("Date"), QStringLiteral("FpgaType"), QStringLiteral("Json")}));
    QCOMPARE(selfTest.at(3).toObject(),
        (QJsonObject{{QStringLiteral("name"), QStringLiteral("Supply 3V3")},
            {QStringLiteral("status"), QStringLiteral("pass")}, {QStringLiteral("expected"), QStringLiteral("3.30 V")},
            {QStringLiteral("tolerance"), QStringLiteral("0.10 V")},
            {QStringLiteral("actual"), QStringLiteral("3.31 V")},
            {QStringLiteral("type"), QStringLiteral("Voltage")}}));

    const QJsonObject gps = step(document, QStringLiteral("gps")).value(QLatin1String("values")).toObject();
    QCOMPARE(gps,
        (QJsonObject{{QStringLiteral("latitude"), 48.137154}, {QStringLiteral("longitude"), 11.576124},
            {QStringLiteral("altitude"), 519.0}, {QStringLiteral("satellites"), 9},
            {QStringLiteral("time"), QStringLiteral("2024-03-18T10:15:30Z")}, {QStringLiteral("valid"), true}}));
}

void TestKrPalDemo::calibrationFileStaysWhereAsked()
{
    QTemporaryDir directory;
    QVERIFY(directory.isValid());
    const QString path = directory.filePath(QStringLiteral("board/tcxo.cal"));
    const QStringList arguments = {QStringLiteral("--json"), QStringLiteral("--duration"), QStringLiteral("0.1"),
        QStringLiteral("--tcxo-file"), path};

    // A new board: the device finds no file when it is built, and says so.
    Run run = runDemo(arguments);
    QCOMPARE(run.exitCode, 0);
    QJsonObject build = step(QJsonDocument::fromJson(run.out).object(), QStringLiteral("build"));
    QCOMPARE(build.value(QLatin1String("messages")).toArray().size(), 1);

    QFile file(path);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QList<QByteArray> lines = file.readAll().split('\n');
    file.close();
    QCOMPARE(lines.size(), 9);
    QCOMPARE(lines.mid(0, 3), QList<QByteArray>(std::begin(factoryLines), std::end(factoryLines)));
    QCOMPARE(lines.mid(3, 3),
        (QList<QByteArray>{"FIELD_TCXO=2060", "FIELD_TEMPERATURE=30.5", "FIELD_TUNING_SENSITIVITY=0.0126"}));
    QVERIFY(
        QRegularExpression(QStringLiteral("^FIELD_FIX_TIME=\\d{13}$")).match(QString::fromLatin1(lines[6])).hasMatch());
    QCOMPARE(lines.mid(7), (QList<QByteArray>{"FIX_DECAY_TIME=3600", "REF_SOURCE_DISPLAY=1"}));
    struct stat status = {};
    QCOMPARE(::stat(QFile::encodeName(path).constData(), &status), 0);
    QCOMPARE(status.st_mode & 07777, mode_t(0604));

    // The same board again: the device reads the file it finds, silently, and the run goes on.
    run = runDemo(arguments);
    QCOMPARE(run.exitCode, 0);
    build = step(QJsonDocument::fromJson(run.out).object(), QStringLiteral("build"));
    QCOMPARE(build.value(QLatin1String("messages")).toArray(), QJsonArray());
}

void TestKrPalDemo::failedStepsAreNamed()
{
    // A regular file where the calibration's directory should be: the three TCXO steps fail,
    // the others still run.
    QTemporaryDir directory;
    QVERIFY(directory.isValid());
    QFile plain(directory.filePath(QStringLiteral("plain")));
    QVERIFY(plain.open(QIODevice::WriteOnly));
    plain.close();
    const Run run = runDemo({QStringLiteral("--duration"), QStringLiteral("0.1"), QStringLiteral("--tcxo-file"),
        directory.filePath(QStringLiteral("plain/tcxo.cal"))});
    QCOMPARE(run.exitCode, 1);
    QCOMPARE(run.err, QByteArray("krpal-demo: failed steps: tcxo-create, tcxo-read, tcxo-field\n"));
    QVERIFY(run.out.contains("\n   FAILED: the file does not hold the nine lines of the factory calibration\n"));
    QVERIFY(run.out.endsWith("\n3 of 12 steps failed: tcxo-create, tcxo-read, tcxo-field.\n"));
}

void TestKrPalDemo::badOptions_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QByteArray>("message");
    QTest::newRow("duration zero") << QStringList{QStringLiteral("--duration"), QStringLiteral("0")}
                                   << QByteArray("--duration wants seconds above 0 and at most 600, not \"0\"");
    QTest::newRow("duration not a number")
        << QStringList{QStringLiteral("--duration=abc")}
        << QByteArray("--duration wants seconds above 0 and at most 600, not \"abc\"");
    QTest::newRow("rate zero") << QStringList{QStringLiteral("--rate"), QStringLiteral("0")}
                               << QByteArray("--rate wants samples per second from 1 to 1000000, not \"0\"");
    QTest::newRow("rate too high") << QStringList{QStringLiteral("--rate"), QStringLiteral("1000001")}
                                   << QByteArray("--rate wants samples per second from 1 to 1000000, not \"1000001\"");
    QTest::newRow("odd buffer size") << QStringList{QStringLiteral("--buffer-size"),
        QStringLiteral(
            "1023")} << QByteArray("--buffer-size wants an even number of bytes from 2 to 65536, not \"1023\"");
    QTest::newRow("buffer too large") << QStringList{QStringLiteral("--buffer-size"),
        QStringLiteral(
            "65538")} << QByteArray("--buffer-size wants an even number of bytes from 2 to 65536, not \"65538\"");
    QTest::newRow("empty calibration path")
        << QStringList{QStringLiteral("--tcxo-file=")} << QByteArray("--tcxo-file wants a path");
    QTest::newRow("unknown option") << QStringList{QStringLiteral("--speed")} << QByteArray("Unknown option 'speed'.");
    QTest::newRow("stray argument") << QStringList{QStringLiteral("now")} << QByteArray("unexpected argument \"now\"");
}

void TestKrPalDemo::badOptions()
{
    QFETCH(QStringList, arguments);
    QFETCH(QByteArray, message);
    const Run run = runDemo(arguments);
    QCOMPARE(run.exitCode, 2);
    QCOMPARE(run.out, QByteArray());
    QCOMPARE(run.err, "krpal-demo: " + message + " (see --help)\n");
}

void TestKrPalDemo::help()
{
    const Run run = runDemo({QStringLiteral("--help")});
    QCOMPARE(run.exitCode, 0);
    for (const char *option :
        {"--duration <seconds>", "--rate <samples/s>", "--buffer-size <bytes>", "--tcxo-file <path>", "--json"})
        QVERIFY2(run.out.contains(option), option);
}

QTEST_GUILESS_MAIN(TestKrPalDemo)
#include "tst_krpaldemo.moc"
