// The application manager under load: threads add, replace, remove and look up roots at once,
// and the roots that the registry lets go of for the last time are destroyed right after its lock,
// inside add() and remove(). Every root found is whole and alive, every root is destroyed
// exactly once, and none is left at the end.

#include <pal/krdeviceabstraction.h>
#include <pal/krpalapplicationmanager.h>
#include <pal/krpalroot.h>

#include <QSemaphore>
#include <QTest>
#include <QThread>

#include <atomic>
#include <memory>
#include <vector>

using Manager = Pal::KrPalApplicationManager;
using Pal::KrPalRoot;

namespace {

constexpr int threadCount = 8;
constexpr int operationsPerThread = 25000;
const QStringList sharedNames{"a", "b", "c", "d"};

// Set while this thread is inside add() or remove(): a root destroyed then was destroyed by the registry.
thread_local bool t_changingRegistry = false;
std::atomic<int> s_created{0};
std::atomic<int> s_destroyedInRegistry{0};
std::atomic<int> s_destroyedElsewhere{0};

// A device that knows whether it is alive and where it was destroyed.
class TrackedDevice : public Pal::KrDeviceAbstraction
{
    Q_OBJECT
public:
    using KrDeviceAbstraction::KrDeviceAbstraction;
    ~TrackedDevice() override
    {
        Q_ASSERT(alive == aliveMark); // destroyed once; asserts are on in tests
        alive = 0;
        ++(t_changingRegistry ? s_destroyedInRegistry : s_destroyedElsewhere);
    }
    static constexpr quint32 aliveMark = 0xA11FE;
    quint32 alive = aliveMark;
};

QSharedPointer<KrPalRoot> makeRoot(const QString &name)
{
    QSharedPointer<KrPalRoot> root(new KrPalRoot);
    root->addDeviceAbstraction(name.toUtf8(), std::make_shared<TrackedDevice>(name.toUtf8(), nullptr));
    ++s_created;
    return root;
}

// Whether @p root is a whole, living root made by makeRoot() for @p name.
bool isWhole(const QSharedPointer<KrPalRoot> &root, const QString &name)
{
    const auto *device = qobject_cast<TrackedDevice *>(root->deviceAbstraction(name.toUtf8().constData()));
    return device && device->alive == TrackedDevice::aliveMark && device->id() == name.toUtf8();
}

void add(const QString &name, const QSharedPointer<KrPalRoot> &root)
{
    t_changingRegistry = true;
    Manager::add(name, root);
    t_changingRegistry = false;
}

void remove(const QString &name)
{
    t_changingRegistry = true;
    Manager::remove(name);
    t_changingRegistry = false;
}

} // namespace

class TestKrPalApplicationManagerStress : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void manyThreadsChangeAndReadTheRegistry()
    {
        std::atomic<int> rootsFound{0}, brokenRoots{0}, ownReplacements{0};
        QSemaphore go;
        std::vector<std::unique_ptr<QThread>> threads;
        for (int t = 0; t < threadCount; ++t) {
            threads.emplace_back(QThread::create([&, t] {
                const QString own = QStringLiteral("own-%1").arg(t);
                go.acquire();
                for (int i = 0; i < operationsPerThread; ++i) {
                    const QString &name = sharedNames.at((i * 7 + t) % sharedNames.size());
                    const int operation = (i + t) % 6;
                    if (operation == 0) {
                        add(name, makeRoot(name));
                    } else if (operation == 1) {
                        remove(name);
                    } else if (operation == 2) {
                        // The reference taken here may outlive the registry's: the root then
                        // dies on this thread, outside the lock.
                        if (const QSharedPointer<KrPalRoot> root = Manager::application(name)) {
                            ++rootsFound;
                            brokenRoots += !isWhole(root, name);
                        }
                    } else if (operation == 3) {
                        Manager::loaded(name);
                    } else if (operation == 4) {
                        // One root under two names, then released by both.
                        const QSharedPointer<KrPalRoot> root = makeRoot(own);
                        add(own, root);
                        add(own + QLatin1String("-alias"), root);
                        remove(own + QLatin1String("-alias"));
                    } else {
                        // Nobody else touches this name: the root replaced is the registry's
                        // alone, and must die inside add().
                        add(own, makeRoot(own));
                        ++ownReplacements;
                    }
                }
                remove(own);
            }));
            threads.back()->start();
        }
        go.release(threadCount);
        for (const auto &thread : threads)
            QVERIFY(thread->wait(60000));

        QVERIFY(rootsFound > 0);
        QCOMPARE(brokenRoots.load(), 0);
        QVERIFY(s_destroyedInRegistry >= ownReplacements - threadCount);
        for (const QString &name : sharedNames)
            remove(name);
        QCOMPARE(s_destroyedInRegistry + s_destroyedElsewhere, s_created.load());
        qInfo("%d registry operations on %d threads; %d roots made, %d destroyed inside add() or remove()",
            threadCount * operationsPerThread, threadCount, s_created.load(), s_destroyedInRegistry.load());
    }
};

QTEST_GUILESS_MAIN(TestKrPalApplicationManagerStress)
#include "tst_krpalapplicationmanagerstress.moc"
