// Streaming: the ADC's samples gathered by a data collector and checked sample by sample.

#include "expected.h"
#include "runlog.h"
#include "simboardconfiguration.h"
#include "simboarddemo.h"
#include "steps/stepsupport.h"

#include <pal/krabstractdeviceproxy.h>
#include <pal/krdatacollector.h>
#include <pal/krdeviceabstraction.h>
#include <pal/krpalapplicationmanager.h>
#include <pal/krpalroot.h>

#include <QElapsedTimer>
#include <QEventLoop>
#include <QJsonObject>
#include <QTimer>

#include <atomic>
#include <memory>
#include <mutex>
#include <utility>

using namespace SimBoard;
using namespace StepSupport;

namespace {

// Follows the ADC's stream buffer by buffer and checks that every sample continues the
// sine wave: nothing lost, doubled or reordered on the way.
struct SampleCheck
{
    quint64 buffers = 0;
    quint64 samples = 0;
    quint64 mismatches = 0;
    quint64 firstMismatch = 0;

    void take(const QByteArray &buffer)
    {
        ++buffers;
        const auto *bytes = reinterpret_cast<const uchar *>(buffer.constData());
        for (int i = 0; i + 1 < buffer.size(); i += 2, ++samples) {
            const auto value = qint16(quint16(bytes[i] | (bytes[i + 1] << 8)));
            if (value != SimulatedInstrument::sample(samples) && mismatches++ == 0)
                firstMismatch = samples;
        }
    }
};

// Hands buffers over from the collector's thread to the one that checks them.
class BufferQueue
{
public:
    void push(const QByteArray &buffer)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_buffers.append(buffer);
    }
    QList<QByteArray> take()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return std::exchange(m_buffers, {});
    }

private:
    std::mutex m_mutex;
    QList<QByteArray> m_buffers;
};

} // namespace

void SimBoardDemo::streamSamples()
{
    m_log.begin(QStringLiteral("stream"), QStringLiteral("Stream samples through a data collector"));
    const QSharedPointer<Pal::KrPalRoot> root = Pal::KrPalApplicationManager::application(applicationName);
    Pal::KrDeviceAbstraction *adc = device(root, adcKey);
    // The device abstraction owns its proxy as a child; the collector polls that proxy and
    // must not outlive it, which the root guarantees until shutdown.
    auto *proxy = adc ? adc->findChild<Pal::KrAbstractDeviceProxy *>(QString(), Qt::FindDirectChildrenOnly) : nullptr;
    if (!m_log.check(proxy, QStringLiteral("the ADC has no proxy"))) {
        m_log.end();
        return;
    }

    // Buffers arrive on the collector's thread and are checked on this one. They cross over
    // through a locked queue that this thread drains on a timer: one lock per buffer rather
    // than one event, and a handover the thread sanitizer can follow (a queued connection
    // hands over inside Qt, out of its sight). A QByteArray crosses without copying its bytes.
    QObject receiver;
    BufferQueue queue;
    SampleCheck samples;
    std::atomic<int> announced{0};
    const QMetaObject::Connection announcement = QObject::connect(
        adc, &Pal::KrDeviceAbstraction::rawDataReady, &receiver,
        [&announced](const Pal::KrDeviceAbstraction &) { ++announced; }, Qt::DirectConnection);
    auto collector = std::make_unique<Pal::KrDataCollector>(proxy, quint32(m_settings.bufferSize), nullptr);
    QObject::connect(
        collector.get(), &Pal::KrDataCollector::rawDataReady, &receiver,
        [&queue](const QByteArray &buffer) { queue.push(buffer); }, Qt::DirectConnection);
    const auto drain = [&queue, &samples] {
        const QList<QByteArray> buffers = queue.take();
        for (const QByteArray &buffer : buffers)
            samples.take(buffer);
    };

    Pal::KrDeviceAbstraction *control = device(root, adcControlKey);
    const qint64 started = control ? control->write(StartStream, m_settings.rate) : -1;
    const QList<quint32> running = control ? adcRegisters(control, Expected::runningStatus) : QList<quint32>();
    const quint32 divider = Expected::rateDivider(m_settings.rate);
    const double rate = double(SimulatedInstrument::clockHz) / divider;
    m_log.say(QStringLiteral("write(StartStream, %1) returned %2: the formatter stored the rate divider, %3 of the "
                             "ADC's %4 MHz clock, then the enable bit. The registers read %5: the ADC streams a sine "
                             "wave of %6 samples a period, 16 bits a sample, at %7 samples/s.")
                  .arg(m_settings.rate)
                  .arg(started)
                  .arg(divider)
                  .arg(SimulatedInstrument::clockHz / 1000000)
                  .arg(running.size() == 3 ? QStringLiteral("control %1, rate divider %2, status %3 (running)")
                                                 .arg(running[0])
                                                 .arg(running[1])
                                                 .arg(running[2])
                                           : QStringLiteral("nothing"))
                  .arg(SimulatedInstrument::samplesPerPeriod)
                  .arg(rate, 0, 'g', 7));
    m_log.check(
        started == Expected::startStreamWritten && running == QList<quint32>{1, divider, Expected::runningStatus},
        QStringLiteral("starting the stream should store the divider and the enable bit, and the ADC run"));

    collector->start();
    QElapsedTimer clock;
    clock.start();
    const auto progress = [&] {
        drain();
        const double seconds = double(clock.nsecsElapsed()) / 1e9;
        const quint64 bytes = samples.buffers * quint64(m_settings.bufferSize);
        m_log.progress(QStringLiteral("streaming %1 s: %2 buffers, %3 bytes, %4 kB/s")
                           .arg(seconds, 0, 'f', 1)
                           .arg(samples.buffers)
                           .arg(bytes)
                           .arg(seconds > 0 ? double(bytes) / seconds / 1000 : 0.0, 0, 'f', 1));
    };
    QEventLoop loop;
    QTimer progressTimer;
    QObject::connect(&progressTimer, &QTimer::timeout, &loop, progress);
    progressTimer.start(100);
    QTimer::singleShot(qMax(1, qRound(m_settings.durationSeconds * 1000)), Qt::PreciseTimer, &loop, &QEventLoop::quit);
    loop.exec();
    progressTimer.stop();
    collector->stop();
    const double seconds = double(clock.nsecsElapsed()) / 1e9;
    m_log.endProgress();

    const qint64 stopped = control ? control->write(StopStream, QVariant()) : -1;
    m_log.check(
        stopped == Expected::stopStreamWritten, QStringLiteral("stopping the stream should return the bytes written"));
    // Once the collector is gone its thread has ended, and every buffer it emitted is queued.
    collector.reset();
    drain();
    QObject::disconnect(announcement);

    const quint64 bytes = samples.buffers * quint64(m_settings.bufferSize);
    const double expectedBytes = rate * 2 * seconds;
    // Half the rate at least, in whole buffers: the collector keeps up with far more.
    const auto minimumBuffers = quint64(expectedBytes / 2 / m_settings.bufferSize);
    m_log.say(QStringLiteral("Collected for %1 s: %2 buffers of %3 bytes, %4 bytes, %5 kB/s, %6 samples/s of the "
                             "%7 the divider gives.")
                  .arg(seconds, 0, 'f', 2)
                  .arg(samples.buffers)
                  .arg(m_settings.bufferSize)
                  .arg(bytes)
                  .arg(double(bytes) / seconds / 1000, 0, 'f', 1)
                  .arg(qRound64(double(samples.samples) / seconds))
                  .arg(rate, 0, 'g', 7));
    if (samples.mismatches == 0) {
        m_log.say(QStringLiteral("Every one of the %1 samples continues the sine wave: nothing was lost, doubled or "
                                 "reordered between the instrument's thread, the collector's and this one.")
                      .arg(samples.samples));
    }
    m_log.say(QStringLiteral("The adc device abstraction announced waiting input with rawDataReady, forwarded from "
                             "its proxy's watch on this thread, %1 times: once, and again after each buffer taken.")
                  .arg(announced.load()));
    if (minimumBuffers == 0)
        m_log.say(QStringLiteral("The run was too short to be sure of filling one buffer."));
    m_log.check(samples.buffers >= minimumBuffers,
        QStringLiteral("only %1 buffers arrived, at least %2 expected").arg(samples.buffers).arg(minimumBuffers));
    m_log.check(samples.mismatches == 0,
        QStringLiteral("%1 samples do not continue the sine wave, the first at sample %2")
            .arg(samples.mismatches)
            .arg(samples.firstMismatch));
    m_log.check(quint64(announced.load()) <= samples.buffers + 1 && (samples.buffers == 0 || announced.load() > 0),
        QStringLiteral("input was announced %1 times for %2 buffers").arg(announced.load()).arg(samples.buffers));
    m_log.check(m_instrument.samplesDropped() == 0,
        QStringLiteral("the ADC dropped %1 samples that nobody read").arg(m_instrument.samplesDropped()));

    m_streamSummary = QJsonObject{{QStringLiteral("seconds"), qRound(seconds * 1000) / 1000.0},
        {QStringLiteral("buffers"), qint64(samples.buffers)}, {QStringLiteral("bufferSize"), m_settings.bufferSize},
        {QStringLiteral("bytes"), qint64(bytes)}, {QStringLiteral("samples"), qint64(samples.samples)},
        {QStringLiteral("mismatches"), qint64(samples.mismatches)}, {QStringLiteral("announced"), announced.load()}};
    for (auto it = m_streamSummary.constBegin(); it != m_streamSummary.constEnd(); ++it)
        m_log.record(it.key(), it.value());
    m_streamOk = m_log.stepOk();
    m_log.end();
}
