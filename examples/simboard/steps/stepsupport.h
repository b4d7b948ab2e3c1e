#pragma once

#include <QByteArray>
#include <QJsonArray>
#include <QString>
#include <QStringList>

class QElapsedTimer;

/// Small text helpers shared by the demo's steps.
namespace StepSupport {

/// The time on @p clock in milliseconds with one decimal, "0.4 ms".
QString milliseconds(const QElapsedTimer &clock);
QString quoted(const QString &text);
QString quoted(const QByteArray &text);
/// The whole file, or nothing when it cannot be read.
QByteArray readFile(const QString &path);
QStringList linesOf(const QByteArray &bytes);
QJsonArray jsonLines(const QStringList &lines);

} // namespace StepSupport
