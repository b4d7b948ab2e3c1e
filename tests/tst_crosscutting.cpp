#include "recordingreporter.h"

#include <QObject>
#include <QSemaphore>
#include <QTest>
#include <QThread>

#include <stdexcept>

// Outside the anonymous namespace: Q_ENUM's helper functions would be unused there, which
// clang warns about.
class Labelled
{
    Q_GADGET
public:
    enum class Colour
    {
        Red = 0,
        Green = 2
    };
    Q_ENUM(Colour)
};

namespace {

// Records the order of lock, hooks and unlock as a locker drives them.
class RecordingMutex : public Crosscutting::KrAbstractMutex
{
public:
    void lock() { events << QStringLiteral("lock"); }
    void unlock() { events << QStringLiteral("unlock"); }
    void lockPostProcessing(quint64 id, const char *file, const char *function, int line, const char *text) override
    {
        events << QStringLiteral("lockPostProcessing(%1,%2,%3,%4,%5)")
                      .arg(id)
                      .arg(file ? "text" : "null", function ? "text" : "null")
                      .arg(line)
                      .arg(text ? "text" : "null");
        if (throwInLockHook)
            throw std::runtime_error("hook");
    }
    void unlockPostProcessing(quint64 id) override
    {
        events << QStringLiteral("unlockPostProcessing(%1)").arg(id == quint64(quintptr(QThread::currentThreadId())));
    }

    QStringList events;
    bool throwInLockHook = false;
};

QtMessageHandler s_previousHandler = nullptr;
QStringList s_messages;
QSemaphore *s_criticalSeen = nullptr;

void recordMessage(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    s_messages << QStringLiteral("%1|%2|%3").arg(int(type)).arg(QString::fromUtf8(context.category), message);
    if (type == QtCriticalMsg && s_criticalSeen)
        s_criticalSeen->release();
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

    void locker_data()
    {
        QTest::addColumn<bool>("throwInBlock");
        QTest::addColumn<bool>("throwInLockHook");
        QTest::addColumn<QStringList>("expected");
        const QString lockHook = QStringLiteral("lockPostProcessing(0,null,null,0,null)");
        QTest::newRow("normal exit") << false << false
                                     << QStringList{"lock", lockHook, "unlockPostProcessing(1)", "unlock"};
        QTest::newRow("exception in guarded block")
            << true << false << QStringList{"lock", lockHook, "unlockPostProcessing(1)", "unlock"};
        QTest::newRow("exception in lock hook") << false << true << QStringList{"lock", lockHook, "unlock"};
    }
    void locker()
    {
        QFETCH(bool, throwInBlock);
        QFETCH(bool, throwInLockHook);
        QFETCH(QStringList, expected);

        RecordingMutex mutex;
        mutex.throwInLockHook = throwInLockHook;
        bool thrown = false;
        try {
            Crosscutting::KrMutexLocker<RecordingMutex, std::lock_guard> locker(mutex);
            if (throwInBlock)
                throw std::runtime_error("block");
        } catch (const std::runtime_error &) {
            thrown = true;
        }
        QCOMPARE(thrown, throwInBlock || throwInLockHook);
        QCOMPARE(mutex.events, expected);
    }

    void mutexWaitsPastItsTimeout()
    {
        // Another thread holds the lock until lock() has logged the likely deadlock; lock()
        // must then keep waiting and return holding the mutex.
        Crosscutting::KrMutex mutex(10);
        QSemaphore held;
        QSemaphore criticalSeen;
        s_criticalSeen = &criticalSeen;
        QScopedPointer<QThread> holder(QThread::create([&] {
            mutex.lock();
            held.release();
            criticalSeen.acquire();
            mutex.unlock();
        }));
        holder->start();
        held.acquire();
        mutex.lock();
        mutex.unlock();
        QVERIFY(holder->wait(5000));
        s_criticalSeen = nullptr;
        QCOMPARE(s_messages.size(), 1);
        QVERIFY2(s_messages.first().startsWith(QStringLiteral("%1|crosscutting.mutex|").arg(int(QtCriticalMsg))),
            qPrintable(s_messages.first()));
        QVERIFY2(s_messages.first().contains(QLatin1String("10 ms")), qPrintable(s_messages.first()));
    }

    void enumValueToString_data()
    {
        QTest::addColumn<QString>("enumName");
        QTest::addColumn<int>("value");
        QTest::addColumn<QString>("expected");
        QTest::newRow("key") << "Colour" << 2 << "Green";
        QTest::newRow("first key") << "Colour" << 0 << "Red";
        QTest::newRow("value without key") << "Colour" << 1 << "";
        QTest::newRow("enumeration not declared") << "Shade" << 0 << "";
    }
    void enumValueToString()
    {
        QFETCH(QString, enumName);
        QFETCH(int, value);
        QFETCH(QString, expected);
        const QString name = Crosscutting::KrUtilities::enumValueToString<Labelled>(enumName, value);
        QCOMPARE(name, expected);
        QVERIFY(!name.isNull());
    }

    void builtInReporter()
    {
        auto *manager = Crosscutting::KrCrosscuttingManagerPlaceholder::instance();
        QVERIFY(manager);
        QCOMPARE(Crosscutting::KrCrosscuttingManagerPlaceholder::instance(), manager);
        Crosscutting::KrStatusReporter *builtIn = manager->statusReporter();
        QVERIFY(builtIn);
        {
            RecordingReporter recorder;
            QCOMPARE(manager->statusReporter(), &recorder);
        }
        QCOMPARE(manager->statusReporter(), builtIn);

        const StatusCode result = builtIn->reportStatus(47,
            Crosscutting::createSourceContext(QStringLiteral(""), QStringLiteral("krpalroot.cpp"), 44,
                QStringLiteral("f()"), {QStringLiteral("first"), QStringLiteral("second")}));
        QCOMPARE(result, StatusCode(47));
        QCOMPARE(s_messages,
            QStringList{QStringLiteral("%1|crosscutting.status|status 47 at krpalroot.cpp:44 in f() arguments: "
                                       "first | second")
                            .arg(int(QtWarningMsg))});
    }

    void sourceContextKeepsItsItems()
    {
        QScopedPointer<Crosscutting::KrSourceContext> context(Crosscutting::createSourceContext(QStringLiteral(""),
            QStringLiteral("a.cpp"), Q_UINT64_C(0x1'0000'0001), QStringLiteral("g"), {QStringLiteral("x")}));
        QCOMPARE(context->text(), QString());
        QVERIFY(!context->text().isNull());
        QCOMPARE(context->fileName(), QStringLiteral("a.cpp"));
        QCOMPARE(context->line(), Q_UINT64_C(0x1'0000'0001));
        QCOMPARE(context->function(), QStringLiteral("g"));
        QCOMPARE(context->arguments(), QStringList{QStringLiteral("x")});
    }

    void headerConstants()
    {
        QCOMPARE(Crosscutting::Internal, QStringLiteral("Internal"));
        QCOMPARE(Crosscutting::MainThread, QStringLiteral("MainThread"));
        QCOMPARE(Crosscutting::TaskProcessor, QStringLiteral("TaskProcessor"));
    }
};

QTEST_GUILESS_MAIN(TestCrosscutting)
#include "tst_crosscutting.moc"
