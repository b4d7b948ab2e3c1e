#include "recordingreporter.h"

#include <QTest>

#include <memory>

bool Report::operator==(const Report &other) const
{
    return code == other.code && fileName == other.fileName && line == other.line && function == other.function
        && arguments == other.arguments && text == other.text && text.isNull() == other.text.isNull();
}

char *toString(const Report &report)
{
    QString argumentList;
    for (const QString &argument : report.arguments)
        argumentList += QLatin1String(" [") + argument + QLatin1Char(']');
    const QString text
        = QStringLiteral("Report{code=%1 file=%2 line=%3 function=%4 text=%5 arguments:%6}")
              .arg(report.code)
              .arg(report.fileName)
              .arg(report.line)
              .arg(report.function)
              .arg(report.text.isNull() ? QStringLiteral("<null>") : QLatin1Char('"') + report.text + QLatin1Char('"'))
              .arg(argumentList);
    return qstrdup(text.toUtf8().constData());
}

RecordingReporter::RecordingReporter(StatusCode result)
    : m_result(result)
{
    Crosscutting::KrCrosscuttingManagerPlaceholder::instance()->setStatusReporter(this);
}

RecordingReporter::~RecordingReporter()
{
    Crosscutting::KrCrosscuttingManagerPlaceholder::instance()->setStatusReporter(nullptr);
}

StatusCode RecordingReporter::reportStatus(StatusCode statusCode, Crosscutting::KrSourceContext *context)
{
    const std::unique_ptr<Crosscutting::KrSourceContext> owned(context);
    Report report;
    report.code = statusCode;
    report.fileName = owned->fileName();
    report.line = owned->line();
    report.function = owned->function();
    report.arguments = owned->arguments();
    report.text = owned->text();
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_reports.append(report);
    return m_result < 0 ? statusCode : m_result;
}

QList<Report> RecordingReporter::reports() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_reports;
}

int RecordingReporter::count() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_reports.size();
}

void RecordingReporter::clear()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_reports.clear();
}
