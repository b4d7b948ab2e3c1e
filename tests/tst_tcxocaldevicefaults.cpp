// Calibration writes against what the file system does to them: a file that cannot be
// written, a directory or a dangling link in its place, a full or read-only file system, and
// another writer between two updates. Whatever happens, the calibration on disk is the old one
// or the new one, and nothing else is left behind. (A write cut short by the file size limit
// is in tst_tcxocaldevice.)

#include "messagerecorder.h"
#include "tcxotestsupport.h"

#include <pal/tcxocaldevice.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

#include <cerrno>
#include <cstring>
#include <functional>

#include <fcntl.h>
#include <linux/fs.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using Pal::TcxoCalDevice;
using Factors = TcxoCalDevice::TcxoCalFactors;

namespace {

const Factors example{2048, 25.5f, 0.0125f, 2051, 31.75f, 0.0124f, 1.7e12f, 3600, 1};
const QByteArray exampleBytes = "FACTORY_TCXO=2048\nFACTORY_TEMPERATURE=25.5\nFACTORY_TUNING_SENSITIVITY=0.0125\n"
                                "FIELD_TCXO=2051\nFIELD_TEMPERATURE=31.75\nFIELD_TUNING_SENSITIVITY=0.0124\n"
                                "FIELD_FIX_TIME=1.7e+12\nFIX_DECAY_TIME=3600\nREF_SOURCE_DISPLAY=1";
const Factors other{1, 2, 3, 4, 5, 6, 7, 8, 9};

QByteArray withFieldTcxo(const QByteArray &bytes, int dacValue)
{
    return QByteArray(bytes).replace("FIELD_TCXO=2051", QByteArray("FIELD_TCXO=" + QByteArray::number(dacValue)));
}

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<unreadable>");
}

bool writeFile(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

int modeOf(const QString &path)
{
    struct stat st;
    return ::lstat(QFile::encodeName(path).constData(), &st) == 0 ? int(st.st_mode & 07777) : -1;
}

QStringList entriesOf(const QString &directory)
{
    return QDir(directory).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
}

// Sets or clears the immutable attribute, which keeps even root from changing, replacing or
// removing the file.
bool setImmutable(const QString &path, bool immutable)
{
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    int flags = 0;
    bool done = ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
    flags = immutable ? flags | FS_IMMUTABLE_FL : flags & ~FS_IMMUTABLE_FL;
    done = done && ::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
    ::close(fd);
    return done;
}

// Runs @p body in a child process with a tmpfs mounted at @p directory with @p options, in a
// mount namespace of the child's own: nobody else sees the mount, and it goes with the child
// whatever happens. Returns what @p body returns (empty for success), or "skip: <reason>" when
// the machine does not allow it.
QString inPrivateTmpfs(const QString &directory, const char *options, const std::function<QString()> &body)
{
    int pipeFds[2];
    if (::pipe(pipeFds) != 0)
        return QStringLiteral("pipe failed");
    const pid_t child = ::fork();
    if (child < 0)
        return QStringLiteral("fork failed");
    if (child == 0) {
        ::close(pipeFds[0]);
        QString result;
        const QByteArray target = QFile::encodeName(directory);
        if (::unshare(CLONE_NEWNS) != 0)
            result = QStringLiteral("skip: no mount namespace of its own: ") + QString::fromLocal8Bit(strerror(errno));
        // Source and type are ignored here; named all the same, since valgrind checks them.
        else if (::mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) != 0
            || ::mount("krpal-test", target.constData(), "tmpfs", MS_NOSUID | MS_NODEV, options) != 0)
            result = QStringLiteral("skip: cannot mount a tmpfs: ") + QString::fromLocal8Bit(strerror(errno));
        else
            result = body();
        const QByteArray bytes = result.toUtf8();
        const bool written = ::write(pipeFds[1], bytes.constData(), size_t(bytes.size())) == bytes.size();
        ::_exit(written ? 0 : 1);
    }
    ::close(pipeFds[1]);
    QByteArray bytes;
    char buffer[512];
    for (ssize_t count; (count = ::read(pipeFds[0], buffer, sizeof buffer)) > 0;)
        bytes.append(buffer, int(count));
    ::close(pipeFds[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        return QStringLiteral("child ended with status %1: %2").arg(status).arg(QString::fromUtf8(bytes));
    return QString::fromUtf8(bytes);
}

#define EXPECT(condition, what)                                                                                        \
    do {                                                                                                               \
        if (!(condition))                                                                                              \
            return QStringLiteral("line %1: %2").arg(__LINE__).arg(what);                                              \
    } while (false)

} // namespace

class TestTcxoCalDeviceFaults : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    // The write gets what the file's owner may always do: it makes the file 0604 again.
    void readOnlyModeIsRestored()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath("tcxo.cal");
        TcxoCalDevice device("tcxo", path);
        device.createTcxoCalFile(example);
        QVERIFY(::chmod(QFile::encodeName(path).constData(), 0444) == 0);
        device.updateTcxoFieldCal(2060);
        QCOMPARE(contentOf(path), withFieldTcxo(exampleBytes, 2060));
        QCOMPARE(modeOf(path), 0604);
    }

    // A file that nobody may change stays as it is, and no temporary file is left beside it.
    void immutableFileIsLeftAlone()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath("tcxo.cal");
        TcxoCalDevice device("tcxo", path);
        device.createTcxoCalFile(example);
        if (!setImmutable(path, true))
            QSKIP("Cannot make a file immutable here (needs root and a file system with the attribute)");
        device.updateTcxoFieldCal(2060, 30.5f, 0.0126f);
        device.updateTcxoFieldCal(2061);
        device.createTcxoCalFile(other);
        const QByteArray bytes = contentOf(path);
        const QStringList entries = entriesOf(dir.path());
        QVERIFY(setImmutable(path, false));

        QCOMPARE(bytes, exampleBytes);
        QCOMPARE(entries, QStringList{"tcxo.cal"});
        QCOMPARE(device.getValue(Pal::fieldTcxoKey, true), QString("4"));
        QCOMPARE(device.getValue(Pal::fieldTcxoKey, false), QString("2051"));
    }

    // Whatever stands at the path instead of a file is neither replaced nor followed into.
    void somethingElseAtThePath_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::newRow("directory") << "directory";
        QTest::newRow("dangling symbolic link") << "dangling link";
    }
    void somethingElseAtThePath()
    {
        QFETCH(QString, kind);
        QTemporaryDir dir;
        const QString path = dir.filePath("tcxo.cal");
        if (kind == "directory") {
            QVERIFY(QDir().mkpath(path));
            QVERIFY(writeFile(path + "/inside", "x"));
        } else {
            QVERIFY(QFile::link(dir.filePath("missing/tcxo.cal"), path));
        }
        MessageRecorder recorder;
        TcxoCalDevice device("tcxo", path);
        QCOMPARE(recorder.takeMessages(),
            QStringList{QStringLiteral("critical default: Cannot open file \"%1\"").arg(path)});
        device.updateTcxoFieldCal(2060, 30.5f, 0.0126f);
        device.updateTcxoFieldCal(2061);
        device.createTcxoCalFile(example);
        Factors factors = other;
        QVERIFY(!device.getTcxoCalFactors(factors));
        QCOMPARE(factors, other);
        QVERIFY(device.getValue(Pal::factoryTcxoKey, false).isNull());

        QCOMPARE(entriesOf(dir.path()), QStringList{"tcxo.cal"});
        if (kind == "directory") {
            QVERIFY(QFileInfo(path).isDir());
            QCOMPARE(entriesOf(path), QStringList{"inside"});
        } else {
            QCOMPARE(QFileInfo(path).symLinkTarget(), dir.filePath("missing/tcxo.cal"));
            QVERIFY(!QFileInfo::exists(dir.filePath("missing")));
        }
        QCOMPARE(device.getValue(Pal::fieldTcxoKey, true), QString("2051"));
    }

    // The calibration behind a link is written where the link points; the link stays a link.
    void symbolicLinkToTheFileStaysALink()
    {
        QTemporaryDir dir;
        const QString target = dir.filePath("real/tcxo.cal");
        const QString path = dir.filePath("tcxo.cal");
        QVERIFY(QDir().mkpath(dir.filePath("real")));
        QVERIFY(writeFile(target, exampleBytes));
        QVERIFY(QFile::link(target, path));
        TcxoCalDevice device("tcxo", path);
        device.updateTcxoFieldCal(2060);
        QCOMPARE(QFileInfo(path).symLinkTarget(), target);
        QCOMPARE(contentOf(target), withFieldTcxo(exampleBytes, 2060));
        device.createTcxoCalFile(other);
        QCOMPARE(QFileInfo(path).symLinkTarget(), target);
        QVERIFY(contentOf(target).startsWith("FACTORY_TCXO=1\n"));
        QCOMPARE(entriesOf(dir.filePath("real")), QStringList{"tcxo.cal"});
    }

    // Every update reads the file afresh: another writer's changes between two updates are
    // kept, and the device's cached value decides nothing.
    void anotherWriterBetweenUpdates_data()
    {
        QTest::addColumn<QString>("writer");
        QTest::addColumn<QByteArray>("written");
        QTest::addColumn<QByteArray>("expected");
        const QByteArray theirs = QByteArray(exampleBytes).replace("FACTORY_TCXO=2048", "FACTORY_TCXO=1999");
        QTest::newRow("rewritten in place") << "in place" << withFieldTcxo(theirs, 77) << withFieldTcxo(theirs, 2070);
        QTest::newRow("replaced by rename") << "rename" << withFieldTcxo(theirs, 77) << withFieldTcxo(theirs, 2070);
        QTest::newRow("already the new value")
            << "in place" << withFieldTcxo(theirs, 2070) << withFieldTcxo(theirs, 2070);
        QTest::newRow("key removed") << "in place" << QByteArray("FACTORY_TCXO=1\n") << QByteArray("FACTORY_TCXO=1\n");
        QTest::newRow("NUL byte added") << "in place" << withFieldTcxo(exampleBytes, 5) + '\0'
                                        << withFieldTcxo(exampleBytes, 5) + '\0';
        QTest::newRow("removed") << "remove" << QByteArray() << QByteArray("<unreadable>");
    }
    void anotherWriterBetweenUpdates()
    {
        QFETCH(QString, writer);
        QFETCH(QByteArray, written);
        QFETCH(QByteArray, expected);
        QTemporaryDir dir;
        const QString path = dir.filePath("tcxo.cal");
        TcxoCalDevice device("tcxo", path);
        device.createTcxoCalFile(example);
        device.updateTcxoFieldCal(2060);
        QCOMPARE(contentOf(path), withFieldTcxo(exampleBytes, 2060));

        if (writer == "rename") {
            QVERIFY(writeFile(dir.filePath("theirs"), written));
            QVERIFY(::rename(QFile::encodeName(dir.filePath("theirs")).constData(), QFile::encodeName(path)) == 0);
        } else if (writer == "remove") {
            QVERIFY(QFile::remove(path));
        } else {
            QVERIFY(writeFile(path, written));
        }
        MessageRecorder recorder;
        device.updateTcxoFieldCal(2070);
        QCOMPARE(contentOf(path), expected);
        QCOMPARE(entriesOf(dir.path()), writer == "remove" ? QStringList() : QStringList{"tcxo.cal"});
        QCOMPARE(recorder.takeMessages().size(), written.contains('\0') ? 1 : 0);
        QCOMPARE(device.getValue(Pal::fieldTcxoKey, true), QString("2070"));
    }

    // A reader that opened the file before an update goes on reading the whole old calibration.
    void readerKeepsTheOldCalibration()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath("tcxo.cal");
        TcxoCalDevice device("tcxo", path);
        device.createTcxoCalFile(example);
        QFile reader(path);
        QVERIFY(reader.open(QIODevice::ReadOnly | QIODevice::Unbuffered));
        QCOMPARE(reader.read(13), QByteArray("FACTORY_TCXO="));
        device.updateTcxoFieldCal(2060);
        device.createTcxoCalFile(other);
        QCOMPARE("FACTORY_TCXO=" + reader.readAll(), exampleBytes);
        QVERIFY(contentOf(path).startsWith("FACTORY_TCXO=1\n"));
    }

    // A full file system: the temporary file cannot take the new calibration, so the old one
    // stays, and nothing is left behind. Once there is room again, updates go through.
    void fullFileSystem()
    {
        QTemporaryDir dir;
        const QString mountPoint = dir.filePath("full");
        QVERIFY(QDir().mkdir(mountPoint));
        const QString result = inPrivateTmpfs(mountPoint, "size=16k,mode=0700", [&mountPoint]() -> QString {
            const QString path = mountPoint + "/tcxo.cal";
            TcxoCalDevice device("tcxo", path);
            device.createTcxoCalFile(example);
            EXPECT(contentOf(path) == exampleBytes, "the calibration was not written");
            QFile filler(mountPoint + "/filler");
            EXPECT(filler.open(QIODevice::WriteOnly | QIODevice::Unbuffered), "no filler");
            const QByteArray block(1024, 'f');
            while (filler.write(block) == block.size()) { }
            filler.close();

            device.updateTcxoFieldCal(2060, 30.5f, 0.0126f);
            device.updateTcxoFieldCal(2061);
            device.createTcxoCalFile(other);
            EXPECT(contentOf(path) == exampleBytes, "the calibration changed: " + QString::fromLatin1(contentOf(path)));
            EXPECT(modeOf(path) == 0604, "mode changed");
            EXPECT(entriesOf(mountPoint) == (QStringList{"filler", "tcxo.cal"}),
                "left behind: " + entriesOf(mountPoint).join(' '));

            EXPECT(QFile::remove(mountPoint + "/filler"), "filler not removed");
            device.updateTcxoFieldCal(2060);
            EXPECT(contentOf(path) == withFieldTcxo(exampleBytes, 2060), "no update with room again");
            return QString();
        });
        if (result.startsWith("skip: "))
            QSKIP(qPrintable(result.mid(6)));
        QVERIFY2(result.isEmpty(), qPrintable(result));
    }

    // A file system mounted read-only: nothing can be written, and nothing is.
    void readOnlyFileSystem()
    {
        QTemporaryDir dir;
        const QString mountPoint = dir.filePath("ro");
        QVERIFY(QDir().mkdir(mountPoint));
        const QString result = inPrivateTmpfs(mountPoint, "size=64k,mode=0700", [&mountPoint]() -> QString {
            const QString path = mountPoint + "/tcxo.cal";
            TcxoCalDevice device("tcxo", path);
            device.createTcxoCalFile(example);
            EXPECT(::mount("krpal-test", QFile::encodeName(mountPoint).constData(), "tmpfs", MS_REMOUNT | MS_RDONLY,
                       nullptr)
                    == 0,
                QStringLiteral("skip: cannot remount read-only: ") + QString::fromLocal8Bit(strerror(errno)));

            device.updateTcxoFieldCal(2060, 30.5f, 0.0126f);
            device.updateTcxoFieldCal(2061);
            device.createTcxoCalFile(other);
            EXPECT(contentOf(path) == exampleBytes, "the calibration changed: " + QString::fromLatin1(contentOf(path)));
            EXPECT(entriesOf(mountPoint) == QStringList{"tcxo.cal"}, "left behind: " + entriesOf(mountPoint).join(' '));
            Factors factors{};
            EXPECT(device.getTcxoCalFactors(factors) && factors == example, "the calibration does not read back");
            return QString();
        });
        if (result.contains("skip: "))
            QSKIP(qPrintable(result.mid(result.indexOf("skip: ") + 6)));
        QVERIFY2(result.isEmpty(), qPrintable(result));
    }
};

QTEST_GUILESS_MAIN(TestTcxoCalDeviceFaults)
#include "tst_tcxocaldevicefaults.moc"
