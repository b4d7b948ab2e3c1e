// Arbitrary bytes as a TCXO calibration file, through both calibration devices.
//
// Besides crashes, leaks and undefined behaviour, every input is held to what the file
// promises:
// - reading (construction, getTcxoCalFactors, getValue for every key) never changes the
//   file, finds each value right after the first occurrence of its key in the bytes before
//   the first NUL, and agrees between getTcxoCalFactors, getValue and the cache;
// - the stand-alone device never touches the file, nor its directory;
// - a field update changes nothing outside the values of the four field keys, and those as
//   the file format says; with the field DAC value missing or unchanged it writes nothing;
// - a file holding a NUL byte is never rewritten, with one critical message per update;
// - every update and write leaves mode 0604 and no temporary file behind;
// - the record read from the input, written again by createTcxoCalFile, is written and read
//   back as its text says.
// The input itself is the whole file; the update arguments are derived from its hash.

#include "fuzzsupport.h"

#include <pal/tcxocaldevice.h>
#include <pal/tcxocaldummydevice.h>

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <cfloat>
#include <climits>
#include <cstdint>
#include <memory>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using FuzzSupport::MessageLog;
using Pal::TcxoCalDevice;
using Pal::TcxoCalDummyDevice;
using Factors = TcxoCalDevice::TcxoCalFactors;

namespace {

const char *const keys[9] = {Pal::factoryTcxoKey, Pal::factoryTemperatureKey, Pal::factoryTuningSensitivityKey,
    Pal::fieldTcxoKey, Pal::fieldTemperatureKey, Pal::fieldTuningSensitivityKey, Pal::fieldFixTimeKey,
    Pal::fixDecayTimeKey, Pal::refSourceDisplayKey};
// The two DAC fields are integers, the others floats.
bool isDacField(int field)
{
    return field == 0 || field == 3;
}

static_assert(sizeof(Factors) == 9 * 4, "the record is nine 32-bit fields");
quint32 bitsOf(const Factors &factors, int field)
{
    quint32 bits;
    std::memcpy(&bits, reinterpret_cast<const char *>(&factors) + 4 * field, 4);
    return bits;
}

quint32 floatBits(float value)
{
    quint32 bits;
    std::memcpy(&bits, &value, 4);
    return bits;
}

// Finite and recognisable, so that a field left alone shows.
const Factors sentinel{0xA5A5A5A5u, 1.5f, -2.5f, 77u, 3.25f, -4.75f, 8.5f, 16.25f, -32.5f};

// Removed with its contents when libFuzzer ends the process normally.
std::unique_ptr<QTemporaryDir> s_workDir;

QString workPath(const QString &name)
{
    return s_workDir->filePath(name);
}

struct FileState
{
    QByteArray bytes;
    int mode = -1;
    qint64 modifiedNs = -1;
    bool operator==(const FileState &other) const
    {
        return bytes == other.bytes && mode == other.mode && modifiedNs == other.modifiedNs;
    }
};

QDebug operator<<(QDebug debug, const FileState &state)
{
    return debug << "{mode " << QByteArray::number(state.mode, 8) << ", modified " << state.modifiedNs << ", "
                 << state.bytes << "}";
}

FileState stateOf(const QString &path)
{
    FileState state;
    struct stat st;
    if (::stat(QFile::encodeName(path).constData(), &st) != 0)
        return state;
    state.mode = int(st.st_mode & 07777);
    state.modifiedNs = qint64(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
    QFile file(path);
    if (file.open(QIODevice::ReadOnly))
        state.bytes = file.readAll();
    return state;
}

void writeFile(const QString &path, const QByteArray &bytes)
{
    const int fd = ::open(QFile::encodeName(path).constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0640);
    FUZZ_CHECK(fd >= 0);
    FUZZ_CHECK(::write(fd, bytes.constData(), size_t(bytes.size())) == ssize_t(bytes.size()));
    FUZZ_CHECK(::fchmod(fd, 0640) == 0);
    ::close(fd);
}

QStringList entriesOf(const QString &directory)
{
    return QDir(directory).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
}

QString notFound(const char *key, const QString &path)
{
    return QStringLiteral("critical: Did not find value for  \"%1\"  in  \"%2\"").arg(QLatin1String(key), path);
}

// The bytes that count as the file's text: those before its first NUL.
QByteArray textOf(const QByteArray &bytes)
{
    const int nul = bytes.indexOf('\0');
    return nul < 0 ? bytes : bytes.left(nul);
}

bool isValueCharacter(char c)
{
    return (c >= '0' && c <= '9') || c == '-' || c == '.' || c == '+' || c == 'e';
}

struct Value
{
    bool found = false;
    QByteArray text;
};

// The run of value characters right after the first occurrence of @p key.
Value valueAfter(const QByteArray &text, const char *key)
{
    const int at = text.indexOf(key);
    if (at < 0)
        return {};
    int end = at + int(std::strlen(key));
    const int start = end;
    while (end < text.size() && isValueCharacter(text.at(end)))
        ++end;
    return {true, text.mid(start, end - start)};
}

// @p text with the value after every occurrence of @p key replaced by @p value.
QByteArray replaced(const QByteArray &text, const char *key, const QByteArray &value)
{
    const int keyLength = int(std::strlen(key));
    QByteArray result;
    int from = 0;
    for (int at = text.indexOf(key); at >= 0; at = text.indexOf(key, from)) {
        result += text.mid(from, at + keyLength - from) + value;
        from = at + keyLength;
        while (from < text.size() && isValueCharacter(text.at(from)))
            ++from;
    }
    return result + text.mid(from);
}

// A value text as the record takes it: 0 for a text that does not convert, also for one
// beyond float's range.
float floatOf(const QByteArray &text)
{
    bool converted = false;
    const float value = QString::fromLatin1(text).toFloat(&converted);
    return converted ? value : 0;
}

quint32 fnv1a(const QByteArray &bytes)
{
    quint32 hash = 2166136261u;
    for (const char c : bytes)
        hash = (hash ^ quint8(c)) * 16777619u;
    return hash;
}

float floatFrom(quint32 selector)
{
    static const float interesting[] = {0.f, -0.f, 25.5f, 0.0125f, 1.2e-5f, 1e-45f, FLT_MAX, -FLT_MAX, INFINITY,
        -INFINITY, NAN, 1234565.f, 0.1234565f, -40.f, 1.7e12f};
    const quint32 count = sizeof interesting / sizeof interesting[0];
    if (selector % 32 < count)
        return interesting[selector % 32];
    float value;
    std::memcpy(&value, &selector, 4);
    return value;
}

int dacValueFrom(quint32 selector, const Value &current)
{
    const int now = current.found ? QString::fromLatin1(current.text).toInt() : 0;
    switch (selector % 8) {
    case 0:
        return now;
    case 1:
        return int(quint32(now) + 1);
    case 2:
        return -1;
    case 3:
        return 70000;
    case 4:
        return INT_MIN;
    case 5:
        return INT_MAX;
    default:
        return int(selector);
    }
}

// Reading leaves the file as it was and finds what the bytes hold.
Factors checkReading(const QString &path, const QByteArray &input)
{
    const FileState before = stateOf(path);
    const QByteArray text = textOf(input);
    MessageLog::take();

    const TcxoCalDevice device("tcxo", path);
    const Value fieldTcxo = valueAfter(text, Pal::fieldTcxoKey);
    FUZZ_COMPARE(MessageLog::take(), fieldTcxo.found ? QStringList() : QStringList{notFound(Pal::fieldTcxoKey, path)});
    const quint16 cached = quint16(QString::fromLatin1(fieldTcxo.text).toInt());
    FUZZ_COMPARE(device.getValue(QLatin1String(Pal::fieldTcxoKey), true), QString::number(cached));

    Factors factors = sentinel;
    const bool complete = device.getTcxoCalFactors(factors);
    FUZZ_COMPARE(MessageLog::take(), QStringList());
    bool allFound = true;
    for (int field = 0; field < 9; ++field) {
        const Value expected = valueAfter(text, keys[field]);
        for (const bool fromCache : {false, true}) {
            if (fromCache && field == 3)
                continue;
            const QString value = device.getValue(QLatin1String(keys[field]), fromCache);
            FUZZ_COMPARE(value.isNull(), !expected.found);
            FUZZ_COMPARE(value, QString::fromLatin1(expected.text));
            FUZZ_COMPARE(MessageLog::take(), expected.found ? QStringList() : QStringList{notFound(keys[field], path)});
        }
        allFound = allFound && expected.found;
        const quint32 expectedBits = !expected.found ? bitsOf(sentinel, field)
            : isDacField(field)                      ? quint32(QString::fromLatin1(expected.text).toInt())
                                                     : floatBits(floatOf(expected.text));
        FUZZ_COMPARE(bitsOf(factors, field), expectedBits);
    }
    FUZZ_COMPARE(complete, allFound);
    FUZZ_COMPARE(stateOf(path), before);
    return factors;
}

// The stand-alone device reads "DummyTcxoCalFile" in the working directory at construction
// and never touches it, nor anything else, again.
void checkStandAlone(const QByteArray &input, quint32 hash)
{
    const QString path = workPath(QStringLiteral("DummyTcxoCalFile"));
    writeFile(path, input);
    const FileState before = stateOf(path);
    const QStringList entries = entriesOf(s_workDir->path());
    MessageLog::take();
    // Back afterwards: libFuzzer saves inputs under paths that may be relative.
    const QString previousDir = QDir::currentPath();
    FUZZ_CHECK(QDir::setCurrent(s_workDir->path()));
    {
        TcxoCalDummyDevice device("dummy");
        const bool found = valueAfter(textOf(input), Pal::fieldTcxoKey).found;
        FUZZ_COMPARE(MessageLog::take(),
            found ? QStringList() : QStringList{notFound(Pal::fieldTcxoKey, QStringLiteral("DummyTcxoCalFile"))});

        Factors factors{};
        FUZZ_CHECK(device.getTcxoCalFactors(factors));
        FUZZ_COMPARE(factors.factoryTcxo, 9999u);
        for (const char *key : keys)
            FUZZ_CHECK(!device.getValue(QLatin1String(key), hash & 1).isNull());
        const int dacValue = int(hash);
        device.updateTcxoFieldCal(dacValue, floatFrom(hash >> 3), floatFrom(hash >> 11));
        device.updateTcxoFieldCal(dacValue ^ 0x5a5a);
        FUZZ_COMPARE(
            device.getValue(QLatin1String(Pal::fieldTcxoKey), false), QString::number(uint(dacValue ^ 0x5a5a)));
        device.createTcxoCalFile(sentinel);
        FUZZ_CHECK(device.getTcxoCalFactors(factors));
        FUZZ_CHECK(std::memcmp(&factors, &sentinel, sizeof factors) == 0);
        FUZZ_COMPARE(MessageLog::take(), QStringList());
    }
    FUZZ_CHECK(QDir::setCurrent(previousDir));
    FUZZ_COMPARE(stateOf(path), before);
    FUZZ_COMPARE(entriesOf(s_workDir->path()), entries);
    QFile::remove(path);
}

// One field update on the file at @p path, which holds @p old: only the field values change,
// and only when the field DAC value does.
void checkFieldUpdate(const QString &path, int dacValue, bool withCalibration, float temperature, float sensitivity)
{
    const FileState before = stateOf(path);
    const QByteArray &old = before.bytes;
    TcxoCalDevice device("tcxo", path);
    MessageLog::take();

    const qint64 start = QDateTime::currentMSecsSinceEpoch();
    if (withCalibration)
        device.updateTcxoFieldCal(dacValue, temperature, sensitivity);
    else
        device.updateTcxoFieldCal(dacValue);
    const qint64 end = QDateTime::currentMSecsSinceEpoch();

    FUZZ_COMPARE(device.getValue(QLatin1String(Pal::fieldTcxoKey), true), QString::number(quint16(dacValue)));
    const FileState after = stateOf(path);
    FUZZ_COMPARE(after.mode, 0604);
    FUZZ_COMPARE(entriesOf(QFileInfo(path).path()), QStringList{QFileInfo(path).fileName()});

    if (old.contains('\0')) {
        FUZZ_COMPARE(after.bytes, old);
        FUZZ_COMPARE(after.modifiedNs, before.modifiedNs);
        FUZZ_COMPARE(MessageLog::take(),
            QStringList{QStringLiteral("critical: Not updating file holding a NUL byte: \"%1\"").arg(path)});
        return;
    }
    FUZZ_COMPARE(MessageLog::take(), QStringList());

    const Value current = valueAfter(old, Pal::fieldTcxoKey);
    if (!current.found || QString::fromLatin1(current.text).toInt() == dacValue) {
        FUZZ_COMPARE(after.bytes, old);
        FUZZ_COMPARE(after.modifiedNs, before.modifiedNs);
        return;
    }

    const QByteArray withDacValue = replaced(old, Pal::fieldTcxoKey, QByteArray::number(dacValue));
    if (!withCalibration) {
        FUZZ_COMPARE(after.bytes, withDacValue);
        return;
    }
    // The fix time is the clock's; the real values may be written either way where they lie
    // exactly halfway (see cNumberTexts).
    const Value fixTime = valueAfter(after.bytes, Pal::fieldFixTimeKey);
    if (fixTime.found) {
        bool isNumber = false;
        const qint64 time = fixTime.text.toLongLong(&isNumber);
        FUZZ_CHECK(isNumber && time >= start && time <= end);
    }
    QList<QByteArray> candidates;
    for (const QString &temperatureText : FuzzSupport::cNumberTexts(double(temperature), "%g")) {
        for (const QString &sensitivityText : FuzzSupport::cNumberTexts(double(sensitivity), "%g")) {
            QByteArray expected = replaced(withDacValue, Pal::fieldTemperatureKey, temperatureText.toLatin1());
            expected = replaced(expected, Pal::fieldTuningSensitivityKey, sensitivityText.toLatin1());
            candidates << replaced(expected, Pal::fieldFixTimeKey, fixTime.text);
        }
    }
    if (!candidates.contains(after.bytes))
        FUZZ_COMPARE(after.bytes, candidates.first());
}

// createTcxoCalFile writes the nine lines in the C library's number forms, creating the
// directories, and reads back what its text says.
void checkCreate(const Factors &factors)
{
    const QString path = workPath(QStringLiteral("new/sub/tcxo.cal"));
    TcxoCalDevice device("tcxo", path);
    FUZZ_COMPARE(MessageLog::take(), QStringList{QStringLiteral("critical: Cannot open file \"%1\"").arg(path)});
    device.createTcxoCalFile(factors);
    FUZZ_COMPARE(device.getValue(QLatin1String(Pal::fieldTcxoKey), true), QString::number(quint16(factors.fieldTcxo)));
    const FileState written = stateOf(path);
    FUZZ_COMPARE(written.mode, 0604);
    FUZZ_COMPARE(entriesOf(QFileInfo(path).path()), QStringList{QStringLiteral("tcxo.cal")});

    const QList<QByteArray> lines = written.bytes.split('\n');
    FUZZ_COMPARE(lines.size(), 9);
    Factors readBack = sentinel;
    FUZZ_CHECK(device.getTcxoCalFactors(readBack));
    for (int field = 0; field < 9; ++field) {
        FUZZ_CHECK(lines.at(field).startsWith(keys[field]));
        const QByteArray valueText = lines.at(field).mid(int(std::strlen(keys[field])));
        if (isDacField(field)) {
            const quint32 value = bitsOf(factors, field);
            FUZZ_COMPARE(valueText, QByteArray::number(value));
            FUZZ_COMPARE(bitsOf(readBack, field), value <= quint32(INT_MAX) ? value : 0u);
        } else {
            float value;
            std::memcpy(&value, reinterpret_cast<const char *>(&factors) + 4 * field, 4);
            const QStringList texts = FuzzSupport::cNumberTexts(double(value), "%g");
            if (!texts.contains(QString::fromLatin1(valueText)))
                FUZZ_COMPARE(valueText, texts.first().toLatin1());
            FUZZ_COMPARE(bitsOf(readBack, field), floatBits(floatOf(valueAfter(written.bytes, keys[field]).text)));
        }
    }
    FUZZ_COMPARE(MessageLog::take(), QStringList());
    QDir(workPath(QStringLiteral("new"))).removeRecursively();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    // tmpfs where there is one: every write is synced to storage, which costs a disk dearly.
    const QString base
        = QFileInfo(QStringLiteral("/dev/shm")).isWritable() ? QStringLiteral("/dev/shm/krpal-fuzz-XXXXXX") : QString();
    s_workDir = base.isEmpty() ? std::make_unique<QTemporaryDir>() : std::make_unique<QTemporaryDir>(base);
    if (!s_workDir->isValid() || !QDir(s_workDir->path()).mkdir(QStringLiteral("cal"))) {
        std::fprintf(stderr, "cannot set up a working directory\n");
        std::abort();
    }
    MessageLog::install();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray input(reinterpret_cast<const char *>(data), int(size));
    const quint32 hash = fnv1a(input);
    const QString path = workPath(QStringLiteral("cal/tcxo.cal"));

    writeFile(path, input);
    const Factors factors = checkReading(path, input);
    checkStandAlone(input, hash);

    // Three updates in a row, each on what the one before left: the arguments vary with the
    // input, and include the file's own DAC value, which must change nothing.
    for (int round = 0; round < 3; ++round) {
        const quint32 selector = hash >> (round * 9) | quint32(round) << 29;
        const Value current = valueAfter(textOf(stateOf(path).bytes), Pal::fieldTcxoKey);
        checkFieldUpdate(path, dacValueFrom(selector, current), selector & 4, floatFrom(selector >> 3),
            floatFrom(selector >> 4 ^ hash));
    }

    checkCreate(factors);
    QFile::remove(path);
    return 0;
}
