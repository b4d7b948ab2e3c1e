// The benchmark program: every measured path and its reference, then one table that relates
// each pair as a ratio and says whether the library meets its target. Each row's paths run in
// alternation within one benchmark and report the medians of their samples as counters (see
// Bench::alternate()); with repetitions the table takes the median of those.

#include "benchsupport.h"

#include <QCoreApplication>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include <unistd.h>

namespace {

enum class Comparison
{
    TimeAtMost, // measured time / reference time, at most the target
    ThroughputAtLeast, // measured throughput / reference throughput, at least the target
};

// A counter of a benchmark, in nanoseconds.
struct Figure
{
    const char *benchmark;
    const char *counter;
};

struct Row
{
    const char *hotPath;
    Figure measured;
    Figure reference;
    Comparison comparison;
    double target; // 0: reported only
};

const Figure threadRestart{"command/round_trips", "thread_restart_ns"};
const Figure openReadClose{"tcxo/read", "open_read_close_ns"};
const Figure replaceByHand{"tcxo/write", "replace_by_hand_ns"};
const Figure lookupsWithoutWriter{"registry/application", "no_writer_ns"};
const Figure storesByHand{"uio/register_batch", "by_hand_ns"};

const Row rows[] = {
    {"command round trip", {"command/round_trips", "write_ns"}, threadRestart, Comparison::TimeAtMost, 1.15},
    {"  context: persistent worker", {"command/round_trips", "persistent_worker_ns"}, threadRestart,
        Comparison::TimeAtMost, 0},
    {"  context: direct proxy call", {"command/round_trips", "direct_call_ns"}, threadRestart, Comparison::TimeAtMost,
        0},
    {"stream collection, 256 B", {"stream/collector_vs_plain_thread/256", "collector_batch_ns"},
        {"stream/collector_vs_plain_thread/256", "plain_thread_batch_ns"}, Comparison::ThroughputAtLeast, 0},
    {"stream collection, 4 KiB", {"stream/collector_vs_plain_thread/4096", "collector_batch_ns"},
        {"stream/collector_vs_plain_thread/4096", "plain_thread_batch_ns"}, Comparison::ThroughputAtLeast, 0.7},
    {"stream collection, 64 KiB", {"stream/collector_vs_plain_thread/65536", "collector_batch_ns"},
        {"stream/collector_vs_plain_thread/65536", "plain_thread_batch_ns"}, Comparison::ThroughputAtLeast, 0.9},
    {"calibration read: getTcxoCalFactors", {"tcxo/read", "getTcxoCalFactors_ns"}, openReadClose,
        Comparison::TimeAtMost, 2},
    {"calibration read: getValue", {"tcxo/read", "getValue_ns"}, openReadClose, Comparison::TimeAtMost, 2},
    {"  context: POSIX open/read/close", {"tcxo/read", "posix_open_read_close_ns"}, openReadClose,
        Comparison::TimeAtMost, 0},
    {"calibration write", {"tcxo/write", "updateTcxoFieldCal_ns"}, replaceByHand, Comparison::TimeAtMost, 1.5},
    {"  context: in-place rewrite", {"tcxo/write", "rewrite_in_place_ns"}, replaceByHand, Comparison::TimeAtMost, 0},
    {"result rendering", {"json/voltage_result", "generateJsonObject_ns"}, {"json/voltage_result", "by_hand_ns"},
        Comparison::TimeAtMost, 1.3},
    {"application lookup, 2 threads", {"registry/application", "with_writer_ns"}, lookupsWithoutWriter,
        Comparison::TimeAtMost, 2},
    {"  context: one thread, no writer", {"registry/application", "one_reader_ns"}, lookupsWithoutWriter,
        Comparison::TimeAtMost, 0},
    {"UIO register batch, 64 stores", {"uio/register_batch", "write_ns"}, storesByHand, Comparison::TimeAtMost, 2},
    {"  context: stores, no barrier", {"uio/register_batch", "stores_only_ns"}, storesByHand, Comparison::TimeAtMost,
        0},
    {"devices: collector on a pipe, 64 KiB", {"devices/collector_on_pipe", "collector_ns"},
        {"devices/collector_on_pipe", "plain_read_loop_ns"}, Comparison::ThroughputAtLeast, 0.9},
    {"devices: ioctl over a pseudo-terminal", {"devices/ioctl_over_pty", "ioctl_ns"},
        {"devices/ioctl_over_pty", "write_poll_read_ns"}, Comparison::TimeAtMost, 1.1},
    {"NMEA sentences: addData", {"nmea/sentences", "addData_ns"}, {"nmea/sentences", "checksum_loop_ns"},
        Comparison::TimeAtMost, 0},
};

const char memoryBenchmark[] = "memory/root_of_1000_devices";

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const size_t middle = values.size() / 2;
    return values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

std::string loadAverage()
{
    std::ifstream file("/proc/loadavg");
    std::string one, five, fifteen;
    file >> one >> five >> fifteen;
    return one + " " + five + " " + fifteen;
}

std::string timeText(double ns)
{
    char text[32];
    if (ns < 1e3)
        std::snprintf(text, sizeof text, "%.0f ns", ns);
    else if (ns < 1e6)
        std::snprintf(text, sizeof text, "%.2f us", ns / 1e3);
    else
        std::snprintf(text, sizeof text, "%.3f ms", ns / 1e6);
    return text;
}

std::string throughputText(double bytesPerSecond, double buffersPerSecond)
{
    char text[48];
    std::snprintf(
        text, sizeof text, "%.2f GiB/s %.0fk buf/s", bytesPerSecond / (1024.0 * 1024 * 1024), buffersPerSecond / 1e3);
    return text;
}

// Shows every run as the console reporter does and keeps what the table needs.
class TableReporter : public benchmark::ConsoleReporter
{
public:
    TableReporter()
        : ConsoleReporter(isatty(STDOUT_FILENO) ? OO_ColorTabular : OO_Tabular)
    {
    }

    void ReportRuns(const std::vector<Run> &reports) override
    {
        ConsoleReporter::ReportRuns(reports);
        for (const Run &run : reports) {
            if (run.run_type != Run::RT_Iteration || run.error_occurred)
                continue;
            std::string key = run.run_name.function_name;
            if (!run.run_name.args.empty())
                key += "/" + run.run_name.args;
            Counters &counters = m_counters[key];
            for (const auto &counter : run.counters)
                counters[counter.first].push_back(counter.second.value);
        }
    }

    void printTable() const
    {
        std::printf("\nKrPal hot paths against their floors (median of the repetitions; load average %s)\n",
            loadAverage().c_str());
        std::printf(
            "%-38s %-24s %-24s %7s  %-8s %s\n", "hot path", "measured", "reference", "ratio", "target", "verdict");
        int met = 0;
        int missed = 0;
        for (const Row &row : rows) {
            double measuredNs = 0;
            double referenceNs = 0;
            const Counters *measured = nanoseconds(row.measured, measuredNs);
            const Counters *reference = nanoseconds(row.reference, referenceNs);
            if (!measured || !reference) {
                std::printf("%-38s %-24s %-24s %7s\n", row.hotPath, "not run", "", "-");
                continue;
            }
            std::string measuredText;
            std::string referenceText;
            double ratio = 0;
            char targetText[16] = "report";
            bool targetMet = true;
            if (row.comparison == Comparison::TimeAtMost) {
                measuredText = timeText(measuredNs);
                referenceText = timeText(referenceNs);
                ratio = measuredNs / referenceNs;
                if (row.target > 0) {
                    std::snprintf(targetText, sizeof targetText, "<= %.2f", row.target);
                    targetMet = ratio <= row.target;
                }
            } else {
                measuredText = throughput(*measured, measuredNs);
                referenceText = throughput(*reference, referenceNs);
                ratio = referenceNs / measuredNs;
                if (row.target > 0) {
                    std::snprintf(targetText, sizeof targetText, ">= %.2f", row.target);
                    targetMet = ratio >= row.target;
                }
            }
            const char *verdict = row.target > 0 ? (targetMet ? "met" : "NOT MET") : "";
            if (row.target > 0)
                ++(targetMet ? met : missed);
            std::printf("%-38s %-24s %-24s %7.3g  %-8s %s\n", row.hotPath, measuredText.c_str(), referenceText.c_str(),
                ratio, targetText, verdict);
        }
        const auto memory = m_counters.find(memoryBenchmark);
        if (memory != m_counters.end() && memory->second.count("bytes_per_device")) {
            std::printf("%-38s %-24s %-24s %7s  %-8s\n", "memory, root of 1000 devices",
                (std::to_string(long(median(memory->second.at("bytes_per_device")))) + " B/device").c_str(),
                (std::to_string(long(median(memory->second.at("empty_process_rss")) / 1024)) + " KiB empty process")
                    .c_str(),
                "-", "report");
        } else {
            std::printf("%-38s %-24s\n", "memory, root of 1000 devices", "not run");
        }
        std::printf("targets: %d met, %d not met\n", met, missed);
    }

private:
    // Each counter's values, one per repetition.
    using Counters = std::map<std::string, std::vector<double>>;

    // The median of the figure's counter, and the benchmark's counters; null when it did not run.
    const Counters *nanoseconds(const Figure &figure, double &ns) const
    {
        const auto found = m_counters.find(figure.benchmark);
        if (found == m_counters.end())
            return nullptr;
        const auto counter = found->second.find(figure.counter);
        if (counter == found->second.end())
            return nullptr;
        ns = median(counter->second);
        return &found->second;
    }

    static std::string throughput(const Counters &counters, double nsPerBatch)
    {
        const auto buffers = counters.find("buffers_per_batch");
        const auto bytes = counters.find("bytes_per_buffer");
        if (buffers == counters.end() || bytes == counters.end())
            return timeText(nsPerBatch);
        const double buffersPerSecond = median(buffers->second) / (nsPerBatch * 1e-9);
        return throughputText(buffersPerSecond * median(bytes->second), buffersPerSecond);
    }

    std::map<std::string, Counters> m_counters;
};

} // namespace

int main(int argc, char **argv)
{
    if (argc == 2 && std::strcmp(argv[1], Bench::memoryProbeArgument) == 0)
        return Bench::runMemoryProbe(argc, argv);

    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    // The collector's thread, like every QThread, expects an application object.
    QCoreApplication application(argc, argv);

    Bench::registerCommandRoundTrip();
    Bench::registerStreamCollection();
    Bench::registerCalibrationFile();
    Bench::registerResultRendering();
    Bench::registerApplicationLookup();
    Bench::registerDeviceMemory();
    Bench::registerUioRegisters();
    Bench::registerDeviceTransport();
    Bench::registerNmeaSentences();

    std::printf("load average before the run: %s\n", loadAverage().c_str());
    TableReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.printTable();
    benchmark::Shutdown();
    return 0;
}
