#include <pal/krgpsinfo.h>

#include <QGeoCoordinate>
#include <QTest>

using Pal::KrGpsInfo;

namespace {

const QGeoPositionInfo munich(
    QGeoCoordinate(48.137, 11.575, 519), QDateTime(QDate(2024, 5, 6), QTime(7, 8, 9), Qt::UTC));

// The whole value in one text: position is munich, fix, satellites, date, valid.
QString describe(const KrGpsInfo &info)
{
    return QStringLiteral("%1|%2|%3|%4|%5")
        .arg(info.getGpsPostionInfo() == munich)
        .arg(info.getGpsFix())
        .arg(info.getNumberSatellites())
        .arg(info.hasDate())
        .arg(info.isValid());
}

} // namespace

class TestKrGpsInfo : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    // Validity comes from the position alone; each setter changes its own field only.
    void fields()
    {
        QCOMPARE(describe(KrGpsInfo(munich, true, 12, false)), QString("1|1|12|0|1"));
        KrGpsInfo info;
        QCOMPARE(describe(info), QString("0|0|0|0|0"));
        info.setGpsPostionInfo(munich);
        QCOMPARE(describe(info), QString("1|0|0|0|1"));
        info.setHasDate(true);
        info.setNumberSatellites(65535);
        info.setGpsFix(true);
        QCOMPARE(describe(info), QString("1|1|65535|1|1"));
        info.setGpsPostionInfo(QGeoPositionInfo());
        QCOMPARE(describe(info), QString("0|1|65535|1|0"));
    }
};

QTEST_GUILESS_MAIN(TestKrGpsInfo)
#include "tst_krgpsinfo.moc"
