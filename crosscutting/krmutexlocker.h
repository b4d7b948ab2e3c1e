#pragma once

#include <crosscutting/krmutex.h>

#include <QThread>

namespace Crosscutting {

/// Scope guard over a companion-library mutex: the post-processing hooks run while the
/// mutex is held, right after locking and right before unlocking.
template<typename Mutex, template<typename> class Guard>
class KrMutexLocker
{
public:
    explicit KrMutexLocker(Mutex &mutex)
        : m_guard(mutex)
        , m_postProcessingMutex(&mutex)
    {
        // Should the hook throw, the fully built guard member unlocks as the exception leaves.
        mutex.lockPostProcessing(0, nullptr, nullptr, 0, nullptr);
    }

    ~KrMutexLocker()
    {
        if (m_postProcessingMutex)
            m_postProcessingMutex->unlockPostProcessing(quint64(quintptr(QThread::currentThreadId())));
    }

    KrMutexLocker(const KrMutexLocker &) = delete;
    KrMutexLocker &operator=(const KrMutexLocker &) = delete;

private:
    Guard<Mutex> m_guard;
    KrAbstractMutex *m_postProcessingMutex;
};

} // namespace Crosscutting
