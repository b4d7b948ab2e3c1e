#include "krpalapplicationmanager.h"

#include "krpalroot.h"

#include <crosscutting/crosscutting.h>

#include <mutex>
#include <utility>

namespace Pal {

namespace {
using RegistryLocker = Crosscutting::KrMutexLocker<Crosscutting::KrMutex, std::lock_guard>;
constexpr unsigned int registryLockTimeout = 120000;
} // namespace

// Defined in this order so that the registry outlives its mutex: at unload the mutex goes
// first, then the registry releases the roots still registered.
QHash<QString, QSharedPointer<KrPalRoot>> KrPalApplicationManager::s_applications;
Crosscutting::KrMutex KrPalApplicationManager::s_mutex(registryLockTimeout);

// A root let go of is released only after the lock: its destruction, and that of its devices,
// may run application code that looks up or changes the registry, which would otherwise wait
// for a lock that its own thread holds. Declared before the locker, it outlives it.
bool KrPalApplicationManager::add(const QString &name, QSharedPointer<KrPalRoot> root)
{
    QSharedPointer<KrPalRoot> released;
    const RegistryLocker locker(s_mutex);
    const auto entry = s_applications.find(name);
    if (entry == s_applications.end())
        s_applications.insert(name, std::move(root));
    else
        released = std::exchange(*entry, std::move(root));
    return true;
}

void KrPalApplicationManager::remove(const QString &name)
{
    QSharedPointer<KrPalRoot> released;
    const RegistryLocker locker(s_mutex);
    released = s_applications.take(name);
}

// The lookups take the lock too: a concurrent add() or remove() may rehash or detach the
// registry under them, and the returned reference must be taken before a remove() drops the
// registry's own.
QSharedPointer<KrPalRoot> KrPalApplicationManager::application(const QString &name)
{
    const RegistryLocker locker(s_mutex);
    return s_applications.value(name);
}

bool KrPalApplicationManager::loaded(const QString &name)
{
    const RegistryLocker locker(s_mutex);
    return s_applications.contains(name);
}

} // namespace Pal
