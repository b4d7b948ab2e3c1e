// Looking an application's root up on two threads, with and without a third thread that keeps
// registering and removing other applications at the same time, and for context on one
// thread alone. The three run in turns, batch by batch, so that they meet the same load.

#include "benchsupport.h"

#include <pal/krpalapplicationmanager.h>
#include <pal/krpalroot.h>

#include <QSemaphore>
#include <QSharedPointer>
#include <QStringList>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <random>
#include <thread>

namespace Bench {

namespace {

using Pal::KrPalApplicationManager;

// Long enough (about 15 ms) for the scheduler to share the processors among the readers and
// the writer many times within a batch.
constexpr int lookupsPerBatch = 500000;
constexpr int readerCount = 2;

// Threads that each look the application up a batch of times on request and time it
// themselves, so that waking them up does not count.
class Readers
{
public:
    explicit Readers(const QString &name)
        : m_name(name)
    {
        for (int reader = 0; reader < readerCount; ++reader)
            m_threads[reader] = std::thread([this, reader] { serve(reader); });
    }

    ~Readers()
    {
        m_quit.store(true);
        for (int reader = 0; reader < readerCount; ++reader) {
            m_go[reader].release();
            m_threads[reader].join();
        }
    }

    // The first @p readers threads each make a batch; the mean of their nanoseconds per lookup.
    double batch(int readers)
    {
        m_started.store(0);
        m_starting = readers;
        for (int reader = 0; reader < readers; ++reader)
            m_go[reader].release();
        m_done.acquire(readers);
        double sum = 0;
        for (int reader = 0; reader < readers; ++reader)
            sum += m_nanoseconds[reader];
        return sum / readers / lookupsPerBatch;
    }

    bool allFound() const { return !m_missed.load(); }

private:
    void serve(int reader)
    {
        for (;;) {
            m_go[reader].acquire();
            if (m_quit.load())
                return;
            // The readers of a batch start together, so that their lookups meet.
            m_started.fetch_add(1);
            while (m_started.load() < m_starting)
                std::this_thread::yield();
            const auto start = std::chrono::steady_clock::now();
            for (int i = 0; i < lookupsPerBatch; ++i) {
                const QSharedPointer<Pal::KrPalRoot> root = KrPalApplicationManager::application(m_name);
                if (!root)
                    m_missed.store(true, std::memory_order_relaxed);
            }
            m_nanoseconds[reader]
                = std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start).count();
            m_done.release();
        }
    }

    const QString m_name;
    std::thread m_threads[readerCount];
    QSemaphore m_go[readerCount];
    QSemaphore m_done;
    double m_nanoseconds[readerCount] = {};
    std::atomic<int> m_started{0};
    int m_starting = 0;
    std::atomic<bool> m_missed{false};
    std::atomic<bool> m_quit{false};
};

void lookups(benchmark::State &state)
{
    const QString name = QStringLiteral("instrument");
    const QSharedPointer<Pal::KrPalRoot> root(new Pal::KrPalRoot);
    KrPalApplicationManager::add(name, root);

    // Adds and removes other applications without pause while resumed. Their root stays alive
    // here, so removing one destroys nothing.
    const QSharedPointer<Pal::KrPalRoot> otherRoot(new Pal::KrPalRoot);
    QStringList otherNames;
    for (int i = 0; i < 8; ++i)
        otherNames.append(QStringLiteral("other-%1").arg(i));
    std::atomic<quint64> changes{0};
    PausableLoop writer([&] {
        for (const QString &other : qAsConst(otherNames))
            KrPalApplicationManager::add(other, otherRoot);
        for (const QString &other : qAsConst(otherNames))
            KrPalApplicationManager::remove(other);
        changes.fetch_add(2 * quint64(otherNames.size()), std::memory_order_relaxed);
    });

    enum Phase
    {
        WithWriter,
        NoWriter,
        OneReader,
        PhaseCount
    };
    std::vector<double> times[PhaseCount];
    int order[PhaseCount] = {WithWriter, NoWriter, OneReader};
    std::minstd_rand random(1);
    quint64 changesWithWriter = 0;
    {
        Readers readers(name);
        for (auto _ : state) {
            std::shuffle(std::begin(order), std::end(order), random);
            double iteration = 0;
            for (const int phase : order) {
                if (phase == WithWriter) {
                    writer.resume();
                    const quint64 before = changes.load();
                    times[phase].push_back(readers.batch(readerCount));
                    changesWithWriter += changes.load() - before;
                    writer.pause();
                } else {
                    times[phase].push_back(readers.batch(phase == NoWriter ? readerCount : 1));
                }
                iteration += times[phase].back() * lookupsPerBatch;
            }
            state.SetIterationTime(iteration * 1e-9);
        }
        if (!readers.allFound())
            state.SkipWithError("the registered application was not found");
    }
    KrPalApplicationManager::remove(name);

    state.counters["with_writer_ns"] = median(times[WithWriter]);
    state.counters["no_writer_ns"] = median(times[NoWriter]);
    state.counters["one_reader_ns"] = median(times[OneReader]);
    // How busy the writer kept the registry: its adds and removes per lookup.
    state.counters["writer_changes_per_lookup"]
        = double(changesWithWriter) / (double(state.iterations()) * readerCount * lookupsPerBatch);
}

} // namespace

void registerApplicationLookup()
{
    benchmark::RegisterBenchmark("registry/application", &lookups)->UseManualTime();
}

} // namespace Bench
