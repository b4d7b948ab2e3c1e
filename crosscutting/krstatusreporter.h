#pragma once

#include <crosscutting/crosscutting_export.h>

#include <QStringList>
#include <QtGlobal>

// The companion library's status type: 0 means success. Declared at global scope so that
// every namespace can use it unqualified.
using StatusCode = qint64;

namespace Crosscutting {

/// The five descriptive items of one status report.
class CROSSCUTTING_EXPORT KrSourceContext
{
public:
    KrSourceContext(const QString &text, const QString &fileName, quint64 line, const QString &function,
        const QStringList &arguments);

    const QString &text() const { return m_text; }
    const QString &fileName() const { return m_fileName; }
    quint64 line() const { return m_line; }
    const QString &function() const { return m_function; }
    const QStringList &arguments() const { return m_arguments; }

private:
    QString m_text;
    QString m_fileName;
    quint64 m_line;
    QString m_function;
    QStringList m_arguments;
};

CROSSCUTTING_EXPORT KrSourceContext *createSourceContext(
    const QString &text, const QString &fileName, quint64 line, const QString &function, const QStringList &arguments);

/// Receives the failure reports of the process. The reporter owns every context handed to it.
class CROSSCUTTING_EXPORT KrStatusReporter
{
public:
    KrStatusReporter() = default;
    virtual ~KrStatusReporter();
    KrStatusReporter(const KrStatusReporter &) = delete;
    KrStatusReporter &operator=(const KrStatusReporter &) = delete;

    /// The built-in reporter logs one warning line in the category "crosscutting.status",
    /// deletes the context and returns the status code it was given.
    virtual StatusCode reportStatus(StatusCode statusCode, KrSourceContext *context);
};

/// The process-wide manager that hands out the status reporter.
class CROSSCUTTING_EXPORT KrCrosscuttingManagerPlaceholder
{
public:
    static KrCrosscuttingManagerPlaceholder *instance();

    KrStatusReporter *statusReporter() const;
    /// Installs an application's reporter (not owned); null restores the built-in one.
    void setStatusReporter(KrStatusReporter *reporter);

private:
    KrCrosscuttingManagerPlaceholder() = default;
};

} // namespace Crosscutting
