#include "messagerecorder.h"
#include "ptypair.h"

#include <pal/devices/krserialdeviceproxy.h>

#include <QFile>
#include <QRegularExpression>

using Pal::KrSerialDeviceProxy;

namespace {

// Points @p link at @p target at once, as udev replaces a by-id link.
bool pointLink(const QString &link, const QString &target)
{
    const QByteArray staging = QFile::encodeName(link + QStringLiteral(".new"));
    ::unlink(staging.constData());
    return ::symlink(QFile::encodeName(target).constData(), staging.constData()) == 0
        && ::rename(staging.constData(), QFile::encodeName(link).constData()) == 0;
}

} // namespace

class TestKrSerialDeviceProxy : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase()
    {
        // User-mode emulators of other architectures may not pass termios2 on.
        PtyPair pty;
        KrSerialDeviceProxy probe(pty.slavePath);
        if (probe.errorString().contains(QLatin1String("has no line settings")))
            QSKIP(qPrintable(probe.errorString()));
    }

    // Each setting read back; a refused one, a node that is no tty and a second exclusive open
    // leave the proxy closed with the reason.
    void settings_data()
    {
        QTest::addColumn<QString>("setting");
        QTest::addColumn<int>("value");
        QTest::addColumn<QString>("refusal"); // empty: taken
        QTest::newRow("250000 baud") << "baud" << 250000 << "";
        QTest::newRow("1000000 baud") << "baud" << 1000000 << "";
        QTest::newRow("9600 baud") << "baud" << 9600 << "";
        QTest::newRow("no rate") << "baud" << 0 << "has no baud rate 0";
        QTest::newRow("2 stop bits") << "stop" << 2 << "";
        QTest::newRow("RTS/CTS") << "flow" << int(KrSerialDeviceProxy::FlowControl::RtsCts) << "";
        // A pseudo-terminal keeps 8 data bits without parity, whatever is asked.
        QTest::newRow("7 data bits") << "data" << 7 << "does not take 7 data bits";
        QTest::newRow("9 data bits") << "data" << 9 << "has no 9 data bits";
        QTest::newRow("even parity") << "parity" << int(KrSerialDeviceProxy::Parity::Even)
                                     << "does not take even parity";
        QTest::newRow("odd parity") << "parity" << int(KrSerialDeviceProxy::Parity::Odd) << "does not take odd parity";
        QTest::newRow("RS-485") << "rs485" << 1 << "does not support RS-485 (Inappropriate ioctl for device)";
        QTest::newRow("not a terminal") << "/dev/null" << 0 << "is not a terminal";
        QTest::newRow("missing") << "/dev/missing" << 0 << "cannot open %1: No such file or directory";
        QTest::newRow("directory") << "/dev" << 0 << "cannot open %1: Is a directory";
        QTest::newRow("second exclusive open") << "in use" << 0 << "is in use";
    }
    void settings()
    {
        QFETCH(QString, setting);
        QFETCH(int, value);
        QFETCH(QString, refusal);
        PtyPair pty;
        const QString path = setting.startsWith(QLatin1Char('/')) ? setting : pty.slavePath;
        const QString error = refusal.isEmpty()     ? QString()
            : refusal.contains(QLatin1String("%1")) ? refusal.arg(path)
                                                    : path + QLatin1Char(' ') + refusal;
        if (!error.isEmpty())
            QTest::ignoreMessage(QtWarningMsg, qPrintable(error));
        auto first = setting == QLatin1String("in use") ? std::make_unique<KrSerialDeviceProxy>(path) : nullptr;
        KrSerialDeviceProxy proxy(path);
        bool taken = proxy.isOpen();
        if (setting == QLatin1String("baud"))
            taken = proxy.setBaudRate(value);
        else if (setting == QLatin1String("stop"))
            taken = proxy.setStopBits(value);
        else if (setting == QLatin1String("flow"))
            taken = proxy.setFlowControl(KrSerialDeviceProxy::FlowControl(value));
        else if (setting == QLatin1String("data"))
            taken = proxy.setDataBits(value);
        else if (setting == QLatin1String("parity"))
            taken = proxy.setParity(KrSerialDeviceProxy::Parity(value));
        else if (setting == QLatin1String("rs485"))
            taken = proxy.setRs485({true, true, 0, 0});
        QCOMPARE(taken, error.isEmpty());
        QCOMPARE(proxy.isOpen(), error.isEmpty());
        QCOMPARE(proxy.errorString(), error);
        if (setting == QLatin1String("baud") && taken)
            QCOMPARE(proxy.baudRate(), value);
        char buffer[4] = "?\n";
        QCOMPARE(proxy.write(buffer, 2), error.isEmpty() ? qint64(2) : qint64(-1));
        QCOMPARE(proxy.read(buffer, sizeof buffer), error.isEmpty() ? qint64(0) : qint64(-1));
        QCOMPARE(proxy.ioctl(buffer, 2, buffer, sizeof buffer, 10), qint64(-1));
        if (!first)
            return;
        // Free again once the first lets go.
        first.reset();
        proxy.setReopenIntervalMs(0);
        QTest::ignoreMessage(QtInfoMsg, qPrintable(path + QStringLiteral(" is back")));
        QCOMPARE(proxy.read(buffer, sizeof buffer), qint64(0));
        QVERIFY(proxy.isOpen());
    }

    // A device that is missing at the start, appears, goes away and comes back behind a
    // by-id link: one warning per loss, one message when back, the settings kept. Each time the
    // line runs raw whatever the tty was set to, and what waited before the open is gone.
    void lossAndRecovery()
    {
        QTemporaryDir dir;
        const QString link = dir.filePath(QStringLiteral("by-id"));
        MessageRecorder recorder;
        const auto messages = [&recorder] { // without the source that a Debug build appends
            return recorder.takeMessages().replaceInStrings(QRegularExpression(QStringLiteral(" @.*")), QString());
        };
        QVERIFY(pointLink(link, dir.filePath(QStringLiteral("nothing"))));
        KrSerialDeviceProxy proxy(link, 250000);
        proxy.setReopenIntervalMs(0);
        char buffer[64];
        QCOMPARE(proxy.read(buffer, sizeof buffer), qint64(-1));
        QCOMPARE(messages(),
            QStringList(QStringLiteral("warning krpal.devices: cannot open %1: No such file or directory").arg(link)));
        const QStringList back{QStringLiteral("info krpal.devices: %1 is back").arg(link)};
        const QStringList lost{QStringLiteral("warning krpal.devices: %1 has hung up").arg(link)};
        const QByteArray bytes = allByteValues();
        std::unique_ptr<PtyPair> pty;
        for (int device = 0; device < 3; ++device) {
            if (pty) {
                pty->closeMaster();
                QCOMPARE(proxy.read(buffer, sizeof buffer), qint64(-1));
                QCOMPARE(proxy.write("x", 1), qint64(-1));
                QVERIFY(!proxy.isOpen());
                QCOMPARE(messages(), lost);
                // The old node is gone: attempts to open it again fail without a word.
                QCOMPARE(proxy.read(buffer, sizeof buffer), qint64(-1));
                QCOMPARE(messages(), QStringList());
            }
            pty = std::make_unique<PtyPair>();
            QVERIFY(pty->send("waiting before the open\n")); // cooked, without echo
            QVERIFY(pointLink(link, pty->slavePath));
            qint64 got = -1; // the first read that opens the line finds nothing waiting
            QTRY_VERIFY((got = proxy.read(buffer, sizeof buffer)) >= 0);
            QCOMPARE(got, qint64(0));
            QCOMPARE(messages(), back);
            QCOMPARE(proxy.baudRate(), 250000);
            QVERIFY(pty->send(bytes));
            QCOMPARE(collect(proxy, bytes.size()), bytes);
            QCOMPARE(proxy.write(bytes.constData(), bytes.size()), qint64(bytes.size()));
            QCOMPARE(pty->receive(bytes.size()), bytes);
        }
    }
};

QTEST_GUILESS_MAIN(TestKrSerialDeviceProxy)
#include "tst_krserialdeviceproxy.moc"
