// The calibration file: exact text, reading rules, and writes against what the file system does.

#include "messagerecorder.h"

#include <pal/tcxocaldevice.h>
#include <pal/tcxocaldummydevice.h>

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLocale>
#include <QTemporaryDir>
#include <QTest>

#include <clocale>
#include <csignal>
#include <cstring>
#include <optional>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

Q_DECLARE_METATYPE(Pal::TcxoCalDevice::TcxoCalFactors)

namespace Pal {

// Bit for bit: a record handed over must come back unchanged, not merely close.
inline bool operator==(const TcxoCalDevice::TcxoCalFactors &a, const TcxoCalDevice::TcxoCalFactors &b)
{
    return std::memcmp(&a, &b, sizeof a) == 0;
}

inline char *toString(const TcxoCalDevice::TcxoCalFactors &f)
{
    return qstrdup(qPrintable(QString::asprintf("{%u, %.9g, %.9g, %u, %.9g, %.9g, %.9g, %.9g, %.9g}", f.factoryTcxo,
        double(f.factoryTemperature), double(f.factoryTuningSensitivity), f.fieldTcxo, double(f.fieldTemperature),
        double(f.fieldTuningSensitivity), double(f.fieldFixTime), double(f.fixDecayTime), double(f.refSourceDisplay))));
}

} // namespace Pal

inline const Pal::TcxoCalDevice::TcxoCalFactors example{2048, 25.5f, 0.0125f, 2051, 31.75f, 0.0124f, 1.7e12f, 3600, 1};
inline const QByteArray exampleBytes
    = "FACTORY_TCXO=2048\nFACTORY_TEMPERATURE=25.5\nFACTORY_TUNING_SENSITIVITY=0.0125\n"
      "FIELD_TCXO=2051\nFIELD_TEMPERATURE=31.75\nFIELD_TUNING_SENSITIVITY=0.0124\n"
      "FIELD_FIX_TIME=1.7e+12\nFIX_DECAY_TIME=3600\nREF_SOURCE_DISPLAY=1";

inline QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

/// What getValue() gives for each of the nine keys, in file order; "<null>" marks a null string.
inline QStringList valueTexts(const Pal::TcxoCalDevice &device)
{
    QStringList texts;
    for (const char *key : {Pal::factoryTcxoKey, Pal::factoryTemperatureKey, Pal::factoryTuningSensitivityKey,
             Pal::fieldTcxoKey, Pal::fieldTemperatureKey, Pal::fieldTuningSensitivityKey, Pal::fieldFixTimeKey,
             Pal::fixDecayTimeKey, Pal::refSourceDisplayKey}) {
        const QString text = device.getValue(QString::fromLatin1(key), false);
        texts << (text.isNull() ? QStringLiteral("<null>") : text);
    }
    return texts;
}

using Pal::TcxoCalDevice;
using Factors = TcxoCalDevice::TcxoCalFactors;

namespace {

// Relative to each test's own working directory: messages name the file as the device got it.
const QString path = QStringLiteral("tcxo.cal");
const QDateTime oldTime = QDateTime::fromMSecsSinceEpoch(1600000000123);

// Dated back, so that a test sees whether the device wrote the file again; null writes nothing.
void writeFile(const QByteArray &bytes, const QString &to = path)
{
    if (bytes.isNull())
        return;
    QFile file(to);
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size() && file.flush());
    QVERIFY(file.setFileTime(oldTime, QFileDevice::FileModificationTime));
}

const QFileDevice::Permissions mode0604 = QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadUser
    | QFileDevice::WriteUser | QFileDevice::ReadOther;

const QString notFound = QStringLiteral("critical default: Did not find value for  \"%1\"  in  \"tcxo.cal\"");

const Factors other{1, 2, 3, 4, 5, 6, 7, 8, 9};

QByteArray withFieldTcxo(const QByteArray &bytes, int dacValue)
{
    return QByteArray(bytes).replace("FIELD_TCXO=2051", QByteArray("FIELD_TCXO=" + QByteArray::number(dacValue)));
}

QStringList entriesOf(const QString &directory)
{
    return QDir(directory).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
}

} // namespace

class TestTcxoCalDevice : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    // Numbers are written and read under a locale with decimal commas and group separators.
    void initTestCase()
    {
        QLocale::setDefault(QLocale(QLocale::German, QLocale::Germany));
        std::setlocale(LC_ALL, "de_DE.UTF-8");
    }
    // Each test in a new working directory, so that relative calibration paths land in its own.
    void init() { QVERIFY(QDir::setCurrent(m_workingDir.emplace().path())); }

    void createWritesExactTextAndReadsBack_data()
    {
        QTest::addColumn<Factors>("factors");
        QTest::addColumn<QByteArray>("expectedBytes");
        QTest::addColumn<Factors>("readBack");
        QTest::addColumn<QString>("cached");
        QTest::newRow("example") << example << exampleBytes << example << "2051";
        // Beyond int, 7 significant digits and non-finite values do not survive; the cache keeps 16 bits.
        const Factors lossy{4294967295u, -40.f, 0.000012f, 70000, 1234567.f, 9.99e9f, 0, float(qInf()), -float(qInf())};
        QTest::newRow("lossy values") << lossy
                                      << QByteArray("FACTORY_TCXO=4294967295\nFACTORY_TEMPERATURE=-40\n"
                                                    "FACTORY_TUNING_SENSITIVITY=1.2e-05\nFIELD_TCXO=70000\n"
                                                    "FIELD_TEMPERATURE=1.23457e+06\nFIELD_TUNING_SENSITIVITY=9.99e+09\n"
                                                    "FIELD_FIX_TIME=0\nFIX_DECAY_TIME=inf\nREF_SOURCE_DISPLAY=-inf")
                                      << Factors{0, -40.f, 0.000012f, 70000, 1234570.f, 9.99e9f, 0, 0, 0} << "4464";
    }
    void createWritesExactTextAndReadsBack()
    {
        QFETCH(Factors, factors);
        QFETCH(QByteArray, expectedBytes);
        QFETCH(Factors, readBack);
        QFETCH(QString, cached);
        const QString file = QStringLiteral("new/sub/tcxo.cal");
        Pal::TcxoCalDevice device("tcxo", file);
        device.createTcxoCalFile(factors);
        QCOMPARE(contentOf(file), expectedBytes);
        QCOMPARE(QFile::permissions(file), mode0604);
        Factors read{};
        QVERIFY(device.getTcxoCalFactors(read));
        QCOMPARE(read, readBack);
        QCOMPARE(device.getValue(Pal::fieldTcxoKey, true), cached);
        // Only the field DAC value comes from memory.
        QCOMPARE(device.getValue(Pal::fieldTemperatureKey, true), device.getValue(Pal::fieldTemperatureKey, false));
    }

    // Only lines 4 to 7 change, six significant digits, the fix time taken during the call; a DAC value
    // alone changes line 4 only.
    void fieldCalibration()
    {
        Pal::TcxoCalDevice device("tcxo", path);
        device.createTcxoCalFile(example);
        const qint64 before = QDateTime::currentMSecsSinceEpoch();
        device.updateTcxoFieldCal(2060, 30.5f, 0.01234567f);
        const qint64 after = QDateTime::currentMSecsSinceEpoch();
        QByteArray bytes = contentOf(path);
        const qint64 time = bytes.mid(bytes.indexOf("FIELD_FIX_TIME=") + 15, 13).toLongLong();
        QVERIFY(time >= before && time <= after);
        QCOMPARE(bytes,
            withFieldTcxo(exampleBytes, 2060)
                .replace("FIELD_TEMPERATURE=31.75\nFIELD_TUNING_SENSITIVITY=0.0124\nFIELD_FIX_TIME=1.7e+12",
                    QByteArray("FIELD_TEMPERATURE=30.5\nFIELD_TUNING_SENSITIVITY=0.0123457\nFIELD_FIX_TIME=")
                        .append(QByteArray::number(time))));

        device.updateTcxoFieldCal(2061);
        QCOMPARE(contentOf(path), bytes.replace("FIELD_TCXO=2060", "FIELD_TCXO=2061"));
    }

    // A write that cannot finish (the file size limit, as a full disk) leaves the previous calibration whole.
    void interruptedWriteKeepsPreviousCalibration()
    {
        Pal::TcxoCalDevice device("tcxo", path);
        device.createTcxoCalFile(example);

        struct rlimit previous;
        QVERIFY(::getrlimit(RLIMIT_FSIZE, &previous) == 0);
        const auto previousHandler = std::signal(SIGXFSZ, SIG_IGN);
        const rlimit small = {100, previous.rlim_max};
        QVERIFY(::setrlimit(RLIMIT_FSIZE, &small) == 0);
        device.updateTcxoFieldCal(2060, 30.5f, 0.0126f);
        device.createTcxoCalFile(other);
        ::setrlimit(RLIMIT_FSIZE, &previous);
        std::signal(SIGXFSZ, previousHandler);

        QCOMPARE(contentOf(path), exampleBytes);
        QCOMPARE(entriesOf("."), QStringList{path});
    }

    // Every occurrence is rewritten, no key added, mode 0604 set. A file that is missing, lacks the
    // key, holds the value already or a NUL byte is not written at all. The cache keeps 16 bits.
    void fieldUpdate_data()
    {
        QTest::addColumn<QByteArray>("original");
        QTest::addColumn<int>("dacValue");
        QTest::addColumn<QByteArray>("expected");
        QTest::addColumn<QString>("cached");
        QTest::addColumn<QStringList>("messages");
        const auto row = [](const char *name, const QByteArray &original, int dacValue, const QByteArray &expected,
                             const char *cached, const QStringList &messages = {}) {
            QTest::newRow(name) << original << dacValue << expected << QString(cached) << messages;
        };
        const QByteArray nul("FIELD_TCXO=1\nFIELD_TEMPERATURE=2\0REF_SOURCE_DISPLAY=3", 53);
        row("70000", "FIELD_TCXO=2051", 70000, "FIELD_TCXO=70000", "4464");
        row("-1, two lines, odd run", "FIELD_TCXO=1.5e+3x\nXFIELD_TCXO=\n", -1, "FIELD_TCXO=-1x\nXFIELD_TCXO=-1\n",
            "65535");
        row("unchanged", exampleBytes, 2051, exampleBytes, "2051");
        row("unconvertible equals 0", "FIELD_TCXO=abc", 0, "FIELD_TCXO=abc", "0");
        row("key missing", "FIELD_TCXO 5", 9, "FIELD_TCXO 5", "9", {notFound.arg("FIELD_TCXO=")});
        row("no file", QByteArray(), 6, QByteArray(), "6",
            {QStringLiteral("critical default: Cannot open file \"tcxo.cal\"")});
        row("NUL byte", nul, 7, nul, "7",
            {QStringLiteral("critical default: Not updating file holding a NUL byte: \"tcxo.cal\"")});
        // Only the value changes: a byte-order mark and bytes that are not UTF-8 stay as they were.
        row("not UTF-8", "\xEF\xBB\xBF# 25\xB0\x43\nFIELD_TCXO=1\xFF\xE2\n", 2,
            "\xEF\xBB\xBF# 25\xB0\x43\nFIELD_TCXO=2\xFF\xE2\n", "2");
    }
    void fieldUpdate()
    {
        QFETCH(QByteArray, original);
        QFETCH(int, dacValue);
        QFETCH(QByteArray, expected);
        QFETCH(QString, cached);
        QFETCH(QStringList, messages);
        writeFile(original);
        MessageRecorder recorder;
        Pal::TcxoCalDevice device("tcxo", path);
        device.updateTcxoFieldCal(dacValue, 99.5f, 0.5f);
        QCOMPARE(contentOf(path), expected);
        if (expected == original)
            QCOMPARE(QFileInfo(path).lastModified(), original.isNull() ? QDateTime() : oldTime);
        else
            QCOMPARE(QFile::permissions(path), mode0604);
        QCOMPARE(entriesOf("."), original.isNull() ? QStringList() : QStringList{path});
        QCOMPARE(device.getValue(Pal::fieldTcxoKey, true), cached);
        QCOMPARE(recorder.takeMessages(), messages);
    }

    // A key counts where it first occurs, inside another line too; its value is the run of "-0123456789.+e"
    // after it; the text ends at a NUL byte; what does not convert, or lies beyond float's range, reads as 0.
    void readingRules()
    {
        const char text[] = "XFIELD_TCXO=70000\nFIELD_TCXO=7\nOTHER=42\nFACTORY_TCXO=1.5\nFACTORY_TEMPERATURE=2.5E+03\n"
                            "FIELD_TEMPERATURE=25.5 C\nFACTORY_TUNING_SENSITIVITY=-\nFIELD_TUNING_SENSITIVITY=\n"
                            "FIELD_FIX_TIME=1700000000000\nFIX_DECAY_TIME=-1e39\0REF_SOURCE_DISPLAY=1";
        writeFile(QByteArray(text, sizeof text - 1));
        MessageRecorder recorder;
        Pal::TcxoCalDevice device("tcxo", path);
        QCOMPARE(valueTexts(device),
            QStringList({"1.5", "2.5", "-", "70000", "25.5", "", "1700000000000", "-1e39", "<null>"}));
        QCOMPARE(device.getValue("FIELD_TCXO", false), QString(""));
        QCOMPARE(device.getValue("OTHER=", false), QString("42"));
        QCOMPARE(device.getValue(Pal::fieldTcxoKey, true), QString("4464"));
        Factors factors{11, 12, 13, 14, 15, 16, 17, 18, 19};
        QVERIFY(!device.getTcxoCalFactors(factors));
        QCOMPARE(factors, (Factors{0, 2.5f, 0, 70000, 25.5f, 0, 1.7e12f, 0, 19}));
        QCOMPARE(recorder.takeMessages(), QStringList{notFound.arg("REF_SOURCE_DISPLAY=")});
    }

    // A missing DAC key leaves its field as the caller had it; the other eight are read.
    void missingDacKey()
    {
        writeFile(QByteArray(exampleBytes).replace("FACTORY_TCXO=2048\n", ""));
        Factors factors{7}, expected = example;
        expected.factoryTcxo = 7;
        QVERIFY(!Pal::TcxoCalDevice("tcxo", path).getTcxoCalFactors(factors));
        QCOMPARE(factors, expected);
    }

    // Unlike the file-backed device: nothing is written or logged, updates always take effect,
    // keep all 32 bits and leave the fix time alone.
    void dummyRecordsInMemoryOnly()
    {
        // The base looks for "DummyTcxoCalFile" in the working directory, which must stay empty.
        MessageRecorder recorder;
        Pal::TcxoCalDummyDevice device("tcxo");
        QCOMPARE(recorder.takeMessages(),
            QStringList{QStringLiteral("critical default: Cannot open file \"DummyTcxoCalFile\"")});
        Factors factors{1, 2, 3, 4, 5, 6, 7, 8, 9};
        QVERIFY(device.getTcxoCalFactors(factors));
        QCOMPARE(factors, (Factors{9999, 99.99f, 9.99e9f, 9999, 99.99f, 9.99e9f, 0, 0, 0}));
        QCOMPARE(
            valueTexts(device), QStringList({"9999", "99.99", "9.99e+09", "9999", "99.99", "9.99e+09", "0", "0", "0"}));
        QVERIFY(device.getValue("FIELD_TCXO", false).isNull());

        // Bit for bit, including what a file could not keep.
        const Factors given{4294967295u, 1234567.f, 1.5e-7f, 70000, -40.f, 0.0125f, 1.7e12f, 3600, 1};
        device.createTcxoCalFile(given);
        QVERIFY(device.getTcxoCalFactors(factors));
        QCOMPARE(factors, given);
        QCOMPARE(valueTexts(device),
            QStringList({"4294967295", "1.23457e+06", "1.5e-07", "70000", "-40", "0.0125", "1.7e+12", "3600", "1"}));

        device.updateTcxoFieldCal(-1, 20.5f, 0.5f);
        QCOMPARE(device.getValue(Pal::fieldTcxoKey, true), QString("4294967295"));
        device.updateTcxoFieldCal(-1, 21.5f, 0.25f);
        device.updateTcxoFieldCal(12);
        QVERIFY(device.getTcxoCalFactors(factors));
        QCOMPARE(factors, (Factors{4294967295u, 1234567.f, 1.5e-7f, 12, 21.5f, 0.25f, 1.7e12f, 3600, 1}));
        QCOMPARE(recorder.takeMessages(), QStringList());
        QCOMPARE(entriesOf("."), QStringList());
    }

    // The write gets what the file's owner may always do: it makes a read-only file 0604 again.
    // A reader that opened the file before the updates goes on reading the whole old calibration.
    void readOnlyFileAndEarlierReader()
    {
        TcxoCalDevice device("tcxo", path);
        device.createTcxoCalFile(example);
        QFile reader(path);
        QVERIFY(reader.open(QIODevice::ReadOnly | QIODevice::Unbuffered));
        QCOMPARE(reader.read(13), QByteArray("FACTORY_TCXO="));
        QVERIFY(::chmod(QFile::encodeName(path).constData(), 0444) == 0);
        device.updateTcxoFieldCal(2060);
        QCOMPARE(contentOf(path), withFieldTcxo(exampleBytes, 2060));
        QCOMPARE(QFile::permissions(path), mode0604);
        device.createTcxoCalFile(other);
        QCOMPARE("FACTORY_TCXO=" + reader.readAll(), exampleBytes);
        QVERIFY(contentOf(path).startsWith("FACTORY_TCXO=1\n"));
    }

    // Whatever stands at the path instead of a file is neither replaced nor followed into.
    void somethingElseAtThePath_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::newRow("directory") << "directory";
        QTest::newRow("dangling symbolic link") << "dangling link";
    }
    void somethingElseAtThePath()
    {
        QFETCH(QString, kind);
        if (kind == "directory") {
            QVERIFY(QDir().mkpath(path));
            writeFile("x", path + "/inside");
        } else {
            QVERIFY(QFile::link("missing/tcxo.cal", path));
        }
        MessageRecorder recorder;
        TcxoCalDevice device("tcxo", path);
        QCOMPARE(recorder.takeMessages(),
            QStringList{QStringLiteral("critical default: Cannot open file \"%1\"").arg(path)});
        device.updateTcxoFieldCal(2060, 30.5f, 0.0126f);
        device.updateTcxoFieldCal(2061);
        device.createTcxoCalFile(example);
        Factors factors = other;
        QVERIFY(!device.getTcxoCalFactors(factors));
        QCOMPARE(factors, other);
        QVERIFY(device.getValue(Pal::factoryTcxoKey, false).isNull());

        QCOMPARE(entriesOf("."), QStringList{"tcxo.cal"}); // no directory "missing" made either
        if (kind == "directory")
            QCOMPARE(entriesOf(path), QStringList{"inside"});
        else
            QCOMPARE(QFileInfo(path).symLinkTarget(), QFileInfo("missing/tcxo.cal").absoluteFilePath());
        QCOMPARE(device.getValue(Pal::fieldTcxoKey, true), QString("2051"));
    }

    // The calibration behind a link is written where the link points; the link stays a link.
    void symbolicLinkToTheFileStaysALink()
    {
        const QString target = QStringLiteral("real/tcxo.cal");
        QVERIFY(QDir().mkpath("real"));
        writeFile(exampleBytes, target);
        QVERIFY(QFile::link(target, path));
        TcxoCalDevice device("tcxo", path);
        device.updateTcxoFieldCal(2060);
        QCOMPARE(QFileInfo(path).symLinkTarget(), QFileInfo(target).absoluteFilePath());
        QCOMPARE(contentOf(target), withFieldTcxo(exampleBytes, 2060));
        device.createTcxoCalFile(other);
        QCOMPARE(QFileInfo(path).symLinkTarget(), QFileInfo(target).absoluteFilePath());
        QVERIFY(contentOf(target).startsWith("FACTORY_TCXO=1\n"));
        QCOMPARE(entriesOf("real"), QStringList{"tcxo.cal"});
    }

    // Every update reads the file afresh: another writer's changes are kept, the cached value decides nothing.
    void anotherWriterBetweenUpdates_data()
    {
        QTest::addColumn<QString>("writer");
        QTest::addColumn<QByteArray>("written");
        QTest::addColumn<QByteArray>("expected");
        const QByteArray theirs = QByteArray(exampleBytes).replace("FACTORY_TCXO=2048", "FACTORY_TCXO=1999");
        QTest::newRow("rewritten in place") << "in place" << withFieldTcxo(theirs, 77) << withFieldTcxo(theirs, 2070);
        QTest::newRow("replaced by rename") << "rename" << withFieldTcxo(theirs, 77) << withFieldTcxo(theirs, 2070);
        QTest::newRow("key removed") << "in place" << QByteArray("FACTORY_TCXO=1\n") << QByteArray("FACTORY_TCXO=1\n");
        QTest::newRow("NUL byte added") << "in place" << withFieldTcxo(exampleBytes, 5) + '\0'
                                        << withFieldTcxo(exampleBytes, 5) + '\0';
        QTest::newRow("removed") << "remove" << QByteArray() << QByteArray();
    }
    void anotherWriterBetweenUpdates()
    {
        QFETCH(QString, writer);
        QFETCH(QByteArray, written);
        QFETCH(QByteArray, expected);
        TcxoCalDevice device("tcxo", path);
        device.createTcxoCalFile(example);
        device.updateTcxoFieldCal(2060);
        QCOMPARE(contentOf(path), withFieldTcxo(exampleBytes, 2060));

        if (writer == "rename") {
            writeFile(written, "theirs");
            QVERIFY(::rename(QFile::encodeName("theirs").constData(), QFile::encodeName(path)) == 0);
        } else if (writer == "remove") {
            QVERIFY(QFile::remove(path));
        } else {
            writeFile(written);
        }
        MessageRecorder recorder;
        device.updateTcxoFieldCal(2070);
        QCOMPARE(contentOf(path), expected);
        QCOMPARE(entriesOf("."), writer == "remove" ? QStringList() : QStringList{"tcxo.cal"});
        QCOMPARE(recorder.takeMessages().size(), written.contains('\0') ? 1 : 0);
        QCOMPARE(device.getValue(Pal::fieldTcxoKey, true), QString("2070"));
    }

private:
    std::optional<QTemporaryDir> m_workingDir;
};

QTEST_GUILESS_MAIN(TestTcxoCalDevice)
#include "tst_tcxocaldevice.moc"
