#pragma once

#include <pal/krpal_export.h>

#include <QObject>
#include <QSemaphore>

#include <atomic>

namespace Pal {

class KrAbstractDeviceProxy;

/// Polls a device proxy for stream data on the thread that calls run(), and emits every buffer
/// that came back with data as gotData(). A KrDataCollector owns one and runs it on a thread of
/// its own; applications normally use the collector.
///
/// The worker starts parked. start() wakes it to poll, stop() returns once it has parked
/// again, abort() makes run() return. While parked it still wakes once a minute for one pass.
/// start(), stop(), abort() and the buffer size are meant to be called on another thread
/// than run(), directly: run() processes no events, so queued calls would never arrive.
///
/// A null device proxy is never called: run() then only parks, waiting for abort(), and
/// nothing is ever read or emitted. The constructor logs a critical message for it.
class KRPAL_EXPORT KrDataCollectorWorker : public QObject
{
    Q_OBJECT
public:
    /// @p deviceProxy is not owned and must outlive the worker.
    KrDataCollectorWorker(KrAbstractDeviceProxy *deviceProxy, quint32 dataBufferSize, QObject *parent = nullptr);
    ~KrDataCollectorWorker() override;

Q_SIGNALS:
    /// A whole buffer of dataBufferSize() bytes; what the proxy did not fill is zero. Emitted
    /// on the polling thread. The worker never writes to an emitted array again.
    void gotData(const QByteArray &data);

public Q_SLOTS:
    /// Wakes the worker to poll until stop(); nothing when already polling.
    void start();
    /// Busy-waits until the worker is parked, which takes at most the pass in progress. A
    /// worker that has not parked since a start() before its first park still counts as idle:
    /// then stop() returns at once, and that pass and one more may still emit.
    void stop();
    /// The polling loop; returns, and quits the current thread, once abort() was called.
    void run();
    /// Makes run() return after the pass in progress; the worker cannot run again.
    void abort();
    /// Takes effect from the next pass.
    void setDataBufferSize(uint size);
    /// The size in bytes of every buffer read and emitted.
    uint dataBufferSize() const;

private:
    void finish();

    KrAbstractDeviceProxy *m_deviceProxy;
    QSemaphore m_wakeSemaphore;
    // The flags cross threads without a lock. The stop request and the idle flag form a
    // handshake in which each side writes one and then reads the other, so they need
    // sequential consistency; see stop() and run().
    std::atomic<bool> m_abort;
    std::atomic<bool> m_stopRequest;
    std::atomic<bool> m_idle;
    std::atomic<quint32> m_dataBufferSize;
};

} // namespace Pal
