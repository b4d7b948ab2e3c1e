#include "recordingreporter.h"
#include "testproxy.h"

#include <pal/krpalapplicationmanager.h>
#include <pal/krpalconfiguration.h>
#include <pal/krpalroot.h>

#include <QTest>
#include <QThread>

#include <atomic>

using Pal::KrDeviceAbstraction;
using Manager = Pal::KrPalApplicationManager;

namespace {

using Pinned::notConstructed;
using Pinned::unbuilt;

const QMetaObject *const proxyClass = &TestProxy::staticMetaObject;
const QMetaObject *const deviceClass = &KrDeviceAbstraction::staticMetaObject;

// The first @p count operations that building @p key asks for, as TestConfiguration records them.
QStringList asked(const QString &key, int count = 4)
{
    return QStringList{"hook:" + key, "proxy:" + key, "device:" + key, "formatters:" + key}.mid(0, count);
}

// Has the device's invokable constructor, yet is no QObject: the factory must not build it.
struct GadgetBase
{
    Q_GADGET
};
struct DeviceLikeGadget : GadgetBase
{
    Q_GADGET
public:
    Q_INVOKABLE DeviceLikeGadget(const QByteArray &, Pal::KrAbstractDeviceProxy *, Pal::CommandFormatters &) { }
};

// Records every call of a virtual operation; a null class leaves the base's empty meta-object.
class TestConfiguration : public Pal::KrPalConfiguration
{
public:
    QList<QByteArray> ids;
    QList<QByteArray> handBuilt;
    const QMetaObject *proxyClass = nullptr;
    const QMetaObject *deviceClass = nullptr;
    mutable QStringList calls;

    QList<QByteArray> deviceAbstractionIds() const override { return ids; }
    std::shared_ptr<KrDeviceAbstraction> createDeviceAbstraction(const QByteArray &id) const override
    {
        calls << "hook:" + QString::fromUtf8(id.constData());
        return handBuilt.contains(id) ? std::make_shared<KrDeviceAbstraction>(id, nullptr)
                                      : KrPalConfiguration::createDeviceAbstraction(id);
    }
    QMetaObject deviceProxy(const QByteArray &id) const override
    {
        calls << "proxy:" + QString::fromUtf8(id.constData());
        return proxyClass ? *proxyClass : KrPalConfiguration::deviceProxy(id);
    }
    QMetaObject deviceAbstraction(const QByteArray &id) const override
    {
        calls << "device:" + QString::fromUtf8(id.constData());
        return deviceClass ? *deviceClass : KrPalConfiguration::deviceAbstraction(id);
    }
    Pal::CommandFormatters commandFormatters(const QByteArray &id) const override
    {
        calls << "formatters:" + QString::fromUtf8(id.constData());
        return {{1, [](quint16, const QVariant &value) -> QByteArray { return "value " + value.toByteArray(); }}};
    }
};

class CollectingDevice : public Pal::KrDeviceAbstraction
{
    Q_OBJECT
public:
    using KrDeviceAbstraction::KrDeviceAbstraction;
    void collectData() override { ++collectCount; }
    int collectCount = 0;
};

const QStringList names{"a", "App", "app", QString()};
std::atomic<int> s_liveRoots{0};

QSharedPointer<Pal::KrPalRoot> makeRoot(const QString &name)
{
    QSharedPointer<Pal::KrPalRoot> root(new Pal::KrPalRoot);
    root->setObjectName(name);
    ++s_liveRoots;
    QObject::connect(root.data(), &QObject::destroyed, [] { --s_liveRoots; });
    return root;
}

} // namespace

Q_DECLARE_METATYPE(Report)
Q_DECLARE_METATYPE(QSharedPointer<TestConfiguration>)

class TestKrPalConfiguration : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void createPalRoot_data()
    {
        QTest::addColumn<QSharedPointer<TestConfiguration>>("configuration");
        QTest::addColumn<QStringList>("calls");
        QTest::addColumn<QList<Report>>("reports");
        QTest::addColumn<QList<QByteArray>>("kept");
        const auto row
            = [](const char *name, const QList<QByteArray> &ids, const QStringList &calls, const QList<Report> &reports,
                  const QList<QByteArray> &kept, const QMetaObject *proxy = proxyClass,
                  const QMetaObject *device = deviceClass, const QList<QByteArray> &handBuilt = {}) {
                  const auto configuration = QSharedPointer<TestConfiguration>::create();
                  configuration->ids = ids;
                  configuration->handBuilt = handBuilt;
                  configuration->proxyClass = proxy;
                  configuration->deviceClass = device;
                  QTest::newRow(name) << configuration << calls << reports << kept;
              };
        // The hook is asked first for every key; the meta-object route only when it builds nothing.
        row("meta-object route", {"adc", "dac"}, asked("adc") + asked("dac"), {}, {"adc", "dac"});
        row("hook builds all", {"adc", "dac"}, asked("adc", 1) + asked("dac", 1), {}, {"adc", "dac"}, proxyClass,
            deviceClass, {"adc", "dac"});
        // Nothing but the hook is asked for an empty key.
        row("empty key", {"a", "", "b"}, asked("a") + asked("", 1) + asked("b"), {Pinned::emptyKey, notConstructed("")},
            {"a", "b"});
        // The proxy built for a device that cannot be built is deleted.
        row("device without the three-argument constructor, NUL in key", {QByteArray("ab\0cd", 5)}, asked("ab"),
            {unbuilt(94, "TestProxy"), notConstructed("ab")}, {}, proxyClass, proxyClass);
        row("empty device class", {"a"}, asked("a"), {unbuilt(94, ""), notConstructed("a")}, {}, proxyClass, nullptr);
        row("proxy without a no-argument constructor", {"a"}, asked("a", 2),
            {unbuilt(79, "Pal::KrDeviceAbstraction"), notConstructed("a")}, {}, deviceClass);
        row("empty proxy class", {"a"}, asked("a", 2), {unbuilt(79, ""), notConstructed("a")}, {}, nullptr);
        // Without a superclass QObject's own meta-object cannot be told from the empty one.
        row("QObject as proxy class", {"a"}, asked("a", 2), {unbuilt(79, ""), notConstructed("a")}, {},
            &QObject::staticMetaObject);
        row("gadget as device class", {"a"}, asked("a"), {unbuilt(94, "DeviceLikeGadget"), notConstructed("a")}, {},
            proxyClass, &DeviceLikeGadget::staticMetaObject);
        // A device that the root refuses is gone, with its proxy, before createPalRoot returns.
        row("duplicate key", {"a", "a"}, asked("a") + asked("a"), {Pinned::duplicateKey("a")}, {"a"});
        row("NULL", {"NULL"}, asked("NULL"), {Pinned::reservedKey}, {});
    }
    // A device kept has no parent; one built from its classes has its proxy as its child and its
    // own copy of the formatters. No other proxy survives createPalRoot, and none the root.
    void createPalRoot()
    {
        QFETCH(QSharedPointer<TestConfiguration>, configuration);
        QFETCH(QStringList, calls);
        QFETCH(QList<Report>, reports);
        QFETCH(QList<QByteArray>, kept);
        RecordingReporter reporter;
        const int proxiesBefore = TestProxy::s_constructed - TestProxy::s_destroyed;
        QSharedPointer<Pal::KrPalRoot> root = configuration->createPalRoot();
        QCOMPARE(configuration->calls, calls);
        QCOMPARE(reporter.reports(), reports);

        int built = 0;
        for (const QByteArray &key : kept) {
            KrDeviceAbstraction *device = root->deviceAbstraction(key.constData());
            QVERIFY(device && !device->parent());
            QCOMPARE(device->id(), key);
            if (configuration->handBuilt.contains(key))
                continue;
            ++built;
            auto *proxy = device->findChild<TestProxy *>();
            QVERIFY(proxy && proxy->parent() == device);
            QCOMPARE(device->write(1, 5, 5000), qint64(7));
            QCOMPARE(proxy->writes().value(0).bytes, QByteArray("value 5"));
        }
        QCOMPARE(TestProxy::s_constructed - TestProxy::s_destroyed, proxiesBefore + built);
        root.reset();
        QCOMPARE(TestProxy::s_constructed - TestProxy::s_destroyed, proxiesBefore);
    }

    // The key as the duplicate report shows it; null where the key is refused as reserved.
    void addDeviceAbstraction_data()
    {
        QTest::addColumn<QByteArray>("key");
        QTest::addColumn<QString>("shownKey");
        QTest::newRow("lowercase null") << QByteArray("null") << "null";
        QTest::newRow("NUL byte") << QByteArray("ab\0cd", 5) << "ab";
        QTest::newRow("UTF-8") << QByteArray("\xc3\xa4") << QString::fromUtf8("\xc3\xa4");
        QTest::newRow("NULL") << QByteArray("NULL") << QString();
    }
    // The reporter's answer comes back; a refused device is not kept, a stored one until the root goes.
    void addDeviceAbstraction()
    {
        QFETCH(QByteArray, key);
        QFETCH(QString, shownKey);
        RecordingReporter reporter(1234);
        auto root = std::make_unique<Pal::KrPalRoot>();
        const auto first = std::make_shared<CollectingDevice>("first", nullptr);
        const auto second = std::make_shared<CollectingDevice>("second", nullptr);
        QCOMPARE(root->addDeviceAbstraction(key, first), StatusCode(shownKey.isNull() ? 1234 : 0));
        QCOMPARE(root->addDeviceAbstraction(key, second), StatusCode(1234));
        QCOMPARE((QList<long>{first.use_count(), second.use_count()}), (QList<long>{shownKey.isNull() ? 1 : 2, 1}));
        const Report expected = shownKey.isNull() ? Pinned::reservedKey : Pinned::duplicateKey(shownKey);
        QCOMPARE(reporter.reports(), (shownKey.isNull() ? QList<Report>{expected, expected} : QList<Report>{expected}));
        root.reset();
        QCOMPARE(first.use_count(), 1L);
    }

    // An empty entry is found as null and never called through; a null key means the empty one.
    void lookupsAndCollect()
    {
        RecordingReporter reporter;
        Pal::KrPalRoot root;
        const auto unnamed = std::make_shared<CollectingDevice>("", nullptr);
        const auto b = std::make_shared<CollectingDevice>("b", nullptr);
        root.addDeviceAbstraction("", unnamed);
        root.addDeviceAbstraction("b", b);
        root.addDeviceAbstraction("empty", nullptr);
        QCOMPARE(root.deviceAbstraction(nullptr), unnamed.get());
        QCOMPARE(root.deviceAbstraction("empty"), nullptr);
        root.collectData(nullptr);
        root.collectData("b");
        root.collectData("empty");
        QCOMPARE((QList<int>{unnamed->collectCount, b->collectCount}), (QList<int>{1, 2}));

        QCOMPARE(root.deviceAbstraction("NULL"), nullptr);
        root.collectData("dac");
        QCOMPARE(reporter.reports(), (QList<Report>{Pinned::unknownKey("NULL"), Pinned::unknownCollectKey("dac")}));
    }

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
        QVERIFY(!Manager::loaded("APP") && !Manager::loaded("app ") && !Manager::loaded("app")
            && !Manager::application("app"));
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
        QVERIFY(!Manager::loaded("a") && Manager::loaded("App") && Manager::application("App").isNull());
    }
};

QTEST_GUILESS_MAIN(TestKrPalConfiguration)
#include "tst_krpalconfiguration.moc"
