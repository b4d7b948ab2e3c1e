// A GPS fix the way the instrument gets it: NMEA sentences on a serial line, read by a data
// collector and turned into a KrGpsInfo by a KrNmeaGpsSource.

#include "boardproxies.h"
#include "expected.h"
#include "runlog.h"
#include "simboarddemo.h"
#include "steps/stepsupport.h"

#include <pal/devices/krnmeagpssource.h>
#include <pal/krdatacollector.h>
#include <pal/krgpsinfo.h>

#include <QElapsedTimer>
#include <QGeoCoordinate>
#include <QGeoPositionInfo>

#include <condition_variable>
#include <mutex>

using namespace StepSupport;

void SimBoardDemo::readGpsFix()
{
    m_log.begin(QStringLiteral("gps"), QStringLiteral("Read a GPS fix"));
    QElapsedTimer clock;
    clock.start();
    GpsReceiverProxy receiver;
    if (!m_log.check(receiver.isOpen(), receiver.errorString())) {
        m_log.end();
        return;
    }
    // The source is fed on the collector's thread, where it emits; the first fix is handed
    // over under a lock. After the collector has stopped, the source is this thread's again.
    Pal::KrNmeaGpsSource source;
    std::mutex mutex;
    std::condition_variable fixed;
    bool received = false;
    Pal::KrGpsInfo fix;
    QObject::connect(
        &source, &Pal::KrNmeaGpsSource::gpsInfoUpdated, &source,
        [&](const Pal::KrGpsInfo &info) {
            const std::lock_guard<std::mutex> lock(mutex);
            if (!received)
                fix = info;
            received = true;
            fixed.notify_all();
        },
        Qt::DirectConnection);
    {
        Pal::KrDataCollector collector(&receiver, 256, nullptr);
        QObject::connect(&collector, &Pal::KrDataCollector::rawDataReady, &source,
            qOverload<const QByteArray &>(&Pal::KrNmeaGpsSource::addData), Qt::DirectConnection);
        collector.start();
        std::unique_lock<std::mutex> lock(mutex);
        fixed.wait_for(lock, std::chrono::milliseconds(Expected::gpsFirstFixLimitMs), [&] { return received; });
        lock.unlock();
        collector.stop();
    }
    const qint64 fixMs = clock.elapsed();
    const QStringList first = QString::fromLatin1(m_instrument.firstGpsEpoch()).split(QStringLiteral("\r\n"));
    m_log.say(QStringLiteral("GpsReceiverProxy opened the receiver's line, %1 at %2 baud. The receiver sends an epoch "
                             "of two sentences once a second, the first at once:")
                  .arg(receiver.path())
                  .arg(receiver.baudRate()));
    m_log.show(QStringLiteral("    ") + first.mid(0, 2).join(QStringLiteral("\n    ")));
    if (!m_log.check(received, QStringLiteral("no fix within %1 ms").arg(Expected::gpsFirstFixLimitMs))) {
        m_log.end();
        return;
    }
    const QGeoPositionInfo position = fix.getGpsPostionInfo();
    const QGeoCoordinate coordinate = position.coordinate();
    m_log.say(QStringLiteral("A KrDataCollector read them and KrNmeaGpsSource made the first fix of them after %1 ms "
                             "(an epoch is complete when the next one begins), with %2 sentences dropped:")
                  .arg(fixMs)
                  .arg(source.droppedSentences()));
    m_log.say(
        QStringLiteral("KrGpsInfo: %1 at %2, %3 satellites; valid: %4, fix: %5, with date: %6.")
            .arg(coordinate.toString(QGeoCoordinate::DegreesWithHemisphere), position.timestamp().toString(Qt::ISODate))
            .arg(fix.getNumberSatellites())
            .arg(fix.isValid() ? QStringLiteral("yes") : QStringLiteral("no"),
                fix.getGpsFix() ? QStringLiteral("yes") : QStringLiteral("no"),
                fix.hasDate() ? QStringLiteral("yes") : QStringLiteral("no")));
    m_log.check(qAbs(coordinate.latitude() - Expected::gpsLatitude) <= Expected::gpsDegreeTolerance
            && qAbs(coordinate.longitude() - Expected::gpsLongitude) <= Expected::gpsDegreeTolerance
            && coordinate.altitude() == Expected::gpsAltitude,
        QStringLiteral("the fix is not at the place the receiver sent"));
    m_log.check(m_instrument.gpsEpochsSent().contains(position.timestamp()),
        QStringLiteral("the fix's time is none the receiver sent"));
    m_log.check(fix.isValid() && fix.getGpsFix() && fix.getNumberSatellites() == Expected::gpsSatellites
            && fix.hasDate() && source.droppedSentences() == 0,
        QStringLiteral("the fix should be valid, with 9 satellites, a date and no sentence dropped"));
    // To the sentences' own precision, 1e-7 degree.
    m_log.record(QStringLiteral("latitude"), qRound64(coordinate.latitude() * 1e7) / 1e7);
    m_log.record(QStringLiteral("longitude"), qRound64(coordinate.longitude() * 1e7) / 1e7);
    m_log.record(QStringLiteral("altitude"), coordinate.altitude());
    m_log.record(QStringLiteral("satellites"), fix.getNumberSatellites());
    m_log.record(QStringLiteral("time"), position.timestamp().toString(Qt::ISODate));
    m_log.record(QStringLiteral("valid"), fix.isValid());
    m_log.record(QStringLiteral("fix"), fix.getGpsFix());
    m_log.record(QStringLiteral("hasDate"), fix.hasDate());
    m_log.record(QStringLiteral("dropped"), qint64(source.droppedSentences()));
    m_log.end();
}
