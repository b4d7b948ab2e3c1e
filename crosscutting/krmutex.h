#pragma once

#include <crosscutting/crosscutting_export.h>

#include <QMutex>

namespace Crosscutting {

/// Base of the companion library's mutexes: carries the hooks that a locker runs while the
/// mutex is held. The stand-in's hooks record nothing.
class CROSSCUTTING_EXPORT KrAbstractMutex
{
public:
    KrAbstractMutex() = default;
    virtual ~KrAbstractMutex();
    KrAbstractMutex(const KrAbstractMutex &) = delete;
    KrAbstractMutex &operator=(const KrAbstractMutex &) = delete;

    virtual void lockPostProcessing(quint64 id, const char *file, const char *function, int line, const char *text);
    virtual void unlockPostProcessing(quint64 id);
};

/// A mutex with a lock time-out in milliseconds. lock() never returns without the lock: past
/// the time-out it logs a likely deadlock once and goes on waiting.
class CROSSCUTTING_EXPORT KrMutex : public KrAbstractMutex
{
public:
    explicit KrMutex(unsigned int timeout);
    ~KrMutex() override = default;

    void lock();
    void unlock();
    unsigned int timeout() const { return m_timeout; }

private:
    QMutex m_mutex;
    unsigned int m_timeout;
};

} // namespace Crosscutting
