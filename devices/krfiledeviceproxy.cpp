#include "krfiledeviceproxy.h"

#include "krdeviceslogging_p.h"

#include <QFile>
#include <QSocketNotifier>

#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

namespace Pal {

namespace {

// A call that would have waited fails with EAGAIN, which Linux also names EWOULDBLOCK.
static_assert(EAGAIN == EWOULDBLOCK, "EWOULDBLOCK is EAGAIN");

// What stale input an exchange discards at most, so a node that streams without pause
// cannot keep it discarding for ever.
constexpr qint64 staleInputLimit = 1024 * 1024;

// The errors by which a node tells that it has gone or broken down; others fail one
// operation only.
bool isLoss(int error)
{
    return error == EIO || error == ENXIO || error == ENODEV || error == EPIPE;
}

bool hungUp(int descriptor)
{
    pollfd entry{descriptor, POLLIN, 0};
    int ready;
    do
        ready = ::poll(&entry, 1, 0);
    while (ready < 0 && errno == EINTR);
    // A hung-up tty also reports input, which reads as the end.
    return ready > 0 && (entry.revents & (POLLHUP | POLLERR | POLLNVAL));
}

// A write to a pipe whose reader has gone raises SIGPIPE, which would end the application.
// While a pipe is written, the signal is blocked on this thread only, and one that the write
// raised is taken off again before it is unblocked; one that was pending before is left.
class SigPipeBlocker
{
public:
    explicit SigPipeBlocker(bool active)
        : m_active(active)
    {
        if (!m_active)
            return;
        sigemptyset(&m_pipe);
        sigaddset(&m_pipe, SIGPIPE);
        sigset_t pending;
        sigpending(&pending);
        m_wasPending = sigismember(&pending, SIGPIPE) == 1;
        pthread_sigmask(SIG_BLOCK, &m_pipe, &m_previous);
    }
    ~SigPipeBlocker()
    {
        if (!m_active)
            return;
        if (m_raised && !m_wasPending) {
            const timespec now{0, 0};
            while (sigtimedwait(&m_pipe, nullptr, &now) < 0 && errno == EINTR) { }
        }
        pthread_sigmask(SIG_SETMASK, &m_previous, nullptr);
    }
    SigPipeBlocker(const SigPipeBlocker &) = delete;
    SigPipeBlocker &operator=(const SigPipeBlocker &) = delete;

    void raised() { m_raised = true; }

private:
    const bool m_active;
    bool m_wasPending = false;
    bool m_raised = false;
    sigset_t m_pipe;
    sigset_t m_previous;
};

int pollTimeout(QDeadlineTimer deadline)
{
    const qint64 remaining = deadline.remainingTime();
    return remaining < 0 ? -1 : int(qMin<qint64>(remaining, INT_MAX));
}

} // namespace

KrFileDeviceProxy::Line::Line(KrFileDeviceProxy &proxy, Use use, QDeadlineTimer deadline)
    : m_proxy(proxy)
    , m_use(use)
{
    std::unique_lock<std::mutex> lock(m_proxy.m_mutex);
    const auto lineFree = [this] { return !m_proxy.m_lineTaken; };
    if (deadline.isForever()) {
        m_proxy.m_lineFree.wait(lock, lineFree);
        m_held = true;
    } else {
        m_held = m_proxy.m_lineFree.wait_for(lock, std::chrono::milliseconds(deadline.remainingTime()), lineFree);
    }
    if (!m_held) {
        m_proxy.m_error
            = QStringLiteral("%1 stayed busy with another operation until the deadline").arg(m_proxy.m_path);
        return;
    }
    m_proxy.m_lineTaken = true;
    if (m_use != Exchange)
        return;
    m_proxy.m_exchanging = true;
    m_proxy.m_input.clear();
    const int descriptor = m_proxy.acquireLocked(lock);
    lock.unlock();
    if (descriptor >= 0) {
        m_proxy.drainStaleInput(descriptor);
        m_proxy.release(descriptor);
    }
}

KrFileDeviceProxy::Line::~Line()
{
    if (!m_held)
        return;
    {
        const std::lock_guard<std::mutex> lock(m_proxy.m_mutex);
        m_proxy.m_lineTaken = false;
        m_proxy.m_exchanging = false;
    }
    m_proxy.m_lineFree.notify_one();
    if (m_use == Exchange)
        m_proxy.inputTaken();
}

KrFileDeviceProxy::KrFileDeviceProxy(const QString &path, QObject *parent)
    : KrFileDeviceProxy(path, true, parent)
{
}

KrFileDeviceProxy::KrFileDeviceProxy(const QString &path, bool openNow, QObject *parent)
    : KrAbstractDeviceProxy(parent)
    , m_path(path)
{
    if (openNow)
        open();
}

KrFileDeviceProxy::~KrFileDeviceProxy()
{
    delete m_notifier;
    if (m_watchedDescriptor >= 0)
        ::close(m_watchedDescriptor);
    if (m_descriptor >= 0)
        ::close(m_descriptor);
}

QString KrFileDeviceProxy::path() const
{
    return m_path;
}

bool KrFileDeviceProxy::isOpen() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_descriptor >= 0 && !m_failed;
}

QString KrFileDeviceProxy::errorString() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_error;
}

void KrFileDeviceProxy::setWriteTimeoutMs(int timeoutMs)
{
    m_writeTimeoutMs.store(timeoutMs);
}

int KrFileDeviceProxy::writeTimeoutMs() const
{
    return m_writeTimeoutMs.load();
}

void KrFileDeviceProxy::setReplyTerminator(const QByteArray &terminator)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_terminator = terminator;
}

QByteArray KrFileDeviceProxy::replyTerminator() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_terminator;
}

void KrFileDeviceProxy::setReopenIntervalMs(int intervalMs)
{
    m_reopenIntervalMs.store(intervalMs);
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_nextOpen = qMin(m_nextOpen, QDeadlineTimer(intervalMs));
}

int KrFileDeviceProxy::reopenIntervalMs() const
{
    return m_reopenIntervalMs.load();
}

qint64 KrFileDeviceProxy::write(const char *data, qint64 size)
{
    const QDeadlineTimer deadline(m_writeTimeoutMs.load(), Qt::PreciseTimer);
    const Line line(*this, Line::Write, deadline);
    if (!line.isHeld())
        return -1;
    return writeAll(data, size, deadline) == Io::Done ? size : -1;
}

qint64 KrFileDeviceProxy::read(char *data, qint64 maxSize)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_exchanging)
        return 0;
    const int descriptor = acquireLocked(lock);
    if (descriptor < 0)
        return -1;
    qint64 result = 0;
    if (!m_readable) {
        m_error = QStringLiteral("%1 is open for writing only").arg(m_path);
        result = -1;
    } else if (maxSize > 0 && !m_input.isEmpty()) {
        result = qMin<qint64>(maxSize, m_input.size());
        std::memcpy(data, m_input.constData(), size_t(result));
        m_input.remove(0, int(result));
    } else if (maxSize > 0) {
        // Under the mutex, so that an exchange that starts meanwhile cannot lose its reply to
        // this read; the read never waits.
        for (;;) {
            const ssize_t count = ::read(descriptor, data, size_t(maxSize));
            if (count > 0) {
                result = count;
            } else if (count == 0) {
                // The end of a pipe's input, or a hung-up tty, which reads like an idle one.
                if (hungUp(descriptor)) {
                    failLocked(descriptor, QStringLiteral("%1 has hung up").arg(m_path), true);
                    result = -1;
                }
            } else if (errno == EINTR) {
                continue;
            } else if (errno != EAGAIN) {
                const int error = errno;
                failLocked(descriptor, QStringLiteral("cannot read from %1: %2").arg(m_path, qt_error_string(error)),
                    isLoss(error));
                result = -1;
            }
            break;
        }
    }
    releaseLocked(descriptor);
    lock.unlock();
    if (result >= 0)
        inputTaken();
    return result;
}

qint64 KrFileDeviceProxy::ioctl(char *request, int requestSize, char *reply, quint32 replySize, quint32 timeoutMs)
{
    const QDeadlineTimer deadline(qint64(timeoutMs), Qt::PreciseTimer);
    QByteArray answer;
    if (exchange(request, qMax(0, requestSize), &answer, qint64(replySize), replyTerminator(), deadline) != Io::Done)
        return -1;
    if (!answer.isEmpty())
        std::memcpy(reply, answer.constData(), size_t(answer.size()));
    return answer.size();
}

KrFileDeviceProxy::Io KrFileDeviceProxy::writeAll(const char *data, qint64 size, QDeadlineTimer deadline)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    const int descriptor = acquireLocked(lock);
    const bool pipe = m_isPipe;
    lock.unlock();
    if (descriptor < 0)
        return Io::Failed;
    Io result = Io::Done;
    {
        SigPipeBlocker sigPipe(pipe);
        while (size > 0) {
            const ssize_t written = ::write(descriptor, data, size_t(size));
            if (written > 0) {
                data += written;
                size -= written;
                continue;
            }
            if (written < 0 && errno == EINTR)
                continue;
            if (written < 0 && errno == EAGAIN) {
                result = waitFor(descriptor, POLLOUT, deadline, "write to");
                if (result != Io::Done)
                    break;
                continue;
            }
            const int error = written < 0 ? errno : EIO;
            if (error == EPIPE)
                sigPipe.raised();
            failed(descriptor, error, "write to");
            result = Io::Failed;
            break;
        }
    }
    release(descriptor);
    return result;
}

KrFileDeviceProxy::Io KrFileDeviceProxy::readReply(
    QByteArray *reply, qint64 maxSize, const QByteArray &terminator, QDeadlineTimer deadline)
{
    reply->clear();
    std::unique_lock<std::mutex> lock(m_mutex);
    Q_ASSERT(m_exchanging); // GCOVR_EXCL_BR_LINE: an assertion, only a fault fails it
    const int descriptor = acquireLocked(lock);
    lock.unlock();
    if (descriptor < 0)
        return Io::Failed;
    Io result = Io::Done;
    char chunk[4096];
    int searchFrom = 0;
    for (;;) {
        if (!terminator.isEmpty()) {
            const int end = m_input.indexOf(terminator, searchFrom);
            if (end >= 0 && end + terminator.size() <= maxSize) {
                *reply = m_input.left(end + terminator.size());
                m_input.remove(0, reply->size());
                break;
            }
            searchFrom = qMax(0, m_input.size() - terminator.size() + 1);
        }
        if (m_input.size() >= maxSize) {
            *reply = m_input.left(int(maxSize));
            m_input.remove(0, int(maxSize));
            break;
        }
        // Waits first: just after a request its reply is not there yet.
        result = waitFor(descriptor, POLLIN, deadline, "a reply from");
        if (result != Io::Done)
            break;
        const ssize_t count = ::read(descriptor, chunk, sizeof chunk);
        if (count > 0) {
            m_input.append(chunk, int(count));
            continue;
        }
        if (count < 0 && (errno == EINTR || errno == EAGAIN))
            continue;
        if (count == 0 && !hungUp(descriptor)) {
            // A raw tty reads 0 when idle (VMIN and VTIME 0); any other node has ended.
            if (m_isTty)
                continue;
            setError(QStringLiteral("%1 ended before a whole reply").arg(m_path));
        } else {
            failed(descriptor, count < 0 ? errno : EIO, "read a reply from");
        }
        result = Io::Failed;
        break;
    }
    release(descriptor);
    return result;
}

KrFileDeviceProxy::Io KrFileDeviceProxy::exchange(const char *request, qint64 requestSize, QByteArray *reply,
    qint64 maxSize, const QByteArray &terminator, QDeadlineTimer deadline)
{
    const Line line(*this, Line::Exchange, deadline);
    if (!line.isHeld())
        return Io::TimedOut;
    const Io sent = writeAll(request, requestSize, deadline);
    if (sent != Io::Done)
        return sent;
    return readReply(reply, maxSize, terminator, deadline);
}

qint64 KrFileDeviceProxy::bytesAvailable()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    const int descriptor = acquireLocked(lock);
    if (descriptor < 0)
        return -1;
    int waiting = 0;
    qint64 result = m_exchanging ? 0 : m_input.size();
    if (::ioctl(descriptor, FIONREAD, &waiting) < 0) {
        const int error = errno;
        failLocked(descriptor, QStringLiteral("cannot ask %1 for its input: %2").arg(m_path, qt_error_string(error)),
            isLoss(error));
        result = -1;
    } else if (waiting == 0 && hungUp(descriptor)) {
        failLocked(descriptor, QStringLiteral("%1 has hung up").arg(m_path), true);
        result = -1;
    } else if (!m_exchanging) {
        result += waiting;
    }
    releaseLocked(descriptor);
    return result;
}

bool KrFileDeviceProxy::open()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_descriptor >= 0 && m_failed)
        return false; // closed with its last use, and opened again by a later operation
    if (m_descriptor < 0)
        return openLocked();
    QString error;
    if (prepareNode(m_descriptor, &error))
        return true;
    failLocked(m_descriptor, error, true);
    if (m_uses == 0)
        closeLocked();
    return false;
}

bool KrFileDeviceProxy::prepareNode(int descriptor, QString *error)
{
    Q_UNUSED(descriptor)
    Q_UNUSED(error)
    return true;
}

void KrFileDeviceProxy::watchInput()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    const bool current = m_descriptor >= 0 && !m_failed && m_readable;
    if (m_notifier && current && m_watchedGeneration == m_generation)
        return;
    delete m_notifier;
    m_notifier = nullptr;
    if (m_watchedDescriptor >= 0)
        ::close(m_watchedDescriptor);
    m_watchedDescriptor = current ? ::fcntl(m_descriptor, F_DUPFD_CLOEXEC, 0) : -1;
    m_watchedGeneration = m_generation;
    lock.unlock();
    if (m_watchedDescriptor < 0)
        return;
    m_watchPaused.store(false);
    m_notifier = new QSocketNotifier(m_watchedDescriptor, QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, [this] {
        // Announced once; watched again when a read or an exchange has taken input, so that
        // input nobody reads does not keep the thread busy.
        m_notifier->setEnabled(false);
        m_watchPaused.store(true);
        if (!hungUp(m_watchedDescriptor))
            Q_EMIT readyRead();
    });
}

void KrFileDeviceProxy::rearmWatch()
{
    if (m_notifier)
        m_notifier->setEnabled(true);
}

int KrFileDeviceProxy::acquireLocked(std::unique_lock<std::mutex> &lock)
{
    Q_ASSERT(lock.owns_lock()); // GCOVR_EXCL_BR_LINE: an assertion, only a fault fails it
    if (m_descriptor < 0 && (!m_nextOpen.hasExpired() || !openLocked()))
        return -1;
    if (m_failed)
        return -1;
    ++m_uses;
    return m_descriptor;
}

void KrFileDeviceProxy::releaseLocked(int descriptor)
{
    Q_ASSERT(descriptor == m_descriptor && m_uses > 0); // GCOVR_EXCL_BR_LINE: an assertion, only a fault fails it
    Q_UNUSED(descriptor)
    if (--m_uses == 0 && m_failed)
        closeLocked();
}

void KrFileDeviceProxy::release(int descriptor)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    releaseLocked(descriptor);
}

bool KrFileDeviceProxy::openLocked()
{
    Q_ASSERT(m_descriptor < 0); // GCOVR_EXCL_BR_LINE: an assertion, only a fault fails it
    m_nextOpen = QDeadlineTimer(m_reopenIntervalMs.load());
    const QByteArray nativePath = QFile::encodeName(m_path);
    // A node whose permissions allow one direction only is opened for that direction (root
    // could open it both ways, and a FIFO opened both ways would read its own writes).
    int mode = O_RDWR;
    struct stat status;
    if (::stat(nativePath.constData(), &status) == 0) {
        const mode_t permissions = status.st_mode & 0777;
        if (!(permissions & 0444) && (permissions & 0222))
            mode = O_WRONLY;
        else if (!(permissions & 0222) && (permissions & 0444))
            mode = O_RDONLY;
    }
    int descriptor = -1;
    for (const int tried : {mode, O_RDONLY, O_WRONLY}) {
        do
            descriptor = ::open(nativePath.constData(), tried | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
        while (descriptor < 0 && errno == EINTR);
        mode = tried;
        if (descriptor >= 0 || errno != EACCES || tried != O_RDWR)
            break;
    }
    if (descriptor < 0) {
        const int error = errno;
        failLocked(-1,
            error == EBUSY ? QStringLiteral("cannot open %1: it is in use").arg(m_path)
                           : QStringLiteral("cannot open %1: %2").arg(m_path, qt_error_string(error)),
            false);
        return false;
    }
    QString refusal;
    if (!prepareNode(descriptor, &refusal)) {
        ::close(descriptor);
        failLocked(-1, refusal, false);
        return false;
    }
    ::fstat(descriptor, &status);
    m_descriptor = descriptor;
    m_failed = false;
    m_isPipe = S_ISFIFO(status.st_mode); // a socket cannot be opened by its path
    m_isTty = ::isatty(descriptor) == 1;
    m_readable = mode != O_WRONLY;
    m_input.clear();
    m_error.clear();
    ++m_generation;
    if (m_warned) {
        qCInfo(Internal::lcDevices).noquote() << QStringLiteral("%1 is back").arg(m_path);
        m_warned = false;
    }
    if (m_readable)
        QMetaObject::invokeMethod(this, "watchInput", Qt::QueuedConnection);
    return true;
}

void KrFileDeviceProxy::closeLocked()
{
    // Output a gone device will never take is dropped, so that closing a tty does not wait
    // for it to drain. Only what the driver still holds: a pseudo-terminal has handed every
    // byte written to its other end, and a flush there would take back bytes reported sent.
    int unsent = 0;
    if (::ioctl(m_descriptor, TIOCOUTQ, &unsent) == 0 && unsent > 0)
        ::tcflush(m_descriptor, TCOFLUSH);
    ::close(m_descriptor);
    m_descriptor = -1;
    ++m_generation;
    QMetaObject::invokeMethod(this, "watchInput", Qt::QueuedConnection);
}

void KrFileDeviceProxy::failLocked(int descriptor, const QString &why, bool lost)
{
    m_error = why;
    if (descriptor >= 0 && !lost)
        return;
    // One warning per loss: not per call, not per failed attempt to open again.
    if (!m_warned) {
        qCWarning(Internal::lcDevices).noquote() << why;
        m_warned = true;
    }
    if (descriptor >= 0 && descriptor == m_descriptor && !m_failed) {
        m_failed = true;
        m_nextOpen = QDeadlineTimer(m_reopenIntervalMs.load());
    }
}

void KrFileDeviceProxy::failed(int descriptor, int error, const char *operation)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    failLocked(descriptor,
        QStringLiteral("cannot %1 %2: %3").arg(QLatin1String(operation), m_path, qt_error_string(error)),
        isLoss(error));
}

void KrFileDeviceProxy::setError(const QString &why)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_error = why;
}

KrFileDeviceProxy::Io KrFileDeviceProxy::waitFor(
    int descriptor, short events, QDeadlineTimer deadline, const char *what)
{
    for (;;) {
        pollfd entry{descriptor, events, 0};
        const int ready = ::poll(&entry, 1, pollTimeout(deadline));
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready < 0) {
            failed(descriptor, errno, "wait for");
            return Io::Failed;
        }
        if (ready == 0) {
            setError(QStringLiteral("timed out waiting for %1 %2").arg(QLatin1String(what), m_path));
            return Io::TimedOut;
        }
        // Input that came before a pipe's hang-up is still read; the read then finds the end.
        // A hung-up tty has none, though it reports input.
        const bool broken = entry.revents & (POLLHUP | POLLERR | POLLNVAL);
        if ((entry.revents & events) && !(broken && (events == POLLOUT || m_isTty)))
            return Io::Done;
        const std::lock_guard<std::mutex> lock(m_mutex);
        failLocked(descriptor, QStringLiteral("%1 has hung up").arg(m_path), true);
        return Io::Failed;
    }
}

void KrFileDeviceProxy::drainStaleInput(int descriptor)
{
    char chunk[4096];
    for (qint64 drained = 0; drained < staleInputLimit;) {
        const ssize_t count = ::read(descriptor, chunk, sizeof chunk);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return;
        drained += count;
    }
}

void KrFileDeviceProxy::inputTaken()
{
    if (m_watchPaused.load(std::memory_order_relaxed) && m_watchPaused.exchange(false))
        QMetaObject::invokeMethod(this, "rearmWatch", Qt::QueuedConnection);
}

} // namespace Pal
