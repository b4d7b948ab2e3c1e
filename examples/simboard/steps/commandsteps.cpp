// Commands and requests: one end to end, request-and-reply exchanges, and a command to a hung device.

#include "expected.h"
#include "runlog.h"
#include "simboardconfiguration.h"
#include "simboarddemo.h"
#include "steps/stepsupport.h"

#include <pal/krdeviceabstraction.h>
#include <pal/krpalapplicationmanager.h>
#include <pal/krpalroot.h>

#include <QElapsedTimer>

using namespace SimBoard;
using namespace StepSupport;

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
    m_log.check(!unknown && reports.size() == 1 && reports.first().code == Expected::unknownKeyReport,
        QStringLiteral("an unknown key should give null and status report 47"));

    Pal::KrDeviceAbstraction *frontEnd = device(root, frontEndKey);
    if (!frontEnd) {
        m_log.end();
        return;
    }
    const int before = m_instrument.frontEndLines().size();
    QElapsedTimer clock;
    clock.start();
    const qint64 written = frontEnd->write(SetFrequency, Expected::frequencyHz);
    m_log.say(QStringLiteral("write(SetFrequency, 1575420000) returned %1 after %2: the formatter made the line "
                             "\"FREQ 1575420000\", the command thread wrote it through FrontEndProxy, and the "
                             "front end answered OK.")
                  .arg(written)
                  .arg(milliseconds(clock)));
    const QList<SimulatedInstrument::Received> lines = m_instrument.frontEndLines().mid(before);
    m_log.check(written == Expected::frequencyWritten, QStringLiteral("the command should return the bytes written"));
    m_log.check(lines.size() == 1 && lines.first().line == Expected::frequencyLine,
        QStringLiteral("the front end should have received \"FREQ 1575420000\" once"));

    const qint64 rejected = frontEnd->write(Expected::commandWithoutFormatter, 1);
    m_log.say(QStringLiteral("write(0x0777, 1), a command id without formatter, returned %1: the device "
                             "abstraction rejected it and sent nothing.")
                  .arg(rejected));
    m_log.check(rejected == Expected::rejectedCommand && m_instrument.frontEndLines().size() == before + 1,
        QStringLiteral("a command without formatter should be rejected with 7"));

    const qint64 refused = frontEnd->write(SetAttenuation, Expected::attenuationOutOfRange);
    m_log.say(QStringLiteral("write(SetAttenuation, 40) returned %1: the front end refused the value as out of "
                             "range, and the proxy's answer came back unchanged.")
                  .arg(refused));
    m_log.check(
        refused == Expected::refusedByFrontEnd, QStringLiteral("a refused command should return the proxy's -2"));

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
        m_log.check(identity.startsWith(Expected::identityPrefix), QStringLiteral("unexpected identity"));
        m_log.record(QStringLiteral("identity"), identity);
        m_log.record(QStringLiteral("temperature"), temperature);

        char reply[64];
        const qint64 refused = adc->ioctl(Identify, reply, sizeof(reply), 1000);
        m_log.say(QStringLiteral("ioctl(Identify) on the ADC returned %1: the ADC has no formatter for it, so the "
                                 "device abstraction refused the request.")
                      .arg(refused));
        m_log.check(refused == Expected::failed, QStringLiteral("a request without formatter should return -1"));
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
    m_instrument.hangFrontEnd(Expected::hangMs);
    m_log.say(QStringLiteral("The front end stops answering for %1 ms.").arg(Expected::hangMs));

    QElapsedTimer clock;
    clock.start();
    const qint64 hung = frontEnd->write(SetAttenuation, Expected::hungAttenuation, Expected::hungCommandTimeoutMs);
    const qint64 hungMs = clock.elapsed();
    m_log.say(QStringLiteral("write(SetAttenuation, 10.5) with a time-out of %1 ms returned %2 after %3; its job "
                             "goes on waiting for the answer on the command thread.")
                  .arg(Expected::hungCommandTimeoutMs)
                  .arg(hung)
                  .arg(milliseconds(clock)));
    m_log.check(hung == Expected::failed && hungMs >= Expected::hungCommandTimeoutMs && hungMs < Expected::hangMs,
        QStringLiteral("the hung command should return -1 after its time-out"));
    const QList<StatusReport> reports = m_log.takeReports();
    m_log.check(reports.size() == 1 && reports.first().code == Expected::timeoutReport,
        QStringLiteral("expected one status report 70 for the time-out"));

    char reply[64];
    clock.restart();
    const qint64 busy = frontEnd->ioctl(ReadTemperature, reply, sizeof(reply), Expected::busyRequestTimeoutMs);
    m_log.say(QStringLiteral("ioctl(ReadTemperature) with a time-out of %1 ms returned %2 after %3: the hung "
                             "command still holds the line, and the proxy keeps the request's time-out.")
                  .arg(Expected::busyRequestTimeoutMs)
                  .arg(busy)
                  .arg(milliseconds(clock)));
    m_log.check(busy == Expected::failed, QStringLiteral("a request to the busy front end should return -1"));

    clock.restart();
    const qint64 next = frontEnd->write(SetAttenuation, Expected::nextAttenuation);
    const qint64 nextDone = m_instrument.msecsSinceStart() - hangStart;
    m_log.say(QStringLiteral("The next write(SetAttenuation, 6) returned %1 after %2: it waited for the hung "
                             "command's job to end, %3 ms after the hang began.")
                  .arg(next)
                  .arg(milliseconds(clock))
                  .arg(nextDone));
    m_log.check(
        next == Expected::nextWritten, QStringLiteral("the command after the hang should return the bytes written"));

    const QList<SimulatedInstrument::Received> lines = m_instrument.frontEndLines().mid(before);
    QStringList taken;
    for (const SimulatedInstrument::Received &received : lines) {
        taken << QStringLiteral("%1 at %2 ms").arg(quoted(received.line)).arg(received.msecs - hangStart);
    }
    m_log.say(QStringLiteral("The front end took, counted from the hang: %1. The timed-out command was delivered "
                             "late, not lost.")
                  .arg(taken.join(QLatin1String(", "))));
    m_log.check(lines.size() == 2 && lines[0].line == Expected::hungLine && lines[1].line == Expected::nextLine
            && lines[0].msecs - hangStart >= Expected::hangMs - 1 && lines[0].msecs - hangStart < 2 * Expected::hangMs,
        QStringLiteral("the front end should take \"ATT 10.5\", then \"ATT 6\", as the hang ends"));

    m_log.record(QStringLiteral("hungResult"), hung);
    m_log.record(QStringLiteral("hungMs"), hungMs);
    m_log.record(QStringLiteral("busyRequestResult"), busy);
    m_log.record(QStringLiteral("nextResult"), next);
    m_log.end();
}
