#include "messagerecorder.h"
#include "recordingreporter.h"
#include "testproxy.h"

#include <pal/krdatacollector.h>
#include <pal/krdatacollectorworker.h>

#include <QSemaphore>
#include <QSet>
#include <QTest>
#include <QThread>

#include <thread>

using Pal::KrDataCollector;
using Pal::KrDataCollectorWorker;

using Answers = QList<TestProxy::Answer>;
using Bytes = QList<QByteArray>;

namespace {

class SlowFinish : public QObject
{
    Q_OBJECT
public Q_SLOTS:
    void finishing() { QSemaphore().tryAcquire(1, 150); }
};

} // namespace

class TestKrDataCollector : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    // Emitted on the collector thread, queued here without copying; the size changed during the
    // first read. Destroying the started collector does not wait for the one-minute park.
    void readResults_data()
    {
        QTest::addColumn<uint>("bufferSize");
        QTest::addColumn<uint>("laterSize");
        QTest::addColumn<Answers>("script");
        QTest::addColumn<Bytes>("emitted");
        QTest::addColumn<int>("failures");
        const QByteArray zero(1, '\0');
        QTest::newRow("full buffer") << 4u << 4u << Answers{{4, "abcd"}} << Bytes{"abcd"} << 0;
        QTest::newRow("short read zero padded")
            << 6u << 6u << Answers{{2, "ab"}} << Bytes{"ab" + zero.repeated(4)} << 0;
        QTest::newRow("nothing read") << 4u << 4u << Answers{{0, ""}} << Bytes{} << 0;
        QTest::newRow("each failure reported")
            << 4u << 4u << Answers{{-1, ""}, {3, "xyz"}, {-1, ""}, {-1, ""}} << Bytes{"xyz" + zero} << 3;
        QTest::newRow("other negative counts as data") << 2u << 2u << Answers{{-2, "q"}} << Bytes{"q" + zero} << 0;
        QTest::newRow("count cut to 32 bits")
            << 2u << 2u << Answers{{Q_INT64_C(0x100000000), "a"}, {Q_INT64_C(0x1FFFFFFFF), "b"}} << Bytes{} << 1;
        QTest::newRow("size 0") << 0u << 0u << Answers{{0, ""}} << Bytes{} << 0;
        QTest::newRow("size change from next pass")
            << 4u << 2u << Answers{{1, "a"}, {1, "b"}} << Bytes{"a" + zero.repeated(3), "b" + zero} << 0;
    }
    void readResults()
    {
        QFETCH(uint, bufferSize);
        QFETCH(uint, laterSize);
        QFETCH(Answers, script);
        QFETCH(Bytes, emitted);
        QFETCH(int, failures);
        RecordingReporter reporter;
        TestProxy proxy;
        proxy.script = script;
        proxy.holdMs = 2000;
        auto collector = std::make_unique<KrDataCollector>(&proxy, bufferSize);
        // By name and directly: a functor connection made while the collector thread runs is
        // published to that thread inside Qt, where the thread sanitizer cannot see it.
        connect(
            collector.get(), SIGNAL(rawDataReady(QByteArray)), &proxy, SLOT(record(QByteArray)), Qt::DirectConnection);
        QList<QByteArray> delivered;
        connect(
            collector.get(), &KrDataCollector::rawDataReady, &proxy,
            [&delivered](const QByteArray &data) { delivered << data; }, Qt::QueuedConnection);

        QVERIFY(collector->start());
        QVERIFY(proxy.waitFor(1));
        collector->setDataBufferSize(laterSize);
        proxy.release();
        // A pass begins after the previous one posted its event; waiting for it under the
        // proxy's lock lets the thread sanitizer see that order, which Qt's queue hides.
        QVERIFY(proxy.waitFor(script.size() + 1));
        QCoreApplication::sendPostedEvents();
        collector.reset();

        QCOMPARE(proxy.emitted(), emitted);
        QCOMPARE(delivered, emitted);
        QVERIFY(emitted.isEmpty() || delivered.first().constData() == proxy.emitted().first().constData());
        const QList<Qt::HANDLE> threads = proxy.emittedOn();
        QVERIFY(!threads.contains(QThread::currentThreadId())
            && QSet<Qt::HANDLE>(threads.begin(), threads.end()).size() == qMin(1, emitted.size()));
        QCOMPARE(reporter.reports(), QVector<Report>(failures, Pinned::readFailed).toList());
        const QList<TestProxy::Call> reads = proxy.reads();
        QCOMPARE((QList<quint32>{reads.value(0).size, reads.value(1).size}), (QList<quint32>{bufferSize, laterSize}));
    }

    // start() and stop() before run() leave a spare permit: the worker makes exactly one pass, and a
    // stop() during that pass waits for it, emission included.
    void workerSparePermitAndStopWaitingForPass()
    {
        TestProxy proxy;
        proxy.later = {1, "w"};
        proxy.holdMs = 30;
        KrDataCollectorWorker worker(&proxy, 2);
        connect(&worker, SIGNAL(gotData(QByteArray)), &proxy, SLOT(record(QByteArray)), Qt::DirectConnection);
        worker.start();
        worker.stop();
        std::thread polling([&worker] { worker.run(); });

        QVERIFY(proxy.waitFor(1));
        worker.stop();
        QCOMPARE(proxy.emitted(), QList<QByteArray>{QByteArray("w\0", 2)});
        worker.abort();
        polling.join();
        QCOMPARE(proxy.reads().size(), 1);
    }

    // The destructor waits for the collector thread however long it takes, and says so after 100 ms.
    void destructorWaitsForSlowThread()
    {
        TestProxy proxy;
        auto collector = std::make_unique<KrDataCollector>(&proxy, 1);
        SlowFinish slow;
        connect(collector->findChild<QThread *>(), SIGNAL(finished()), &slow, SLOT(finishing()), Qt::DirectConnection);
        MessageRecorder recorder;
        collector.reset();
        QCOMPARE(recorder.takeMessages(),
            QStringList("warning default: Pal::KrDataCollector: the collector thread has not finished within 100 ms; "
                        "waiting for the device proxy's read to return"));
    }

    // Without a proxy the collector never polls, yet starts and stops.
    void nullProxy()
    {
        QTest::ignoreMessage(
            QtCriticalMsg, "Pal::KrDataCollectorWorker: no device proxy given; this data collector will never poll");
        KrDataCollector collector(nullptr, 2);
        QVERIFY(collector.stop() && !collector.hasStarted());
        QVERIFY(collector.start() && collector.start() && collector.hasStarted());
        QVERIFY(collector.stop() && collector.stop() && !collector.hasStarted());
        QVERIFY(collector.start());
    }
};

QTEST_GUILESS_MAIN(TestKrDataCollector)
#include "tst_krdatacollector.moc"
