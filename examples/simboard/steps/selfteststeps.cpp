// What an application reports: a self-test of every result type.

#include "expected.h"
#include "runlog.h"
#include "simboardconfiguration.h"
#include "simboarddemo.h"
#include "steps/stepsupport.h"

#include <pal/krcurrenttestresult.h>
#include <pal/krdatetestresult.h>
#include <pal/krdeviceabstraction.h>
#include <pal/krfpgatypetestresult.h>
#include <pal/krinfotestresult.h>
#include <pal/krjsontestresult.h>
#include <pal/krnumerictestresult.h>
#include <pal/krpalapplicationmanager.h>
#include <pal/krpalroot.h>
#include <pal/krselftestresult.h>
#include <pal/krtemperaturetestresult.h>
#include <pal/krversiontestresult.h>
#include <pal/krvoltagetestresult.h>

#include <QJsonDocument>
#include <QMetaEnum>
#include <QSet>

#include <memory>
#include <vector>

using namespace SimBoard;
using namespace StepSupport;

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

    // The show-type flag is set on every result, so each names its type in its JSON object.
    std::vector<std::unique_ptr<Pal::KrAbstractSelfTestResult>> results;
    results.push_back(std::make_unique<Pal::KrSelfTestResult>(m_commandPathOk, QStringLiteral("Command path"), true));
    auto stream = std::make_unique<Pal::KrSelfTestResult>(m_streamOk, QStringLiteral("Sample stream"), true);
    stream->setType(Pal::KrAbstractSelfTestResult::SelfTestResultType::PassFail);
    results.push_back(std::move(stream));
    results.push_back(std::make_unique<Pal::KrNumericTestResult>(Expected::tcxoFieldDac.holds(m_fieldTcxo),
        QStringLiteral("TCXO field DAC"), Expected::tcxoFieldDac.expected, Expected::tcxoFieldDac.tolerance,
        m_fieldTcxo, true));
    results.push_back(std::make_unique<Pal::KrVoltageTestResult>(Expected::supplyVolts.holds(volts),
        QStringLiteral("Supply 3V3"), Expected::supplyVolts.expected, Expected::supplyVolts.tolerance, volts, true));
    results.push_back(std::make_unique<Pal::KrCurrentTestResult>(Expected::supplyAmperes.holds(amperes),
        QStringLiteral("Supply current"), Expected::supplyAmperes.expected, Expected::supplyAmperes.tolerance, amperes,
        true));
    results.push_back(std::make_unique<Pal::KrTemperatureTestResult>(Expected::boardCelsius.holds(celsius),
        QStringLiteral("Board temperature"), Expected::boardCelsius.expected, Expected::boardCelsius.tolerance, celsius,
        true));
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
