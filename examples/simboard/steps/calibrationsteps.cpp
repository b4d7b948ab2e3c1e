// The TCXO calibration: created, read back, and updated by a field calibration.

#include "expected.h"
#include "runlog.h"
#include "simboardconfiguration.h"
#include "simboarddemo.h"
#include "steps/stepsupport.h"

#include <pal/krpalapplicationmanager.h>
#include <pal/krpalroot.h>
#include <pal/tcxocaldevice.h>

#include <QDateTime>
#include <QFile>
#include <QRegularExpression>

#include <sys/stat.h>

using namespace SimBoard;
using namespace StepSupport;

namespace {

bool operator==(const Pal::TcxoCalDevice::TcxoCalFactors &a, const Pal::TcxoCalDevice::TcxoCalFactors &b)
{
    return a.factoryTcxo == b.factoryTcxo && a.factoryTemperature == b.factoryTemperature
        && a.factoryTuningSensitivity == b.factoryTuningSensitivity && a.fieldTcxo == b.fieldTcxo
        && a.fieldTemperature == b.fieldTemperature && a.fieldTuningSensitivity == b.fieldTuningSensitivity
        && a.fieldFixTime == b.fieldFixTime && a.fixDecayTime == b.fixDecayTime
        && a.refSourceDisplay == b.refSourceDisplay;
}

} // namespace

void SimBoardDemo::createCalibration()
{
    m_log.begin(QStringLiteral("tcxo-create"), QStringLiteral("Create the TCXO calibration"));
    const QSharedPointer<Pal::KrPalRoot> root = Pal::KrPalApplicationManager::application(applicationName);
    Pal::TcxoCalDevice *tcxo = tcxoDevice(root);
    if (tcxo) {
        tcxo->createTcxoCalFile(Expected::factoryCalibration());
        const QByteArray bytes = readFile(m_tcxoFile);
        m_log.say(QStringLiteral("createTcxoCalFile() wrote the factory calibration to %1, %2 bytes:")
                      .arg(m_tcxoFile)
                      .arg(bytes.size()));
        m_log.show(QString::fromUtf8(bytes));
        m_log.record(QStringLiteral("lines"), jsonLines(linesOf(bytes)));
        m_log.check(bytes == Expected::factoryCalibrationText,
            QStringLiteral("the file does not hold the nine lines of the factory calibration"));
    }
    m_log.end();
}

void SimBoardDemo::readCalibration()
{
    m_log.begin(QStringLiteral("tcxo-read"), QStringLiteral("Read the calibration back"));
    const QSharedPointer<Pal::KrPalRoot> root = Pal::KrPalApplicationManager::application(applicationName);
    const Pal::TcxoCalDevice *tcxo = tcxoDevice(root);
    if (tcxo) {
        Pal::TcxoCalDevice::TcxoCalFactors factors;
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
        m_log.check(complete && factors == Expected::factoryCalibration(),
            QStringLiteral("the record read back differs from the one written"));

        const QString key = QLatin1String(Pal::fieldTcxoKey);
        const QString fromFile = tcxo->getValue(key, false);
        const QString fromCache = tcxo->getValue(key, true);
        m_log.say(QStringLiteral("getValue(%1) gave %2 from the file and %3 from the device's cache.")
                      .arg(quoted(key), quoted(fromFile), quoted(fromCache)));
        m_log.check(fromFile == Expected::factoryFieldTcxo && fromCache == Expected::factoryFieldTcxo,
            QStringLiteral("the field DAC value should read ") + Expected::factoryFieldTcxo);
        m_log.record(QStringLiteral("complete"), complete);
        m_log.record(QStringLiteral("fieldTcxo"), fromFile);
    }
    m_log.end();
}

void SimBoardDemo::updateFieldCalibration()
{
    m_log.begin(QStringLiteral("tcxo-field"), QStringLiteral("Record a field calibration"));
    const QSharedPointer<Pal::KrPalRoot> root = Pal::KrPalApplicationManager::application(applicationName);
    Pal::TcxoCalDevice *tcxo = tcxoDevice(root);
    if (!tcxo) {
        m_log.end();
        return;
    }
    const QStringList before = linesOf(readFile(m_tcxoFile));
    const qint64 earliest = QDateTime::currentMSecsSinceEpoch();
    tcxo->updateTcxoFieldCal(Expected::fieldTcxo, Expected::fieldTemperature, Expected::fieldSensitivity);
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
            && after.mid(7) == before.mid(7) && after[3] == Expected::fieldTcxoLine
            && after[4] == Expected::fieldTemperatureLine && after[5] == Expected::fieldSensitivityLine
            && fixedAt >= earliest && fixedAt <= latest,
        QStringLiteral("the field update should change the four field lines and nothing else"));

    struct stat status = {};
    const bool stated = ::stat(QFile::encodeName(m_tcxoFile).constData(), &status) == 0;
    const int mode = int(status.st_mode & 07777);
    m_log.say(QStringLiteral("The file has mode %1: its owner reads and writes it, others read it.")
                  .arg(mode, 4, 8, QLatin1Char('0')));
    m_log.check(
        stated && mode == Expected::calibrationFileMode, QStringLiteral("the calibration file should have mode 0604"));

    const QString cached = tcxo->getValue(QLatin1String(Pal::fieldTcxoKey), true);
    m_log.say(QStringLiteral("The device's cache gives the new field DAC value: %1.").arg(quoted(cached)));
    m_log.check(
        cached == Expected::fieldTcxoValue, QStringLiteral("the cache should hold ") + Expected::fieldTcxoValue);

    tcxo->updateTcxoFieldCal(Expected::fieldTcxo, 99.0f, 99.0f);
    const bool untouched = readFile(m_tcxoFile) == bytes;
    m_log.say(QStringLiteral("A second field calibration with the same DAC value, 2060, left %1: temperature and "
                             "sensitivity are recorded only with a new DAC value.")
                  .arg(untouched ? QStringLiteral("every byte as it was") : QStringLiteral("the file changed")));
    m_log.check(untouched, QStringLiteral("an update with an unchanged DAC value should not touch the file"));
    m_fieldTcxo = cached.toInt();
    m_log.end();
}
