#include "simulatedinstrument.h"

#include "boardwiring.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <cerrno>
#include <cmath>
#include <cstring>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

const QByteArray frontEndPort = QByteArrayLiteral("frontend");
const QByteArray adcPort = QByteArrayLiteral("adc");

// While streaming, the ADC's line is topped up this often.
constexpr int streamTickMs = 2;
// Samples queued for a reader that does not keep up; beyond this the ADC drops them, as a
// real ADC overruns its FIFO.
constexpr int outputLimitBytes = 512 * 1024;

QString errorText()
{
    return QString::fromLocal8Bit(std::strerror(errno));
}

int listenOn(const QString &nodePath, QString *error)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const QByteArray path = QFile::encodeName(nodePath);
    if (size_t(path.size()) >= sizeof(address.sun_path)) {
        *error = QStringLiteral("the node path %1 is too long for a Unix socket; set TMPDIR to a shorter directory")
                     .arg(nodePath);
        return -1;
    }
    std::memcpy(address.sun_path, path.constData(), size_t(path.size()));
    const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (descriptor < 0 || ::bind(descriptor, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) < 0
        || ::listen(descriptor, 8) < 0) {
        *error = QStringLiteral("cannot create the node %1: %2").arg(nodePath, errorText());
        if (descriptor >= 0)
            ::close(descriptor);
        return -1;
    }
    return descriptor;
}

} // namespace

struct SimulatedInstrument::Connection
{
    int descriptor = -1;
    Port port = Port::FrontEnd;
    QByteArray input;
    QByteArray output;
    bool closed = false;
    // The ADC's stream on this line.
    bool streaming = false;
    qint64 rate = 0;
    qint64 streamStartNs = 0;
    quint64 generated = 0;
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
    m_wake = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    m_frontEndListener = listenOn(nodePath(frontEndPort), error);
    m_adcListener = m_frontEndListener < 0 ? -1 : listenOn(nodePath(adcPort), error);
    if (m_wake < 0 || m_frontEndListener < 0 || m_adcListener < 0) {
        if (m_wake < 0)
            *error = QStringLiteral("cannot create an event descriptor: %1").arg(errorText());
        stop();
        return false;
    }
    BoardWiring::connectPort(frontEndPort, nodePath(frontEndPort));
    BoardWiring::connectPort(adcPort, nodePath(adcPort));
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
    for (const Connection &connection : m_connections)
        ::close(connection.descriptor);
    m_connections.clear();
    for (int *descriptor : {&m_frontEndListener, &m_adcListener, &m_wake}) {
        if (*descriptor >= 0)
            ::close(*descriptor);
        *descriptor = -1;
    }
    if (m_directory) {
        BoardWiring::connectPort(frontEndPort, QString());
        BoardWiring::connectPort(adcPort, QString());
    }
    m_directory.reset();
}

void SimulatedInstrument::hangFrontEnd(int milliseconds)
{
    m_hangUntilNs = m_clock.nsecsElapsed() + qint64(milliseconds) * 1000000;
    wake();
}

QList<SimulatedInstrument::Received> SimulatedInstrument::frontEndLines() const
{
    const std::lock_guard<std::mutex> lock(m_linesMutex);
    return m_frontEndLines;
}

quint64 SimulatedInstrument::samplesSent() const
{
    return m_samplesSent;
}

quint64 SimulatedInstrument::samplesDropped() const
{
    return m_samplesDropped;
}

QString SimulatedInstrument::nodePath(const QByteArray &port) const
{
    return m_directory ? m_directory->filePath(QLatin1String(port)) : QString();
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
    std::vector<pollfd> entries;
    while (!m_stopping) {
        const qint64 now = m_clock.nsecsElapsed();
        const qint64 hangLeftNs = m_hangUntilNs - now;
        const bool hung = hangLeftNs > 0;
        bool streaming = false;

        entries.assign({{m_wake, POLLIN, 0}, {m_frontEndListener, POLLIN, 0}, {m_adcListener, POLLIN, 0}});
        for (const Connection &connection : m_connections) {
            short events = 0;
            // A hung front end reads nothing: what is sent to it waits in the line.
            if (!(hung && connection.port == Port::FrontEnd))
                events |= POLLIN;
            if (!connection.output.isEmpty())
                events |= POLLOUT;
            entries.push_back({connection.descriptor, events, 0});
            streaming |= connection.streaming;
        }
        int timeoutMs = streaming ? streamTickMs : -1;
        if (hung) {
            const int hangLeftMs = int(hangLeftNs / 1000000) + 1;
            timeoutMs = timeoutMs < 0 ? hangLeftMs : qMin(timeoutMs, hangLeftMs);
        }
        if (::poll(entries.data(), entries.size(), timeoutMs) < 0 && errno != EINTR)
            break;

        if (entries[0].revents & POLLIN) {
            eventfd_t count;
            ::eventfd_read(m_wake, &count);
        }
        const bool stillHung = m_hangUntilNs - m_clock.nsecsElapsed() > 0;
        for (size_t i = 0; i < m_connections.size(); ++i) {
            Connection &connection = m_connections[i];
            const short revents = entries[i + 3].revents;
            if ((revents & POLLIN) && !takeInput(connection))
                connection.closed = true;
            if (revents & (POLLHUP | POLLERR | POLLNVAL))
                connection.closed = true;
            if (connection.closed)
                continue;
            if (connection.port == Port::FrontEnd && !stillHung)
                serveFrontEnd(connection);
            if (connection.port == Port::Adc) {
                serveAdc(connection);
                stream(connection);
            }
            if (!flush(connection))
                connection.closed = true;
        }
        for (auto it = m_connections.begin(); it != m_connections.end();) {
            if (it->closed) {
                ::close(it->descriptor);
                it = m_connections.erase(it);
            } else {
                ++it;
            }
        }
        // New lines last: the entries above were polled for the connections as they were.
        if (entries[1].revents & POLLIN)
            accept(m_frontEndListener, Port::FrontEnd);
        if (entries[2].revents & POLLIN)
            accept(m_adcListener, Port::Adc);
    }
}

void SimulatedInstrument::accept(int listener, Port port)
{
    for (;;) {
        const int descriptor = ::accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (descriptor < 0)
            return;
        Connection connection;
        connection.descriptor = descriptor;
        connection.port = port;
        m_connections.push_back(std::move(connection));
    }
}

bool SimulatedInstrument::takeInput(Connection &connection)
{
    char chunk[4096];
    for (;;) {
        const ssize_t count = ::read(connection.descriptor, chunk, sizeof(chunk));
        if (count > 0) {
            connection.input.append(chunk, int(count));
            continue;
        }
        if (count < 0 && errno == EINTR)
            continue;
        return count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
    }
}

void SimulatedInstrument::serveFrontEnd(Connection &connection)
{
    for (int end = connection.input.indexOf('\n'); end >= 0; end = connection.input.indexOf('\n')) {
        const QByteArray line = connection.input.left(end);
        connection.input.remove(0, end + 1);
        {
            const std::lock_guard<std::mutex> lock(m_linesMutex);
            m_frontEndLines.append({line, m_clock.elapsed()});
        }
        connection.output += answer(line) + '\n';
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
    if (line == "GPS?")
        return QByteArrayLiteral("48.137154,11.576124,519.0,9,2024-03-18T10:15:30Z");

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

void SimulatedInstrument::serveAdc(Connection &connection)
{
    for (int end = connection.input.indexOf('\n'); end >= 0; end = connection.input.indexOf('\n')) {
        const QByteArray line = connection.input.left(end);
        connection.input.remove(0, end + 1);
        bool ok = false;
        if (line.startsWith("START ")) {
            const qint64 rate = line.mid(6).toLongLong(&ok);
            if (ok && rate >= minimumRate && rate <= maximumRate) {
                connection.streaming = true;
                connection.rate = rate;
                connection.streamStartNs = m_clock.nsecsElapsed();
                connection.generated = 0;
            }
        } else if (line == "STOP") {
            connection.streaming = false;
        }
    }
}

void SimulatedInstrument::stream(Connection &connection)
{
    if (!connection.streaming)
        return;
    // In microseconds, the product stays far within 64 bits for any run of the demo.
    const qint64 elapsedUs = (m_clock.nsecsElapsed() - connection.streamStartNs) / 1000;
    const quint64 due = quint64(elapsedUs * connection.rate / 1000000);
    if (due <= connection.generated)
        return;
    const quint64 count = due - connection.generated;
    if (connection.output.size() > outputLimitBytes) {
        connection.generated = due;
        m_samplesDropped += count;
        return;
    }
    const int start = connection.output.size();
    connection.output.resize(start + int(count) * 2);
    char *bytes = connection.output.data() + start;
    for (quint64 i = 0; i < count; ++i) {
        const quint16 value = quint16(sample(connection.generated + i));
        bytes[2 * i] = char(value & 0xff); // little endian, as the ADC's DMA writes them
        bytes[2 * i + 1] = char(value >> 8);
    }
    connection.generated = due;
    m_samplesSent += count;
}

bool SimulatedInstrument::flush(Connection &connection)
{
    while (!connection.output.isEmpty()) {
        const ssize_t count
            = ::write(connection.descriptor, connection.output.constData(), size_t(connection.output.size()));
        if (count > 0) {
            connection.output.remove(0, int(count));
            continue;
        }
        if (count < 0 && errno == EINTR)
            continue;
        return count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
    }
    return true;
}

void SimulatedInstrument::wake()
{
    if (m_wake >= 0)
        ::eventfd_write(m_wake, 1);
}
