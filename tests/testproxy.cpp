#include "testproxy.h"

#include <QThread>

std::atomic<int> TestProxy::s_constructed{0};
std::atomic<int> TestProxy::s_destroyed{0};

TestProxy::TestProxy(QObject *parent)
    : Pal::KrAbstractDeviceProxy(parent)
{
    ++s_constructed;
}

TestProxy::~TestProxy()
{
    // A proxy destroyed under a running write would be a use after free in the library.
    Q_ASSERT(m_writesInProgress.load() == 0);
    ++s_destroyed;
}

qint64 TestProxy::write(const char *data, qint64 size)
{
    const QByteArray bytes(data, int(size));
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_writes.append({bytes, QThread::currentThreadId()});
        m_maxConcurrentWrites.store(qMax(m_maxConcurrentWrites.load(), ++m_writesInProgress));
    }
    const qint64 result = onWrite ? onWrite(bytes) : size;
    ++m_writeCount;
    --m_writesInProgress;
    return result;
}

qint64 TestProxy::read(char *data, qint64 maxSize)
{
    return onRead ? onRead(data, maxSize) : 0;
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

QList<TestProxy::Call> TestProxy::writes() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_writes;
}

QList<TestProxy::Call> TestProxy::ioctls() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_ioctls;
}
