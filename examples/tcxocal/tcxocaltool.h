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
/// A file is never left half written: create and field work on a temporary file in the same
/// directory, check it, and rename it over the calibration file, which the file system does
/// in one step. A crash leaves the old file whole, at worst beside a hidden temporary one.
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
    // Renames @p from over @p to and makes the rename durable; says why not otherwise.
    bool replace(const QString &from, const QString &to);
    void printRecord(const Pal::TcxoCalDevice &device);
    int fail(const QString &message, ExitStatus status);

    QTextStream m_out;
    QTextStream m_err;
};
