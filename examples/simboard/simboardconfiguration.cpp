#include "simboardconfiguration.h"

#include "boardproxies.h"
#include "simulatedinstrument.h"

#include <pal/devices/kruioregisters.h>
#include <pal/tcxocaldevice.h>

#include <QVariant>

using namespace SimBoard;

namespace {

// The front end takes one text line per command; a command's value follows its keyword.
QByteArray line(const char *keyword, const QByteArray &value = QByteArray())
{
    QByteArray text(keyword);
    if (!value.isEmpty())
        text += ' ' + value;
    return text + '\n';
}

QByteArray frontEndRequest(quint16 commandId)
{
    switch (commandId) {
    case Identify:
        return line("*IDN?");
    case ReadTemperature:
        return line("TEMP?");
    case ReadSupplyVoltage:
        return line("VOLT?");
    case ReadSupplyCurrent:
        return line("CURR?");
    case ReadFpgaType:
        return line("FPGA?");
    case ReadCalibrationDate:
        return line("CALDATE?");
    }
    return QByteArray();
}

} // namespace

SimBoardConfiguration::SimBoardConfiguration(const QString &tcxoCalibrationFile)
    : m_tcxoCalibrationFile(tcxoCalibrationFile)
{
}

SimBoardConfiguration::~SimBoardConfiguration() = default;

QList<QByteArray> SimBoardConfiguration::deviceAbstractionIds() const
{
    return {frontEndKey, adcKey, adcControlKey, tcxoKey};
}

QList<quint16> SimBoardConfiguration::commandIds(const QByteArray &id) const
{
    if (id == frontEndKey) {
        return {SetFrequency, SetAttenuation, Identify, ReadTemperature, ReadSupplyVoltage, ReadSupplyCurrent,
            ReadFpgaType, ReadCalibrationDate};
    }
    if (id == adcControlKey)
        return {StartStream, StopStream, EnableAdc, ReadAdcRegisters};
    return {};
}

Pal::CommandFormatters SimBoardConfiguration::commandFormatters(const QByteArray &id) const
{
    Pal::CommandFormatters formatters;
    if (id == frontEndKey) {
        formatters.insert(SetFrequency,
            [](quint16, const QVariant &hertz) { return line("FREQ", QByteArray::number(hertz.toLongLong())); });
        formatters.insert(SetAttenuation, [](quint16, const QVariant &decibels) {
            return line("ATT", QByteArray::number(decibels.toDouble(), 'g', 6));
        });
        // One formatter serves every request: it is handed the command id.
        const auto request = [](quint16 commandId, const QVariant &) { return frontEndRequest(commandId); };
        for (const quint16 commandId :
            {Identify, ReadTemperature, ReadSupplyVoltage, ReadSupplyCurrent, ReadFpgaType, ReadCalibrationDate})
            formatters.insert(commandId, request);
    } else if (id == adcControlKey) {
        using Adc = SimulatedInstrument;
        formatters.insert(StartStream, [](quint16, const QVariant &rate) {
            return Pal::KrUioRegisters::writes(
                {{Adc::RateDivider, quint32(qRound64(double(Adc::clockHz) / rate.toDouble()))}, {Adc::Control, 1}});
        });
        formatters.insert(
            StopStream, [](quint16, const QVariant &) { return Pal::KrUioRegisters::write(Adc::Control, 0); });
        formatters.insert(
            EnableAdc, [](quint16, const QVariant &) { return Pal::KrUioRegisters::write(Adc::Control, 1); });
        formatters.insert(ReadAdcRegisters, [](quint16, const QVariant &) {
            return Pal::KrUioRegisters::offsets({Adc::Control, Adc::RateDivider, Adc::Status});
        });
    }
    return formatters;
}

QMetaObject SimBoardConfiguration::deviceProxy(const QByteArray &id) const
{
    if (id == frontEndKey)
        return FrontEndProxy::staticMetaObject;
    if (id == adcKey)
        return AdcStreamProxy::staticMetaObject;
    if (id == adcControlKey)
        return AdcControlProxy::staticMetaObject;
    return QMetaObject();
}

QMetaObject SimBoardConfiguration::deviceAbstraction(const QByteArray &id) const
{
    if (id == frontEndKey || id == adcKey || id == adcControlKey)
        return Pal::KrDeviceAbstraction::staticMetaObject;
    return QMetaObject();
}

std::shared_ptr<Pal::KrDeviceAbstraction> SimBoardConfiguration::createDeviceAbstraction(const QByteArray &id) const
{
    if (id == tcxoKey)
        return std::shared_ptr<Pal::KrDeviceAbstraction>(new Pal::TcxoCalDevice(id, m_tcxoCalibrationFile));
    return {};
}
