#include "messagerecorder.h"
#include "tcxotestsupport.h"

#include <pal/tcxocaldevice.h>

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLocale>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <clocale>
#include <cmath>
#include <cstdio>

#include <csignal>

#include <sys/resource.h>
#include <sys/stat.h>

using Pal::TcxoCalDevice;
using Factors = TcxoCalDevice::TcxoCalFactors;

namespace {

const Factors example{2048, 25.5f, 0.0125f, 2051, 31.75f, 0.0124f, 1.7e12f, 3600, 1};
const QByteArray exampleBytes = "FACTORY_TCXO=2048\nFACTORY_TEMPERATURE=25.5\nFACTORY_TUNING_SENSITIVITY=0.0125\n"
                                "FIELD_TCXO=2051\nFIELD_TEMPERATURE=31.75\nFIELD_TUNING_SENSITIVITY=0.0124\n"
                                "FIELD_FIX_TIME=1.7e+12\nFIX_DECAY_TIME=3600\nREF_SOURCE_DISPLAY=1";

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<unreadable>");
}

void writeFile(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(file.write(bytes), qint64(bytes.size()));
}

int modeOf(const QString &path)
{
    struct stat st;
    return ::stat(QFile::encodeName(path).constData(), &st) == 0 ? int(st.st_mode & 07777) : -1;
}

QString cantOpen(const QString &path)
{
    return QStringLiteral("critical default: Cannot open file \"%1\"").arg(path);
}

QString notFound(const QString &key, const QString &path)
{
    return QStringLiteral("critical default: Did not find value for  \"%1\"  in  \"%2\"").arg(key, path);
}

} // namespace

class TestTcxoCalDevice : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void createWritesExactTextAndReadsBack_data()
    {
        QTest::addColumn<Factors>("factors");
        QTest::addColumn<QByteArray>("expectedBytes");
        QTest::addColumn<Factors>("readBack");
        QTest::newRow("example") << example << exampleBytes << example;
        // Beyond int, 7 significant digits and non-finite values do not survive the file.
        QTest::newRow("lossy values") << Factors{4294967295u, -40.f, 0.000012f, 0, 1234567.f, 9.99e9f, 0,
            float(INFINITY), -float(INFINITY)}
                                      << QByteArray("FACTORY_TCXO=4294967295\nFACTORY_TEMPERATURE=-40\n"
                                                    "FACTORY_TUNING_SENSITIVITY=1.2e-05\nFIELD_TCXO=0\n"
                                                    "FIELD_TEMPERATURE=1.23457e+06\nFIELD_TUNING_SENSITIVITY=9.99e+09\n"
                                                    "FIELD_FIX_TIME=0\nFIX_DECAY_TIME=inf\nREF_SOURCE_DISPLAY=-inf")
                                      << Factors{0, -40.f, 0.000012f, 0, 1234570.f, 9.99e9f, 0, 0, 0};
    }
    void createWritesExactTextAndReadsBack()
    {
        QFETCH(Factors, factors);
        QFETCH(QByteArray, expectedBytes);
        QFETCH(Factors, readBack);
        QCOMPARE(exampleBytes.size(), 212);
        QTemporaryDir dir;
        const QString path = dir.filePath("new/sub/tcxo.cal");
        MessageRecorder recorder;
        TcxoCalDevice device("tcxo", path);
        QCOMPARE(recorder.takeMessages(), QStringList{cantOpen(path)});
        QVERIFY(!QFileInfo::exists(dir.filePath("new")));

        device.createTcxoCalFile(factors);
        QCOMPARE(contentOf(path), expectedBytes);
        Factors read{};
        QVERIFY(device.getTcxoCalFactors(read));
        QCOMPARE(read, readBack);
        QCOMPARE(recorder.takeMessages(), QStringList());
    }

    void permissionsBeforeEveryWrite()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath("tcxo.cal");
        TcxoCalDevice device("tcxo", path);
        const mode_t oldMask = ::umask(022);
        device.createTcxoCalFile(Factors{1, 2, 3, 4, 5, 6, 7.5e12f, 8, 9});
        ::umask(oldMask);
        QCOMPARE(modeOf(path), 0604);
        device.createTcxoCalFile(example);
        QCOMPARE(modeOf(path), 0604);
        QCOMPARE(contentOf(path), exampleBytes);
        QVERIFY(::chmod(QFile::encodeName(path).constData(), 0644) == 0);
        device.updateTcxoFieldCal(2052);
        QCOMPARE(modeOf(path), 0604);
    }

    // A write that cannot finish (here the file size limit, as a full disk would) must leave
    // the previous calibration byte for byte, never an empty or half-written file.
    void interruptedWriteKeepsPreviousCalibration()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath("tcxo.cal");
        TcxoCalDevice device("tcxo", path);
        device.createTcxoCalFile(example);

        struct rlimit previous;
        QVERIFY(::getrlimit(RLIMIT_FSIZE, &previous) == 0);
        const auto previousHandler = std::signal(SIGXFSZ, SIG_IGN);
        struct rlimit small = previous;
        small.rlim_cur = 100;
        QVERIFY(::setrlimit(RLIMIT_FSIZE, &small) == 0);
        device.updateTcxoFieldCal(2060, 30.5f, 0.0126f);
        device.createTcxoCalFile(Factors{1, 2, 3, 4, 5, 6, 7, 8, 9});
        ::setrlimit(RLIMIT_FSIZE, &previous);
        std::signal(SIGXFSZ, previousHandler);

        QCOMPARE(contentOf(path), exampleBytes);
        QCOMPARE(QDir(dir.path()).entryList(QDir::Files | QDir::Hidden), QStringList{"tcxo.cal"});
    }

    void fieldCalibrationRewritesFieldLines()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath("tcxo.cal");
        TcxoCalDevice device("tcxo", path);
        device.createTcxoCalFile(example);

        const qint64 before = QDateTime::currentMSecsSinceEpoch();
        device.updateTcxoFieldCal(2060, 30.5f, 0.0126f);
        const qint64 after = QDateTime::currentMSecsSinceEpoch();

        const QByteArray bytes = contentOf(path);
        const QRegularExpressionMatch fixTime
            = QRegularExpression("\nFIELD_FIX_TIME=(\\d{13})\n").match(QString::fromLatin1(bytes));
        QVERIFY(fixTime.hasMatch());
        const qint64 time = fixTime.captured(1).toLongLong();
        QVERIFY(time >= before && time <= after);
        QCOMPARE(bytes,
            QByteArray(exampleBytes)
                .replace("FIELD_TCXO=2051\nFIELD_TEMPERATURE=31.75\nFIELD_TUNING_SENSITIVITY=0.0124\n"
                         "FIELD_FIX_TIME=1.7e+12",
                    "FIELD_TCXO=2060\nFIELD_TEMPERATURE=30.5\nFIELD_TUNING_SENSITIVITY=0.0126\nFIELD_FIX_TIME="
                        + QByteArray::number(time)));
        QCOMPARE(device.getValue(Pal::fieldTcxoKey, true), QString("2060"));
    }

    // Every occurrence of a key is rewritten; the cache keeps the low 16 bits.
    void fieldDacValueAndCache_data()
    {
        QTest::addColumn<QByteArray>("original");
        QTest::addColumn<int>("dacValue");
        QTest::addColumn<QByteArray>("expected");
        QTest::addColumn<QString>("cached");
        QTest::newRow("new value") << exampleBytes << 2060
                                   << QByteArray(exampleBytes).replace("FIELD_TCXO=2051", "FIELD_TCXO=2060") << "2060";
        QTest::newRow("-1") << exampleBytes << -1
                            << QByteArray(exampleBytes).replace("FIELD_TCXO=2051", "FIELD_TCXO=-1") << "65535";
        QTest::newRow("70000") << exampleBytes << 70000
                               << QByteArray(exampleBytes).replace("FIELD_TCXO=2051", "FIELD_TCXO=70000") << "4464";
        QTest::newRow("two lines, odd run") << QByteArray("FIELD_TCXO=1.5e+3x\nXFIELD_TCXO=\n") << 7
                                            << QByteArray("FIELD_TCXO=7x\nXFIELD_TCXO=7\n") << "7";
        QTest::newRow("key missing") << QByteArray("FIELD_TCXO 5\n") << 9 << QByteArray("FIELD_TCXO 5\n") << "9";
        QTest::newRow("unconvertible equals 0")
            << QByteArray("FIELD_TCXO=abc") << 0 << QByteArray("FIELD_TCXO=abc") << "0";
    }
    void fieldDacValueAndCache()
    {
        QFETCH(QByteArray, original);
        QFETCH(int, dacValue);
        QFETCH(QByteArray, expected);
        QFETCH(QString, cached);
        QTemporaryDir dir;
        const QString path = dir.filePath("tcxo.cal");
        writeFile(path, original);
        TcxoCalDevice device("tcxo", path);
        device.updateTcxoFieldCal(dacValue);
        QCOMPARE(contentOf(path), expected);
        QCOMPARE(device.getValue(Pal::fieldTcxoKey, true), cached);
    }

    void createCachesLow16Bits()
    {
        QTemporaryDir dir;
        TcxoCalDevice device("tcxo", dir.filePath("tcxo.cal"));
        Factors factors = example;
        factors.fieldTcxo = 70000;
        device.createTcxoCalFile(factors);
        QCOMPARE(device.getValue(Pal::fieldTcxoKey, true), QString("4464"));
        QCOMPARE(device.getValue(Pal::fieldTcxoKey, false), QString("70000"));
        QCOMPARE(device.getValue(Pal::fieldTemperatureKey, true), QString("31.75"));
    }

    void unchangedDacValueLeavesFileAlone()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath("tcxo.cal");
        TcxoCalDevice device("tcxo", path);
        device.createTcxoCalFile(example);
        const QDateTime old = QDateTime::fromMSecsSinceEpoch(1600000000123);
        {
            QFile file(path);
            QVERIFY(file.open(QIODevice::ReadWrite));
            QVERIFY(file.setFileTime(old, QFileDevice::FileModificationTime));
        }
        device.updateTcxoFieldCal(2051, 99.5f, 0.5f);
        device.updateTcxoFieldCal(2051);
        QCOMPARE(contentOf(path), exampleBytes);
        QCOMPARE(QFileInfo(path).fileTime(QFileDevice::FileModificationTime), old);
        QCOMPARE(device.getValue(Pal::fieldTcxoKey, true), QString("2051"));
    }

    void fieldUpdateCreatesNothing()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath("missing/tcxo.cal");
        TcxoCalDevice device("tcxo", path);
        device.updateTcxoFieldCal(5, 1, 1);
        device.updateTcxoFieldCal(6);
        QVERIFY(!QFileInfo::exists(dir.filePath("missing")));
        QCOMPARE(device.getValue(Pal::fieldTcxoKey, true), QString("6"));
    }

    // What follows a NUL byte is not part of the text, so rewriting the text would lose it.
    void fileWithNulByteIsNeverRewritten_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::newRow("after the key") << QByteArray("FIELD_TCXO=1\nFIELD_TEMPERATURE=2\0REF_SOURCE_DISPLAY=3", 51);
        QTest::newRow("before the key") << QByteArray("\0FIELD_TCXO=1", 13);
    }
    void fileWithNulByteIsNeverRewritten()
    {
        QFETCH(QByteArray, bytes);
        QTemporaryDir dir;
        const QString path = dir.filePath("tcxo.cal");
        writeFile(path, bytes);
        TcxoCalDevice device("tcxo", path);
        MessageRecorder recorder;
        device.updateTcxoFieldCal(7, 3, 4);
        QCOMPARE(contentOf(path), bytes);
        QCOMPARE(recorder.takeMessages(),
            QStringList{QStringLiteral("critical default: Not updating file holding a NUL byte: \"%1\"").arg(path)});
    }

    void getValueReadingRules_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("key");
        QTest::addColumn<QString>("expected");
        QTest::addColumn<bool>("logged");
        QTest::newRow("key inside another line") << QByteArray("XFIELD_TCXO=5\nFIELD_TCXO=7") << "FIELD_TCXO="
                                                 << "5" << false;
        QTest::newRow("uppercase E") << QByteArray("FACTORY_TEMPERATURE=2.5E+03") << "FACTORY_TEMPERATURE="
                                     << "2.5" << false;
        QTest::newRow("unit text") << QByteArray("FIELD_TEMPERATURE=25.5 C\n") << "FIELD_TEMPERATURE="
                                   << "25.5" << false;
        QTest::newRow("empty") << QByteArray("FIELD_TCXO=\nFIX_DECAY_TIME=1") << "FIELD_TCXO="
                               << "" << false;
        QTest::newRow("letters") << QByteArray("FIELD_TCXO=abc") << "FIELD_TCXO="
                                 << "" << false;
        QTest::newRow("key without =") << QByteArray("FIELD_TCXO=12") << "FIELD_TCXO"
                                       << "" << false;
        QTest::newRow("missing") << QByteArray("FIELD_TCXO=12") << "FIX_DECAY_TIME=" << QString() << true;
        QTest::newRow("after NUL") << QByteArray("FIELD_TCXO=1\0FIX_DECAY_TIME=3", 29) << "FIX_DECAY_TIME=" << QString()
                                   << true;
    }
    void getValueReadingRules()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, key);
        QFETCH(QString, expected);
        QFETCH(bool, logged);
        QTemporaryDir dir;
        const QString path = dir.filePath("tcxo.cal");
        writeFile(path, bytes);
        TcxoCalDevice device("tcxo", path);
        MessageRecorder recorder;
        const QString value = device.getValue(key, false);
        QCOMPARE(value, expected);
        QCOMPARE(value.isNull(), expected.isNull());
        QCOMPARE(recorder.takeMessages(), logged ? QStringList{notFound(key, path)} : QStringList());
    }

    void getTcxoCalFactorsConversions()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath("tcxo.cal");
        writeFile(path,
            "FACTORY_TCXO=1.5\nFACTORY_TEMPERATURE=2.5E+03\nFACTORY_TUNING_SENSITIVITY=-\n"
            "FIELD_TCXO=2147483648\nFIELD_TEMPERATURE=25.5 C\nFIELD_TUNING_SENSITIVITY=\n"
            "FIELD_FIX_TIME=1700000000000\nFIX_DECAY_TIME=-7\nREF_SOURCE=1");
        TcxoCalDevice device("tcxo", path);
        MessageRecorder recorder;
        Factors factors{11, 12, 13, 14, 15, 16, 17, 18, 19};
        QVERIFY(!device.getTcxoCalFactors(factors));
        QCOMPARE(factors, (Factors{0, 2.5f, 0, 0, 25.5f, 0, 1.7e12f, -7, 19}));
        QCOMPARE(recorder.takeMessages(), QStringList());
    }

    // Relative paths stay relative in messages; the cache starts from the file.
    void construction_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("cached");
        QTest::addColumn<QStringList>("messages");
        QTest::newRow("no file") << QByteArray() << "0" << QStringList{cantOpen("cal/tcxo")};
        QTest::newRow("no key") << QByteArray("FIELD_TCXO 1") << "0"
                                << QStringList{notFound("FIELD_TCXO=", "cal/tcxo")};
        QTest::newRow("70000") << QByteArray("FIELD_TCXO=70000") << "4464" << QStringList();
    }
    void construction()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, cached);
        QFETCH(QStringList, messages);
        QTemporaryDir dir;
        ScopedCurrentDir current(dir.path());
        QVERIFY(current.entered());
        if (!bytes.isNull()) {
            QVERIFY(QDir().mkdir("cal"));
            writeFile("cal/tcxo", bytes);
        }
        MessageRecorder recorder;
        TcxoCalDevice device("tcxo", "cal/tcxo");
        QCOMPARE(recorder.takeMessages(), messages);
        QCOMPARE(device.getValue(Pal::fieldTcxoKey, true), cached);
        QCOMPARE(device.calibrationFile(), QString("cal/tcxo"));
    }

    void numbersIgnoreProcessLocale_data()
    {
        QTest::addColumn<bool>("setCLocale");
        QTest::newRow("QLocale default") << false;
        QTest::newRow("C library locale") << true;
    }
    void numbersIgnoreProcessLocale()
    {
        QFETCH(bool, setCLocale);
        const QByteArray oldCLocale = std::setlocale(LC_ALL, nullptr);
        if (setCLocale && !std::setlocale(LC_ALL, "de_DE.UTF-8"))
            QSKIP("The C library locale de_DE.UTF-8 is not installed on this machine");
        const QLocale oldLocale;
        QLocale::setDefault(QLocale(QLocale::German, QLocale::Germany));
        const QString germanText = QLocale().toString(1234.5);
        char cText[16];
        std::snprintf(cText, sizeof cText, "%g", 1.5);

        QTemporaryDir dir;
        const QString path = dir.filePath("tcxo.cal");
        TcxoCalDevice device("tcxo", path);
        Factors factors = example;
        factors.factoryTemperature = 1234.5f;
        device.createTcxoCalFile(factors);
        device.updateTcxoFieldCal(2060, 30.25f, 1.5e-5f);
        Factors read{};
        const bool complete = device.getTcxoCalFactors(read);
        const QByteArray bytes = contentOf(path);

        QLocale::setDefault(oldLocale);
        std::setlocale(LC_ALL, oldCLocale.constData());
        QCOMPARE(germanText, QString("1.234,5"));
        QCOMPARE(QByteArray(cText), QByteArray(setCLocale ? "1,5" : "1.5"));
        QVERIFY(complete);
        QVERIFY(bytes.startsWith("FACTORY_TCXO=2048\nFACTORY_TEMPERATURE=1234.5\n"));
        QVERIFY(bytes.contains("\nFIELD_TEMPERATURE=30.25\nFIELD_TUNING_SENSITIVITY=1.5e-05\n"));
        QCOMPARE(read.factoryTemperature, 1234.5f);
        QCOMPARE(read.fieldTemperature, 30.25f);
    }
};

QTEST_GUILESS_MAIN(TestTcxoCalDevice)
#include "tst_tcxocaldevice.moc"
