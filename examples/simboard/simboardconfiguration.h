#pragma once

#include <pal/krpalconfiguration.h>

#include <QString>

/// Device keys and command ids of the simulated board.
namespace SimBoard {

constexpr char frontEndKey[] = "frontend";
constexpr char adcKey[] = "adc";
constexpr char adcControlKey[] = "adc-control";
constexpr char tcxoKey[] = "tcxo";

enum FrontEndCommand : quint16
{
    // Commands, sent with write(): the value is the setting.
    SetFrequency = 0x0101, // Hz
    SetAttenuation = 0x0102, // dB, 0 to 31.5
                             // Requests, exchanged with ioctl().
    Identify = 0x0180,
    ReadTemperature = 0x0181,
    ReadSupplyVoltage = 0x0182,
    ReadSupplyCurrent = 0x0183,
    ReadFpgaType = 0x0184,
    ReadCalibrationDate = 0x0185
};

// The ADC's control registers: commands store registers, requests read them.
enum AdcControlCommand : quint16
{
    StartStream = 0x0201, // samples per second: the rate divider, then the enable bit
    StopStream = 0x0202,
    EnableAdc = 0x0203, // the enable bit alone, with whatever divider is set
    ReadAdcRegisters = 0x0280 // control, rate divider, status
};

} // namespace SimBoard

/// The board of the simulated instrument: a front end, an ADC's stream and its control
/// registers, built by the library from their classes (a proxy on the device's node and the
/// plain device abstraction, with the commands' formatters), and the TCXO calibration device, which has no invokable
/// constructor and is built here, over the calibration file given at construction.
class SimBoardConfiguration : public Pal::KrPalConfiguration
{
public:
    explicit SimBoardConfiguration(const QString &tcxoCalibrationFile);
    ~SimBoardConfiguration() override;

    QList<quint16> commandIds(const QByteArray &id) const override;
    Pal::CommandFormatters commandFormatters(const QByteArray &id) const override;
    QMetaObject deviceProxy(const QByteArray &id) const override;
    std::shared_ptr<Pal::KrDeviceAbstraction> createDeviceAbstraction(const QByteArray &id) const override;
    QList<QByteArray> deviceAbstractionIds() const override;
    QMetaObject deviceAbstraction(const QByteArray &id) const override;

private:
    const QString m_tcxoCalibrationFile;
};
