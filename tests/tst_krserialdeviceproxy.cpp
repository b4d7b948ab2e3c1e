#include "messagerecorder.h"
#include "ptypair.h"

#include <pal/devices/krserialdeviceproxy.h>

#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <memory>
#include <thread>

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

QStringList withoutSources(QStringList messages)
{
    for (QString &message : messages)
        message = message.section(QStringLiteral(" @"), 0, 0);
    return messages;
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

    // The line runs raw whatever the tty was set to, and what waited before the open is gone.
    void allBytesPassBothWaysUnchanged()
    {
        PtyPair pty;
        // Cooked, but silent: what waits is not echoed before the proxy opens the line.
        termios line;
        QCOMPARE(::tcgetattr(pty.master, &line), 0);
        line.c_lflag &= ~tcflag_t(ECHO);
        QCOMPARE(::tcsetattr(pty.master, TCSANOW, &line), 0);
        QVERIFY(pty.send("waiting before the open\n"));
        KrSerialDeviceProxy proxy(pty.slavePath);
        QVERIFY2(proxy.isOpen(), qPrintable(proxy.errorString()));
        QCOMPARE(proxy.baudRate(), 115200);
        const QByteArray bytes = allByteValues();
        QVERIFY(pty.send(bytes));
        QCOMPARE(collect(proxy, bytes.size()), bytes);
        QCOMPARE(proxy.write(bytes.constData(), bytes.size()), qint64(bytes.size()));
        QCOMPARE(pty.receive(bytes.size()), bytes);
        // A raw line reads 0 while idle: a reply is waited for all the same.
        std::thread device([&pty] {
            if (pty.receive(64, "\n") == "T?\n")
                pty.send(QByteArray("+21.5\r\0\n", 8));
        });
        char request[] = "T?\n";
        char reply[16];
        QCOMPARE(proxy.ioctl(request, 3, reply, sizeof reply, 5000), qint64(8));
        device.join();
        QCOMPARE(QByteArray(reply, 8), QByteArray("+21.5\r\0\n", 8));
    }

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
    }
    void settings()
    {
        QFETCH(QString, setting);
        QFETCH(int, value);
        QFETCH(QString, refusal);
        PtyPair pty;
        KrSerialDeviceProxy proxy(pty.slavePath);
        const QString error = refusal.isEmpty() ? QString() : pty.slavePath + QLatin1Char(' ') + refusal;
        if (!error.isEmpty())
            QTest::ignoreMessage(QtWarningMsg, qPrintable(error));
        bool taken = false;
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
        else
            taken = proxy.setRs485({true, true, 0, 0});
        QCOMPARE(taken, error.isEmpty());
        QCOMPARE(proxy.isOpen(), error.isEmpty());
        QCOMPARE(proxy.errorString(), error);
        if (setting == QLatin1String("baud") && taken)
            QCOMPARE(proxy.baudRate(), value);
        char buffer[4] = "x";
        QCOMPARE(proxy.write(buffer, 1), error.isEmpty() ? qint64(1) : qint64(-1));
        QCOMPARE(proxy.read(buffer, sizeof buffer), error.isEmpty() ? qint64(0) : qint64(-1));
    }

    void secondOpenIsRefused()
    {
        PtyPair pty;
        auto first = std::make_unique<KrSerialDeviceProxy>(pty.slavePath);
        QVERIFY(first->isOpen());
        const QString inUse = pty.slavePath + QStringLiteral(" is in use");
        QTest::ignoreMessage(QtWarningMsg, qPrintable(inUse));
        KrSerialDeviceProxy second(pty.slavePath);
        QVERIFY(!second.isOpen());
        QCOMPARE(second.errorString(), inUse);
        char buffer[4];
        QCOMPARE(second.read(buffer, sizeof buffer), qint64(-1));
        // Free again once the first lets go.
        first.reset();
        second.setReopenIntervalMs(0);
        QTest::ignoreMessage(QtInfoMsg, qPrintable(pty.slavePath + QStringLiteral(" is back")));
        QCOMPARE(second.read(buffer, sizeof buffer), qint64(0));
        QVERIFY(second.isOpen());
    }

    void notATerminal()
    {
        const QString error = QStringLiteral("/dev/null is not a terminal");
        QTest::ignoreMessage(QtWarningMsg, qPrintable(error));
        KrSerialDeviceProxy proxy(QStringLiteral("/dev/null"));
        QVERIFY(!proxy.isOpen());
        QCOMPARE(proxy.errorString(), error);
        char buffer[4] = "?\n";
        QCOMPARE(proxy.write(buffer, 2), qint64(-1));
        QCOMPARE(proxy.ioctl(buffer, 2, buffer, sizeof buffer, 100), qint64(-1));
    }

    // A device that is missing at the start, appears, goes away and comes back behind a
    // by-id link: one warning per loss, one message when back, the settings kept.
    void lossAndRecovery()
    {
        QTemporaryDir dir;
        const QString link = dir.filePath(QStringLiteral("by-id"));
        MessageRecorder messages;
        QVERIFY(pointLink(link, dir.filePath(QStringLiteral("nothing"))));
        KrSerialDeviceProxy proxy(link, 250000);
        proxy.setReopenIntervalMs(0);
        char buffer[64];
        QCOMPARE(proxy.read(buffer, sizeof buffer), qint64(-1));
        const QStringList missing{
            QStringLiteral("warning krpal.devices: cannot open %1: No such file or directory").arg(link)};
        QCOMPARE(withoutSources(messages.takeMessages()), missing);

        auto pty = std::make_unique<PtyPair>();
        QVERIFY(pointLink(link, pty->slavePath));
        QTRY_COMPARE(proxy.read(buffer, sizeof buffer), qint64(0));
        const QStringList back{QStringLiteral("info krpal.devices: %1 is back").arg(link)};
        QCOMPARE(withoutSources(messages.takeMessages()), back);

        for (int device = 0; device < 2; ++device) {
            pty->closeMaster();
            QCOMPARE(proxy.read(buffer, sizeof buffer), qint64(-1));
            QCOMPARE(proxy.write("x", 1), qint64(-1));
            QVERIFY(!proxy.isOpen());
            const QStringList lost{QStringLiteral("warning krpal.devices: %1 has hung up").arg(link)};
            QCOMPARE(withoutSources(messages.takeMessages()), lost);
            // The old node is gone: attempts to open it again fail without a word.
            QCOMPARE(proxy.read(buffer, sizeof buffer), qint64(-1));
            QCOMPARE(messages.takeMessages(), QStringList());

            pty = std::make_unique<PtyPair>();
            QVERIFY(pointLink(link, pty->slavePath));
            QTRY_COMPARE(proxy.read(buffer, sizeof buffer), qint64(0));
            QCOMPARE(withoutSources(messages.takeMessages()), back);
            QCOMPARE(proxy.baudRate(), 250000);
            const QByteArray bytes("\x03\r\n\x11\x13", 5);
            QCOMPARE(proxy.write(bytes.constData(), bytes.size()), qint64(bytes.size()));
            QCOMPARE(pty->receive(bytes.size()), bytes);
        }
    }
};

QTEST_GUILESS_MAIN(TestKrSerialDeviceProxy)
#include "tst_krserialdeviceproxy.moc"
