// Arbitrary bytes, and receiver output built from the input, through KrNmeaGpsSource.
//
// The input itself is fed whole, byte by byte and in chunks of a size it chooses: the three
// give the same epochs and the same dropped count, and no epoch has a coordinate out of range
// or without a fix, or a speed, course or satellite count that no sentence could give.
//
// The input also drives a receiver: a date, a time of day and a sentence order, then epochs of
// GGA, GSA and RMC at a varying rate (crossing midnight at times), with a fix or without, and
// between the sentences bad ones (a wrong checksum, a field that does not convert, noise, a
// sentence too long) and the zero bytes a data collector pads with. Every epoch must come out
// once, in order, with the values the receiver's digits give, and the dropped count must be
// the number of bad sentences sent.

#include "fuzzsupport.h"

#include <pal/devices/krnmeagpssource.h>

#include <QDateTime>
#include <QGeoCoordinate>
#include <QGeoPositionInfo>

#include <cstdint>
#include <functional>
#include <vector>

using Pal::KrGpsInfo;
using Pal::KrNmeaGpsSource;

namespace {

constexpr qint64 dayMs = 24 * 60 * 60 * 1000;

// Bytes of the input as numbers; zeros once it is used up.
class Reader
{
public:
    Reader(const uint8_t *data, size_t size)
        : m_data(data)
        , m_size(size)
    {
    }
    quint32 next(quint32 bound)
    {
        quint32 value = 0;
        for (int i = 0; i < 4; ++i)
            value = value << 8 | (m_at < m_size ? m_data[m_at++] : 0);
        return bound ? value % bound : value;
    }

private:
    const uint8_t *m_data;
    size_t m_size;
    size_t m_at = 0;
};

struct Output
{
    std::vector<KrGpsInfo> epochs;
    quint64 dropped = 0;
};

// Everything an epoch holds, exactly.
QByteArray describeInfo(const KrGpsInfo &info)
{
    const QGeoPositionInfo position = info.getGpsPostionInfo();
    const QGeoCoordinate coordinate = position.coordinate();
    QByteArray text = position.timestamp().toString(Qt::ISODateWithMs).toLatin1() + ' '
        + QByteArray::number(coordinate.latitude(), 'g', 17) + ' ' + QByteArray::number(coordinate.longitude(), 'g', 17)
        + ' ' + QByteArray::number(coordinate.altitude(), 'g', 17) + ' ' + QByteArray::number(info.getGpsFix()) + ' '
        + QByteArray::number(info.getNumberSatellites()) + ' ' + QByteArray::number(info.hasDate());
    for (int attribute = QGeoPositionInfo::Direction; attribute <= QGeoPositionInfo::VerticalAccuracy; ++attribute) {
        const auto a = QGeoPositionInfo::Attribute(attribute);
        if (position.hasAttribute(a))
            text += ' ' + QByteArray::number(attribute) + '=' + QByteArray::number(position.attribute(a), 'g', 17);
    }
    return text;
}

Output feed(const QByteArray &bytes, const std::function<int()> &chunkSize)
{
    KrNmeaGpsSource source;
    Output output;
    QObject::connect(
        &source, &KrNmeaGpsSource::gpsInfoUpdated, [&](const KrGpsInfo &info) { output.epochs.push_back(info); });
    for (int at = 0; at < bytes.size();) {
        const int size = qBound(1, chunkSize(), bytes.size() - at);
        source.addData(bytes.constData() + at, size);
        at += size;
    }
    source.flush();
    output.dropped = source.droppedSentences();
    if (!output.epochs.empty())
        FUZZ_CHECK(describeInfo(source.lastGpsInfo()) == describeInfo(output.epochs.back()));
    return output;
}

void compareOutputs(const Output &actual, const Output &expected)
{
    FUZZ_COMPARE(actual.dropped, expected.dropped);
    FUZZ_COMPARE(actual.epochs.size(), expected.epochs.size());
    for (size_t i = 0; i < actual.epochs.size(); ++i)
        FUZZ_COMPARE(describeInfo(actual.epochs[i]), describeInfo(expected.epochs[i]));
}

// What any epoch must satisfy, whatever the sentences.
void checkRanges(const KrGpsInfo &info)
{
    const QGeoPositionInfo position = info.getGpsPostionInfo();
    const QGeoCoordinate coordinate = position.coordinate();
    if (coordinate.isValid()) {
        FUZZ_CHECK(info.getGpsFix());
        FUZZ_CHECK(coordinate.latitude() >= -90 && coordinate.latitude() <= 90);
        FUZZ_CHECK(coordinate.longitude() >= -180 && coordinate.longitude() <= 180);
    }
    const auto within = [&](QGeoPositionInfo::Attribute attribute, double low, double high) {
        if (position.hasAttribute(attribute)) {
            const double value = position.attribute(attribute);
            FUZZ_CHECK(value >= low && value <= high);
        }
    };
    within(QGeoPositionInfo::Direction, 0, 360);
    within(QGeoPositionInfo::GroundSpeed, 0, 1e15);
    within(QGeoPositionInfo::MagneticVariation, -180, 180);
    // Sixteen GSA sentences of twelve satellites, or GGA's three digits.
    FUZZ_CHECK(info.getNumberSatellites() <= 999);
    if (position.timestamp().isValid())
        FUZZ_COMPARE(position.timestamp().timeSpec(), Qt::UTC);
}

QByteArray sentence(const QByteArray &body, int checksumOffset = 0)
{
    int checksum = 0;
    for (const char c : body)
        checksum ^= uchar(c);
    return '$' + body + '*'
        + QByteArray::number((checksum + checksumOffset) & 0xff, 16).rightJustified(2, '0').toUpper() + "\r\n";
}

QByteArray digits(qint64 value, int width)
{
    return QByteArray::number(value).rightJustified(width, '0');
}

// Degrees as (d)ddmm.mmmmm from hundred-thousandths of a minute.
QByteArray coordinateText(qint64 minutesE5, int degreeDigits)
{
    const qint64 perDegree = 60 * 100000;
    return digits(minutesE5 / perDegree, degreeDigits) + digits(minutesE5 % perDegree / 100000, 2) + '.'
        + digits(minutesE5 % 100000, 5);
}

QByteArray thousandths(qint64 value)
{
    const qint64 magnitude = qAbs(value);
    return (value < 0 ? "-" : "") + QByteArray::number(magnitude / 1000) + '.' + digits(magnitude % 1000, 3);
}

struct Epoch
{
    qint64 timeMs; // since the start of the first day
    bool fix;
    qint64 latitudeE5; // minutes * 1e5, signed
    qint64 longitudeE5;
    qint64 altitudeMm;
    int satellites;
    qint64 knotsE3;
    qint64 courseE2;
    bool withDate;
};

void checkReceiver(Reader &reader)
{
    const QDate firstDay = QDate(2000, 1, 1).addDays(reader.next(365 * 79));
    static const char *const orders[] = {"GGA GSA RMC", "RMC GGA GSA", "GGA RMC GSA", "RMC GSA GGA"};
    const QList<QByteArray> order = QByteArray(orders[reader.next(4)]).split(' ');
    qint64 timeMs = reader.next(dayMs);
    const int count = 1 + int(reader.next(12));

    QByteArray bytes;
    quint64 bad = 0;
    std::vector<Epoch> epochs;
    for (int e = 0; e < count; ++e) {
        if (e > 0)
            timeMs += 1 + reader.next(3 * 3600 * 1000);
        const qint64 latitude = reader.next(90 * 60 * 100000 + 1);
        const qint64 longitude = reader.next(180 * 60 * 100000 + 1);
        const Epoch epoch{timeMs, reader.next(4) != 0, reader.next(2) ? latitude : -latitude,
            reader.next(2) ? longitude : -longitude, qint64(reader.next(2000000)) - 500000, int(reader.next(100)),
            reader.next(100000), reader.next(36000), reader.next(3) != 0};
        epochs.push_back(epoch);

        const qint64 tod = timeMs % dayMs;
        const QByteArray time = digits(tod / 3600000, 2) + digits(tod / 60000 % 60, 2) + digits(tod / 1000 % 60, 2)
            + '.' + digits(tod % 1000, 3);
        const QByteArray position = coordinateText(qAbs(epoch.latitudeE5), 2) + (epoch.latitudeE5 < 0 ? ",S," : ",N,")
            + coordinateText(qAbs(epoch.longitudeE5), 3) + (epoch.longitudeE5 < 0 ? ",W" : ",E");
        const QDate day = firstDay.addDays(timeMs / dayMs);
        const QByteArray date = epoch.withDate ? day.toString(QStringLiteral("ddMMyy")).toLatin1() : QByteArray();
        for (const QByteArray &type : order) {
            QByteArray body;
            if (type == "GGA" && epoch.fix)
                body = "GPGGA," + time + ',' + position + ",1," + digits(epoch.satellites, 2) + ",0.9,"
                    + thousandths(epoch.altitudeMm) + ",M,47.0,M,,";
            else if (type == "GGA")
                body = "GPGGA," + time + ",,,,,0," + digits(epoch.satellites, 2) + ",,,,,,,";
            else if (type == "GSA")
                body = epoch.fix ? "GPGSA,A,3,01,02,03,04,,,,,,,,,1.0,0.9,1.1" : "GPGSA,A,1,,,,,,,,,,,,,,,";
            else if (epoch.fix)
                body = "GPRMC," + time + ",A," + position + ',' + thousandths(epoch.knotsE3) + ','
                    + QByteArray::number(double(epoch.courseE2) / 100, 'f', 2) + ',' + date + ",,,A";
            else
                body = "GPRMC," + time + ",V,,,,,,," + date + ",,,N";
            // Now and then a bad sentence first, or padding.
            switch (reader.next(16)) {
            case 0:
                bytes += sentence(body, 1 + int(reader.next(255)));
                ++bad;
                break;
            case 1:
                bytes += sentence("GPGGA," + time + ",4860.00000,N,00000.00000,E,1,05,0.9,1.0,M,47.0,M,,");
                ++bad;
                break;
            case 2:
                bytes += QByteArray(1 + int(reader.next(200)), char(0x80 | reader.next(128))) + "\r\n";
                ++bad;
                break;
            case 3:
                bytes += sentence(QByteArray(130, 'A'));
                ++bad;
                break;
            case 4:
                bytes += QByteArray(int(reader.next(8)), '\0');
                break;
            }
            bytes += sentence(body);
        }
    }

    Output output = feed(bytes, [&] { return int(bytes.size()); });
    FUZZ_COMPARE(output.dropped, bad);
    FUZZ_COMPARE(output.epochs.size(), epochs.size());
    bool dateKnown = false;
    for (size_t i = 0; i < epochs.size(); ++i) {
        const Epoch &epoch = epochs[i];
        const KrGpsInfo &info = output.epochs[i];
        checkRanges(info);
        dateKnown = dateKnown || epoch.withDate;
        FUZZ_COMPARE(info.getGpsFix(), epoch.fix);
        FUZZ_COMPARE(info.hasDate(), epoch.withDate);
        FUZZ_COMPARE(int(info.getNumberSatellites()), epoch.satellites);
        const QGeoPositionInfo position = info.getGpsPostionInfo();
        const QDateTime expectedTime(firstDay.addDays(epoch.timeMs / dayMs),
            QTime::fromMSecsSinceStartOfDay(int(epoch.timeMs % dayMs)), Qt::UTC);
        FUZZ_COMPARE(position.timestamp(), dateKnown ? expectedTime : QDateTime());
        const QGeoCoordinate coordinate = position.coordinate();
        FUZZ_COMPARE(coordinate.isValid(), epoch.fix);
        FUZZ_COMPARE(position.hasAttribute(QGeoPositionInfo::GroundSpeed), epoch.fix);
        if (!epoch.fix)
            continue;
        FUZZ_CHECK(qAbs(coordinate.latitude() - double(epoch.latitudeE5) / 6e6) < 1e-9);
        FUZZ_CHECK(qAbs(coordinate.longitude() - double(epoch.longitudeE5) / 6e6) < 1e-9);
        FUZZ_CHECK(qAbs(coordinate.altitude() - double(epoch.altitudeMm) / 1000) < 1e-9);
        FUZZ_CHECK(
            qAbs(position.attribute(QGeoPositionInfo::GroundSpeed) - double(epoch.knotsE3) * 1.852 / 3600) < 1e-9);
        FUZZ_CHECK(qAbs(position.attribute(QGeoPositionInfo::Direction) - double(epoch.courseE2) / 100) < 1e-9);
    }

    // The same bytes in chunks that the input chooses.
    compareOutputs(feed(bytes, [&] { return 1 + int(reader.next(97)); }), output);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char *>(data), int(size));
    const Output whole = feed(bytes, [&] { return int(bytes.size()); });
    for (const KrGpsInfo &info : whole.epochs)
        checkRanges(info);
    compareOutputs(feed(bytes, [] { return 1; }), whole);
    int chunk = 0;
    compareOutputs(feed(bytes, [&] { return 1 + (data[chunk++ % size] & 63); }), whole);

    Reader reader(data, size);
    checkReceiver(reader);
    return 0;
}
