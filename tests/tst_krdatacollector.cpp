#include "messagerecorder.h"
#include "recordingreporter.h"
#include "testproxy.h"

#include <pal/krdatacollector.h>
#include <pal/krdatacollectorworker.h>

#include <QDeadlineTimer>
#include <QRegularExpression>
#include <QTest>
#include <QThread>

#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>

using Pal::KrDataCollector;
using Pal::KrDataCollectorWorker;

namespace {

const Report readFailedReport{44, QStringLiteral("krdatacollectorworker.cpp"), 98,
    QStringLiteral("void Pal::KrDataCollectorWorker::run()"), {QStringLiteral("the device proxy")}};

// What one proxy read returns, and the bytes it writes into the buffer.
using Reads = QList<QPair<qint64, QByteArray>>;
using Bytes = QList<QByteArray>;

// A proxy whose reads follow a script, and a record of what was read and emitted. Set the
// script before collect(); the mutex also orders, for the thread sanitizer, what the test
// reads afterwards.
class Probe : public TestProxy
{
    Q_OBJECT
public:
    struct Seen
    {
        QList<qint64> maxSizes; // one per read, from its start
        QList<QByteArray> buffers; // as emitted
        QList<QThread *> threads; // where each buffer was emitted
    };

    Reads reads;
    QPair<qint64, QByteArray> later; // every read after those in reads
    int holdMs = 0; // the first read blocks this long, or until release()

    KrDataCollector &collect(quint32 bufferSize, bool withProxy = true)
    {
        collector = std::make_unique<KrDataCollector>(withProxy ? this : nullptr, bufferSize);
        // By name: a functor connection made while the collector thread runs is published to
        // that thread inside Qt, where the thread sanitizer cannot see it.
        connect(
            collector.get(), SIGNAL(rawDataReady(QByteArray)), this, SLOT(record(QByteArray)), Qt::DirectConnection);
        return *collector;
    }
    bool waitForReads(int count)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(
            lock, std::chrono::seconds(2), [this, count] { return m_seen.maxSizes.size() >= count; });
    }
    void release()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_released = true;
        m_changed.notify_all();
    }
    Seen seen() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        // Detached under the lock: a shared copy released later would race with the collector
        // thread's appends, as Qt 5 checks sharing with a relaxed load.
        Seen copy = m_seen;
        copy.maxSizes.detach();
        copy.buffers.detach();
        copy.threads.detach();
        return copy;
    }

public Q_SLOTS:
    void record(const QByteArray &data)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_seen.buffers.append(data);
        m_seen.threads.append(QThread::currentThread());
    }

private:
    qint64 read(char *data, qint64 maxSize) override
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        const int index = m_seen.maxSizes.size();
        m_seen.maxSizes.append(maxSize);
        m_changed.notify_all();
        if (index == 0)
            m_changed.wait_for(lock, std::chrono::milliseconds(holdMs), [this] { return m_released; });
        const QPair<qint64, QByteArray> script = reads.value(index, later);
        std::memcpy(data, script.second.constData(), size_t(qMin(qint64(script.second.size()), maxSize)));
        return script.first;
    }

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    Seen m_seen;
    bool m_released = false;

public:
    std::unique_ptr<KrDataCollector> collector; // last, so that it goes first
};

} // namespace

class TestKrDataCollector : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    // The worker's meta-method indexes are part of its interface.
    void metaMethodOrder()
    {
        const QMetaObject &worker = KrDataCollectorWorker::staticMetaObject;
        QStringList methods;
        for (int i = worker.methodOffset(); i < worker.methodCount(); ++i)
            methods << QString::fromLatin1(worker.method(i).methodSignature());
        QCOMPARE(methods,
            (QStringList{"gotData(QByteArray)", "start()", "stop()", "run()", "abort()", "setDataBufferSize(uint)",
                "dataBufferSize()"}));
    }

    // Emitted on the collector thread, queued to this one without copying. The size changes
    // while the first read is under way. Destroying the started collector must not wait for
    // the one-minute park.
    void readResults_data()
    {
        QTest::addColumn<uint>("bufferSize");
        QTest::addColumn<uint>("laterSize");
        QTest::addColumn<Reads>("reads");
        QTest::addColumn<Bytes>("emitted");
        QTest::addColumn<int>("failures");
        const QByteArray zero(1, '\0');
        QTest::newRow("full buffer") << 4u << 4u << Reads{{4, "abcd"}} << Bytes{"abcd"} << 0;
        QTest::newRow("short read zero padded") << 6u << 6u << Reads{{2, "ab"}} << Bytes{"ab" + zero.repeated(4)} << 0;
        QTest::newRow("nothing read") << 4u << 4u << Reads{{0, ""}} << Bytes{} << 0;
        QTest::newRow("each failure reported")
            << 4u << 4u << Reads{{-1, ""}, {3, "xyz"}, {-1, ""}, {-1, ""}} << Bytes{"xyz" + zero} << 3;
        QTest::newRow("other negative counts as data") << 2u << 2u << Reads{{-2, "q"}} << Bytes{"q" + zero} << 0;
        QTest::newRow("count cut to 32 bits")
            << 2u << 2u << Reads{{Q_INT64_C(0x100000000), "a"}, {Q_INT64_C(0x1FFFFFFFF), "b"}} << Bytes{} << 1;
        QTest::newRow("size 0") << 0u << 0u << Reads{{0, ""}} << Bytes{} << 0;
        QTest::newRow("size change from next pass")
            << 4u << 2u << Reads{{1, "a"}, {1, "b"}} << Bytes{"a" + zero.repeated(3), "b" + zero} << 0;
    }
    void readResults()
    {
        QFETCH(uint, bufferSize);
        QFETCH(uint, laterSize);
        QFETCH(Reads, reads);
        QFETCH(Bytes, emitted);
        QFETCH(int, failures);
        RecordingReporter reporter;
        Probe probe;
        probe.reads = reads;
        probe.holdMs = 2000;
        KrDataCollector &collector = probe.collect(bufferSize);
        QThread *const collectorThread = collector.findChild<QThread *>();
        QList<QByteArray> delivered;
        connect(
            &collector, &KrDataCollector::rawDataReady, &probe,
            [&delivered](const QByteArray &data) { delivered << data; }, Qt::QueuedConnection);

        QVERIFY(collector.start());
        QVERIFY(probe.waitForReads(1));
        collector.setDataBufferSize(laterSize);
        QCOMPARE(collector.dataBufferSize(), laterSize);
        probe.release();
        // A pass begins after the previous one posted its event; waiting for it under the
        // probe's lock lets the thread sanitizer see that order, which Qt's queue hides.
        QVERIFY(probe.waitForReads(reads.size() + 1));
        QCoreApplication::sendPostedEvents();
        const QDeadlineTimer deadline(1000);
        probe.collector.reset();
        QVERIFY(!deadline.hasExpired());

        const Probe::Seen seen = probe.seen();
        QCOMPARE(seen.buffers, emitted);
        QCOMPARE(delivered, emitted);
        QVERIFY(emitted.isEmpty() || delivered.first().constData() == seen.buffers.first().constData());
        QCOMPARE(seen.threads, QVector<QThread *>(emitted.size(), collectorThread).toList());
        QCOMPARE(reporter.reports(), QVector<Report>(failures, readFailedReport).toList());
        QCOMPARE(seen.maxSizes.mid(0, 2), (QList<qint64>{bufferSize, laterSize}));
    }

    // Run directly, the worker parks first; start() and stop() before run() leave a spare permit.
    // With it the worker makes exactly one pass, and a stop() during that pass waits for it,
    // emission included.
    void workerSparePermitAndStopWaitingForPass()
    {
        Probe probe;
        probe.later = {1, "w"};
        probe.holdMs = 30;
        KrDataCollectorWorker worker(&probe, 2);
        connect(&worker, SIGNAL(gotData(QByteArray)), &probe, SLOT(record(QByteArray)), Qt::DirectConnection);
        worker.start();
        worker.stop();
        std::thread polling([&worker] { worker.run(); });

        QVERIFY(probe.waitForReads(1));
        worker.stop();
        QCOMPARE(probe.seen().buffers, QList<QByteArray>{QByteArray("w\0", 2)});
        worker.abort();
        polling.join();
        QCOMPARE(probe.seen().maxSizes, QList<qint64>{2});
    }

    // A read still running 100 ms after the destructor stopped and aborted the worker is waited
    // for, with a warning. That takes the pass of a spare permit, which only a start() racing
    // the worker's first park leaves; each attempt starts right after construction.
    void destructorWaitsForSlowPassPast100Ms()
    {
        MessageRecorder recorder;
        QStringList messages;
        for (int attempt = 0; attempt < 10 && messages.isEmpty(); ++attempt) {
            Probe probe;
            probe.holdMs = 200;
            probe.collect(1).start();
            QVERIFY(probe.waitForReads(1));
            probe.collector.reset();
            messages = recorder.takeMessages();
        }
        // A Debug build adds the source file to the message.
        messages.replaceInStrings(QRegularExpression(" @.*$"), QString());
        QCOMPARE(messages,
            QStringList{QStringLiteral("warning default: Pal::KrDataCollector: the collector thread has not finished "
                                       "within 100 ms; waiting for the device proxy's read to return")});
    }

    // Mainly for the thread sanitizer: the start/stop handshake under load, with size changes.
    // A null proxy gives a collector that never polls, yet starts and stops.
    void startStopCycles_data()
    {
        QTest::addColumn<bool>("withProxy");
        QTest::newRow("proxy") << true;
        QTest::newRow("null proxy") << false;
    }
    void startStopCycles()
    {
        QFETCH(bool, withProxy);
        if (!withProxy)
            QTest::ignoreMessage(QtCriticalMsg,
                "Pal::KrDataCollectorWorker: no device proxy given; this data collector will never poll");
        Probe probe;
        probe.later = {1, "z"};
        KrDataCollector &collector = probe.collect(2, withProxy);
        QVERIFY(collector.stop() && !collector.hasStarted());
        for (int cycle = 0; cycle < 200; ++cycle) {
            QVERIFY(collector.start() && collector.start() && collector.hasStarted());
            QVERIFY(!withProxy || probe.waitForReads(cycle + 1)); // so stop() finds it polling
            collector.setDataBufferSize(1 + cycle % 3);
            QVERIFY(collector.stop() && collector.stop() && !collector.hasStarted());
        }
        probe.collector.reset();
        QVERIFY(withProxy || probe.seen().buffers.isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestKrDataCollector)
#include "tst_krdatacollector.moc"
