#include "krnmeasentence_p.h"

#include <QtGlobal>

#include <cstring>

namespace Pal {
namespace Internal {

namespace {

// One comma-separated field of a sentence, pointing into the sentence's bytes.
struct Field
{
    const char *text = nullptr;
    int size = 0;

    bool isEmpty() const { return size == 0; }
    bool is(char c) const { return size == 1 && text[0] == c; }
    bool isOneOf(const char *letters) const { return size == 1 && std::strchr(letters, text[0]); }
};

// More than any sentence used here carries (GSA: 18 after the address).
constexpr int maxFields = 24;

const double powersOfTen[] = {1e0, 1e1, 1e2, 1e3, 1e4, 1e5, 1e6, 1e7, 1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14, 1e15};
// Fifteen digits stay exact in a double, so a number's value is one correctly rounded division.
constexpr int maxDecimalDigits = 15;
// Minutes of arc beyond 1e-10 carry nothing a receiver measures.
constexpr int maxMinuteFractionDigits = 10;

// The bytes a sentence's body may hold.
struct BodyBytes
{
    bool allowed[256] = {};
    constexpr BodyBytes()
    {
        for (int c = 0x20; c <= 0x7e; ++c)
            allowed[c] = c != '$' && c != '*' && c != '!' && c != '\\';
    }
};
constexpr BodyBytes bodyBytes;

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

int hexValue(char c)
{
    if (isDigit(c))
        return c - '0';
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return -1;
}

// One to @p maxDigits digits and nothing else.
bool parseUnsigned(Field field, int maxDigits, qint64 *value)
{
    if (field.isEmpty() || field.size > maxDigits)
        return false;
    qint64 number = 0;
    for (int i = 0; i < field.size; ++i) {
        if (!isDigit(field.text[i]))
            return false;
        number = number * 10 + (field.text[i] - '0');
    }
    *value = number;
    return true;
}

// A decimal number as written, [-]digits[.digits], times @p numerator / @p denominator (a unit
// conversion) in one division of integers, so the value is the digits' own; empty gives NaN.
bool parseDecimal(Field field, bool allowNegative, double *value, qint64 numerator = 1, qint64 denominator = 1)
{
    if (field.isEmpty()) {
        *value = NAN;
        return true;
    }
    int i = 0;
    const bool negative = allowNegative && field.text[0] == '-';
    if (negative)
        i = 1;
    qint64 mantissa = 0;
    int digits = 0;
    int scale = 0;
    bool point = false;
    for (; i < field.size; ++i) {
        const char c = field.text[i];
        if (c == '.' && !point) {
            point = true;
            continue;
        }
        if (!isDigit(c) || ++digits > maxDecimalDigits)
            return false;
        mantissa = mantissa * 10 + (c - '0');
        scale += point;
    }
    if (digits == 0)
        return false;
    const double magnitude = double(mantissa * numerator) / (double(denominator) * powersOfTen[scale]);
    *value = negative && mantissa != 0 ? -magnitude : magnitude;
    return true;
}

bool parseNonNegative(Field field, double *value)
{
    return parseDecimal(field, false, value);
}

// Knots into metres per second: 1852 / 3600 = 463 / 900.
bool parseKnots(Field field, double *metresPerSecond)
{
    return parseDecimal(field, false, metresPerSecond, 463, 900);
}

// hhmmss[.s...]: the time of day in milliseconds, further digits cut off; empty gives -1.
bool parseTime(Field field, int *timeMs)
{
    if (field.isEmpty()) {
        *timeMs = -1;
        return true;
    }
    if (field.size < 6 || field.size > 16 || (field.size > 6 && field.text[6] != '.'))
        return false;
    int digits[9] = {};
    for (int i = 0; i < field.size; ++i) {
        if (i == 6)
            continue;
        if (!isDigit(field.text[i]))
            return false;
        const int index = i < 6 ? i : i - 1;
        if (index < 9)
            digits[index] = field.text[i] - '0';
    }
    const int hours = digits[0] * 10 + digits[1];
    const int minutes = digits[2] * 10 + digits[3];
    const int seconds = digits[4] * 10 + digits[5];
    if (hours > 23 || minutes > 59 || seconds > 59)
        return false;
    *timeMs = ((hours * 60 + minutes) * 60 + seconds) * 1000 + digits[6] * 100 + digits[7] * 10 + digits[8];
    return true;
}

// (d)ddmm[.m...] with its hemisphere letter, into signed degrees. The minutes are kept as the
// integer their digits spell, so the degrees come out of one division: exact to far below
// 1e-7 degree, whatever the number of digits.
bool parseCoordinate(Field value, Field hemisphere, bool latitude, double *degrees, bool *present)
{
    const bool negative = hemisphere.is(latitude ? 'S' : 'W');
    const bool known = negative || hemisphere.is(latitude ? 'N' : 'E');
    // Some receivers name the hemisphere of a coordinate they do not have.
    if (value.isEmpty()) {
        *present = false;
        return hemisphere.isEmpty() || known;
    }
    if (!known)
        return false;
    const char *point = static_cast<const char *>(std::memchr(value.text, '.', size_t(value.size)));
    const int wholeDigits = point ? int(point - value.text) : value.size;
    const int fractionDigits = point ? value.size - wholeDigits - 1 : 0;
    qint64 whole = 0;
    qint64 fraction = 0;
    if (wholeDigits < 3 || wholeDigits > (latitude ? 4 : 5) || fractionDigits > maxMinuteFractionDigits
        || !parseUnsigned({value.text, wholeDigits}, 5, &whole)
        || (fractionDigits > 0 && !parseUnsigned({point + 1, fractionDigits}, fractionDigits, &fraction)))
        return false;
    const qint64 wholeDegrees = whole / 100;
    const qint64 minutes = whole % 100;
    const qint64 scaledMinutes = minutes * qint64(powersOfTen[fractionDigits]) + fraction;
    const qint64 limit = latitude ? 90 : 180;
    if (minutes >= 60 || wholeDegrees > limit || (wholeDegrees == limit && scaledMinutes != 0))
        return false;
    const double magnitude = double(wholeDegrees) + double(scaledMinutes) / (60.0 * powersOfTen[fractionDigits]);
    *degrees = negative && magnitude != 0 ? -magnitude : magnitude;
    *present = true;
    return true;
}

// A/V status: 1, 0, or -1 when empty.
bool parseStatus(Field field, int *fix)
{
    if (field.isEmpty())
        *fix = -1;
    else if (field.is('A'))
        *fix = 1;
    else if (field.is('V'))
        *fix = 0;
    else
        return false;
    return true;
}

// The mode indicator that NMEA 2.3 added to RMC, GLL and VTG: absent in older receivers.
bool isModeIndicator(const Field *fields, int count, int index)
{
    return index >= count || fields[index].isEmpty() || fields[index].isOneOf("ADEFMNPRS");
}

// A unit letter after a value: empty or the one letter expected.
bool isUnit(Field field, char unit)
{
    return field.isEmpty() || field.is(unit);
}

bool parseGga(const Field *f, int count, NmeaSentence *s)
{
    qint64 quality = -1;
    qint64 satellites = -1;
    qint64 station = 0;
    double hdop;
    double separation;
    double age;
    if (count < 15 || !parseTime(f[1], &s->timeMs) || !parseCoordinate(f[2], f[3], true, &s->latitude, &s->hasPosition)
        || !parseCoordinate(f[4], f[5], false, &s->longitude, &s->hasPosition)
        || (!f[6].isEmpty() && !parseUnsigned(f[6], 1, &quality))
        || (!f[7].isEmpty() && !parseUnsigned(f[7], 3, &satellites)) || !parseNonNegative(f[8], &hdop)
        || !parseDecimal(f[9], true, &s->altitude) || !isUnit(f[10], 'M') || !parseDecimal(f[11], true, &separation)
        || !isUnit(f[12], 'M') || !parseNonNegative(f[13], &age)
        || (!f[14].isEmpty() && !parseUnsigned(f[14], 4, &station)))
        return false;
    // Latitude and longitude come together or not at all.
    if (f[2].isEmpty() != f[4].isEmpty())
        return false;
    s->fix = quality < 0 ? -1 : int(quality > 0);
    s->satellites = int(satellites);
    return true;
}

// ddmmyy, the years 80 to 99 taken as 1980 to 1999 and 00 to 79 as 2000 to 2079.
bool parseRmcDate(Field field, QDate *date)
{
    if (field.isEmpty())
        return true;
    qint64 digits = 0;
    if (field.size != 6 || !parseUnsigned(field, 6, &digits))
        return false;
    const int year = int(digits % 100);
    *date = QDate(year >= 80 ? 1900 + year : 2000 + year, int(digits / 100 % 100), int(digits / 10000));
    return date->isValid();
}

bool parseMagneticVariation(Field value, Field direction, double *variation)
{
    if (!parseNonNegative(value, variation) || *variation > 180)
        return false;
    if (std::isnan(*variation))
        return direction.isEmpty() || direction.isOneOf("EW");
    if (direction.is('W'))
        *variation = -*variation;
    return direction.isOneOf("EW");
}

bool parseRmc(const Field *f, int count, NmeaSentence *s)
{
    // NMEA 4.1 adds the navigational status.
    return count >= 12 && parseTime(f[1], &s->timeMs) && parseStatus(f[2], &s->fix)
        && parseCoordinate(f[3], f[4], true, &s->latitude, &s->hasPosition)
        && parseCoordinate(f[5], f[6], false, &s->longitude, &s->hasPosition) && f[3].isEmpty() == f[5].isEmpty()
        && parseKnots(f[7], &s->speed) && parseNonNegative(f[8], &s->course) && !(s->course > 360)
        && parseRmcDate(f[9], &s->date) && parseMagneticVariation(f[10], f[11], &s->magneticVariation)
        && isModeIndicator(f, count, 12) && (f[13].isEmpty() || f[13].isOneOf("ACSUV"));
}

bool parseGsa(const Field *f, int count, NmeaSentence *s)
{
    double dop;
    if (count < 18 || !(f[1].isEmpty() || f[1].isOneOf("AM")) || !(f[2].isEmpty() || f[2].isOneOf("123")))
        return false;
    s->fix = f[2].isEmpty() ? -1 : int(f[2].text[0] != '1');
    s->satellites = 0;
    for (int i = 3; i <= 14; ++i) {
        qint64 prn;
        if (f[i].isEmpty())
            continue;
        if (!parseUnsigned(f[i], 3, &prn))
            return false;
        ++s->satellites;
    }
    for (int i = 15; i <= 17; ++i) {
        if (!parseNonNegative(f[i], &dop))
            return false;
    }
    // NMEA 4.1 names the constellation in one hexadecimal digit.
    return count < 19 || f[18].isEmpty() || (f[18].size == 1 && hexValue(f[18].text[0]) >= 0);
}

bool parseGll(const Field *f, int count, NmeaSentence *s)
{
    return count >= 7 && parseCoordinate(f[1], f[2], true, &s->latitude, &s->hasPosition)
        && parseCoordinate(f[3], f[4], false, &s->longitude, &s->hasPosition) && f[1].isEmpty() == f[3].isEmpty()
        && parseTime(f[5], &s->timeMs) && parseStatus(f[6], &s->fix) && isModeIndicator(f, count, 7);
}

bool parseVtg(const Field *f, int count, NmeaSentence *s)
{
    double magneticCourse;
    double knots;
    double kilometresPerHour;
    if (count < 9 || !parseNonNegative(f[1], &s->course) || s->course > 360 || !isUnit(f[2], 'T')
        || !parseNonNegative(f[3], &magneticCourse) || !isUnit(f[4], 'M') || !parseKnots(f[5], &knots)
        || !isUnit(f[6], 'N') || !parseDecimal(f[7], false, &kilometresPerHour, 5, 18) || !isUnit(f[8], 'K')
        || !isModeIndicator(f, count, 9))
        return false;
    s->speed = std::isnan(knots) ? kilometresPerHour : knots;
    // Mode N: the receiver says its velocity is not valid.
    if (count > 9 && f[9].is('N'))
        s->speed = s->course = NAN;
    return true;
}

bool parseZda(const Field *f, int count, NmeaSentence *s)
{
    qint64 day = 0;
    qint64 month = 0;
    qint64 year = 0;
    qint64 zoneMinutes = 0;
    if (count < 7 || !parseTime(f[1], &s->timeMs))
        return false;
    const bool anyDate = !f[2].isEmpty() || !f[3].isEmpty() || !f[4].isEmpty();
    if (anyDate) {
        if (!parseUnsigned(f[2], 2, &day) || !parseUnsigned(f[3], 2, &month) || f[4].size != 4
            || !parseUnsigned(f[4], 4, &year))
            return false;
        s->date = QDate(int(year), int(month), int(day));
        if (!s->date.isValid())
            return false;
    }
    // The local zone is checked, not used: the fix is in UTC.
    Field zoneHours = f[5];
    if (zoneHours.size > 0 && (zoneHours.text[0] == '-' || zoneHours.text[0] == '+')) {
        ++zoneHours.text;
        --zoneHours.size;
    }
    qint64 hours = 0;
    return (f[5].isEmpty() || (parseUnsigned(zoneHours, 2, &hours) && hours <= 13))
        && (f[6].isEmpty() || (parseUnsigned(f[6], 2, &zoneMinutes) && zoneMinutes < 60));
}

bool parseGst(const Field *f, int count, NmeaSentence *s)
{
    double errors[7];
    if (count < 9 || !parseTime(f[1], &s->timeMs))
        return false;
    for (int i = 0; i < 7; ++i) {
        if (!parseNonNegative(f[i + 2], &errors[i]))
            return false;
    }
    // Standard deviations of the latitude, longitude and altitude errors, in metres.
    s->horizontalAccuracy = std::hypot(errors[4], errors[5]);
    s->verticalAccuracy = errors[6];
    return true;
}

} // namespace

NmeaParseResult parseNmeaSentence(const char *text, int size, NmeaSentence *result)
{
    if (size < 9 || text[size - 3] != '*')
        return NmeaParseResult::Bad;
    const int high = hexValue(text[size - 2]);
    const int low = hexValue(text[size - 1]);
    if (high < 0 || low < 0)
        return NmeaParseResult::Bad;

    // The checksum covers every byte between '$' and '*'; the body is printable ASCII without
    // the characters that delimit sentences.
    const char *const end = text + size - 3;
    Field fields[maxFields];
    int count = 0;
    int checksum = 0;
    const char *field = text + 1;
    for (const char *p = field; p != end; ++p) {
        const uchar c = uchar(*p);
        if (!bodyBytes.allowed[c])
            return NmeaParseResult::Bad;
        checksum ^= c;
        if (c == ',') {
            if (count < maxFields)
                fields[count] = {field, int(p - field)};
            ++count;
            field = p + 1;
        }
    }
    if (count < maxFields)
        fields[count] = {field, int(end - field)};
    ++count;
    if (checksum != high * 16 + low)
        return NmeaParseResult::Bad;

    const Field address = fields[0];
    if (address.size > 0 && address.text[0] == 'P')
        return NmeaParseResult::PassedOver; // proprietary
    if (address.size != 5)
        return NmeaParseResult::Bad;
    for (int i = 0; i < 5; ++i) {
        if (address.text[i] < 'A' || address.text[i] > 'Z')
            return NmeaParseResult::Bad;
    }

    // Any talker: GPS (GP), GLONASS (GL), Galileo (GA), BeiDou (GB, BD), QZSS (GQ), NavIC (GI)
    // and the combined solution (GN) all say the same in the same words.
    static const char *const typeNames[NmeaSentence::TypeCount] = {"GGA", "RMC", "GSA", "GLL", "VTG", "ZDA", "GST"};
    using Parser = bool (*)(const Field *, int, NmeaSentence *);
    static const Parser parsers[NmeaSentence::TypeCount]
        = {parseGga, parseRmc, parseGsa, parseGll, parseVtg, parseZda, parseGst};
    for (int type = 0; type < NmeaSentence::TypeCount; ++type) {
        if (std::memcmp(address.text + 2, typeNames[type], 3) != 0)
            continue;
        if (count > maxFields)
            return NmeaParseResult::Bad;
        // Fields beyond the count read as empty, so a parser may look at optional ones.
        for (int i = count; i < maxFields; ++i)
            fields[i] = Field();
        NmeaSentence sentence;
        sentence.type = NmeaSentence::Type(type);
        if (!parsers[type](fields, count, &sentence))
            return NmeaParseResult::Bad;
        *result = sentence;
        return NmeaParseResult::Used;
    }
    return NmeaParseResult::PassedOver;
}

} // namespace Internal
} // namespace Pal
