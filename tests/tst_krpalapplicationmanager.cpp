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

// Whether the registry holds, under @p name, a root made by makeRoot(name).
bool holds(const QString &name)
{
    const QSharedPointer<KrPalRoot> root = KrPalApplicationManager::application(name);
    return root && root->deviceAbstraction(name.toUtf8().constData())->id() == name.toUtf8();
}

} // namespace

class TestKrPalApplicationManager : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void cleanup()
    {
        for (const QString &name : {QStringLiteral("a"), QStringLiteral("App"), QStringLiteral("app"), QString()})
            KrPalApplicationManager::remove(name);
        QCOMPARE(CountedDevice::s_live.load(), 0);
    }

    void replaceAndRemove()
    {
        QVERIFY(!KrPalApplicationManager::application("a"));
        QVERIFY(!KrPalApplicationManager::loaded("a"));
        QSharedPointer<KrPalRoot> first = makeRoot("a");
        const QWeakPointer<KrPalRoot> firstWeak = first;
        QVERIFY(KrPalApplicationManager::add("a", first));
        QVERIFY(KrPalApplicationManager::add("a", first));
        first.reset();
        QVERIFY(!firstWeak.isNull());

        const QSharedPointer<KrPalRoot> second = makeRoot("a");
        QVERIFY(KrPalApplicationManager::add("a", second));
        // The same root added twice was held once.
        QVERIFY(firstWeak.isNull());
        KrPalApplicationManager::remove("b");
        QCOMPARE(KrPalApplicationManager::application("a"), second);

        KrPalApplicationManager::remove("a");
        QVERIFY(!KrPalApplicationManager::loaded("a"));
        QCOMPARE(CountedDevice::s_live.load(), 1);
    }

    void namesAndNullRoots()
    {
        KrPalApplicationManager::add("App", makeRoot("App"));
        KrPalApplicationManager::add("app", makeRoot("app"));
        KrPalApplicationManager::add(QString(), makeRoot(QString()));
        KrPalApplicationManager::add("a", QSharedPointer<KrPalRoot>());
        QVERIFY(holds("App") && holds("app") && holds(QString()));
        QVERIFY(!KrPalApplicationManager::loaded("APP") && !KrPalApplicationManager::loaded("app "));
        QVERIFY(KrPalApplicationManager::loaded("a"));
        QVERIFY(!KrPalApplicationManager::application("a"));
    }

    // Threads add, replace, remove and look up the same few names at once; every root found
    // is whole, and every root is released in the end (see cleanup()).
    void concurrentUse()
    {
        const QStringList names{"a", "App", "app"};
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
                        if (const auto root = KrPalApplicationManager::application(name)) {
                            ++rootsFound;
                            brokenRoots += root->deviceAbstraction(name.toUtf8().constData())->id() != name.toUtf8();
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
