// Calibration writes against what the file system does to them: a read-only file, a directory
// or a dangling link in its place, and another writer between two updates. Whatever happens,
// the calibration on disk is the old one or the new one, and nothing else is left behind. (A
// write cut short by the file size limit, as on a full disk, is in tst_tcxocaldevice.)

#include "messagerecorder.h"
#include "tcxotestsupport.h"

#include <pal/tcxocaldevice.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

#include <sys/stat.h>
#include <unistd.h>

using Pal::TcxoCalDevice;
using Factors = TcxoCalDevice::TcxoCalFactors;

namespace {

const Factors other{1, 2, 3, 4, 5, 6, 7, 8, 9};

QByteArray withFieldTcxo(const QByteArray &bytes, int dacValue)
{
    return QByteArray(bytes).replace("FIELD_TCXO=2051", QByteArray("FIELD_TCXO=" + QByteArray::number(dacValue)));
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
        QTest::newRow("removed") << "remove" << QByteArray() << QByteArray();
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
};

QTEST_GUILESS_MAIN(TestTcxoCalDeviceFaults)
#include "tst_tcxocaldevicefaults.moc"
