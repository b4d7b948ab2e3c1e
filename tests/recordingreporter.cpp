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
    const QString text
        = report.text.isNull() ? QStringLiteral("<null>") : QLatin1Char('"') + report.text + QLatin1Char('"');
    return qstrdup(qPrintable(QStringLiteral("Report{code=%1 file=%2 line=%3 function=%4 text=%5 arguments=[%6]}")
                                  .arg(QString::number(report.code), report.fileName, QString::number(report.line),
                                      report.function, text, report.arguments.join(QLatin1String("] [")))));
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
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_reports.append(
        {statusCode, owned->fileName(), owned->line(), owned->function(), owned->arguments(), owned->text()});
    return m_result < 0 ? statusCode : m_result;
}

QList<Report> RecordingReporter::reports() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_reports;
}
