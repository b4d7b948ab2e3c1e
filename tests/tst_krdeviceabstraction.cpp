#include "recordingreporter.h"
#include "testproxy.h"

#include <pal/krdeviceabstraction.h>

#include <QPointer>
#include <QSemaphore>
#include <QTest>
#include <QThread>

using Pal::CommandFormatters;
using Pal::KrDeviceAbstraction;

namespace {

const Report timeoutReport{70, QStringLiteral("krdeviceabstraction.cpp"), 168,
    QStringLiteral("qint64 Pal::KrDeviceAbstraction::doCommand(std::function<long long int()>, quint32)"),
    {QStringLiteral(" sending a hardware command")}};

// Formats command 1 as "<id>:<value>", so the test sees both arguments in the bytes.
CommandFormatters echoFormatters()
{
    return {{1, [](quint16 id, const QVariant &value) -> QByteArray {
                 return QByteArray::number(id) + ':' + value.toByteArray();
             }}};
}

class CountingDevice : public KrDeviceAbstraction
{
    Q_OBJECT
public:
    using KrDeviceAbstraction::KrDeviceAbstraction;
    bool commandBlacklisted(quint16 commandId) override
    {
        blacklistQueries << commandId;
        return true;
    }
    QList<quint16> blacklistQueries;
};

// Makes the proxy's writes block until the test lets each one go.
void gateWrites(TestProxy *proxy, QSemaphore &gate)
{
    proxy->onWrite = [&gate](const QByteArray &bytes) {
        gate.acquire();
        return qint64(bytes.size());
    };
}

} // namespace

class TestKrDeviceAbstraction : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void writeReturnsProxyResult_data()
    {
        QTest::addColumn<QVariant>("value");
        QTest::addColumn<qint64>("proxyResult");
        QTest::addColumn<QByteArray>("expectedBytes");
        QTest::newRow("count") << QVariant(42) << qint64(4) << QByteArray("1:42");
        QTest::newRow("proxy failure -1") << QVariant(QStringLiteral("x")) << qint64(-1) << QByteArray("1:x");
        QTest::newRow("proxy result 7") << QVariant() << qint64(7) << QByteArray("1:");
    }
    void writeReturnsProxyResult()
    {
        QFETCH(QVariant, value);
        QFETCH(qint64, proxyResult);
        QFETCH(QByteArray, expectedBytes);
        RecordingReporter reporter;
        auto *proxy = new TestProxy;
        proxy->onWrite = [proxyResult](const QByteArray &) { return proxyResult; };
        CommandFormatters formatters = echoFormatters();
        KrDeviceAbstraction device("dev", proxy, formatters);

        QCOMPARE(device.write(1, value, 1000), proxyResult);
        QCOMPARE(proxy->writes().size(), 1);
        QCOMPARE(proxy->writes().first().bytes, expectedBytes);
        QVERIFY(proxy->writes().first().thread != QThread::currentThreadId());
        QCOMPARE(reporter.count(), 0);
    }

    void emptyFormatterResultIsWrittenWithSizeZero()
    {
        auto *proxy = new TestProxy;
        CommandFormatters formatters{{9, [](quint16, const QVariant &) { return QByteArray(); }}};
        KrDeviceAbstraction device("dev", proxy, formatters);
        QCOMPARE(device.write(9, QVariant(), 1000), qint64(0));
        QCOMPARE(proxy->writeCount(), 1);
    }

    void rejections_data()
    {
        QTest::addColumn<bool>("withProxy");
        QTest::addColumn<bool>("withFormatters");
        QTest::addColumn<quint16>("commandId");
        QTest::addColumn<qint64>("expectedIoctl");
        QTest::newRow("no proxy") << false << true << quint16(1) << qint64(-1);
        QTest::newRow("no formatter for the id") << true << true << quint16(2) << qint64(-1);
        // Without formatters there is no command thread; ioctl has no formatter either.
        QTest::newRow("no command thread") << true << false << quint16(1) << qint64(-1);
    }
    void rejections()
    {
        QFETCH(bool, withProxy);
        QFETCH(bool, withFormatters);
        QFETCH(quint16, commandId);
        QFETCH(qint64, expectedIoctl);
        RecordingReporter reporter;
        QPointer<TestProxy> proxy = withProxy ? new TestProxy : nullptr;
        CommandFormatters formatters = echoFormatters();
        QScopedPointer<CountingDevice> device(
            withFormatters ? new CountingDevice("dev", proxy, formatters) : new CountingDevice("dev", proxy));

        QCOMPARE(device->write(commandId, 5, 1000), qint64(7));
        QCOMPARE(device->blacklistQueries, QList<quint16>{commandId});
        char reply[4];
        QCOMPARE(device->ioctl(commandId, reply, sizeof reply, 10), expectedIoctl);
        QCOMPARE(device->blacklistQueries, (QList<quint16>{commandId, commandId}));
        if (proxy) {
            QCOMPARE(proxy->writeCount(), 0);
            QCOMPARE(proxy->ioctls().size(), 0);
        }
        QCOMPARE(reporter.count(), 0);
    }

    void acceptedCommandsDoNotConsultBlacklist()
    {
        CommandFormatters formatters = echoFormatters();
        CountingDevice device("dev", new TestProxy, formatters);
        char reply[4];
        device.write(1, 0, 1000);
        device.ioctl(1, reply, sizeof reply, 10);
        QVERIFY(device.blacklistQueries.isEmpty());
    }

    void readGoesToProxy()
    {
        KrDeviceAbstraction withoutProxy("dev", nullptr);
        char buffer[8] = {};
        QCOMPARE(withoutProxy.read(buffer, sizeof buffer), qint64(-1));

        auto *proxy = new TestProxy;
        proxy->onRead = [](char *data, qint64 maxSize) {
            data[0] = 'z';
            return maxSize - 1;
        };
        KrDeviceAbstraction device("dev", proxy);
        QCOMPARE(device.read(buffer, sizeof buffer), qint64(7));
        QCOMPARE(buffer[0], 'z');
    }

    void ioctlPassesRequestAndReplyThrough()
    {
        auto *proxy = new TestProxy;
        proxy->onIoctl = [](const QByteArray &) { return qint64(-5); };
        QList<QVariant> formatterValues;
        CommandFormatters formatters{{3, [&formatterValues](quint16 id, const QVariant &value) -> QByteArray {
                                          formatterValues << value;
                                          return QByteArray("req") + char('0' + id);
                                      }}};
        KrDeviceAbstraction device("dev", proxy, formatters);
        device.setTimeoutInMs(1);
        char reply[16];
        QCOMPARE(device.ioctl(3, reply, sizeof reply, 250), qint64(-5));
        QCOMPARE(formatterValues.size(), 1);
        QVERIFY(!formatterValues.first().isValid());
        const TestProxy::Call call = proxy->ioctls().value(0);
        QCOMPARE(call.bytes, QByteArray("req3"));
        QCOMPARE(call.thread, QThread::currentThreadId());
        QVERIFY(call.reply == reply); // the same buffer; QCOMPARE would compare char * as strings
        QCOMPARE(call.replySize, quint32(sizeof reply));
        QCOMPARE(call.timeoutMs, quint32(250));
    }

    void emptyFormatterFunctionThrows()
    {
        CommandFormatters formatters{{1, nullptr}};
        auto *proxy = new TestProxy;
        KrDeviceAbstraction device("dev", proxy, formatters);
        char reply[4];
        QVERIFY_EXCEPTION_THROWN(device.write(1, 0, 1000), std::bad_function_call);
        QVERIFY_EXCEPTION_THROWN(device.ioctl(1, reply, sizeof reply, 10), std::bad_function_call);
        QVERIFY_EXCEPTION_THROWN(device.doCommand(nullptr, 1000), std::bad_function_call);
        QCOMPARE(proxy->writeCount(), 0);
    }

    void doCommandWithoutCommandThread()
    {
        KrDeviceAbstraction device("dev", new TestProxy);
        bool ran = false;
        QCOMPARE(device.doCommand([&ran] { return qint64(ran = true); }, 10), qint64(-1));
        QVERIFY(!ran);
    }

    void timeoutReturnsMinusOneAndNextCommandWaits()
    {
        RecordingReporter reporter;
        auto *proxy = new TestProxy;
        QSemaphore gate;
        gateWrites(proxy, gate);
        CommandFormatters formatters = echoFormatters();
        KrDeviceAbstraction device("dev", proxy, formatters);

        QCOMPARE(device.write(1, 1, 20), qint64(-1));
        QCOMPARE(reporter.reports(), QList<Report>{timeoutReport});
        QVERIFY(proxy->writeInProgress());

        // The second command may start only once the first job has ended.
        gate.release(2);
        QCOMPARE(device.write(1, 2, 5000), qint64(3));
        QCOMPARE(proxy->writeCount(), 2);
        QCOMPARE(proxy->maxConcurrentWrites(), 1);
        QCOMPARE(proxy->writes().value(1).bytes, QByteArray("1:2"));
        QCOMPARE(reporter.count(), 1);
    }

    void defaultTimeout()
    {
        RecordingReporter reporter;
        auto *proxy = new TestProxy;
        QSemaphore gate;
        gateWrites(proxy, gate);
        CommandFormatters formatters = echoFormatters();
        KrDeviceAbstraction device("dev", proxy, formatters);
        QCOMPARE(device.timeoutInMs(), quint32(4000));
        device.setTimeoutInMs(15);
        QCOMPARE(device.timeoutInMs(), quint32(15));
        QCOMPARE(device.write(1, 1), qint64(-1));
        QCOMPARE(reporter.reports(), QList<Report>{timeoutReport});
        gate.release();
    }

    // A command that returns before its thread ran the job must not cost the job: every job
    // runs exactly once, and the device keeps working afterwards.
    void zeroTimeoutCommandsBackToBack()
    {
        RecordingReporter reporter;
        auto *proxy = new TestProxy;
        CommandFormatters formatters = echoFormatters();
        KrDeviceAbstraction device("dev", proxy, formatters);
        const int commands = 300;
        int timedOut = 0;
        for (int i = 0; i < commands; ++i) {
            const QByteArray expected = "1:" + QByteArray::number(i);
            const qint64 result = device.write(1, i, 0);
            if (result == -1)
                ++timedOut;
            else
                QCOMPARE(result, qint64(expected.size()));
        }
        QCOMPARE(device.write(1, QStringLiteral("last"), 5000), qint64(6));
        QCOMPARE(proxy->writeCount(), commands + 1);
        QCOMPARE(reporter.count(), timedOut);
        for (const Report &report : reporter.reports())
            QCOMPARE(report, timeoutReport);
    }

    void destroyWhileTimedOutJobRuns()
    {
        RecordingReporter reporter;
        const int destroyedBefore = TestProxy::s_destroyed;
        auto *proxy = new TestProxy;
        QSemaphore gate;
        QSemaphore entered;
        proxy->onWrite = [&](const QByteArray &bytes) {
            entered.release();
            gate.acquire();
            return qint64(bytes.size());
        };
        CommandFormatters formatters = echoFormatters();
        auto device = std::make_unique<KrDeviceAbstraction>("dev", proxy, formatters);
        QCOMPARE(device->write(1, 1, 10), qint64(-1));
        QVERIFY(entered.tryAcquire(1, 5000));

        // The destructor must wait for the job before it deletes the proxy, whose destructor
        // asserts that no write is running.
        QScopedPointer<QThread> releaser(QThread::create([&gate] { gate.release(); }));
        releaser->start();
        device.reset();
        QVERIFY(releaser->wait(5000));
        QCOMPARE(proxy == nullptr, false);
        QCOMPARE(int(TestProxy::s_destroyed), destroyedBefore + 1);
    }

    void signalsAreForwarded()
    {
        auto *proxy = new TestProxy;
        KrDeviceAbstraction device("dev", proxy);
        QCOMPARE(proxy->parent(), &device);

        QList<const KrDeviceAbstraction *> rawSenders;
        QList<QPair<const char *, int>> data;
        connect(&device, &KrDeviceAbstraction::rawDataReady,
            [&rawSenders](const KrDeviceAbstraction &sender) { rawSenders << &sender; });
        connect(&device, &KrDeviceAbstraction::dataReady,
            [&data](const char *bytes, int size) { data << qMakePair(bytes, size); });

        proxy->emitReadyRead();
        proxy->emitReadyRead();
        const char bytes[] = "abc";
        proxy->emitDataReady(bytes, 3);
        QCOMPARE(rawSenders, (QList<const KrDeviceAbstraction *>{&device, &device}));
        QCOMPARE(data, (QList<QPair<const char *, int>>{qMakePair(static_cast<const char *>(bytes), 3)}));
    }

    void emptyKeyNeitherAdoptsNorForwards()
    {
        TestProxy proxy;
        {
            CommandFormatters formatters = echoFormatters();
            KrDeviceAbstraction device(QByteArray(), &proxy, formatters);
            QCOMPARE(proxy.parent(), nullptr);
            int raw = 0;
            int data = 0;
            connect(&device, &KrDeviceAbstraction::rawDataReady, [&raw] { ++raw; });
            connect(&device, &KrDeviceAbstraction::dataReady, [&data] { ++data; });
            proxy.emitReadyRead();
            proxy.emitDataReady("x", 1);
            QCOMPARE(raw, 0);
            QCOMPARE(data, 0);
            // Commands still go through the proxy.
            QCOMPARE(device.write(1, 7, 5000), qint64(3));
        }
        QCOMPARE(proxy.writeCount(), 1); // survived the device abstraction
    }

    void invokableConstructors()
    {
        const QMetaObject &meta = KrDeviceAbstraction::staticMetaObject;
        QCOMPARE(meta.constructorCount(), 4);
        QStringList signatures;
        for (int i = 0; i < meta.constructorCount(); ++i)
            signatures << QString::fromLatin1(meta.constructor(i).methodSignature());
        QCOMPARE(signatures,
            (QStringList{"KrDeviceAbstraction(QByteArray,KrAbstractDeviceProxy*,CommandFormatters&,QObject*)",
                "KrDeviceAbstraction(QByteArray,KrAbstractDeviceProxy*,CommandFormatters&)",
                "KrDeviceAbstraction(QByteArray,KrAbstractDeviceProxy*,QObject*)",
                "KrDeviceAbstraction(QByteArray,KrAbstractDeviceProxy*)"}));
    }
};

QTEST_GUILESS_MAIN(TestKrDeviceAbstraction)
#include "tst_krdeviceabstraction.moc"
