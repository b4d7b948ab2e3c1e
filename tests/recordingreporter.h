#pragma once

#include <crosscutting/crosscutting.h>

#include <QList>
#include <QString>
#include <QStringList>
#include <QTest>

#include <memory>
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

    bool operator==(const Report &other) const
    {
        return code == other.code && fileName == other.fileName && line == other.line && function == other.function
            && arguments == other.arguments && text == other.text && text.isNull() == other.text.isNull();
    }
};

inline char *toString(const Report &report)
{
    const QString text
        = report.text.isNull() ? QStringLiteral("<null>") : QLatin1Char('"') + report.text + QLatin1Char('"');
    return qstrdup(qPrintable(QStringLiteral("Report{code=%1 file=%2 line=%3 function=%4 text=%5 arguments=[%6]}")
                                  .arg(QString::number(report.code), report.fileName, QString::number(report.line),
                                      report.function, text, report.arguments.join(QLatin1String("] [")))));
}

/// The process's status reporter while it lives, recording every report from any thread. Answers
/// @c result (the code itself when negative), so tests see that callers pass the answer on.
class RecordingReporter : public Crosscutting::KrStatusReporter
{
public:
    explicit RecordingReporter(StatusCode result = -1)
        : m_result(result)
    {
        Crosscutting::KrCrosscuttingManagerPlaceholder::instance()->setStatusReporter(this);
    }
    ~RecordingReporter() override
    {
        Crosscutting::KrCrosscuttingManagerPlaceholder::instance()->setStatusReporter(nullptr);
    }

    StatusCode reportStatus(StatusCode statusCode, Crosscutting::KrSourceContext *context) override
    {
        const std::unique_ptr<Crosscutting::KrSourceContext> owned(context);
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_reports.append(
            {statusCode, owned->fileName(), owned->line(), owned->function(), owned->arguments(), owned->text()});
        return m_result < 0 ? statusCode : m_result;
    }

    QList<Report> reports() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_reports;
    }

private:
    mutable std::mutex m_mutex;
    QList<Report> m_reports;
    StatusCode m_result;
};

/// The reports that the library makes, as the reporter receives them: the one table that tests
/// compare against.
namespace Pinned {

const QString addFunction = QStringLiteral(
    "StatusCode Pal::KrPalRoot::addDeviceAbstraction(const QByteArray&, std::shared_ptr<Pal::KrDeviceAbstraction>)");
const QString factoryFunction = QStringLiteral(
    "std::shared_ptr<Pal::KrDeviceAbstraction> Pal::KrPalConfiguration::createKrDeviceAbstraction(const QByteArray&) "
    "const");

const Report timeout{70, QStringLiteral("krdeviceabstraction.cpp"), 168,
    QStringLiteral("qint64 Pal::KrDeviceAbstraction::doCommand(std::function<long long int()>, quint32)"),
    {QStringLiteral(" sending a hardware command")}};
const Report readFailed{44, QStringLiteral("krdatacollectorworker.cpp"), 98,
    QStringLiteral("void Pal::KrDataCollectorWorker::run()"), {QStringLiteral("the device proxy")}};
const Report reservedKey{39, QStringLiteral("krpalroot.cpp"), 30, addFunction, {QStringLiteral("key")}};
const Report emptyKey{
    39, QStringLiteral("krpalconfiguration.cpp"), 69, factoryFunction, {QStringLiteral("deviceAbstractionId")}};

inline Report duplicateKey(const QString &key)
{
    return {46, QStringLiteral("krpalroot.cpp"), 25, addFunction,
        {QStringLiteral("KrDeviceAbstraction with key = ") + key, QStringLiteral("KrPalRoot")}};
}
inline Report unknownKey(const QString &key)
{
    return {47, QStringLiteral("krpalroot.cpp"), 44,
        QStringLiteral("Pal::KrDeviceAbstraction* Pal::KrPalRoot::deviceAbstraction(const char*)"),
        {QStringLiteral("KrDeviceAbstraction with key = %1 KrPalRoot").arg(key)}};
}
inline Report unknownCollectKey(const QString &key)
{
    return {47, QStringLiteral("krpalroot.cpp"), 74,
        QStringLiteral("void Pal::KrPalRoot::collectData(const char*) const"),
        {QStringLiteral("Device ID ") + key, QStringLiteral("KrPalRoot")}};
}
// A class that the factory could not instantiate, reported from @p line (proxy or device).
inline Report unbuilt(quint64 line, const QString &className)
{
    return {50, QStringLiteral("krpalconfiguration.cpp"), line, factoryFunction, {className}};
}
inline Report notConstructed(const QString &key)
{
    return {51, QStringLiteral("krpalconfiguration.cpp"), 40,
        QStringLiteral("QSharedPointer<Pal::KrPalRoot> Pal::KrPalConfiguration::createPalRoot() const"),
        {QStringLiteral("creating KrPalRoot"), QStringLiteral("device %1 couldn't be constructed").arg(key)}};
}

} // namespace Pinned
