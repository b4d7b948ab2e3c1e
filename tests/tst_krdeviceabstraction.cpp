#include "recordingreporter.h"
#include "testproxy.h"

#include <pal/krdeviceabstraction.h>

#include <QPointer>
#include <QScopeGuard>
#include <QSemaphore>
#include <QTest>
#include <QThread>

#include <atomic>

using namespace Pal;

namespace {

// Command 1 becomes "<id>:<value>" ("-" for an invalid value), command 9 no bytes at all.
CommandFormatters formatters()
{
    return {{1,
                [](quint16 id, const QVariant &value) -> QByteArray {
                    return QByteArray::number(id) + ':' + (value.isValid() ? value.toByteArray() : QByteArray("-"));
                }},
        {9, [](quint16, const QVariant &) { return QByteArray(); }}};
}

// What the proxy was asked, writes first; a write on the caller's thread or an ioctl on another is marked.
using Trace = QList<QByteArray>;
Trace trace(const TestProxy &proxy)
{
    Trace trace;
    for (const TestProxy::Call &call : proxy.writes())
        trace << "write " + call.bytes + (call.thread == QThread::currentThreadId() ? " on the caller's thread" : "");
    for (const TestProxy::Call &call : proxy.ioctls())
        trace << "ioctl " + call.bytes + (call.thread == QThread::currentThreadId() ? "" : " on another thread");
    return trace;
}

// Records every consultation of the hook, and answers true: that must change nothing. Runs
// atDestruction as its destruction begins, before the base class waits for the command thread.
class CountingDevice : public KrDeviceAbstraction
{
    Q_OBJECT
public:
    using KrDeviceAbstraction::KrDeviceAbstraction;
    ~CountingDevice() override { atDestruction(); }
    std::function<void()> atDestruction = [] {};
    bool commandBlacklisted(quint16 commandId) override
    {
        blacklistQueries << commandId;
        return true;
    }
    QList<quint16> blacklistQueries;
};

} // namespace

class TestKrDeviceAbstraction : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    // Accepted commands return the proxy's result and never consult the hook; rejected ones return 7
    // (write) or -1 (ioctl), consult it once each and reach no proxy. read and ioctl pass the caller's
    // buffer, size and time-out on. The proxy is adopted, its signals forwarded, when there are a key and a proxy.
    void setups_data()
    {
        QTest::addColumn<QByteArray>("id");
        QTest::addColumn<bool>("withProxy");
        QTest::addColumn<bool>("withFormatters");
        QTest::addColumn<int>("commandId");
        QTest::addColumn<QVariant>("value");
        QTest::addColumn<int>("proxyResult");
        QTest::addColumn<Trace>("expectedTrace"); // empty when rejected
        const QByteArray dev("dev");
        QTest::newRow("count") << dev << true << true << 1 << QVariant(42) << 4 << Trace{"write 1:42", "ioctl 1:-"};
        QTest::newRow("proxy failure -1")
            << dev << true << true << 1 << QVariant("x") << -1 << Trace{"write 1:x", "ioctl 1:-"};
        QTest::newRow("proxy result 7") << dev << true << true << 1 << QVariant() << 7
                                        << Trace{"write 1:-", "ioctl 1:-"};
        QTest::newRow("no bytes") << dev << true << true << 9 << QVariant(1) << 0 << Trace{"write ", "ioctl "};
        QTest::newRow("empty key") << QByteArray() << true << true << 1 << QVariant(7) << 3
                                   << Trace{"write 1:7", "ioctl 1:-"};
        QTest::newRow("no proxy") << dev << false << true << 1 << QVariant(5) << 0 << Trace();
        QTest::newRow("no formatter for the id") << dev << true << true << 2 << QVariant(5) << 0 << Trace();
        // Without formatters there is no command thread; ioctl has no formatter either.
        QTest::newRow("no command thread") << dev << true << false << 1 << QVariant(5) << 0 << Trace();
    }
    void setups()
    {
        QFETCH(QByteArray, id);
        QFETCH(bool, withProxy);
        QFETCH(bool, withFormatters);
        QFETCH(int, commandId);
        QFETCH(QVariant, value);
        QFETCH(int, proxyResult);
        QFETCH(Trace, expectedTrace);
        const bool rejected = expectedTrace.isEmpty();
        const int adopted = withProxy && !id.isEmpty() ? 1 : 0;
        RecordingReporter reporter;
        QPointer<TestProxy> proxy = withProxy ? new TestProxy : nullptr;
        if (proxy) {
            proxy->onWrite = proxy->onIoctl = [proxyResult](const QByteArray &) { return proxyResult; };
            proxy->onRead = [proxyResult](char *data, qint64 maxSize) {
                data[maxSize - 1] = 'z';
                return proxyResult;
            };
        }
        CommandFormatters commands = formatters();
        QScopedPointer<CountingDevice> device(
            withFormatters ? new CountingDevice(id, proxy, commands) : new CountingDevice(id, proxy));
        device->setTimeoutInMs(1);
        QList<const KrDeviceAbstraction *> senders;
        QList<QPair<const char *, int>> chunks;
        connect(device.data(), &KrDeviceAbstraction::rawDataReady,
            [&senders](const KrDeviceAbstraction &sender) { senders << &sender; });
        connect(device.data(), &KrDeviceAbstraction::dataReady,
            [&chunks](const char *data, int size) { chunks << qMakePair(data, size); });

        char buffer[4] = {};
        QCOMPARE(device->write(commandId, value, 1000), qint64(rejected ? 7 : proxyResult));
        QCOMPARE(device->ioctl(commandId, buffer, sizeof buffer, 10), qint64(rejected ? -1 : proxyResult));
        QCOMPARE(device->blacklistQueries,
            (rejected ? QList<quint16>{quint16(commandId), quint16(commandId)} : QList<quint16>()));
        QCOMPARE(device->read(buffer, sizeof buffer), qint64(withProxy ? proxyResult : -1));
        QCOMPARE(QByteArray(buffer, sizeof buffer), QByteArray(withProxy ? "\0\0\0z" : "\0\0\0\0", 4));
        QCOMPARE(proxy ? trace(*proxy) : Trace(), expectedTrace);
        if (!rejected) {
            const TestProxy::Call call = proxy->ioctls().value(0);
            QVERIFY(call.reply == buffer && call.size == sizeof buffer && call.timeoutMs == 10);
        }
        if (proxy) {
            proxy->emitReadyRead();
            proxy->emitReadyRead();
            proxy->emitDataReady(buffer, 3);
        }
        QCOMPARE(senders, QVector<const KrDeviceAbstraction *>(2 * adopted, device.data()).toList());
        QCOMPARE(chunks, (QVector<QPair<const char *, int>>(adopted, {buffer, 3}).toList()));
        device.reset();
        QCOMPARE(proxy.isNull(), !withProxy || adopted);
        delete proxy;
        QCOMPARE(reporter.reports(), QList<Report>());
    }

    void emptyFunctionsThrow()
    {
        CommandFormatters commands{{1, nullptr}};
        auto *proxy = new TestProxy;
        KrDeviceAbstraction device("dev", proxy, commands);
        char reply[4];
        // Spelled out: Qt 5 and Qt 6 name the QtTest macro for this differently.
        const auto throwsBadCall = [](const std::function<void()> &call) {
            try {
                call();
            } catch (const std::bad_function_call &) {
                return true;
            }
            return false;
        };
        QVERIFY(throwsBadCall([&] { device.write(1, 0, 1000); }));
        QVERIFY(throwsBadCall([&] { device.ioctl(1, reply, sizeof reply, 10); }));
        QVERIFY(throwsBadCall([&] { device.doCommand(nullptr, 1000); }));
        QCOMPARE(trace(*proxy), Trace());
        // Without a command thread a job is refused, unreported. By default no command is blacklisted.
        KrDeviceAbstraction threadless("dev", nullptr);
        QCOMPARE(threadless.doCommand([] { return qint64(1); }, 10), qint64(-1));
        QVERIFY(!threadless.commandBlacklisted(1));
    }

    // A timed-out job runs on: the next command, and the destructor, wait for it to end.
    void timeout()
    {
        RecordingReporter reporter;
        QSemaphore gate, entered;
        std::atomic<int> finished{0};
        int finishedAtDestruction = -1;
        auto *proxy = new TestProxy;
        proxy->onWrite = [&](const QByteArray &bytes) {
            entered.release();
            gate.acquire();
            ++finished;
            return qint64(bytes.size());
        };
        CommandFormatters commands = formatters();
        auto device = std::make_unique<CountingDevice>("dev", proxy, commands);
        device->atDestruction = [&] {
            finishedAtDestruction = finished;
            gate.release();
        };
        const auto unblock = qScopeGuard([&gate] { gate.release(1000); }); // should a check fail

        QCOMPARE(device->timeoutInMs(), quint32(4000));
        QCOMPARE(device->write(1, 1, 20), qint64(-1));
        QCOMPARE(reporter.reports(), QList<Report>{Pinned::timeout});
        QVERIFY(entered.tryAcquire(1, 5000));
        gate.release(2);
        QCOMPARE(device->write(1, 2, 5000), qint64(3));
        QCOMPARE(proxy->maxConcurrentWrites(), 1);
        QCOMPARE(trace(*proxy), (Trace{"write 1:1", "write 1:2"}));

        // The proxy, deleted with the device, asserts that no write is running.
        device->setTimeoutInMs(10);
        QCOMPARE(device->write(1, 3), qint64(-1));
        QVERIFY(entered.tryAcquire(2, 5000));
        device.reset();
        QCOMPARE((QList<int>{finishedAtDestruction, finished}), (QList<int>{2, 3}));
        QCOMPARE(reporter.reports(), (QList<Report>{Pinned::timeout, Pinned::timeout}));
    }
};

QTEST_GUILESS_MAIN(TestKrDeviceAbstraction)
#include "tst_krdeviceabstraction.moc"
