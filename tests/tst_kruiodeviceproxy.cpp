#include <pal/devices/kruiodeviceproxy.h>
#include <pal/devices/kruioregisters.h>
#include <pal/krdatacollector.h>

#include <QDir>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <condition_variable>
#include <mutex>

#include <poll.h>
#include <pty.h>
#include <sys/stat.h>
#include <unistd.h>

using Pal::KrUioDeviceProxy;
using Pal::KrUioRegisters;

class TestKrUioDeviceProxy : public QObject
{
    Q_OBJECT
public Q_SLOTS:
    void record(const QByteArray &buffer)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_buffers.append(buffer);
        m_recorded.notify_all();
    }

private:
    QTemporaryDir m_root;
    std::mutex m_mutex;
    std::condition_variable m_recorded;
    QList<QByteArray> m_buffers; // rawDataReady, on the collector thread
    const int m_page = int(sysconf(_SC_PAGESIZE));

    void put(const QString &path, const QByteArray &bytes)
    {
        QVERIFY(QDir().mkpath(QFileInfo(m_root.filePath(path)).path()));
        QFile file(m_root.filePath(path));
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size());
    }
    void uio(int n, const QByteArray &name, const QList<QByteArray> &sizes)
    {
        put(QStringLiteral("sys/class/uio/uio%1/name").arg(n), name + '\n');
        for (int i = 0; i < sizes.size(); ++i)
            put(QStringLiteral("sys/class/uio/uio%1/maps/map%2/size").arg(n).arg(i), sizes.at(i) + '\n');
    }
    QString message(const QString &device, const QString &reason) const
    {
        return QStringLiteral("UIO device \"%1\": %2")
            .arg(device, QString(reason).replace(QLatin1String("%1"), m_root.path()));
    }

private Q_SLOTS:
    void initTestCase()
    {
        uio(1, "adc-ctrl", {"0x1000", "0x20"});
        uio(2, "broken", {"0x0"});
        uio(3, "short", {"0x1000"});
        uio(4, "fifo", {"0x1000"});
        uio(5, "absent", {"0x1000"});
        put(QStringLiteral("dev/uio3"), QByteArray(100, 0));
        put(QStringLiteral("dev/adc"), QByteArray(m_page, 0));
        QCOMPARE(mkfifo(QFile::encodeName(m_root.filePath(QStringLiteral("dev/uio4"))).constData(), 0600), 0);
    }
    void init() { put(QStringLiteral("dev/uio1"), QByteArray(2 * m_page, 0)); }

    void opening_data()
    {
        QTest::addColumn<QString>("device");
        QTest::addColumn<int>("mapIndex");
        QTest::addColumn<quint32>("mapSize");
        QTest::addColumn<QString>("error");
        QTest::newRow("by name") << "adc-ctrl" << 0 << 0x1000u << "";
        QTest::newRow("by node") << "/dev/uio1" << 1 << 0x20u << "";
        QTest::newRow("unknown name") << "adc" << 0 << 0u << "no UIO device of this name in %1/sys/class/uio";
        QTest::newRow("no such map") << "adc-ctrl" << 2 << 0u << "uio1 has no map 2";
        QTest::newRow("size 0") << "broken" << 0 << 0u << "map 0 of uio2 has no usable size (\"0x0\")";
        QTest::newRow("no uioN node") << "/dev/adc" << 0 << 0u << "%1/dev/adc is no UIO node (/dev/uioN)";
        QTest::newRow("no node") << "absent" << 0 << 0u << "cannot open %1/dev/uio5: No such file or directory";
        QTest::newRow("short image") << "short" << 0 << 0u
                                     << "cannot map 4096 bytes of map 0 from %1/dev/uio3: the file holds 100 bytes";
        QTest::newRow("unmappable") << "fifo" << 0 << 0u
                                    << "cannot map 4096 bytes of map 0 from %1/dev/uio4: No such device";
    }
    void opening()
    {
        QFETCH(QString, device);
        QFETCH(int, mapIndex);
        QFETCH(quint32, mapSize);
        QFETCH(QString, error);
        KrUioDeviceProxy proxy(device, mapIndex, m_root.path());
        QCOMPARE(proxy.isOpen(), error.isEmpty());
        QCOMPARE(proxy.mapSize(), mapSize);
        char bytes[8] = {};
        if (!proxy.isOpen()) // every operation fails at once, and the reason stays
            QVERIFY(
                proxy.write(bytes, 8) == -1 && proxy.ioctl(bytes, 4, bytes, 8, 0) == -1 && proxy.read(bytes, 8) == -1);
        QCOMPARE(proxy.errorString(), error.isEmpty() ? QString() : message(device, error));
    }

    // Stores, then loads of the same registers; a batch rejected leaves every byte as it was.
    void registers_data()
    {
        QTest::addColumn<int>("mapIndex");
        QTest::addColumn<QByteArray>("batch");
        QTest::addColumn<QList<quint32>>("offsets");
        QTest::addColumn<QByteArray>("stored");
        QTest::addColumn<QList<quint32>>("values");
        QTest::addColumn<QString>("error");
        const QByteArray batch = KrUioRegisters::writes({{0, 0x11223344}, {8, 0xaabbccdd}, {0, 0x55667788}});
        const auto bad = [&batch](quint32 offset) -> QByteArray { return batch + KrUioRegisters::write(offset, 1); };
        QTest::newRow("in order") << 0 << batch << QList<quint32>{8, 0, 8}
                                  << QByteArray::fromHex("8877665500000000ddccbbaa")
                                  << QList<quint32>{0xaabbccdd, 0x55667788, 0xaabbccdd} << "";
        QTest::newRow("second map") << 1 << KrUioRegisters::writes({{0x1c, 7}, {4, 2}}) << QList<quint32>{0x1c, 4}
                                    << QByteArray::fromHex("0000000002").leftJustified(28, 0) + '\7'
                                    << QList<quint32>{7, 2} << "";
        QTest::newRow("empty batch") << 0 << QByteArray() << QList<quint32>{} << QByteArray() << QList<quint32>{} << "";
        QTest::newRow("half a pair") << 0 << batch.left(20) << QList<quint32>{} << QByteArray() << QList<quint32>{}
                                     << "a register batch of 20 bytes is no whole number of (offset, value) pairs";
        QTest::newRow("past the map") << 0 << bad(0x1000) << QList<quint32>{} << QByteArray() << QList<quint32>{}
                                      << "register offset 0x1000 is outside the map of 0x1000 bytes";
        QTest::newRow("past map 1") << 1 << bad(0x1e) << QList<quint32>{} << QByteArray() << QList<quint32>{}
                                    << "register offset 0x1e is outside the map of 0x20 bytes";
        QTest::newRow("unaligned") << 0 << bad(6) << QList<quint32>{} << QByteArray() << QList<quint32>{}
                                   << "register offset 0x6 is not a multiple of 4";
        QTest::newRow("reply too small") << 0 << batch.left(8) << QList<quint32>{0, 4}
                                         << QByteArray::fromHex("44332211") << QList<quint32>{}
                                         << "a reply of 0 bytes cannot hold the 2 registers asked for";
    }
    void registers()
    {
        QFETCH(int, mapIndex);
        QFETCH(QByteArray, batch);
        QFETCH(QList<quint32>, offsets);
        QFETCH(QByteArray, stored);
        QFETCH(QList<quint32>, values);
        QFETCH(QString, error);
        KrUioDeviceProxy proxy(QStringLiteral("adc-ctrl"), mapIndex, m_root.path());
        const qint64 written = stored.isEmpty() && !batch.isEmpty() ? -1 : batch.size();
        QCOMPARE(proxy.write(batch.constData(), batch.size()), written);
        QByteArray request = KrUioRegisters::offsets(offsets);
        QByteArray reply(4 * values.size(), 0);
        const qint64 loaded = proxy.ioctl(request.data(), request.size(), reply.data(), reply.size(), 0);
        QCOMPARE(loaded, reply.size() == request.size() ? request.size() : -1);
        QCOMPARE(KrUioRegisters::values(reply.constData(), loaded), values);
        QByteArray expected(2 * m_page, 0);
        expected.replace(mapIndex * m_page, stored.size(), stored);
        QFile node(m_root.filePath(QStringLiteral("dev/uio1")));
        QVERIFY(node.open(QIODevice::ReadOnly));
        QCOMPARE(node.readAll(), expected);
        QCOMPARE(proxy.errorString(), error.isEmpty() ? QString() : message(QStringLiteral("adc-ctrl"), error));
    }

    // The kernel's UIO node stood in for by a pseudo-terminal: what the test writes to the
    // master is the interrupt count the proxy reads, and the master receives the proxy's
    // interrupt enables.
    void interrupts()
    {
        int master = -1;
        int slave = -1;
        char name[256];
        termios raw{};
        cfmakeraw(&raw);
        if (openpty(&master, &slave, name, &raw, nullptr) != 0)
            QSKIP("this machine has no pseudo-terminals");
        uio(7, "irq", {});
        QVERIFY(QFile::link(QFile::decodeName(name), m_root.filePath(QStringLiteral("dev/uio7"))));
        const auto enables = [master] {
            QByteArray got(8, 0);
            pollfd wait{master, POLLIN, 0};
            const int n = poll(&wait, 1, 1000) == 1 ? int(::read(master, got.data(), 8)) : 0;
            return got.left(n);
        };
        const auto interrupt = [master](quint32 count) { return ::write(master, &count, 4) == 4; };
        {
            KrUioDeviceProxy proxy(QStringLiteral("irq"), KrUioDeviceProxy::NoMap, m_root.path());
            QVERIFY2(proxy.isOpen(), qPrintable(proxy.errorString()));
            QCOMPARE(enables(), QByteArray::fromHex("01000000"));
            char count[8] = {};
            QCOMPARE(proxy.read(count, 8), 0);
            QCOMPARE(proxy.read(count, 3), -1);
            const QString error = "an interrupt count needs 4 bytes, the buffer holds 3";
            QCOMPARE(proxy.errorString(), message(QStringLiteral("irq"), error));
            QSignalSpy readyRead(&proxy, &KrUioDeviceProxy::readyRead);
            QVERIFY(interrupt(12) && readyRead.wait(1000));
            QCOMPARE(enables(), QByteArray::fromHex("01000000"));
            QCOMPARE(proxy.read(count, 8), 4);
            QCOMPARE(QByteArray(count, 8), QByteArray::fromHex("0c00000000000000"));
            QCOMPARE(proxy.read(count, 8), 0);

            Pal::KrDataCollector collector(&proxy, 6, nullptr);
            // By name and direct, as the collector tests do: seen by the thread sanitizer.
            connect(&collector, SIGNAL(rawDataReady(QByteArray)), this, SLOT(record(QByteArray)), Qt::DirectConnection);
            collector.start();
            QList<QByteArray> expected;
            for (const auto &count :
                {qMakePair(13u, QByteArray("0d0000000000")), qMakePair(0x10203u, QByteArray("030201000000"))}) {
                expected.append(QByteArray::fromHex(count.second));
                QVERIFY(interrupt(count.first));
                std::unique_lock<std::mutex> lock(m_mutex);
                QVERIFY(m_recorded.wait_for(lock, std::chrono::seconds(1), [&] { return m_buffers == expected; }));
                lock.unlock();
                QCOMPARE(enables(), QByteArray::fromHex("01000000"));
            }
            collector.stop();
        }
        ::close(slave);
        ::close(master);
    }
};

QTEST_GUILESS_MAIN(TestKrUioDeviceProxy)
#include "tst_kruiodeviceproxy.moc"
