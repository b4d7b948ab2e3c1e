#include "recordingreporter.h"
#include "testproxy.h"

#include <pal/krdatacollector.h>
#include <pal/krdatacollectorworker.h>

#include <QElapsedTimer>
#include <QMetaMethod>
#include <QPointer>
#include <QScopeGuard>
#include <QTest>
#include <QThread>

#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

using Pal::KrDataCollector;
using Pal::KrDataCollectorWorker;

namespace {

// Bounds waits for what happens at once; only a failing test waits this long.
constexpr int waitMs = 2000;

// A copy that shares nothing with @p list: a shared copy would be released outside the lock
// while the collector thread appends, and Qt 5 checks sharing with a relaxed load.
template<typename T>
QList<T> unshared(const QList<T> &list)
{
    return QList<T>(list.begin(), list.end());
}

const Report readFailedReport{44, QStringLiteral("krdatacollectorworker.cpp"), 98,
    QStringLiteral("void Pal::KrDataCollectorWorker::run()"), {QStringLiteral("the device proxy")}};

// The reads a proxy answers on the collector thread. Read i (from 0) writes fills[i] and
// returns results[i]; later reads write laterFill and return laterResult. Read holdRead
// waits up to holdMs or until release(). The mutex also orders what the test reads after.
class ReadScript
{
public:
    QList<qint64> results;
    QList<QByteArray> fills;
    qint64 laterResult = 0;
    QByteArray laterFill;
    int holdRead = -1;
    int holdMs = 0;

    void attach(TestProxy &proxy)
    {
        proxy.onRead = [this](char *data, qint64 maxSize) { return read(data, maxSize); };
    }
    qint64 read(char *data, qint64 maxSize)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        const int index = m_maxSizes.size();
        m_maxSizes.append(maxSize);
        m_inRead = true;
        m_changed.notify_all();
        if (index == holdRead)
            m_changed.wait_for(lock, std::chrono::milliseconds(holdMs), [this] { return m_released; });
        const QByteArray fill = index < fills.size() ? fills.at(index) : laterFill;
        std::memcpy(data, fill.constData(), size_t(qMin(qint64(fill.size()), maxSize)));
        m_inRead = false;
        m_changed.notify_all();
        return index < results.size() ? results.at(index) : laterResult;
    }
    bool waitForReads(int count)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(
            lock, std::chrono::milliseconds(waitMs), [this, count] { return m_maxSizes.size() >= count; });
    }
    void release()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_released = true;
        m_changed.notify_all();
    }
    QList<qint64> maxSizes() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return unshared(m_maxSizes);
    }
    bool inRead() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_inRead;
    }

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    QList<qint64> m_maxSizes;
    bool m_inRead = false;
    bool m_released = false;
};

// What rawDataReady delivered, recorded on the emitting thread. It must outlive the collector.
// Connected by name: a functor connection made while the collector thread runs is published to
// that thread inside Qt, where the thread sanitizer cannot see it.
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
        return unshared(m_buffers);
    }
    QList<QThread *> threads() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return unshared(m_threads);
    }

private Q_SLOTS:
    void append(const QByteArray &data)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_buffers.append(data);
        m_threads.append(QThread::currentThread());
    }

private:
    mutable std::mutex m_mutex;
    QList<QByteArray> m_buffers;
    QList<QThread *> m_threads;
};

// Warnings logged while a test watches, from any thread.
std::mutex s_logMutex;
QStringList s_warnings;
void recordWarnings(QtMsgType type, const QMessageLogContext &, const QString &message)
{
    const std::lock_guard<std::mutex> lock(s_logMutex);
    if (type == QtWarningMsg)
        s_warnings.append(message);
}

} // namespace

class TestKrDataCollector : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void metaMethodOrder_data()
    {
        QTest::addColumn<bool>("ofWorker");
        QTest::addColumn<int>("index");
        QTest::addColumn<QByteArray>("signature");
        QTest::addColumn<int>("type");
        const bool worker = true;
        const int signal = QMetaMethod::Signal;
        const int slot = QMetaMethod::Slot;
        QTest::newRow("collector rawDataReady") << false << 0 << QByteArray("rawDataReady(QByteArray)") << signal;
        QTest::newRow("worker gotData") << worker << 0 << QByteArray("gotData(QByteArray)") << signal;
        QTest::newRow("worker start") << worker << 1 << QByteArray("start()") << slot;
        QTest::newRow("worker stop") << worker << 2 << QByteArray("stop()") << slot;
        QTest::newRow("worker run") << worker << 3 << QByteArray("run()") << slot;
        QTest::newRow("worker abort") << worker << 4 << QByteArray("abort()") << slot;
        QTest::newRow("worker setDataBufferSize") << worker << 5 << QByteArray("setDataBufferSize(uint)") << slot;
        QTest::newRow("worker dataBufferSize") << worker << 6 << QByteArray("dataBufferSize()") << slot;
    }
    void metaMethodOrder()
    {
        QFETCH(bool, ofWorker);
        QFETCH(int, index);
        QFETCH(QByteArray, signature);
        QFETCH(int, type);
        const QMetaObject *metaObject
            = ofWorker ? &KrDataCollectorWorker::staticMetaObject : &KrDataCollector::staticMetaObject;
        const QMetaMethod method = metaObject->method(metaObject->methodOffset() + index);
        QCOMPARE(method.methodSignature(), signature);
        QCOMPARE(int(method.methodType()), type);
        QCOMPARE(metaObject->methodCount() - metaObject->methodOffset(), ofWorker ? 7 : 1);
    }

    void readResults_data()
    {
        QTest::addColumn<uint>("bufferSize");
        QTest::addColumn<QList<qint64>>("results");
        QTest::addColumn<QList<QByteArray>>("fills");
        QTest::addColumn<QList<QByteArray>>("emitted");
        QTest::addColumn<int>("failures");
        const QByteArray zero(1, '\0');
        QTest::newRow("full buffer") << 4u << QList<qint64>{4} << QList<QByteArray>{"abcd"} << QList<QByteArray>{"abcd"}
                                     << 0;
        QTest::newRow("short read zero padded")
            << 6u << QList<qint64>{2} << QList<QByteArray>{"ab"} << QList<QByteArray>{"ab" + zero.repeated(4)} << 0;
        QTest::newRow("nothing read") << 4u << QList<qint64>{0} << QList<QByteArray>{""} << QList<QByteArray>{} << 0;
        QTest::newRow("each failure reported")
            << 4u << QList<qint64>{-1, 3, -1, -1} << QList<QByteArray>{"", "xyz", "", ""}
            << QList<QByteArray>{"xyz" + zero} << 3;
        QTest::newRow("other negative counts as data")
            << 2u << QList<qint64>{-2} << QList<QByteArray>{"q"} << QList<QByteArray>{"q" + zero} << 0;
        QTest::newRow("count cut to 32 bits") << 2u << QList<qint64>{Q_INT64_C(0x100000000), Q_INT64_C(0x1FFFFFFFF)}
                                              << QList<QByteArray>{"a", "b"} << QList<QByteArray>{} << 1;
        QTest::newRow("size 0") << 0u << QList<qint64>{0} << QList<QByteArray>{""} << QList<QByteArray>{} << 0;
    }
    void readResults()
    {
        QFETCH(uint, bufferSize);
        QFETCH(QList<qint64>, results);
        QFETCH(QList<QByteArray>, fills);
        QFETCH(QList<QByteArray>, emitted);
        QFETCH(int, failures);
        RecordingReporter reporter;
        TestProxy proxy;
        ReadScript script;
        script.results = results;
        script.fills = fills;
        script.attach(proxy);
        Emissions emissions;
        KrDataCollector collector(&proxy, bufferSize);
        emissions.record(collector);

        QVERIFY(collector.start());
        QVERIFY(script.waitForReads(results.size() + 1));
        QVERIFY(collector.stop());

        QCOMPARE(emissions.buffers(), emitted);
        QCOMPARE(reporter.reports(), QVector<Report>(failures, readFailedReport).toList());
        QCOMPARE(script.maxSizes().first(), qint64(bufferSize));
    }

    void startAndStopAreIdempotent()
    {
        TestProxy proxy;
        ReadScript script;
        script.attach(proxy);
        KrDataCollector collector(&proxy, 8);
        QCOMPARE(collector.hasStarted(), false);
        QCOMPARE(collector.stop(), true);
        QCOMPARE(collector.hasStarted(), false);
        QCOMPARE(collector.start(), true);
        QCOMPARE(collector.start(), true);
        QCOMPARE(collector.hasStarted(), true);
        QVERIFY(script.waitForReads(1));
        QCOMPARE(collector.stop(), true);
        QCOMPARE(collector.stop(), true);
        QCOMPARE(collector.hasStarted(), false);
    }

    // Run directly, the worker parks first; start() and stop() before run() leave a spare permit.
    // With it the worker makes exactly one pass, and a stop() during that pass waits for it,
    // emission included.
    void workerSparePermitAndStopWaitingForPass()
    {
        TestProxy proxy;
        ReadScript script;
        script.laterResult = 1;
        script.laterFill = "w";
        script.holdRead = 0;
        script.holdMs = 30;
        script.attach(proxy);
        KrDataCollectorWorker worker(&proxy, 2);
        QList<QByteArray> emitted; // written by the polling thread before stop() returns
        connect(
            &worker, &KrDataCollectorWorker::gotData, &worker, [&emitted](const QByteArray &data) { emitted << data; },
            Qt::DirectConnection);
        worker.start();
        worker.stop();
        std::thread polling([&worker] { worker.run(); });

        QVERIFY(script.waitForReads(1));
        worker.stop();
        QVERIFY(!script.inRead());
        QCOMPARE(emitted, QList<QByteArray>{QByteArray("w\0", 2)});
        worker.abort();
        polling.join();
        QCOMPARE(script.maxSizes(), QList<qint64>{2});
    }

    // Only the pass in flight and the pass of a spare permit may still emit after stop().
    void atMostTwoPassesAfterStop()
    {
        TestProxy proxy;
        ReadScript script;
        script.laterResult = 1;
        script.laterFill = "t";
        script.attach(proxy);
        Emissions emissions;
        int readsAtStop = 0;
        int emittedAtStop = 0;
        {
            KrDataCollector collector(&proxy, 1);
            emissions.record(collector);
            collector.start();
            QVERIFY(script.waitForReads(3));
            collector.stop();
            readsAtStop = script.maxSizes().size();
            emittedAtStop = emissions.buffers().size();
        }
        QVERIFY(emittedAtStop >= readsAtStop - 1);
        QVERIFY(script.maxSizes().size() <= readsAtStop + 2);
    }

    void emitsOnCollectorThreadAndQueuesToMainThread()
    {
        TestProxy proxy;
        ReadScript script;
        script.results = {3};
        script.fills = {"abc"};
        script.attach(proxy);
        Emissions emissions;
        KrDataCollector collector(&proxy, 3);
        emissions.record(collector);
        QObject receiver;
        QThread *deliveredOn = nullptr;
        QByteArray delivered;
        connect(
            &collector, &KrDataCollector::rawDataReady, &receiver,
            [&](const QByteArray &data) {
                deliveredOn = QThread::currentThread();
                delivered = data;
            },
            Qt::QueuedConnection);

        collector.start();
        // The next pass begins after the emission has posted its event. Waiting for it under
        // the script's lock also lets the thread sanitizer see that order, which Qt's event
        // queue hides from it.
        QVERIFY(script.waitForReads(2));
        collector.stop();
        QCOMPARE(deliveredOn, nullptr);
        QCoreApplication::sendPostedEvents();

        QCOMPARE(delivered, QByteArray("abc"));
        QCOMPARE(deliveredOn, QThread::currentThread());
        QCOMPARE(emissions.threads(), QList<QThread *>{collector.findChild<QThread *>()});
        QVERIFY(emissions.threads().first() != QThread::currentThread());
        // Queued on, not copied: the receiver holds the very bytes that were emitted.
        QCOMPARE(static_cast<const void *>(delivered.constData()),
            static_cast<const void *>(emissions.buffers().first().constData()));
    }

    void bufferSizeChangeAppliesFromNextPass()
    {
        TestProxy proxy;
        ReadScript script;
        script.results = {1, 1};
        script.fills = {"a", "b"};
        script.holdRead = 0;
        script.holdMs = waitMs;
        script.attach(proxy);
        Emissions emissions;
        KrDataCollector collector(&proxy, 4);
        emissions.record(collector);

        collector.start();
        QVERIFY(script.waitForReads(1));
        collector.setDataBufferSize(2);
        QCOMPARE(collector.dataBufferSize(), 2u);
        script.release();
        QVERIFY(script.waitForReads(3));
        collector.stop();

        QCOMPARE(script.maxSizes().mid(0, 3), (QList<qint64>{4, 2, 2}));
        QCOMPARE(emissions.buffers(), (QList<QByteArray>{QByteArray("a\0\0\0", 4), QByteArray("b\0", 2)}));
    }

    // A guard against a hang (the one-minute park), not a speed check.
    void destroyingStartedCollectorReturnsPromptly()
    {
        TestProxy proxy;
        ReadScript script;
        script.attach(proxy);
        QElapsedTimer timer;
        QPointer<QThread> thread;
        {
            KrDataCollector collector(&proxy, 16);
            thread = collector.findChild<QThread *>();
            collector.start(); // most likely before the worker first parked: a spare permit
            QVERIFY(script.waitForReads(1));
            timer.start();
        }
        QVERIFY2(timer.elapsed() < 1000, qPrintable(QString::number(timer.elapsed())));
        QVERIFY(thread.isNull());
        QVERIFY(!script.inRead());
    }

    // A read still running 100 ms after the destructor stopped and aborted the worker is waited
    // for, with a warning. That takes the pass of a spare permit, which only a start() racing
    // the worker's first park leaves; each attempt starts right after construction.
    void destructorWaitsForSlowPassPast100Ms()
    {
        const QtMessageHandler previous = qInstallMessageHandler(recordWarnings);
        const auto restore = qScopeGuard([previous] { qInstallMessageHandler(previous); });
        QStringList warnings;
        for (int attempt = 0; attempt < 10 && warnings.isEmpty(); ++attempt) {
            TestProxy proxy;
            ReadScript script;
            script.holdRead = 0;
            script.holdMs = 200;
            script.attach(proxy);
            {
                KrDataCollector collector(&proxy, 1);
                collector.start();
                QVERIFY(script.waitForReads(1));
            }
            QVERIFY(!script.inRead());
            QCOMPARE(script.maxSizes().size(), 1);
            const std::lock_guard<std::mutex> lock(s_logMutex);
            warnings = s_warnings;
            s_warnings.clear();
        }
        QCOMPARE(warnings,
            QStringList{QStringLiteral("Pal::KrDataCollector: the collector thread has not finished within 100 ms; "
                                       "waiting for the device proxy's read to return")});
    }

    void nullProxyNeverPolls()
    {
        QTest::ignoreMessage(
            QtCriticalMsg, "Pal::KrDataCollectorWorker: no device proxy given; this data collector will never poll");
        Emissions emissions;
        {
            KrDataCollector collector(nullptr, 4);
            emissions.record(collector);
            QVERIFY(collector.start());
            QVERIFY(collector.hasStarted());
            QVERIFY(collector.stop());
            QVERIFY(collector.start());
        }
        QCOMPARE(emissions.buffers(), QList<QByteArray>{});
    }

    void manyStartStopCycles()
    {
        RecordingReporter reporter;
        TestProxy proxy;
        ReadScript script;
        script.laterResult = 1;
        script.laterFill = "z";
        script.attach(proxy);
        Emissions emissions;
        {
            KrDataCollector collector(&proxy, 2);
            emissions.record(collector);
            for (int cycle = 0; cycle < 200; ++cycle) {
                QVERIFY(collector.start());
                if (cycle % 8 == 0)
                    collector.setDataBufferSize(1 + cycle % 3);
                QVERIFY(collector.stop());
                QVERIFY(!collector.hasStarted());
            }
        }
        QCOMPARE(reporter.count(), 0);
    }
};

QTEST_GUILESS_MAIN(TestKrDataCollector)
#include "tst_krdatacollector.moc"
