#include <crosscutting/crosscutting.h>
#include <pal/devices/krfiledeviceproxy.h>
#include <pal/krdeviceabstraction.h>
#include <pal/krpal_export.h>
#include <pal/krpalapplicationmanager.h>
#include <pal/krpalconfiguration.h>
#include <pal/krpalroot.h>

#include <cstdio>

namespace {

// A board of two devices built by hand; a real board names its proxy classes instead.
class ConsumerConfiguration : public Pal::KrPalConfiguration
{
public:
    QList<QByteArray> deviceAbstractionIds() const override { return {"adc", "dac"}; }
    std::shared_ptr<Pal::KrDeviceAbstraction> createDeviceAbstraction(const QByteArray &id) const override
    {
        return std::shared_ptr<Pal::KrDeviceAbstraction>(new Pal::KrDeviceAbstraction(id, nullptr));
    }
};

} // namespace

int main()
{
    Crosscutting::KrStatusReporter *reporter
        = Crosscutting::KrCrosscuttingManagerPlaceholder::instance()->statusReporter();
    const StatusCode code = reporter->reportStatus(
        42, Crosscutting::createSourceContext(QString(), QStringLiteral("main.cpp"), 1, QStringLiteral("main"), {}));

    const QString application = QStringLiteral("consumer");
    Pal::KrPalApplicationManager::add(application, ConsumerConfiguration().createPalRoot());
    const QSharedPointer<Pal::KrPalRoot> root = Pal::KrPalApplicationManager::application(application);
    Pal::KrDeviceAbstraction *dac = root ? root->deviceAbstraction("dac") : nullptr;
    const QByteArray dacId = dac ? dac->id() : QByteArray();
    // Without a proxy the device rejects every command.
    const qint64 written = dac ? dac->write(1, 0) : 0;
    Pal::KrPalApplicationManager::remove(application);

    // The devices library: a ready-made proxy on a node that takes every byte and has none.
    Pal::KrFileDeviceProxy null(QStringLiteral("/dev/null"));
    char bytes[] = "ping";
    const qint64 nullWritten = null.write(bytes, 4);
    const qint64 nullRead = null.read(bytes, 4);

    std::printf("consumer: reporter answered %lld, device \"%s\" rejected a write with %lld, /dev/null took %lld "
                "bytes and gave %lld\n",
        static_cast<long long>(code), dacId.constData(), static_cast<long long>(written),
        static_cast<long long>(nullWritten), static_cast<long long>(nullRead));
    return code == 42 && dacId == "dac" && written == 7 && null.isOpen() && nullWritten == 4 && nullRead == 0 ? 0 : 1;
}
