// A device whose proxy hangs on every other write, driven through hundreds of commands with
// time-outs of a few milliseconds, then destroyed while a command still runs. Every command
// runs exactly once, in order and alone; every time-out is reported once; nothing outlives
// the device.

#include "recordingreporter.h"
#include "testproxy.h"

#include <pal/krdeviceabstraction.h>

#include <QSemaphore>
#include <QTest>

#include <atomic>

using Pal::CommandFormatters;
using Pal::KrDeviceAbstraction;

namespace {

constexpr int commandCount = 300;

CommandFormatters echoFormatters()
{
    return {{1, [](quint16 id, const QVariant &value) -> QByteArray {
                 return QByteArray::number(id) + ':' + value.toByteArray();
             }}};
}

// Hangs every other write (the second, the fourth, ...) until the test lets it go, which it
// does only once the caller has given up on the command. A write left hanging for ten seconds
// means a lost permit, and is counted instead of blocking the suite.
struct HangingWrites
{
    QSemaphore gate;
    std::atomic<int> started{0};
    std::atomic<int> finished{0};
    std::atomic<int> stuck{0};

    void attach(TestProxy *proxy)
    {
        proxy->onWrite = [this](const QByteArray &bytes) {
            if (started++ % 2 == 1 && !gate.tryAcquire(1, 10000))
                ++stuck;
            ++finished;
            return qint64(bytes.size());
        };
    }
};

// Lets the hanging write go as its own destruction begins, so that the device abstraction's
// destructor finds the command still running.
class DestroyedMidCommand : public KrDeviceAbstraction
{
    Q_OBJECT
public:
    DestroyedMidCommand(
        TestProxy *proxy, CommandFormatters &formatters, HangingWrites &writes, int &finishedAtDestruction)
        : KrDeviceAbstraction("dev", proxy, formatters)
        , m_writes(writes)
        , m_finishedAtDestruction(finishedAtDestruction)
    {
    }
    ~DestroyedMidCommand() override
    {
        m_finishedAtDestruction = m_writes.finished;
        m_writes.gate.release();
    }

private:
    HangingWrites &m_writes;
    int &m_finishedAtDestruction;
};

} // namespace

class TestKrDeviceAbstractionStress : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void hundredsOfCommandsOnAHangingProxy()
    {
        RecordingReporter reporter;
        auto *proxy = new TestProxy;
        HangingWrites writes;
        writes.attach(proxy);
        CommandFormatters formatters = echoFormatters();
        KrDeviceAbstraction device("dev", proxy, formatters);

        QList<QByteArray> sent;
        int timedOut = 0;
        for (int i = 0; i < commandCount; ++i) {
            const qint64 result = device.write(1, i, quint32(i % 4));
            sent << "1:" + QByteArray::number(i);
            if (i % 2 == 1) {
                QCOMPARE(result, qint64(-1));
                writes.gate.release();
            } else if (result != -1) {
                QCOMPARE(result, qint64(sent.last().size()));
            }
            timedOut += result == -1;
        }
        // Waits for the last hung command, then runs to its end.
        QCOMPARE(device.write(1, QStringLiteral("last"), 10000), qint64(6));
        sent << "1:last";

        QCOMPARE(writes.stuck.load(), 0);
        QList<QByteArray> written;
        for (const TestProxy::Call &call : proxy->writes())
            written << call.bytes;
        QCOMPARE(written, sent);
        QCOMPARE(proxy->maxConcurrentWrites(), 1);
        QCOMPARE(reporter.reports(), QVector<Report>(timedOut, Pinned::timeout).toList());
        QVERIFY(timedOut >= commandCount / 2);
        qInfo("%d commands, %d hung, %d timed out", commandCount + 1, commandCount / 2, timedOut);
    }

    void destroyedWhileACommandRuns()
    {
        RecordingReporter reporter;
        CommandFormatters formatters = echoFormatters();
        const int rounds = 20;
        for (int round = 0; round < rounds; ++round) {
            HangingWrites writes;
            auto *proxy = new TestProxy;
            writes.attach(proxy);
            int finishedAtDestruction = -1;
            auto *device = new DestroyedMidCommand(proxy, formatters, writes, finishedAtDestruction);
            QCOMPARE(device->write(1, 0, 10000), qint64(3));
            QCOMPARE(device->write(1, 1, quint32(round % 3)), qint64(-1));

            const int proxiesDestroyed = TestProxy::s_destroyed;
            // The proxy, a child of the device, asserts that no write runs when it is destroyed.
            delete device;
            QCOMPARE(finishedAtDestruction, 1);
            QCOMPARE(writes.finished.load(), 2);
            QCOMPARE(TestProxy::s_destroyed.load(), proxiesDestroyed + 1);
            QCOMPARE(writes.stuck.load(), 0);
        }
        QCOMPARE(reporter.reports(), QVector<Report>(rounds, Pinned::timeout).toList());
    }
};

QTEST_GUILESS_MAIN(TestKrDeviceAbstractionStress)
#include "tst_krdeviceabstractionstress.moc"
