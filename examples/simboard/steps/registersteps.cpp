// The ADC's control registers, a UIO block driven by command formatters.

#include "expected.h"
#include "runlog.h"
#include "simboardconfiguration.h"
#include "simboarddemo.h"
#include "steps/stepsupport.h"

#include <pal/devices/kruioregisters.h>
#include <pal/krdeviceabstraction.h>
#include <pal/krpalapplicationmanager.h>
#include <pal/krpalroot.h>

#include <QDeadlineTimer>
#include <QJsonArray>
#include <QThread>

using namespace SimBoard;
using namespace StepSupport;

namespace {

QString described(const QList<quint32> &registers)
{
    return registers.size() != 3 ? QStringLiteral("nothing")
                                 : QStringLiteral("control %1, rate divider %2, status %3")
                                       .arg(registers[0])
                                       .arg(registers[1])
                                       .arg(registers[2]);
}

QJsonArray json(const QList<quint32> &registers)
{
    QJsonArray values;
    for (const quint32 value : registers)
        values.append(qint64(value));
    return values;
}

} // namespace

QList<quint32> SimBoardDemo::adcRegisters(Pal::KrDeviceAbstraction *control, quint32 status)
{
    // The ADC takes a register store within its next tick; the status tells when it has.
    const QDeadlineTimer deadline(Expected::registerSettleMs);
    QList<quint32> registers;
    do {
        char reply[12];
        registers = Pal::KrUioRegisters::values(reply, control->ioctl(ReadAdcRegisters, reply, sizeof(reply), 100));
        if (registers.size() != 3 || registers[2] == status)
            break;
        QThread::msleep(1);
    } while (!deadline.hasExpired());
    m_log.check(registers.size() == 3, QStringLiteral("the ADC's registers could not be read"));
    return registers;
}

void SimBoardDemo::driveRegisters()
{
    m_log.begin(QStringLiteral("registers"), QStringLiteral("Drive the ADC's control registers"));
    const QSharedPointer<Pal::KrPalRoot> root = Pal::KrPalApplicationManager::application(applicationName);
    Pal::KrDeviceAbstraction *control = device(root, adcControlKey);
    if (!control) {
        m_log.end();
        return;
    }
    const QList<quint32> reset = adcRegisters(control, 0);
    m_log.say(QStringLiteral("ioctl(ReadAdcRegisters), three register loads, gave %1: the ADC is off.")
                  .arg(described(reset)));
    m_log.check(reset == Expected::resetRegisters, QStringLiteral("the ADC should start off, every register 0"));

    const quint64 sentBefore = m_instrument.samplesSent();
    const qint64 enabled = control->write(EnableAdc, QVariant());
    const QList<quint32> refused = adcRegisters(control, Expected::badDividerStatus);
    const quint64 sent = m_instrument.samplesSent() - sentBefore;
    m_log.say(QStringLiteral("write(EnableAdc) returned %1, one register store. With no rate divider set the ADC "
                             "refused to stream: %2 (bad divider), and it sent %3 samples.")
                  .arg(enabled)
                  .arg(described(refused))
                  .arg(sent));
    m_log.check(enabled == Expected::registerStoreWritten && refused == Expected::refusedRegisters && sent == 0,
        QStringLiteral("enabling the ADC without a divider should be refused in its status"));

    const qint64 stopped = control->write(StopStream, QVariant());
    const QList<quint32> off = adcRegisters(control, 0);
    m_log.say(QStringLiteral("write(StopStream) returned %1 and cleared the enable bit: %2.")
                  .arg(stopped)
                  .arg(described(off)));
    m_log.check(stopped == Expected::registerStoreWritten && off == Expected::resetRegisters,
        QStringLiteral("clearing the enable bit should clear the status"));

    m_log.record(QStringLiteral("reset"), json(reset));
    m_log.record(QStringLiteral("enableResult"), enabled);
    m_log.record(QStringLiteral("refused"), json(refused));
    m_log.record(QStringLiteral("stopResult"), stopped);
    m_log.end();
}
