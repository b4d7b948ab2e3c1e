// Stand-in for the companion library Crosscutting: the one header that KrPal and its
// applications include. The real library on the instrument offers the same interface.
#pragma once

#include <crosscutting/krmutex.h>
#include <crosscutting/krmutexlocker.h>
#include <crosscutting/krstatusreporter.h>
#include <crosscutting/krutilities.h>

#include <QString>

namespace Crosscutting {

// Context names of the companion library; every source file that includes this header
// gets its own copy, as on the instrument.
static const QString Internal = QStringLiteral("Internal");
static const QString MainThread = QString::fromLatin1("MainThread");
static const QString TaskProcessor = QString::fromLatin1("TaskProcessor");

} // namespace Crosscutting
