// Internal: the one way the library builds and sends a status report. Not installed.
#pragma once

#include <crosscutting/krstatusreporter.h>

#include <QString>
#include <QStringList>

namespace Pal {
namespace Internal {

/// Sends one report to the process's status reporter and returns what the reporter returned.
/// @p sourcePath is the reporting file's compile-time path (__FILE__); the report names only
/// its bare file name. @p line and @p function are the values that the report contract fixes
/// for that statement, so they do not move with the code or the compiler.
StatusCode reportStatus(
    StatusCode statusCode, const char *sourcePath, quint64 line, const char *function, const QStringList &arguments);

/// 8-bit text as reports take it: UTF-8 up to the first NUL byte.
QString fromEightBit(const char *text);
QString fromEightBit(const QByteArray &text);

/// A formed message passed once through the local 8-bit encoding and back, as reports carry it.
QString throughLocalEightBit(const QString &message);

} // namespace Internal
} // namespace Pal
