#include "krmutex.h"

#include <QLoggingCategory>

#include <climits>

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define CROSSCUTTING_TSAN 1
#endif
#endif
#if defined(__SANITIZE_THREAD__)
#define CROSSCUTTING_TSAN 1
#endif

#ifdef CROSSCUTTING_TSAN
#include <sanitizer/tsan_interface.h>
#endif

namespace Crosscutting {

Q_LOGGING_CATEGORY(lcMutex, "crosscutting.mutex")

KrAbstractMutex::~KrAbstractMutex() = default;

void KrAbstractMutex::lockPostProcessing(quint64, const char *, const char *, int, const char *) { }

void KrAbstractMutex::unlockPostProcessing(quint64) { }

KrMutex::KrMutex(unsigned int timeout)
    : m_timeout(timeout)
{
}

void KrMutex::lock()
{
    if (!m_mutex.tryLock(int(qMin<unsigned int>(m_timeout, INT_MAX)))) {
        qCCritical(lcMutex) << "mutex not acquired within" << m_timeout << "ms: likely deadlock, still waiting";
        m_mutex.lock();
    }
#ifdef CROSSCUTTING_TSAN
    // Debian's Qt is not instrumented: tell the sanitizer about the lock so that the data
    // it guards is not reported as racy.
    __tsan_acquire(this);
#endif
}

void KrMutex::unlock()
{
#ifdef CROSSCUTTING_TSAN
    __tsan_release(this);
#endif
    m_mutex.unlock();
}

} // namespace Crosscutting
