// Runs krpal-tcxocal on temporary files: what it prints, how it exits, and the files'
// exact bytes afterwards.

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <sys/stat.h>

namespace {

const QByteArray example = "FACTORY_TCXO=2048\n"
                           "FACTORY_TEMPERATURE=25.5\n"
                           "FACTORY_TUNING_SENSITIVITY=0.0125\n"
                           "FIELD_TCXO=2051\n"
                           "FIELD_TEMPERATURE=31.75\n"
                           "FIELD_TUNING_SENSITIVITY=0.0124\n"
                           "FIELD_FIX_TIME=1.7e+12\n"
                           "FIX_DECAY_TIME=3600\n"
                           "REF_SOURCE_DISPLAY=1";

const QStringList exampleOptions
    = {QStringLiteral("--factory-tcxo"), QStringLiteral("2048"), QStringLiteral("--factory-temperature"),
        QStringLiteral("25.5"), QStringLiteral("--factory-sensitivity"), QStringLiteral("0.0125"),
        QStringLiteral("--field-tcxo"), QStringLiteral("2051"), QStringLiteral("--field-temperature"),
        QStringLiteral("31.75"), QStringLiteral("--field-sensitivity"), QStringLiteral("0.0124"),
        QStringLiteral("--field-fix-time"), QStringLiteral("1.7e12"), QStringLiteral("--fix-decay-time"),
        QStringLiteral("3600"), QStringLiteral("--ref-source-display"), QStringLiteral("1")};

const QByteArray zeros = "FACTORY_TCXO=7\n"
                         "FACTORY_TEMPERATURE=0\n"
                         "FACTORY_TUNING_SENSITIVITY=0\n"
                         "FIELD_TCXO=0\n"
                         "FIELD_TEMPERATURE=-20\n"
                         "FIELD_TUNING_SENSITIVITY=0\n"
                         "FIELD_FIX_TIME=0\n"
                         "FIX_DECAY_TIME=0\n"
                         "REF_SOURCE_DISPLAY=0";

const QByteArray partial = "FIELD_TCXO=5\nFIELD_TEMPERATURE=25.5 C";

const QByteArray keys = "FACTORY_TCXO, FACTORY_TEMPERATURE, FACTORY_TUNING_SENSITIVITY, FIELD_TCXO, FIELD_TEMPERATURE, "
                        "FIELD_TUNING_SENSITIVITY, FIELD_FIX_TIME, FIX_DECAY_TIME, REF_SOURCE_DISPLAY";

struct Run
{
    int exitCode = -1;
    QByteArray out;
    QByteArray err;
};

Run runTool(const QStringList &arguments)
{
    QProcess process;
    process.start(QStringLiteral(KRPAL_TCXOCAL), arguments);
    Run run;
    if (process.waitForFinished(30000) && process.exitStatus() == QProcess::NormalExit)
        run.exitCode = process.exitCode();
    run.out = process.readAllStandardOutput();
    run.err = process.readAllStandardError();
    return run;
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void writeFile(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(file.write(bytes), qint64(bytes.size()));
}

int modeOf(const QString &path)
{
    struct stat status = {};
    return ::stat(QFile::encodeName(path).constData(), &status) == 0 ? int(status.st_mode & 07777) : -1;
}

} // namespace

class TestKrPalTcxoCal : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void commands_data();
    void commands();
    void fieldCalibration();
    void symbolicLinkStaysALink();
};

// Each case runs one command in an empty directory. "%d" in arguments and texts stands for
// that directory, "%f" for the calibration file in it. A null file means no file.
void TestKrPalTcxoCal::commands_data()
{
    QTest::addColumn<QByteArray>("before");
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QByteArray>("out");
    QTest::addColumn<QByteArray>("err");
    QTest::addColumn<QByteArray>("after");

    const QString f = QStringLiteral("%f");
    const QByteArray none;
    const QByteArray exampleShown = example + "\nall 9 keys found in %f\n";

    QTest::newRow("create every field") << none << QStringList{QStringLiteral("create"), f} + exampleOptions << 0
                                        << "created %f:\n" + example + '\n'
                                        << none << example;
    QTest::newRow("create, fields left out are 0")
        << none
        << QStringList{QStringLiteral("create"), f, QStringLiteral("--factory-tcxo"), QStringLiteral("7"),
               QStringLiteral("--field-temperature"), QStringLiteral("-20")}
        << 0 << "created %f:\n" + zeros + '\n'
        << none << zeros;
    QTest::newRow("create refuses to replace")
        << zeros << QStringList{QStringLiteral("create"), f} + exampleOptions << 1 << none
        << QByteArray("krpal-tcxocal: %f exists; give --force to replace it\n") << zeros;
    QTest::newRow("create --force replaces")
        << zeros << QStringList{QStringLiteral("create"), f, QStringLiteral("--force")} + exampleOptions << 0
        << "created %f:\n" + example + '\n'
        << none << example;
    QTest::newRow("create, DAC not a number")
        << none << QStringList{QStringLiteral("create"), f, QStringLiteral("--factory-tcxo"), QStringLiteral("abc")}
        << 2 << none
        << QByteArray("krpal-tcxocal: --factory-tcxo wants a whole number from 0 to 4294967295, not \"abc\"\n") << none;
    QTest::newRow("create, DAC negative")
        << none << QStringList{QStringLiteral("create"), f, QStringLiteral("--field-tcxo"), QStringLiteral("-1")} << 2
        << none << QByteArray("krpal-tcxocal: --field-tcxo wants a whole number from 0 to 4294967295, not \"-1\"\n")
        << none;
    QTest::newRow("create, DAC beyond 32 bits")
        << none
        << QStringList{QStringLiteral("create"), f, QStringLiteral("--field-tcxo"), QStringLiteral("4294967296")} << 2
        << none
        << QByteArray("krpal-tcxocal: --field-tcxo wants a whole number from 0 to 4294967295, not \"4294967296\"\n")
        << none;
    QTest::newRow("create, bad real") << none
                                      << QStringList{QStringLiteral("create"), f, QStringLiteral("--fix-decay-time"),
                                             QStringLiteral("1.2.3")}
                                      << 2 << none
                                      << QByteArray("krpal-tcxocal: --fix-decay-time wants a number, not \"1.2.3\"\n")
                                      << none;
    QTest::newRow("create, not finite")
        << none
        << QStringList{QStringLiteral("create"), f, QStringLiteral("--field-temperature"), QStringLiteral("inf")} << 2
        << none << QByteArray("krpal-tcxocal: --field-temperature wants a number, not \"inf\"\n") << none;
    // The file is in the way of the directory that create wants.
    QTest::newRow("create, directory cannot be created")
        << QByteArray("plain") << QStringList{QStringLiteral("create"), QStringLiteral("%f/calibration/tcxo.cal")} << 1
        << none << QByteArray("krpal-tcxocal: cannot create the directory %f/calibration\n") << QByteArray("plain");
    QTest::newRow("create, option of another command")
        << none << QStringList{QStringLiteral("create"), f, QStringLiteral("--temperature"), QStringLiteral("1")} << 2
        << none << QByteArray("krpal-tcxocal: --temperature is no option of create (see --help)\n") << none;

    QTest::newRow("show") << example << QStringList{QStringLiteral("show"), f} << 0 << exampleShown << none << example;
    QTest::newRow("show, keys missing")
        << partial << QStringList{QStringLiteral("show"), f} << 1
        << QByteArray("FACTORY_TCXO=    (missing)\n"
                      "FACTORY_TEMPERATURE=    (missing)\n"
                      "FACTORY_TUNING_SENSITIVITY=    (missing)\n"
                      "FIELD_TCXO=5\n"
                      "FIELD_TEMPERATURE=25.5\n"
                      "FIELD_TUNING_SENSITIVITY=    (missing)\n"
                      "FIELD_FIX_TIME=    (missing)\n"
                      "FIX_DECAY_TIME=    (missing)\n"
                      "REF_SOURCE_DISPLAY=    (missing)\n"
                      "2 of 9 keys found in %f; missing: FACTORY_TCXO=, FACTORY_TEMPERATURE=, "
                      "FACTORY_TUNING_SENSITIVITY=, FIELD_TUNING_SENSITIVITY=, FIELD_FIX_TIME=, FIX_DECAY_TIME=, "
                      "REF_SOURCE_DISPLAY=\n")
        << none << partial;
    QTest::newRow("show, missing file") << none << QStringList{QStringLiteral("show"), f} << 1 << none
                                        << QByteArray("krpal-tcxocal: %f: no such file\n") << none;
    QTest::newRow("show, a directory") << none << QStringList{QStringLiteral("show"), QStringLiteral("%d")} << 1 << none
                                       << QByteArray("krpal-tcxocal: %d is not a regular file\n") << none;

    QTest::newRow("get, key with =") << example
                                     << QStringList{QStringLiteral("get"), f, QStringLiteral("FIELD_TEMPERATURE=")} << 0
                                     << QByteArray("31.75\n") << none << example;
    QTest::newRow("get, key without =") << example
                                        << QStringList{QStringLiteral("get"), f, QStringLiteral("FIELD_TCXO")} << 0
                                        << QByteArray("2051\n") << none << example;
    QTest::newRow("get, value text as the file spells it")
        << partial << QStringList{QStringLiteral("get"), f, QStringLiteral("FIELD_TEMPERATURE")} << 0
        << QByteArray("25.5\n") << none << partial;
    QTest::newRow("get, unknown key") << example << QStringList{QStringLiteral("get"), f, QStringLiteral("field_tcxo")}
                                      << 2 << none
                                      << "krpal-tcxocal: unknown key \"field_tcxo\"; the keys are " + keys + '\n'
                                      << example;
    QTest::newRow("get, key missing from the file")
        << partial << QStringList{QStringLiteral("get"), f, QStringLiteral("FIX_DECAY_TIME")} << 1 << none
        << QByteArray("krpal-tcxocal: %f has no FIX_DECAY_TIME= line\n") << partial;
    QTest::newRow("get, missing file") << none << QStringList{QStringLiteral("get"), f, QStringLiteral("FIELD_TCXO")}
                                       << 1 << none << QByteArray("krpal-tcxocal: %f: no such file\n") << none;

    QByteArray dacOnly = example;
    dacOnly.replace("FIELD_TCXO=2051", "FIELD_TCXO=2060");
    QTest::newRow("field, DAC alone") << example << QStringList{QStringLiteral("field"), f, QStringLiteral("2060")} << 0
                                      << QByteArray("FIELD_TCXO=2051  ->  FIELD_TCXO=2060\nupdated %f\n") << none
                                      << dacOnly;
    QTest::newRow("field, same DAC")
        << example
        << QStringList{QStringLiteral("field"), f, QStringLiteral("2051"), QStringLiteral("--temperature"),
               QStringLiteral("20"), QStringLiteral("--sensitivity"), QStringLiteral("0.5")}
        << 0
        << QByteArray("FIELD_TCXO is already 2051 in %f; the file is left as it was, as temperature and sensitivity "
                      "are recorded only with a new DAC value\n")
        << none << example;
    QTest::newRow("field, missing file") << none << QStringList{QStringLiteral("field"), f, QStringLiteral("2060")} << 1
                                         << none << QByteArray("krpal-tcxocal: %f: no such file\n") << none;
    QTest::newRow("field, no FIELD_TCXO line")
        << QByteArray("FACTORY_TCXO=1") << QStringList{QStringLiteral("field"), f, QStringLiteral("2060")} << 1 << none
        << QByteArray("krpal-tcxocal: %f has no FIELD_TCXO= line; nothing to update\n") << QByteArray("FACTORY_TCXO=1");
    QTest::newRow("field, NUL byte") << QByteArray("FIELD_TCXO=1\0X", 14)
                                     << QStringList{QStringLiteral("field"), f, QStringLiteral("2060")} << 1 << none
                                     << QByteArray("krpal-tcxocal: %f holds a NUL byte; it is not rewritten\n")
                                     << QByteArray("FIELD_TCXO=1\0X", 14);
    QTest::newRow("field, DAC not a number")
        << example << QStringList{QStringLiteral("field"), f, QStringLiteral("20x")} << 2 << none
        << QByteArray("krpal-tcxocal: DAC wants a whole number from 0 to 2147483647, not \"20x\"\n") << example;
    QTest::newRow("field, DAC negative")
        << example << QStringList{QStringLiteral("field"), f, QStringLiteral("-5")} << 2 << none
        << QByteArray("krpal-tcxocal: \"-5\" is no option, and a DAC value is a whole number from 0 to 2147483647\n")
        << example;
    QTest::newRow("field, temperature alone")
        << example
        << QStringList{QStringLiteral("field"), f, QStringLiteral("2060"), QStringLiteral("--temperature"),
               QStringLiteral("20")}
        << 2 << none << QByteArray("krpal-tcxocal: give --temperature and --sensitivity together, or neither\n")
        << example;
    QTest::newRow("field, bad sensitivity")
        << example
        << QStringList{QStringLiteral("field"), f, QStringLiteral("2060"), QStringLiteral("--temperature"),
               QStringLiteral("20"), QStringLiteral("--sensitivity"), QStringLiteral("x")}
        << 2 << none << QByteArray("krpal-tcxocal: --sensitivity wants a number, not \"x\"\n") << example;

    QTest::newRow("unknown command") << none << QStringList{QStringLiteral("list"), f} << 2 << none
                                     << QByteArray(
                                            "krpal-tcxocal: unknown command \"list\"; the commands are show, get, "
                                            "create and field (see --help)\n")
                                     << none;
    QTest::newRow("missing argument") << none << QStringList{QStringLiteral("get"), f} << 2 << none
                                      << QByteArray("krpal-tcxocal: usage: krpal-tcxocal get FILE KEY\n") << none;
}

void TestKrPalTcxoCal::commands()
{
    QFETCH(QByteArray, before);
    QFETCH(QStringList, arguments);
    QFETCH(int, exitCode);
    QFETCH(QByteArray, out);
    QFETCH(QByteArray, err);
    QFETCH(QByteArray, after);

    QTemporaryDir directory;
    QVERIFY(directory.isValid());
    const QString file = directory.filePath(QStringLiteral("tcxo.cal"));
    if (!before.isNull())
        writeFile(file, before);
    const auto expand = [&](QByteArray text) {
        return text.replace("%f", QFile::encodeName(file)).replace("%d", QFile::encodeName(directory.path()));
    };
    for (QString &argument : arguments)
        argument = QString::fromUtf8(expand(argument.toUtf8()));

    const Run run = runTool(arguments);
    QCOMPARE(run.err, expand(err));
    QCOMPARE(run.out, expand(out));
    QCOMPARE(run.exitCode, exitCode);
    QCOMPARE(readFile(file), after);
    if (exitCode == 0 && after != before)
        QCOMPARE(modeOf(file), 0604);
    // Whatever happened, no temporary file is left beside the calibration.
    const QStringList left = QDir(directory.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
    QCOMPARE(left, after.isNull() ? QStringList() : QStringList{QStringLiteral("tcxo.cal")});
}

void TestKrPalTcxoCal::fieldCalibration()
{
    QTemporaryDir directory;
    QVERIFY(directory.isValid());
    const QString file = directory.filePath(QStringLiteral("tcxo.cal"));
    writeFile(file, example);
    const qint64 earliest = QDateTime::currentMSecsSinceEpoch();
    const Run run = runTool({QStringLiteral("field"), file, QStringLiteral("2060"), QStringLiteral("--temperature"),
        QStringLiteral("-5.5"), QStringLiteral("--sensitivity"), QStringLiteral("0.0126")});
    const qint64 latest = QDateTime::currentMSecsSinceEpoch();
    QCOMPARE(run.err, QByteArray());
    QCOMPARE(run.exitCode, 0);

    const QByteArray bytes = readFile(file);
    const QRegularExpressionMatch fixTime
        = QRegularExpression(QStringLiteral("\nFIELD_FIX_TIME=(\\d+)\n")).match(QString::fromLatin1(bytes));
    QVERIFY(fixTime.hasMatch());
    const qint64 fixedAt = fixTime.captured(1).toLongLong();
    QVERIFY(fixedAt >= earliest && fixedAt <= latest);
    const QByteArray fixLine = "FIELD_FIX_TIME=" + QByteArray::number(fixedAt);
    QCOMPARE(bytes,
        "FACTORY_TCXO=2048\nFACTORY_TEMPERATURE=25.5\nFACTORY_TUNING_SENSITIVITY=0.0125\nFIELD_TCXO=2060\n"
        "FIELD_TEMPERATURE=-5.5\nFIELD_TUNING_SENSITIVITY=0.0126\n"
            + fixLine + "\nFIX_DECAY_TIME=3600\nREF_SOURCE_DISPLAY=1");
    QCOMPARE(run.out,
        "FIELD_TCXO=2051  ->  FIELD_TCXO=2060\n"
        "FIELD_TEMPERATURE=31.75  ->  FIELD_TEMPERATURE=-5.5\n"
        "FIELD_TUNING_SENSITIVITY=0.0124  ->  FIELD_TUNING_SENSITIVITY=0.0126\n"
        "FIELD_FIX_TIME=1.7e+12  ->  "
            + fixLine + "\nupdated " + QFile::encodeName(file) + '\n');
    QCOMPARE(modeOf(file), 0604);
}

void TestKrPalTcxoCal::symbolicLinkStaysALink()
{
    QTemporaryDir directory;
    QVERIFY(directory.isValid());
    const QString target = directory.filePath(QStringLiteral("tcxo-board1.cal"));
    const QString link = directory.filePath(QStringLiteral("tcxo.cal"));
    writeFile(target, example);
    QVERIFY(QFile::link(target, link));

    Run run = runTool({QStringLiteral("field"), link, QStringLiteral("2060")});
    QCOMPARE(run.exitCode, 0);
    run = runTool({QStringLiteral("create"), link, QStringLiteral("--force"), QStringLiteral("--field-tcxo"),
        QStringLiteral("9")});
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(QFileInfo(link).symLinkTarget(), target);
    QVERIFY(readFile(target).startsWith(
        "FACTORY_TCXO=0\nFACTORY_TEMPERATURE=0\nFACTORY_TUNING_SENSITIVITY=0\nFIELD_TCXO=9\n"));
}

QTEST_GUILESS_MAIN(TestKrPalTcxoCal)
#include "tst_krpaltcxocal.moc"
