#include "benchsupport.h"

#include <QVariant>
#include <QtEndian>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <numeric>
#include <random>
#include <thread>

#include <unistd.h>

namespace Bench {

FastProxy::FastProxy(QObject *parent)
    : KrAbstractDeviceProxy(parent)
{
}

FastProxy::~FastProxy() = default;

qint64 FastProxy::write(const char *data, qint64 size)
{
    Q_UNUSED(data)
    return size;
}

qint64 FastProxy::read(char *data, qint64 maxSize)
{
    const qint64 size = qMin<qint64>(maxSize, patternSize);
    copyPattern(data, size);
    return size;
}

qint64 FastProxy::ioctl(char *request, int requestSize, char *reply, quint32 replySize, quint32 timeoutMs)
{
    Q_UNUSED(request)
    Q_UNUSED(reply)
    Q_UNUSED(replySize)
    Q_UNUSED(timeoutMs)
    return requestSize;
}

namespace {
constexpr int patternPeriod = 256;
constexpr int pageSize = 4096;

// A page more than the largest buffer, so that a copy can start anywhere within the first.
const QByteArray &patternStorage()
{
    static const QByteArray bytes = [] {
        QByteArray filled(patternSize + pageSize, Qt::Uninitialized);
        for (int i = 0; i < filled.size(); ++i)
            filled[i] = char(i * 31 + 7);
        return filled;
    }();
    return bytes;
}
} // namespace

const char *pattern()
{
    return patternStorage().constData();
}

void copyPattern(char *destination, qint64 size)
{
    // Where the source and the destination lie at almost the same offset within a page, the
    // processor mistakes the copy's loads for reads of its own stores (4K aliasing) and the
    // copy runs up to twice as slowly. Where malloc puts a buffer differs from thread to
    // thread and run to run, so the copy starts half a page away from the destination's
    // offset, at a whole period of the pattern: every copy then runs at full speed.
    const char *source = pattern();
    const quintptr shift = (quintptr(destination) - quintptr(source) + pageSize / 2) % pageSize;
    std::memcpy(destination, source + (shift - shift % patternPeriod), size_t(size));
}

QByteArray formatCommand(quint16 id, const QVariant &value)
{
    QByteArray bytes(6, Qt::Uninitialized);
    qToBigEndian(id, bytes.data());
    qToBigEndian(value.toUInt(), bytes.data() + 2);
    return bytes;
}

Pal::CommandFormatters commandFormatters()
{
    Pal::CommandFormatters formatters;
    formatters.insert(commandId, &formatCommand);
    return formatters;
}

void alternate(benchmark::State &state, const std::vector<Way> &ways)
{
    using Clock = std::chrono::steady_clock;
    std::vector<std::vector<double>> samples(ways.size());
    std::vector<size_t> order(ways.size());
    std::iota(order.begin(), order.end(), 0);
    std::minstd_rand random(1);
    bool ok = true;
    for (auto _ : state) {
        std::shuffle(order.begin(), order.end(), random);
        for (const size_t index : order) {
            const Way &way = ways[index];
            const auto start = Clock::now();
            for (int i = 0; i < way.repeat; ++i)
                ok &= way.once();
            samples[index].push_back(
                std::chrono::duration<double, std::nano>(Clock::now() - start).count() / way.repeat);
        }
        if (!ok) {
            state.SkipWithError("a way did not do its work");
            return;
        }
    }
    for (size_t index = 0; index < ways.size(); ++index) {
        std::vector<double> &times = samples[index];
        const double sum = std::accumulate(times.begin(), times.end(), 0.0);
        state.counters[ways[index].name + "_mean_ns"] = sum / double(times.size());
        state.counters[ways[index].name + "_ns"] = median(times);
    }
}

struct PausableLoop::Private
{
    void serve()
    {
        std::unique_lock<std::mutex> lock(mutex);
        for (;;) {
            wake.wait(lock, [this] { return quit || wanted; });
            if (quit)
                return;
            // Acknowledged, so that a pause() right after resume() waits for this turn to end.
            wanted = false;
            lock.unlock();
            while (running.load(std::memory_order_relaxed))
                pass();
            lock.lock();
            parked = true;
            wake.notify_all();
        }
    }

    std::function<void()> pass;
    std::mutex mutex;
    std::condition_variable wake;
    std::atomic<bool> running{false};
    bool wanted = false;
    bool parked = true;
    bool quit = false;
    std::thread thread;
};

PausableLoop::PausableLoop(std::function<void()> pass)
    : d(new Private)
{
    d->pass = std::move(pass);
    d->thread = std::thread([this] { d->serve(); });
}

PausableLoop::~PausableLoop()
{
    {
        const std::lock_guard<std::mutex> lock(d->mutex);
        d->quit = true;
    }
    d->wake.notify_all();
    d->thread.join();
}

void PausableLoop::resume()
{
    const std::lock_guard<std::mutex> lock(d->mutex);
    d->parked = false;
    d->wanted = true;
    d->running.store(true);
    d->wake.notify_all();
}

void PausableLoop::pause()
{
    d->running.store(false);
    std::unique_lock<std::mutex> lock(d->mutex);
    d->wake.wait(lock, [this] { return !d->wanted && d->parked; });
}

double median(std::vector<double> &values)
{
    std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
    return values[values.size() / 2];
}

qint64 residentBytes()
{
    // statm: total and resident size, in pages.
    FILE *statm = std::fopen("/proc/self/statm", "r");
    if (!statm)
        return -1;
    long total = 0;
    long resident = 0;
    const int fields = std::fscanf(statm, "%ld %ld", &total, &resident);
    std::fclose(statm);
    return fields == 2 ? qint64(resident) * sysconf(_SC_PAGESIZE) : -1;
}

QuietMessages::QuietMessages()
    : m_previous(qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {}))
{
}

QuietMessages::~QuietMessages()
{
    qInstallMessageHandler(m_previous);
}

} // namespace Bench
