#pragma once

#include <pal/krpal_export.h>

#include <QGeoPositionInfo>

namespace Pal {

/// One GPS position fix with what the receiver said about it: whether it has a fix, how many
/// satellites it uses and whether a date came with it. The four facts are independent.
class KRPAL_EXPORT KrGpsInfo
{
public:
    KrGpsInfo();
    KrGpsInfo(const QGeoPositionInfo &position, bool gpsFix, unsigned short numberSatellites, bool hasDate);

    QGeoPositionInfo getGpsPostionInfo() const;
    void setGpsPostionInfo(const QGeoPositionInfo &position);
    bool getGpsFix() const;
    void setGpsFix(bool gpsFix);
    unsigned short getNumberSatellites() const;
    void setNumberSatellites(unsigned short numberSatellites);
    /// Whether the position itself is valid; the fix flag and satellite count play no part.
    bool isValid() const;
    bool hasDate() const;
    void setHasDate(bool hasDate);

private:
    QGeoPositionInfo m_position;
    bool m_gpsFix = false;
    unsigned short m_numberSatellites = 0;
    bool m_hasDate = false;
};

} // namespace Pal
