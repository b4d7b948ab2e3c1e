#pragma once

#include <pal/krpal_export.h>

#include <QHash>
#include <QSharedPointer>
#include <QString>

namespace Crosscutting {
class KrMutex;
}

namespace Pal {

class KrPalRoot;

/// The process-wide registry of roots by application name, so that any component can reach
/// an application's devices without its configuration. Names are compared exactly; a name
/// has at most one root, and a null root may be registered. Every operation may be called
/// from any thread.
///
/// A root that the registry lets go of for the last time is destroyed inside add() or
/// remove(), after the registry's lock is released, so its destruction (and its devices')
/// may use the manager.
class KRPAL_EXPORT KrPalApplicationManager
{
public:
    KrPalApplicationManager() = delete;

    /// Registers @p root under @p name, replacing and releasing any earlier root. Always true.
    static bool add(const QString &name, QSharedPointer<KrPalRoot> root);
    /// Releases the root under @p name; an unknown name changes nothing.
    static void remove(const QString &name);
    /// A new reference to the root under @p name, or null.
    static QSharedPointer<KrPalRoot> application(const QString &name);
    /// Whether @p name is registered, also with a null root.
    static bool loaded(const QString &name);

private:
    static QHash<QString, QSharedPointer<KrPalRoot>> s_applications;
    static Crosscutting::KrMutex s_mutex;
};

} // namespace Pal
