#pragma once

#include "simulatedinstrument.h"

#include <crosscutting/crosscutting.h>
#include <pal/tcxocaldevice.h>

#include <QByteArray>
#include <QList>

/// What the demo expects at each step, in one place: the steps compare what they see with
/// these values and nothing else. Results are those an application sees at the library's
/// interface; the simulated instrument's answers are those of its firmware.
namespace Expected {

// Results of the device abstraction, and the status codes of the reports that come with them.
constexpr qint64 rejectedCommand = 7; // no formatter for the command id
constexpr qint64 failed = -1; // a time-out, or a request without formatter
constexpr StatusCode unknownKeyReport = 47;
constexpr StatusCode timeoutReport = 70;

// A command end to end: the bytes written come back as the result.
constexpr qint64 frequencyHz = 1575420000;
inline const QByteArray frequencyLine = QByteArrayLiteral("FREQ 1575420000");
constexpr qint64 frequencyWritten = 16; // the line and its newline
constexpr quint16 commandWithoutFormatter = 0x0777;
constexpr double attenuationOutOfRange = 40; // dB; the front end takes 0 to 31.5
constexpr qint64 refusedByFrontEnd = -2; // the proxy's answer to an "ERR" line
inline const QString identityPrefix = QStringLiteral("KR-SIM,");

// The hung front end.
constexpr int hangMs = 800;
constexpr int hungCommandTimeoutMs = 250;
constexpr int busyRequestTimeoutMs = 100;
constexpr double hungAttenuation = 10.5;
constexpr double nextAttenuation = 6;
inline const QByteArray hungLine = QByteArrayLiteral("ATT 10.5");
inline const QByteArray nextLine = QByteArrayLiteral("ATT 6");
constexpr qint64 nextWritten = 6; // "ATT 6" and its newline

// The ADC's registers (control, rate divider, status): the block's bytes as stored and loaded.
constexpr int registerSettleMs = 500; // the ADC takes a store within its next tick
constexpr qint64 registerStoreWritten = 8; // one (offset, value) pair
constexpr quint32 runningStatus = SimulatedInstrument::Running;
constexpr quint32 badDividerStatus = SimulatedInstrument::BadDivider;
inline const QList<quint32> resetRegisters{0, 0, 0};
inline const QList<quint32> refusedRegisters{1, 0, badDividerStatus}; // enabled without a divider

// The stream, started by a divider and the enable bit, stopped by clearing the bit.
constexpr qint64 startStreamWritten = 16; // two stores
constexpr qint64 stopStreamWritten = registerStoreWritten;
inline quint32 rateDivider(int rate)
{
    return quint32(qRound64(double(SimulatedInstrument::clockHz) / rate));
}

// The calibration that the board leaves the factory with, as written and as read back.
inline Pal::TcxoCalDevice::TcxoCalFactors factoryCalibration()
{
    Pal::TcxoCalDevice::TcxoCalFactors factors;
    factors.factoryTcxo = 2048;
    factors.factoryTemperature = 25.5f;
    factors.factoryTuningSensitivity = 0.0125f;
    factors.fieldTcxo = 2051;
    factors.fieldTemperature = 31.75f;
    factors.fieldTuningSensitivity = 0.0124f;
    factors.fieldFixTime = 1.7e12f;
    factors.fixDecayTime = 3600;
    factors.refSourceDisplay = 1;
    return factors;
}
inline const QByteArray factoryCalibrationText = QByteArrayLiteral("FACTORY_TCXO=2048\n"
                                                                   "FACTORY_TEMPERATURE=25.5\n"
                                                                   "FACTORY_TUNING_SENSITIVITY=0.0125\n"
                                                                   "FIELD_TCXO=2051\n"
                                                                   "FIELD_TEMPERATURE=31.75\n"
                                                                   "FIELD_TUNING_SENSITIVITY=0.0124\n"
                                                                   "FIELD_FIX_TIME=1.7e+12\n"
                                                                   "FIX_DECAY_TIME=3600\n"
                                                                   "REF_SOURCE_DISPLAY=1");
inline const QString factoryFieldTcxo = QStringLiteral("2051");

// A field calibration, and the lines it leaves (the fix time is the moment it ran).
constexpr int fieldTcxo = 2060;
constexpr float fieldTemperature = 30.5f;
constexpr float fieldSensitivity = 0.0126f;
inline const QString fieldTcxoValue = QStringLiteral("2060");
inline const QString fieldTcxoLine = QStringLiteral("FIELD_TCXO=2060");
inline const QString fieldTemperatureLine = QStringLiteral("FIELD_TEMPERATURE=30.5");
inline const QString fieldSensitivityLine = QStringLiteral("FIELD_TUNING_SENSITIVITY=0.0126");
constexpr int calibrationFileMode = 0604;

// The self-test's limits: expected value and tolerance of each measurement.
struct Limit
{
    double expected;
    double tolerance;
    bool holds(double actual) const { return qAbs(actual - expected) <= tolerance; }
};
constexpr Limit tcxoFieldDac{2048, 16};
constexpr Limit supplyVolts{3.3, 0.1};
constexpr Limit supplyAmperes{1.5, 0.25};
constexpr Limit boardCelsius{40, 15};

// The GPS receiver's fix, as its sentences give it: 4808.22924,N and 01134.56744,E.
constexpr double gpsLatitude = 48.137154;
constexpr double gpsLongitude = 11.576124;
constexpr double gpsAltitude = 519.0; // metres above mean sea level
constexpr double gpsDegreeTolerance = 1e-7;
constexpr int gpsSatellites = 9;
// The receiver sends its first epoch at once and one a second; an epoch is complete when the
// next begins, so the first fix comes after about a second.
constexpr int gpsFirstFixLimitMs = 2500;

// Removing the application releases every device and thread well within this.
constexpr qint64 shutdownLimitMs = 1000;

} // namespace Expected
