#include "tcxocaldummydevice.h"

namespace Pal {

namespace {

QString realText(float value)
{
    return QString::number(double(value), 'g', 6);
}

} // namespace

// The base still makes its one read attempt of "DummyTcxoCalFile" in the working directory;
// its cached value is never used here.
TcxoCalDummyDevice::TcxoCalDummyDevice(const QByteArray &key)
    : TcxoCalDevice(key, QStringLiteral("DummyTcxoCalFile"))
    , m_factors{9999, 99.99f, 9.99e9f, 9999, 99.99f, 9.99e9f, 0, 0, 0}
{
}

TcxoCalDummyDevice::~TcxoCalDummyDevice() = default;

void TcxoCalDummyDevice::createTcxoCalFile(TcxoCalFactors factors)
{
    m_factors = factors;
}

bool TcxoCalDummyDevice::getTcxoCalFactors(TcxoCalFactors &factors) const
{
    factors = m_factors;
    return true;
}

QString TcxoCalDummyDevice::getValue(const QString &key, bool fromCache) const
{
    Q_UNUSED(fromCache)
    if (key == QLatin1String(factoryTcxoKey))
        return QString::number(m_factors.factoryTcxo);
    if (key == QLatin1String(factoryTemperatureKey))
        return realText(m_factors.factoryTemperature);
    if (key == QLatin1String(factoryTuningSensitivityKey))
        return realText(m_factors.factoryTuningSensitivity);
    if (key == QLatin1String(fieldTcxoKey))
        return QString::number(m_factors.fieldTcxo);
    if (key == QLatin1String(fieldTemperatureKey))
        return realText(m_factors.fieldTemperature);
    if (key == QLatin1String(fieldTuningSensitivityKey))
        return realText(m_factors.fieldTuningSensitivity);
    if (key == QLatin1String(fieldFixTimeKey))
        return realText(m_factors.fieldFixTime);
    if (key == QLatin1String(fixDecayTimeKey))
        return realText(m_factors.fixDecayTime);
    if (key == QLatin1String(refSourceDisplayKey))
        return realText(m_factors.refSourceDisplay);
    return QString();
}

void TcxoCalDummyDevice::updateTcxoFieldCal(int dacValue, float temperature, float tuningSensitivity)
{
    m_factors.fieldTcxo = static_cast<unsigned int>(dacValue);
    m_factors.fieldTemperature = temperature;
    m_factors.fieldTuningSensitivity = tuningSensitivity;
}

void TcxoCalDummyDevice::updateTcxoFieldCal(int dacValue)
{
    m_factors.fieldTcxo = static_cast<unsigned int>(dacValue);
}

} // namespace Pal
