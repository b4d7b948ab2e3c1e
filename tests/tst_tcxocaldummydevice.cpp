#include "messagerecorder.h"
#include "tcxotestsupport.h"

#include <pal/tcxocaldummydevice.h>

using Factors = Pal::TcxoCalDevice::TcxoCalFactors;

class TestTcxoCalDummyDevice : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    // Unlike the file-backed device: nothing is written or logged, updates always take effect,
    // keep all 32 bits and leave the fix time alone.
    void recordInMemoryOnly()
    {
        // The base looks for "DummyTcxoCalFile" in the working directory, which must stay empty.
        TemporaryWorkingDir workingDir;
        QVERIFY(workingDir.entered());
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
        QCOMPARE(QDir().entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden), QStringList());
    }
};

QTEST_GUILESS_MAIN(TestTcxoCalDummyDevice)
#include "tst_tcxocaldummydevice.moc"
