#pragma once

#include <QDate>

#include <cmath>

namespace Pal {
namespace Internal {

/// What one NMEA 0183 sentence says, every field already checked. A field the sentence leaves
/// empty stays at its "absent" value: -1 for counts and times, NaN for measures, an invalid
/// date.
struct NmeaSentence
{
    /// The sentences that feed a fix; every other kind is recognised and passed over.
    enum Type
    {
        Gga,
        Rmc,
        Gsa,
        Gll,
        Vtg,
        Zda,
        Gst,
        TypeCount
    };

    Type type = Gga;
    /// UTC time of day in milliseconds.
    int timeMs = -1;
    /// Whether the sentence reports a position fix: 1 yes, 0 no, -1 it does not say.
    int fix = -1;
    bool hasPosition = false;
    double latitude = 0;
    double longitude = 0;
    double altitude = NAN; // above mean sea level, metres
    int satellites = -1; // GGA's count, or the number of satellites a GSA lists
    QDate date;
    double speed = NAN; // m/s
    double course = NAN; // degrees from true north
    double magneticVariation = NAN; // degrees, east positive
    double horizontalAccuracy = NAN; // metres
    double verticalAccuracy = NAN; // metres
};

/// Longest sentence taken, from '$' through the checksum digits. The standard allows 82
/// characters; receivers with high-precision fields send up to about 95.
constexpr int maxNmeaSentenceSize = 120;

enum class NmeaParseResult
{
    Used, // a sentence that feeds a fix, in the result
    PassedOver, // a good sentence of another kind (GSV, TXT, proprietary)
    Bad // wrong checksum, garbled, or a field that does not convert
};

/// Checks and reads one sentence, @p size bytes (at most maxNmeaSentenceSize) from its '$'
/// through the checksum, without its line end, as KrNmeaGpsSource collects them. @p result is
/// written only for Used, so a bad sentence is never half used.
NmeaParseResult parseNmeaSentence(const char *text, int size, NmeaSentence *result);

} // namespace Internal
} // namespace Pal
