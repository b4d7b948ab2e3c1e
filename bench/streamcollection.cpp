// Streaming input: buffers delivered by the data collector from a proxy that always fills the
// whole buffer, against one plain thread doing the same work per pass (a fresh zero-filled
// buffer, the bytes copied in, the buffer handed to a function). Both feed the same sink, which
// times a batch of buffers on the producing thread, so the waiting benchmark thread's wake-up
// is not counted. The two producers take turns, batch by batch, so that both meet the machine
// in the same state; the medians of their batch times are compared.

#include "benchsupport.h"

#include <pal/krdatacollector.h>

#include <QSemaphore>

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

namespace Bench {

namespace {

using Clock = std::chrono::steady_clock;

// A batch moves about 8 MiB, and at least 16 buffers.
int batchBuffers(int bufferSize)
{
    return qMax(16, 8 * 1024 * 1024 / bufferSize);
}

class BatchSink
{
public:
    explicit BatchSink(int bufferSize)
        : m_bufferSize(bufferSize)
    {
    }

    // Called on the producing thread for every buffer; one producer at a time.
    void deliver(const QByteArray &data)
    {
        // A cheap check that whole buffers with the proxy's bytes arrive.
        if (data.size() != m_bufferSize || data.constData()[m_bufferSize - 1] != pattern()[m_bufferSize - 1])
            qFatal("a buffer arrived without the bytes that were read into it");
        const int remaining = m_remaining.load(std::memory_order_acquire);
        if (remaining == 0)
            return;
        // The first buffer of a batch only starts the clock: the batch is the passes after it.
        if (remaining == m_armed)
            m_start = Clock::now();
        if (remaining == 1)
            m_end = Clock::now();
        m_remaining.store(remaining - 1, std::memory_order_release);
        if (remaining == 1)
            m_done.release();
    }

    // On the benchmark thread: the nanoseconds of the next @p buffers passes.
    double timeBatch(int buffers)
    {
        m_armed = buffers + 1;
        m_remaining.store(m_armed, std::memory_order_release);
        m_done.acquire();
        return std::chrono::duration<double, std::nano>(m_end - m_start).count();
    }

private:
    const int m_bufferSize;
    // Written by the benchmark thread only while the producer leaves the sink alone (zero).
    std::atomic<int> m_remaining{0};
    int m_armed = 0;
    Clock::time_point m_start;
    Clock::time_point m_end;
    QSemaphore m_done;
};

void streamCollection(benchmark::State &state)
{
    const int bufferSize = int(state.range(0));
    const int buffers = batchBuffers(bufferSize);
    BatchSink sink(bufferSize);
    FastProxy proxy;
    Pal::KrDataCollector collector(&proxy, quint32(bufferSize));
    QObject::connect(
        &collector, &Pal::KrDataCollector::rawDataReady, [&sink](const QByteArray &data) { sink.deliver(data); });
    // The reference: one thread making the passes the collector's worker makes. The buffer is
    // handed over through a function object, as a receiver is reached through a connection.
    const std::function<void(const QByteArray &)> handOver = [&sink](const QByteArray &data) { sink.deliver(data); };
    PausableLoop plain([bufferSize, &handOver] {
        QByteArray buffer(bufferSize, '\0');
        copyPattern(buffer.data(), bufferSize);
        handOver(buffer);
    });

    // A first start() can reach the worker before it has parked for the first time; it then
    // makes one more pass after the matching stop(). Let that pass go by before the plain
    // thread shares the sink.
    collector.start();
    sink.timeBatch(buffers);
    collector.stop();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));

    std::vector<double> collectorTimes;
    std::vector<double> plainTimes;
    bool collectorFirst = false;
    for (auto _ : state) {
        collectorFirst = !collectorFirst;
        double iteration = 0;
        for (const bool collecting : {collectorFirst, !collectorFirst}) {
            if (collecting) {
                collector.start();
                collectorTimes.push_back(sink.timeBatch(buffers));
                collector.stop();
                iteration += collectorTimes.back();
            } else {
                plain.resume();
                plainTimes.push_back(sink.timeBatch(buffers));
                plain.pause();
                iteration += plainTimes.back();
            }
        }
        state.SetIterationTime(iteration * 1e-9);
    }
    const double collectorNs = median(collectorTimes);
    const double plainNs = median(plainTimes);
    const double batchBytes = double(buffers) * bufferSize;
    state.counters["buffers_per_batch"] = buffers;
    state.counters["bytes_per_buffer"] = bufferSize;
    state.counters["collector_batch_ns"] = collectorNs;
    state.counters["plain_thread_batch_ns"] = plainNs;
    state.counters["collector_bytes_per_s"] = benchmark::Counter(
        batchBytes / (collectorNs * 1e-9), benchmark::Counter::kDefaults, benchmark::Counter::kIs1024);
    state.counters["plain_thread_bytes_per_s"]
        = benchmark::Counter(batchBytes / (plainNs * 1e-9), benchmark::Counter::kDefaults, benchmark::Counter::kIs1024);
    state.counters["collector_buffers_per_s"] = buffers / (collectorNs * 1e-9);
    state.counters["plain_thread_buffers_per_s"] = buffers / (plainNs * 1e-9);
}

} // namespace

void registerStreamCollection()
{
    for (const int bufferSize : {256, 4096, 65536})
        benchmark::RegisterBenchmark("stream/collector_vs_plain_thread", &streamCollection)
            ->Arg(bufferSize)
            ->UseManualTime();
}

} // namespace Bench
