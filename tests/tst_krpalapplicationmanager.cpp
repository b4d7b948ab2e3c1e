#include <pal/krpalapplicationmanager.h>
#include <pal/krpalroot.h>

#include <QSemaphore>
#include <QTest>
#include <QThread>

#include <atomic>
#include <memory>
#include <thread>

using Manager = Pal::KrPalApplicationManager;

namespace {

const QStringList names{"a", "App", "app", QString()};
std::atomic<int> s_liveRoots{0};

// A root named after its application, counted while it lives.
QSharedPointer<Pal::KrPalRoot> makeRoot(const QString &name)
{
    QSharedPointer<Pal::KrPalRoot> root(new Pal::KrPalRoot);
    root->setObjectName(name);
    ++s_liveRoots;
    QObject::connect(root.data(), &QObject::destroyed, [] { --s_liveRoots; });
    return root;
}

} // namespace

class TestKrPalApplicationManager : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    // Every root registered is released in the end.
    void cleanup()
    {
        for (const QString &name : names)
            Manager::remove(name);
        QCOMPARE(s_liveRoots.load(), 0);
    }

    // Names are compared exactly; a replaced or removed root is released; a null root is loaded.
    void registry()
    {
        for (const QString &name : names + QStringList{"a"})
            QVERIFY(Manager::add(name, makeRoot(name)));
        for (const QString &name : names)
            QVERIFY(Manager::application(name) && Manager::application(name)->objectName() == name);
        Manager::remove("b");
        Manager::remove("app");
        QVERIFY(!Manager::loaded("APP") && !Manager::loaded("app ") && !Manager::loaded("app"));
        QVERIFY(!Manager::application("app"));
        Manager::add("a", {});
        QVERIFY(Manager::loaded("a") && !Manager::application("a"));
        QCOMPARE(s_liveRoots.load(), 2);
    }

    // Threads add, replace, remove and look up the same few names at once; every root found is whole.
    // A root's destruction may use the manager: the registry lets go of it outside its lock.
    void rootDestructionUsesTheManager()
    {
        QSharedPointer<Pal::KrPalRoot> root = makeRoot("a");
        QObject::connect(root.data(), &QObject::destroyed, [] { Manager::add("App", Manager::application("a")); });
        Manager::add("a", root);
        root.reset();
        std::unique_ptr<QThread> remover(QThread::create([] { Manager::remove("a"); }));
        remover->start();
        if (!remover->wait(5000)) {
            remover.release(); // deadlocked on the registry lock: leave it rather than abort
            QFAIL("remove() deadlocked while its root was destroyed");
        }
        QVERIFY(!Manager::loaded("a"));
        QVERIFY(Manager::loaded("App"));
        QVERIFY(Manager::application("App").isNull());
    }

    void concurrentUse()
    {
        std::atomic<int> wholeRoots{0}, brokenRoots{0};
        QSemaphore go;
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([&, t] {
                go.acquire();
                for (int i = 0; i < 20000; ++i) {
                    const QString &name = names.at((i + t) % 3);
                    Manager::loaded(name);
                    // Lookups come between a thread's own adds and removes, so that roots are
                    // found however the threads happen to be scheduled.
                    if ((i / 3 + t) % 3 == 0)
                        Manager::add(name, makeRoot(name));
                    else if ((i / 3 + t) % 3 == 2)
                        Manager::remove(name);
                    else if (const auto root = Manager::application(name))
                        ++(root->objectName() == name ? wholeRoots : brokenRoots);
                }
            });
        go.release(4);
        for (auto &thread : threads)
            thread.join();
        QVERIFY(wholeRoots > 0);
        QCOMPARE(brokenRoots.load(), 0);
    }
};

QTEST_GUILESS_MAIN(TestKrPalApplicationManager)
#include "tst_krpalapplicationmanager.moc"
