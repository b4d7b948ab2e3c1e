#include "simboarddemo.h"

#include "runlog.h"
#include "simboardconfiguration.h"
#include "steps/stepsupport.h"

#include <pal/krdeviceabstraction.h>
#include <pal/krpalapplicationmanager.h>
#include <pal/krpalroot.h>
#include <pal/tcxocaldevice.h>

#include <QElapsedTimer>
#include <QTemporaryDir>

using namespace SimBoard;
using namespace StepSupport;

const QString SimBoardDemo::applicationName = QStringLiteral("simboard");

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
    driveRegisters();
    streamSamples();
    createCalibration();
    readCalibration();
    updateFieldCalibration();
    runSelfTest();
    readGpsFix();
    shutDown();
}

Pal::KrDeviceAbstraction *SimBoardDemo::device(const QSharedPointer<Pal::KrPalRoot> &root, const char *key)
{
    Pal::KrDeviceAbstraction *device = root ? root->deviceAbstraction(key) : nullptr;
    m_log.check(device, QStringLiteral("no device under the key %1").arg(quoted(QByteArray(key))));
    return device;
}

Pal::TcxoCalDevice *SimBoardDemo::tcxoDevice(const QSharedPointer<Pal::KrPalRoot> &root)
{
    auto *tcxo = qobject_cast<Pal::TcxoCalDevice *>(device(root, tcxoKey));
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
