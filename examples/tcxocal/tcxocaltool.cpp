#include "tcxocaltool.h"

#include <QCommandLineParser>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLoggingCategory>
#include <QRegularExpression>

#include <cerrno>
#include <cmath>
#include <utility>

using Pal::TcxoCalDevice;

namespace {

// The nine fields in the file's order, with the option of create that sets each.
struct Field
{
    const char *key;
    const char *option;
    bool dac; // an unsigned 32-bit DAC value; the others are floats
};

const Field s_fields[] = {
    {Pal::factoryTcxoKey, "factory-tcxo", true},
    {Pal::factoryTemperatureKey, "factory-temperature", false},
    {Pal::factoryTuningSensitivityKey, "factory-sensitivity", false},
    {Pal::fieldTcxoKey, "field-tcxo", true},
    {Pal::fieldTemperatureKey, "field-temperature", false},
    {Pal::fieldTuningSensitivityKey, "field-sensitivity", false},
    {Pal::fieldFixTimeKey, "field-fix-time", false},
    {Pal::fixDecayTimeKey, "fix-decay-time", false},
    {Pal::refSourceDisplayKey, "ref-source-display", false},
};

const QByteArray deviceKey = QByteArrayLiteral("tcxo");

float *realField(TcxoCalDevice::TcxoCalFactors &factors, int index)
{
    float *const fields[]
        = {nullptr, &factors.factoryTemperature, &factors.factoryTuningSensitivity, nullptr, &factors.fieldTemperature,
            &factors.fieldTuningSensitivity, &factors.fieldFixTime, &factors.fixDecayTime, &factors.refSourceDisplay};
    return fields[index];
}

unsigned int *dacField(TcxoCalDevice::TcxoCalFactors &factors, int index)
{
    return index == 0 ? &factors.factoryTcxo : &factors.fieldTcxo;
}

// A field as the file writes it: DAC values in decimal, the others with 6 significant digits.
QString fieldText(TcxoCalDevice::TcxoCalFactors factors, int index)
{
    if (s_fields[index].dac)
        return QString::number(*dacField(factors, index));
    return QString::number(double(*realField(factors, index)), 'g', 6);
}

QString keyList()
{
    QStringList keys;
    for (const Field &field : s_fields)
        keys << QLatin1String(field.key).chopped(1);
    return keys.join(QLatin1String(", "));
}

bool isKey(const QString &key)
{
    for (const Field &field : s_fields) {
        if (key == QLatin1String(field.key))
            return true;
    }
    return false;
}

QString quoted(const QString &text)
{
    return QLatin1Char('"') + text + QLatin1Char('"');
}

// A number from the command line, or a message naming the option and the text.
bool parseReal(const QString &name, const QString &text, float *value, QString *error)
{
    bool ok = false;
    *value = text.toFloat(&ok);
    if (ok && std::isfinite(*value))
        return true;
    *error = QStringLiteral("%1 wants a number, not %2").arg(name, quoted(text));
    return false;
}

// The file that a write replaces: a symbolic link's target, so that the link stays a link,
// as the device itself writes through links.
QFileInfo replacedFile(const QString &file)
{
    const QFileInfo info(file);
    return info.isSymLink() && info.exists() ? QFileInfo(info.canonicalFilePath()) : info;
}

QtMessageHandler s_previousHandler = nullptr;
// The device's warnings about its last write, which it reports in no other way.
QStringList s_writeWarnings;

// The device's own messages ("Cannot open file", "Did not find value for") say in its terms
// what the tool says to the user in its own; every other message goes on as Qt prints it.
void quietDeviceMessages(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    if (qstrcmp(context.category, "krpal.tcxocal") == 0) {
        s_writeWarnings << text;
        return;
    }
    const bool fromDevice = type == QtCriticalMsg
        && (text.startsWith(QLatin1String("Cannot open file")) || text.startsWith(QLatin1String("Did not find value"))
            || text.startsWith(QLatin1String("Not updating file")));
    if (!fromDevice && s_previousHandler)
        s_previousHandler(type, context, text);
}

// What the device's write of @p file reported, without the file name it begins with.
QString writeProblem(const QString &file, const QString &warning)
{
    for (const QString &prefix :
        {QStringLiteral("Cannot write \"%1\": ").arg(file), QStringLiteral("Wrote \"%1\" but ").arg(file)}) {
        if (warning.startsWith(prefix))
            return warning.mid(prefix.size());
    }
    return warning;
}

// The failed step and its reason, as "<step> failed: <reason>".
QString failure(const char *step, const QFileDevice &file)
{
    return QStringLiteral("%1 failed: %2").arg(QLatin1String(step), file.errorString());
}

// Library-like reading of the field DAC value: the value run after the first "FIELD_TCXO=".
bool fieldDacOf(const QByteArray &bytes, int *value)
{
    static const QRegularExpression expression(QStringLiteral("FIELD_TCXO=([-\\d.+e]*)"));
    const QRegularExpressionMatch match = expression.match(QString::fromLatin1(bytes));
    *value = match.captured(1).toInt();
    return match.hasMatch();
}

} // namespace

TcxoCalTool::TcxoCalTool()
    : m_out(stdout)
    , m_err(stderr)
{
    s_previousHandler = qInstallMessageHandler(quietDeviceMessages);
    // The device names a failed step only in these warnings, which are off by default.
    QLoggingCategory::setFilterRules(QStringLiteral("krpal.tcxocal.warning=true"));
}

TcxoCalTool::~TcxoCalTool()
{
    qInstallMessageHandler(s_previousHandler);
}

int TcxoCalTool::run(const QStringList &arguments)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Shows and changes the TCXO calibration file of a KrPal board.\n"
        "\n"
        "Commands:\n"
        "  show FILE     the calibration record, one key per line, and whether every key was found\n"
        "  get FILE KEY  the value of KEY, spelled as in the file, with or without its \"=\"\n"
        "  create FILE   writes a new calibration file from the create options; a field left out is 0\n"
        "  field FILE DAC [--temperature T --sensitivity S]\n"
        "                records a field calibration; the file changes only when DAC differs from its own\n"
        "\n"
        "Exit status: 0 done, 1 the file could not be read or written or lacks a key, 2 a wrong command line\n"
        "(unknown command, option or key, or a bad number)."));
    parser.addHelpOption();
    parser.addPositionalArgument(QStringLiteral("command"), QStringLiteral("show, get, create or field"));
    parser.addPositionalArgument(
        QStringLiteral("arguments"), QStringLiteral("the command's arguments"), QStringLiteral("[arguments...]"));
    QStringList createOptions;
    for (const Field &field : s_fields) {
        const QString option = QLatin1String(field.option);
        parser.addOption({option,
            QStringLiteral("create: the value of %1, %2.")
                .arg(QLatin1String(field.key),
                    field.dac ? QStringLiteral("a whole number from 0 to 4294967295") : QStringLiteral("a number")),
            field.dac ? QStringLiteral("dac") : QStringLiteral("value")});
        createOptions << option;
    }
    parser.addOption({QStringLiteral("force"), QStringLiteral("create: replace an existing calibration file.")});
    createOptions << QStringLiteral("force");
    parser.addOption({QStringLiteral("temperature"), QStringLiteral("field: the temperature of the calibration."),
        QStringLiteral("T")});
    parser.addOption({QStringLiteral("sensitivity"),
        QStringLiteral("field: the tuning sensitivity of the calibration."), QStringLiteral("S")});

    if (!parser.parse(arguments)) {
        // A negative number reads as a cluster of short options, "-5" as the option "5".
        const QStringList unknown = parser.unknownOptionNames();
        const QRegularExpression digits(QStringLiteral("^[0-9.]+$"));
        if (!unknown.isEmpty() && unknown.filter(digits).size() == unknown.size()) {
            const QStringList numbers = arguments.mid(1).filter(QRegularExpression(QStringLiteral("^-[0-9.]")));
            return fail(QStringLiteral("%1 is no option, and a DAC value is a whole number from 0 to 2147483647")
                            .arg(quoted(numbers.value(0))),
                UsageError);
        }
        return fail(parser.errorText() + QStringLiteral(" (see --help)"), UsageError);
    }
    if (parser.isSet(QStringLiteral("help"))) {
        m_out << parser.helpText();
        return Done;
    }
    const QStringList positional = parser.positionalArguments();
    const QString command = positional.value(0);
    const QStringList commandArguments = positional.mid(1);

    QString usage;
    int argumentCount = 1;
    QStringList allowedOptions;
    if (command == QLatin1String("show")) {
        usage = QStringLiteral("show FILE");
    } else if (command == QLatin1String("get")) {
        usage = QStringLiteral("get FILE KEY");
        argumentCount = 2;
    } else if (command == QLatin1String("create")) {
        usage = QStringLiteral("create FILE [options]");
        allowedOptions = createOptions;
    } else if (command == QLatin1String("field")) {
        usage = QStringLiteral("field FILE DAC [--temperature T --sensitivity S]");
        argumentCount = 2;
        allowedOptions = QStringList{QStringLiteral("temperature"), QStringLiteral("sensitivity")};
    } else if (command.isEmpty()) {
        return fail(QStringLiteral("which command? show, get, create or field (see --help)"), UsageError);
    } else {
        return fail(QStringLiteral("unknown command %1; the commands are show, get, create and field (see --help)")
                        .arg(quoted(command)),
            UsageError);
    }
    if (commandArguments.size() != argumentCount)
        return fail(QStringLiteral("usage: krpal-tcxocal %1").arg(usage), UsageError);
    const QStringList options = parser.optionNames();
    for (const QString &option : options) {
        if (!allowedOptions.contains(option))
            return fail(QStringLiteral("--%1 is no option of %2 (see --help)").arg(option, command), UsageError);
    }

    if (command == QLatin1String("show"))
        return show(commandArguments[0]);
    if (command == QLatin1String("get"))
        return get(commandArguments[0], commandArguments[1]);
    if (command == QLatin1String("create"))
        return create(commandArguments[0], parser);
    return field(commandArguments[0], commandArguments[1], parser);
}

int TcxoCalTool::show(const QString &file)
{
    if (!checkReadable(file))
        return Failed;
    const TcxoCalDevice device(deviceKey, file);
    TcxoCalDevice::TcxoCalFactors factors;
    device.getTcxoCalFactors(factors);
    QStringList missing;
    for (int i = 0; i < int(std::size(s_fields)); ++i) {
        const QString key = QLatin1String(s_fields[i].key);
        if (device.getValue(key, false).isNull()) {
            missing << key;
            m_out << key << "    (missing)\n";
        } else {
            m_out << key << fieldText(factors, i) << '\n';
        }
    }
    if (missing.isEmpty()) {
        m_out << "all 9 keys found in " << file << '\n';
        return Done;
    }
    m_out << (9 - missing.size()) << " of 9 keys found in " << file
          << "; missing: " << missing.join(QLatin1String(", ")) << '\n';
    return Failed;
}

int TcxoCalTool::get(const QString &file, const QString &key)
{
    const QString fileKey = key.endsWith(QLatin1Char('=')) ? key : key + QLatin1Char('=');
    if (!isKey(fileKey))
        return fail(QStringLiteral("unknown key %1; the keys are %2").arg(quoted(key), keyList()), UsageError);
    if (!checkReadable(file))
        return Failed;
    const TcxoCalDevice device(deviceKey, file);
    const QString value = device.getValue(fileKey, false);
    if (value.isNull())
        return fail(QStringLiteral("%1 has no %2 line").arg(file, fileKey), Failed);
    m_out << value << '\n';
    return Done;
}

int TcxoCalTool::create(const QString &file, const QCommandLineParser &parser)
{
    TcxoCalDevice::TcxoCalFactors factors; // a field left out is 0
    for (int i = 0; i < int(std::size(s_fields)); ++i) {
        const QString option = QLatin1String(s_fields[i].option);
        if (!parser.isSet(option))
            continue;
        const QString text = parser.value(option);
        QString error;
        if (s_fields[i].dac) {
            bool ok = false;
            *dacField(factors, i) = text.toUInt(&ok);
            if (!ok) {
                return fail(
                    QStringLiteral("--%1 wants a whole number from 0 to 4294967295, not %2").arg(option, quoted(text)),
                    UsageError);
            }
        } else if (!parseReal(QLatin1String("--") + option, text, realField(factors, i), &error)) {
            return fail(error, UsageError);
        }
    }

    const QFileInfo info = replacedFile(file);
    if (info.isDir())
        return fail(QStringLiteral("%1 is a directory").arg(file), Failed);
    if (info.exists() && !parser.isSet(QStringLiteral("force")))
        return fail(QStringLiteral("%1 exists; give --force to replace it").arg(file), Failed);
    // QDir::mkpath() calls mkdir() even for a directory that exists: a failure there is none.
    if (!QFileInfo(info.absolutePath()).isDir() && !QDir().mkpath(info.absolutePath())) {
        const QString reason = qt_error_string(errno);
        return fail(QStringLiteral("cannot create the directory %1: mkdir failed: %2").arg(info.absolutePath(), reason),
            Failed);
    }
    TcxoCalDevice device(deviceKey, file);
    device.createTcxoCalFile(factors);
    if (!written(file))
        return Failed;
    m_out << "created " << file << ":\n";
    QByteArray bytes;
    QString problem;
    if (!readFile(file, &bytes, &problem)) {
        m_out << "(cannot read it back: " << problem << ")\n";
        return Done;
    }
    m_out << bytes << '\n';
    return Done;
}

int TcxoCalTool::field(const QString &file, const QString &dac, const QCommandLineParser &parser)
{
    bool ok = false;
    const int dacValue = dac.toInt(&ok);
    if (!ok || dacValue < 0)
        return fail(
            QStringLiteral("DAC wants a whole number from 0 to 2147483647, not %1").arg(quoted(dac)), UsageError);
    const bool withTemperature = parser.isSet(QStringLiteral("temperature"));
    if (withTemperature != parser.isSet(QStringLiteral("sensitivity")))
        return fail(QStringLiteral("give --temperature and --sensitivity together, or neither"), UsageError);
    float temperature = 0;
    float sensitivity = 0;
    QString error;
    if (withTemperature
        && (!parseReal(
                QStringLiteral("--temperature"), parser.value(QStringLiteral("temperature")), &temperature, &error)
            || !parseReal(
                QStringLiteral("--sensitivity"), parser.value(QStringLiteral("sensitivity")), &sensitivity, &error)))
        return fail(error, UsageError);

    if (!checkReadable(file))
        return Failed;
    QByteArray bytes;
    QString problem;
    if (!readFile(file, &bytes, &problem))
        return fail(QStringLiteral("cannot read %1: %2").arg(file, problem), Failed);
    if (bytes.contains('\0'))
        return fail(QStringLiteral("%1 holds a NUL byte; it is not rewritten").arg(file), Failed);
    int fileDac = 0;
    if (!fieldDacOf(bytes, &fileDac))
        return fail(QStringLiteral("%1 has no FIELD_TCXO= line; nothing to update").arg(file), Failed);
    if (fileDac == dacValue) {
        m_out << "FIELD_TCXO is already " << dacValue << " in " << file << "; the file is left as it was";
        if (withTemperature)
            m_out << ", as temperature and sensitivity are recorded only with a new DAC value";
        m_out << '\n';
        return Done;
    }

    TcxoCalDevice device(deviceKey, file);
    if (withTemperature)
        device.updateTcxoFieldCal(dacValue, temperature, sensitivity);
    else
        device.updateTcxoFieldCal(dacValue);
    if (!written(file))
        return Failed;
    QByteArray afterBytes;
    if (!readFile(file, &afterBytes, &problem)) {
        m_out << "updated " << file << " (cannot read it back: " << problem << ")\n";
        return Done;
    }
    const QStringList before = QString::fromUtf8(bytes).split(QLatin1Char('\n'));
    const QStringList after = QString::fromUtf8(afterBytes).split(QLatin1Char('\n'));
    for (int i = 0; i < qMin(before.size(), after.size()); ++i) {
        if (before[i] != after[i])
            m_out << before[i] << "  ->  " << after[i] << '\n';
    }
    m_out << "updated " << file << '\n';
    return Done;
}

bool TcxoCalTool::written(const QString &file)
{
    const QStringList warnings = std::exchange(s_writeWarnings, {});
    for (const QString &warning : warnings) {
        if (warning.startsWith(QLatin1String("Cannot write"))) {
            fail(QStringLiteral("cannot write %1: %2; the file is left as it was")
                     .arg(file, writeProblem(file, warning)),
                Failed);
            return false;
        }
    }
    // The calibration is replaced, but a power cut may still take the change back.
    for (const QString &warning : warnings)
        m_err << "krpal-tcxocal: warning: " << file << " was written, but " << writeProblem(file, warning) << '\n';
    m_err.flush();
    return true;
}

bool TcxoCalTool::readFile(const QString &file, QByteArray *bytes, QString *problem)
{
    QFile in(file);
    if (!in.open(QIODevice::ReadOnly)) {
        *problem = failure("open", in);
        return false;
    }
    *bytes = in.readAll();
    if (in.error() != QFileDevice::NoError) {
        *problem = failure("read", in);
        return false;
    }
    return true;
}

bool TcxoCalTool::checkReadable(const QString &file)
{
    const QFileInfo info(file);
    if (!info.exists())
        fail(QStringLiteral("%1: no such file").arg(file), Failed);
    else if (!info.isFile())
        fail(QStringLiteral("%1 is not a regular file").arg(file), Failed);
    else if (!info.isReadable())
        fail(QStringLiteral("%1 cannot be read").arg(file), Failed);
    else
        return true;
    return false;
}

int TcxoCalTool::fail(const QString &message, ExitStatus status)
{
    m_err << "krpal-tcxocal: " << message << '\n';
    m_err.flush();
    return status;
}
