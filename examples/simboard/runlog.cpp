#include "runlog.h"

#include <QJsonValue>

#include <cstdio>

#include <unistd.h>

RunLog::RunLog(Output output, DemoReporter &reporter)
    : m_output(output)
    , m_reporter(reporter)
    , m_showProgress(output == Output::Text && ::isatty(STDOUT_FILENO))
{
    m_runClock.start();
}

void RunLog::begin(const QString &id, const QString &title)
{
    m_steps.append({id, title, {}, {}, {}, {}, {}, 0});
    m_stepClock.start();
    print(QStringLiteral("%1. %2").arg(m_steps.size()).arg(title));
}

void RunLog::say(const QString &text)
{
    m_steps.last().details.append(text);
    print(QLatin1String("   ") + text);
}

void RunLog::show(const QString &text)
{
    const QStringList lines = text.split(QLatin1Char('\n'));
    for (const QString &line : lines)
        print(QLatin1String("       ") + line);
}

void RunLog::record(const QString &key, const QJsonValue &value)
{
    m_steps.last().values.insert(key, value);
}

bool RunLog::check(bool condition, const QString &failure)
{
    if (!condition)
        m_steps.last().failures.append(failure);
    return condition;
}

QList<StatusReport> RunLog::takeReports()
{
    const QList<StatusReport> reports = m_reporter.takeReports();
    for (const StatusReport &report : reports) {
        m_steps.last().reports.append(report.toJson());
        say(QStringLiteral("The library reported: ") + report.describe());
    }
    return reports;
}

QList<LogMessage> RunLog::takeMessages()
{
    const QList<LogMessage> messages = m_reporter.takeMessages();
    for (const LogMessage &message : messages) {
        m_steps.last().messages.append(message.toJson());
        say(QStringLiteral("The library logged (%1): %2").arg(message.level(), message.text));
    }
    return messages;
}

void RunLog::end()
{
    endProgress();
    for (const StatusReport &report : takeReports())
        check(false, QStringLiteral("unexpected status report %1").arg(report.code));
    for (const LogMessage &message : takeMessages()) {
        if (message.type != QtDebugMsg && message.type != QtInfoMsg)
            check(false, QStringLiteral("unexpected %1 message: %2").arg(message.level(), message.text));
    }
    Step &step = m_steps.last();
    step.elapsedMs = m_stepClock.elapsed();
    if (step.failures.isEmpty())
        print(QStringLiteral("   ok (%1 ms)").arg(step.elapsedMs));
    for (const QString &failure : qAsConst(step.failures))
        print(QStringLiteral("   FAILED: ") + failure);
    print(QString());
}

void RunLog::progress(const QString &text)
{
    if (!m_showProgress)
        return;
    const QString line = QLatin1String("   ") + text;
    std::fprintf(stdout, "\r%-*s", m_progressWidth, qPrintable(line));
    std::fflush(stdout);
    m_progressWidth = qMax(m_progressWidth, line.size());
}

void RunLog::endProgress()
{
    if (!m_showProgress || m_progressWidth == 0)
        return;
    std::fprintf(stdout, "\r%*s\r", m_progressWidth, "");
    std::fflush(stdout);
    m_progressWidth = 0;
}

bool RunLog::stepOk() const
{
    return m_steps.last().failures.isEmpty();
}

bool RunLog::ok() const
{
    return failedSteps().isEmpty();
}

QStringList RunLog::failedSteps() const
{
    QStringList failed;
    for (const Step &step : m_steps) {
        if (!step.failures.isEmpty())
            failed.append(step.id);
    }
    return failed;
}

int RunLog::stepCount() const
{
    return m_steps.size();
}

qint64 RunLog::elapsedMs() const
{
    return m_runClock.elapsed();
}

QJsonObject RunLog::document() const
{
    QJsonArray steps;
    for (const Step &step : m_steps) {
        steps.append(QJsonObject{{QStringLiteral("id"), step.id}, {QStringLiteral("title"), step.title},
            {QStringLiteral("ok"), step.failures.isEmpty()},
            {QStringLiteral("failures"), QJsonArray::fromStringList(step.failures)},
            {QStringLiteral("details"), QJsonArray::fromStringList(step.details)},
            {QStringLiteral("values"), step.values}, {QStringLiteral("statusReports"), step.reports},
            {QStringLiteral("messages"), step.messages}, {QStringLiteral("elapsedMs"), step.elapsedMs}});
    }
    return {{QStringLiteral("ok"), ok()}, {QStringLiteral("failedSteps"), QJsonArray::fromStringList(failedSteps())},
        {QStringLiteral("elapsedMs"), elapsedMs()}, {QStringLiteral("steps"), steps}};
}

void RunLog::print(const QString &text)
{
    if (m_output != Output::Text)
        return;
    std::fputs(text.toLocal8Bit().constData(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}
