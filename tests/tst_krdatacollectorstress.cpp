// A data collector switched on and off thousands of times, and collectors destroyed while
// started with a spare wake-up permit. Whatever the timing, every buffer read with data is
// emitted exactly once, whole and in order, every failed read is reported once, and nothing
// reads or emits once the collector is gone.

#include "recordingreporter.h"
#include "testproxy.h"

#include <pal/krdatacollector.h>

#include <QPointer>
#include <QTest>
#include <QThread>

#include <condition_variable>
#include <cstring>
#include <mutex>

using Pal::KrDataCollector;

namespace {

constexpr int cycleCount = 3000;
constexpr int destructionRounds = 200;

const Report readFailedReport{44, QStringLiteral("krdatacollectorworker.cpp"), 98,
    QStringLiteral("void Pal::KrDataCollectorWorker::run()"), {QStringLiteral("the device proxy")}};

// Answers the collector's reads in a fixed pattern by read number: nothing, data (the read
// number in the first bytes), data, a failure, nothing. Records what it answered, so that
// the test can tell which buffers must have been emitted. The first read may be held until
// the test releases it, or for heldMs at most.
class Device
{
public:
    explicit Device(TestProxy &proxy, int heldMs = 0)
        : m_heldMs(heldMs)
    {
        proxy.onRead = [this](char *data, qint64 maxSize) { return read(data, maxSize); };
    }

    QList<QByteArray> expectedBuffers() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return QList<QByteArray>(m_dataBuffers.begin(), m_dataBuffers.end());
    }
    int reads() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_reads;
    }
    int failures() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_failures;
    }
    bool inRead() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_inRead;
    }
    bool waitForReads(int count)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::seconds(5), [&] { return m_reads >= count; });
    }
    void release()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_released = true;
        m_changed.notify_all();
    }
    // From now on a read is a fault: the collector that made it is gone.
    void collectorGone()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_gone = true;
    }
    int readsAfterGone() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_readsAfterGone;
    }

private:
    qint64 read(char *data, qint64 maxSize)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        const int number = m_reads++;
        m_readsAfterGone += m_gone;
        m_inRead = true;
        m_changed.notify_all();
        if (number == 0 && m_heldMs > 0)
            m_changed.wait_for(lock, std::chrono::milliseconds(m_heldMs), [this] { return m_released; });
        m_inRead = false;
        switch (number % 5) {
        case 1:
        case 2: {
            const qint64 count = qMin<qint64>(maxSize, qint64(sizeof number));
            std::memcpy(data, &number, size_t(count));
            QByteArray buffer(int(maxSize), '\0');
            std::memcpy(buffer.data(), &number, size_t(count));
            if (count > 0)
                m_dataBuffers.append(buffer);
            return count;
        }
        case 3:
            ++m_failures;
            return -1;
        default:
            return 0;
        }
    }

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    const int m_heldMs;
    int m_reads = 0;
    int m_failures = 0;
    int m_readsAfterGone = 0;
    bool m_inRead = false;
    bool m_released = false;
    bool m_gone = false;
    QList<QByteArray> m_dataBuffers;
};

// What rawDataReady delivered, on whichever thread. Connected by name and directly, as the
// collector's own tests do.
class Emissions : public QObject
{
    Q_OBJECT
public:
    void record(KrDataCollector &collector)
    {
        connect(&collector, SIGNAL(rawDataReady(QByteArray)), this, SLOT(append(QByteArray)), Qt::DirectConnection);
    }
    QList<QByteArray> buffers() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return QList<QByteArray>(m_buffers.begin(), m_buffers.end());
    }

private Q_SLOTS:
    void append(const QByteArray &data)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_buffers.append(data);
    }

private:
    mutable std::mutex m_mutex;
    QList<QByteArray> m_buffers;
};

} // namespace

class TestKrDataCollectorStress : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void startedAndStoppedThousandsOfTimes()
    {
        RecordingReporter reporter;
        TestProxy proxy;
        Device device(proxy);
        Emissions emissions;
        {
            KrDataCollector collector(&proxy, 8);
            emissions.record(collector);
            for (int cycle = 0; cycle < cycleCount; ++cycle) {
                QVERIFY(collector.start());
                QVERIFY(collector.hasStarted());
                if (cycle % 500 == 0)
                    collector.setDataBufferSize(collector.dataBufferSize() == 8 ? 2 : 8);
                // Now and then the worker gets to poll for a while before it is stopped.
                if (cycle % 25 == 0)
                    QVERIFY(device.waitForReads(device.reads() + 3));
                QVERIFY(collector.stop());
                QVERIFY(!collector.hasStarted());
            }
            QVERIFY(collector.start());
        }
        device.collectorGone();

        QCOMPARE(emissions.buffers(), device.expectedBuffers());
        QCOMPARE(reporter.reports(), QVector<Report>(device.failures(), readFailedReport).toList());
        QCOMPARE(device.readsAfterGone(), 0);
        qInfo("%d start/stop cycles, %d reads, %d buffers emitted, %d failed reads reported", cycleCount,
            device.reads(), int(emissions.buffers().size()), device.failures());
    }

    // The start() right after construction nearly always comes before the worker first parks,
    // which leaves a spare permit: a stop() during the first read then returns at once, the
    // worker still counting as idle. The collector is started again and destroyed while that
    // read is under way.
    void destroyedWhileStartedWithASparePermit()
    {
        RecordingReporter reporter;
        int failures = 0;
        int spare = 0;
        for (int round = 0; round < destructionRounds; ++round) {
            TestProxy proxy;
            Device device(proxy, 20);
            Emissions emissions;
            QPointer<QThread> thread;
            {
                KrDataCollector collector(&proxy, 4);
                emissions.record(collector);
                thread = collector.findChild<QThread *>();
                collector.start();
                QVERIFY(device.waitForReads(1));
                collector.stop();
                spare += device.inRead();
                collector.start();
                device.release();
            }
            device.collectorGone();
            QVERIFY(thread.isNull());
            QVERIFY(!device.inRead());
            QCOMPARE(device.readsAfterGone(), 0);
            QCOMPARE(emissions.buffers(), device.expectedBuffers());
            failures += device.failures();
        }
        QCOMPARE(reporter.reports(), QVector<Report>(failures, readFailedReport).toList());
        qInfo("%d collectors destroyed while started, %d of them with a spare permit", destructionRounds, spare);
    }
};

QTEST_GUILESS_MAIN(TestKrDataCollectorStress)
#include "tst_krdatacollectorstress.moc"
