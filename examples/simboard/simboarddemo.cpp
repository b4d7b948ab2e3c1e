#include "simboarddemo.h"

#include "portproxy.h"
#include "runlog.h"
#include "simboardconfiguration.h"

#include <pal/krcurrenttestresult.h>
#include <pal/krdatacollector.h>
#include <pal/krdatetestresult.h>
#include <pal/krdeviceabstraction.h>
#include <pal/krfpgatypetestresult.h>
#include <pal/krgpsinfo.h>
#include <pal/krinfotestresult.h>
#include <pal/krjsontestresult.h>
#include <pal/krnumerictestresult.h>
#include <pal/krpalapplicationmanager.h>
#include <pal/krpalroot.h>
#include <pal/krselftestresult.h>
#include <pal/krtemperaturetestresult.h>
#include <pal/krversiontestresult.h>
#include <pal/krvoltagetestresult.h>
#include <pal/tcxocaldevice.h>

#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QGeoCoordinate>
#include <QGeoPositionInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QMetaEnum>
#include <QRegularExpression>
#include <QSet>
#include <QTemporaryDir>
#include <QTimer>

#include <atomic>
#include <mutex>
#include <utility>
#include <vector>

#include <sys/stat.h>

using namespace SimBoard;
using Pal::TcxoCalDevice;

const QString SimBoardDemo::applicationName = QStringLiteral("simboard");

namespace {

QString milliseconds(const QElapsedTimer &clock)
{
    return QString::number(double(clock.nsecsElapsed()) / 1e6, 'f', 1) + QLatin1String(" ms");
}

QString quoted(const QString &text)
{
    return QLatin1Char('"') + text + QLatin1Char('"');
}

QString quoted(const QByteArray &text)
{
    return quoted(QString::fromUtf8(text));
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QStringList linesOf(const QByteArray &bytes)
{
    return QString::fromUtf8(bytes).split(QLatin1Char('\n'));
}

QJsonArray jsonLines(const QStringList &lines)
{
    return QJsonArray::fromStringList(lines);
}

// The calibration that the demo's board leaves the factory with.
TcxoCalDevice::TcxoCalFactors factoryCalibration()
{
    TcxoCalDevice::TcxoCalFactors factors;
    factors.factoryTcxo = 2048;
    factors.factoryTemperature = 25.5f;
    factors.factoryTuningSensitivity = 0.0125f;
    factors.fieldTcxo = 2051;
    factors.fieldTemperature = 31.75f;
    factors.fieldTuningSensitivity = 0.0124f;
    factors.fieldFixTime = 1.7e12f;
    factors.fixDecayTime = 3600;
    factors.refSourceDisplay = 1;
    return factors;
}

const QByteArray factoryCalibrationText = QByteArrayLiteral("FACTORY_TCXO=2048\n"
                                                            "FACTORY_TEMPERATURE=25.5\n"
                                                            "FACTORY_TUNING_SENSITIVITY=0.0125\n"
                                                            "FIELD_TCXO=2051\n"
                                                            "FIELD_TEMPERATURE=31.75\n"
                                                            "FIELD_TUNING_SENSITIVITY=0.0124\n"
                                                            "FIELD_FIX_TIME=1.7e+12\n"
                                                            "FIX_DECAY_TIME=3600\n"
                                                            "REF_SOURCE_DISPLAY=1");

bool operator==(const TcxoCalDevice::TcxoCalFactors &a, const TcxoCalDevice::TcxoCalFactors &b)
{
    return a.factoryTcxo == b.factoryTcxo && a.factoryTemperature == b.factoryTemperature
        && a.factoryTuningSensitivity == b.factoryTuningSensitivity && a.fieldTcxo == b.fieldTcxo
        && a.fieldTemperature == b.fieldTemperature && a.fieldTuningSensitivity == b.fieldTuningSensitivity
        && a.fieldFixTime == b.fieldFixTime && a.fixDecayTime == b.fixDecayTime
        && a.refSourceDisplay == b.refSourceDisplay;
}

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

SimBoardDemo::SimBoardDemo(const DemoSettings &settings, RunLog &log)
    : m_settings(settings)
    , m_log(log)
{
}

SimBoardDemo::~SimBoardDemo()
{
    // Whatever a failed step left behind. The instrument goes first: closing its lines ends
    // any command still waiting for an answer, which the devices' destructors wait for.
    m_instrument.stop();
    Pal::KrPalApplicationManager::remove(applicationName);
}

void SimBoardDemo::run()
{
    startInstrument();
    buildBoard();
    sendCommand();
    exchangeRequests();
    hangCommand();
    streamSamples();
    createCalibration();
    readCalibration();
    updateFieldCalibration();
    runSelfTest();
    readGpsFix();
    shutDown();
}

void SimBoardDemo::startInstrument()
{
    m_log.begin(QStringLiteral("instrument"), QStringLiteral("Start the simulated instrument"));
    QString error;
    if (m_log.check(m_instrument.start(&error), error)) {
        const QString frontEnd = m_instrument.nodePath("frontend");
        const QString adc = m_instrument.nodePath("adc");
        m_log.say(QStringLiteral("Its front end answers on %1 and its ADC streams on %2: Unix sockets standing "
                                 "for the board's serial line and ADC device node, served by the instrument's "
                                 "own thread.")
                      .arg(frontEnd, adc));
        m_log.record(QStringLiteral("frontEndNode"), frontEnd);
        m_log.record(QStringLiteral("adcNode"), adc);
    }
    m_log.end();
}

void SimBoardDemo::buildBoard()
{
    m_log.begin(QStringLiteral("build"), QStringLiteral("Build the board and register it"));
    if (m_settings.tcxoFile.isEmpty()) {
        m_tcxoDirectory = std::make_unique<QTemporaryDir>(QDir::tempPath() + QStringLiteral("/krpal-demo-XXXXXX"));
        if (!m_log.check(m_tcxoDirectory->isValid(),
                QStringLiteral("cannot create a temporary directory: %1").arg(m_tcxoDirectory->errorString()))) {
            m_log.end();
            return;
        }
        // A directory that does not exist yet: creating the calibration creates it.
        m_tcxoFile = m_tcxoDirectory->filePath(QStringLiteral("calibration/tcxo.cal"));
    } else {
        m_tcxoFile = m_settings.tcxoFile;
    }
    const bool calibrationExisted = QFile::exists(m_tcxoFile);

    const SimBoardConfiguration configuration(m_tcxoFile);
    QSharedPointer<Pal::KrPalRoot> root = configuration.createPalRoot();
    QObject::connect(root.data(), &QObject::destroyed, [this] { m_rootDestroyed = true; });
    m_log.say(QStringLiteral("createPalRoot() built the root with these devices:"));
    const QList<QByteArray> keys = configuration.deviceAbstractionIds();
    for (const QByteArray &key : keys) {
        Pal::KrDeviceAbstraction *device = root->deviceAbstraction(key.constData());
        if (!m_log.check(device, QStringLiteral("no device under the key %1").arg(quoted(key))))
            continue;
        const QString className = QString::fromLatin1(device->metaObject()->className());
        const auto *proxy = device->findChild<PortProxy *>(QString(), Qt::FindDirectChildrenOnly);
        if (proxy) {
            m_log.say(QStringLiteral("  %1: %2 over %3, on the port's node (built by class name)")
                          .arg(quoted(key), className, QString::fromLatin1(proxy->metaObject()->className())));
            m_log.check(proxy->isOpen(), QStringLiteral("the proxy of %1 could not open its port").arg(quoted(key)));
        } else {
            m_log.say(QStringLiteral("  %1: %2 over the file %3 (built by the configuration itself)")
                          .arg(quoted(key), className, m_tcxoFile));
        }
    }
    m_log.check(qobject_cast<TcxoCalDevice *>(root->deviceAbstraction(tcxoKey)),
        QStringLiteral("the device \"tcxo\" is no TcxoCalDevice"));

    // The TCXO device reads its field DAC value when it is built.
    const QList<LogMessage> messages = m_log.takeMessages();
    if (calibrationExisted) {
        m_log.check(messages.isEmpty(), QStringLiteral("the TCXO device logged while reading its calibration"));
    } else {
        const QString expected = QStringLiteral("Cannot open file ") + quoted(m_tcxoFile);
        if (m_log.check(
                messages.size() == 1 && messages.first().type == QtCriticalMsg && messages.first().text == expected,
                QStringLiteral("expected the TCXO device to log: ") + expected)) {
            m_log.say(QStringLiteral("As expected: the board has no calibration file yet, so the TCXO device "
                                     "starts with a field DAC value of 0."));
        }
    }

    Pal::KrPalApplicationManager::add(applicationName, root);
    root.reset();
    const bool loaded = Pal::KrPalApplicationManager::loaded(applicationName);
    m_log.check(loaded, QStringLiteral("the application is not loaded after add()"));
    m_log.say(QStringLiteral("Registered as %1 in the application manager, which now holds the only reference "
                             "to the root; loaded(%1) is %2.")
                  .arg(quoted(applicationName), loaded ? QStringLiteral("true") : QStringLiteral("false")));
    m_log.record(QStringLiteral("devices"),
        QJsonArray{QLatin1String(frontEndKey), QLatin1String(adcKey), QLatin1String(tcxoKey)});
    m_log.record(QStringLiteral("tcxoFile"), m_tcxoFile);
    m_log.end();
}

void SimBoardDemo::sendCommand()
{
    m_log.begin(QStringLiteral("command"), QStringLiteral("Send a hardware command, end to end"));
    const QSharedPointer<Pal::KrPalRoot> root = Pal::KrPalApplicationManager::application(applicationName);
    if (!m_log.check(!root.isNull(), QStringLiteral("no application registered as ") + quoted(applicationName))) {
        m_log.end();
        return;
    }
    m_log.say(QStringLiteral("KrPalApplicationManager::application(%1) gave the root.").arg(quoted(applicationName)));

    const Pal::KrDeviceAbstraction *unknown = root->deviceAbstraction("dac");
    m_log.say(QStringLiteral("deviceAbstraction(\"dac\"), a key the board does not have, gave %1.")
                  .arg(unknown ? QStringLiteral("a device") : QStringLiteral("null")));
    const QList<StatusReport> reports = m_log.takeReports();
    m_log.check(!unknown && reports.size() == 1 && reports.first().code == 47,
        QStringLiteral("an unknown key should give null and status report 47"));

    Pal::KrDeviceAbstraction *frontEnd = device(root, frontEndKey);
    if (!frontEnd) {
        m_log.end();
        return;
    }
    const int before = m_instrument.frontEndLines().size();
    QElapsedTimer clock;
    clock.start();
    const qint64 written = frontEnd->write(SetFrequency, qint64(1575420000));
    m_log.say(QStringLiteral("write(SetFrequency, 1575420000) returned %1 after %2: the formatter made the line "
                             "\"FREQ 1575420000\", the command thread wrote it through FrontEndProxy, and the "
                             "front end answered OK.")
                  .arg(written)
                  .arg(milliseconds(clock)));
    const QList<SimulatedInstrument::Received> lines = m_instrument.frontEndLines().mid(before);
    m_log.check(written == 16, QStringLiteral("the command should return the 16 bytes written"));
    m_log.check(lines.size() == 1 && lines.first().line == "FREQ 1575420000",
        QStringLiteral("the front end should have received \"FREQ 1575420000\" once"));

    const qint64 rejected = frontEnd->write(0x0777, 1);
    m_log.say(QStringLiteral("write(0x0777, 1), a command id without formatter, returned %1: the device "
                             "abstraction rejected it and sent nothing.")
                  .arg(rejected));
    m_log.check(rejected == 7 && m_instrument.frontEndLines().size() == before + 1,
        QStringLiteral("a command without formatter should be rejected with 7"));

    const qint64 refused = frontEnd->write(SetAttenuation, 40.0);
    m_log.say(QStringLiteral("write(SetAttenuation, 40) returned %1: the front end refused the value as out of "
                             "range, and the proxy's answer came back unchanged.")
                  .arg(refused));
    m_log.check(refused == -2, QStringLiteral("a refused command should return the proxy's -2"));

    m_log.record(QStringLiteral("written"), written);
    m_log.record(QStringLiteral("rejected"), rejected);
    m_log.record(QStringLiteral("refused"), refused);
    m_commandPathOk = m_log.stepOk();
    m_log.end();
}

void SimBoardDemo::exchangeRequests()
{
    m_log.begin(QStringLiteral("request"), QStringLiteral("Exchange a request and its reply"));
    const QSharedPointer<Pal::KrPalRoot> root = Pal::KrPalApplicationManager::application(applicationName);
    Pal::KrDeviceAbstraction *frontEnd = device(root, frontEndKey);
    Pal::KrDeviceAbstraction *adc = device(root, adcKey);
    if (frontEnd && adc) {
        const QString identity = request(frontEnd, Identify, QStringLiteral("Identify"));
        const QString temperature = request(frontEnd, ReadTemperature, QStringLiteral("ReadTemperature"));
        m_log.check(identity.startsWith(QLatin1String("KR-SIM,")), QStringLiteral("unexpected identity"));
        m_log.record(QStringLiteral("identity"), identity);
        m_log.record(QStringLiteral("temperature"), temperature);

        char reply[64];
        const qint64 refused = adc->ioctl(Identify, reply, sizeof(reply), 1000);
        m_log.say(QStringLiteral("ioctl(Identify) on the ADC returned %1: the ADC has no formatter for it, so the "
                                 "device abstraction refused the request.")
                      .arg(refused));
        m_log.check(refused == -1, QStringLiteral("a request without formatter should return -1"));
    }
    m_log.end();
}

void SimBoardDemo::hangCommand()
{
    m_log.begin(QStringLiteral("timeout"), QStringLiteral("Time out a command to a hung device"));
    const QSharedPointer<Pal::KrPalRoot> root = Pal::KrPalApplicationManager::application(applicationName);
    Pal::KrDeviceAbstraction *frontEnd = device(root, frontEndKey);
    if (!frontEnd) {
        m_log.end();
        return;
    }
    const int before = m_instrument.frontEndLines().size();
    const qint64 hangStart = m_instrument.msecsSinceStart();
    m_instrument.hangFrontEnd(hangMs);
    m_log.say(QStringLiteral("The front end stops answering for %1 ms.").arg(hangMs));

    QElapsedTimer clock;
    clock.start();
    const qint64 hung = frontEnd->write(SetAttenuation, 10.5, hungCommandTimeoutMs);
    const qint64 hungMs = clock.elapsed();
    m_log.say(QStringLiteral("write(SetAttenuation, 10.5) with a time-out of %1 ms returned %2 after %3; its job "
                             "goes on waiting for the answer on the command thread.")
                  .arg(hungCommandTimeoutMs)
                  .arg(hung)
                  .arg(milliseconds(clock)));
    m_log.check(hung == -1 && hungMs >= hungCommandTimeoutMs && hungMs < hangMs,
        QStringLiteral("the hung command should return -1 after its time-out"));
    const QList<StatusReport> reports = m_log.takeReports();
    m_log.check(reports.size() == 1 && reports.first().code == 70 && reports.first().line == 168
            && reports.first().arguments == QStringList{QStringLiteral(" sending a hardware command")},
        QStringLiteral("expected one status report 70 for the time-out"));

    char reply[64];
    clock.restart();
    const qint64 busy = frontEnd->ioctl(ReadTemperature, reply, sizeof(reply), busyRequestTimeoutMs);
    m_log.say(QStringLiteral("ioctl(ReadTemperature) with a time-out of %1 ms returned %2 after %3: the hung "
                             "command still holds the line, and the proxy keeps the request's time-out.")
                  .arg(busyRequestTimeoutMs)
                  .arg(busy)
                  .arg(milliseconds(clock)));
    m_log.check(busy == -1, QStringLiteral("a request to the busy front end should return -1"));

    clock.restart();
    const qint64 next = frontEnd->write(SetAttenuation, 6.0);
    const qint64 nextDone = m_instrument.msecsSinceStart() - hangStart;
    m_log.say(QStringLiteral("The next write(SetAttenuation, 6) returned %1 after %2: it waited for the hung "
                             "command's job to end, %3 ms after the hang began.")
                  .arg(next)
                  .arg(milliseconds(clock))
                  .arg(nextDone));
    m_log.check(next == 6, QStringLiteral("the command after the hang should return the 6 bytes written"));

    const QList<SimulatedInstrument::Received> lines = m_instrument.frontEndLines().mid(before);
    QStringList taken;
    for (const SimulatedInstrument::Received &received : lines) {
        taken << QStringLiteral("%1 at %2 ms").arg(quoted(received.line)).arg(received.msecs - hangStart);
    }
    m_log.say(QStringLiteral("The front end took, counted from the hang: %1. The timed-out command was delivered "
                             "late, not lost.")
                  .arg(taken.join(QLatin1String(", "))));
    m_log.check(lines.size() == 2 && lines[0].line == "ATT 10.5" && lines[1].line == "ATT 6"
            && lines[0].msecs - hangStart >= hangMs - 1,
        QStringLiteral("the front end should take \"ATT 10.5\", then \"ATT 6\", after the hang"));

    m_log.record(QStringLiteral("hungResult"), hung);
    m_log.record(QStringLiteral("hungMs"), hungMs);
    m_log.record(QStringLiteral("busyRequestResult"), busy);
    m_log.record(QStringLiteral("nextResult"), next);
    m_log.end();
}

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

    const qint64 started = adc->write(StartStream, m_settings.rate);
    m_log.say(QStringLiteral("write(StartStream, %1) returned %2: the ADC streams a sine wave of %3 samples a "
                             "period, 16 bits a sample.")
                  .arg(m_settings.rate)
                  .arg(started)
                  .arg(SimulatedInstrument::samplesPerPeriod));
    m_log.check(started == QByteArray("START " + QByteArray::number(m_settings.rate) + '\n').size(),
        QStringLiteral("starting the stream should return the bytes written"));

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

    const qint64 stopped = adc->write(StopStream, QVariant());
    m_log.check(stopped == 5, QStringLiteral("stopping the stream should return the 5 bytes written"));
    // Once the collector is gone its thread has ended, and every buffer it emitted is queued.
    collector.reset();
    drain();
    QObject::disconnect(announcement);

    const quint64 bytes = samples.buffers * quint64(m_settings.bufferSize);
    const double expectedBytes = double(m_settings.rate) * 2 * seconds;
    // Half the rate at least, in whole buffers: the collector keeps up with far more.
    const auto minimumBuffers = quint64(expectedBytes / 2 / m_settings.bufferSize);
    m_log.say(QStringLiteral("Collected for %1 s: %2 buffers of %3 bytes, %4 bytes, %5 kB/s, %6 samples/s of the "
                             "%7 configured.")
                  .arg(seconds, 0, 'f', 2)
                  .arg(samples.buffers)
                  .arg(m_settings.bufferSize)
                  .arg(bytes)
                  .arg(double(bytes) / seconds / 1000, 0, 'f', 1)
                  .arg(qRound64(double(samples.samples) / seconds))
                  .arg(m_settings.rate));
    if (samples.mismatches == 0) {
        m_log.say(QStringLiteral("Every one of the %1 samples continues the sine wave: nothing was lost, doubled or "
                                 "reordered between the instrument's thread, the collector's and this one.")
                      .arg(samples.samples));
    }
    m_log.say(QStringLiteral("The adc device abstraction announced each buffer with rawDataReady, forwarded from "
                             "its proxy on the collector's thread: %1 times.")
                  .arg(announced.load()));
    if (minimumBuffers == 0)
        m_log.say(QStringLiteral("The run was too short to be sure of filling one buffer."));
    m_log.check(samples.buffers >= minimumBuffers,
        QStringLiteral("only %1 buffers arrived, at least %2 expected").arg(samples.buffers).arg(minimumBuffers));
    m_log.check(samples.mismatches == 0,
        QStringLiteral("%1 samples do not continue the sine wave, the first at sample %2")
            .arg(samples.mismatches)
            .arg(samples.firstMismatch));
    m_log.check(quint64(announced.load()) == samples.buffers,
        QStringLiteral("%1 buffers were announced but %2 arrived").arg(announced.load()).arg(samples.buffers));
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

void SimBoardDemo::createCalibration()
{
    m_log.begin(QStringLiteral("tcxo-create"), QStringLiteral("Create the TCXO calibration"));
    const QSharedPointer<Pal::KrPalRoot> root = Pal::KrPalApplicationManager::application(applicationName);
    TcxoCalDevice *tcxo = tcxoDevice(root);
    if (tcxo) {
        tcxo->createTcxoCalFile(factoryCalibration());
        const QByteArray bytes = readFile(m_tcxoFile);
        m_log.say(QStringLiteral("createTcxoCalFile() wrote the factory calibration to %1, %2 bytes:")
                      .arg(m_tcxoFile)
                      .arg(bytes.size()));
        m_log.show(QString::fromUtf8(bytes));
        m_log.record(QStringLiteral("lines"), jsonLines(linesOf(bytes)));
        m_log.check(bytes == factoryCalibrationText,
            QStringLiteral("the file does not hold the nine lines of the factory calibration"));
    }
    m_log.end();
}

void SimBoardDemo::readCalibration()
{
    m_log.begin(QStringLiteral("tcxo-read"), QStringLiteral("Read the calibration back"));
    const QSharedPointer<Pal::KrPalRoot> root = Pal::KrPalApplicationManager::application(applicationName);
    const TcxoCalDevice *tcxo = tcxoDevice(root);
    if (tcxo) {
        TcxoCalDevice::TcxoCalFactors factors;
        const bool complete = tcxo->getTcxoCalFactors(factors);
        m_log.say(QStringLiteral("getTcxoCalFactors() %1: factory DAC %2 at %3 with sensitivity %4, field DAC %5 "
                                 "at %6 with sensitivity %7, fix time %8 ms.")
                      .arg(complete ? QStringLiteral("found all nine keys") : QStringLiteral("missed a key"))
                      .arg(factors.factoryTcxo)
                      .arg(double(factors.factoryTemperature))
                      .arg(double(factors.factoryTuningSensitivity))
                      .arg(factors.fieldTcxo)
                      .arg(double(factors.fieldTemperature))
                      .arg(double(factors.fieldTuningSensitivity))
                      .arg(double(factors.fieldFixTime)));
        m_log.check(complete && factors == factoryCalibration(),
            QStringLiteral("the record read back differs from the one written"));

        const QString key = QLatin1String(Pal::fieldTcxoKey);
        const QString fromFile = tcxo->getValue(key, false);
        const QString fromCache = tcxo->getValue(key, true);
        m_log.say(QStringLiteral("getValue(%1) gave %2 from the file and %3 from the device's cache.")
                      .arg(quoted(key), quoted(fromFile), quoted(fromCache)));
        m_log.check(fromFile == QLatin1String("2051") && fromCache == QLatin1String("2051"),
            QStringLiteral("the field DAC value should read 2051"));
        m_log.record(QStringLiteral("complete"), complete);
        m_log.record(QStringLiteral("fieldTcxo"), fromFile);
    }
    m_log.end();
}

void SimBoardDemo::updateFieldCalibration()
{
    m_log.begin(QStringLiteral("tcxo-field"), QStringLiteral("Record a field calibration"));
    const QSharedPointer<Pal::KrPalRoot> root = Pal::KrPalApplicationManager::application(applicationName);
    TcxoCalDevice *tcxo = tcxoDevice(root);
    if (!tcxo) {
        m_log.end();
        return;
    }
    const QStringList before = linesOf(readFile(m_tcxoFile));
    const qint64 earliest = QDateTime::currentMSecsSinceEpoch();
    tcxo->updateTcxoFieldCal(2060, 30.5f, 0.0126f);
    const qint64 latest = QDateTime::currentMSecsSinceEpoch();
    const QByteArray bytes = readFile(m_tcxoFile);
    const QStringList after = linesOf(bytes);
    m_log.say(QStringLiteral("updateTcxoFieldCal(2060, 30.5, 0.0126) changed these lines:"));
    QStringList changes;
    for (int i = 0; i < qMin(before.size(), after.size()); ++i) {
        if (before[i] != after[i])
            changes << before[i] + QLatin1String("  ->  ") + after[i];
    }
    m_log.show(changes.join(QLatin1Char('\n')));
    m_log.record(QStringLiteral("lines"), jsonLines(after));

    const QRegularExpression fixTime(QStringLiteral("^FIELD_FIX_TIME=(\\d+)$"));
    const QRegularExpressionMatch fix = after.size() == 9 ? fixTime.match(after[6]) : QRegularExpressionMatch();
    const qint64 fixedAt = fix.captured(1).toLongLong();
    m_log.check(after.size() == 9 && before.size() == 9 && after.mid(0, 3) == before.mid(0, 3)
            && after.mid(7) == before.mid(7) && after[3] == QLatin1String("FIELD_TCXO=2060")
            && after[4] == QLatin1String("FIELD_TEMPERATURE=30.5")
            && after[5] == QLatin1String("FIELD_TUNING_SENSITIVITY=0.0126") && fixedAt >= earliest && fixedAt <= latest,
        QStringLiteral("the field update should change the four field lines and nothing else"));

    struct stat status = {};
    const bool stated = ::stat(QFile::encodeName(m_tcxoFile).constData(), &status) == 0;
    const int mode = int(status.st_mode & 07777);
    m_log.say(QStringLiteral("The file has mode %1: its owner reads and writes it, others read it.")
                  .arg(mode, 4, 8, QLatin1Char('0')));
    m_log.check(stated && mode == 0604, QStringLiteral("the calibration file should have mode 0604"));

    const QString cached = tcxo->getValue(QLatin1String(Pal::fieldTcxoKey), true);
    m_log.say(QStringLiteral("The device's cache gives the new field DAC value: %1.").arg(quoted(cached)));
    m_log.check(cached == QLatin1String("2060"), QStringLiteral("the cache should hold 2060"));

    tcxo->updateTcxoFieldCal(2060, 99.0f, 99.0f);
    const bool untouched = readFile(m_tcxoFile) == bytes;
    m_log.say(QStringLiteral("A second field calibration with the same DAC value, 2060, left %1: temperature and "
                             "sensitivity are recorded only with a new DAC value.")
                  .arg(untouched ? QStringLiteral("every byte as it was") : QStringLiteral("the file changed")));
    m_log.check(untouched, QStringLiteral("an update with an unchanged DAC value should not touch the file"));
    m_fieldTcxo = cached.toInt();
    m_log.end();
}

void SimBoardDemo::runSelfTest()
{
    m_log.begin(QStringLiteral("self-test"), QStringLiteral("Report a self-test of every result type"));
    const QSharedPointer<Pal::KrPalRoot> root = Pal::KrPalApplicationManager::application(applicationName);
    Pal::KrDeviceAbstraction *frontEnd = device(root, frontEndKey);
    if (!frontEnd) {
        m_log.end();
        return;
    }
    const double volts = request(frontEnd, ReadSupplyVoltage, QStringLiteral("ReadSupplyVoltage")).toDouble();
    const double amperes = request(frontEnd, ReadSupplyCurrent, QStringLiteral("ReadSupplyCurrent")).toDouble();
    const double celsius = request(frontEnd, ReadTemperature, QStringLiteral("ReadTemperature")).toDouble();
    const QString identity = request(frontEnd, Identify, QStringLiteral("Identify"));
    const QString fpga = request(frontEnd, ReadFpgaType, QStringLiteral("ReadFpgaType"));
    const QString calibrated = request(frontEnd, ReadCalibrationDate, QStringLiteral("ReadCalibrationDate"));
    const auto within
        = [](double actual, double expected, double tolerance) { return qAbs(actual - expected) <= tolerance; };

    // The show-type flag is set on every result, so each names its type in its JSON object.
    std::vector<std::unique_ptr<Pal::KrAbstractSelfTestResult>> results;
    results.push_back(std::make_unique<Pal::KrSelfTestResult>(m_commandPathOk, QStringLiteral("Command path"), true));
    auto stream = std::make_unique<Pal::KrSelfTestResult>(m_streamOk, QStringLiteral("Sample stream"), true);
    stream->setType(Pal::KrAbstractSelfTestResult::SelfTestResultType::PassFail);
    results.push_back(std::move(stream));
    results.push_back(std::make_unique<Pal::KrNumericTestResult>(
        within(m_fieldTcxo, 2048, 16), QStringLiteral("TCXO field DAC"), 2048, 16, m_fieldTcxo, true));
    results.push_back(std::make_unique<Pal::KrVoltageTestResult>(
        within(volts, 3.3, 0.1), QStringLiteral("Supply 3V3"), 3.3, 0.1, volts, true));
    results.push_back(std::make_unique<Pal::KrCurrentTestResult>(
        within(amperes, 1.5, 0.25), QStringLiteral("Supply current"), 1.5, 0.25, amperes, true));
    results.push_back(std::make_unique<Pal::KrTemperatureTestResult>(
        within(celsius, 40, 15), QStringLiteral("Board temperature"), 40, 15, celsius, true));
    results.push_back(std::make_unique<Pal::KrInfoTestResult>(QStringLiteral("Instrument"), identity, true));
    results.push_back(std::make_unique<Pal::KrVersionTestResult>(
        QStringLiteral("Front end firmware"), identity.section(QLatin1Char(','), 3), true));
    results.push_back(std::make_unique<Pal::KrDateTestResult>(QStringLiteral("Calibration date"), calibrated, true));
    results.push_back(std::make_unique<Pal::KrFpgaTypeTestResult>(QStringLiteral("FPGA"), fpga, true));
    results.push_back(std::make_unique<Pal::KrJsonTestResult>(m_streamOk, m_streamSummary, true));

    QJsonArray rendered;
    QSet<QString> types;
    QStringList failed;
    for (const auto &result : results) {
        const QJsonObject object = result->generateJsonObject();
        rendered.append(object);
        types.insert(object.value(QLatin1String("type")).toString());
        if (!result->didPass())
            failed << object.value(QLatin1String("type")).toString();
    }
    const QString document = QString::fromUtf8(
        QJsonDocument(QJsonObject{{QStringLiteral("selfTest"), rendered}}).toJson(QJsonDocument::Indented));
    m_log.say(QStringLiteral("The %1 results render as one JSON document:").arg(results.size()));
    m_log.show(document.trimmed());
    m_log.record(QStringLiteral("selfTest"), rendered);

    QSet<QString> allTypes;
    const QMetaEnum typeEnum = QMetaEnum::fromType<Pal::KrAbstractSelfTestResult::SelfTestResultType>();
    for (int i = 0; i < typeEnum.keyCount(); ++i)
        allTypes.insert(QString::fromLatin1(typeEnum.key(i)));
    m_log.check(types == allTypes, QStringLiteral("the report should cover every result type"));
    m_log.check(failed.isEmpty(), QStringLiteral("self-test results failed: ") + failed.join(QLatin1String(", ")));
    m_log.end();
}

void SimBoardDemo::readGpsFix()
{
    m_log.begin(QStringLiteral("gps"), QStringLiteral("Read a GPS fix"));
    const QSharedPointer<Pal::KrPalRoot> root = Pal::KrPalApplicationManager::application(applicationName);
    Pal::KrDeviceAbstraction *frontEnd = device(root, frontEndKey);
    if (!frontEnd) {
        m_log.end();
        return;
    }
    // latitude,longitude,altitude,satellites,UTC time
    const QStringList fields = request(frontEnd, ReadGpsFix, QStringLiteral("ReadGpsFix")).split(QLatin1Char(','));
    if (!m_log.check(fields.size() == 5, QStringLiteral("the fix should have five fields"))) {
        m_log.end();
        return;
    }
    const QGeoCoordinate coordinate(fields[0].toDouble(), fields[1].toDouble(), fields[2].toDouble());
    const QDateTime time = QDateTime::fromString(fields[4], Qt::ISODate);
    const Pal::KrGpsInfo fix(QGeoPositionInfo(coordinate, time), true, fields[3].toUShort(), time.isValid());

    const QGeoPositionInfo position = fix.getGpsPostionInfo();
    m_log.say(QStringLiteral("KrGpsInfo: %1 at %2, %3 satellites; valid: %4, fix: %5, with date: %6.")
                  .arg(position.coordinate().toString(QGeoCoordinate::DegreesWithHemisphere),
                      position.timestamp().toString(Qt::ISODate))
                  .arg(fix.getNumberSatellites())
                  .arg(fix.isValid() ? QStringLiteral("yes") : QStringLiteral("no"),
                      fix.getGpsFix() ? QStringLiteral("yes") : QStringLiteral("no"),
                      fix.hasDate() ? QStringLiteral("yes") : QStringLiteral("no")));
    m_log.check(fix.isValid() && fix.getGpsFix() && fix.getNumberSatellites() == 9 && fix.hasDate(),
        QStringLiteral("the fix should be valid, with 9 satellites and a date"));
    m_log.record(QStringLiteral("latitude"), position.coordinate().latitude());
    m_log.record(QStringLiteral("longitude"), position.coordinate().longitude());
    m_log.record(QStringLiteral("altitude"), position.coordinate().altitude());
    m_log.record(QStringLiteral("satellites"), fix.getNumberSatellites());
    m_log.record(QStringLiteral("time"), position.timestamp().toString(Qt::ISODate));
    m_log.record(QStringLiteral("valid"), fix.isValid());
    m_log.end();
}

void SimBoardDemo::shutDown()
{
    m_log.begin(QStringLiteral("shutdown"), QStringLiteral("Shut down"));
    QElapsedTimer clock;
    clock.start();
    Pal::KrPalApplicationManager::remove(applicationName);
    m_log.say(QStringLiteral("remove(%1) released the application's root%2 in %3; loaded(%1) is %4.")
                  .arg(quoted(applicationName),
                      m_rootDestroyed ? QStringLiteral(", and with it the devices, their command threads and their "
                                                       "proxies,")
                                      : QString(),
                      milliseconds(clock),
                      Pal::KrPalApplicationManager::loaded(applicationName) ? QStringLiteral("true")
                                                                            : QStringLiteral("false")));
    m_log.check(m_rootDestroyed, QStringLiteral("the root outlived its removal"));
    m_log.check(!Pal::KrPalApplicationManager::loaded(applicationName),
        QStringLiteral("the application is still loaded after remove()"));
    QElapsedTimer instrumentClock;
    instrumentClock.start();
    m_instrument.stop();
    m_log.say(QStringLiteral("The simulated instrument stopped in %1.").arg(milliseconds(instrumentClock)));
    m_log.check(clock.elapsed() < 1000, QStringLiteral("shutting down took %1 ms").arg(clock.elapsed()));
    m_log.end();
}

Pal::KrDeviceAbstraction *SimBoardDemo::device(const QSharedPointer<Pal::KrPalRoot> &root, const char *key)
{
    Pal::KrDeviceAbstraction *device = root ? root->deviceAbstraction(key) : nullptr;
    m_log.check(device, QStringLiteral("no device under the key %1").arg(quoted(QByteArray(key))));
    return device;
}

TcxoCalDevice *SimBoardDemo::tcxoDevice(const QSharedPointer<Pal::KrPalRoot> &root)
{
    auto *tcxo = qobject_cast<TcxoCalDevice *>(device(root, tcxoKey));
    m_log.check(tcxo, QStringLiteral("no TCXO calibration device"));
    return tcxo;
}

QString SimBoardDemo::request(Pal::KrDeviceAbstraction *frontEnd, quint16 commandId, const QString &name)
{
    char reply[128];
    QElapsedTimer clock;
    clock.start();
    const qint64 result = frontEnd->ioctl(commandId, reply, sizeof(reply), 1000);
    if (!m_log.check(result >= 0, QStringLiteral("ioctl(%1) failed with %2").arg(name).arg(result)))
        return QString();
    const QString answer = QString::fromLatin1(reply, int(result));
    m_log.say(QStringLiteral("ioctl(%1) returned %2 after %3: %4")
                  .arg(name)
                  .arg(result)
                  .arg(milliseconds(clock), quoted(answer)));
    return answer;
}
