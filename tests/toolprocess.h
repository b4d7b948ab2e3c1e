#pragma once

#include <QProcess>
#include <QStringList>
#include <QTest>

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

/// Why the project's programs cannot be started here, or empty. Under user-mode emulation the
/// test itself is emulated, and QProcess may ask it for a kernel feature that the emulator
/// lacks (qemu 7.2 refuses clone() with a pidfd); then no program's end is ever seen.
inline QString toolsUnavailable()
{
#ifdef KRPAL_TOOL_EMULATOR
    static const QString reason = [] {
        const QString emulator = QStringLiteral(KRPAL_TOOL_EMULATOR).section(QLatin1Char('|'), 0, 0);
        QProcess probe;
        probe.start(emulator, {QStringLiteral("--version")});
        if (probe.waitForFinished(10000) && probe.exitStatus() == QProcess::NormalExit && probe.exitCode() == 0)
            return QString();
        return QStringLiteral("QProcess in an emulated test cannot follow what it starts under %1 (%2)")
            .arg(emulator, probe.errorString());
    }();
    return reason;
#else
    return QString();
#endif
}

#define SKIP_WITHOUT_TOOLS()                                                                                           \
    do {                                                                                                               \
        if (!toolsUnavailable().isEmpty())                                                                             \
            QSKIP(qPrintable(toolsUnavailable()));                                                                     \
    } while (false)
