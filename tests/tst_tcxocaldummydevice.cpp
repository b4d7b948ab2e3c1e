#include "messagerecorder.h"
#include "tcxotestsupport.h"

#include <pal/tcxocaldummydevice.h>

#include <QDir>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

using Pal::TcxoCalDummyDevice;
using Factors = Pal::TcxoCalDevice::TcxoCalFactors;

namespace {

const Factors initial{9999, 99.99f, 9.99e9f, 9999, 99.99f, 9.99e9f, 0, 0, 0};

QStringList valueTexts(const Pal::TcxoCalDevice &device)
{
    QStringList texts;
    for (const char *key : {Pal::factoryTcxoKey, Pal::factoryTemperatureKey, Pal::factoryTuningSensitivityKey,
             Pal::fieldTcxoKey, Pal::fieldTemperatureKey, Pal::fieldTuningSensitivityKey, Pal::fieldFixTimeKey,
             Pal::fixDecayTimeKey, Pal::refSourceDisplayKey})
        texts << device.getValue(QString(key), false);
    return texts;
}

} // namespace

// Each test runs in its own empty working directory: the device's base looks for
// "DummyTcxoCalFile" there, and nothing may be left behind.
class TestTcxoCalDummyDevice : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        m_current = std::make_unique<ScopedCurrentDir>(m_dir->path());
        QVERIFY(m_current->entered());
    }
    void cleanup()
    {
        const QStringList left = QDir().entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
        m_current.reset();
        m_dir.reset();
        QCOMPARE(left, QStringList());
    }

    void initialRecordAndTexts()
    {
        MessageRecorder recorder;
        TcxoCalDummyDevice device("tcxo");
        QCOMPARE(recorder.takeMessages(),
            QStringList{QStringLiteral("critical default: Cannot open file \"DummyTcxoCalFile\"")});
        QCOMPARE(initial.factoryTemperature, 99.98999786376953125f);
        QCOMPARE(initial.factoryTuningSensitivity, 9989999616.f);
        Factors factors{1, 2, 3, 4, 5, 6, 7, 8, 9};
        QVERIFY(device.getTcxoCalFactors(factors));
        QCOMPARE(factors, initial);
        const QStringList expected{"9999", "99.99", "9.99e+09", "9999", "99.99", "9.99e+09", "0", "0", "0"};
        QCOMPARE(valueTexts(device), expected);
        QCOMPARE(device.getValue(Pal::fieldTcxoKey, true), QString("9999"));
        QVERIFY(device.getValue("FIELD_TCXO", false).isNull());
        QCOMPARE(recorder.takeMessages(), QStringList());
    }

    void recordInMemoryOnly()
    {
        TcxoCalDummyDevice device("tcxo");
        // Bit for bit, including what a file could not keep.
        const Factors given{4294967295u, 1234567.f, 1.5e-7f, 70000, -40.f, 0.0125f, 1.7e12f, 3600, 1};
        device.createTcxoCalFile(given);
        Factors read{};
        QVERIFY(device.getTcxoCalFactors(read));
        QCOMPARE(read, given);
        QCOMPARE(valueTexts(device),
            QStringList({"4294967295", "1.23457e+06", "1.5e-07", "70000", "-40", "0.0125", "1.7e+12", "3600", "1"}));

        // Always taken, full 32 bits, fix time and factory fields untouched.
        device.updateTcxoFieldCal(70000, 20.5f, 0.5f);
        device.updateTcxoFieldCal(-1);
        QVERIFY(device.getTcxoCalFactors(read));
        QCOMPARE(read, (Factors{4294967295u, 1234567.f, 1.5e-7f, 4294967295u, 20.5f, 0.5f, 1.7e12f, 3600, 1}));
        QCOMPARE(device.getValue(Pal::fieldTcxoKey, true), QString("4294967295"));
    }

private:
    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<ScopedCurrentDir> m_current;
};

QTEST_GUILESS_MAIN(TestTcxoCalDummyDevice)
#include "tst_tcxocaldummydevice.moc"
