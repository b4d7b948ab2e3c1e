#include "recordingreporter.h"
#include "testproxy.h"

#include <pal/krpalconfiguration.h>
#include <pal/krpalroot.h>

#include <QTest>

using Pal::CommandFormatters;
using Pal::KrAbstractDeviceProxy;
using Pal::KrDeviceAbstraction;
using Pal::KrPalRoot;

Q_DECLARE_METATYPE(Report)

// Built by the factory; counts its constructions and destructions.
class CountingDevice : public KrDeviceAbstraction
{
    Q_OBJECT
public:
    Q_INVOKABLE CountingDevice(const QByteArray &id, KrAbstractDeviceProxy *deviceProxy, CommandFormatters &formatters)
        : KrDeviceAbstraction(id, deviceProxy, formatters)
    {
        ++s_live;
    }
    ~CountingDevice() override { --s_live; }
    static int s_live;
};
int CountingDevice::s_live = 0;

// Lacks the formatters parameter, so the factory cannot build it.
class KeyAndProxyDevice : public KrDeviceAbstraction
{
    Q_OBJECT
public:
    Q_INVOKABLE KeyAndProxyDevice(const QByteArray &id, KrAbstractDeviceProxy *deviceProxy)
        : KrDeviceAbstraction(id, deviceProxy)
    {
    }
};

// Has no constructor callable without arguments.
class ChannelProxy : public TestProxy
{
    Q_OBJECT
public:
    Q_INVOKABLE explicit ChannelProxy(int) { }
};

namespace {

const QString configurationFile = QStringLiteral("krpalconfiguration.cpp");
const QString factoryFunction = QStringLiteral("std::shared_ptr<Pal::KrDeviceAbstraction> "
                                               "Pal::KrPalConfiguration::createKrDeviceAbstraction(const QByteArray&) "
                                               "const");
const QString createPalRootFunction
    = QStringLiteral("QSharedPointer<Pal::KrPalRoot> Pal::KrPalConfiguration::createPalRoot() const");

Report notConstructed(const QString &key)
{
    return {51, configurationFile, 40, createPalRootFunction,
        {QStringLiteral("creating KrPalRoot"), QStringLiteral("device %1 couldn't be constructed").arg(key)}};
}

QMetaObject classNamed(const QByteArray &name)
{
    const QList<const QMetaObject *> classes{&TestProxy::staticMetaObject, &ChannelProxy::staticMetaObject,
        &CountingDevice::staticMetaObject, &KeyAndProxyDevice::staticMetaObject};
    for (const QMetaObject *metaObject : classes) {
        if (name == metaObject->className())
            return *metaObject;
    }
    return QMetaObject();
}

int liveProxies()
{
    return TestProxy::s_constructed - TestProxy::s_destroyed;
}

// Only the keys: everything else is the base's.
class KeysOnlyConfiguration : public Pal::KrPalConfiguration
{
public:
    QList<QByteArray> deviceAbstractionIds() const override { return ids; }
    QList<QByteArray> ids;
};

// Records every call of a virtual operation as "operation:key".
class TestConfiguration : public KeysOnlyConfiguration
{
public:
    QByteArray proxyClass = "TestProxy";
    QByteArray deviceClass = "CountingDevice";
    QList<QByteArray> handBuilt;
    mutable QHash<QByteArray, KrDeviceAbstraction *> built;
    mutable QStringList calls;

    void record(const char *operation, const QByteArray &id) const
    {
        calls << QLatin1String(operation) + QLatin1Char(':') + QString::fromUtf8(id);
    }

    std::shared_ptr<KrDeviceAbstraction> createDeviceAbstraction(const QByteArray &id) const override
    {
        record("createDeviceAbstraction", id);
        if (!handBuilt.contains(id))
            return nullptr;
        auto device = std::make_shared<KrDeviceAbstraction>(id, nullptr);
        built.insert(id, device.get());
        return device;
    }
    QMetaObject deviceProxy(const QByteArray &id) const override
    {
        record("deviceProxy", id);
        return classNamed(proxyClass);
    }
    QMetaObject deviceAbstraction(const QByteArray &id) const override
    {
        record("deviceAbstraction", id);
        return classNamed(deviceClass);
    }
    CommandFormatters commandFormatters(const QByteArray &id) const override
    {
        record("commandFormatters", id);
        return {{1, [](quint16, const QVariant &value) -> QByteArray { return "value " + value.toByteArray(); }}};
    }
};

} // namespace

class TestKrPalConfiguration : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void routes_data()
    {
        QTest::addColumn<QList<QByteArray>>("handBuilt");
        QTest::addColumn<QStringList>("expectedCalls");
        const QStringList metaObjectRoute{"createDeviceAbstraction:adc", "deviceProxy:adc", "deviceAbstraction:adc",
            "commandFormatters:adc", "createDeviceAbstraction:dac", "deviceProxy:dac", "deviceAbstraction:dac",
            "commandFormatters:dac"};
        QTest::newRow("meta-object route") << QList<QByteArray>() << metaObjectRoute;
        QTest::newRow("hook builds all") << QList<QByteArray>{"adc", "dac"}
                                         << QStringList{"createDeviceAbstraction:adc", "createDeviceAbstraction:dac"};
        QTest::newRow("hook builds one") << QList<QByteArray>{"dac"} << QStringList(metaObjectRoute.mid(0, 5));
    }
    void routes()
    {
        QFETCH(QList<QByteArray>, handBuilt);
        QFETCH(QStringList, expectedCalls);
        RecordingReporter reporter;
        const int liveProxiesBefore = liveProxies();
        TestConfiguration configuration;
        configuration.ids = {"adc", "dac"};
        configuration.handBuilt = handBuilt;
        QSharedPointer<KrPalRoot> root = configuration.createPalRoot();

        QCOMPARE(configuration.calls, expectedCalls);
        for (const QByteArray &key : configuration.ids) {
            KrDeviceAbstraction *device = root->deviceAbstraction(key.constData());
            QVERIFY(device);
            QCOMPARE(device->parent(), nullptr);
            if (handBuilt.contains(key)) {
                QCOMPARE(device, configuration.built.value(key));
                continue;
            }
            QVERIFY(qobject_cast<CountingDevice *>(device));
            QCOMPARE(device->id(), key);
            auto *proxy = device->findChild<TestProxy *>();
            QVERIFY(proxy);
            QCOMPARE(proxy->parent(), device);
            // The formatters outlived the factory's copy.
            QCOMPARE(device->write(1, 5, 5000), qint64(7));
            QCOMPARE(proxy->writes().value(0).bytes, QByteArray("value 5"));
        }
        QCOMPARE(reporter.count(), 0);

        root.reset();
        QCOMPARE(CountingDevice::s_live, 0);
        QCOMPARE(liveProxies(), liveProxiesBefore);
    }

    void failures_data()
    {
        QTest::addColumn<QList<QByteArray>>("ids");
        QTest::addColumn<QByteArray>("proxyClass");
        QTest::addColumn<QByteArray>("deviceClass");
        QTest::addColumn<QList<Report>>("expectedReports");
        QTest::addColumn<QList<QByteArray>>("registered");
        const Report emptyKey{39, configurationFile, 69, factoryFunction, {QStringLiteral("deviceAbstractionId")}};
        const Report noDevice{50, configurationFile, 94, factoryFunction, {QStringLiteral("KeyAndProxyDevice")}};
        const QByteArray proxy = "TestProxy";
        const QByteArray device = "CountingDevice";

        QTest::newRow("no keys") << QList<QByteArray>() << proxy << device << QList<Report>() << QList<QByteArray>();
        QTest::newRow("empty key") << QList<QByteArray>{"a", "", "b"} << proxy << device
                                   << QList<Report>{emptyKey, notConstructed(QString())} << QList<QByteArray>{"a", "b"};
        QTest::newRow("device without formatters constructor")
            << QList<QByteArray>{"a"} << proxy << QByteArray("KeyAndProxyDevice")
            << QList<Report>{noDevice, notConstructed("a")} << QList<QByteArray>();
        QTest::newRow("NUL byte in key") << QList<QByteArray>{QByteArray("ab\0cd", 5)} << proxy
                                         << QByteArray("KeyAndProxyDevice")
                                         << QList<Report>{noDevice, notConstructed("ab")} << QList<QByteArray>();
        QTest::newRow("empty device class")
            << QList<QByteArray>{"a"} << proxy << QByteArray()
            << QList<Report>{{50, configurationFile, 94, factoryFunction, {QString()}}, notConstructed("a")}
            << QList<QByteArray>();
        QTest::newRow("proxy without no-argument constructor")
            << QList<QByteArray>{"a"} << QByteArray("ChannelProxy") << device
            << QList<Report>{{50, configurationFile, 79, factoryFunction, {QStringLiteral("ChannelProxy")}},
                   notConstructed("a")}
            << QList<QByteArray>();
        QTest::newRow("duplicate key")
            << QList<QByteArray>{"a", "a"} << proxy << device
            << QList<Report>{{46, QStringLiteral("krpalroot.cpp"), 25,
                   QStringLiteral("StatusCode Pal::KrPalRoot::addDeviceAbstraction(const QByteArray&, "
                                  "std::shared_ptr<Pal::KrDeviceAbstraction>)"),
                   {QStringLiteral("KrDeviceAbstraction with key = a"), QStringLiteral("KrPalRoot")}}}
            << QList<QByteArray>{"a"};
        QTest::newRow("NULL") << QList<QByteArray>{"NULL"} << proxy << device
                              << QList<Report>{{39, QStringLiteral("krpalroot.cpp"), 30,
                                     QStringLiteral("StatusCode Pal::KrPalRoot::addDeviceAbstraction(const "
                                                    "QByteArray&, std::shared_ptr<Pal::KrDeviceAbstraction>)"),
                                     {QStringLiteral("key")}}}
                              << QList<QByteArray>();
    }
    void failures()
    {
        QFETCH(QList<QByteArray>, ids);
        QFETCH(QByteArray, proxyClass);
        QFETCH(QByteArray, deviceClass);
        QFETCH(QList<Report>, expectedReports);
        QFETCH(QList<QByteArray>, registered);
        RecordingReporter reporter;
        const int liveProxiesBefore = liveProxies();
        TestConfiguration configuration;
        configuration.ids = ids;
        configuration.proxyClass = proxyClass;
        configuration.deviceClass = deviceClass;
        const QSharedPointer<KrPalRoot> root = configuration.createPalRoot();

        QVERIFY(root);
        QCOMPARE(reporter.reports(), expectedReports);
        // Whatever was built and not kept is gone, proxies included.
        QCOMPARE(CountingDevice::s_live, registered.size());
        QCOMPARE(liveProxies(), liveProxiesBefore + registered.size());
        reporter.clear();
        for (const QByteArray &key : registered)
            QVERIFY(root->deviceAbstraction(key.constData()));
        QCOMPARE(reporter.count(), 0);
    }

    void baseImplementations()
    {
        RecordingReporter reporter;
        KeysOnlyConfiguration configuration;
        configuration.ids = {"x"};
        QVERIFY(configuration.commandIds("x").isEmpty());
        QVERIFY(configuration.commandFormatters("x").isEmpty());
        QVERIFY(!configuration.createDeviceAbstraction("x"));
        const QMetaObject proxyClass = configuration.deviceProxy("x");
        QVERIFY(!proxyClass.d.superdata && !proxyClass.d.stringdata && !proxyClass.d.data);

        // The base's empty proxy class counts as one that cannot be constructed.
        QVERIFY(configuration.createPalRoot());
        QCOMPARE(reporter.reports(),
            (QList<Report>{{50, configurationFile, 79, factoryFunction, {QString()}}, notConstructed("x")}));
    }

    void factoryAsksNothingForEmptyKey()
    {
        RecordingReporter reporter;
        TestConfiguration configuration;
        QVERIFY(!configuration.createKrDeviceAbstraction(QByteArray()));
        QVERIFY(configuration.calls.isEmpty());
        QCOMPARE(reporter.count(), 1);
    }
};

QTEST_GUILESS_MAIN(TestKrPalConfiguration)
#include "tst_krpalconfiguration.moc"
