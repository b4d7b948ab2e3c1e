#include "messagerecorder.h"
#include "tcxotestsupport.h"

#include <pal/tcxocaldevice.h>

#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QLocale>

#include <clocale>
#include <csignal>
#include <memory>

#include <sys/resource.h>

using Factors = Pal::TcxoCalDevice::TcxoCalFactors;

namespace {

// Relative to each test's own working directory: messages name the file as the device got it.
const QString path = QStringLiteral("tcxo.cal");
const QDateTime oldTime = QDateTime::fromMSecsSinceEpoch(1600000000123);

// Dated back, so that a test sees whether the device wrote the file again; null writes nothing.
void writeFile(const QByteArray &bytes)
{
    if (bytes.isNull())
        return;
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size() && file.flush());
    QVERIFY(file.setFileTime(oldTime, QFileDevice::FileModificationTime));
}

// Mode 0604 as Qt reports it to the owner.
const QFileDevice::Permissions mode0604 = QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadUser
    | QFileDevice::WriteUser | QFileDevice::ReadOther;

const QDir::Filters everything = QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden;
const QString notFound = QStringLiteral("critical default: Did not find value for  \"%1\"  in  \"tcxo.cal\"");

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
    void init() { QVERIFY((m_workingDir = std::make_unique<TemporaryWorkingDir>())->entered()); }
    void cleanup() { m_workingDir.reset(); }

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

    // Only lines 4 to 7 change, with six significant digits, the fix time to one taken during
    // the call; a DAC value alone changes line 4 only.
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
            QByteArray(exampleBytes)
                .replace("FIELD_TCXO=2051\nFIELD_TEMPERATURE=31.75\nFIELD_TUNING_SENSITIVITY=0.0124\n"
                         "FIELD_FIX_TIME=1.7e+12",
                    QByteArray(
                        "FIELD_TCXO=2060\nFIELD_TEMPERATURE=30.5\nFIELD_TUNING_SENSITIVITY=0.0123457\nFIELD_FIX_TIME="
                        + QByteArray::number(time))));

        device.updateTcxoFieldCal(2061);
        QCOMPARE(contentOf(path), bytes.replace("FIELD_TCXO=2060", "FIELD_TCXO=2061"));
    }

    // A write that cannot finish (here the file size limit, as a full disk would) must leave
    // the previous calibration byte for byte, never an empty or half-written file.
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
        device.createTcxoCalFile(Factors{1, 2, 3, 4, 5, 6, 7, 8, 9});
        ::setrlimit(RLIMIT_FSIZE, &previous);
        std::signal(SIGXFSZ, previousHandler);

        QCOMPARE(contentOf(path), exampleBytes);
        QCOMPARE(QDir().entryList(everything), QStringList{path});
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
        row("not UTF-8",
            "\xEF\xBB\xBF# 25\xB0"
            "C\nFIELD_TCXO=1\xFF\xE2\n",
            2,
            "\xEF\xBB\xBF# 25\xB0"
            "C\nFIELD_TCXO=2\xFF\xE2\n",
            "2");
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
        QCOMPARE(QDir().entryList(everything), original.isNull() ? QStringList() : QStringList{path});
        QCOMPARE(device.getValue(Pal::fieldTcxoKey, true), cached);
        QCOMPARE(recorder.takeMessages(), messages);
    }

    // Any key counts where it first occurs, inside another line too; its value is the run of
    // "-0123456789.+e" after it; the text ends at a NUL byte; what does not convert reads as 0,
    // also a value beyond float's range, for which Qt's toFloat answers infinity.
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

private:
    std::unique_ptr<TemporaryWorkingDir> m_workingDir;
};

QTEST_GUILESS_MAIN(TestTcxoCalDevice)
#include "tst_tcxocaldevice.moc"
