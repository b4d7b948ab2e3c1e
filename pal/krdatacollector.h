#pragma once

#include <pal/krpal_export.h>

#include <QObject>

#include <memory>

class QThread;

namespace Pal {

class KrAbstractDeviceProxy;
class KrDataCollectorWorker;

/// Gathers a device's stream data: a worker polls the device proxy on the collector's own
/// thread, which lives as long as the collector, and every buffer that came back with data
/// is emitted as rawDataReady(). start() and stop() switch the polling on and off.
///
/// rawDataReady() is emitted on the collector thread; receivers on other threads connect
/// with queued connections, which pass the array on without copying its bytes. start(),
/// stop(), the buffer size and destruction belong to the thread that owns the collector.
///
/// The proxy is not owned and must outlive the collector. Its read() should return promptly
/// when no input is waiting: stop() and the destructor wait for a read in progress.
///
/// A null device proxy gives a collector that never polls and never emits; start() and
/// stop() still return true and hasStarted() follows them. A critical message is logged
/// when such a collector is built.
///
/// The destructor stops and aborts the worker and gives the thread 100 ms to finish. A
/// read or a receiver that takes longer cannot be interrupted, so the destructor logs a
/// warning and goes on waiting: the worker and the thread are never destroyed under it.
class KRPAL_EXPORT KrDataCollector : public QObject
{
    Q_OBJECT
public:
    /// Starts the collector thread at once, with the worker parked: a collector that is never
    /// started still makes one pass (one read of @p deviceProxy) a minute.
    KrDataCollector(KrAbstractDeviceProxy *deviceProxy, quint32 dataBufferSize, QObject *parent = nullptr);
    ~KrDataCollector() override;

    /// Always true. Does nothing when already started.
    bool start();
    /// Always true. Does nothing when not started; otherwise returns once the worker is
    /// parked, after the pass in progress. A start() that came before the worker first parked
    /// leaves a spare wake-up: up to two passes may then still emit after stop() returned.
    bool stop();
    /// Whether start() was called more recently than stop().
    bool hasStarted() const;

    /// Takes effect from the next pass.
    void setDataBufferSize(quint32 bytes);
    /// The size in bytes of every buffer read and emitted.
    quint32 dataBufferSize() const;

Q_SIGNALS:
    /// A whole buffer of dataBufferSize() bytes, zero beyond what the proxy read.
    void rawDataReady(const QByteArray &data);

private:
    QThread *m_collectorThread;
    std::unique_ptr<KrDataCollectorWorker> m_worker;
    bool m_started;
};

} // namespace Pal
