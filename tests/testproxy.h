#pragma once

#include <pal/krabstractdeviceproxy.h>

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QThread>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>

/// The scriptable device proxy of every test; each call recorded with its thread. Writes and ioctls
/// answer through the on* handlers; reads from the script or onRead, the first held until release() or
/// holdMs. As a receiver connected directly, it records the buffers that a collector emits.
class TestProxy : public Pal::KrAbstractDeviceProxy
{
    Q_OBJECT
public:
    Q_INVOKABLE explicit TestProxy(QObject *parent = nullptr)
        : Pal::KrAbstractDeviceProxy(parent)
    {
        ++s_constructed;
    }
    // A proxy destroyed under a running call would be a use after free in the library.
    ~TestProxy() override
    {
        Q_ASSERT(m_writesInProgress.load() == 0 && m_readsInProgress.load() == 0);
        ++s_destroyed;
    }

    qint64 write(const char *data, qint64 size) override
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
    qint64 read(char *data, qint64 maxSize) override
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
    qint64 ioctl(char *request, int requestSize, char *reply, quint32 replySize, quint32 timeoutMs) override
    {
        const QByteArray bytes(request, requestSize);
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_ioctls.append({bytes, QThread::currentThreadId(), reply, replySize, timeoutMs});
        }
        return onIoctl ? onIoctl(bytes) : requestSize;
    }

    struct Call
    {
        QByteArray bytes; // written, asked, or the whole buffer after a read
        Qt::HANDLE thread = nullptr;
        char *reply = nullptr;
        quint32 size = 0; // of the reply or the read buffer
        quint32 timeoutMs = 0;
        qint64 result = 0;
    };
    QList<Call> writes() const { return locked(m_writes); }
    QList<Call> ioctls() const { return locked(m_ioctls); }
    QList<Call> reads() const { return locked(m_reads); }
    QList<QByteArray> emitted() const { return locked(m_emitted); }
    QList<Qt::HANDLE> emittedOn() const { return locked(m_emittedOn); }
    int maxConcurrentWrites() const { return m_maxConcurrentWrites.load(); }
    bool readInProgress() const { return m_readsInProgress.load() > 0; }
    bool waitFor(int reads, int emitted = 0)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::seconds(5),
            [this, reads, emitted] { return m_reads.size() >= reads && m_emitted.size() >= emitted; });
    }
    void release()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_released = true;
        m_changed.notify_all();
    }

    void emitReadyRead() { Q_EMIT readyRead(); }
    void emitDataReady(const char *data, int size) { Q_EMIT dataReady(data, size); }

    using Answer = QPair<qint64, QByteArray>; // result, and the bytes put into the buffer
    QList<Answer> script; // read i answers script[i], every later read answers later
    Answer later{0, QByteArray()};
    int holdMs = 0;
    std::function<qint64(const QByteArray &)> onWrite; // default: returns size
    std::function<qint64(char *, qint64)> onRead;
    std::function<qint64(const QByteArray &)> onIoctl; // default: returns request size

    inline static std::atomic<int> s_constructed{0};
    inline static std::atomic<int> s_destroyed{0};

public Q_SLOTS:
    void record(const QByteArray &data)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_emitted.append(data);
        m_emittedOn.append(QThread::currentThreadId());
        m_changed.notify_all();
    }

private:
    // Detached under the lock: a shared copy released later would race with the appends of the
    // proxy's callers, as Qt 5 checks sharing with a relaxed load.
    template<typename T>
    QList<T> locked(const QList<T> &list) const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        QList<T> copy = list;
        copy.detach();
        return copy;
    }

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    QList<Call> m_writes;
    QList<Call> m_ioctls;
    QList<Call> m_reads;
    QList<QByteArray> m_emitted;
    QList<Qt::HANDLE> m_emittedOn;
    bool m_released = false;
    std::atomic<int> m_writesInProgress{0};
    std::atomic<int> m_readsInProgress{0};
    std::atomic<int> m_maxConcurrentWrites{0};
};
