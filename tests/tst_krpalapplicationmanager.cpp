#include <pal/krpalapplicationmanager.h>
#include <pal/krpalroot.h>

#include <QTest>
#include <QThread>

#include <atomic>

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
};

QTEST_GUILESS_MAIN(TestKrPalApplicationManager)
#include "tst_krpalapplicationmanager.moc"
