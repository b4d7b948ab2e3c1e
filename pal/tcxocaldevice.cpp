#include "tcxocaldevice.h"

#include <QDateTime>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLoggingCategory>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTextStream>

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Pal {

namespace {

// Mode 0604: the owner reads and writes, others read, the group has no access.
const QFileDevice::Permissions calFilePermissions
    = QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadOther;

// The characters a value may consist of; any other character, "E" included, ends it.
const QLatin1String valueRun("[-\\d.+e]*");

// The key goes into the pattern unescaped. The nine keys hold no pattern characters, so only
// a caller's own key passed to getValue can act as a pattern.
QRegularExpression valueExpression(const QString &key)
{
    return QRegularExpression(key + QLatin1String("(?<value>") + valueRun + QLatin1Char(')'));
}

QRegularExpression valueExpression(const char *key)
{
    return valueExpression(QLatin1String(key));
}

// Group 1 is the key, group 2 the value that a field update replaces.
QRegularExpression replaceExpression(const char *key)
{
    return QRegularExpression(
        QLatin1Char('(') + QLatin1String(key) + QLatin1String(")(") + valueRun + QLatin1Char(')'));
}

// Every occurrence of the key gets the new value; a key missing from the text stays missing.
void replaceValue(QString &text, const QRegularExpression &keyAndValue, const QString &value)
{
    text.replace(keyAndValue, QLatin1String("\\1") + value);
}

QString realText(float value)
{
    return QString::number(double(value), 'g', 6);
}

// As qCritical() in the default category, but without source context in any build type.
QDebug critical()
{
    return QMessageLogger(nullptr, 0, nullptr).critical();
}

// The file's text ends at its first NUL byte.
QString textOf(const QByteArray &bytes)
{
    const int nul = bytes.indexOf('\0');
    return QString::fromUtf8(bytes.constData(), nul < 0 ? bytes.size() : nul);
}

bool readField(const QString &text, const QRegularExpression &expression, unsigned int &field)
{
    const QRegularExpressionMatch match = expression.match(text);
    if (!match.hasMatch())
        return false;
    field = static_cast<unsigned int>(match.captured(QStringLiteral("value")).toInt());
    return true;
}

bool readField(const QString &text, const QRegularExpression &expression, float &field)
{
    const QRegularExpressionMatch match = expression.match(text);
    if (!match.hasMatch())
        return false;
    // A value beyond float's range does not convert: Qt then answers infinity, the file's
    // rule 0.
    bool converted = false;
    const float value = match.captured(QStringLiteral("value")).toFloat(&converted);
    field = converted ? value : 0;
    return true;
}

// The value expressions of the nine keys, in record order, compiled once for the process.
// Compiling an expression costs several times more than reading the whole file, so the
// readers never do it for a key of their own.
class RecordExpressions
{
public:
    enum Field
    {
        FactoryTcxo,
        FactoryTemperature,
        FactoryTuningSensitivity,
        FieldTcxo,
        FieldTemperature,
        FieldTuningSensitivity,
        FieldFixTime,
        FixDecayTime,
        RefSourceDisplay,
        FieldCount
    };

    static const RecordExpressions &instance()
    {
        static const RecordExpressions expressions;
        return expressions;
    }

    const QRegularExpression &operator[](Field field) const { return m_expressions[field]; }

    // The ready-made expression for one of the nine keys, or a new one for any other key:
    // the same pattern either way.
    QRegularExpression forKey(const QString &key) const
    {
        for (int field = 0; field < FieldCount; ++field) {
            if (key == QLatin1String(s_keys[field]))
                return m_expressions[field];
        }
        return valueExpression(key);
    }

private:
    RecordExpressions()
    {
        for (int field = 0; field < FieldCount; ++field)
            m_expressions[field] = valueExpression(s_keys[field]);
    }

    static constexpr const char *s_keys[FieldCount]
        = {factoryTcxoKey, factoryTemperatureKey, factoryTuningSensitivityKey, fieldTcxoKey, fieldTemperatureKey,
            fieldTuningSensitivityKey, fieldFixTimeKey, fixDecayTimeKey, refSourceDisplayKey};
    QRegularExpression m_expressions[FieldCount];
};

// Failures of a write: the calibration on disk stays the old one, and the warning names the
// step that failed, so that an application can tell its user what went wrong. A failed write
// is otherwise silent, so the warnings are off unless the application switches them on
// ("krpal.tcxocal.warning=true"), as the calibration tool does.
Q_LOGGING_CATEGORY(lcCalibration, "krpal.tcxocal", QtCriticalMsg)

void writeFailed(const QString &path, const char *step, const QString &reason)
{
    qCWarning(lcCalibration).nospace().noquote()
        << "Cannot write \"" << path << "\": " << step << " failed: " << reason;
}

void writeFailed(const QString &path, const char *step, int error)
{
    writeFailed(path, step, qt_error_string(error));
}

// The temporary file of a write lies beside the file as ".<name>.krpal-XXXXXX" (six letters or
// digits). No reader ever opens such a name, so one left by a writer that was killed or failed
// is never taken for the calibration; every write removes those of its file first, so that
// none pile up.
const QLatin1String temporaryInfix(".krpal-");

QString temporaryPrefix(const QFileInfo &file)
{
    return file.absolutePath() + QLatin1String("/.") + file.fileName() + temporaryInfix;
}

void removeStaleTemporaries(const QFileInfo &file)
{
    const QString prefix = QLatin1Char('.') + file.fileName() + temporaryInfix;
    const QDir directory(file.absolutePath());
    const QStringList entries = directory.entryList({prefix + QLatin1Char('*')}, QDir::Files | QDir::Hidden);
    static const QRegularExpression suffix(QStringLiteral("^[A-Za-z0-9]{6}$"));
    for (const QString &entry : entries) {
        if (suffix.match(entry.mid(prefix.size())).hasMatch())
            ::unlink(QFile::encodeName(directory.filePath(entry)).constData());
    }
}

// Opens a new temporary file with mode 0604; -1 with errno set on failure.
int createTemporary(const QFileInfo &file, QByteArray *name)
{
    static const char letters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    const QByteArray prefix = QFile::encodeName(temporaryPrefix(file));
    for (int attempt = 0; attempt < 100; ++attempt) {
        *name = prefix;
        for (int i = 0; i < 6; ++i)
            *name += letters[QRandomGenerator::global()->bounded(int(sizeof letters) - 1)];
        int fd;
        do
            fd = ::open(name->constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0604);
        while (fd < 0 && errno == EINTR);
        if (fd >= 0 || errno != EEXIST)
            return fd;
    }
    return -1; // GCOVR_EXCL_LINE: only when a hundred random names in a row are taken already
}

bool writeAll(int fd, const QByteArray &bytes)
{
    for (qint64 written = 0; written < bytes.size();) {
        const ssize_t count = ::write(fd, bytes.constData() + written, size_t(bytes.size() - written));
        if (count < 0 && errno != EINTR)
            return false;
        written += qMax<ssize_t>(count, 0);
    }
    return true;
}

bool syncFile(int fd)
{
    int result;
    do
        result = ::fsync(fd);
    while (result != 0 && errno == EINTR);
    return result == 0;
}

// Where a write lands: the target of a symbolic link, so that the link stays a link.
QFileInfo writtenFile(const QString &path)
{
    QFileInfo info(path);
    for (int depth = 0; depth < 40 && info.isSymLink(); ++depth)
        info = QFileInfo(info.symLinkTarget());
    return info;
}

// Replaces the whole file in one step: the text goes to a temporary file beside it, is
// synced to storage, and is renamed over the file. A power cut, a crash or any failing step
// therefore leaves either the old calibration or the new one, never an empty or half-written
// file; a failure leaves no temporary file either.
void replaceContent(const QString &path, const QByteArray &bytes)
{
    const QFileInfo file = writtenFile(path);
    removeStaleTemporaries(file);
    QByteArray temporary;
    const int fd = createTemporary(file, &temporary);
    if (fd < 0) {
        writeFailed(path, "open", errno);
        return;
    }
    // The mode is set on the open file: the umask must not take the others' read access.
    const char *failedStep = ::fchmod(fd, 0604) != 0 ? "chmod"
        : !writeAll(fd, bytes)                       ? "write"
        : !syncFile(fd)                              ? "fsync"
                                                     : nullptr;
    int error = errno;
    // On Linux the descriptor is gone even when close() fails; after a successful fsync only
    // an interruption is harmless.
    if (::close(fd) != 0 && !failedStep && errno != EINTR) {
        failedStep = "close";
        error = errno;
    }
    if (!failedStep && ::rename(temporary.constData(), QFile::encodeName(file.filePath()).constData()) != 0) {
        failedStep = "rename";
        error = errno;
    }
    if (failedStep) {
        ::unlink(temporary.constData());
        writeFailed(path, failedStep, error);
        return;
    }
    // The rename is only durable once the directory is; the new calibration is in place either way.
    const int directory
        = ::open(QFile::encodeName(file.absolutePath()).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directory < 0 || !syncFile(directory)) {
        qCWarning(lcCalibration).nospace().noquote()
            << "Wrote \"" << path << "\" but cannot sync its directory: " << qt_error_string(errno);
    }
    if (directory >= 0)
        ::close(directory);
}

} // namespace

TcxoCalDevice::TcxoCalDevice(const QByteArray &key, const QString &calibrationFile)
    : KrDeviceAbstraction(key, nullptr)
    , m_calibrationFile(calibrationFile)
    , m_fieldTcxo(0)
{
    // Qualified: a derived device's override must not answer for the file.
    m_fieldTcxo = static_cast<quint16>(TcxoCalDevice::getValue(QLatin1String(fieldTcxoKey), false).toInt());
}

TcxoCalDevice::~TcxoCalDevice() = default;

void TcxoCalDevice::createTcxoCalFile(TcxoCalFactors factors)
{
    m_fieldTcxo = static_cast<quint16>(factors.fieldTcxo);
    if (!calDirectoryExists()) {
        writeFailed(calibrationFile(), "mkdir", errno);
        return;
    }
    QByteArray bytes;
    {
        // A default stream writes numbers in the C locale whatever the process's locale.
        QTextStream stream(&bytes, QIODevice::WriteOnly);
        stream << QLatin1String(factoryTcxoKey) << factors.factoryTcxo << '\n'
               << QLatin1String(factoryTemperatureKey) << factors.factoryTemperature << '\n'
               << QLatin1String(factoryTuningSensitivityKey) << factors.factoryTuningSensitivity << '\n'
               << QLatin1String(fieldTcxoKey) << factors.fieldTcxo << '\n'
               << QLatin1String(fieldTemperatureKey) << factors.fieldTemperature << '\n'
               << QLatin1String(fieldTuningSensitivityKey) << factors.fieldTuningSensitivity << '\n'
               << QLatin1String(fieldFixTimeKey) << factors.fieldFixTime << '\n'
               << QLatin1String(fixDecayTimeKey) << factors.fixDecayTime << '\n'
               << QLatin1String(refSourceDisplayKey) << factors.refSourceDisplay;
    }
    replaceContent(calibrationFile(), bytes);
}

bool TcxoCalDevice::getTcxoCalFactors(TcxoCalFactors &factors) const
{
    QFile file(calibrationFile());
    if (!file.open(QIODevice::ReadOnly))
        return false;
    const QString text = textOf(file.readAll());
    file.close();

    const RecordExpressions &expressions = RecordExpressions::instance();
    bool complete = true;
    complete &= readField(text, expressions[RecordExpressions::FactoryTcxo], factors.factoryTcxo);
    complete &= readField(text, expressions[RecordExpressions::FactoryTemperature], factors.factoryTemperature);
    complete
        &= readField(text, expressions[RecordExpressions::FactoryTuningSensitivity], factors.factoryTuningSensitivity);
    complete &= readField(text, expressions[RecordExpressions::FieldTcxo], factors.fieldTcxo);
    complete &= readField(text, expressions[RecordExpressions::FieldTemperature], factors.fieldTemperature);
    complete &= readField(text, expressions[RecordExpressions::FieldTuningSensitivity], factors.fieldTuningSensitivity);
    complete &= readField(text, expressions[RecordExpressions::FieldFixTime], factors.fieldFixTime);
    complete &= readField(text, expressions[RecordExpressions::FixDecayTime], factors.fixDecayTime);
    complete &= readField(text, expressions[RecordExpressions::RefSourceDisplay], factors.refSourceDisplay);
    return complete;
}

QString TcxoCalDevice::getValue(const QString &key, bool fromCache) const
{
    if (fromCache && key == QLatin1String(fieldTcxoKey))
        return QString::number(m_fieldTcxo);

    QFile file(calibrationFile());
    if (!file.open(QIODevice::ReadOnly)) {
        critical() << "Cannot open file" << file.fileName();
        return QString();
    }
    const QRegularExpressionMatch match = RecordExpressions::instance().forKey(key).match(textOf(file.readAll()));
    file.close();
    if (!match.hasMatch()) {
        critical() << "Did not find value for " << key << " in " << file.fileName();
        return QString();
    }
    return match.captured(QStringLiteral("value"));
}

void TcxoCalDevice::updateTcxoFieldCal(int dacValue, float temperature, float tuningSensitivity)
{
    updateTcxoCalFile(dacValue, [temperature, tuningSensitivity](QString &text) {
        static const QRegularExpression fieldTemperature = replaceExpression(fieldTemperatureKey);
        static const QRegularExpression fieldTuningSensitivity = replaceExpression(fieldTuningSensitivityKey);
        static const QRegularExpression fieldFixTime = replaceExpression(fieldFixTimeKey);
        replaceValue(text, fieldTemperature, realText(temperature));
        replaceValue(text, fieldTuningSensitivity, realText(tuningSensitivity));
        replaceValue(text, fieldFixTime, QString::number(QDateTime::currentMSecsSinceEpoch()));
    });
}

void TcxoCalDevice::updateTcxoFieldCal(int dacValue)
{
    updateTcxoCalFile(dacValue, [](QString &) {});
}

QString TcxoCalDevice::calibrationFile() const
{
    return m_calibrationFile;
}

bool TcxoCalDevice::calDirectoryExists() const
{
    const QString directory = QFileInfo(calibrationFile()).absolutePath();
    return QDir(directory).exists() || QDir().mkpath(directory);
}

void TcxoCalDevice::updateTcxoCalFile(int dacValue, std::function<void(QString &)> editFunction)
{
    m_fieldTcxo = static_cast<quint16>(dacValue);
    if (!QFileInfo(calibrationFile()).isFile())
        return;
    QFile file(calibrationFile());
    file.setPermissions(calFilePermissions);
    if (!file.open(QIODevice::ReadWrite)) {
        writeFailed(calibrationFile(), "open", file.errorString());
        return;
    }
    const QByteArray bytes = file.readAll();
    if (file.error() != QFileDevice::NoError) {
        writeFailed(calibrationFile(), "read", file.errorString());
        return;
    }
    file.close();
    if (bytes.contains('\0')) {
        // Only the text before the NUL byte could be edited: rewriting the file would lose the rest.
        critical() << "Not updating file holding a NUL byte:" << file.fileName();
        return;
    }
    // Keys and values are ASCII, so the edit can work on the bytes one for one. Decoding them
    // as UTF-8 would drop a byte-order mark and replace every byte that is not UTF-8 with
    // U+FFFD all over the file; a UTF-8 file comes back as UTF-8 either way.
    QString text = QString::fromLatin1(bytes);

    static const QRegularExpression fieldTcxoValue(
        QLatin1String(fieldTcxoKey) + QLatin1String("(?<dacValue>") + valueRun + QLatin1Char(')'));
    const QRegularExpressionMatch match = fieldTcxoValue.match(text);
    if (!match.hasMatch() || match.captured(QStringLiteral("dacValue")).toInt() == dacValue)
        return;

    static const QRegularExpression fieldTcxo = replaceExpression(fieldTcxoKey);
    replaceValue(text, fieldTcxo, QString::number(qint64(dacValue)));
    editFunction(text);

    replaceContent(calibrationFile(), text.toLatin1());
}

} // namespace Pal
