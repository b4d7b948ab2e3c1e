#pragma once

#include <QByteArray>
#include <QDeadlineTimer>
#include <QString>
#include <QTemporaryDir>
#include <QTest>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

/// A pseudo-terminal whose master the test plays, as the device on a UART would; @p raw sets the
/// line raw, for proxies that leave it as they find it; else cooked, without echo.
struct PtyPair
{
    explicit PtyPair(bool raw = false)
        : master(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC))
    {
        char name[128];
        termios line;
        if (master < 0 || ::grantpt(master) < 0 || ::unlockpt(master) < 0 || ::ptsname_r(master, name, sizeof name))
            return;
        slavePath = QString::fromLocal8Bit(name);
        if (::tcgetattr(master, &line) == 0) {
            raw ? ::cfmakeraw(&line) : void(line.c_lflag &= ~tcflag_t(ECHO));
            ::tcsetattr(master, TCSANOW, &line);
        }
    }
    ~PtyPair() { closeMaster(); }
    Q_DISABLE_COPY(PtyPair)

    void closeMaster()
    {
        if (master >= 0)
            ::close(std::exchange(master, -1));
    }
    // Not inlined: GCC 12 would take an empty QByteArray's shared data for the region written.
    Q_NEVER_INLINE bool send(const QByteArray &bytes) const
    {
        return ::write(master, bytes.constData(), size_t(bytes.size())) == bytes.size();
    }
    /// Reads until @p count bytes or @p ending came, within @p timeoutMs; @p chunk bytes at a time.
    QByteArray receive(int count, const QByteArray &ending = {}, int timeoutMs = 5000, int chunk = 4096) const
    {
        QByteArray bytes;
        char buffer[4096];
        for (const QDeadlineTimer deadline(timeoutMs);
             bytes.size() < count && (ending.isEmpty() || !bytes.endsWith(ending));) {
            pollfd entry{master, POLLIN, 0};
            if (::poll(&entry, 1, int(qMax<qint64>(0, deadline.remainingTime()))) <= 0)
                break;
            const ssize_t got
                = ::read(master, buffer, size_t(qMin(chunk, ending.isEmpty() ? count - bytes.size() : 1)));
            if (got <= 0 && errno != EINTR && errno != EAGAIN)
                break;
            bytes.append(buffer, int(qMax<ssize_t>(0, got)));
        }
        return bytes;
    }

    int master = -1;
    QString slavePath;
};

template<typename Proxy>
QByteArray collect(Proxy &proxy, int count)
{
    QByteArray bytes;
    char buffer[4096];
    for (const QDeadlineTimer deadline(5000); bytes.size() < count && !deadline.hasExpired();) {
        const qint64 got = proxy.read(buffer, qMin<qint64>(sizeof buffer, count - bytes.size()));
        if (got < 0)
            break;
        bytes.append(buffer, int(got));
    }
    return bytes;
}

/// Every byte value four times over: CR, LF, ^C, ^S and ^Q among them.
inline QByteArray allByteValues()
{
    QByteArray bytes(1024, Qt::Uninitialized);
    for (int i = 0; i < bytes.size(); ++i)
        bytes[i] = char(i);
    return bytes;
}
