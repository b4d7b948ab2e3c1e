// KrPal quick start: what an application of the instrument does with the library, in one file.
//
// The board has two devices: "sensor", which the library builds by class name over a small
// in-process proxy, and "tcxo", the TCXO calibration device, which the configuration builds
// itself. The program sends the sensor a command and a request, collects its samples for one
// second, records a calibration and prints two self-test results as JSON.

#include <pal/krabstractdeviceproxy.h>
#include <pal/krdatacollector.h>
#include <pal/krdeviceabstraction.h>
#include <pal/krpalapplicationmanager.h>
#include <pal/krpalconfiguration.h>
#include <pal/krpalroot.h>
#include <pal/krselftestresult.h>
#include <pal/krtemperaturetestresult.h>
#include <pal/tcxocaldevice.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTimer>

#include <cstdio>
#include <cstring>

namespace {

// The sensor's commands: SetGain is written, ReadTemperature is a request with a reply.
enum SensorCommand : quint16
{
    SetGain = 0x0001,
    ReadTemperature = 0x0002
};

constexpr qint64 samplesPerSecond = 8000;

} // namespace

// The byte transport to the sensor. A proxy for real hardware opens its device node and
// bounds every call with poll() and a deadline; this one answers from memory.
class SensorProxy : public Pal::KrAbstractDeviceProxy
{
    Q_OBJECT
public:
    // Built by class name: the factory calls an invokable constructor with no arguments.
    Q_INVOKABLE explicit SensorProxy(QObject *parent = nullptr)
        : KrAbstractDeviceProxy(parent)
    {
        m_clock.start();
    }

    // On the device's command thread, started for each command.
    qint64 write(const char *data, qint64 size) override
    {
        std::fprintf(stdout, "sensor took: %.*s", int(size), data);
        return size;
    }

    // On the data collector's thread: a buffer of the 16-bit samples due, or 0 at once.
    qint64 read(char *data, qint64 maxSize) override
    {
        const qint64 due = maxSize / 2;
        if (m_clock.elapsed() * samplesPerSecond / 1000 - m_samplesRead < due)
            return 0;
        for (qint64 i = 0; i < due; ++i) {
            const auto sample = quint16(m_samplesRead++);
            data[2 * i] = char(sample & 0xff);
            data[2 * i + 1] = char(sample >> 8);
        }
        return 2 * due;
    }

    // On the caller's thread: one request and its reply.
    qint64 ioctl(char *request, int requestSize, char *reply, quint32 replySize, quint32) override
    {
        if (QByteArray(request, requestSize) != "TEMP?\n")
            return -1;
        const QByteArray answer = QByteArrayLiteral("41.5");
        const auto size = qMin(qint64(answer.size()), qint64(replySize));
        std::memcpy(reply, answer.constData(), size_t(size));
        return size;
    }

private:
    QElapsedTimer m_clock;
    qint64 m_samplesRead = 0;
};

// The application's description of its board.
class Board : public Pal::KrPalConfiguration
{
public:
    explicit Board(const QString &calibrationFile)
        : m_calibrationFile(calibrationFile)
    {
    }

    QList<QByteArray> deviceAbstractionIds() const override { return {"sensor", "tcxo"}; }
    QMetaObject deviceProxy(const QByteArray &) const override { return SensorProxy::staticMetaObject; }
    QMetaObject deviceAbstraction(const QByteArray &) const override
    {
        return Pal::KrDeviceAbstraction::staticMetaObject;
    }
    // Each command id's bytes; a request is formatted with an empty value.
    Pal::CommandFormatters commandFormatters(const QByteArray &) const override
    {
        return {
            {SetGain, [](quint16, const QVariant &gain) -> QByteArray { return "GAIN " + gain.toByteArray() + '\n'; }},
            {ReadTemperature, [](quint16, const QVariant &) { return QByteArrayLiteral("TEMP?\n"); }}};
    }
    // Asked first for every key: the TCXO device has no invokable constructor.
    std::shared_ptr<Pal::KrDeviceAbstraction> createDeviceAbstraction(const QByteArray &key) const override
    {
        if (key == "tcxo")
            return std::make_shared<Pal::TcxoCalDevice>(key, m_calibrationFile);
        return nullptr; // built by class name
    }

private:
    QString m_calibrationFile;
};

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    const QString name = QStringLiteral("quickstart");

    // Build the board once and register it; any component then finds it by name. On a
    // board without a calibration file yet, the TCXO device logs that it cannot open it.
    QTemporaryDir directory;
    const QString calibrationFile = directory.filePath(QStringLiteral("tcxo.cal"));
    Pal::KrPalApplicationManager::add(name, Board(calibrationFile).createPalRoot());
    const QSharedPointer<Pal::KrPalRoot> root = Pal::KrPalApplicationManager::application(name);
    Pal::KrDeviceAbstraction *sensor = root->deviceAbstraction("sensor");

    // A command: the proxy's result (here the bytes written), 7 when rejected, -1 after the
    // time-out, which bounds this caller's wait and not the proxy's call.
    const qint64 written = sensor->write(SetGain, 12);
    std::printf("write(SetGain, 12) returned %lld\n", static_cast<long long>(written));

    // A request and its reply, on this thread.
    char reply[32];
    const qint64 replied = sensor->ioctl(ReadTemperature, reply, sizeof(reply), 100);
    const double celsius = replied > 0 ? QByteArray(reply, int(replied)).toDouble() : qQNaN();
    std::printf("ioctl(ReadTemperature) returned %lld: %g degrees\n", static_cast<long long>(replied), celsius);

    // One second of samples. Buffers arrive on the collector's thread; the context object
    // makes the connection queued, so the counting runs on this thread.
    auto *proxy = sensor->findChild<Pal::KrAbstractDeviceProxy *>();
    Pal::KrDataCollector collector(proxy, 512);
    qint64 buffers = 0;
    QObject::connect(
        &collector, &Pal::KrDataCollector::rawDataReady, &application, [&buffers](const QByteArray &) { ++buffers; });
    collector.start();
    QTimer::singleShot(1000, &application, &QCoreApplication::quit);
    QCoreApplication::exec();
    collector.stop();
    std::printf("collected %lld buffers of %u bytes in one second\n", static_cast<long long>(buffers),
        collector.dataBufferSize());

    // The calibration: written by the factory, updated in the field, read back.
    auto *tcxo = qobject_cast<Pal::TcxoCalDevice *>(root->deviceAbstraction("tcxo"));
    Pal::TcxoCalDevice::TcxoCalFactors factory;
    factory.factoryTcxo = factory.fieldTcxo = 2048;
    factory.factoryTemperature = factory.fieldTemperature = 25.0f;
    factory.factoryTuningSensitivity = factory.fieldTuningSensitivity = 0.0125f;
    tcxo->createTcxoCalFile(factory);
    tcxo->updateTcxoFieldCal(2051, 31.5f, 0.0124f);
    Pal::TcxoCalDevice::TcxoCalFactors read;
    const bool complete = tcxo->getTcxoCalFactors(read);
    std::printf("calibration %s: field DAC %u at %g degrees\n", complete ? "complete" : "incomplete", read.fieldTcxo,
        double(read.fieldTemperature));

    // Two self-test results, rendered as JSON.
    const Pal::KrTemperatureTestResult temperature(
        qAbs(celsius - 40) <= 15, QStringLiteral("Sensor temperature"), 40, 15, celsius, true);
    const Pal::KrSelfTestResult stream(buffers > 0, QStringLiteral("Sample stream"), true);
    const QJsonArray results{temperature.generateJsonObject(), stream.generateJsonObject()};
    std::fputs(QJsonDocument(QJsonObject{{QStringLiteral("selfTest"), results}}).toJson().constData(), stdout);

    // The devices, their threads and their proxies go with the root's last reference.
    Pal::KrPalApplicationManager::remove(name);
    return 0;
}

#include "main.moc"
