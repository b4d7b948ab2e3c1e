#include "krstatusreport_p.h"

#include <QFileInfo>

namespace Pal {
namespace Internal {

StatusCode reportStatus(
    StatusCode statusCode, const char *sourcePath, quint64 line, const char *function, const QStringList &arguments)
{
    Crosscutting::KrStatusReporter *reporter
        = Crosscutting::KrCrosscuttingManagerPlaceholder::instance()->statusReporter();
    Crosscutting::KrSourceContext *context = Crosscutting::createSourceContext(QStringLiteral(""),
        QFileInfo(QString::fromUtf8(sourcePath)).fileName(), line, QString::fromUtf8(function), arguments);
    return reporter->reportStatus(statusCode, context);
}

QString fromEightBit(const char *text)
{
    return QString::fromUtf8(text);
}

QString fromEightBit(const QByteArray &text)
{
    return QString::fromUtf8(text.constData());
}

QString throughLocalEightBit(const QString &message)
{
    return fromEightBit(message.toLocal8Bit().constData());
}

} // namespace Internal
} // namespace Pal
