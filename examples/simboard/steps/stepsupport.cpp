#include "stepsupport.h"

#include <QElapsedTimer>
#include <QFile>

namespace StepSupport {

QString milliseconds(const QElapsedTimer &clock)
{
    return QString::number(double(clock.nsecsElapsed()) / 1e6, 'f', 1) + QLatin1String(" ms");
}

QString quoted(const QString &text)
{
    return QLatin1Char('"') + text + QLatin1Char('"');
}

QString quoted(const QByteArray &text)
{
    return quoted(QString::fromUtf8(text));
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QStringList linesOf(const QByteArray &bytes)
{
    return QString::fromUtf8(bytes).split(QLatin1Char('\n'));
}

QJsonArray jsonLines(const QStringList &lines)
{
    return QJsonArray::fromStringList(lines);
}

} // namespace StepSupport
