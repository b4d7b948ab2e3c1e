#include "krdeviceabstraction.h"

#include "krabstractdeviceproxy.h"
#include "krstatusreport_p.h"

#include <QThread>

#include <atomic>

namespace Pal {

namespace {
constexpr quint32 defaultTimeoutMs = 4000;
} // namespace

KrDeviceAbstraction::KrDeviceAbstraction(
    const QByteArray &id, KrAbstractDeviceProxy *deviceProxy, CommandFormatters &formatters, QObject *parent)
    : QObject(parent)
    , m_deviceProxy(deviceProxy)
    , m_id(id)
    , m_formatters(formatters)
    , m_commandThread(new QThread)
    , m_timeoutMs(defaultTimeoutMs)
{
    adoptProxy();
}

KrDeviceAbstraction::KrDeviceAbstraction(const QByteArray &id, KrAbstractDeviceProxy *deviceProxy, QObject *parent)
    : QObject(parent)
    , m_deviceProxy(deviceProxy)
    , m_id(id)
    , m_timeoutMs(defaultTimeoutMs)
{
    adoptProxy();
}

KrDeviceAbstraction::~KrDeviceAbstraction()
{
    // A job left running by a timed-out command still uses the proxy, a child of ours.
    if (m_commandThread)
        waitForCommandThread();
    m_commandThread.reset();
}

void KrDeviceAbstraction::adoptProxy()
{
    if (m_id.isEmpty() || !m_deviceProxy)
        return;
    connect(
        m_deviceProxy, &KrAbstractDeviceProxy::readyRead, m_deviceProxy, [this] { Q_EMIT rawDataReady(*this); },
        Qt::DirectConnection);
    connect(m_deviceProxy, &KrAbstractDeviceProxy::dataReady, this, &KrDeviceAbstraction::dataReady);
    m_deviceProxy->setParent(this);
}

qint64 KrDeviceAbstraction::write(quint16 commandId, QVariant value, quint32 timeoutMs)
{
    const auto formatter = m_formatters.constFind(commandId);
    if (!m_deviceProxy || formatter == m_formatters.constEnd() || !m_commandThread) {
        commandBlacklisted(commandId);
        return 7;
    }
    // The bytes travel with the job: a job that outlives its time-out still owns them.
    const QByteArray bytes = (*formatter)(commandId, value);
    KrAbstractDeviceProxy *proxy = m_deviceProxy;
    return doCommand([proxy, bytes] { return proxy->write(bytes.constData(), qint64(bytes.size())); }, timeoutMs);
}

qint64 KrDeviceAbstraction::write(quint16 commandId, QVariant value)
{
    return write(commandId, std::move(value), timeoutInMs());
}

qint64 KrDeviceAbstraction::read(char *data, qint64 maxSize)
{
    if (!m_deviceProxy)
        return -1;
    return m_deviceProxy->read(data, maxSize);
}

qint64 KrDeviceAbstraction::ioctl(quint16 commandId, char *buffer, quint32 size, quint32 timeoutMs)
{
    const auto formatter = m_formatters.constFind(commandId);
    if (!m_deviceProxy || formatter == m_formatters.constEnd()) {
        commandBlacklisted(commandId);
        return -1;
    }
    QByteArray request = (*formatter)(commandId, QVariant());
    return m_deviceProxy->ioctl(request.data(), request.size(), buffer, size, timeoutMs);
}

void KrDeviceAbstraction::collectData() { }

bool KrDeviceAbstraction::commandBlacklisted(quint16 commandId)
{
    Q_UNUSED(commandId)
    return false;
}

void KrDeviceAbstraction::setTimeoutInMs(quint32 timeoutMs)
{
    m_timeoutMs = timeoutMs;
}

quint32 KrDeviceAbstraction::timeoutInMs() const
{
    return m_timeoutMs;
}

const QByteArray &KrDeviceAbstraction::id() const
{
    return m_id;
}

qint64 KrDeviceAbstraction::doCommand(std::function<qint64()> job, quint32 timeoutMs)
{
    if (!job)
        throw std::bad_function_call();
    if (!m_commandThread)
        return -1;

    // The result slot is shared with the closure: after a time-out the job still writes it
    // while this call has long returned.
    const auto result = std::make_shared<std::atomic<qint64>>(-1);
    prepareThread();
    connect(
        m_commandThread.get(), &QThread::started, m_commandThread.get(),
        [this, job, result] {
            qint64 value = -1;
            doWork(job, &value);
            result->store(value, std::memory_order_relaxed);
            m_jobsFinished.fetch_add(1, std::memory_order_release);
        },
        Qt::DirectConnection);
    m_commandThread->start(QThread::InheritPriority);

    if (m_commandThread->wait(timeoutMs)) {
        m_jobsFinished.load(std::memory_order_acquire);
        return result->load(std::memory_order_relaxed);
    }

    Internal::reportStatus(70, __FILE__, 168,
        "qint64 Pal::KrDeviceAbstraction::doCommand(std::function<long long int()>, quint32)",
        {QStringLiteral(" sending a hardware command")});
    return -1;
}

void KrDeviceAbstraction::doWork(std::function<qint64()> job, qint64 *result)
{
    if (!job)
        throw std::bad_function_call();
    *result = job();
    // Ends the event loop that QThread::run() enters once this started handler returns.
    QThread::currentThread()->exit(0);
}

void KrDeviceAbstraction::prepareThread()
{
    // Wait first, then disconnect: a command that returned before its thread ran the started
    // closure would otherwise lose that closure, and the thread would sit in its event loop
    // with nobody to end it, blocking every later command.
    if (!m_commandThread)
        return;
    waitForCommandThread();
    disconnect(m_commandThread.get(), nullptr, nullptr, nullptr);
}

void KrDeviceAbstraction::waitForCommandThread()
{
    m_commandThread->wait();
    // QThread::wait() already orders everything the job did before our return, but inside Qt,
    // where race checkers cannot see it; this acquire pairs with the job's release and makes
    // the order visible to them. It costs one load.
    m_jobsFinished.load(std::memory_order_acquire);
}

} // namespace Pal
