#pragma once

#include <crosscutting/crosscutting.h>

#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>

#include <mutex>

/// One status report as the demo's reporter received it.
struct StatusReport
{
    StatusCode code = 0;
    QString fileName;
    quint64 line = 0;
    QString function;
    QStringList arguments;

    /// The report in plain words, with what its code means.
    QString describe() const;
    QJsonObject toJson() const;
};

/// One message of Qt's message log.
struct LogMessage
{
    QtMsgType type = QtDebugMsg;
    QString category;
    QString text;

    QString level() const;
    QJsonObject toJson() const;
};

/// What the library tells the demo besides its results: status reports, and the messages it
/// writes to Qt's log (the TCXO calibration device reports through that log). The reporter
/// installs itself as the process's status reporter and as Qt's message handler for its
/// lifetime, and keeps both until the demo takes them. Reports and messages come from any
/// thread: the data collector reports on its own.
class DemoReporter : public Crosscutting::KrStatusReporter
{
public:
    DemoReporter();
    ~DemoReporter() override;

    StatusCode reportStatus(StatusCode statusCode, Crosscutting::KrSourceContext *context) override;

    /// The reports received since the last call, oldest first.
    QList<StatusReport> takeReports();
    /// The messages logged since the last call, oldest first.
    QList<LogMessage> takeMessages();

    /// What a status code of the library means.
    static QString meaning(StatusCode statusCode);

private:
    static void handleMessage(QtMsgType type, const QMessageLogContext &context, const QString &text);

    std::mutex m_mutex;
    QList<StatusReport> m_reports;
    QList<LogMessage> m_messages;
    QtMessageHandler m_previousHandler;
};
