// Shared by the benchmarks: the device proxy they drive, the alternation that times a measured
// path and its reference side by side, and the registration of each family.
#pragma once

#include <pal/krabstractdeviceproxy.h>
#include <pal/krdeviceabstraction.h>

#include <QByteArray>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace benchmark {
class State;
}

namespace Bench {

/// One way of doing a row's work: the library's path, its reference, or a figure for context.
struct Way
{
    std::string name;
    /// Does the work once; false when it went wrong.
    std::function<bool()> once;
    /// How many times one sample does the work, so that a short path outlasts the clock's
    /// own cost; the sample is divided back.
    int repeat = 1;
};

/// The benchmark loop of a row. The machine is shared, and its load changes faster than a
/// benchmark runs, so the ways are not measured one after the other: each iteration does each
/// way once, in a new random order, and times it. Every way thus meets the machine in the same
/// states, and follows every other way equally often. Sets the counters "<name>_ns" (median
/// of the samples, which the table compares) and "<name>_mean_ns" for each way.
void alternate(benchmark::State &state, const std::vector<Way> &ways);

/// A thread that runs @p pass over and over while resumed, and waits while paused. Starts
/// paused.
class PausableLoop
{
public:
    explicit PausableLoop(std::function<void()> pass);
    ~PausableLoop();
    PausableLoop(const PausableLoop &) = delete;
    PausableLoop &operator=(const PausableLoop &) = delete;

    void resume();
    /// Returns once the pass under way has ended.
    void pause();

private:
    struct Private;
    std::unique_ptr<Private> d;
};

/// The median of @p values, which it reorders.
double median(std::vector<double> &values);

/// The fastest device the library can face: write() and ioctl() return at once, read()
/// always fills the whole buffer from a fixed pattern.
class FastProxy : public Pal::KrAbstractDeviceProxy
{
    Q_OBJECT
public:
    Q_INVOKABLE explicit FastProxy(QObject *parent = nullptr);
    ~FastProxy() override;

    qint64 write(const char *data, qint64 size) override;
    qint64 read(char *data, qint64 maxSize) override;
    qint64 ioctl(char *request, int requestSize, char *reply, quint32 replySize, quint32 timeoutMs) override;
};

/// The largest buffer a benchmark reads.
constexpr int patternSize = 64 * 1024;
/// The bytes FastProxy::read() delivers: @p size bytes of a pattern that repeats every 256
/// bytes, so any buffer holds the same bytes as pattern() at the same positions.
void copyPattern(char *destination, qint64 size);
const char *pattern();

/// Command 1 of the benchmark devices: the id and the value as six big-endian bytes.
constexpr quint16 commandId = 1;
QByteArray formatCommand(quint16 id, const QVariant &value);
Pal::CommandFormatters commandFormatters();

/// @p value, hidden from the optimiser so that a loop cannot fold it into a constant. Google
/// Benchmark's DoNotOptimize() is not used on small values that are written afterwards: with
/// GCC its "+m,r" constraint can lose them (a pointer came back null).
template<typename T>
T opaque(T value)
{
    asm volatile("" : "+r"(value));
    return value;
}

/// Resident memory of this process in bytes.
qint64 residentBytes();

/// Drops Qt messages while alive, for setup steps that log on purpose (a calibration file
/// that does not exist yet).
class QuietMessages
{
public:
    QuietMessages();
    ~QuietMessages();
    QuietMessages(const QuietMessages &) = delete;
    QuietMessages &operator=(const QuietMessages &) = delete;

private:
    QtMessageHandler m_previous;
};

// Each family registers its benchmarks in the order of the table.
void registerCommandRoundTrip();
void registerStreamCollection();
void registerCalibrationFile();
void registerResultRendering();
void registerApplicationLookup();
void registerDeviceMemory();
void registerUioRegisters();
void registerDeviceTransport();
void registerNmeaSentences();

/// The memory probe runs in a process of its own, started by the memory benchmark with this
/// argument: it prints the resident memory of the empty process and of the process holding
/// a root of @p devices devices.
constexpr char memoryProbeArgument[] = "--memory-probe";
constexpr int memoryProbeDevices = 1000;
int runMemoryProbe(int argc, char **argv);

} // namespace Bench
