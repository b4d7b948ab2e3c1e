#pragma once

#include <pal/krdeviceabstraction.h>
#include <pal/krpal_export.h>

#include <QString>

#include <functional>

namespace Pal {

// Keys of the calibration file, each with its "=", in the order the file holds them.
inline constexpr char factoryTcxoKey[] = "FACTORY_TCXO=";
inline constexpr char factoryTemperatureKey[] = "FACTORY_TEMPERATURE=";
inline constexpr char factoryTuningSensitivityKey[] = "FACTORY_TUNING_SENSITIVITY=";
inline constexpr char fieldTcxoKey[] = "FIELD_TCXO=";
inline constexpr char fieldTemperatureKey[] = "FIELD_TEMPERATURE=";
inline constexpr char fieldTuningSensitivityKey[] = "FIELD_TUNING_SENSITIVITY=";
inline constexpr char fieldFixTimeKey[] = "FIELD_FIX_TIME=";
inline constexpr char fixDecayTimeKey[] = "FIX_DECAY_TIME=";
inline constexpr char refSourceDisplayKey[] = "REF_SOURCE_DISPLAY=";

/// Keeps the factory and field calibration of the board's TCXO in a text file of KEY=value
/// lines. Every operation is plain file access on the calling thread; the file is open only
/// during a call. A write replaces the file as a whole (a synced temporary file
/// ".<name>.krpal-XXXXXX" renamed over it), so a power cut, a crash or a full disk leaves the
/// old calibration or the new one, never a partial file, and the file has mode 0604 after every
/// write. A write that fails leaves no temporary file and, where the application has switched
/// on the warnings of the category "krpal.tcxocal" (off by default), logs one that names the
/// failed step; a temporary file left by a killed writer is removed by the next write. Callers must not run a write at
/// the same time as any other operation on the same file.
class KRPAL_EXPORT TcxoCalDevice : public KrDeviceAbstraction
{
    Q_OBJECT
public:
    /// The calibration record, one field per key of the file.
    struct TcxoCalFactors
    {
        /// Tuning DAC value of the factory calibration.
        unsigned int factoryTcxo = 0;
        /// Board temperature at the factory calibration, in degrees Celsius.
        float factoryTemperature = 0;
        /// Tuning sensitivity measured at the factory.
        float factoryTuningSensitivity = 0;
        /// Tuning DAC value of the last field calibration.
        unsigned int fieldTcxo = 0;
        /// Board temperature at the last field calibration, in degrees Celsius.
        float fieldTemperature = 0;
        /// Tuning sensitivity at the last field calibration.
        float fieldTuningSensitivity = 0;
        /// Milliseconds since the epoch; as a float it keeps about 7 significant digits.
        float fieldFixTime = 0;
        /// How long a field calibration stays trusted, as the application defines it.
        float fixDecayTime = 0;
        /// The reference source shown to the user, as the application defines it.
        float refSourceDisplay = 0;
    };

    /// Reads the field DAC value of @p calibrationFile (a path used unchanged) into the cache.
    TcxoCalDevice(const QByteArray &key, const QString &calibrationFile);
    ~TcxoCalDevice() override;

    /// Writes the whole file, creating it and its directory when missing.
    virtual void createTcxoCalFile(TcxoCalFactors factors);
    /// Fills the fields whose keys are found; true when the file opened and all nine were.
    virtual bool getTcxoCalFactors(TcxoCalFactors &factors) const;
    /// The value text after @p key, or a null string (logged) when the file cannot be opened
    /// or lacks the key. With @p fromCache, the field DAC value comes from memory.
    virtual QString getValue(const QString &key, bool fromCache) const;
    /// Records a field calibration; the file changes only when @p dacValue differs from its own.
    virtual void updateTcxoFieldCal(int dacValue, float temperature, float tuningSensitivity);
    /// Records a new field DAC value alone.
    virtual void updateTcxoFieldCal(int dacValue);

    /// The calibration file's path as given at construction.
    QString calibrationFile() const;

protected:
    /// Whether the file's directory exists, creating it when missing.
    bool calDirectoryExists() const;
    /// Replaces the field DAC value of an existing file and lets @p editFunction change the
    /// text further, when the value differs from the file's.
    void updateTcxoCalFile(int dacValue, std::function<void(QString &)> editFunction);

private:
    const QString m_calibrationFile;
    // Low 16 bits of the field DAC value last read at construction or given; served by
    // getValue(fieldTcxoKey, true) without touching the file.
    quint16 m_fieldTcxo;
};

} // namespace Pal
