#include "ptypair.h"

#include <pal/devices/kruiodeviceproxy.h>
#include <pal/devices/kruioregisters.h>
#include <pal/krdatacollector.h>

#include <QDir>
#include <QSignalSpy>
#include <QtEndian>

#include <condition_variable>
#include <mutex>

#include <sys/stat.h>

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

    // Opening by name or node, stores in order and the registers read back, a rejected batch
    // leaving every byte as it was, and every failure with its reason.
    void registers_data()
    {
        QTest::addColumn<QString>("device");
        QTest::addColumn<int>("mapIndex");
        QTest::addColumn<QByteArray>("batch");
        QTest::addColumn<QByteArray>("stored"); // the map's bytes after the batch
        QTest::addColumn<QString>("error");
        const QByteArray batch = KrUioRegisters::writes({{0, 0x11223344}, {8, 0xaabbccdd}, {0, 0x55667788}});
        const auto bad = [&batch](quint32 offset) -> QByteArray { return batch + KrUioRegisters::write(offset, 1); };
        const QByteArray none;
        QTest::newRow("by name, in order")
            << "adc-ctrl" << 0 << batch << QByteArray::fromHex("8877665500000000ddccbbaa") << "";
        QTest::newRow("by node, second map") << "/dev/uio1" << 1 << KrUioRegisters::writes({{0x1c, 7}, {4, 2}})
                                             << QByteArray::fromHex("0000000002").leftJustified(28, 0) + '\7' << "";
        QTest::newRow("empty batch") << "adc-ctrl" << 0 << none << none << "";
        QTest::newRow("half a pair") << "adc-ctrl" << 0 << batch.left(20) << none
                                     << "a register batch of 20 bytes is no whole number of (offset, value) pairs";
        QTest::newRow("past the map") << "adc-ctrl" << 0 << bad(0x1000) << none
                                      << "register offset 0x1000 is outside the map of 0x1000 bytes";
        QTest::newRow("past map 1") << "adc-ctrl" << 1 << bad(0x1e) << none
                                    << "register offset 0x1e is outside the map of 0x20 bytes";
        QTest::newRow("unaligned") << "adc-ctrl" << 0 << bad(6) << none << "register offset 0x6 is not a multiple of 4";
        QTest::newRow("unknown name") << "adc" << 0 << none << none << "no UIO device of this name in %1/sys/class/uio";
        QTest::newRow("no such map") << "adc-ctrl" << 2 << none << none << "uio1 has no map 2";
        QTest::newRow("size 0") << "broken" << 0 << none << none << "map 0 of uio2 has no usable size (\"0x0\")";
        QTest::newRow("no uioN node") << "/dev/adc" << 0 << none << none << "%1/dev/adc is no UIO node (/dev/uioN)";
        QTest::newRow("no node") << "absent" << 0 << none << none
                                 << "cannot open %1/dev/uio5: No such file or directory";
        QTest::newRow("short image") << "short" << 0 << none << none
                                     << "cannot map 4096 bytes of map 0 from %1/dev/uio3: the file holds 100 bytes";
        QTest::newRow("unmappable") << "fifo" << 0 << none << none
                                    << "cannot map 4096 bytes of map 0 from %1/dev/uio4: No such device";
    }
    void registers()
    {
        QFETCH(QString, device);
        QFETCH(int, mapIndex);
        QFETCH(QByteArray, batch);
        QFETCH(QByteArray, stored);
        QFETCH(QString, error);
        KrUioDeviceProxy proxy(device, mapIndex, m_root.path());
        const bool opens = !batch.isEmpty() || error.isEmpty();
        QCOMPARE(proxy.isOpen(), opens);
        QCOMPARE(proxy.mapSize(), opens ? (mapIndex ? 0x20u : 0x1000u) : 0u);
        QCOMPARE(proxy.write(batch.constData(), batch.size()), opens && error.isEmpty() ? batch.size() : -1);
        QList<quint32> offsets, values;
        for (int i = 0; error.isEmpty() && i < batch.size(); i += 8) {
            offsets.append(qFromLittleEndian<quint32>(batch.constData() + i));
            values.append(
                qFromLittleEndian<quint32>(stored.mid(int(offsets.last()), 4).leftJustified(4, 0).constData()));
        }
        QByteArray request = KrUioRegisters::offsets(offsets);
        QByteArray reply(request.size(), 0);
        const qint64 loaded = proxy.ioctl(request.data(), request.size(), reply.data(), reply.size(), 0);
        QCOMPARE(loaded, opens ? request.size() : -1);
        QCOMPARE(KrUioRegisters::values(reply.constData(), loaded), values);
        QCOMPARE(proxy.read(reply.data(), 8), opens ? 0 : -1); // a file gives no interrupt
        if (opens && error.isEmpty()) {
            request = KrUioRegisters::offsets({0, 4});
            QCOMPARE(proxy.ioctl(request.data(), 8, reply.data(), 4, 0), -1);
            error = QStringLiteral("a reply of 4 bytes cannot hold the 2 registers asked for");
        }
        QByteArray expected(2 * m_page, 0);
        expected.replace(mapIndex * m_page, stored.size(), stored);
        QFile node(m_root.filePath(QStringLiteral("dev/uio1")));
        QVERIFY(node.open(QIODevice::ReadOnly));
        QCOMPARE(node.readAll(), expected);
        QCOMPARE(proxy.errorString(), error.isEmpty() ? QString() : message(device, error));
    }

    // The kernel's UIO node stood in for by a pseudo-terminal: what the test writes to the
    // master is the interrupt count the proxy reads, and the master receives the proxy's
    // interrupt enables, one at open and one after each interrupt taken.
    void interrupts()
    {
        PtyPair pty(true);
        if (pty.slavePath.isEmpty())
            QSKIP("this machine has no pseudo-terminals");
        uio(7, "irq", {});
        QVERIFY(QFile::link(pty.slavePath, m_root.filePath(QStringLiteral("dev/uio7"))));
        const QByteArray enable = QByteArray::fromHex("01000000");
        const auto interrupt = [&pty](quint32 count) { return pty.send(QByteArray::fromRawData((char *)&count, 4)); };
        KrUioDeviceProxy proxy(QStringLiteral("irq"), KrUioDeviceProxy::NoMap, m_root.path());
        QVERIFY2(proxy.isOpen(), qPrintable(proxy.errorString()));
        QCOMPARE(pty.receive(4), enable);
        char count[8] = {};
        QCOMPARE(proxy.read(count, 8), 0);
        QCOMPARE(proxy.read(count, 3), -1);
        QCOMPARE(proxy.errorString(), message("irq", "an interrupt count needs 4 bytes, the buffer holds 3"));
        QSignalSpy readyRead(&proxy, &KrUioDeviceProxy::readyRead);
        QVERIFY(interrupt(12) && readyRead.wait(1000));
        QCOMPARE(pty.receive(4), enable);

        Pal::KrDataCollector collector(&proxy, 6, nullptr);
        // By name and direct, as the collector tests do: seen by the thread sanitizer.
        connect(&collector, SIGNAL(rawDataReady(QByteArray)), this, SLOT(record(QByteArray)), Qt::DirectConnection);
        collector.start();
        QList<QByteArray> expected{QByteArray::fromHex("0c0000000000")}; // taken by the collector
        for (const char *bytes : {"0d0000000000", "030201000000"}) {
            expected.append(QByteArray::fromHex(bytes));
            QVERIFY(interrupt(qFromLittleEndian<quint32>(expected.last().constData())));
            std::unique_lock<std::mutex> lock(m_mutex);
            QVERIFY(m_recorded.wait_for(lock, std::chrono::seconds(1), [&] { return m_buffers == expected; }));
            lock.unlock();
            QCOMPARE(pty.receive(4), enable);
        }
        collector.stop();
        QCOMPARE(pty.receive(4, {}, 20), QByteArray()); // no enable more than that
    }
};

QTEST_GUILESS_MAIN(TestKrUioDeviceProxy)
#include "tst_kruiodeviceproxy.moc"
