// The TCXO calibration file. Reading is measured against opening, reading and closing the
// same file; a field update against the same durable replacement done by hand (read, write a
// temporary file, sync it, rename it over the file, sync the directory), and, for context,
// against rewriting the file in place.

#include "benchsupport.h"

#include <pal/tcxocaldevice.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

namespace Bench {

namespace {

using Pal::TcxoCalDevice;

constexpr int fieldDacValue = 2051;

TcxoCalDevice::TcxoCalFactors exampleFactors()
{
    TcxoCalDevice::TcxoCalFactors factors;
    factors.factoryTcxo = 2048;
    factors.factoryTemperature = 25.5f;
    factors.factoryTuningSensitivity = 0.0125f;
    factors.fieldTcxo = fieldDacValue;
    factors.fieldTemperature = 31.75f;
    factors.fieldTuningSensitivity = 0.0124f;
    factors.fieldFixTime = 1.7e12f;
    factors.fixDecayTime = 3600;
    factors.refSourceDisplay = 1;
    return factors;
}

// A calibration file written by createTcxoCalFile in a directory of its own, on the file
// system of the system's temporary directory.
class CalibrationFile
{
public:
    CalibrationFile()
        : m_directory(QDir::tempPath() + QStringLiteral("/krpal-bench-XXXXXX"))
        , m_path(m_directory.filePath(QStringLiteral("tcxo.cal")))
    {
        // The writer's constructor finds no file yet and says so.
        const QuietMessages quiet;
        TcxoCalDevice writer(QByteArrayLiteral("tcxo"), m_path);
        writer.createTcxoCalFile(exampleFactors());
    }

    bool isValid() const { return m_directory.isValid() && QFile::exists(m_path); }
    const QString &path() const { return m_path; }
    QByteArray nativePath() const { return QFile::encodeName(m_path); }
    QByteArray nativeDirectory() const { return QFile::encodeName(m_directory.path()); }

    QByteArray bytes() const
    {
        QFile file(m_path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

private:
    QTemporaryDir m_directory;
    QString m_path;
};

// The two texts that a field update alternates between, as the library writes them.
struct FieldUpdateTexts
{
    explicit FieldUpdateTexts(const CalibrationFile &file)
    {
        TcxoCalDevice device(QByteArrayLiteral("tcxo"), file.path());
        device.updateTcxoFieldCal(fieldDacValue + 1, 30.5f, 0.0126f);
        texts[0] = file.bytes();
        device.updateTcxoFieldCal(fieldDacValue, 30.5f, 0.0126f);
        texts[1] = file.bytes();
    }
    QByteArray texts[2];
};

bool writeWhole(int fd, const QByteArray &bytes)
{
    return ::write(fd, bytes.constData(), size_t(bytes.size())) == bytes.size();
}

// What a durable field update needs at the least: read the file, write the new text to a
// temporary file beside it, sync that, rename it over the file, sync the directory.
class ReplaceByHand
{
public:
    ReplaceByHand()
        : m_update(m_file)
        , m_path(m_file.nativePath())
        , m_temporary(m_path + ".new")
        , m_directory(m_file.nativeDirectory())
    {
    }

    bool once()
    {
        const int in = ::open(m_path.constData(), O_RDONLY | O_CLOEXEC);
        bool ok = in >= 0 && ::read(in, m_buffer, sizeof m_buffer) >= 0;
        ::close(in);
        const int out = ::open(m_temporary.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0604);
        ok = ok && out >= 0 && writeWhole(out, m_update.texts[m_next]) && ::fsync(out) == 0;
        ::close(out);
        ok = ok && ::rename(m_temporary.constData(), m_path.constData()) == 0;
        const int directory = ::open(m_directory.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ok = ok && directory >= 0 && ::fsync(directory) == 0;
        ::close(directory);
        m_next ^= 1;
        return ok;
    }

private:
    const CalibrationFile m_file;
    const FieldUpdateTexts m_update;
    const QByteArray m_path;
    const QByteArray m_temporary;
    const QByteArray m_directory;
    char m_buffer[4096];
    int m_next = 0;
};

// The same text rewritten in place: truncated, written and synced. Not durable (a power cut
// between the truncation and the sync loses the calibration); shown for what it would save.
class RewriteInPlace
{
public:
    RewriteInPlace()
        : m_update(m_file)
        , m_path(m_file.nativePath())
    {
    }

    bool once()
    {
        const QByteArray &text = m_update.texts[m_next];
        const int fd = ::open(m_path.constData(), O_RDWR | O_CLOEXEC);
        const bool ok = fd >= 0 && ::read(fd, m_buffer, sizeof m_buffer) >= 0 && ::ftruncate(fd, 0) == 0
            && ::pwrite(fd, text.constData(), size_t(text.size()), 0) == text.size() && ::fsync(fd) == 0;
        ::close(fd);
        m_next ^= 1;
        return ok;
    }

private:
    const CalibrationFile m_file;
    const FieldUpdateTexts m_update;
    const QByteArray m_path;
    char m_buffer[4096];
    int m_next = 0;
};

void calibrationRead(benchmark::State &state)
{
    const CalibrationFile file;
    const TcxoCalDevice device(QByteArrayLiteral("tcxo"), file.path());
    const QString path = file.path();
    const QByteArray nativePath = file.nativePath();
    const QString key = QLatin1String(Pal::fieldTemperatureKey);
    TcxoCalDevice::TcxoCalFactors factors;
    char buffer[4096];
    alternate(state,
        {{"getTcxoCalFactors",
             [&] {
                 factors = TcxoCalDevice::TcxoCalFactors();
                 return device.getTcxoCalFactors(factors) && factors.fieldTemperature == 31.75f;
             }},
            {"getValue", [&] { return device.getValue(key, false) == QLatin1String("31.75"); }},
            {"open_read_close",
                [&] {
                    QFile calibration(path);
                    if (!calibration.open(QIODevice::ReadOnly))
                        return false;
                    const bool ok = calibration.readAll().size() == 212;
                    calibration.close();
                    return ok;
                }},
            {"posix_open_read_close", [&] {
                 const int fd = ::open(nativePath.constData(), O_RDONLY | O_CLOEXEC);
                 const bool ok = fd >= 0 && ::read(fd, buffer, sizeof buffer) == 212;
                 ::close(fd);
                 return ok;
             }}});
}

void calibrationWrite(benchmark::State &state)
{
    const CalibrationFile file;
    TcxoCalDevice device(QByteArrayLiteral("tcxo"), file.path());
    ReplaceByHand replace;
    RewriteInPlace rewrite;
    int dacValue = fieldDacValue;
    alternate(state,
        {{"updateTcxoFieldCal",
             [&] {
                 // A changed DAC value each time: an unchanged one leaves the file alone.
                 dacValue = dacValue == fieldDacValue ? fieldDacValue + 1 : fieldDacValue;
                 device.updateTcxoFieldCal(dacValue, 30.5f, 0.0126f);
                 return true;
             }},
            {"replace_by_hand", [&] { return replace.once(); }}, {"rewrite_in_place", [&] { return rewrite.once(); }}});
    if (device.getValue(QLatin1String(Pal::fieldTcxoKey), false) != QString::number(dacValue))
        state.SkipWithError("the field update did not reach the file");
}

} // namespace

void registerCalibrationFile()
{
    benchmark::RegisterBenchmark("tcxo/read", &calibrationRead)->UseRealTime();
    // Syncing waits for the storage: only real time shows it.
    benchmark::RegisterBenchmark("tcxo/write", &calibrationWrite)->UseRealTime();
}

} // namespace Bench
