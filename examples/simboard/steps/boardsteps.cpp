// The board's life: the simulated instrument started, the board built and registered, and shut down.

#include "expected.h"
#include "runlog.h"
#include "simboardconfiguration.h"
#include "simboarddemo.h"
#include "steps/stepsupport.h"

#include <pal/devices/krserialdeviceproxy.h>
#include <pal/devices/kruiodeviceproxy.h>
#include <pal/krdeviceabstraction.h>
#include <pal/krpalapplicationmanager.h>
#include <pal/krpalroot.h>
#include <pal/tcxocaldevice.h>

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QTemporaryDir>

using namespace SimBoard;
using namespace StepSupport;

void SimBoardDemo::startInstrument()
{
    m_log.begin(QStringLiteral("instrument"), QStringLiteral("Start the simulated instrument"));
    QString error;
    if (m_log.check(m_instrument.start(&error), error)) {
        const QString frontEnd = m_instrument.nodePath("frontend");
        const QString adc = m_instrument.nodePath("adc");
        const QString root = m_instrument.nodePath("root");
        m_log.say(QStringLiteral("Its front end answers on the pseudo-terminal %1, as on a UART; its ADC streams "
                                 "into the FIFO %2 and has its control registers in the UIO block \"adc-ctrl\" of "
                                 "the tree %3 (sys/class/uio/uio0 and the register image dev/uio0). The "
                                 "instrument's own thread serves them.")
                      .arg(frontEnd, adc, root));
        m_log.record(QStringLiteral("frontEndNode"), frontEnd);
        m_log.record(QStringLiteral("adcNode"), adc);
        m_log.record(QStringLiteral("root"), root);
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
        const auto *proxy = device->findChild<Pal::KrAbstractDeviceProxy *>(QString(), Qt::FindDirectChildrenOnly);
        const auto *node = qobject_cast<const Pal::KrFileDeviceProxy *>(proxy);
        const auto *block = qobject_cast<const Pal::KrUioDeviceProxy *>(proxy);
        if (node || block) {
            const auto *serial = qobject_cast<const Pal::KrSerialDeviceProxy *>(proxy);
            m_log.say(QStringLiteral("  %1: %2 over %3, a %4 on %5 (built by class name)")
                          .arg(quoted(key), className, QString::fromLatin1(proxy->metaObject()->className()),
                              QString::fromLatin1(proxy->metaObject()->superClass()->className()),
                              serial     ? QStringLiteral("%1 at %2 baud").arg(node->path()).arg(serial->baudRate())
                                  : node ? node->path()
                                         : QStringLiteral("the UIO block \"adc-ctrl\", %1 bytes of registers")
                                               .arg(block->mapSize())));
            m_log.check(node ? node->isOpen() : block->isOpen(),
                QStringLiteral("the proxy of %1 could not open its node: %2")
                    .arg(quoted(key), node ? node->errorString() : block->errorString()));
        } else {
            m_log.say(QStringLiteral("  %1: %2 over the file %3 (built by the configuration itself)")
                          .arg(quoted(key), className, m_tcxoFile));
        }
    }
    m_log.check(qobject_cast<Pal::TcxoCalDevice *>(root->deviceAbstraction(tcxoKey)),
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
        QJsonArray{
            QLatin1String(frontEndKey), QLatin1String(adcKey), QLatin1String(adcControlKey), QLatin1String(tcxoKey)});
    m_log.record(QStringLiteral("tcxoFile"), m_tcxoFile);
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
    m_log.check(
        clock.elapsed() < Expected::shutdownLimitMs, QStringLiteral("shutting down took %1 ms").arg(clock.elapsed()));
    m_log.end();
}
