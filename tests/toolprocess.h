#pragma once

#include <QProcess>
#include <QStringList>

/// Starts one of the project's programs. In a cross-build it runs under the emulator that
/// runs the tests themselves (KRPAL_TOOL_EMULATOR, the build's CMAKE_CROSSCOMPILING_EMULATOR
/// joined with '|'), since a machine need not run foreign programs by itself.
inline void startTool(QProcess &process, const QString &program, const QStringList &arguments)
{
#ifdef KRPAL_TOOL_EMULATOR
    const QStringList emulator = QStringLiteral(KRPAL_TOOL_EMULATOR).split(QLatin1Char('|'), Qt::SkipEmptyParts);
    process.start(emulator.first(), emulator.mid(1) + QStringList{program} + arguments);
#else
    process.start(program, arguments);
#endif
}
