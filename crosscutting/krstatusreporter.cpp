#include "krstatusreporter.h"

#include <QLoggingCategory>

#include <atomic>
#include <memory>

namespace Crosscutting {

Q_LOGGING_CATEGORY(lcStatus, "crosscutting.status")

KrSourceContext::KrSourceContext(
    const QString &text, const QString &fileName, quint64 line, const QString &function, const QStringList &arguments)
    : m_text(text)
    , m_fileName(fileName)
    , m_line(line)
    , m_function(function)
    , m_arguments(arguments)
{
}

KrSourceContext *createSourceContext(
    const QString &text, const QString &fileName, quint64 line, const QString &function, const QStringList &arguments)
{
    return new KrSourceContext(text, fileName, line, function, arguments);
}

KrStatusReporter::~KrStatusReporter() = default;

StatusCode KrStatusReporter::reportStatus(StatusCode statusCode, KrSourceContext *context)
{
    const std::unique_ptr<KrSourceContext> owned(context);
    if (owned) {
        qCWarning(lcStatus).noquote() << "status" << statusCode << "at"
                                      << owned->fileName() + QLatin1Char(':') + QString::number(owned->line()) << "in"
                                      << owned->function()
                                      << "arguments:" << owned->arguments().join(QLatin1String(" | "));
    } else {
        qCWarning(lcStatus).noquote() << "status" << statusCode << "without source context";
    }
    return statusCode;
}

namespace {
KrStatusReporter s_builtInReporter;
std::atomic<KrStatusReporter *> s_installedReporter{nullptr};
} // namespace

KrCrosscuttingManagerPlaceholder *KrCrosscuttingManagerPlaceholder::instance()
{
    static KrCrosscuttingManagerPlaceholder manager;
    return &manager;
}

KrStatusReporter *KrCrosscuttingManagerPlaceholder::statusReporter() const
{
    KrStatusReporter *reporter = s_installedReporter.load(std::memory_order_acquire);
    return reporter ? reporter : &s_builtInReporter;
}

void KrCrosscuttingManagerPlaceholder::setStatusReporter(KrStatusReporter *reporter)
{
    s_installedReporter.store(reporter, std::memory_order_release);
}

} // namespace Crosscutting
