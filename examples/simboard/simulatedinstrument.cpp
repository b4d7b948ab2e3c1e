#include "simulatedinstrument.h"

#include "boardwiring.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QtEndian>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

namespace {

// The instrument looks at its registers, and tops up the ADC's stream, this often.
constexpr int tickMs = 2;
// Samples queued for a reader that does not keep up; beyond this the ADC drops them, as a
// real ADC overruns its FIFO.
constexpr int outputLimitBytes = 512 * 1024;

QString errorText()
{
    return QString::fromLocal8Bit(std::strerror(errno));
}

// A line's end as a UART gives it, raw from the start: a pseudo-terminal whose master the
// instrument holds. Its other end is opened and closed once, so that from then on poll() on
// the master tells whether anybody holds the line.
bool openPseudoTerminal(int *master, const QByteArray &port)
{
    *master = ::posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    char name[128];
    termios raw{};
    if (*master < 0 || ::grantpt(*master) < 0 || ::unlockpt(*master) < 0
        || ::ptsname_r(*master, name, sizeof(name)) != 0 || ::tcgetattr(*master, &raw) < 0)
        return false;
    ::cfmakeraw(&raw);
    ::tcsetattr(*master, TCSANOW, &raw);
    const int slave = ::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (slave >= 0)
        ::close(slave);
    BoardWiring::connectPort(port, QFile::decodeName(name));
    return true;
}

bool awayFrom(int master)
{
    pollfd entry{master, 0, 0};
    return ::poll(&entry, 1, 0) > 0 && (entry.revents & POLLHUP);
}

// One NMEA sentence: its body between '$' and the checksum, the XOR of the body's bytes.
QByteArray sentence(const QByteArray &body)
{
    char checksum = 0;
    for (const char c : body)
        checksum ^= c;
    return '$' + body + '*' + QByteArray::number(uchar(checksum), 16).toUpper().rightJustified(2, '0') + "\r\n";
}

bool writeFile(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    return QDir().mkpath(QFileInfo(path).path()) && file.open(QIODevice::WriteOnly)
        && file.write(bytes) == bytes.size();
}

} // namespace

// One of the instrument's ends of a line: a pseudo-terminal's master, or the FIFO.
struct SimulatedInstrument::Line
{
    int descriptor = -1;
    QByteArray input;
    QByteArray output;

    ~Line()
    {
        if (descriptor >= 0)
            ::close(descriptor);
    }
    // Reads what waits.
    void take()
    {
        char chunk[4096];
        ssize_t count;
        while ((count = ::read(descriptor, chunk, sizeof(chunk))) > 0 || (count < 0 && errno == EINTR)) {
            if (count > 0)
                input.append(chunk, int(count));
        }
    }
    // Writes what it can without waiting; what is left waits for room.
    void flush()
    {
        while (!output.isEmpty()) {
            const ssize_t count = ::write(descriptor, output.constData(), size_t(output.size()));
            if (count > 0)
                output.remove(0, int(count));
            else if (count < 0 && errno == EINTR)
                continue;
            else
                return;
        }
    }
};

SimulatedInstrument::SimulatedInstrument() = default;

SimulatedInstrument::~SimulatedInstrument()
{
    stop();
}

bool SimulatedInstrument::start(QString *error)
{
    m_directory = std::make_unique<QTemporaryDir>(QDir::tempPath() + QStringLiteral("/krpal-simboard-XXXXXX"));
    if (!m_directory->isValid()) {
        *error = QStringLiteral("cannot create a directory for the device nodes: %1").arg(m_directory->errorString());
        return false;
    }
    const auto failed = [this, error](const QString &what) {
        *error = QStringLiteral("cannot create %1: %2").arg(what, errorText());
        stop();
        return false;
    };
    m_wake = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (m_wake < 0)
        return failed(QStringLiteral("an event descriptor"));

    m_frontEnd = std::make_unique<Line>();
    m_gps = std::make_unique<Line>();
    if (!openPseudoTerminal(&m_frontEnd->descriptor, "frontend") || !openPseudoTerminal(&m_gps->descriptor, "gps"))
        return failed(QStringLiteral("a pseudo-terminal"));

    // The ADC's stream: a FIFO the instrument holds open both ways, so that it never blocks
    // and never ends; read-only for everybody else. A large pipe holds a whole buffer.
    const QString fifo = m_directory->filePath(QStringLiteral("dev/adc-stream"));
    m_adc = std::make_unique<Line>();
    if (!QDir().mkpath(QFileInfo(fifo).path()) || ::mkfifo(QFile::encodeName(fifo).constData(), 0600) < 0
        || (m_adc->descriptor = ::open(QFile::encodeName(fifo).constData(), O_RDWR | O_NONBLOCK | O_CLOEXEC)) < 0)
        return failed(fifo);
    ::chmod(QFile::encodeName(fifo).constData(), 0444);
    ::fcntl(m_adc->descriptor, F_SETPIPE_SZ, 1024 * 1024);
    BoardWiring::connectPort("adc", fifo);

    // The ADC's control registers: a UIO block as sysfs and /dev show it, under the
    // directory that stands for "/", with a register image as its node.
    const QString root = m_directory->path();
    const QString registers = root + QStringLiteral("/dev/uio0");
    if (!writeFile(root + QStringLiteral("/sys/class/uio/uio0/name"), QByteArrayLiteral("adc-ctrl\n"))
        || !writeFile(root + QStringLiteral("/sys/class/uio/uio0/maps/map0/size"),
            "0x" + QByteArray::number(blockSize, 16).rightJustified(8, '0') + '\n')
        || !writeFile(registers, QByteArray(int(blockSize), '\0'))
        || (m_registers = ::open(QFile::encodeName(registers).constData(), O_RDWR | O_CLOEXEC)) < 0)
        return failed(registers);
    BoardWiring::connectPort("root", root);

    m_clock.start();
    m_thread = std::thread([this] { run(); });
    return true;
}

void SimulatedInstrument::stop()
{
    if (m_thread.joinable()) {
        m_stopping = true;
        wake();
        m_thread.join();
    }
    m_frontEnd.reset();
    m_adc.reset();
    m_gps.reset();
    for (int *descriptor : {&m_registers, &m_wake}) {
        if (*descriptor >= 0)
            ::close(*descriptor);
        *descriptor = -1;
    }
    if (m_directory) {
        for (const char *port : {"frontend", "adc", "gps", "root"})
            BoardWiring::connectPort(port, QString());
    }
    m_directory.reset();
}

void SimulatedInstrument::hangFrontEnd(int milliseconds)
{
    m_hangUntilNs = m_clock.nsecsElapsed() + qint64(milliseconds) * 1000000;
    wake();
}

// Copied element by element: the instrument's own list is never shared, so that its next
// append, on the instrument's thread, never races with a copy's release on the caller's.
template<typename T>
QList<T> unsharedCopy(const QList<T> &list)
{
    QList<T> copy;
    copy.reserve(list.size());
    for (const T &item : list)
        copy.append(item);
    return copy;
}

QList<SimulatedInstrument::Received> SimulatedInstrument::frontEndLines() const
{
    const std::lock_guard<std::mutex> lock(m_linesMutex);
    return unsharedCopy(m_frontEndLines);
}

quint64 SimulatedInstrument::samplesSent() const
{
    return m_samplesSent;
}

quint64 SimulatedInstrument::samplesDropped() const
{
    return m_samplesDropped;
}

QList<QDateTime> SimulatedInstrument::gpsEpochsSent() const
{
    const std::lock_guard<std::mutex> lock(m_linesMutex);
    return unsharedCopy(m_gpsEpochs);
}

QByteArray SimulatedInstrument::firstGpsEpoch() const
{
    const std::lock_guard<std::mutex> lock(m_linesMutex);
    return m_firstGpsEpoch;
}

QString SimulatedInstrument::nodePath(const QByteArray &port) const
{
    return m_directory ? BoardWiring::nodePath(port) : QString();
}

qint64 SimulatedInstrument::msecsSinceStart() const
{
    return m_clock.elapsed();
}

qint16 SimulatedInstrument::sample(quint64 index)
{
    static const std::vector<qint16> period = [] {
        std::vector<qint16> values;
        for (int i = 0; i < samplesPerPeriod; ++i)
            values.push_back(qint16(std::lround(amplitude * std::sin(2 * M_PI * i / samplesPerPeriod))));
        return values;
    }();
    return period[size_t(index % samplesPerPeriod)];
}

void SimulatedInstrument::run()
{
    while (!m_stopping) {
        const bool hung = m_hangUntilNs - m_clock.nsecsElapsed() > 0;
        // A line nobody holds reports a hang-up at every poll: it is looked at without waiting.
        const bool frontEndAway = awayFrom(m_frontEnd->descriptor);
        // A hung front end reads nothing: what is sent to it waits in the line.
        const short frontEndEvents = short((hung ? 0 : POLLIN) | (m_frontEnd->output.isEmpty() ? 0 : POLLOUT));
        pollfd entries[] = {{m_wake, POLLIN, 0}, {frontEndAway ? -1 : m_frontEnd->descriptor, frontEndEvents, 0},
            {m_adc->descriptor, short(m_adc->output.isEmpty() ? 0 : POLLOUT), 0}};
        if (::poll(entries, 3, tickMs) < 0 && errno != EINTR)
            break;
        if (entries[0].revents & POLLIN) {
            eventfd_t count;
            ::eventfd_read(m_wake, &count);
        }
        if (entries[1].revents & POLLIN)
            m_frontEnd->take();
        // Also what was taken in just as a hang began, once it is over.
        if (m_hangUntilNs - m_clock.nsecsElapsed() <= 0)
            serveFrontEnd(*m_frontEnd);
        m_frontEnd->flush();
        serveRegisters();
        stream();
        m_adc->flush();
        serveGps();
    }
}

// The receiver has a fix at a fixed place; it sends once a second while its line is open, the
// first epoch shortly after the line was opened (once the opener has set the line up and
// discarded what waited: the first epoch is not sent into that).
void SimulatedInstrument::serveGps()
{
    const qint64 now = m_clock.nsecsElapsed();
    if (awayFrom(m_gps->descriptor)) {
        m_nextEpochNs = -1;
        m_gps->output.clear();
        return;
    }
    if (m_nextEpochNs < 0)
        m_nextEpochNs = now + 50 * 1000000;
    if (now >= m_nextEpochNs) {
        m_nextEpochNs += 1000000000;
        QDateTime utc = QDateTime::currentDateTimeUtc();
        utc.setTime(QTime(utc.time().hour(), utc.time().minute(), utc.time().second()));
        const QByteArray time = utc.toString(QStringLiteral("hhmmss")).toLatin1() + ".00";
        const QByteArray epoch = sentence("GPGGA," + time + ",4808.22924,N,01134.56744,E,1,09,0.9,519.0,M,47.0,M,,")
            + sentence("GPRMC," + time + ",A,4808.22924,N,01134.56744,E,0.0,0.0,"
                + utc.toString(QStringLiteral("ddMMyy")).toLatin1() + ",,,A");
        m_gps->output += epoch;
        const std::lock_guard<std::mutex> lock(m_linesMutex);
        m_gpsEpochs.append(utc);
        if (m_firstGpsEpoch.isEmpty())
            m_firstGpsEpoch = epoch;
    }
    m_gps->flush();
}

void SimulatedInstrument::serveFrontEnd(Line &line)
{
    for (int end = line.input.indexOf('\n'); end >= 0; end = line.input.indexOf('\n')) {
        const QByteArray text = line.input.left(end);
        line.input.remove(0, end + 1);
        {
            const std::lock_guard<std::mutex> lock(m_linesMutex);
            m_frontEndLines.append({text, m_clock.elapsed()});
        }
        line.output += answer(text) + '\n';
    }
}

QByteArray SimulatedInstrument::answer(const QByteArray &line) const
{
    if (line == "*IDN?")
        return QByteArrayLiteral("KR-SIM,FE-100,SN000123,1.4.2");
    if (line == "TEMP?")
        return QByteArrayLiteral("41.5");
    if (line == "VOLT?")
        return QByteArrayLiteral("3.312");
    if (line == "CURR?")
        return QByteArrayLiteral("1.4213");
    if (line == "FPGA?")
        return QByteArrayLiteral("XC7Z020-1CLG400C");
    if (line == "CALDATE?")
        return QByteArrayLiteral("2024-03-18");

    bool ok = false;
    if (line.startsWith("FREQ ")) {
        const qint64 hertz = line.mid(5).toLongLong(&ok);
        return ok && hertz > 0 && hertz <= 6000000000 ? QByteArrayLiteral("OK")
                                                      : QByteArrayLiteral("ERR frequency out of range");
    }
    if (line.startsWith("ATT ")) {
        const double decibels = line.mid(4).toDouble(&ok);
        return ok && decibels >= 0 && decibels <= 31.5 ? QByteArrayLiteral("OK")
                                                       : QByteArrayLiteral("ERR attenuation out of range");
    }
    return QByteArrayLiteral("ERR unknown command");
}

quint32 SimulatedInstrument::readRegister(Register offset) const
{
    uchar bytes[4] = {};
    return ::pread(m_registers, bytes, 4, offset) == 4 ? qFromLittleEndian<quint32>(bytes) : 0;
}

// The ADC's logic: it streams while enabled, at the rate its divider gives, which it takes
// when enabled; a divider that gives no rate between the limits is refused in the status.
void SimulatedInstrument::serveRegisters()
{
    const bool enabled = readRegister(Control) & 1;
    quint32 status = m_status;
    if (!enabled) {
        status = 0;
    } else if (status == 0) {
        m_divider = readRegister(RateDivider);
        const bool good = m_divider > 0 && clockHz / m_divider >= minimumRate && clockHz / m_divider <= maximumRate;
        status = good ? Running : BadDivider;
        m_streamStartNs = m_clock.nsecsElapsed();
        m_generated = 0;
    }
    if (status != m_status) {
        m_status = status;
        uchar bytes[4];
        qToLittleEndian(status, bytes);
        ::pwrite(m_registers, bytes, 4, Status);
    }
}

void SimulatedInstrument::stream()
{
    if (m_status != Running)
        return;
    // In microseconds, the product stays far within 64 bits for any run of the demo.
    const qint64 elapsedUs = (m_clock.nsecsElapsed() - m_streamStartNs) / 1000;
    const auto due = quint64(elapsedUs * clockHz / (qint64(m_divider) * 1000000));
    if (due <= m_generated)
        return;
    const quint64 count = due - m_generated;
    QByteArray &output = m_adc->output;
    if (output.size() > outputLimitBytes) {
        m_generated = due;
        m_samplesDropped += count;
        return;
    }
    const int start = output.size();
    output.resize(start + int(count) * 2);
    char *bytes = output.data() + start;
    for (quint64 i = 0; i < count; ++i) {
        const quint16 value = quint16(sample(m_generated + i));
        bytes[2 * i] = char(value & 0xff); // little endian, as the ADC's DMA writes them
        bytes[2 * i + 1] = char(value >> 8);
    }
    m_generated = due;
    m_samplesSent += count;
}

void SimulatedInstrument::wake()
{
    if (m_wake >= 0)
        ::eventfd_write(m_wake, 1);
}
