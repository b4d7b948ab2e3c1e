#pragma once

#include <pal/devices/krpaldevices_export.h>
#include <pal/krgpsinfo.h>

#include <QMetaType>
#include <QObject>

#include <memory>

namespace Pal {

class KrNmeaGpsSourcePrivate;

/// Turns the NMEA 0183 output of a GPS receiver into one KrGpsInfo per navigation epoch.
///
/// Bytes arrive in chunks of any size, split anywhere: addData() connects to a data
/// collector's rawDataReady(), or directly to a proxy's dataReady() (its pointer lives only as
/// long as the emission). Zero bytes are skipped wherever they fall, since the data collector
/// pads each buffer with them.
///
/// An epoch is the run of sentences that share one UTC time of day (GGA, RMC, GLL, ZDA and GST
/// carry it; GSA and VTG join the epoch under way). It is emitted once complete: when a
/// sentence of another time arrives, or when a sentence kind that the epoch already holds comes
/// again. The sentence that ended the last completed epoch is taken as the receiver's
/// cycle-ending one, and from then on an epoch is emitted as soon as that sentence arrives.
///
/// A sentence with a wrong or missing checksum, a garbled sentence, one longer than 120 bytes
/// from '$' through the checksum, a sentence with a field that does not convert, and every
/// run of other bytes between line ends are dropped whole and counted. Good sentences of
/// other kinds (GSV, TXT, proprietary ones) are passed over. Memory stays bounded whatever
/// the input.
///
/// Belongs to the thread it lives in; connect to a collector on another thread with a queued
/// connection.
class KRPALDEVICES_EXPORT KrNmeaGpsSource : public QObject
{
    Q_OBJECT
public:
    explicit KrNmeaGpsSource(QObject *parent = nullptr);
    ~KrNmeaGpsSource() override;

    /// The last epoch emitted; a default KrGpsInfo before the first.
    KrGpsInfo lastGpsInfo() const;
    /// Sentences and runs of noise dropped so far.
    quint64 droppedSentences() const;

public Q_SLOTS:
    void addData(const QByteArray &bytes);
    void addData(const char *data, int size);
    /// The input has ended: a last sentence without line end is taken, and the epoch under
    /// way is emitted.
    void flush();

Q_SIGNALS:
    void gpsInfoUpdated(const Pal::KrGpsInfo &info);

private:
    std::unique_ptr<KrNmeaGpsSourcePrivate> d;
};

} // namespace Pal

Q_DECLARE_METATYPE(Pal::KrGpsInfo)
