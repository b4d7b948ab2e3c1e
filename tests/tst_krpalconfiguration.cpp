#include "recordingreporter.h"
#include "testproxy.h"

#include <pal/krpalconfiguration.h>
#include <pal/krpalroot.h>

#include <QTest>

using Pal::KrDeviceAbstraction;

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
};

QTEST_GUILESS_MAIN(TestKrPalConfiguration)
#include "tst_krpalconfiguration.moc"
