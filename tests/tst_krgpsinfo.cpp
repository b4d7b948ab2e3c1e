#include <pal/krgpsinfo.h>

#include <QGeoCoordinate>
#include <QTest>

using Pal::KrGpsInfo;

namespace {

const QGeoPositionInfo s_munich(
    QGeoCoordinate(48.137, 11.575, 519), QDateTime(QDate(2024, 5, 6), QTime(7, 8, 9), Qt::UTC));

// The four fields side by side, so one comparison covers the whole value.
QString describe(const KrGpsInfo &info)
{
    return QStringLiteral("%1|%2|%3|%4|%5")
        .arg(info.getGpsPostionInfo() == s_munich    ? "munich"
                : info.getGpsPostionInfo().isValid() ? "other"
                                                     : "invalid")
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
    void validity_data();
    void validity();
    void settersLeaveOtherFields();
};

void TestKrGpsInfo::validity_data()
{
    QTest::addColumn<QGeoPositionInfo>("position");
    QTest::addColumn<bool>("gpsFix");
    QTest::addColumn<int>("numberSatellites");
    QTest::addColumn<bool>("hasDate");
    QTest::addColumn<QString>("expected");

    QTest::newRow("valid position without fix") << s_munich << false << 0 << false << "munich|0|0|0|1";
    QTest::newRow("fix without position") << QGeoPositionInfo() << true << 12 << true << "invalid|1|12|1|0";
    QTest::newRow("coordinate without time")
        << QGeoPositionInfo(QGeoCoordinate(1, 2), QDateTime()) << true << 5 << false << "invalid|1|5|0|0";
    QTest::newRow("largest satellite count") << s_munich << true << 65535 << true << "munich|1|65535|1|1";
}

void TestKrGpsInfo::validity()
{
    QFETCH(QGeoPositionInfo, position);
    QFETCH(bool, gpsFix);
    QFETCH(int, numberSatellites);
    QFETCH(bool, hasDate);
    QFETCH(QString, expected);

    const KrGpsInfo constructed(position, gpsFix, static_cast<unsigned short>(numberSatellites), hasDate);
    QCOMPARE(describe(constructed), expected);

    KrGpsInfo set;
    QCOMPARE(describe(set), QStringLiteral("invalid|0|0|0|0"));
    set.setGpsPostionInfo(position);
    set.setGpsFix(gpsFix);
    set.setNumberSatellites(static_cast<unsigned short>(numberSatellites));
    set.setHasDate(hasDate);
    QCOMPARE(describe(set), expected);

    KrGpsInfo assigned;
    assigned = constructed;
    QCOMPARE(describe(KrGpsInfo(constructed)), expected);
    QCOMPARE(describe(assigned), expected);
}

void TestKrGpsInfo::settersLeaveOtherFields()
{
    KrGpsInfo info(s_munich, true, 65535, true);
    info.setGpsPostionInfo(QGeoPositionInfo());
    QCOMPARE(describe(info), QStringLiteral("invalid|1|65535|1|0"));
    info.setGpsFix(false);
    info.setNumberSatellites(0);
    info.setHasDate(false);
    info.setGpsPostionInfo(s_munich);
    QCOMPARE(describe(info), QStringLiteral("munich|0|0|0|1"));
    info.setNumberSatellites(7);
    QCOMPARE(describe(info), QStringLiteral("munich|0|7|0|1"));
}

QTEST_GUILESS_MAIN(TestKrGpsInfo)
#include "tst_krgpsinfo.moc"
