#pragma once

#include <QByteArray>
#include <QString>

/// Which device node each port of the board is wired to.
///
/// The configuration builds the proxies by class name, through an invokable constructor that
/// takes no arguments, so a proxy cannot be handed its descriptor. It knows the port it
/// serves instead and opens that port's node itself, as a driver opens its character device.
/// On the instrument the nodes are fixed by the device tree ("/dev/ttyPS1" and so on); in the
/// demo the simulated instrument wires its ports when it starts, before the board is built.
/// Lookups may come from any thread.
namespace BoardWiring {

/// Wires @p port to the node at @p nodePath; an empty path unwires it.
void connectPort(const QByteArray &port, const QString &nodePath);
/// The node @p port is wired to, or an empty string.
QString nodePath(const QByteArray &port);

} // namespace BoardWiring
