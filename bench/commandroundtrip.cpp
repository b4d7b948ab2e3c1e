// A hardware command end to end: format, run the proxy's write on the command thread, wait.
// Its floor is the thread restart that the design prescribes for every command; a direct
// call and a persistent worker show what the restart itself costs.

#include "benchsupport.h"

#include <pal/krdeviceabstraction.h>

#include <QThread>
#include <QVariant>

#include <benchmark/benchmark.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace Bench {

namespace {

// The cycle that doCommand() is built on, with nothing around it: the previous run's closure
// removed, the thread restarted with a closure that runs the job and ends it, the caller
// waiting for the end.
class ThreadRestartCycle
{
public:
    qint64 run(const QByteArray &bytes)
    {
        QObject::disconnect(&m_thread, nullptr, nullptr, nullptr);
        m_thread.wait();
        QObject::connect(
            &m_thread, &QThread::started, &m_thread,
            [this, &bytes] {
                m_result = m_proxy.write(bytes.constData(), bytes.size());
                QThread::currentThread()->exit(0);
            },
            Qt::DirectConnection);
        m_thread.start(QThread::InheritPriority);
        m_thread.wait();
        return m_result;
    }

private:
    FastProxy m_proxy;
    QThread m_thread;
    qint64 m_result = -1;
};

// One thread for the device's whole life, handed each job through a condition variable.
class PersistentWorker
{
public:
    PersistentWorker()
        : m_thread([this] { serve(); })
    {
    }

    ~PersistentWorker()
    {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_quit = true;
        }
        m_wake.notify_all();
        m_thread.join();
    }

    qint64 run(std::function<qint64()> job)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_job = std::move(job);
        m_done = false;
        m_wake.notify_all();
        m_wake.wait(lock, [this] { return m_done; });
        return m_result;
    }

private:
    void serve()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        for (;;) {
            m_wake.wait(lock, [this] { return m_quit || m_job; });
            if (m_quit)
                return;
            m_result = m_job();
            m_job = nullptr;
            m_done = true;
            m_wake.notify_all();
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::function<qint64()> m_job;
    qint64 m_result = -1;
    bool m_done = false;
    bool m_quit = false;
    std::thread m_thread;
};

// A round trip waits for another thread twice, so its time follows the machine's load more
// than anything else; the alternation lets the write and the bare restart cycle meet the same
// load. Every way formats its command the same.
void roundTrips(benchmark::State &state)
{
    Pal::CommandFormatters formatters = commandFormatters();
    Pal::KrDeviceAbstraction device(QByteArrayLiteral("dac"), new FastProxy, formatters);
    ThreadRestartCycle cycle;
    PersistentWorker worker;
    FastProxy fastProxy;
    Pal::KrAbstractDeviceProxy *const proxy = opaque<Pal::KrAbstractDeviceProxy *>(&fastProxy);
    quint32 value = 0;
    alternate(state,
        {{"write", [&] { return device.write(commandId, QVariant(value++)) == 6; }},
            {"thread_restart", [&] { return cycle.run(formatCommand(commandId, QVariant(value++))) == 6; }},
            {"persistent_worker",
                [&] {
                    const QByteArray bytes = formatCommand(commandId, QVariant(value++));
                    return worker.run([proxy, &bytes] { return proxy->write(bytes.constData(), bytes.size()); }) == 6;
                }},
            {"direct_call",
                [&] {
                    const QByteArray bytes = formatCommand(commandId, QVariant(value++));
                    return proxy->write(bytes.constData(), bytes.size()) == 6;
                },
                1000}});
}

} // namespace

void registerCommandRoundTrip()
{
    benchmark::RegisterBenchmark("command/round_trips", &roundTrips)->UseRealTime();
}

} // namespace Bench
