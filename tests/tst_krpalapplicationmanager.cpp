#include <pal/krdeviceabstraction.h>
#include <pal/krpalapplicationmanager.h>
#include <pal/krpalroot.h>

#include <QSemaphore>
#include <QTest>
#include <QThread>

#include <atomic>

using Pal::KrPalApplicationManager;
using Pal::KrPalRoot;

namespace {

const QStringList usedNames{"a", "b", "c", "App", "app", ""};

// Counts the devices alive, so a test sees whether every root it registered was released.
class CountedDevice : public Pal::KrDeviceAbstraction
{
    Q_OBJECT
public:
    explicit CountedDevice(const QByteArray &id)
        : KrDeviceAbstraction(id, nullptr)
    {
        ++s_live;
    }
    ~CountedDevice() override { --s_live; }
    static std::atomic<int> s_live;
};
std::atomic<int> CountedDevice::s_live{0};

// A root whose one device carries the application name as its key.
QSharedPointer<KrPalRoot> makeRoot(const QString &name)
{
    QSharedPointer<KrPalRoot> root(new KrPalRoot);
    root->addDeviceAbstraction(name.toUtf8(), std::make_shared<CountedDevice>(name.toUtf8()));
    return root;
}

} // namespace

class TestKrPalApplicationManager : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void cleanup()
    {
        for (const QString &name : usedNames)
            KrPalApplicationManager::remove(name);
        QCOMPARE(CountedDevice::s_live.load(), 0);
    }

    void emptyRegistry()
    {
        QVERIFY(!KrPalApplicationManager::application("a"));
        QVERIFY(!KrPalApplicationManager::loaded("a"));
    }

    void replaceReleasesEarlierRoot()
    {
        QSharedPointer<KrPalRoot> first = makeRoot("a");
        const QWeakPointer<KrPalRoot> firstWeak = first;
        QVERIFY(KrPalApplicationManager::add("a", std::move(first)));
        const QSharedPointer<KrPalRoot> second = makeRoot("a");
        QVERIFY(KrPalApplicationManager::add("a", second));
        QVERIFY(firstWeak.isNull());
        QCOMPARE(KrPalApplicationManager::application("a"), second);
    }

    void sameRootTwiceHoldsOneReference()
    {
        QSharedPointer<KrPalRoot> root = makeRoot("a");
        const QWeakPointer<KrPalRoot> weak = root;
        KrPalApplicationManager::add("a", root);
        KrPalApplicationManager::add("a", root);
        root.reset();
        QVERIFY(!weak.isNull());
        KrPalApplicationManager::remove("a");
        QVERIFY(weak.isNull());
    }

    void removeUnknownNameChangesNothing()
    {
        const QSharedPointer<KrPalRoot> root = makeRoot("a");
        KrPalApplicationManager::add("a", root);
        KrPalApplicationManager::remove("b");
        QVERIFY(KrPalApplicationManager::loaded("a"));
        QCOMPARE(KrPalApplicationManager::application("a"), root);
    }

    void nullRootIsLoaded()
    {
        KrPalApplicationManager::add("a", QSharedPointer<KrPalRoot>());
        QVERIFY(KrPalApplicationManager::loaded("a"));
        QVERIFY(!KrPalApplicationManager::application("a"));
    }

    void namesAreExact()
    {
        const QStringList names{"App", "app", ""};
        for (const QString &name : names)
            KrPalApplicationManager::add(name, makeRoot(name));
        for (const QString &name : names) {
            const QSharedPointer<KrPalRoot> root = KrPalApplicationManager::application(name);
            QVERIFY(root);
            QCOMPARE(root->deviceAbstraction(name.toUtf8().constData())->id(), name.toUtf8());
        }
        QVERIFY(!KrPalApplicationManager::loaded("APP"));
        QVERIFY(!KrPalApplicationManager::loaded(" app"));
    }

    void lookupKeepsRootAliveAfterRemove()
    {
        KrPalApplicationManager::add("a", makeRoot("a"));
        QSharedPointer<KrPalRoot> root = KrPalApplicationManager::application("a");
        KrPalApplicationManager::remove("a");
        QVERIFY(!KrPalApplicationManager::loaded("a"));
        QCOMPARE(CountedDevice::s_live.load(), 1);
        root.reset();
        QCOMPARE(CountedDevice::s_live.load(), 0);
    }

    // Several threads add, replace, remove and look up the same few names at once. Every root
    // found must be whole, and every root must be released in the end.
    void concurrentUse()
    {
        const QStringList names{"a", "b", "c"};
        const int threadCount = 4;
        const int operations = 20000;
        std::atomic<int> rootsFound{0};
        std::atomic<int> brokenRoots{0};
        QSemaphore go;
        std::vector<std::unique_ptr<QThread>> threads;
        for (int t = 0; t < threadCount; ++t) {
            threads.emplace_back(QThread::create([&, t] {
                go.acquire();
                for (int i = 0; i < operations; ++i) {
                    const QString &name = names.at((i + t) % names.size());
                    switch ((i / names.size() + t) % 4) {
                    case 0:
                        KrPalApplicationManager::add(name, makeRoot(name));
                        break;
                    case 1:
                        if (const QSharedPointer<KrPalRoot> root = KrPalApplicationManager::application(name)) {
                            ++rootsFound;
                            if (root->deviceAbstraction(name.toUtf8().constData())->id() != name.toUtf8())
                                ++brokenRoots;
                        }
                        break;
                    case 2:
                        KrPalApplicationManager::remove(name);
                        break;
                    default:
                        KrPalApplicationManager::loaded(name);
                    }
                }
            }));
            threads.back()->start();
        }
        go.release(threadCount);
        for (const auto &thread : threads)
            QVERIFY(thread->wait(60000));

        QVERIFY(rootsFound > 0);
        QCOMPARE(brokenRoots.load(), 0);
    }
};

QTEST_GUILESS_MAIN(TestKrPalApplicationManager)
#include "tst_krpalapplicationmanager.moc"
