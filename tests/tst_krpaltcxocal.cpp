// Runs krpal-tcxocal on temporary files: what it prints, how it exits, the files' exact bytes.

#include "toolprocess.h"
#include <QDir>

#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <tuple>

#include <sys/stat.h>

namespace {

const QByteArray example = "FACTORY_TCXO=2048\nFACTORY_TEMPERATURE=25.5\nFACTORY_TUNING_SENSITIVITY=0.0125\n"
                           "FIELD_TCXO=2051\nFIELD_TEMPERATURE=31.75\nFIELD_TUNING_SENSITIVITY=0.0124\n"
                           "FIELD_FIX_TIME=1.7e+12\nFIX_DECAY_TIME=3600\nREF_SOURCE_DISPLAY=1";
const QByteArray exampleOptions
    = " --factory-tcxo 2048 --factory-temperature 25.5 --factory-sensitivity 0.0125 --field-tcxo 2051 "
      "--field-temperature 31.75 --field-sensitivity 0.0124 --field-fix-time 1.7e12 --fix-decay-time 3600 "
      "--ref-source-display 1";
const QByteArray zeros = "FACTORY_TCXO=7\nFACTORY_TEMPERATURE=0\nFACTORY_TUNING_SENSITIVITY=0\nFIELD_TCXO=0\n"
                         "FIELD_TEMPERATURE=-20\nFIELD_TUNING_SENSITIVITY=0\nFIELD_FIX_TIME=0\nFIX_DECAY_TIME=0\n"
                         "REF_SOURCE_DISPLAY=0";
const QByteArray partial = QByteArray(example).replace("FIX_DECAY_TIME=3600\n", "");
const QByteArray none; // no file at all

// The tool's exit code (-1 if it crashed or hung), its standard output and its standard error.
std::tuple<int, QByteArray, QByteArray> runTool(const QStringList &arguments)
{
    QProcess process;
    startTool(process, KRPAL_TCXOCAL, arguments);
    const bool exited = process.waitForFinished(30000) && process.exitStatus() == QProcess::NormalExit;
    return {exited ? process.exitCode() : -1, process.readAllStandardOutput(), process.readAllStandardError()};
}

// A field calibration's fix time is the moment it ran.
QByteArray withoutFixTime(const QByteArray &text)
{
    QString copy = QLatin1String(text.constData(), text.size());
    return copy.replace(QRegularExpression("FIELD_FIX_TIME=\\d{13}(\n|$)"), "FIELD_FIX_TIME=<now>\\1").toLatin1();
}

// What the tool says on standard error when it refuses.
QByteArray refusal(const QByteArray &message)
{
    return "krpal-tcxocal: " + message + '\n';
}

const QByteArray unchanged = "(unchanged)";

void row(const char *name, const QByteArray &before, const QByteArray &command, int exitCode, const QByteArray &output,
    const QByteArray &after = unchanged)
{
    QTest::newRow(name) << before << command << exitCode << output << (after == unchanged ? before : after);
}

} // namespace

class TestKrPalTcxoCal : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void commands_data();
    void commands();
};

// Each case runs one command in a directory that holds "tcxo.cal" with the bytes before (none:
// no file) and "link.cal", a symbolic link to it, and must leave the bytes after. "%f" stands
// for the file, "%l" for the link. Output that begins with the tool's name is expected on
// stderr, other output on stdout; the other stream stays empty.
void TestKrPalTcxoCal::commands_data()
{
    QTest::addColumn<QByteArray>("before");
    QTest::addColumn<QByteArray>("command");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QByteArray>("output");
    QTest::addColumn<QByteArray>("after");

    row("create every field", none, "create %f" + exampleOptions, 0, "created %f:\n" + example + '\n', example);
    row("create refuses to replace", zeros, "create %f" + exampleOptions, 1,
        refusal("%f exists; give --force to replace it"));
    row("create, DAC not a number", none, "create %f --factory-tcxo abc", 2,
        refusal("--factory-tcxo wants a whole number from 0 to 4294967295, not \"abc\""));
    row("create, not finite", none, "create %f --field-temperature inf", 2,
        refusal("--field-temperature wants a number, not \"inf\""));
    row("create, directory cannot be created", "plain", "create %f/calibration/tcxo.cal", 1,
        refusal("cannot create the directory %f/calibration: mkdir failed: Not a directory"));
    row("create, option of another command", none, "create %f --temperature 1", 2,
        refusal("--temperature is no option of create (see --help)"));

    row("show", example, "show %f", 0, example + "\nall 9 keys found in %f\n");
    row("show, a key missing", partial, "show %f", 1,
        QByteArray(example).replace("=3600", "=    (missing)")
            + "\n8 of 9 keys found in %f; missing: FIX_DECAY_TIME=\n");
    row("show, missing file", none, "show %f", 1, refusal("%f: no such file"));

    row("get, key with =", example, "get %f FIELD_TEMPERATURE=", 0, "31.75\n");
    row("get, key without =", example, "get %f FIELD_TCXO", 0, "2051\n");
    row("get, unknown key", example, "get %f field_tcxo", 2,
        refusal("unknown key \"field_tcxo\"; the keys are FACTORY_TCXO, FACTORY_TEMPERATURE, "
                "FACTORY_TUNING_SENSITIVITY, FIELD_TCXO, FIELD_TEMPERATURE, FIELD_TUNING_SENSITIVITY, FIELD_FIX_TIME, "
                "FIX_DECAY_TIME, REF_SOURCE_DISPLAY"));
    row("get, key missing from the file", partial, "get %f FIX_DECAY_TIME", 1,
        refusal("%f has no FIX_DECAY_TIME= line"));
    row("get, missing file", none, "get %f FIELD_TCXO", 1, refusal("%f: no such file"));

    const QByteArray dacOnly = QByteArray(example).replace("FIELD_TCXO=2051", "FIELD_TCXO=2060");
    // Through a link, as a board keeps its calibration: the link stays a link.
    row("field, DAC alone", example, "field %l 2060", 0, "FIELD_TCXO=2051  ->  FIELD_TCXO=2060\nupdated %l\n", dacOnly);
    row("create through a link, fields left out are 0", example,
        "create %l --force --factory-tcxo 7 --field-temperature -20", 0, "created %l:\n" + zeros + '\n', zeros);
    row("field, DAC with temperature and sensitivity", example, "field %f 2060 --temperature -5.5 --sensitivity 0.0126",
        0,
        "FIELD_TCXO=2051  ->  FIELD_TCXO=2060\nFIELD_TEMPERATURE=31.75  ->  FIELD_TEMPERATURE=-5.5\n"
        "FIELD_TUNING_SENSITIVITY=0.0124  ->  FIELD_TUNING_SENSITIVITY=0.0126\n"
        "FIELD_FIX_TIME=1.7e+12  ->  FIELD_FIX_TIME=<now>\nupdated %f\n",
        "FACTORY_TCXO=2048\nFACTORY_TEMPERATURE=25.5\nFACTORY_TUNING_SENSITIVITY=0.0125\nFIELD_TCXO=2060\n"
        "FIELD_TEMPERATURE=-5.5\nFIELD_TUNING_SENSITIVITY=0.0126\nFIELD_FIX_TIME=<now>\nFIX_DECAY_TIME=3600\n"
        "REF_SOURCE_DISPLAY=1");
    row("field, missing file", none, "field %f 2060", 1, refusal("%f: no such file"));
    row("field, no FIELD_TCXO line", "FACTORY_TCXO=1", "field %f 2060", 1,
        refusal("%f has no FIELD_TCXO= line; nothing to update"));
    row("field, NUL byte", QByteArray("FIELD_TCXO=1\0X", 14), "field %f 2060", 1,
        refusal("%f holds a NUL byte; it is not rewritten"));
    row("field, DAC not a number", example, "field %f 20x", 2,
        refusal("DAC wants a whole number from 0 to 2147483647, not \"20x\""));
    row("field, DAC negative", example, "field %f -5", 2,
        refusal("\"-5\" is no option, and a DAC value is a whole number from 0 to 2147483647"));
    row("field, bad sensitivity", example, "field %f 2060 --temperature 20 --sensitivity x", 2,
        refusal("--sensitivity wants a number, not \"x\""));

    row("unknown command", none, "list %f", 2,
        refusal("unknown command \"list\"; the commands are show, get, create and field (see --help)"));
    row("missing argument", none, "get %f", 2, refusal("usage: krpal-tcxocal get FILE KEY"));
}

void TestKrPalTcxoCal::commands()
{
    QFETCH(QByteArray, before);
    QFETCH(QByteArray, command);
    QFETCH(int, exitCode);
    QFETCH(QByteArray, output);
    QFETCH(QByteArray, after);

    QTemporaryDir directory;
    QVERIFY(directory.isValid());
    const QString file = directory.filePath("tcxo.cal");
    const QString link = directory.filePath("link.cal");
    QFile calibration(file);
    if (!before.isNull())
        QVERIFY(calibration.open(QIODevice::WriteOnly) && calibration.write(before) == before.size());
    calibration.close();
    QVERIFY(QFile::link(file, link));
    const auto expand = [&](QByteArray text) {
        return text.replace("%f", QFile::encodeName(file)).replace("%l", QFile::encodeName(link));
    };
    QStringList arguments;
    for (const QByteArray &argument : command.split(' '))
        arguments << QFile::decodeName(expand(argument));

    const auto [code, out, err] = runTool(arguments);
    const bool refused = output.startsWith("krpal-tcxocal: ");
    QCOMPARE(err, refused ? expand(output) : QByteArray());
    QCOMPARE(withoutFixTime(out), refused ? QByteArray() : expand(output));
    QCOMPARE(code, exitCode);
    QCOMPARE(calibration.open(QIODevice::ReadOnly) ? withoutFixTime(calibration.readAll()) : QByteArray(), after);
    struct stat status = {};
    if (after != before)
        QCOMPARE(::stat(QFile::encodeName(file).constData(), &status) == 0 ? status.st_mode & 07777 : 0, 0604u);
    QCOMPARE(QFileInfo(link).symLinkTarget(), file);
    // Never a partial file: whatever happened, no temporary file is left beside the calibration.
    QCOMPARE(QDir(directory.path())
                 .entryList(QDir::AllEntries | QDir::System | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name),
        (after.isNull() ? QStringList{"link.cal"} : QStringList{"link.cal", "tcxo.cal"}));
}

QTEST_GUILESS_MAIN(TestKrPalTcxoCal)
#include "tst_krpaltcxocal.moc"
