// Resident memory per device abstraction: a root of a thousand devices built with formatters
// by the configuration's factory, in a fresh process, against the same process before the
// root is built. A fresh process keeps the heap that the other benchmarks leave behind out of
// the figure.

#include "benchsupport.h"

#include <pal/krpalconfiguration.h>
#include <pal/krpalroot.h>

#include <QCoreApplication>
#include <QProcess>
#include <QStringList>

#include <benchmark/benchmark.h>

#include <cstdio>

namespace Bench {

namespace {

class BoardConfiguration : public Pal::KrPalConfiguration
{
public:
    explicit BoardConfiguration(int devices)
        : m_formatters(Bench::commandFormatters())
    {
        for (int i = 0; i < devices; ++i)
            m_ids.append(QByteArray("device-") + QByteArray::number(i));
    }

    QList<QByteArray> deviceAbstractionIds() const override { return m_ids; }
    Pal::CommandFormatters commandFormatters(const QByteArray &) const override { return m_formatters; }
    QMetaObject deviceProxy(const QByteArray &) const override { return FastProxy::staticMetaObject; }
    QMetaObject deviceAbstraction(const QByteArray &) const override
    {
        return Pal::KrDeviceAbstraction::staticMetaObject;
    }

private:
    QList<QByteArray> m_ids;
    Pal::CommandFormatters m_formatters;
};

void rootOfDevices(benchmark::State &state)
{
    for (auto _ : state) {
        QProcess probe;
        probe.start(QCoreApplication::applicationFilePath(), {QLatin1String(memoryProbeArgument)});
        if (!probe.waitForFinished(60000) || probe.exitCode() != 0) {
            state.SkipWithError("the memory probe failed");
            return;
        }
        const QList<QByteArray> figures = probe.readAllStandardOutput().trimmed().split(' ');
        if (figures.size() != 2) {
            state.SkipWithError("the memory probe printed no figures");
            return;
        }
        const double empty = figures.at(0).toDouble();
        const double withRoot = figures.at(1).toDouble();
        state.counters["empty_process_rss"]
            = benchmark::Counter(empty, benchmark::Counter::kDefaults, benchmark::Counter::kIs1024);
        state.counters["bytes_per_device"] = (withRoot - empty) / memoryProbeDevices;
    }
}

} // namespace

int runMemoryProbe(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    const BoardConfiguration configuration(memoryProbeDevices);
    const qint64 empty = residentBytes();
    QSharedPointer<Pal::KrPalRoot> root = configuration.createPalRoot();
    const qint64 withRoot = residentBytes();
    if (!root->deviceAbstraction(
            QByteArray(QByteArray("device-") + QByteArray::number(memoryProbeDevices - 1)).constData()))
        return 1;
    std::printf("%lld %lld\n", static_cast<long long>(empty), static_cast<long long>(withRoot));
    return 0;
}

void registerDeviceMemory()
{
    benchmark::RegisterBenchmark("memory/root_of_1000_devices", &rootOfDevices)->Iterations(1)->UseRealTime();
}

} // namespace Bench
