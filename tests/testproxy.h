#pragma once

#include <pal/krabstractdeviceproxy.h>

#include <QByteArray>
#include <QList>

#include <atomic>
#include <functional>
#include <mutex>

/// A scriptable device proxy for tests. Every call is recorded with the thread it came on;
/// behaviour is set through the on* handlers, which run on the calling thread.
class TestProxy : public Pal::KrAbstractDeviceProxy
{
    Q_OBJECT
public:
    Q_INVOKABLE explicit TestProxy(QObject *parent = nullptr);
    ~TestProxy() override;

    qint64 write(const char *data, qint64 size) override;
    qint64 read(char *data, qint64 maxSize) override;
    qint64 ioctl(char *request, int requestSize, char *reply, quint32 replySize, quint32 timeoutMs) override;

    struct Call
    {
        QByteArray bytes;
        Qt::HANDLE thread = nullptr;
        char *reply = nullptr;
        quint32 replySize = 0;
        quint32 timeoutMs = 0;
    };
    QList<Call> writes() const;
    QList<Call> ioctls() const;
    int writeCount() const { return m_writeCount.load(); }
    int maxConcurrentWrites() const { return m_maxConcurrentWrites.load(); }
    bool writeInProgress() const { return m_writesInProgress.load() > 0; }

    void emitReadyRead() { Q_EMIT readyRead(); }
    void emitDataReady(const char *data, int size) { Q_EMIT dataReady(data, size); }

    std::function<qint64(const QByteArray &)> onWrite; // default: returns size
    std::function<qint64(char *, qint64)> onRead; // default: returns 0
    std::function<qint64(const QByteArray &)> onIoctl; // default: returns request size

    static std::atomic<int> s_constructed;
    static std::atomic<int> s_destroyed;

private:
    mutable std::mutex m_mutex;
    QList<Call> m_writes;
    QList<Call> m_ioctls;
    std::atomic<int> m_writeCount{0};
    std::atomic<int> m_writesInProgress{0};
    std::atomic<int> m_maxConcurrentWrites{0};
};
