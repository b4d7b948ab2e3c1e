#include "frontendproxy.h"

#include <chrono>
#include <cstring>

// Holds the front end's line for one exchange, if it becomes free within the wait.
class FrontEndProxy::Exchange
{
public:
    Exchange(FrontEndProxy &proxy, std::chrono::milliseconds wait)
        : m_proxy(proxy)
    {
        std::unique_lock<std::mutex> lock(m_proxy.m_lineMutex);
        m_taken = m_proxy.m_lineFree.wait_for(lock, wait, [this] { return !m_proxy.m_lineTaken; });
        if (m_taken)
            m_proxy.m_lineTaken = true;
    }
    ~Exchange()
    {
        if (!m_taken)
            return;
        {
            const std::lock_guard<std::mutex> lock(m_proxy.m_lineMutex);
            m_proxy.m_lineTaken = false;
        }
        m_proxy.m_lineFree.notify_one();
    }
    Exchange(const Exchange &) = delete;
    Exchange &operator=(const Exchange &) = delete;

    bool taken() const { return m_taken; }

private:
    FrontEndProxy &m_proxy;
    bool m_taken = false;
};

FrontEndProxy::FrontEndProxy(QObject *parent)
    : PortProxy(QByteArrayLiteral("frontend"), parent)
{
}

FrontEndProxy::~FrontEndProxy() = default;

qint64 FrontEndProxy::write(const char *data, qint64 size)
{
    const QDeadlineTimer deadline(commandLimitMs, Qt::PreciseTimer);
    const Exchange line(*this, std::chrono::milliseconds(commandLimitMs));
    if (!line.taken())
        return -1;
    QByteArray answer;
    if (exchange(data, size, deadline, &answer) != Io::Done)
        return -1;
    if (answer == "OK")
        return size;
    return answer.startsWith("ERR") ? -2 : -1;
}

qint64 FrontEndProxy::read(char *data, qint64 maxSize)
{
    Q_UNUSED(data)
    Q_UNUSED(maxSize)
    return 0;
}

qint64 FrontEndProxy::ioctl(char *request, int requestSize, char *reply, quint32 replySize, quint32 timeoutMs)
{
    const QDeadlineTimer deadline(qint64(timeoutMs), Qt::PreciseTimer);
    const Exchange line(*this, std::chrono::milliseconds(timeoutMs));
    if (!line.taken())
        return -1;
    QByteArray answer;
    if (exchange(request, requestSize, deadline, &answer) != Io::Done)
        return -1;
    if (answer.startsWith("ERR"))
        return -2;
    if (quint32(answer.size()) > replySize)
        return -1;
    std::memcpy(reply, answer.constData(), size_t(answer.size()));
    if (quint32(answer.size()) < replySize)
        reply[answer.size()] = '\0';
    return answer.size();
}

PortProxy::Io FrontEndProxy::exchange(const char *data, qint64 size, QDeadlineTimer deadline, QByteArray *answer)
{
    const Io sent = writeAll(data, size, deadline);
    if (sent != Io::Done)
        return sent;
    const Io answered = readLine(answer, deadline);
    if (answered == Io::TimedOut)
        ++m_unanswered;
    return answered;
}

PortProxy::Io FrontEndProxy::readLine(QByteArray *line, QDeadlineTimer deadline)
{
    char chunk[256];
    for (;;) {
        const int end = m_input.indexOf('\n');
        if (end >= 0) {
            *line = m_input.left(end);
            m_input.remove(0, end + 1);
            if (m_unanswered == 0)
                return Io::Done;
            --m_unanswered;
            continue;
        }
        const qint64 count = readAvailable(chunk, sizeof(chunk));
        if (count < 0)
            return Io::Failed;
        if (count > 0) {
            m_input.append(chunk, int(count));
            continue;
        }
        const Io input = waitForInput(deadline);
        if (input != Io::Done)
            return input;
    }
}
