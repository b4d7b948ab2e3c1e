#pragma once

#include <pal/krpal_export.h>

#include <QGeoPositionInfo>

namespace Pal {

/// One GPS position fix with what the receiver said about it: whether it has a fix, how many
/// satellites it uses and whether a date came with it. The four facts are independent.
class KRPAL_EXPORT KrGpsInfo
{
public:
    /// No position, no fix, no satellites, no date.
    KrGpsInfo();
    /// The four facts as the receiver gave them.
    KrGpsInfo(const QGeoPositionInfo &position, bool gpsFix, unsigned short numberSatellites, bool hasDate);

    /// The position and its time stamp.
    QGeoPositionInfo getGpsPostionInfo() const;
    /// Replaces the position and its time stamp.
    void setGpsPostionInfo(const QGeoPositionInfo &position);
    /// Whether the receiver reported a fix.
    bool getGpsFix() const;
    /// Sets whether the receiver reported a fix.
    void setGpsFix(bool gpsFix);
    /// How many satellites the fix uses.
    unsigned short getNumberSatellites() const;
    /// Sets how many satellites the fix uses.
    void setNumberSatellites(unsigned short numberSatellites);
    /// Whether the position itself is valid; the fix flag and satellite count play no part.
    bool isValid() const;
    /// Whether the receiver gave a date with the time.
    bool hasDate() const;
    /// Sets whether the receiver gave a date with the time.
    void setHasDate(bool hasDate);

private:
    QGeoPositionInfo m_position;
    bool m_gpsFix = false;
    unsigned short m_numberSatellites = 0;
    bool m_hasDate = false;
};

} // namespace Pal
