// Recorded receiver output through KrNmeaGpsSource in every chunking, compared whole; krpal-nmea.

#include "ptypair.h"
#include "toolprocess.h"

#include <pal/devices/krnmeagpssource.h>

#include <QFile>
#include <QGeoCoordinate>
#include <QGeoPositionInfo>
#include <QProcess>
#include <QRandomGenerator>
#include <QTest>
#include <QThread>

#include <functional>
#include <mutex>

using Pal::KrGpsInfo;
using Pal::KrNmeaGpsSource;

namespace {

// All of a KrGpsInfo on one line: degrees to 1e-9, altitude to 1 mm, the attributes set.
QString describe(const KrGpsInfo &info)
{
    const QGeoPositionInfo position = info.getGpsPostionInfo();
    const QGeoCoordinate coordinate = position.coordinate();
    QString text = position.timestamp().isValid() ? position.timestamp().toString(Qt::ISODateWithMs) : "-";
    text += QString(" fix=%1 sats=%2 date=%3 valid=%4")
                .arg(info.getGpsFix())
                .arg(info.getNumberSatellites())
                .arg(info.hasDate())
                .arg(info.isValid());
    if (coordinate.isValid())
        text += QString(" %1,%2").arg(coordinate.latitude(), 0, 'f', 9).arg(coordinate.longitude(), 0, 'f', 9);
    if (!qIsNaN(coordinate.altitude()))
        text += QString(" alt=%1").arg(coordinate.altitude(), 0, 'f', 3);
    const std::pair<QGeoPositionInfo::Attribute, const char *> attributes[] = {{QGeoPositionInfo::GroundSpeed, "speed"},
        {QGeoPositionInfo::Direction, "course"}, {QGeoPositionInfo::MagneticVariation, "magvar"},
        {QGeoPositionInfo::HorizontalAccuracy, "hacc"}, {QGeoPositionInfo::VerticalAccuracy, "vacc"}};
    for (const auto &attribute : attributes)
        if (position.hasAttribute(attribute.first))
            text += QString(" %1=%2").arg(attribute.second).arg(position.attribute(attribute.first), 0, 'g', 9);
    return text;
}

QStringList epochs(int count, const std::function<QString(int)> &epoch)
{
    QStringList list;
    for (int i = 0; i < count; ++i)
        list << epoch(i);
    return list;
}

QByteArray recording(const QString &name)
{
    QFile file(QStringLiteral(KRPAL_NMEA_DATA "/") + name);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

struct Run
{
    QStringList emitted;
    // Per epoch the line during which it was emitted, or "end" for flush().
    QStringList lines;
    quint64 dropped = 0;
};

// Feeds @p bytes in chunks of the sizes @p chunks gives for each offset, through both overloads.
Run feed(const QByteArray &bytes, const std::function<int(int)> &chunks)
{
    KrNmeaGpsSource source;
    Run run;
    QString line = "1";
    QObject::connect(&source, &KrNmeaGpsSource::gpsInfoUpdated, [&](const KrGpsInfo &info) {
        run.emitted << describe(info);
        run.lines << line;
        QCOMPARE(describe(source.lastGpsInfo()), run.emitted.last());
    });
    for (int at = 0, n = 0, lines = 0; at < bytes.size(); at += n) {
        n = qMin(chunks(at), bytes.size() - at);
        line = QString::number(lines + 1);
        if (n % 2)
            source.addData(bytes.constData() + at, n);
        else
            source.addData(bytes.mid(at, n));
        lines += bytes.mid(at, n).count('\n');
    }
    source.addData(nullptr, 1); // a null chunk is ignored
    line = "end";
    source.flush();
    run.dropped = source.droppedSentences();
    return run;
}

const QByteArray noFixSummary = "krpal-nmea: 5 epochs, 1 with a fix, 0 sentences dropped\n";

} // namespace

class TestKrNmeaGpsSource : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void recordings_data();
    void recordings();
    void queued();
    void tool_data();
    void tool();
    void serialLine();
    void gpsInfoFields();
    void fields_data();
    void fields();
};

// Each recording's epochs, the number of bad sentences in it, and the lines (fed one by one)
// during which the epochs were emitted: at once on the cycle's end once that is known.
void TestKrNmeaGpsSource::recordings_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<QStringList>("expected");
    QTest::addColumn<quint64>("dropped");
    QTest::addColumn<QString>("emittedAt");

    QTest::newRow("GPS at 1 Hz, 3D fix, ends on GLL")
        << "gp-1hz-3d.nmea"
        << QStringList{"2024-03-18T10:15:30.250Z fix=1 sats=8 date=1 valid=1 48.117301667,11.516670000 alt=545.400 "
                       "speed=0.00205777778 magvar=-3.1",
               "2024-03-18T10:15:31.250Z fix=1 sats=8 date=1 valid=1 48.117305000,11.516673333 alt=545.600 "
               "speed=5.40166667 course=84.4 magvar=-3.1",
               "2024-03-18T10:15:32.250Z fix=1 sats=8 date=1 valid=1 48.117310000,11.516681667 alt=545.900 "
               "speed=5.45311111 course=84.5 magvar=-3.1"}
        << quint64(0) << QString("7 12 18");
    QTest::newRow("2D fix, no altitude, south-west, 2-digit year 99")
        << "sirf-2d.nmea"
        << QStringList{"1999-12-31T23:59:58.000Z fix=1 sats=4 date=1 valid=1 -33.852057612,-151.212757202 "
                       "speed=0.514444444 course=359.99 magvar=11.5",
               "1999-12-31T23:59:59.000Z fix=1 sats=4 date=1 valid=1 -33.852057612,-151.212757202 "
               "speed=0.514444444 course=359.99 magvar=11.5"}
        << quint64(0) << QString("4 6");
    QTest::newRow("no fix at start: no time, then no date, then a fix")
        << "no-fix-at-start.nmea"
        << QStringList{"- fix=0 sats=0 date=0 valid=0", "- fix=0 sats=0 date=0 valid=0",
               "- fix=0 sats=3 date=0 valid=0", "2024-04-17T08:00:01.000Z fix=0 sats=3 date=1 valid=0",
               "2024-04-17T08:00:02.000Z fix=1 sats=5 date=1 valid=1 51.500000000,-0.125000000 alt=-12.345 "
               "speed=0.00514444444"}
        << quint64(0) << QString("6 10 14 19 24");
    const QString tenHz = "2025-01-01T12:00:00.%1Z fix=1 sats=12 date=1 valid=1 47.285205760,8.565205760 alt=430.120 "
                          "speed=1.02888889 course=90 hacc=0.5 vacc=1.2";
    QTest::newRow("GN at 10 Hz, fix lost and regained, GST accuracy")
        << "gn-10hz-fix-lost.nmea"
        << QStringList{tenHz.arg("000"), tenHz.arg("100"), "2025-01-01T12:00:00.200Z fix=0 sats=0 date=1 valid=0",
               "2025-01-01T12:00:00.300Z fix=0 sats=0 date=1 valid=0", tenHz.arg("400")}
        << quint64(0) << QString("7 12 18 24 30");
    QTest::newRow("midnight without a date, other talkers, coordinate limits")
        << "midnight-talkers.nmea"
        << QStringList{"2024-12-31T23:59:59.500Z fix=1 sats=9 date=1 valid=1 0.000000000,-180.000000000 alt=0.000",
               "2024-12-31T23:59:59.750Z fix=1 sats=10 date=0 valid=1 -90.000000000,0.000000000 alt=1.001",
               "2025-01-01T00:00:00.000Z fix=1 sats=11 date=0 valid=1 0.000001667,0.000001667 alt=2.000",
               "2025-01-01T00:00:00.250Z fix=1 sats=7 date=0 valid=1 12.576130000,123.761315000 alt=3.000",
               "2025-01-01T00:00:00.500Z fix=1 sats=7 date=0 valid=1 12.576130000,123.761315000 alt=3.000"}
        << quint64(0) << QString("3 3 4 5 6");
    QTest::newRow("cycle end learnt from a partial first epoch, unlearnt on a late ZDA")
        << "gn-cycle-learning.nmea"
        << epochs(6,
               [](int i) {
                   return QString("2025-06-15T09:30:0%1.000Z fix=1 sats=%2 date=1 valid=1 1.000000000,103.000000000 "
                                  "alt=10.000 speed=0")
                       .arg(i)
                       .arg(i ? 9 : 11);
               })
        << quint64(0) << QString("7 12 16 21 28 32");
    // Dropped: a wrong checksum, noise, no checksum, five fields that do not convert, too few
    // fields, a sentence cut off by the next, one too long; a zero byte in a good one is skipped.
    QTest::newRow("bad input among good sentences") << "bad-input.nmea" << epochs(4, [](int) {
        return QString("- fix=1 sats=8 date=0 valid=0 48.117300000,11.516666667 alt=545.400");
    }) << quint64(12) << QString("4 4 13 14");
}

void TestKrNmeaGpsSource::recordings()
{
    QFETCH(QString, file);
    QFETCH(QStringList, expected);
    QFETCH(quint64, dropped);
    QFETCH(QString, emittedAt);

    const QByteArray bytes = recording(file);
    QVERIFY(!bytes.isEmpty());
    QRandomGenerator random(18);
    const std::pair<const char *, std::function<int(int)>> chunkings[]
        = {{"lines", [&](int at) { return bytes.indexOf('\n', at) + 1 - at; }},
            {"whole", [&](int) { return bytes.size(); }}, {"bytes", [](int) { return 1; }},
            {"3 bytes", [](int) { return 3; }}, {"64 bytes", [](int) { return 64; }},
            {"random", [&](int) { return random.bounded(1, 200); }}};
    for (const auto &chunking : chunkings) {
        const Run run = feed(bytes, chunking.second);
        QCOMPARE(run.emitted, expected);
        QCOMPARE(run.dropped, dropped);
        if (chunking.first == QLatin1String("lines"))
            QCOMPARE(run.lines.join(' '), emittedAt);
    }
}

// The signal reaches a receiver on another thread. The thread starts after the epochs were
// posted, and the list is shared under a std::mutex: orders the thread sanitizer can see.
void TestKrNmeaGpsSource::queued()
{
    KrNmeaGpsSource source;
    QThread thread;
    QObject receiver;
    receiver.moveToThread(&thread);
    std::mutex mutex;
    QStringList received;
    const auto receivedCopy = [&] {
        const std::lock_guard<std::mutex> lock(mutex);
        return received;
    };
    connect(
        &source, &KrNmeaGpsSource::gpsInfoUpdated, &receiver,
        [&](const KrGpsInfo &info) {
            const std::lock_guard<std::mutex> lock(mutex);
            received << describe(info);
        },
        Qt::QueuedConnection);
    source.addData(recording("sirf-2d.nmea"));
    source.flush();
    thread.start();
    QTRY_COMPARE(receivedCopy().size(), 2);
    thread.quit();
    QVERIFY(thread.wait(5000));
    QCOMPARE(receivedCopy().last(), describe(source.lastGpsInfo()));
}

void TestKrNmeaGpsSource::tool_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QByteArray>("input");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QByteArray>("output");
    QTest::addColumn<QByteArray>("errors");

    QTest::newRow("file") << QStringList{"--json", KRPAL_NMEA_DATA "/no-fix-at-start.nmea"} << QByteArray() << 0
                          << recording("no-fix-at-start.json") << noFixSummary;
    QTest::newRow("standard input") << QStringList{"--json", "-"} << recording("no-fix-at-start.nmea") << 0
                                    << recording("no-fix-at-start.json") << noFixSummary;
    QTest::newRow("text") << QStringList{"-"} << recording("sirf-2d.nmea") << 0 << recording("sirf-2d.txt")
                          << QByteArray("krpal-nmea: 2 epochs, 2 with a fix, 0 sentences dropped\n");
    QTest::newRow("missing file") << QStringList{"/nonexistent.nmea"} << QByteArray() << 1 << QByteArray()
                                  << QByteArray(
                                         "krpal-nmea: cannot open /nonexistent.nmea: No such file or directory\n");
    QTest::newRow("bad baud") << QStringList{"--baud", "9k6", "-"} << QByteArray() << 2 << QByteArray()
                              << QByteArray("krpal-nmea: --baud wants a rate from 50 to 4000000, such as 9600, not "
                                            "\"9k6\"\n");
    QTest::newRow("no source") << QStringList{"--json"} << QByteArray() << 2 << QByteArray()
                               << QByteArray("krpal-nmea: give one SOURCE: a file, a serial line, or - for standard "
                                             "input\n");
}

void TestKrNmeaGpsSource::tool()
{
#ifndef KRPAL_NMEA
    QSKIP("built without the examples");
#else
    QFETCH(QStringList, arguments);
    QFETCH(QByteArray, input);
    QFETCH(int, exitCode);
    QFETCH(QByteArray, output);
    QFETCH(QByteArray, errors);
    SKIP_WITHOUT_TOOLS();

    QProcess process;
    startTool(process, KRPAL_NMEA, arguments);
    QVERIFY(process.waitForStarted(10000));
    process.write(input);
    process.closeWriteChannel();
    QVERIFY(process.waitForFinished(30000));
    QCOMPARE(process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(process.readAllStandardOutput(), output);
    QCOMPARE(process.readAllStandardError(), errors);
    QCOMPARE(process.exitCode(), exitCode);
#endif
}

// krpal-nmea on a pseudo-terminal until SIGTERM: the lines of the same recording as a file.
void TestKrNmeaGpsSource::serialLine()
{
#ifndef KRPAL_NMEA
    QSKIP("built without the examples");
#else
    PtyPair pty(true);
    if (pty.master < 0)
        QSKIP("no pseudo-terminals here");
    SKIP_WITHOUT_TOOLS();
    QProcess process;
    startTool(process, KRPAL_NMEA, {"--json", "--baud", "115200", pty.slavePath});
    // Input that waits before the tool opens the line is discarded; the tool says when it reads.
    const QByteArray reading = "krpal-nmea: reading " + pty.slavePath.toLocal8Bit() + " at 115200 baud\n";
    QByteArray errors;
    QTRY_VERIFY_WITH_TIMEOUT(
        (errors += process.readAllStandardError()).endsWith('\n') || process.state() == QProcess::NotRunning, 10000);
    if (errors != reading)
        QSKIP(errors.constData());
    QVERIFY(pty.send(recording("no-fix-at-start.nmea")));
    QByteArray output;
    QTRY_COMPARE_WITH_TIMEOUT((output += process.readAllStandardOutput()).count('\n'), 5, 10000);
    process.terminate();
    QVERIFY(process.waitForFinished(10000));
    QCOMPARE(process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(output + process.readAllStandardOutput(), recording("no-fix-at-start.json"));
    QCOMPARE(errors + process.readAllStandardError(), reading + noFixSummary);
    QCOMPARE(process.exitCode(), 0);
#endif
}

// Validity comes from the position alone; each setter changes its own field only.
void TestKrNmeaGpsSource::gpsInfoFields()
{
    const QGeoPositionInfo munich(
        QGeoCoordinate(48.137, 11.575, 519), QDateTime(QDate(2024, 5, 6), QTime(7, 8, 9), Qt::UTC));
    const QString at = "2024-05-06T07:08:09.000Z fix=%1 sats=%2 date=%3 valid=1 48.137000000,11.575000000 alt=519.000";
    QCOMPARE(describe(KrGpsInfo(munich, true, 12, false)), at.arg(1).arg(12).arg(0));
    KrGpsInfo info;
    QCOMPARE(describe(info), QString("- fix=0 sats=0 date=0 valid=0"));
    info.setGpsPostionInfo(munich);
    QCOMPARE(describe(info), at.arg(0).arg(0).arg(0));
    info.setHasDate(true);
    info.setNumberSatellites(65535);
    info.setGpsFix(true);
    QCOMPARE(describe(info), at.arg(1).arg(65535).arg(1));
    info.setGpsPostionInfo(QGeoPositionInfo());
    QCOMPARE(describe(info), QString("- fix=1 sats=65535 date=1 valid=0"));
}

// A sentence after a GSA epoch without time: one wrong in one field is dropped whole, a good one joins it.
void TestKrNmeaGpsSource::fields_data()
{
    QTest::addColumn<QString>("sentence");
    QTest::addColumn<QString>("epoch"); // or "dropped"
    const auto rows = [](const QString &form, const QStringList &values, const QString &epoch = "dropped") {
        for (const QString &value : values)
            QTest::addRow("%s", qPrintable(form.arg(value))) << form.arg(value) << epoch;
    };
    const QString gsa = "- fix=1 sats=3 date=0 valid=0";
    rows("%1",
        {"GPXYZ*4G", "GPXYZ*4g", "GPXYZ*:c", "GPGG*2F", "GPTXT,!", "GPTXT,\x7f", "GPTXT,\x1f", "GPGG,1", "GPGGAA",
            "gPGGA,1", "GPGGa,1", "GP@GA,1", "GP[GA,1", ",1234", "GPGGA" + QString(24, ','), "GPGGA,,,,,,,,,,,,,",
            "GPRMC,,A,,,,,,,,", "GPGSA,A,3,,,,,,,,,,,,,,", "GPGLL,,,,,120000", "GPVTG,,T,,M,,N,", "GPZDA,120000,,,,",
            "GPGST,120000,,,,,,", "GPRMC,240000,A,,,,,,,,,", "GPGLL,,,,,240000,A", "GPGST,240000,,,,,,,",
            "GPGGA,,4807,N,,,,,,,,,,,", "GPGGA,,,,01131,E,,,,,,,,,", "GPGGA,,4807,N,01160,E,,,,,,,,,"});
    rows("%1",
        {"GPTXT," + QString(110, 'x'), "GPTXT, ~", "PGRMZ,x", "GPXYZ*4c", "GPXYZ,J*2a", "GPXYZ,O*2f",
            "GPGSV" + QString(25, ','), "GPGGA" + QString(23, ','), "GPGGA,,,,,,,,.5,-0.5,M,-46.9,M,0.0,1023",
            "GPGLL,,N,,W,,A", "GPGLL,,,,,,,", "GPGLL,,,,,,A,S", "GPRMC,,A,,,,,,,,,E", "GPVTG,84.4,T,,M,1.0,N,18,K,N",
            "GPZDA,120000,,,,,"},
        gsa);
    rows("%1", {"GPGSA,,,04,05,,,,,,,,,,,,,,F", "GPGSA,A,,,,,,,,,,,,04,05,1,1,1,"}, "- fix=1 sats=5 date=0 valid=0");
    rows("GPZDA,%1,,,,,", {"240000", "126000", "120060", "12000", "1200000", "120000.1a", "120000.12345678901"});
    rows("GPZDA,%1,24,03,2024,,", {"235959.9999"}, "2024-03-24T23:59:59.999Z fix=1 sats=3 date=1 valid=0");
    const QString position = "- fix=1 sats=3 date=0 valid=0 %1,11.516666667";
    rows("GPGLL,%1,01131.000,E,,A",
        {"4807.038,X", "4807.038,E", "4860.000,N", "9100.000,N", "9000.0001,N", "07.038,N", "04807.038,N",
            "4807.03812345678,N", "48a7.038,N", "4807.0a8,N"});
    rows("GPGLL,%1,01131.000,E,,A", {"4807,N", "4807.,N"}, position.arg("48.116666667"));
    rows("GPGLL,%1,01131.000,E,,A", {"123.5,N"}, position.arg("1.391666667"));
    rows("GPGLL,%1,01131.000,E,,A", {"0000.000,S"}, position.arg("0.000000000"));
    rows("GPGLL,4807.038,N,%1,,A", {"18000.001,E", "18100.000,W", "01160.000,E", "011310.00,E", "01131.000,N"});
    rows("GPGLL,%1", {"4807.038,N,,,,A", ",X,,E,,A", ",N,,X,,A", ",,,,,X", ",,,,,AA", ",,,,,A,X"});
    rows("GPGGA,,,,,,%1",
        {"12,,,,,,,,", ",1234,,,,,,,", ",,-0.9,,,,,,", ",,0.9.1,,,,,,", ",,.,,,,,,", ",,1234567890123456,,,,,,",
            ",,,--1,,,,,", ",,,,F,,,,", ",,,,,x,,,", ",,,,,,F,,", ",,,,,,,-1,", ",,,,,,,,12345"});
    rows("GPGGA,,,,,,%1,,,,,,,", {"0,999"}, "- fix=0 sats=999 date=0 valid=0");
    rows("GPGGA,,4807.038,N,01131.000,E,1,,,%1,,,,,", {"-0"}, position.arg("48.117300000") + " alt=0.000");
    rows("GPRMC,,%1",
        {"X,,,,,,,,,", "A,4807.038,N,,,,,,,", "A,,,01131.000,E,,,,,", "A,4860.000,N,01131.000,E,,,,,",
            "A,4807.038,N,01160.000,E,,,,,", "A,,,,,-1,,,,", "A,,,,,,-1,,,", "A,,,,,,360.1,,,", "A,,,,,,,,,,X",
            "A,,,,,,,,,,A,X"});
    rows("GPRMC,,%1", {"A,4807.038,N,01131.000,E,1.0,360,,180,E,D,S"},
        position.arg("48.117300000") + " speed=0.514444444 course=360 magvar=180");
    const QString day = "%1T12:00:00.000Z fix=1 sats=3 date=1 valid=0";
    rows("GPRMC,120000,A,,,,,,,%1,,", {"310224", "24032", "2403241", "2a0324", "000324", "241324"});
    rows("GPRMC,120000,A,,,,,,,%1,,", {"311279"}, day.arg("2079-12-31"));
    rows("GPRMC,120000,A,,,,,,,%1,,", {"010180"}, day.arg("1980-01-01"));
    rows("GPRMC,,A,,,,,,,,%1", {"180.1,E", "3.1,", "3.1,X", "-3.1,W", ",X", "3.1,EW"});
    rows("GPGSA,%1,,,,,,,,,,,,,,", {"X,3,04", "AM,3,04", "M,4,04", "M,0,04", "A,3,1234", "A,3,a1"});
    rows("GPGSA,A,3,,,,,,,,,,,,%1", {"x,,,", ",-1,,", ",,,x", ",,,,G", ",,,,12"});
    rows("GPVTG,%1",
        {"360.1,T,,M,,N,,K", "-1,T,,M,,N,,K", ",X,,M,,N,,K", ",T,-1,M,,N,,K", ",T,,X,,N,,K", ",T,,M,-1,N,,K",
            ",T,,M,,X,,K", ",T,,M,,N,x,K", ",T,,M,,N,,X", ",T,,M,,N,,K,X"});
    rows("GPVTG,%1", {"360,T,,M,,N,18,K"}, gsa + " speed=5 course=360");
    rows("GPVTG,%1", {"84.4,T,,M,1.0,N,18,K,A"}, gsa + " speed=0.514444444 course=84.4");
    rows("GPZDA,120000,%1",
        {"31,02,2024,,", "24,,2024,,", "24,03,24,,", "24,03,20a4,,", ",03,2024,,", ",,2024,,", "2a,03,2024,,",
            "24,03,2024,14,", "24,03,2024,-,", "24,03,2024,,60", "24,03,2024,,6a"});
    rows("GPZDA,120000,%1", {"24,03,2024,-13,59", "24,3,2024,+05,", "24,03,2024,,,"}, day.arg("2024-03-24"));
    rows("GPGST,120000,%1", {"-1,,,,,,", ",,,,,,-2", ",,,,x,,"});
    rows("GPGST,120000,%1", {",,,,3,4,2"}, gsa + " hacc=5 vacc=2");
}

void TestKrNmeaGpsSource::fields()
{
    QFETCH(QString, sentence);
    QFETCH(QString, epoch);
    char checksum = 0;
    for (const QChar c : sentence)
        checksum ^= c.toLatin1();
    const QByteArray end = '*' + QByteArray::number(uchar(checksum) | 0x100, 16).right(2).toUpper();
    const QByteArray bytes = "$GPGSA,A,3,01,02,03,,,,,,,,,,1.0,1.0,1.0*33\r\n$" + sentence.toLatin1()
        + (sentence.contains('*') ? QByteArray() : end) + "\r\n";
    const Run run = feed(bytes, [](int) { return 1 << 20; });
    QCOMPARE(run.emitted, QStringList(epoch == "dropped" ? "- fix=1 sats=3 date=0 valid=0" : epoch));
    QCOMPARE(run.dropped, quint64(epoch == "dropped"));
}

QTEST_GUILESS_MAIN(TestKrNmeaGpsSource)
#include "tst_krnmeagpssource.moc"
