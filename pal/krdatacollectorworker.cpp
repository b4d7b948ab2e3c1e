#include "krdatacollectorworker.h"

#include "krabstractdeviceproxy.h"
#include "krstatusreport_p.h"

#include <QByteArray>
#include <QThread>
#include <QtGlobal>

namespace Pal {

namespace {
// A parked worker makes one pass this often even without start().
constexpr int wakeIntervalMs = 60000;
// After an empty read; bounds an idle device to about two thousand polls a second.
constexpr unsigned long emptyReadPauseUs = 500;
} // namespace

KrDataCollectorWorker::KrDataCollectorWorker(
    KrAbstractDeviceProxy *deviceProxy, quint32 dataBufferSize, QObject *parent)
    : QObject(parent)
    , m_deviceProxy(deviceProxy)
    , m_wakeSemaphore(0)
    , m_abort(false)
    , m_stopRequest(true)
    , m_idle(true)
    , m_dataBufferSize(dataBufferSize)
{
    if (!m_deviceProxy)
        qCritical("Pal::KrDataCollectorWorker: no device proxy given; this data collector will never poll");
}

KrDataCollectorWorker::~KrDataCollectorWorker()
{
    // The owner deletes the worker only after run() has returned. Reading the flag that run()
    // sets last shows that order in the library's own code too, and not only inside
    // QThread::wait(), where race checkers cannot see it.
    static_cast<void>(m_idle.load(std::memory_order_acquire));
}

void KrDataCollectorWorker::start()
{
    m_stopRequest.store(false);
    m_wakeSemaphore.release();
}

void KrDataCollectorWorker::stop()
{
    // Sequentially consistent on both sides: either this loop sees the worker idle, or the
    // worker sees the request at the start of its next pass. So at most the pass that is
    // already under way, woken before the request, can still run once this returns.
    m_stopRequest.store(true);
    while (!m_idle.load()) { }
}

void KrDataCollectorWorker::abort()
{
    m_abort.store(true, std::memory_order_release);
    m_wakeSemaphore.release();
}

void KrDataCollectorWorker::setDataBufferSize(uint size)
{
    // Nothing else travels with the size: each pass reads it once for its own buffer.
    m_dataBufferSize.store(size, std::memory_order_relaxed);
}

uint KrDataCollectorWorker::dataBufferSize() const
{
    return m_dataBufferSize.load(std::memory_order_relaxed);
}

void KrDataCollectorWorker::run()
{
    if (!m_deviceProxy) {
        // Nothing to poll. Stay parked, with the idle flag set, so stop() returns at once.
        while (!m_abort.load(std::memory_order_acquire))
            m_wakeSemaphore.acquire();
        finish();
        return;
    }

    while (!m_abort.load(std::memory_order_acquire)) {
        if (m_stopRequest.load()) {
            m_idle.store(true);
            // A time-out is no error: the pass goes on, and the still-set request parks
            // the worker again right after it.
            m_wakeSemaphore.tryAcquire(1, wakeIntervalMs);
            m_idle.store(false);
            if (m_abort.load(std::memory_order_acquire))
                break;
        }

        // A fresh buffer per pass: receivers may keep what was emitted.
        QByteArray buffer(int(m_dataBufferSize.load(std::memory_order_relaxed)), '\0');
        const qint32 count = qint32(m_deviceProxy->read(buffer.data(), qint64(buffer.size())));
        if (count == -1) {
            Internal::reportStatus(
                44, __FILE__, 98, "void Pal::KrDataCollectorWorker::run()", {QStringLiteral("the device proxy")});
        } else if (count == 0) {
            QThread::usleep(emptyReadPauseUs);
        } else {
            Q_EMIT gotData(buffer);
        }
    }
    finish();
}

void KrDataCollectorWorker::finish()
{
    // An ended worker is idle for good: a late stop() returns at once.
    m_idle.store(true);
    // QThread::run() enters its event loop once this started handler returns; quitting
    // first makes that loop end at once, so the thread finishes with run().
    QThread::currentThread()->quit();
}

} // namespace Pal
