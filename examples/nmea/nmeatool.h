#pragma once

#include <QString>
#include <QStringList>

namespace Pal {
class KrGpsInfo;
class KrNmeaGpsSource;
} // namespace Pal

/// krpal-nmea: reads NMEA 0183 through KrNmeaGpsSource and prints each epoch as it is
/// emitted, as text or as one JSON object per line, with a summary on standard error at the
/// end. SIGINT and SIGTERM end the run cleanly, with the summary.
class NmeaTool
{
public:
    NmeaTool();
    ~NmeaTool();

    /// Runs the command line @p arguments (the program name first): the exit status.
    int run(const QStringList &arguments);

    enum ExitStatus
    {
        Done = 0,
        Unreadable = 1, // the source could not be opened or read
        UsageError = 2 // a wrong command line
    };

    /// One epoch as a JSON object on one line, the keys in a fixed order.
    static QByteArray jsonLine(const Pal::KrGpsInfo &info);
    /// One epoch as readable text on one line.
    static QByteArray textLine(const Pal::KrGpsInfo &info);

private:
    // Reads a file or standard input (@p fd) to its end or to a signal.
    int readStream(int fd, const QString &name, Pal::KrNmeaGpsSource &source);
    int readSerial(const QString &path, qint32 baudRate, Pal::KrNmeaGpsSource &source);
    void print(const Pal::KrGpsInfo &info);
    int fail(const QString &message, ExitStatus status);

    bool m_json = false;
    quint64 m_epochs = 0;
    quint64 m_fixes = 0;
};
