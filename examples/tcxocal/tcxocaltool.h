#pragma once

#include <QString>
#include <QStringList>
#include <QTextStream>

#include <pal/tcxocaldevice.h>

class QCommandLineParser;

/// krpal-tcxocal: shows and changes a board's TCXO calibration file through TcxoCalDevice.
///
/// The device reports failures by result alone and logs its two messages to Qt's log; the
/// tool checks what it can before it calls the device (the file is there, the key is one of
/// the nine), keeps the device's messages out of the user's way, and says in its own words
/// what went wrong.
///
/// A file is never left half written: the device replaces it in one step (a synced temporary
/// file renamed over it). The device reports a failed write only as a warning in its logging
/// category, which the tool turns into its own message, naming the step that failed, and exit
/// status 1; the file is then the old one.
class TcxoCalTool
{
public:
    TcxoCalTool();
    ~TcxoCalTool();

    /// Runs the command line @p arguments (the program name first): the exit status.
    int run(const QStringList &arguments);

    enum ExitStatus
    {
        Done = 0,
        Failed = 1, // the file could not be read or written, or lacks a key
        UsageError = 2 // a wrong command line: unknown command or key, a bad number
    };

private:
    int show(const QString &file);
    int get(const QString &file, const QString &key);
    int create(const QString &file, const QCommandLineParser &parser);
    int field(const QString &file, const QString &dac, const QCommandLineParser &parser);

    // Whether @p file is a regular file that can be read; says why not otherwise.
    bool checkReadable(const QString &file);
    // Whether the device's last write of @p file replaced it; says why not otherwise.
    bool written(const QString &file);
    // The whole content of @p file, or the failed step and its reason in @p problem.
    static bool readFile(const QString &file, QByteArray *bytes, QString *problem);
    void printRecord(const Pal::TcxoCalDevice &device);
    int fail(const QString &message, ExitStatus status);

    QTextStream m_out;
    QTextStream m_err;
};
