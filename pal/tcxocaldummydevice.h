#pragma once

#include <pal/krpal_export.h>
#include <pal/tcxocaldevice.h>

namespace Pal {

/// A TCXO calibration device without a file: the record lives in memory, starts from fixed
/// values on every construction and is never written anywhere. Field updates always take
/// effect, keep the full 32-bit DAC value and leave the fix time alone.
class KRPAL_EXPORT TcxoCalDummyDevice : public TcxoCalDevice
{
    Q_OBJECT
public:
    /// A device under @p key with the fixed starting record; touches no file.
    explicit TcxoCalDummyDevice(const QByteArray &key);
    ~TcxoCalDummyDevice() override;

    void createTcxoCalFile(TcxoCalFactors factors) override;
    /// Always fills all nine fields and returns true.
    bool getTcxoCalFactors(TcxoCalFactors &factors) const override;
    /// Ignores @p fromCache and logs nothing; a null string only for a key that is not one of
    /// the nine.
    QString getValue(const QString &key, bool fromCache) const override;
    void updateTcxoFieldCal(int dacValue, float temperature, float tuningSensitivity) override;
    void updateTcxoFieldCal(int dacValue) override;

private:
    TcxoCalFactors m_factors;
};

} // namespace Pal
