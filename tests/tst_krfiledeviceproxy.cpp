#include "ptypair.h"

#include <pal/devices/krfiledeviceproxy.h>

#include <QElapsedTimer>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <atomic>
#include <csignal>
#include <memory>
#include <thread>

#include <sys/stat.h>

using Pal::KrFileDeviceProxy;

namespace {

// Plays a device that answers each request line: reads one line from the master, then sends
// @p answer (nothing when empty).
std::thread answer(const PtyPair &pty, const QByteArray &answer, QByteArray *request)
{
    return std::thread([&pty, answer, request] {
        *request = pty.receive(1 << 20, "\n");
        if (!answer.isEmpty())
            pty.send(answer);
    });
}

} // namespace

class TestKrFileDeviceProxy : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init()
    {
        m_dir.reset(new QTemporaryDir);
        QVERIFY(m_dir->isValid());
    }

    void transfer_data()
    {
        QTest::addColumn<QString>("node");
        QTest::addColumn<bool>("toProxy");
        QTest::addColumn<bool>("fromProxy");
        QTest::newRow("pseudo-terminal, both ways") << "pty" << true << true;
        QTest::newRow("FIFO that allows reading only") << "fifo" << true << false;
        QTest::newRow("FIFO that allows writing only") << "fifo" << false << true;
    }
    void transfer()
    {
        QFETCH(QString, node);
        QFETCH(bool, toProxy);
        QFETCH(bool, fromProxy);
        const QByteArray bytes = allByteValues();
        PtyPair pty(true);
        const QString fifo = m_dir->filePath(QStringLiteral("fifo"));
        int peer = pty.master;
        std::unique_ptr<KrFileDeviceProxy> proxy;
        if (node == QLatin1String("pty")) {
            proxy.reset(new KrFileDeviceProxy(pty.slavePath));
        } else {
            QCOMPARE(::mkfifo(QFile::encodeName(fifo).constData(), toProxy ? 0444 : 0222), 0);
            // A FIFO opened for writing without blocking needs its reader first.
            if (fromProxy)
                peer = ::open(QFile::encodeName(fifo).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
            proxy.reset(new KrFileDeviceProxy(fifo));
            if (toProxy)
                peer = ::open(QFile::encodeName(fifo).constData(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        }
        QVERIFY2(proxy->isOpen(), qPrintable(proxy->errorString()));
        PtyPair fifoPeer;
        if (peer != pty.master)
            fifoPeer.master = peer;
        const PtyPair &far = peer == pty.master ? pty : fifoPeer;
        if (fromProxy) {
            QCOMPARE(proxy->write(bytes.constData(), bytes.size()), qint64(bytes.size()));
            QCOMPARE(far.receive(bytes.size()), bytes);
        }
        if (toProxy) {
            QVERIFY(far.send(bytes));
            QCOMPARE(collect(*proxy, bytes.size()), bytes);
        }
    }

    void readWithNothingWaitingReturnsAtOnce()
    {
        PtyPair pty(true);
        KrFileDeviceProxy proxy(pty.slavePath);
        char buffer[64];
        QElapsedTimer timer;
        timer.start();
        for (int i = 0; i < 10; ++i)
            QCOMPARE(proxy.read(buffer, sizeof buffer), qint64(0));
        QVERIFY2(timer.elapsed() < 50, "a read with nothing waiting waited");
    }

    void largeWriteWithSlowReader()
    {
        PtyPair pty(true);
        KrFileDeviceProxy proxy(pty.slavePath);
        proxy.setWriteTimeoutMs(30000);
        QByteArray bytes(1 << 20, Qt::Uninitialized);
        for (int i = 0; i < bytes.size(); ++i)
            bytes[i] = char(i * 7 + i / 4096);
        qint64 written = 0;
        std::thread writer([&] { written = proxy.write(bytes.constData(), bytes.size()); });
        // Small reads keep the line full, so the write meets EAGAIN and partial writes.
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
        QTest::addColumn<qint64>("result");
        QTest::addColumn<QByteArray>("reply");
        QTest::addColumn<QByteArray>("laterInput");
        QTest::newRow("reply") << QByteArray("\n") << QByteArray("25.0\n") << 64 << qint64(5) << QByteArray("25.0\n")
                               << QByteArray();
        QTest::newRow("two-byte terminator") << QByteArray("\r\n") << QByteArray("A\rB\nC\r\n") << 64 << qint64(7)
                                             << QByteArray("A\rB\nC\r\n") << QByteArray();
        QTest::newRow("bytes after the reply are input") << QByteArray("\n") << QByteArray("42\nextra") << 64
                                                         << qint64(3) << QByteArray("42\n") << QByteArray("extra");
        QTest::newRow("buffer fills first")
            << QByteArray("\n") << QByteArray("123456\n") << 4 << qint64(4) << QByteArray("1234") << QByteArray("56\n");
        QTest::newRow("no terminator: the buffer's size") << QByteArray() << QByteArray("\0\n\r\x03", 4) << 4
                                                          << qint64(4) << QByteArray("\0\n\r\x03", 4) << QByteArray();
        QTest::newRow("no reply") << QByteArray("\n") << QByteArray() << 64 << qint64(-1) << QByteArray()
                                  << QByteArray();
    }
    void exchange()
    {
        QFETCH(QByteArray, terminator);
        QFETCH(QByteArray, answer);
        QFETCH(int, replySize);
        QFETCH(qint64, result);
        QFETCH(QByteArray, reply);
        QFETCH(QByteArray, laterInput);
        PtyPair pty(true);
        KrFileDeviceProxy proxy(pty.slavePath);
        proxy.setReplyTerminator(terminator);
        QByteArray request;
        std::thread device = ::answer(pty, answer, &request);
        QByteArray buffer(replySize, '\xee');
        char ask[] = "T?\n";
        const qint64 got = proxy.ioctl(ask, 3, buffer.data(), quint32(replySize), answer.isEmpty() ? 30 : 5000);
        device.join();
        QCOMPARE(request, QByteArray("T?\n"));
        QCOMPARE(got, result);
        QCOMPARE(buffer.left(int(qMax<qint64>(0, got))), reply);
        if (got < 0)
            QVERIFY(proxy.errorString().contains(pty.slavePath));
        QCOMPARE(collect(proxy, laterInput.size()), laterInput);
    }

    // A reply that comes after its exchange gave up is no answer to the next request; it is
    // input until then, announced by readyRead.
    void staleInputAfterTimeOut()
    {
        PtyPair pty(true);
        KrFileDeviceProxy proxy(pty.slavePath);
        QSignalSpy readyRead(&proxy, &KrFileDeviceProxy::readyRead);
        QVERIFY(readyRead.isValid());
        QByteArray request;
        std::thread silent = answer(pty, {}, &request);
        char ask[] = "A?\n";
        char reply[16];
        QCOMPARE(proxy.ioctl(ask, 3, reply, sizeof reply, 20), qint64(-1));
        silent.join();
        QVERIFY(pty.send("late\n"));
        QVERIFY(readyRead.wait(5000));
        std::thread device = answer(pty, "fresh\n", &request);
        char again[] = "B?\n";
        QCOMPARE(proxy.ioctl(again, 3, reply, sizeof reply, 5000), qint64(6));
        device.join();
        QCOMPARE(QByteArray(reply, 6), QByteArray("fresh\n"));
        QCOMPARE(request, QByteArray("B?\n"));
    }

    // A command thread writes, another caller exchanges, a collector reads, all at once: each
    // write and each request reaches the device whole, and each reply its own exchange, never
    // the collector.
    void concurrentWritesAndExchanges()
    {
        PtyPair pty(true);
        KrFileDeviceProxy proxy(pty.slavePath);
        constexpr int rounds = 40;
        std::atomic<bool> done{false};
        QByteArrayList lines;
        std::thread device([&] {
            for (int seen = 0; seen < 2 * rounds; ++seen) {
                const QByteArray line = pty.receive(1 << 16, "\n");
                lines << line;
                if (line.startsWith("Q"))
                    pty.send("A" + line.mid(1));
            }
        });
        std::thread collector([&] {
            char buffer[64];
            while (!done.load()) {
                proxy.read(buffer, sizeof buffer);
                std::this_thread::yield();
            }
        });
        QByteArrayList commands;
        QByteArrayList requests;
        for (int i = 0; i < rounds; ++i) {
            commands << "W" + QByteArray::number(i) + QByteArray(200, 'w') + "\n";
            requests << "Q" + QByteArray::number(i) + "\n";
        }
        std::atomic<int> written{0};
        std::thread commandThread([&] {
            for (const QByteArray &command : qAsConst(commands))
                written += proxy.write(command.constData(), command.size()) == command.size();
        });
        QByteArrayList replies;
        QByteArrayList expectedReplies;
        for (QByteArray request : qAsConst(requests)) {
            char reply[32];
            const qint64 got = proxy.ioctl(request.data(), request.size(), reply, sizeof reply, 5000);
            replies << QByteArray(reply, int(qMax<qint64>(0, got)));
            expectedReplies << "A" + request.mid(1);
        }
        commandThread.join();
        device.join();
        done.store(true);
        collector.join();
        QCOMPARE(written.load(), rounds);
        QCOMPARE(replies, expectedReplies);
        QByteArrayList commandsSeen;
        QByteArrayList requestsSeen;
        for (const QByteArray &line : qAsConst(lines))
            (line.startsWith("W") ? commandsSeen : requestsSeen) << line;
        QCOMPARE(commandsSeen, commands);
        QCOMPARE(requestsSeen, requests);
    }

    void writeToFifoWithoutReaderFails()
    {
        const QByteArray fifo = QFile::encodeName(m_dir->filePath(QStringLiteral("fifo")));
        QCOMPARE(::mkfifo(fifo.constData(), 0222), 0);
        const int reader = ::open(fifo.constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        KrFileDeviceProxy proxy(QFile::decodeName(fifo));
        QVERIFY(proxy.isOpen());
        ::close(reader);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("^cannot write to .*fifo: Broken pipe")));
        QCOMPARE(proxy.write("x", 1), qint64(-1));
        sigset_t pending;
        sigpending(&pending);
        QVERIFY(!sigismember(&pending, SIGPIPE));
        QVERIFY(!proxy.isOpen());
    }

    void badPath_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("error");
        QTest::newRow("missing") << "missing"
                                 << "No such file or directory";
        QTest::newRow("directory") << "."
                                   << "Is a directory";
    }
    void badPath()
    {
        QFETCH(QString, path);
        QFETCH(QString, error);
        const QString full = m_dir->filePath(path);
        const QString expected = QStringLiteral("cannot open %1: %2").arg(full, error);
        QTest::ignoreMessage(QtWarningMsg, qPrintable(expected));
        KrFileDeviceProxy proxy(full);
        QVERIFY(!proxy.isOpen());
        QCOMPARE(proxy.errorString(), expected);
        char buffer[8] = "R?\n";
        QCOMPARE(proxy.read(buffer, sizeof buffer), qint64(-1));
        QCOMPARE(proxy.write(buffer, 3), qint64(-1));
        QCOMPARE(proxy.ioctl(buffer, 3, buffer, sizeof buffer, 1000), qint64(-1));
    }

private:
    std::unique_ptr<QTemporaryDir> m_dir;
};

QTEST_GUILESS_MAIN(TestKrFileDeviceProxy)
#include "tst_krfiledeviceproxy.moc"
