#pragma once

#include <crosscutting/crosscutting.h>

#include <QList>
#include <QString>
#include <QStringList>

#include <mutex>

/// One status report as the reporter received it: the code and the five context items.
struct Report
{
    StatusCode code = 0;
    QString fileName;
    quint64 line = 0;
    QString function;
    QStringList arguments;
    QString text = QStringLiteral("");

    bool operator==(const Report &other) const;
};

char *toString(const Report &report);

/// Installs itself as the process's status reporter for its lifetime and records every
/// report, from any thread. Returns @c result (or the code itself when negative) from
/// reportStatus, so tests can see that callers pass the reporter's answer on.
class RecordingReporter : public Crosscutting::KrStatusReporter
{
public:
    explicit RecordingReporter(StatusCode result = -1);
    ~RecordingReporter() override;

    StatusCode reportStatus(StatusCode statusCode, Crosscutting::KrSourceContext *context) override;

    QList<Report> reports() const;
    int count() const;
    void clear();

private:
    mutable std::mutex m_mutex;
    QList<Report> m_reports;
    StatusCode m_result;
};
