// A batch of 64 FPGA register stores through KrUioDeviceProxy::write(), against the same 64
// volatile stores written by hand into a mapping of the same register block, each followed by
// the barrier that waits for the stores. The block is a register image (a plain file) in a
// sysfs tree of the benchmark's own: the stores cost what they cost on RAM, so the figures
// show the proxy's own work (decoding and checking the batch) at its largest share.

#include "benchsupport.h"

#include <pal/devices/kruiodeviceproxy.h>
#include <pal/devices/kruioregisters.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstring>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace Bench {

namespace {

constexpr int registers = 64;
constexpr quint32 mapSize = 0x1000;

// What an application writes after its stores so that they reach the block before it goes on.
inline void completeStores()
{
#if defined(__aarch64__)
    asm volatile("dsb sy" ::: "memory");
#elif defined(__arm__)
    asm volatile("dsb" ::: "memory");
#elif defined(__x86_64__) || defined(__i386__)
    __sync_synchronize();
#else
    std::atomic_thread_fence(std::memory_order_seq_cst);
#endif
}

bool put(const QString &path, const QByteArray &bytes)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

void registerBatch(benchmark::State &state)
{
    QTemporaryDir root;
    if (!put(root.filePath(QStringLiteral("sys/class/uio/uio0/name")), "bench-block\n")
        || !put(root.filePath(QStringLiteral("sys/class/uio/uio0/maps/map0/size")), "0x1000\n")
        || !put(root.filePath(QStringLiteral("dev/uio0")), QByteArray(int(mapSize), 0))) {
        state.SkipWithError("cannot build the register block");
        return;
    }
    Pal::KrUioDeviceProxy proxy(QStringLiteral("bench-block"), 0, root.path());
    const int fd = ::open(QFile::encodeName(root.filePath(QStringLiteral("dev/uio0"))).constData(), O_RDWR);
    void *mapping = fd < 0 ? MAP_FAILED : ::mmap(nullptr, mapSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (!proxy.isOpen() || mapping == MAP_FAILED) {
        state.SkipWithError("cannot map the register block");
        return;
    }
    // Scattered over the block, as a block's control registers are.
    quint32 offsets[registers];
    quint32 values[registers];
    QList<QPair<quint32, quint32>> pairs;
    for (int i = 0; i < registers; ++i) {
        offsets[i] = quint32(i * 37 % 1024) * 4;
        values[i] = 0x9e3779b9u * quint32(i + 1);
        pairs.append({offsets[i], values[i]});
    }
    const QByteArray batch = Pal::KrUioRegisters::writes(pairs);
    volatile quint32 *block = static_cast<volatile quint32 *>(mapping);
    const auto byHand = [&](bool barrier) {
        quint32 *const offset = opaque(offsets);
        quint32 *const value = opaque(values);
        for (int i = 0; i < registers; ++i)
            block[offset[i] / 4] = value[i];
        if (barrier)
            completeStores();
        return true;
    };
    // Both ways leave the same bytes in the block.
    QByteArray viaProxy(int(mapSize), 0);
    proxy.write(batch.constData(), batch.size());
    std::memcpy(viaProxy.data(), mapping, mapSize);
    std::memset(mapping, 0, mapSize);
    byHand(true);
    if (std::memcmp(viaProxy.constData(), mapping, mapSize) != 0) {
        state.SkipWithError("the proxy stored other bytes than the stores by hand");
    } else {
        alternate(state,
            {{"write", [&] { return proxy.write(batch.constData(), batch.size()) == batch.size(); }, 100},
                {"by_hand", [&] { return byHand(true); }, 100}, {"stores_only", [&] { return byHand(false); }, 100}});
    }
    ::munmap(mapping, mapSize);
    ::close(fd);
}

} // namespace

void registerUioRegisters()
{
    benchmark::RegisterBenchmark("uio/register_batch", &registerBatch)->UseRealTime();
}

} // namespace Bench
