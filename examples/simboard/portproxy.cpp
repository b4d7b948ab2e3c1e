#include "portproxy.h"

#include "boardwiring.h"

#include <QDebug>
#include <QFile>

#include <cerrno>
#include <climits>
#include <cstring>

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

// The simulated instrument's nodes are Unix sockets; on the instrument this is an open() of
// the UART's character device with the same flags.
int openNode(const QString &nodePath)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const QByteArray path = QFile::encodeName(nodePath);
    if (size_t(path.size()) >= sizeof(address.sun_path)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    std::memcpy(address.sun_path, path.constData(), size_t(path.size()));
    const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (descriptor < 0)
        return -1;
    if (::connect(descriptor, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) < 0) {
        const int error = errno;
        ::close(descriptor);
        errno = error;
        return -1;
    }
    return descriptor;
}

} // namespace

PortProxy::PortProxy(const QByteArray &port, QObject *parent)
    : Pal::KrAbstractDeviceProxy(parent)
{
    const QString nodePath = BoardWiring::nodePath(port);
    if (nodePath.isEmpty()) {
        qWarning().noquote() << QStringLiteral("port %1 is not wired to a device node").arg(QLatin1String(port));
        return;
    }
    m_descriptor = openNode(nodePath);
    if (m_descriptor < 0) {
        qWarning().noquote() << QStringLiteral("cannot open %1 for port %2: %3")
                                    .arg(nodePath, QLatin1String(port), QString::fromLocal8Bit(std::strerror(errno)));
    }
}

PortProxy::~PortProxy()
{
    if (m_descriptor >= 0)
        ::close(m_descriptor);
}

bool PortProxy::isOpen() const
{
    return m_descriptor >= 0;
}

PortProxy::Io PortProxy::writeAll(const char *data, qint64 size, QDeadlineTimer deadline)
{
    if (!isOpen())
        return Io::Failed;
    while (size > 0) {
        const ssize_t written = ::write(m_descriptor, data, size_t(size));
        if (written > 0) {
            data += written;
            size -= written;
        } else if (written < 0 && errno == EINTR) {
            continue;
        } else if (written < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            const Io room = waitFor(POLLOUT, deadline);
            if (room != Io::Done)
                return room;
        } else {
            return Io::Failed;
        }
    }
    return Io::Done;
}

qint64 PortProxy::readAvailable(char *data, qint64 maxSize)
{
    if (!isOpen())
        return -1;
    for (;;) {
        const ssize_t count = ::read(m_descriptor, data, size_t(maxSize));
        if (count > 0)
            return count;
        if (count == 0)
            return maxSize == 0 ? 0 : -1; // end of file: the far end has gone
        if (errno == EINTR)
            continue;
        return errno == EAGAIN || errno == EWOULDBLOCK ? 0 : -1;
    }
}

PortProxy::Io PortProxy::waitForInput(QDeadlineTimer deadline)
{
    return waitFor(POLLIN, deadline);
}

qint64 PortProxy::bytesAvailable() const
{
    int count = 0;
    if (!isOpen() || ::ioctl(m_descriptor, FIONREAD, &count) < 0)
        return -1;
    return count;
}

bool PortProxy::hungUp() const
{
    pollfd entry{m_descriptor, POLLIN, 0};
    return !isOpen() || (::poll(&entry, 1, 0) > 0 && (entry.revents & (POLLHUP | POLLERR | POLLNVAL)));
}

PortProxy::Io PortProxy::waitFor(short events, QDeadlineTimer deadline)
{
    for (;;) {
        pollfd entry{m_descriptor, events, 0};
        const qint64 remaining = deadline.remainingTime();
        const int ready = ::poll(&entry, 1, remaining < 0 ? -1 : int(qMin<qint64>(remaining, INT_MAX)));
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready < 0)
            return Io::Failed;
        if (ready == 0)
            return Io::TimedOut;
        // Input that arrived before a hang-up is still read; the read then sees the end.
        return (entry.revents & events) ? Io::Done : Io::Failed;
    }
}
