#include "krdatacollector.h"

#include "krdatacollectorworker.h"

#include <QThread>

namespace Pal {

namespace {
// What the destructor allows the collector thread before it says that it is still waiting.
constexpr unsigned long finishWaitMs = 100;
} // namespace

KrDataCollector::KrDataCollector(KrAbstractDeviceProxy *deviceProxy, quint32 dataBufferSize, QObject *parent)
    : QObject(parent)
    , m_collectorThread(nullptr)
    , m_worker(new KrDataCollectorWorker(deviceProxy, dataBufferSize, nullptr))
    , m_started(false)
{
    m_collectorThread = new QThread(this);
    m_worker->moveToThread(m_collectorThread);
    connect(m_collectorThread, &QThread::started, m_worker.get(), &KrDataCollectorWorker::run, Qt::DirectConnection);
    connect(
        m_worker.get(), &KrDataCollectorWorker::gotData, this, &KrDataCollector::rawDataReady, Qt::DirectConnection);
    m_collectorThread->start(QThread::InheritPriority);
}

KrDataCollector::~KrDataCollector()
{
    m_worker->stop();
    m_worker->abort();
    // Normally the worker ends at once; a spare permit or a slow read costs it one more pass.
    // That pass cannot be cut short, and run() must not lose its worker or thread under it.
    if (!m_collectorThread->wait(finishWaitMs)) {
        qWarning("Pal::KrDataCollector: the collector thread has not finished within %lu ms; waiting for the "
                 "device proxy's read to return",
            finishWaitMs);
        m_collectorThread->wait();
    }
    m_worker.reset();
}

bool KrDataCollector::start()
{
    if (m_started)
        return true;
    m_started = true;
    m_worker->start();
    return true;
}

bool KrDataCollector::stop()
{
    if (!m_started)
        return true;
    m_started = false;
    m_worker->stop();
    return true;
}

bool KrDataCollector::hasStarted() const
{
    return m_started;
}

void KrDataCollector::setDataBufferSize(quint32 bytes)
{
    m_worker->setDataBufferSize(bytes);
}

quint32 KrDataCollector::dataBufferSize() const
{
    return m_worker->dataBufferSize();
}

} // namespace Pal
