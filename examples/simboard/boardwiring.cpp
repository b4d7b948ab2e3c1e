#include "boardwiring.h"

#include <QHash>
#include <QMutex>
#include <QMutexLocker>

namespace BoardWiring {

namespace {
QMutex s_mutex;
QHash<QByteArray, QString> s_nodes;
} // namespace

void connectPort(const QByteArray &port, const QString &nodePath)
{
    const QMutexLocker locker(&s_mutex);
    if (nodePath.isEmpty())
        s_nodes.remove(port);
    else
        s_nodes.insert(port, nodePath);
}

QString nodePath(const QByteArray &port)
{
    const QMutexLocker locker(&s_mutex);
    return s_nodes.value(port);
}

} // namespace BoardWiring
