#include "ptypair.h"

#include <pal/devices/krfiledeviceproxy.h>

#include <QElapsedTimer>
#include <QRegularExpression>
#include <QSignalSpy>

#include <atomic>
#include <csignal>

#include <sys/stat.h>

using Pal::KrFileDeviceProxy;

namespace {

// Sends @p request through @p proxy while the test, as the device, reads one line and sends
// @p answer (nothing when empty). The ioctl's result; -2 when the device saw another request.
qint64 ask(const PtyPair &pty, KrFileDeviceProxy &proxy, QByteArray request, const QByteArray &answer,
    QByteArray &reply, quint32 timeoutMs = 5000)
{
    QByteArray seen;
    std::thread device([&] {
        seen = pty.receive(1 << 20, "\n");
        if (!answer.isEmpty())
            pty.send(answer);
    });
    const qint64 got = proxy.ioctl(request.data(), request.size(), reply.data(), quint32(reply.size()), timeoutMs);
    device.join();
    return seen == request ? got : -2;
}

} // namespace

class TestKrFileDeviceProxy : public QObject
{
    Q_OBJECT
private Q_SLOTS:
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
        KrFileDeviceProxy source(QFile::decodeName(in)), proxy(QFile::decodeName(out));
        writer.master = ::open(in.constData(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        QVERIFY2(source.isOpen() && proxy.isOpen(), qPrintable(source.errorString() + proxy.errorString()));
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
    }

    // An idle read returns at once; 1 MiB reaches a slow reader whole, through partial writes.
    void readIdleAndWriteLarge()
    {
        PtyPair pty(true);
        KrFileDeviceProxy proxy(pty.slavePath);
        char buffer[64];
        QElapsedTimer timer;
        timer.start();
        for (int i = 0; i < 10; ++i)
            QCOMPARE(proxy.read(buffer, sizeof buffer), qint64(0));
        QVERIFY2(timer.elapsed() < 50, "a read with nothing waiting waited");
        proxy.setWriteTimeoutMs(30000);
        QByteArray bytes(1 << 20, Qt::Uninitialized);
        for (int i = 0; i < bytes.size(); ++i)
            bytes[i] = char(i * 7 + i / 4096);
        qint64 written = 0;
        std::thread writer([&] { written = proxy.write(bytes.constData(), bytes.size()); });
        const QByteArray received = pty.receive(bytes.size(), {}, 30000, 256);
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
        // A reply after its exchange gave up is input; the next request does not take it.
        QVERIFY(pty.send("late\n") && readyRead.wait(5000));
        QCOMPARE(ask(pty, proxy, "B?\n", "fresh\n", reply), qint64(6));
        QCOMPARE(reply.left(6), QByteArray("fresh\n"));
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
};

QTEST_GUILESS_MAIN(TestKrFileDeviceProxy)
#include "tst_krfiledeviceproxy.moc"
