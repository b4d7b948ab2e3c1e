#include "testproxy.h"

#include <QThread>

#include <cstring>

qint64 TestProxy::write(const char *data, qint64 size)
{
    const QByteArray bytes(data, int(size));
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_writes.append({bytes, QThread::currentThreadId()});
        m_maxConcurrentWrites.store(qMax(m_maxConcurrentWrites.load(), ++m_writesInProgress));
    }
    const qint64 result = onWrite ? onWrite(bytes) : size;
    --m_writesInProgress;
    return result;
}

qint64 TestProxy::read(char *data, qint64 maxSize)
{
    ++m_readsInProgress;
    std::unique_lock<std::mutex> lock(m_mutex);
    const int index = m_reads.size();
    m_reads.append({QByteArray(), QThread::currentThreadId(), nullptr, quint32(maxSize)});
    m_changed.notify_all();
    if (index == 0)
        m_changed.wait_for(lock, std::chrono::milliseconds(holdMs), [this] { return m_released; });
    qint64 result = 0;
    if (onRead) {
        result = onRead(data, maxSize);
    } else {
        const Answer answer = script.value(index, later);
        std::memcpy(data, answer.second.constData(), size_t(qMin(qint64(answer.second.size()), maxSize)));
        result = answer.first;
    }
    m_reads[index].bytes = QByteArray(data, int(maxSize));
    m_reads[index].result = result;
    --m_readsInProgress;
    return result;
}

qint64 TestProxy::ioctl(char *request, int requestSize, char *reply, quint32 replySize, quint32 timeoutMs)
{
    const QByteArray bytes(request, requestSize);
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_ioctls.append({bytes, QThread::currentThreadId(), reply, replySize, timeoutMs});
    }
    return onIoctl ? onIoctl(bytes) : requestSize;
}

bool TestProxy::waitFor(int reads, int emitted)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::seconds(5),
        [this, reads, emitted] { return m_reads.size() >= reads && m_emitted.size() >= emitted; });
}

void TestProxy::release()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_released = true;
    m_changed.notify_all();
}

void TestProxy::record(const QByteArray &data)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_emitted.append(data);
    m_emittedOn.append(QThread::currentThreadId());
    m_changed.notify_all();
}
