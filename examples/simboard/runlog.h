#pragma once

#include "demoreporter.h"

#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>

/// The record of one run of the demo, step by step. In text mode every step is printed as it
/// happens, in plain words; in JSON mode nothing is printed until document() is asked for.
///
/// A step is expected to behave in a certain way; each check() that fails marks it failed
/// with the reason. Status reports and log messages that arrive during a step belong to it:
/// a step that expects some takes them with takeReports() and takeMessages() and checks
/// them itself; whatever it leaves is unexpected and fails the step at end() (debug and
/// information messages excepted).
class RunLog
{
public:
    enum class Output
    {
        Text,
        Json
    };

    RunLog(Output output, DemoReporter &reporter);

    void begin(const QString &id, const QString &title);
    /// One detail of the running step, in plain words.
    void say(const QString &text);
    /// A block of text (a file, a document) shown in text mode only; record() its value.
    void show(const QString &text);
    /// One value of the running step for the JSON document.
    void record(const QString &key, const QJsonValue &value);
    /// Marks the running step failed with @p failure unless @p condition holds.
    bool check(bool condition, const QString &failure);
    /// The step's status reports so far, printed as they are taken.
    QList<StatusReport> takeReports();
    /// The step's log messages so far, printed as they are taken.
    QList<LogMessage> takeMessages();
    void end();

    /// A transient progress line; printed only in text mode on a terminal.
    void progress(const QString &text);
    /// Clears the progress line.
    void endProgress();

    /// Whether the running step has not failed so far.
    bool stepOk() const;
    bool ok() const;
    QStringList failedSteps() const;
    int stepCount() const;
    qint64 elapsedMs() const;
    /// The whole run: every step with its details, values, reports and messages.
    QJsonObject document() const;

private:
    struct Step
    {
        QString id;
        QString title;
        QStringList details;
        QJsonObject values;
        QJsonArray reports;
        QJsonArray messages;
        QStringList failures;
        qint64 elapsedMs = 0;
    };

    void print(const QString &text);

    Output m_output;
    DemoReporter &m_reporter;
    QList<Step> m_steps;
    bool m_showProgress;
    int m_progressWidth = 0;
    QElapsedTimer m_runClock;
    QElapsedTimer m_stepClock;
};
