// The one place for concurrency volume, bounded in count and time: the registry on eight threads,
// hundreds of commands on a hanging proxy, thousands of collector starts, stops and destructions.

#include "recordingreporter.h"
#include "testproxy.h"

#include <pal/krdatacollector.h>
#include <pal/krdeviceabstraction.h>
#include <pal/krpalapplicationmanager.h>
#include <pal/krpalroot.h>

#include <QPointer>
#include <QSemaphore>
#include <QTest>
#include <QThread>

#include <atomic>
#include <memory>
#include <vector>

using Manager = Pal::KrPalApplicationManager;
using Pal::CommandFormatters;
using Pal::KrDataCollector;
using Pal::KrDeviceAbstraction;
using Pal::KrPalRoot;

namespace {

constexpr int threadCount = 8;
constexpr int operationsPerThread = 25000;
const QStringList sharedNames{"a", "b", "c", "d"};

// Set while this thread is inside change(): a root destroyed then was destroyed by the registry.
thread_local bool t_changingRegistry = false;
std::atomic<int> s_created{0};
std::atomic<int> s_destroyedInRegistry{0};
std::atomic<int> s_destroyedElsewhere{0};

class TrackedDevice : public Pal::KrDeviceAbstraction
{
    Q_OBJECT
public:
    using KrDeviceAbstraction::KrDeviceAbstraction;
    ~TrackedDevice() override
    {
        Q_ASSERT(alive == aliveMark); // destroyed once; asserts are on in tests
        alive = 0;
        ++(t_changingRegistry ? s_destroyedInRegistry : s_destroyedElsewhere);
    }
    static constexpr quint32 aliveMark = 0xA11FE;
    quint32 alive = aliveMark;
};

QSharedPointer<KrPalRoot> makeRoot(const QString &name)
{
    QSharedPointer<KrPalRoot> root(new KrPalRoot);
    root->addDeviceAbstraction(name.toUtf8(), std::make_shared<TrackedDevice>(name.toUtf8(), nullptr));
    ++s_created;
    return root;
}

bool isWhole(const QSharedPointer<KrPalRoot> &root, const QString &name)
{
    const auto *device = qobject_cast<TrackedDevice *>(root->deviceAbstraction(name.toUtf8().constData()));
    return device && device->alive == TrackedDevice::aliveMark && device->id() == name.toUtf8();
}

// Stores @p root under @p name, or removes the name when there is no root.
void change(const QString &name, const QSharedPointer<KrPalRoot> &root = {})
{
    t_changingRegistry = true;
    root ? void(Manager::add(name, root)) : Manager::remove(name);
    t_changingRegistry = false;
}

// Of every five reads, two give data and one fails; each writes its number into the buffer.
qint64 patternRead(char *data, qint64 maxSize, int &number)
{
    const int kind = number++ % 5;
    const QByteArray text = QByteArray::number(number).left(int(maxSize));
    std::copy(text.begin(), text.end(), data);
    return kind == 3 ? -1 : kind == 1 || kind == 2 ? text.size() : 0;
}

// What the collector must have emitted, and the failures it must have reported, by the reads made.
QList<QByteArray> withData(const TestProxy &proxy, int &failures)
{
    QList<QByteArray> buffers;
    for (const TestProxy::Call &read : proxy.reads()) {
        if (read.result > 0)
            buffers << read.bytes;
        failures += read.result == -1;
    }
    return buffers;
}

std::unique_ptr<KrDataCollector> collectorOf(TestProxy &proxy, quint32 size)
{
    auto collector = std::make_unique<KrDataCollector>(&proxy, size);
    QObject::connect(
        collector.get(), SIGNAL(rawDataReady(QByteArray)), &proxy, SLOT(record(QByteArray)), Qt::DirectConnection);
    return collector;
}

} // namespace

class TestKrPalStress : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void manyThreadsChangeAndReadTheRegistry()
    {
        std::atomic<int> rootsFound{0}, brokenRoots{0}, ownReplacements{0};
        QSemaphore go;
        std::vector<std::unique_ptr<QThread>> threads;
        for (int t = 0; t < threadCount; ++t) {
            threads.emplace_back(QThread::create([&, t] {
                const QString own = QStringLiteral("own-%1").arg(t);
                go.acquire();
                for (int i = 0; i < operationsPerThread; ++i) {
                    const QString &name = sharedNames.at((i * 7 + t) % sharedNames.size());
                    const int operation = (i + t) % 6;
                    if (operation == 0) {
                        change(name, makeRoot(name));
                    } else if (operation == 1) {
                        change(name);
                    } else if (operation == 2) {
                        // This reference may outlive the registry's: the root then dies here.
                        if (const QSharedPointer<KrPalRoot> root = Manager::application(name)) {
                            ++rootsFound;
                            brokenRoots += !isWhole(root, name);
                        }
                    } else if (operation == 3) {
                        Manager::loaded(name);
                    } else if (operation == 4) {
                        const QSharedPointer<KrPalRoot> root = makeRoot(own);
                        change(own, root);
                        change(own + QLatin1String("-alias"), root);
                        change(own + QLatin1String("-alias"));
                    } else {
                        // A name of this thread's own: the root replaced must die inside change().
                        change(own, makeRoot(own));
                        ++ownReplacements;
                    }
                }
                change(own);
            }));
            threads.back()->start();
        }
        go.release(threadCount);
        for (const auto &thread : threads)
            QVERIFY(thread->wait(60000));

        QVERIFY(rootsFound > 0);
        QCOMPARE(brokenRoots.load(), 0);
        QVERIFY(s_destroyedInRegistry >= ownReplacements - threadCount);
        for (const QString &name : sharedNames)
            change(name);
        QCOMPARE(s_destroyedInRegistry + s_destroyedElsewhere, s_created.load());
    }

    void hundredsOfCommandsOnAHangingProxy()
    {
        constexpr int commandCount = 300;
        RecordingReporter reporter;
        auto *proxy = new TestProxy;
        // Every other write hangs until the caller gave up and the test lets it go; one hanging for
        // ten seconds means a lost permit, counted rather than blocking the suite.
        QSemaphore gate;
        std::atomic<int> started{0}, stuck{0};
        proxy->onWrite = [&](const QByteArray &bytes) {
            if (started++ % 2 == 1 && !gate.tryAcquire(1, 10000))
                ++stuck;
            return qint64(bytes.size());
        };
        CommandFormatters formatters{{1, [](quint16 id, const QVariant &value) -> QByteArray {
                                          return QByteArray::number(id) + ':' + value.toByteArray();
                                      }}};
        KrDeviceAbstraction device("dev", proxy, formatters);

        QList<QByteArray> sent;
        int timedOut = 0;
        for (int i = 0; i < commandCount; ++i) {
            const qint64 result = device.write(1, i, quint32(i % 4));
            sent << "1:" + QByteArray::number(i);
            if (i % 2 == 1) {
                QCOMPARE(result, qint64(-1));
                gate.release();
            } else if (result != -1) {
                QCOMPARE(result, qint64(sent.last().size()));
            }
            timedOut += result == -1;
        }
        QCOMPARE(device.write(1, QStringLiteral("last"), 10000), qint64(6));
        sent << "1:last";

        QCOMPARE(stuck.load(), 0);
        QList<QByteArray> written;
        for (const TestProxy::Call &call : proxy->writes())
            written << call.bytes;
        QCOMPARE(written, sent);
        QCOMPARE(proxy->maxConcurrentWrites(), 1);
        QCOMPARE(reporter.reports(), QVector<Report>(timedOut, Pinned::timeout).toList());
        QVERIFY(timedOut >= commandCount / 2);
    }

    void startedAndStoppedThousandsOfTimes()
    {
        RecordingReporter reporter;
        TestProxy proxy;
        int number = 0;
        proxy.onRead = [&number](char *data, qint64 maxSize) { return patternRead(data, maxSize, number); };
        auto collector = collectorOf(proxy, 8);
        for (int cycle = 0; cycle < 3000; ++cycle) {
            QVERIFY(collector->start() && collector->hasStarted());
            if (cycle % 500 == 0)
                collector->setDataBufferSize(collector->dataBufferSize() == 8 ? 2 : 8);
            if (cycle % 25 == 0)
                QVERIFY(proxy.waitFor(proxy.reads().size() + 3));
            QVERIFY(collector->stop() && !collector->hasStarted());
        }
        QVERIFY(collector->start());
        collector.reset();

        int failures = 0;
        QCOMPARE(proxy.emitted(), withData(proxy, failures));
        QCOMPARE(reporter.reports(), QVector<Report>(failures, Pinned::readFailed).toList());
    }

    // A start() before the worker first parks leaves a spare permit: a stop() during the first read then
    // returns at once. Started again and destroyed while that read is under way; once, the read is held
    // past the destructor's 100 ms.
    void destroyedWhileStartedWithASparePermit()
    {
        RecordingReporter reporter;
        int failures = 0;
        int spare = 0;
        for (int round = 0; round < 200; ++round) {
            TestProxy proxy;
            proxy.holdMs = 300;
            int number = 0;
            proxy.onRead = [&number](char *data, qint64 maxSize) { return patternRead(data, maxSize, number); };
            QPointer<QThread> thread;
            {
                auto collector = collectorOf(proxy, 4);
                thread = collector->findChild<QThread *>();
                collector->start();
                QVERIFY(proxy.waitFor(1));
                collector->stop();
                const bool slow = proxy.readInProgress() && spare++ == 0;
                collector->start();
                if (!slow)
                    proxy.release();
                collector.reset();
            }
            QVERIFY(thread.isNull() && !proxy.readInProgress());
            QCOMPARE(proxy.emitted(), withData(proxy, failures));
        }
        QCOMPARE(reporter.reports(), QVector<Report>(failures, Pinned::readFailed).toList());
    }
};

QTEST_GUILESS_MAIN(TestKrPalStress)
#include "tst_krpalstress.moc"
