// The ready-made device proxies on real pseudo-terminals, FIFOs and files.

#include "messagerecorder.h"
#include "ptypair.h"
#include "testproxy.h"

#include <pal/devices/krfiledeviceproxy.h>
#include <pal/devices/krserialdeviceproxy.h>
#include <pal/devices/kruiodeviceproxy.h>
#include <pal/devices/kruioregisters.h>
#include <pal/krdatacollector.h>

#include <QDir>
#include <QFile>
#include <QMetaEnum>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QtEndian>

#include <atomic>
#include <csignal>
#include <functional>
#include <map>

#include <sys/stat.h>

using Pal::KrFileDeviceProxy;
using Pal::KrSerialDeviceProxy;
using Pal::KrUioDeviceProxy;
using Pal::KrUioRegisters;

void emulateUart(const QString &path, const QByteArray &driver); // emulateduart.cpp

namespace {

// Sends @p request through @p proxy while the test, as the device, reads one line, runs @p meanwhile
// and sends @p answer (nothing when empty). The ioctl's result; -2 when the device saw another request.
qint64 ask(const PtyPair &pty, KrFileDeviceProxy &proxy, QByteArray request, const QByteArray &answer,
    QByteArray &reply, quint32 timeoutMs = 5000, const std::function<void()> &meanwhile = {})
{
    QByteArray seen;
    std::thread device([&] {
        seen = pty.receive(1 << 20, "\n");
        if (meanwhile)
            meanwhile();
        if (!answer.isEmpty())
            pty.send(answer);
    });
    const qint64 got = proxy.ioctl(request.data(), request.size(), reply.data(), quint32(reply.size()), timeoutMs);
    device.join();
    return seen == request ? got : -2;
}

// A proxy that asks how much input waits, as one that hands out whole blocks does.
struct StreamProxy : KrFileDeviceProxy
{
    using KrFileDeviceProxy::bytesAvailable;
    using KrFileDeviceProxy::KrFileDeviceProxy;
};

// Points @p link at @p target at once, as udev replaces a by-id link.
bool pointLink(const QString &link, const QString &target)
{
    const QByteArray staging = QFile::encodeName(link + QStringLiteral(".new"));
    ::unlink(staging.constData());
    return ::symlink(QFile::encodeName(target).constData(), staging.constData()) == 0
        && ::rename(staging.constData(), QFile::encodeName(link).constData()) == 0;
}

} // namespace

class TestKrDeviceProxies : public QObject
{
    Q_OBJECT
    QTemporaryDir m_root;
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
    QString m_noLineSettings; // why this machine's pseudo-terminals take no serial settings

private Q_SLOTS:
    void initTestCase()
    {
        uio(1, "adc-ctrl", {"0x1000", "0x20"});
        uio(2, "broken", {"0x0", "0x100000000"});
        uio(-1, "adc-ctrl", {"0x1000"}); // no UIO number: never taken for uio1
        uio(3, "short", {"0x1000", "0x1000", "0x1000"});
        uio(4, "fifo", {"0x1000"});
        uio(5, "absent", {"0x1000"});
        put(QStringLiteral("sys/class/uio/uio1/maps/map1/offset"), "0x10\n"); // the block starts 16 bytes into its page
        put(QStringLiteral("sys/class/uio/uio3/maps/map1/offset"), "");
        put(QStringLiteral("sys/class/uio/uio3/maps/map2/offset"), QByteArray::number(m_page));
        put(QStringLiteral("dev/uio3"), QByteArray(100, 0));
        put(QStringLiteral("dev/adc"), QByteArray(m_page, 0));
        QCOMPARE(mkfifo(QFile::encodeName(m_root.filePath(QStringLiteral("dev/uio4"))).constData(), 0600), 0);
        // User-mode emulators of other architectures may not pass termios2 on.
        PtyPair pty;
        const QString error = KrSerialDeviceProxy(pty.slavePath).errorString();
        if (error.contains(QLatin1String("has no line settings")))
            m_noLineSettings = error;
    }
    void init() { put(QStringLiteral("dev/uio1"), QByteArray(2 * m_page, 0)); }
    void cleanup() { emulateUart({}, {}); }

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
        const auto row = [](const char *name, const char *device, int map, const QString &error,
                             const QByteArray &batch = {}, const QByteArray &stored = {}) {
            QTest::newRow(name) << QString(device) << map << batch << stored << error;
        };
        row("by name, in order", "adc-ctrl", 0, "", batch, QByteArray::fromHex("8877665500000000ddccbbaa"));
        row("by node, second map", "/dev/uio1", 1, "", KrUioRegisters::writes({{0x1c, 7}, {4, 2}}),
            QByteArray::fromHex("0000000002").leftJustified(28, 0) + '\7');
        row("empty batch", "adc-ctrl", 0, "");
        row("half a pair", "adc-ctrl", 0, "a register batch of 20 bytes is no whole number of (offset, value) pairs",
            batch.left(20));
        row("past the map", "adc-ctrl", 0, "register offset 0x1000 is outside the map of 0x1000 bytes", bad(0x1000));
        row("past map 1", "adc-ctrl", 1, "register offset 0x1e is outside the map of 0x20 bytes", bad(0x1e));
        row("unaligned", "adc-ctrl", 0, "register offset 0x6 is not a multiple of 4", bad(6));
        row("unknown name", "adc", 0, "no UIO device of this name in %1/sys/class/uio");
        row("no such map", "adc-ctrl", 2, "uio1 has no map 2");
        row("map -2", "adc-ctrl", -2, "uio1 has no map -2");
        row("size 4 GiB", "broken", 1, "map 1 of uio2 has no usable size (\"0x100000000\")");
        row("size 0", "broken", 0, "map 0 of uio2 has no usable size (\"0x0\")");
        row("empty offset", "short", 1, "map 1 of uio3 has no usable offset (\"\")");
        row("offset a page", "short", 2, QStringLiteral("map 2 of uio3 has no usable offset (\"%2\")").arg(m_page));
        row("no uioN node", "/dev/adc", 0, "%1/dev/adc is no UIO node (/dev/uioN)");
        row("no node", "absent", 0, "cannot open %1/dev/uio5: No such file or directory");
        row("short image", "short", 0, "cannot map 4096 bytes of map 0 from %1/dev/uio3: the file holds 100 bytes");
        row("unmappable", "fifo", 0, "cannot map 4096 bytes of map 0 from %1/dev/uio4: No such device");
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
        if (error.startsWith(QLatin1String("register offset"))) // refused by a load as by a store
            offsets = {qFromLittleEndian<quint32>(batch.constData() + batch.size() - 8)};
        QByteArray request = KrUioRegisters::offsets(offsets);
        QByteArray reply(request.size(), 0);
        const qint64 loaded = proxy.ioctl(request.data(), request.size(), reply.data(), reply.size(), 0);
        QCOMPARE(loaded, opens && offsets.size() == values.size() ? request.size() : -1);
        QCOMPARE(KrUioRegisters::values(reply.constData(), loaded), values);
        QCOMPARE(proxy.read(reply.data(), 8), opens ? 0 : -1); // a file gives no interrupt
        if (opens && error.isEmpty()) {
            QCOMPARE(proxy.ioctl(request.data(), 6, reply.data(), 8, 0), -1);
            QCOMPARE(
                proxy.errorString(), message(device, "a register request of 6 bytes is no whole number of offsets"));
            request = KrUioRegisters::offsets({0, 4});
            QCOMPARE(proxy.ioctl(request.data(), 8, reply.data(), 4, 0), -1);
            error = QStringLiteral("a reply of 4 bytes cannot hold the 2 registers asked for");
        }
        QByteArray expected(2 * m_page, 0);
        expected.replace(mapIndex * (m_page + 0x10), stored.size(), stored);
        QFile node(m_root.filePath(QStringLiteral("dev/uio1")));
        QVERIFY(node.open(QIODevice::ReadOnly));
        QCOMPARE(node.readAll(), expected);
        QCOMPARE(proxy.errorString(), error.isEmpty() ? QString() : message(device, error));
    }

    // A pseudo-terminal as the UIO node: the master writes the interrupt counts and receives the
    // proxy's interrupt enables, one at open and one after each interrupt taken.
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
        QCOMPARE(proxy.read(nullptr, 8), -1);
        QCOMPARE(proxy.errorString(), message("irq", "an interrupt count needs 4 bytes, the buffer holds 0"));
        QCOMPARE(proxy.read(count, 3), -1);
        QCOMPARE(proxy.errorString(), message("irq", "an interrupt count needs 4 bytes, the buffer holds 3"));
        QCOMPARE(proxy.write(QByteArray(8, 0).constData(), 8), -1); // without registers
        QCOMPARE(proxy.errorString(), message("irq", "register offset 0x0 is outside the map of 0x0 bytes"));
        QSignalSpy readyRead(&proxy, &KrUioDeviceProxy::readyRead);
        QVERIFY(interrupt(12) && readyRead.wait(1000));
        QCOMPARE(pty.receive(4), enable);

        TestProxy recorder; // of the buffers emitted on the collector thread
        Pal::KrDataCollector collector(&proxy, 6, nullptr);
        // By name and direct, as the collector tests do: seen by the thread sanitizer.
        connect(
            &collector, SIGNAL(rawDataReady(QByteArray)), &recorder, SLOT(record(QByteArray)), Qt::DirectConnection);
        collector.start();
        QList<QByteArray> expected{QByteArray::fromHex("0c0000000000")}; // taken by the collector
        for (const char *bytes : {"0d0000000000", "030201000000"}) {
            expected.append(QByteArray::fromHex(bytes));
            QVERIFY(interrupt(qFromLittleEndian<quint32>(expected.last().constData())));
            // Not QTRY: events processed here would let the proxy's own read notifier compete with the collector.
            QVERIFY(recorder.waitFor(0, expected.size()));
            QCOMPARE(recorder.emitted(), expected);
            QCOMPARE(pty.receive(4), enable);
        }
        collector.stop();
        QCOMPARE(pty.receive(4, {}, 20), QByteArray()); // no enable more than that
        // A count cut short stops the watch. An interrupt that cannot be enabled again is taken.
        QTest::ignoreMessage(QtWarningMsg, qPrintable(message("irq", "the interrupt count came as 2 bytes")));
        QVERIFY(pty.send(QByteArray(2, 0)));
        QTRY_COMPARE(proxy.errorString(), message("irq", "the interrupt count came as 2 bytes"));
        const int output = ::open(qPrintable(pty.slavePath), O_RDONLY | O_NOCTTY | O_CLOEXEC);
        QCOMPARE(::tcflow(output, TCOOFF), 0); // output stopped: the enable finds no room
        QTest::ignoreMessage(QtWarningMsg,
            qPrintable(message("irq", "cannot enable the interrupt again: Resource temporarily unavailable")));
        QVERIFY(interrupt(14));
        QVERIFY(QTest::qWaitFor([&] { return proxy.read(count, 8) == 4; })); // 0 until the count came
        QCOMPARE(qFromLittleEndian<quint32>(count), 14u);
        ::close(output);
        // A node that takes no enable has no interrupt; a name is looked for in the system's own directories.
        uio(9, "no irq", {});
        QVERIFY(QFile::link(QStringLiteral("/dev/full"), m_root.filePath(QStringLiteral("dev/uio9"))));
        QCOMPARE(KrUioDeviceProxy(QStringLiteral("no irq"), KrUioDeviceProxy::NoMap, m_root.path()).read(count, 8), 0);
        QCOMPARE(KrUioDeviceProxy(QStringLiteral("krpal-none")).errorString(),
            QStringLiteral("UIO device \"krpal-none\": no UIO device of this name in /sys/class/uio"));
    }

    // Every byte value through FIFOs open one way; a write without reader fails, no SIGPIPE.
    void fifos()
    {
        QTemporaryDir dir;
        const QByteArray in = QFile::encodeName(dir.filePath(QStringLiteral("in")));
        const QByteArray out = QFile::encodeName(dir.filePath(QStringLiteral("out")));
        QVERIFY(::mkfifo(in.constData(), 0444) == 0 && ::mkfifo(out.constData(), 0222) == 0);
        PtyPair writer, reader; // their masters stand for the FIFOs' other ends
        writer.closeMaster();
        reader.closeMaster();
        // A FIFO opened for writing without blocking needs its reader first.
        reader.master = ::open(out.constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        StreamProxy source(QFile::decodeName(in)), proxy(QFile::decodeName(out));
        writer.master = ::open(in.constData(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        QVERIFY2(source.isOpen() && proxy.isOpen(), qPrintable(source.errorString() + proxy.errorString()));
        char byte;
        QCOMPARE(proxy.read(&byte, 1), qint64(-1));
        QCOMPARE(proxy.errorString(), QFile::decodeName(out) + " is open for writing only");
        const QByteArray bytes = allByteValues();
        QVERIFY(writer.send(bytes));
        QCOMPARE(collect(source, bytes.size()), bytes);
        QCOMPARE(proxy.write(bytes.constData(), bytes.size()), qint64(bytes.size()));
        QCOMPARE(reader.receive(bytes.size()), bytes);
        reader.closeMaster();
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("^cannot write to .*out: Broken pipe")));
        QCOMPARE(proxy.write("x", 1), qint64(-1));
        sigset_t pending;
        sigpending(&pending);
        QVERIFY(!sigismember(&pending, SIGPIPE));
        QVERIFY(!proxy.isOpen());
        writer.closeMaster();
        QTest::ignoreMessage(QtWarningMsg, qPrintable(QFile::decodeName(in) + " has hung up"));
        QCOMPARE(source.bytesAvailable(), qint64(-1));
    }

    // An idle read gives nothing, without waiting; 1 MiB reaches a slow reader whole, through partial writes.
    void readIdleAndWriteLarge()
    {
        PtyPair pty(true);
        KrFileDeviceProxy proxy(pty.slavePath);
        char buffer[64];
        QCOMPARE(proxy.read(buffer, sizeof buffer), qint64(0));
        QCOMPARE(std::make_pair(proxy.writeTimeoutMs(), proxy.reopenIntervalMs()), std::make_pair(1000, 500));
        proxy.setWriteTimeoutMs(-1); // no deadline: however slow the reader, every byte goes
        QByteArray bytes(1 << 20, Qt::Uninitialized);
        for (int i = 0; i < bytes.size(); ++i)
            bytes[i] = char(i * 7 + i / 4096);
        qint64 written = 0;
        std::thread writer([&] { written = proxy.write(bytes.constData(), bytes.size()); });
        const QByteArray received = pty.receive(bytes.size(), {}, 30000, 256);
        pty.closeMaster(); // ends a write left waiting should the reader have given up
        writer.join();
        QCOMPARE(written, qint64(bytes.size()));
        QVERIFY(received == bytes);
    }

    void exchange_data()
    {
        QTest::addColumn<QByteArray>("terminator");
        QTest::addColumn<QByteArray>("answer");
        QTest::addColumn<int>("replySize");
        QTest::addColumn<QByteArray>("laterInput"); // the reply: the answer without it
        QTest::newRow("reply") << QByteArray("\n") << QByteArray("25.0\n") << 64 << QByteArray();
        QTest::newRow("two-byte terminator") << QByteArray("\r\n") << QByteArray("A\rB\nC\r\n") << 64 << QByteArray();
        QTest::newRow("bytes after the reply are input")
            << QByteArray("\n") << QByteArray("42\nextra") << 64 << QByteArray("extra");
        QTest::newRow("buffer fills first") << QByteArray("\n") << QByteArray("123456\n") << 4 << QByteArray("56\n");
        QTest::newRow("no terminator: the buffer's size")
            << QByteArray() << QByteArray("\0\n\r\x03", 4) << 4 << QByteArray();
        QTest::newRow("no reply") << QByteArray("\n") << QByteArray() << 64 << QByteArray();
        QTest::newRow("no reply wanted") << QByteArray("\n") << QByteArray("ok\n") << 0 << QByteArray("ok\n");
    }
    void exchange()
    {
        QFETCH(QByteArray, terminator);
        QFETCH(QByteArray, answer);
        QFETCH(int, replySize);
        QFETCH(QByteArray, laterInput);
        const qint64 result = answer.isEmpty() ? -1 : answer.size() - laterInput.size();
        PtyPair pty(true);
        KrFileDeviceProxy proxy(pty.slavePath);
        QSignalSpy readyRead(&proxy, &KrFileDeviceProxy::readyRead);
        proxy.setReplyTerminator(terminator);
        QByteArray reply(replySize, '\xee');
        QCOMPARE(ask(pty, proxy, "T?\n", answer, reply, answer.isEmpty() ? 30 : 5000), result);
        QCOMPARE(reply.left(int(qMax<qint64>(0, result))), answer.left(answer.size() - laterInput.size()));
        QCOMPARE(collect(proxy, laterInput.size()), laterInput);
        if (result >= 0)
            return;
        QVERIFY(proxy.errorString().contains(pty.slavePath));
        // A reply after its exchange gave up is input; the next request does not take it, and a
        // write meanwhile gives up at its own deadline.
        QVERIFY(pty.send("late\n") && readyRead.wait(5000));
        proxy.setWriteTimeoutMs(20);
        qint64 written = 0;
        QCOMPARE(ask(pty, proxy, "B?\n", "fresh\n", reply, 5000, [&] { written = proxy.write("W\n", 2); }), 6);
        QCOMPARE(reply.left(6), QByteArray("fresh\n"));
        QCOMPARE(written, qint64(-1));
        QCOMPARE(proxy.errorString(), pty.slavePath + " stayed busy with another operation until the deadline");
    }

    // A reply cut short by a tty that hangs up or a file that ends; a hung-up or missing node asked for input.
    void endings()
    {
        PtyPair pty(true), idle(true);
        StreamProxy proxy(pty.slavePath), asked(idle.slavePath);
        QByteArray reply(8, 0);
        QTest::ignoreMessage(QtWarningMsg, qPrintable(pty.slavePath + " has hung up"));
        QCOMPARE(ask(pty, proxy, "T?\n", {}, reply, 5000, [&pty] { pty.closeMaster(); }), -1);
        idle.closeMaster();
        const QString error = "cannot ask " + idle.slavePath + " for its input: Input/output error";
        QTest::ignoreMessage(QtWarningMsg, qPrintable(error));
        QCOMPARE(asked.bytesAvailable(), qint64(-1));
        QCOMPARE(asked.errorString(), error);
        QCOMPARE(StreamProxy(m_root.filePath(QStringLiteral("missing"))).bytesAvailable(), qint64(-1));
        put(QStringLiteral("ended"), "");
        KrFileDeviceProxy ended(m_root.filePath(QStringLiteral("ended")));
        QCOMPARE(ended.ioctl(nullptr, 0, reply.data(), 8, 100), qint64(-1));
        QCOMPARE(ended.errorString(), ended.path() + " ended before a whole reply");
    }

    // Writes, exchanges and a collector's reads at once: each write and request reaches the
    // device whole, each reply its own exchange, never the collector.
    void concurrentWritesAndExchanges()
    {
        PtyPair pty(true);
        KrFileDeviceProxy proxy(pty.slavePath);
        constexpr int rounds = 40;
        QByteArrayList commands, requests, replies, expectedReplies, seen[2];
        for (int i = 0; i < rounds; ++i) {
            commands << "W" + QByteArray::number(i) + QByteArray(200, 'w') + "\n";
            requests << "Q" + QByteArray::number(i) + "\n";
            expectedReplies << "A" + QByteArray::number(i) + "\n";
        }
        std::atomic<bool> done{false};
        std::thread device([&] {
            for (int line = 0; line < 2 * rounds; ++line) {
                const QByteArray got = pty.receive(1 << 16, "\n");
                seen[got.startsWith("Q")] << got;
                if (got.startsWith("Q"))
                    pty.send("A" + got.mid(1));
            }
        });
        std::thread collector([&] {
            for (char buffer[64]; !done.load(); std::this_thread::yield())
                proxy.read(buffer, sizeof buffer);
        });
        std::atomic<int> written{0};
        std::thread commandThread([&] {
            for (const QByteArray &command : qAsConst(commands))
                written += proxy.write(command.constData(), command.size()) == command.size();
        });
        for (QByteArray request : qAsConst(requests)) {
            char reply[32];
            const qint64 got = proxy.ioctl(request.data(), request.size(), reply, sizeof reply, 5000);
            replies << QByteArray(reply, int(qMax<qint64>(0, got)));
        }
        commandThread.join();
        device.join();
        done.store(true);
        collector.join();
        QCOMPARE(written.load(), rounds);
        QCOMPARE(replies, expectedReplies);
        QCOMPARE(seen[0], commands);
        QCOMPARE(seen[1], requests);
    }

    // Each setting taken and read back whole (RS-485 when on) or refused with the reason, by a pty or a
    // UART driver emulated on one; a node that is no tty or in use is refused too.
    void settings_data()
    {
        QTest::addColumn<QByteArray>("driver"); // empty: the pseudo-terminal alone
        QTest::addColumn<QString>("setting");
        QTest::addColumn<int>("value");
        QTest::addColumn<QString>("outcome"); // the settings read back, or the refusal
        const auto row = [](const char *name, const char *driver, const char *setting, int value, const char *outcome) {
            QTest::newRow(name) << QByteArray(driver) << QString(setting) << value << QString(outcome);
        };
        const int rtsCts = int(KrSerialDeviceProxy::FlowControl::RtsCts), xonXoff = rtsCts + 1;
        const int even = int(KrSerialDeviceProxy::Parity::Even), odd = even + 1;
        row("250000 baud", "", "baud", 250000, "250000 8N1 None exclusive");
        row("9600 baud", "", "baud", 9600, "9600 8N1 None exclusive");
        row("no rate", "", "baud", 0, "has no baud rate 0");
        row("2 stop bits", "", "stop", 2, "115200 8N2 None exclusive");
        row("3 stop bits", "", "stop", 3, "has no 3 stop bits");
        row("RTS/CTS", "", "flow", rtsCts, "115200 8N1 RtsCts exclusive");
        row("shared", "", "exclusive", 0, "115200 8N1 None shared");
        // A pseudo-terminal keeps 8 data bits without parity, whatever is asked.
        row("7 data bits", "", "data", 7, "does not take 7 data bits");
        row("9 data bits", "", "data", 9, "has no 9 data bits");
        row("4 data bits", "", "data", 4, "has no 4 data bits");
        row("even parity", "", "parity", even, "does not take even parity");
        row("odd parity", "", "parity", odd, "does not take odd parity");
        row("RS-485", "", "rs485", 1, "does not support RS-485 (Inappropriate ioctl for device)");
        row("not a terminal", "", "/dev/null", 0, "is not a terminal");
        row("missing", "", "/dev/missing", 0, "cannot open %1: No such file or directory");
        row("directory", "", "/dev", 0, "cannot open %1: Is a directory");
        row("second exclusive open", "", "in use", 0, "is in use");
        // A UART runs at 3 MHz over a whole divisor: 115200 baud come out as 115384.
        row("UART: 5 data bits", "uart", "data", 5, "115384 5N1 None exclusive");
        row("UART: 6 data bits", "uart", "data", 6, "115384 6N1 None exclusive");
        row("UART: 7 data bits", "uart", "data", 7, "115384 7N1 None exclusive");
        row("UART: even parity", "uart", "parity", even, "115384 8E1 None exclusive");
        row("UART: 1500000 baud", "uart", "baud", 1500000, "1500000 8N1 None exclusive");
        row("UART: 2000000 baud", "uart", "baud", 2000000, "does not take the baud rate 2000000 (it runs at 1500000)");
        row("UART under signals", "eintr", "stop", 2, "115384 8N2 None exclusive");
        row("UART, 1 stop bit only", "1-stop-bit", "stop", 2, "does not take 2 stop bits");
        row("UART without RTS/CTS", "no-rtscts", "flow", rtsCts, "does not take the RTS/CTS flow control setting");
        row("UART without XON/XOFF", "no-xonxoff", "flow", xonXoff, "does not take the XON/XOFF flow control setting");
        row("UART with even parity only", "even-only", "", 0, "does not take no parity");
        row("UART without settings", "get-fails", "", 0, "has no line settings: Input/output error");
        row("UART losing its settings", "reread-fails", "", 0, "has no line settings: Input/output error");
        row("UART refusing settings", "set-fails", "", 0, "refuses its line settings: Invalid argument");
        // The serial core holds the RTS delays to 100 ms.
        row("UART: RS-485", "rs485", "rs485", 1, "115384 8N1 None exclusive, RS-485 RTS on send 5/100 ms");
        row("UART: RS-485 off again", "rs485", "rs485 off", 0, "115384 8N1 None exclusive");
        row("UART: RTS on send only", "rs485 rts-on-send", "rs485", 0, "does not take the RS-485 RTS polarity");
        row("UART: no RS-485 control", "rs485 rs485-stays-off", "rs485", 1, "does not take RS-485 on");
        row("UART: RS-485 always on", "rs485 rs485-stays-on", "rs485 off", 1, "does not take RS-485 off");
        row("UART: RS-485 fails", "rs485 rs485-set-eio", "rs485", 1, "refuses RS-485: Input/output error");
        row("UART: RS-485 unread", "rs485 rs485-get-einval", "rs485", 1, "does not support RS-485 (Invalid argument)");
    }
    void settings()
    {
        QFETCH(QByteArray, driver);
        QFETCH(QString, setting);
        QFETCH(int, value);
        QFETCH(QString, outcome);
        if (!m_noLineSettings.isEmpty())
            QSKIP(qPrintable(m_noLineSettings));
        PtyPair pty;
        emulateUart(pty.slavePath, driver);
        const QString path = setting.startsWith(QLatin1Char('/')) ? setting : pty.slavePath;
        const bool taken = outcome.front().isDigit();
        const QString error = taken                 ? QString()
            : outcome.contains(QLatin1String("%1")) ? outcome.arg(path)
                                                    : path + QLatin1Char(' ') + outcome;
        if (!error.isEmpty())
            QTest::ignoreMessage(QtWarningMsg, qPrintable(error));
        auto first = setting == QLatin1String("in use") ? std::make_unique<KrSerialDeviceProxy>(path) : nullptr;
        KrSerialDeviceProxy proxy(path);
        using Proxy = KrSerialDeviceProxy;
        const Proxy::Rs485 rs485{true, value != 0, 5, 250};
        const std::map<QString, std::function<bool()>> setters{{"baud", [&] { return proxy.setBaudRate(value); }},
            {"stop", [&] { return proxy.setStopBits(value); }},
            {"flow", [&] { return proxy.setFlowControl(Proxy::FlowControl(value)); }},
            {"data", [&] { return proxy.setDataBits(value); }},
            {"parity", [&] { return proxy.setParity(Proxy::Parity(value)); }},
            {"exclusive", [&] { return proxy.setExclusive(value); }}, {"rs485", [&] { return proxy.setRs485(rs485); }},
            {"rs485 off", [&] { return proxy.setRs485(rs485) && proxy.setRs485({}); }}};
        const auto setter = setters.find(setting);
        QCOMPARE(setter == setters.end() ? proxy.isOpen() : setter->second(), taken);
        QCOMPARE(proxy.isOpen(), taken);
        QCOMPARE(proxy.errorString(), error);
        const Proxy::Rs485 mode = proxy.rs485();
        const QString shown
            = QString::asprintf("%d %d%c%d %s %s", proxy.baudRate(), proxy.dataBits(), "NEO"[int(proxy.parity())],
                proxy.stopBits(), QMetaEnum::fromType<Proxy::FlowControl>().valueToKey(int(proxy.flowControl())),
                proxy.isExclusive() ? "exclusive" : "shared");
        const QString rs485Shown = QString::asprintf(", RS-485 RTS %s send %u/%u ms", mode.rtsOnSend ? "on" : "after",
            mode.delayBeforeSendMs, mode.delayAfterSendMs);
        if (taken)
            QCOMPARE(shown + (mode.enabled ? rs485Shown : QString()), outcome);
        char buffer[4] = "?\n";
        QCOMPARE(proxy.write(buffer, 2), taken ? qint64(2) : qint64(-1));
        QCOMPARE(proxy.read(buffer, sizeof buffer), taken ? qint64(0) : qint64(-1));
        QCOMPARE(proxy.ioctl(buffer, 2, buffer, sizeof buffer, 10), qint64(-1));
        if (!first)
            return;
        // Free again once the first lets go.
        first.reset();
        proxy.setReopenIntervalMs(0);
        QTest::ignoreMessage(QtInfoMsg, qPrintable(path + QStringLiteral(" is back")));
        QCOMPARE(proxy.read(buffer, sizeof buffer), qint64(0));
        QVERIFY(proxy.isOpen());
    }

    // A device missing at the start, then coming and going behind a by-id link: one warning per loss,
    // one message when back, the settings kept, the line raw, and what waited before the open gone.
    void lossAndRecovery()
    {
        if (!m_noLineSettings.isEmpty())
            QSKIP(qPrintable(m_noLineSettings));
        QTemporaryDir dir;
        const QString link = dir.filePath(QStringLiteral("by-id"));
        MessageRecorder recorder;
        QVERIFY(pointLink(link, dir.filePath(QStringLiteral("nothing"))));
        KrSerialDeviceProxy proxy(link, 250000);
        proxy.setReopenIntervalMs(0);
        char buffer[64];
        QCOMPARE(proxy.read(buffer, sizeof buffer), qint64(-1));
        QCOMPARE(proxy.baudRate(), 250000); // as asked, while the line is missing
        QCOMPARE(recorder.takeMessages(),
            QStringList(QStringLiteral("warning krpal.devices: cannot open %1: No such file or directory").arg(link)));
        const QStringList back{QStringLiteral("info krpal.devices: %1 is back").arg(link)};
        const QStringList lost{QStringLiteral("warning krpal.devices: %1 has hung up").arg(link)};
        const QByteArray bytes = allByteValues();
        std::unique_ptr<PtyPair> pty;
        for (int device = 0; device < 3; ++device) {
            if (pty) {
                pty->closeMaster();
                QCOMPARE(proxy.read(buffer, sizeof buffer), qint64(-1));
                QCOMPARE(proxy.write("x", 1), qint64(-1));
                QVERIFY(!proxy.isOpen());
                QCOMPARE(recorder.takeMessages(), lost);
                // The old node is gone: attempts to open it again fail without a word.
                QCOMPARE(proxy.read(buffer, sizeof buffer), qint64(-1));
                QCOMPARE(recorder.takeMessages(), QStringList());
            }
            pty = std::make_unique<PtyPair>();
            QVERIFY(pty->send("waiting before the open\n")); // cooked, without echo
            QVERIFY(pointLink(link, pty->slavePath));
            qint64 got = -1; // the first read that opens the line finds nothing waiting
            QTRY_VERIFY((got = proxy.read(buffer, sizeof buffer)) >= 0);
            QCOMPARE(got, qint64(0));
            QCOMPARE(recorder.takeMessages(), back);
            QCOMPARE(proxy.baudRate(), 250000);
            QVERIFY(pty->send(bytes));
            QCOMPARE(collect(proxy, bytes.size()), bytes);
            QCOMPARE(proxy.write(bytes.constData(), bytes.size()), qint64(bytes.size()));
            QCOMPARE(pty->receive(bytes.size()), bytes);
        }
    }
};

QTEST_GUILESS_MAIN(TestKrDeviceProxies)
#include "tst_krdeviceproxies.moc"
