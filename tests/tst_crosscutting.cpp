#include <crosscutting/crosscutting.h>

#include <QEasingCurve>
#include <QSemaphore>
#include <QTest>
#include <QThread>

#include <atomic>
#include <stdexcept>
#include <thread>

using namespace Crosscutting;

namespace {

// Records the order of lock, hooks and unlock as a locker drives them.
class RecordingMutex : public KrAbstractMutex
{
public:
    void lock() { events << QStringLiteral("lock"); }
    void unlock() { events << QStringLiteral("unlock"); }
    void lockPostProcessing(quint64 id, const char *file, const char *function, int line, const char *text) override
    {
        events << QLatin1String(id || file || function || line || text ? "lock hook, arguments set" : "lock hook");
        if (throwInLockHook)
            throw std::runtime_error("hook");
    }
    void unlockPostProcessing(quint64 id) override
    {
        const bool ownId = id == quint64(quintptr(QThread::currentThreadId()));
        events << QLatin1String(ownId ? "unlock hook" : "unlock hook, foreign id");
    }

    QStringList events;
    bool throwInLockHook = false;
};

// Messages logged during a test, as "<type>|<category>|<text>"; a critical one also releases
// s_criticalSeen.
QtMessageHandler s_previousHandler = nullptr;
QStringList s_messages;
QSemaphore s_criticalSeen;
void recordMessage(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    s_messages << QStringLiteral("%1|%2|%3").arg(int(type)).arg(QString::fromUtf8(context.category), message);
    if (type == QtCriticalMsg)
        s_criticalSeen.release();
}

} // namespace

class TestCrosscutting : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init()
    {
        s_messages.clear();
        s_previousHandler = qInstallMessageHandler(recordMessage);
    }
    void cleanup() { qInstallMessageHandler(s_previousHandler); }

    // The hooks run while the mutex is held, even when the guarded block throws; a throwing
    // lock hook still leaves the mutex unlocked.
    void locker_data()
    {
        QTest::addColumn<bool>("throwInBlock");
        QTest::addColumn<bool>("throwInLockHook");
        QTest::addColumn<QStringList>("expected");
        const QStringList all{"lock", "lock hook", "unlock hook", "unlock"};
        QTest::newRow("normal exit") << false << false << all;
        QTest::newRow("exception in guarded block") << true << false << all + QStringList{"caught"};
        QTest::newRow("exception in lock hook")
            << false << true << QStringList{"lock", "lock hook", "unlock", "caught"};
    }
    void locker()
    {
        QFETCH(bool, throwInBlock);
        QFETCH(bool, throwInLockHook);
        QFETCH(QStringList, expected);
        RecordingMutex mutex;
        mutex.throwInLockHook = throwInLockHook;
        try {
            KrMutexLocker<RecordingMutex, std::lock_guard> locker(mutex);
            if (throwInBlock)
                throw std::runtime_error("block");
        } catch (const std::runtime_error &) {
            mutex.events << QStringLiteral("caught");
        }
        QCOMPARE(mutex.events, expected);
    }

    // Past its time-out lock() logs a likely deadlock, keeps waiting and returns holding the
    // mutex. The holder lets go only once the message is out.
    void mutexWaitsPastItsTimeout()
    {
        KrMutex mutex(10);
        QSemaphore held;
        std::atomic<bool> released{false};
        std::thread holder([&] {
            mutex.lock();
            held.release();
            s_criticalSeen.acquire();
            released = true;
            mutex.unlock();
        });
        held.acquire();
        mutex.lock();
        QVERIFY(released);
        mutex.unlock();
        holder.join();
        QCOMPARE(s_messages,
            QStringList{"2|crosscutting.mutex|mutex not acquired within 10 ms: likely deadlock, still waiting"});
    }

    // A value without a key and an enumeration not declared both give an empty, non-null text.
    void enumValueToString()
    {
        using KrUtilities::enumValueToString;
        const QStringList names{enumValueToString<QEasingCurve>("Type", QEasingCurve::OutBounce),
            enumValueToString<QEasingCurve>("Type", 999), enumValueToString<QEasingCurve>("Shade", 0)};
        QCOMPARE(names, (QStringList{"OutBounce", "", ""}));
        QVERIFY(!names[1].isNull() && !names[2].isNull());
    }

    // The built-in reporter logs each report, its 64-bit line included, and returns the code.
    void builtInReporter()
    {
        KrStatusReporter *reporter = KrCrosscuttingManagerPlaceholder::instance()->statusReporter();
        QCOMPARE(
            reporter->reportStatus(47, createSourceContext("", "a.cpp", Q_UINT64_C(0x100000001), "f()", {"x", "y"})),
            StatusCode(47));
        QCOMPARE(
            s_messages, QStringList{"1|crosscutting.status|status 47 at a.cpp:4294967297 in f() arguments: x | y"});
    }
};

QTEST_GUILESS_MAIN(TestCrosscutting)
#include "tst_crosscutting.moc"
