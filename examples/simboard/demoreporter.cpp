#include "demoreporter.h"

#include <QJsonArray>

#include <atomic>
#include <memory>
#include <utility>

namespace {
std::atomic<DemoReporter *> s_messageReceiver{nullptr};
} // namespace

QString StatusReport::describe() const
{
    QStringList quoted;
    for (const QString &argument : arguments)
        quoted << QLatin1Char('"') + argument + QLatin1Char('"');
    return QStringLiteral("status report %1 (%2) from %3 line %4, in %5: %6")
        .arg(code)
        .arg(DemoReporter::meaning(code), fileName)
        .arg(line)
        .arg(function, quoted.join(QLatin1String(", ")));
}

QJsonObject StatusReport::toJson() const
{
    return {{QStringLiteral("code"), code}, {QStringLiteral("meaning"), DemoReporter::meaning(code)},
        {QStringLiteral("file"), fileName}, {QStringLiteral("line"), qint64(line)},
        {QStringLiteral("function"), function}, {QStringLiteral("arguments"), QJsonArray::fromStringList(arguments)}};
}

QString LogMessage::level() const
{
    switch (type) {
    case QtDebugMsg:
        return QStringLiteral("debug");
    case QtInfoMsg:
        return QStringLiteral("info");
    case QtWarningMsg:
        return QStringLiteral("warning");
    case QtCriticalMsg:
        return QStringLiteral("critical");
    case QtFatalMsg:
        break;
    }
    return QStringLiteral("fatal");
}

QJsonObject LogMessage::toJson() const
{
    return {{QStringLiteral("level"), level()}, {QStringLiteral("category"), category}, {QStringLiteral("text"), text}};
}

DemoReporter::DemoReporter()
{
    Crosscutting::KrCrosscuttingManagerPlaceholder::instance()->setStatusReporter(this);
    s_messageReceiver = this;
    m_previousHandler = qInstallMessageHandler(&DemoReporter::handleMessage);
}

DemoReporter::~DemoReporter()
{
    qInstallMessageHandler(m_previousHandler);
    s_messageReceiver = nullptr;
    Crosscutting::KrCrosscuttingManagerPlaceholder::instance()->setStatusReporter(nullptr);
}

StatusCode DemoReporter::reportStatus(StatusCode statusCode, Crosscutting::KrSourceContext *context)
{
    const std::unique_ptr<Crosscutting::KrSourceContext> owned(context);
    StatusReport report;
    report.code = statusCode;
    if (owned) {
        report.fileName = owned->fileName();
        report.line = owned->line();
        report.function = owned->function();
        report.arguments = owned->arguments();
    }
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_reports.append(report);
    return statusCode;
}

QList<StatusReport> DemoReporter::takeReports()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return std::exchange(m_reports, {});
}

QList<LogMessage> DemoReporter::takeMessages()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return std::exchange(m_messages, {});
}

QString DemoReporter::meaning(StatusCode statusCode)
{
    switch (statusCode) {
    case 39:
        return QStringLiteral("an empty or reserved key was refused");
    case 44:
        return QStringLiteral("reading from a device failed");
    case 46:
        return QStringLiteral("a device key was taken twice");
    case 47:
        return QStringLiteral("no device under that key");
    case 50:
        return QStringLiteral("a device class could not be constructed");
    case 51:
        return QStringLiteral("a device could not be built");
    case 70:
        return QStringLiteral("a hardware command timed out");
    default:
        return QStringLiteral("unknown status");
    }
}

void DemoReporter::handleMessage(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    DemoReporter *receiver = s_messageReceiver;
    if (!receiver || type == QtFatalMsg) {
        // A fatal message ends the process: it goes out as Qt would print it.
        if (receiver && receiver->m_previousHandler)
            receiver->m_previousHandler(type, context, text);
        return;
    }
    const std::lock_guard<std::mutex> lock(receiver->m_mutex);
    receiver->m_messages.append({type, QString::fromUtf8(context.category ? context.category : "default"), text});
}
