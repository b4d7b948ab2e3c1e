#include "nmeatool.h"

#include <pal/devices/krnmeagpssource.h>
#include <pal/devices/krserialdeviceproxy.h>
#include <pal/krdatacollector.h>
#include <pal/krgpsinfo.h>

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDateTime>
#include <QFile>
#include <QGeoCoordinate>
#include <QGeoPositionInfo>
#include <QLocale>
#include <QSocketNotifier>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using Pal::KrGpsInfo;
using Pal::KrNmeaGpsSource;

namespace {

// Set by SIGINT and SIGTERM; the pipe wakes an event loop that waits for a receiver.
volatile std::sig_atomic_t s_interrupted = 0;
int s_wakeUpPipe[2] = {-1, -1};

void onSignal(int)
{
    s_interrupted = 1;
    if (s_wakeUpPipe[1] >= 0) {
        const char byte = 0;
        [[maybe_unused]] const ssize_t written = ::write(s_wakeUpPipe[1], &byte, 1);
    }
}

// Without SA_RESTART, so that a read waiting for input returns at the signal.
void catchSignals()
{
    struct sigaction action = {};
    action.sa_handler = &onSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

// The shortest text that reads back as the same double.
QByteArray number(double value)
{
    return QByteArray::number(value, 'g', QLocale::FloatingPointShortest);
}

QByteArray jsonNumber(double value)
{
    return qIsNaN(value) ? QByteArrayLiteral("null") : number(value);
}

QByteArray jsonBool(bool value)
{
    return value ? QByteArrayLiteral("true") : QByteArrayLiteral("false");
}

double attribute(const QGeoPositionInfo &position, QGeoPositionInfo::Attribute attribute)
{
    return position.hasAttribute(attribute) ? position.attribute(attribute) : qQNaN();
}

QByteArray timeText(const QGeoPositionInfo &position)
{
    return position.timestamp().isValid() ? position.timestamp().toString(Qt::ISODateWithMs).toLatin1() : QByteArray();
}

} // namespace

NmeaTool::NmeaTool() = default;

NmeaTool::~NmeaTool() = default;

QByteArray NmeaTool::jsonLine(const KrGpsInfo &info)
{
    const QGeoPositionInfo position = info.getGpsPostionInfo();
    const QGeoCoordinate coordinate = position.coordinate();
    const bool located = coordinate.isValid();
    const QByteArray time = timeText(position);
    return "{\"time\":" + (time.isEmpty() ? QByteArrayLiteral("null") : '"' + time + '"')
        + ",\"lat\":" + jsonNumber(located ? coordinate.latitude() : qQNaN())
        + ",\"lon\":" + jsonNumber(located ? coordinate.longitude() : qQNaN())
        + ",\"altMSL\":" + jsonNumber(located ? coordinate.altitude() : qQNaN())
        + ",\"fix\":" + jsonBool(info.getGpsFix()) + ",\"satellites\":" + QByteArray::number(info.getNumberSatellites())
        + ",\"hasDate\":" + jsonBool(info.hasDate()) + ",\"valid\":" + jsonBool(info.isValid())
        + ",\"speed\":" + jsonNumber(attribute(position, QGeoPositionInfo::GroundSpeed))
        + ",\"course\":" + jsonNumber(attribute(position, QGeoPositionInfo::Direction)) + '}';
}

QByteArray NmeaTool::textLine(const KrGpsInfo &info)
{
    const QGeoPositionInfo position = info.getGpsPostionInfo();
    const QGeoCoordinate coordinate = position.coordinate();
    const QByteArray time = timeText(position);
    QByteArray line = (time.isEmpty() ? QByteArrayLiteral("no-time") : time) + (info.getGpsFix() ? " fix" : " no-fix")
        + " sats=" + QByteArray::number(info.getNumberSatellites());
    if (coordinate.isValid()) {
        line += " lat=" + QByteArray::number(coordinate.latitude(), 'f', 9)
            + " lon=" + QByteArray::number(coordinate.longitude(), 'f', 9);
        if (!qIsNaN(coordinate.altitude()))
            line += " alt=" + QByteArray::number(coordinate.altitude(), 'f', 3) + 'm';
    }
    const double speed = attribute(position, QGeoPositionInfo::GroundSpeed);
    if (!qIsNaN(speed))
        line += " speed=" + QByteArray::number(speed, 'f', 3) + "m/s";
    const double course = attribute(position, QGeoPositionInfo::Direction);
    if (!qIsNaN(course))
        line += " course=" + QByteArray::number(course, 'f', 2) + "deg";
    return line;
}

int NmeaTool::run(const QStringList &arguments)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Prints the GPS fixes of NMEA 0183 input, one line per epoch."));
    parser.addHelpOption();
    parser.addOption({QStringLiteral("json"), QStringLiteral("One JSON object per epoch.")});
    parser.addOption({QStringLiteral("baud"), QStringLiteral("Baud rate of a serial line (default 9600)."),
        QStringLiteral("N"), QStringLiteral("9600")});
    parser.addPositionalArgument(QStringLiteral("SOURCE"),
        QStringLiteral("A recorded log, a serial line such as /dev/ttyS1, or - for standard input."));
    if (!parser.parse(arguments))
        return fail(parser.errorText(), UsageError);
    if (parser.isSet(QStringLiteral("help"))) {
        std::fputs(qPrintable(parser.helpText()), stdout);
        return Done;
    }
    const QStringList sources = parser.positionalArguments();
    if (sources.size() != 1)
        return fail(QStringLiteral("give one SOURCE: a file, a serial line, or - for standard input"), UsageError);
    bool numeric = false;
    const int baudRate = parser.value(QStringLiteral("baud")).toInt(&numeric);
    if (!numeric || baudRate < 50 || baudRate > 4000000)
        return fail(QStringLiteral("--baud wants a rate from 50 to 4000000, such as 9600, not \"%1\"")
                        .arg(parser.value(QStringLiteral("baud"))),
            UsageError);
    m_json = parser.isSet(QStringLiteral("json"));

    KrNmeaGpsSource source;
    QObject::connect(&source, &KrNmeaGpsSource::gpsInfoUpdated, [this](const KrGpsInfo &info) { print(info); });
    catchSignals();

    const QString &path = sources.first();
    int status = Done;
    if (path == QLatin1String("-")) {
        status = readStream(STDIN_FILENO, QStringLiteral("standard input"), source);
    } else {
        const QByteArray nativePath = QFile::encodeName(path);
        // A serial line opens without waiting for its carrier; a pipe waits for its writer.
        struct stat info = {};
        const bool device = ::stat(nativePath.constData(), &info) == 0 && S_ISCHR(info.st_mode);
        const int fd = ::open(nativePath.constData(), O_RDONLY | O_NOCTTY | O_CLOEXEC | (device ? O_NONBLOCK : 0));
        if (fd < 0 || ::fstat(fd, &info) != 0) {
            const int error = errno;
            if (fd >= 0)
                ::close(fd);
            return fail(QStringLiteral("cannot open %1: %2").arg(path, QString::fromLocal8Bit(std::strerror(error))),
                Unreadable);
        }
        if (S_ISDIR(info.st_mode)) {
            ::close(fd);
            return fail(QStringLiteral("cannot read %1: it is a directory").arg(path), Unreadable);
        }
        if (device)
            ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
        const bool terminal = ::isatty(fd);
        if (terminal) {
            ::close(fd);
            status = readSerial(path, baudRate, source);
        } else {
            status = readStream(fd, path, source);
            ::close(fd);
        }
    }
    source.flush();
    std::fprintf(stderr, "krpal-nmea: %llu epochs, %llu with a fix, %llu sentences dropped\n",
        static_cast<unsigned long long>(m_epochs), static_cast<unsigned long long>(m_fixes),
        static_cast<unsigned long long>(source.droppedSentences()));
    return status;
}

int NmeaTool::readStream(int fd, const QString &name, KrNmeaGpsSource &source)
{
    char buffer[65536];
    while (!s_interrupted) {
        const ssize_t size = ::read(fd, buffer, sizeof buffer);
        if (size == 0)
            break;
        if (size < 0) {
            if (errno == EINTR)
                continue;
            return fail(QStringLiteral("cannot read %1: %2").arg(name, QString::fromLocal8Bit(std::strerror(errno))),
                Unreadable);
        }
        source.addData(buffer, int(size));
    }
    return Done;
}

int NmeaTool::readSerial(const QString &path, qint32 baudRate, KrNmeaGpsSource &source)
{
    Pal::KrSerialDeviceProxy receiver(path, baudRate);
    if (!receiver.isOpen())
        return fail(QStringLiteral("cannot open %1: %2").arg(path, receiver.errorString()), Unreadable);
    // Input that waited before the open was discarded: from here on nothing is lost.
    std::fprintf(stderr, "krpal-nmea: reading %s at %d baud\n", qPrintable(path), int(receiver.baudRate()));
    if (::pipe2(s_wakeUpPipe, O_CLOEXEC | O_NONBLOCK) != 0)
        return fail(QStringLiteral("cannot watch for signals: %1").arg(QString::fromLocal8Bit(std::strerror(errno))),
            Unreadable);
    {
        // A signal that came before the pipe was there has set the flag; one after it wakes the
        // loop through the pipe.
        QSocketNotifier wakeUp(s_wakeUpPipe[0], QSocketNotifier::Read);
        QObject::connect(&wakeUp, &QSocketNotifier::activated, QCoreApplication::instance(), &QCoreApplication::quit);
        // The source works on the collector thread while the collector runs; this thread only
        // waits for a signal, and touches the source again after stop(), which waits for the
        // collector's pass in progress.
        Pal::KrDataCollector collector(&receiver, 1024);
        QObject::connect(&collector, &Pal::KrDataCollector::rawDataReady, &source,
            qOverload<const QByteArray &>(&KrNmeaGpsSource::addData), Qt::DirectConnection);
        collector.start();
        if (!s_interrupted)
            QCoreApplication::exec();
        collector.stop();
    }
    ::close(s_wakeUpPipe[0]);
    ::close(s_wakeUpPipe[1]);
    s_wakeUpPipe[0] = s_wakeUpPipe[1] = -1;
    return Done;
}

void NmeaTool::print(const KrGpsInfo &info)
{
    ++m_epochs;
    m_fixes += info.getGpsFix();
    const QByteArray line = (m_json ? jsonLine(info) : textLine(info)) + '\n';
    // Line by line, so that a reader of a live receiver sees each epoch as it comes.
    std::fwrite(line.constData(), 1, size_t(line.size()), stdout);
    std::fflush(stdout);
}

int NmeaTool::fail(const QString &message, ExitStatus status)
{
    std::fprintf(stderr, "krpal-nmea: %s\n", qPrintable(message));
    return status;
}
