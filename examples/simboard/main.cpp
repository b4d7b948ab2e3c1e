// krpal-demo: the library run end to end against a simulated instrument, without hardware.

#include "demoreporter.h"
#include "runlog.h"
#include "simboarddemo.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QJsonDocument>

#include <cstdio>

namespace {

constexpr int usageError = 2;

void printError(const QString &message)
{
    std::fprintf(stderr, "krpal-demo: %s\n", message.toLocal8Bit().constData());
}

// The options' values, or a message naming the one that is wrong.
bool readSettings(const QCommandLineParser &parser, DemoSettings *settings, QString *error)
{
    bool ok = false;
    const QString duration = parser.value(QStringLiteral("duration"));
    settings->durationSeconds = duration.toDouble(&ok);
    if (!ok || !(settings->durationSeconds > 0) || settings->durationSeconds > 600) {
        *error = QStringLiteral("--duration wants seconds above 0 and at most 600, not \"%1\"").arg(duration);
        return false;
    }
    const QString rate = parser.value(QStringLiteral("rate"));
    settings->rate = rate.toInt(&ok);
    if (!ok || settings->rate < SimulatedInstrument::minimumRate || settings->rate > SimulatedInstrument::maximumRate) {
        *error = QStringLiteral("--rate wants samples per second from %1 to %2, not \"%3\"")
                     .arg(SimulatedInstrument::minimumRate)
                     .arg(SimulatedInstrument::maximumRate)
                     .arg(rate);
        return false;
    }
    const QString bufferSize = parser.value(QStringLiteral("buffer-size"));
    settings->bufferSize = bufferSize.toInt(&ok);
    // Whole 16-bit samples, and a buffer the ADC's line can hold at once.
    if (!ok || settings->bufferSize < 2 || settings->bufferSize > 65536 || settings->bufferSize % 2 != 0) {
        *error
            = QStringLiteral("--buffer-size wants an even number of bytes from 2 to 65536, not \"%1\"").arg(bufferSize);
        return false;
    }
    settings->tcxoFile = parser.value(QStringLiteral("tcxo-file"));
    if (parser.isSet(QStringLiteral("tcxo-file")) && settings->tcxoFile.isEmpty()) {
        *error = QStringLiteral("--tcxo-file wants a path");
        return false;
    }
    if (!parser.positionalArguments().isEmpty()) {
        *error = QStringLiteral("unexpected argument \"%1\"").arg(parser.positionalArguments().constFirst());
        return false;
    }
    return true;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("krpal-demo"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Runs the KrPal library end to end on a simulated board: builds the board and registers it, "
        "sends commands, times one out on a hung device, exchanges requests, drives the ADC's registers, "
        "streams samples through a data collector, creates, reads and updates the TCXO calibration, reports a "
        "self-test and "
        "reads a GPS fix from NMEA sentences. Exits with 0 when every step behaved as expected, 1 when a step failed "
        "and "
        "2 for a wrong option."));
    const QCommandLineOption helpOption = parser.addHelpOption();
    parser.addOptions({
        {QStringLiteral("duration"), QStringLiteral("Stream for <seconds> (default 3)."), QStringLiteral("seconds"),
            QStringLiteral("3")},
        {QStringLiteral("rate"), QStringLiteral("The ADC's sample rate, 16-bit samples per second (default 48000)."),
            QStringLiteral("samples/s"), QStringLiteral("48000")},
        {QStringLiteral("buffer-size"), QStringLiteral("The data collector's buffer size in bytes (default 4096)."),
            QStringLiteral("bytes"), QStringLiteral("4096")},
        {QStringLiteral("tcxo-file"),
            QStringLiteral("Keep the TCXO calibration in <path>, which is overwritten, instead of a temporary "
                           "file."),
            QStringLiteral("path")},
        {QStringLiteral("json"), QStringLiteral("Print the whole run's results as one JSON document instead of text.")},
    });
    if (!parser.parse(QCoreApplication::arguments())) {
        printError(parser.errorText() + QStringLiteral(" (see --help)"));
        return usageError;
    }
    if (parser.isSet(helpOption))
        parser.showHelp(0);
    DemoSettings settings;
    QString error;
    if (!readSettings(parser, &settings, &error)) {
        printError(error + QStringLiteral(" (see --help)"));
        return usageError;
    }
    const bool json = parser.isSet(QStringLiteral("json"));

    DemoReporter reporter;
    RunLog log(json ? RunLog::Output::Json : RunLog::Output::Text, reporter);
    if (!json) {
        std::printf("KrPal demo: the simulated board \"%s\", streaming for %g s at %d samples/s in buffers of %d "
                    "bytes.\n\n",
            qPrintable(SimBoardDemo::applicationName), settings.durationSeconds, settings.rate, settings.bufferSize);
    }
    {
        SimBoardDemo demo(settings, log);
        demo.run();
    }

    const QStringList failed = log.failedSteps();
    if (json) {
        QJsonObject document = log.document();
        document.insert(QStringLiteral("application"), SimBoardDemo::applicationName);
        document.insert(QStringLiteral("settings"),
            QJsonObject{{QStringLiteral("durationSeconds"), settings.durationSeconds},
                {QStringLiteral("rate"), settings.rate}, {QStringLiteral("bufferSize"), settings.bufferSize},
                {QStringLiteral("tcxoFile"), settings.tcxoFile}});
        std::fputs(QJsonDocument(document).toJson(QJsonDocument::Indented).constData(), stdout);
    } else if (failed.isEmpty()) {
        std::printf("All %d steps behaved as expected, in %.1f s.\n", log.stepCount(), double(log.elapsedMs()) / 1000);
    } else {
        std::printf("%lld of %d steps failed: %s.\n", qint64(failed.size()), log.stepCount(),
            qPrintable(failed.join(QLatin1String(", "))));
    }
    if (!failed.isEmpty()) {
        printError((failed.size() == 1 ? QStringLiteral("failed step: ") : QStringLiteral("failed steps: "))
            + failed.join(QLatin1String(", ")));
    }
    return failed.isEmpty() ? 0 : 1;
}
