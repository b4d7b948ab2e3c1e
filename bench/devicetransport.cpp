// The devices library's proxies on real kernel objects, each beside the hand-written system
// calls that do the same work: a data collector reading a pipe through KrFileDeviceProxy
// against a plain read loop on a pipe, and an ioctl() exchange over a pseudo-terminal against
// write, poll and read on one.

#include "benchsupport.h"

#include <pal/devices/krfiledeviceproxy.h>
#include <pal/devices/krserialdeviceproxy.h>
#include <pal/krdatacollector.h>

#include <QFile>
#include <QSemaphore>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstring>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

namespace Bench {

namespace {

constexpr qint64 batchBytes = 16 * 1024 * 1024;
constexpr int bufferSize = 64 * 1024;

// Fills a pipe on request from a thread of its own, as a driver fills a FIFO.
class PipeWriter
{
public:
    explicit PipeWriter(int descriptor)
        : m_descriptor(descriptor)
        , m_thread([this] { serve(); })
    {
    }
    ~PipeWriter()
    {
        m_quit.store(true);
        m_go.release();
        m_thread.join();
    }
    void send() { m_go.release(); }

private:
    void serve()
    {
        for (;;) {
            m_go.acquire();
            if (m_quit.load())
                return;
            for (qint64 left = batchBytes; left > 0;) {
                const ssize_t written = ::write(m_descriptor, pattern(), size_t(qMin<qint64>(left, bufferSize)));
                if (written <= 0)
                    return;
                left -= written;
            }
        }
    }

    const int m_descriptor;
    QSemaphore m_go;
    std::atomic<bool> m_quit{false};
    std::thread m_thread;
};

// Counts what each read returned, since the collector emits whole buffers.
class CountingProxy : public Pal::KrFileDeviceProxy
{
public:
    using KrFileDeviceProxy::KrFileDeviceProxy;
    qint64 read(char *data, qint64 maxSize) override
    {
        const qint64 count = KrFileDeviceProxy::read(data, maxSize);
        if (count > 0)
            received.fetch_add(count, std::memory_order_relaxed);
        return count;
    }
    std::atomic<qint64> received{0};
};

// Releases @p done once @p received has reached the armed target.
struct Arrival
{
    void check(qint64 received)
    {
        if (received >= target.load(std::memory_order_acquire) && armed.exchange(false))
            done.release();
    }
    std::atomic<qint64> target{0};
    std::atomic<bool> armed{false};
    QSemaphore done;
};

void collectorOnPipe(benchmark::State &state)
{
    QTemporaryDir dir;
    const QByteArray collected = QFile::encodeName(dir.filePath(QStringLiteral("collected")));
    const QByteArray plain = QFile::encodeName(dir.filePath(QStringLiteral("plain")));
    // Read-only nodes: the proxy opens them for reading only.
    if (::mkfifo(collected.constData(), 0444) || ::mkfifo(plain.constData(), 0444)) {
        state.SkipWithError("no FIFO");
        return;
    }
    CountingProxy proxy(QFile::decodeName(collected));
    const int collectedWriter = ::open(collected.constData(), O_WRONLY | O_CLOEXEC);
    const int plainReader = ::open(plain.constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    const int plainWriter = ::open(plain.constData(), O_WRONLY | O_CLOEXEC);
    // Both pipes hold 1 MiB, as a driver's FIFO for a fast stream would: the collector's
    // pause after an empty read then does not stall the writer.
    ::fcntl(collectedWriter, F_SETPIPE_SZ, 1024 * 1024);
    ::fcntl(plainWriter, F_SETPIPE_SZ, 1024 * 1024);
    Arrival collectorArrival;
    Arrival plainArrival;
    {
        PipeWriter toCollector(collectedWriter);
        PipeWriter toPlain(plainWriter);
        Pal::KrDataCollector collector(&proxy, bufferSize);
        QObject::connect(&collector, &Pal::KrDataCollector::rawDataReady,
            [&](const QByteArray &) { collectorArrival.check(proxy.received.load(std::memory_order_relaxed)); });
        // The reference: a thread that waits for input, reads it into a fresh buffer and hands
        // it on, as a hand-written reader would.
        qint64 plainReceived = 0;
        PausableLoop plainLoop([&] {
            pollfd entry{plainReader, POLLIN, 0};
            if (::poll(&entry, 1, 1) <= 0)
                return;
            QByteArray buffer(bufferSize, Qt::Uninitialized);
            const ssize_t count = ::read(plainReader, opaque(buffer.data()), bufferSize);
            if (count > 0)
                plainArrival.check(plainReceived += count);
        });
        const auto run = [](Arrival &arrival, qint64 already, auto start, auto stop, PipeWriter &writer) {
            arrival.target.store(already + batchBytes, std::memory_order_release);
            arrival.armed.store(true);
            start();
            writer.send();
            arrival.done.acquire();
            stop();
            return true;
        };
        qint64 collectorBase = 0;
        qint64 plainBase = 0;
        alternate(state,
            {{"collector",
                 [&] {
                     const bool ok = run(
                         collectorArrival, collectorBase, [&] { collector.start(); }, [&] { collector.stop(); },
                         toCollector);
                     collectorBase += batchBytes;
                     return ok;
                 }},
                {"plain_read_loop", [&] {
                     const bool ok = run(
                         plainArrival, plainBase, [&] { plainLoop.resume(); }, [&] { plainLoop.pause(); }, toPlain);
                     plainBase += batchBytes;
                     return ok;
                 }}});
        state.counters["buffers_per_batch"] = double(batchBytes) / bufferSize;
        state.counters["bytes_per_buffer"] = bufferSize;
        ::close(collectedWriter);
        ::close(plainWriter);
    }
    ::close(plainReader);
}

// The far end of a pseudo-terminal: answers every line with a short reply.
class Responder
{
public:
    Responder()
    {
        master = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        char name[128];
        if (master < 0 || ::grantpt(master) || ::unlockpt(master) || ::ptsname_r(master, name, sizeof name))
            return;
        slavePath = QString::fromLocal8Bit(name);
        termios line;
        ::tcgetattr(master, &line);
        ::cfmakeraw(&line);
        ::tcsetattr(master, TCSANOW, &line);
        m_thread = std::thread([this] { serve(); });
    }
    ~Responder()
    {
        m_quit.store(true);
        if (m_thread.joinable())
            m_thread.join();
        ::close(master);
    }

    int master = -1;
    QString slavePath;

private:
    void serve()
    {
        static const char reply[] = "+23.25 C\n";
        char buffer[256];
        while (!m_quit.load()) {
            pollfd entry{master, POLLIN, 0};
            if (::poll(&entry, 1, 50) <= 0)
                continue;
            const ssize_t count = ::read(master, buffer, sizeof buffer);
            for (ssize_t i = 0; i < count; ++i)
                if (buffer[i] == '\n' && ::write(master, reply, sizeof reply - 1) < 0)
                    return;
        }
    }

    std::atomic<bool> m_quit{false};
    std::thread m_thread;
};

void ioctlOverPty(benchmark::State &state)
{
    Responder viaProxy;
    Responder byHand;
    Pal::KrSerialDeviceProxy proxy(viaProxy.slavePath);
    const int line
        = ::open(QFile::encodeName(byHand.slavePath).constData(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    termios raw;
    ::tcgetattr(line, &raw);
    ::cfmakeraw(&raw);
    ::tcsetattr(line, TCSANOW, &raw);
    if (!proxy.isOpen() || line < 0) {
        state.SkipWithError("no pseudo-terminal");
        return;
    }
    char request[] = "TEMP?\n";
    const int requestSize = int(sizeof request - 1);
    alternate(state,
        {{"ioctl",
             [&] {
                 char reply[64];
                 return proxy.ioctl(request, requestSize, reply, sizeof reply, 1000) == 9;
             }},
            {"write_poll_read", [&] {
                 if (::write(line, request, size_t(requestSize)) != requestSize)
                     return false;
                 char reply[64];
                 qint64 got = 0;
                 while (got == 0 || reply[got - 1] != '\n') {
                     pollfd entry{line, POLLIN, 0};
                     if (::poll(&entry, 1, 1000) <= 0)
                         return false;
                     const ssize_t count = ::read(line, reply + got, sizeof reply - size_t(got));
                     if (count <= 0)
                         return false;
                     got += count;
                 }
                 return got == 9;
             }}});
    ::close(line);
}

} // namespace

void registerDeviceTransport()
{
    benchmark::RegisterBenchmark("devices/collector_on_pipe", &collectorOnPipe)->UseRealTime();
    benchmark::RegisterBenchmark("devices/ioctl_over_pty", &ioctlOverPty)->UseRealTime();
}

} // namespace Bench
