#include "krgpsinfo.h"

namespace Pal {

KrGpsInfo::KrGpsInfo() = default;

KrGpsInfo::KrGpsInfo(const QGeoPositionInfo &position, bool gpsFix, unsigned short numberSatellites, bool hasDate)
    : m_position(position)
    , m_gpsFix(gpsFix)
    , m_numberSatellites(numberSatellites)
    , m_hasDate(hasDate)
{
}

QGeoPositionInfo KrGpsInfo::getGpsPostionInfo() const
{
    return m_position;
}

void KrGpsInfo::setGpsPostionInfo(const QGeoPositionInfo &position)
{
    m_position = position;
}

bool KrGpsInfo::getGpsFix() const
{
    return m_gpsFix;
}

void KrGpsInfo::setGpsFix(bool gpsFix)
{
    m_gpsFix = gpsFix;
}

unsigned short KrGpsInfo::getNumberSatellites() const
{
    return m_numberSatellites;
}

void KrGpsInfo::setNumberSatellites(unsigned short numberSatellites)
{
    m_numberSatellites = numberSatellites;
}

bool KrGpsInfo::isValid() const
{
    return m_position.isValid();
}

bool KrGpsInfo::hasDate() const
{
    return m_hasDate;
}

void KrGpsInfo::setHasDate(bool hasDate)
{
    m_hasDate = hasDate;
}

} // namespace Pal
