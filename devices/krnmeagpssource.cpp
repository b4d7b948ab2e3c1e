#include "krnmeagpssource.h"

#include "krnmeasentence_p.h"

#include <QDateTime>
#include <QGeoCoordinate>
#include <QGeoPositionInfo>

#include <cstring>
#include <limits>

namespace Pal {

using Internal::NmeaParseResult;
using Internal::NmeaSentence;

namespace {

constexpr int dayMs = 24 * 60 * 60 * 1000;
// More than any receiver's constellations; keeps an epoch bounded whatever the input.
constexpr int maxGsaPerEpoch = 16;

unsigned typeBit(int type)
{
    return 1u << type;
}

// Bytes that end a sentence's body: a line end, the start of the next sentence, and the zero
// bytes that are skipped.
bool endsSentence(char c)
{
    return c == '\r' || c == '\n' || c == '$' || c == '\0';
}

// Kinds a receiver sends once per epoch; GSA comes once per constellation.
bool oncePerEpoch(int type)
{
    return type != NmeaSentence::Gsa;
}

// A sentence's place in its epoch: its kind and how many of that kind came before it.
struct SentenceKey
{
    int type = -1;
    int occurrence = 0;

    bool operator==(const SentenceKey &other) const { return type == other.type && occurrence == other.occurrence; }
};

struct Epoch
{
    bool open = false;
    int timeMs = -1;
    SentenceKey lastKey;
    int occurrences[NmeaSentence::TypeCount] = {};
    // The last sentence of each kind.
    NmeaSentence sentences[NmeaSentence::TypeCount];
    int gsaFix = -1;
    int gsaSatellites = 0;

    const NmeaSentence *sentence(int type) const { return occurrences[type] ? &sentences[type] : nullptr; }
    unsigned types() const
    {
        unsigned mask = 0;
        for (int type = 0; type < NmeaSentence::TypeCount; ++type)
            mask |= occurrences[type] ? typeBit(type) : 0;
        return mask;
    }
};

} // namespace

// Kept out of the exported class, so that none of it is exported.
class KrNmeaGpsSourcePrivate
{
public:
    enum class Input
    {
        BetweenLines,
        Sentence,
        Overlong, // a sentence past the longest taken, skipped to its line end
        Noise // bytes outside any sentence, skipped to the line end
    };

    void feed(const char *data, int size);
    void endLine();
    void takeSentence(const NmeaSentence &sentence);
    void closeEpoch(bool learnCycleEnd);
    KrGpsInfo epochInfo();

    KrNmeaGpsSource *q;
    Input input = Input::BetweenLines;
    int sentenceSize = 0;
    char sentence[Internal::maxNmeaSentenceSize];
    quint64 dropped = 0;

    Epoch epoch;
    // The receiver's cycle-ending sentence, once seen to end an epoch.
    SentenceKey cycleEnd;
    // The time and kinds of the epoch last emitted on its cycle-ending sentence: a sentence of
    // that time and of another kind shows that the cycle does not end there.
    int closedTimeMs = -1;
    unsigned closedTypes = 0;

    // The last date the receiver gave, moved on with every epoch's time of day.
    QDate date;
    int dateTimeMs = 0;
    KrGpsInfo last;
};

KrNmeaGpsSource::KrNmeaGpsSource(QObject *parent)
    : QObject(parent)
    , d(new KrNmeaGpsSourcePrivate)
{
    d->q = this;
    // Queued connections to gpsInfoUpdated() need the type by name too.
    qRegisterMetaType<Pal::KrGpsInfo>("Pal::KrGpsInfo");
}

KrNmeaGpsSource::~KrNmeaGpsSource() = default;

KrGpsInfo KrNmeaGpsSource::lastGpsInfo() const
{
    return d->last;
}

quint64 KrNmeaGpsSource::droppedSentences() const
{
    return d->dropped;
}

void KrNmeaGpsSource::addData(const QByteArray &bytes)
{
    d->feed(bytes.constData(), bytes.size());
}

void KrNmeaGpsSource::addData(const char *data, int size)
{
    if (data && size > 0)
        d->feed(data, size);
}

void KrNmeaGpsSource::flush()
{
    d->endLine();
    if (d->epoch.open)
        d->closeEpoch(false);
}

void KrNmeaGpsSourcePrivate::feed(const char *data, int size)
{
    const char *p = data;
    const char *const end = data + size;
    while (p != end) {
        if (input == Input::Sentence) {
            // The bulk of the input: a sentence's body, taken up to the next byte that ends it.
            const char *const run = p;
            while (p != end && !endsSentence(*p))
                ++p;
            const int length = int(p - run);
            if (length > Internal::maxNmeaSentenceSize - sentenceSize) {
                input = Input::Overlong;
            } else {
                std::memcpy(sentence + sentenceSize, run, size_t(length));
                sentenceSize += length;
            }
            if (p == end)
                break;
        }
        const char c = *p++;
        switch (c) {
        case '\0':
            break;
        case '$':
            endLine();
            input = Input::Sentence;
            sentence[0] = c;
            sentenceSize = 1;
            break;
        case '\r':
        case '\n':
            endLine();
            break;
        default:
            if (input == Input::BetweenLines)
                input = Input::Noise;
        }
    }
}

void KrNmeaGpsSourcePrivate::endLine()
{
    const Input ended = input;
    input = Input::BetweenLines;
    if (ended == Input::Overlong || ended == Input::Noise) {
        ++dropped;
    } else if (ended == Input::Sentence) {
        NmeaSentence parsed;
        const NmeaParseResult result = Internal::parseNmeaSentence(sentence, sentenceSize, &parsed);
        if (result == NmeaParseResult::Bad)
            ++dropped;
        else if (result == NmeaParseResult::Used)
            takeSentence(parsed);
    }
}

void KrNmeaGpsSourcePrivate::takeSentence(const NmeaSentence &s)
{
    const int type = s.type;
    if (s.timeMs >= 0) {
        if (epoch.timeMs < 0 && s.timeMs == closedTimeMs && closedTypes && !(closedTypes & typeBit(type))) {
            // Late for the epoch already emitted, as is what came since: the cycle goes on
            // past the sentence taken for its end, and is learnt anew.
            cycleEnd = SentenceKey();
            closedTypes |= typeBit(type);
            epoch = Epoch();
            return;
        }
        if (epoch.open && epoch.timeMs >= 0 && epoch.timeMs != s.timeMs)
            closeEpoch(true);
    }
    if (epoch.open && epoch.occurrences[type] >= (oncePerEpoch(type) ? 1 : maxGsaPerEpoch))
        closeEpoch(true);

    epoch.open = true;
    if (epoch.timeMs < 0)
        epoch.timeMs = s.timeMs;
    if (epoch.timeMs >= 0 && epoch.timeMs != closedTimeMs)
        closedTypes = 0;
    epoch.lastKey = {type, epoch.occurrences[type]++};
    epoch.sentences[type] = s;
    if (type == NmeaSentence::Gsa) {
        epoch.gsaFix = qMax(epoch.gsaFix, s.fix);
        epoch.gsaSatellites += s.satellites;
    }
    // An epoch without time yet waits for one: what precedes its first timed sentence may be
    // the tail of the last cycle, under a cycle end learnt from a partial first epoch.
    if (epoch.timeMs >= 0 && epoch.lastKey == cycleEnd) {
        closedTimeMs = epoch.timeMs;
        closedTypes = epoch.types();
        closeEpoch(false);
    }
}

void KrNmeaGpsSourcePrivate::closeEpoch(bool learnCycleEnd)
{
    if (learnCycleEnd) {
        cycleEnd = epoch.lastKey;
        closedTypes = 0;
    }
    last = epochInfo();
    epoch = Epoch();
    Q_EMIT q->gpsInfoUpdated(last);
}

KrGpsInfo KrNmeaGpsSourcePrivate::epochInfo()
{
    const NmeaSentence *const gga = epoch.sentence(NmeaSentence::Gga);
    const NmeaSentence *rmc = epoch.sentence(NmeaSentence::Rmc);
    const NmeaSentence *const gll = epoch.sentence(NmeaSentence::Gll);
    const NmeaSentence *const vtg = epoch.sentence(NmeaSentence::Vtg);
    const NmeaSentence *const zda = epoch.sentence(NmeaSentence::Zda);
    const NmeaSentence *const gst = epoch.sentence(NmeaSentence::Gst);

    // The fix as GGA reports it, else RMC, else GLL, else the GSA sentences.
    int fix = epoch.gsaFix;
    for (const NmeaSentence *s : {gll, rmc, gga}) {
        if (s && s->fix >= 0)
            fix = s->fix;
    }
    QGeoPositionInfo position;
    if (fix == 1) {
        // The coordinate of a sentence that reports the fix itself.
        for (const NmeaSentence *s : {gga, rmc, gll}) {
            if (s && s->fix == 1 && s->hasPosition) {
                QGeoCoordinate coordinate(s->latitude, s->longitude);
                if (s == gga && !std::isnan(s->altitude))
                    coordinate.setAltitude(s->altitude);
                position.setCoordinate(coordinate);
                break;
            }
        }
    }

    int satellites = epoch.occurrences[NmeaSentence::Gsa] ? epoch.gsaSatellites : 0;
    if (gga && gga->satellites >= 0)
        satellites = gga->satellites;

    QDate epochDate = rmc && rmc->date.isValid() ? rmc->date : zda ? zda->date : QDate();
    const bool hasDate = epochDate.isValid();
    if (epoch.timeMs >= 0) {
        // Without a date of its own the epoch is on the day of the last one, or the next day
        // when its time of day lies more than half a day before the last one's.
        if (!hasDate && date.isValid())
            epochDate = epoch.timeMs < dateTimeMs - dayMs / 2 ? date.addDays(1) : date;
        if (epochDate.isValid()) {
            date = epochDate;
            dateTimeMs = epoch.timeMs;
            position.setTimestamp(QDateTime(epochDate, QTime::fromMSecsSinceStartOfDay(epoch.timeMs), Qt::UTC));
        }
    }

    // RMC says nothing of the motion when it reports no fix.
    if (rmc && rmc->fix == 0)
        rmc = nullptr;
    const auto setAttribute = [&position](QGeoPositionInfo::Attribute attribute, double value) {
        if (!std::isnan(value))
            position.setAttribute(attribute, value);
    };
    setAttribute(QGeoPositionInfo::GroundSpeed, rmc && !std::isnan(rmc->speed) ? rmc->speed : vtg ? vtg->speed : NAN);
    setAttribute(QGeoPositionInfo::Direction, rmc && !std::isnan(rmc->course) ? rmc->course : vtg ? vtg->course : NAN);
    setAttribute(QGeoPositionInfo::MagneticVariation, rmc ? rmc->magneticVariation : NAN);
    setAttribute(QGeoPositionInfo::HorizontalAccuracy, gst ? gst->horizontalAccuracy : NAN);
    setAttribute(QGeoPositionInfo::VerticalAccuracy, gst ? gst->verticalAccuracy : NAN);

    return KrGpsInfo(position, fix == 1, ushort(qMin(satellites, int(std::numeric_limits<ushort>::max()))), hasDate);
}

} // namespace Pal
