#include "recordingreporter.h"
#include "testproxy.h"

#include <pal/krpalconfiguration.h>
#include <pal/krpalroot.h>

#include <QTest>

using Pal::CommandFormatters;
using Pal::KrAbstractDeviceProxy;
using Pal::KrDeviceAbstraction;

Q_DECLARE_METATYPE(Report)
Q_DECLARE_METATYPE(const QMetaObject *)

// Built by the factory; counts the devices alive.
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
const QString factoryFunction = QStringLiteral(
    "std::shared_ptr<Pal::KrDeviceAbstraction> Pal::KrPalConfiguration::createKrDeviceAbstraction(const QByteArray&) "
    "const");
const QString addFunction = QStringLiteral(
    "StatusCode Pal::KrPalRoot::addDeviceAbstraction(const QByteArray&, std::shared_ptr<Pal::KrDeviceAbstraction>)");

Report notConstructed(const QString &key)
{
    return {51, configurationFile, 40,
        QStringLiteral("QSharedPointer<Pal::KrPalRoot> Pal::KrPalConfiguration::createPalRoot() const"),
        {QStringLiteral("creating KrPalRoot"), QStringLiteral("device %1 couldn't be constructed").arg(key)}};
}

int liveProxies()
{
    return TestProxy::s_constructed - TestProxy::s_destroyed;
}

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
    QMetaObject proxyClass = TestProxy::staticMetaObject;
    QMetaObject deviceClass = CountingDevice::staticMetaObject;
    QList<QByteArray> handBuilt;
    mutable QHash<QByteArray, KrDeviceAbstraction *> built;
    mutable QStringList calls;

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
        return proxyClass;
    }
    QMetaObject deviceAbstraction(const QByteArray &id) const override
    {
        record("deviceAbstraction", id);
        return deviceClass;
    }
    CommandFormatters commandFormatters(const QByteArray &id) const override
    {
        record("commandFormatters", id);
        return {{1, [](quint16, const QVariant &value) -> QByteArray { return "value " + value.toByteArray(); }}};
    }

private:
    void record(const char *operation, const QByteArray &id) const
    {
        calls << QLatin1String(operation) + QLatin1Char(':') + QString::fromUtf8(id);
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
        QSharedPointer<Pal::KrPalRoot> root = configuration.createPalRoot();

        QCOMPARE(configuration.calls, expectedCalls);
        for (const QByteArray &key : configuration.ids) {
            KrDeviceAbstraction *device = root->deviceAbstraction(key.constData());
            QVERIFY(device && !device->parent());
            if (handBuilt.contains(key)) {
                QCOMPARE(device, configuration.built.value(key));
                continue;
            }
            QVERIFY(qobject_cast<CountingDevice *>(device));
            QCOMPARE(device->id(), key);
            auto *proxy = device->findChild<TestProxy *>();
            QVERIFY(proxy && proxy->parent() == device);
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
        QTest::addColumn<const QMetaObject *>("proxyClass");
        QTest::addColumn<const QMetaObject *>("deviceClass");
        QTest::addColumn<QList<Report>>("expectedReports");
        QTest::addColumn<QList<QByteArray>>("registered");
        const QMetaObject *proxy = &TestProxy::staticMetaObject;
        const QMetaObject *device = &CountingDevice::staticMetaObject;
        const QMetaObject *keyAndProxy = &KeyAndProxyDevice::staticMetaObject;
        const QMetaObject *none = nullptr;
        const auto unbuilt = [](quint64 line, const char *className) {
            return Report{50, configurationFile, line, factoryFunction, {QString::fromUtf8(className)}};
        };
        const QList<QByteArray> nothing;

        QTest::newRow("no keys") << nothing << proxy << device << QList<Report>() << nothing;
        QTest::newRow("empty key") << QList<QByteArray>{"a", "", "b"} << proxy << device
                                   << QList<Report>{{39, configurationFile, 69, factoryFunction,
                                                        {QStringLiteral("deviceAbstractionId")}},
                                          notConstructed(QString())}
                                   << QList<QByteArray>{"a", "b"};
        QTest::newRow("device without formatters constructor")
            << QList<QByteArray>{"a"} << proxy << keyAndProxy
            << QList<Report>{unbuilt(94, "KeyAndProxyDevice"), notConstructed("a")} << nothing;
        QTest::newRow("NUL byte in key") << QList<QByteArray>{QByteArray("ab\0cd", 5)} << proxy << keyAndProxy
                                         << QList<Report>{unbuilt(94, "KeyAndProxyDevice"), notConstructed("ab")}
                                         << nothing;
        QTest::newRow("empty device class") << QList<QByteArray>{"a"} << proxy << none
                                            << QList<Report>{unbuilt(94, ""), notConstructed("a")} << nothing;
        QTest::newRow("proxy without no-argument constructor")
            << QList<QByteArray>{"a"} << &ChannelProxy::staticMetaObject << device
            << QList<Report>{unbuilt(79, "ChannelProxy"), notConstructed("a")} << nothing;
        QTest::newRow("empty proxy class") << QList<QByteArray>{"a"} << none << device
                                           << QList<Report>{unbuilt(79, ""), notConstructed("a")} << nothing;
        QTest::newRow("duplicate key") << QList<QByteArray>{"a", "a"} << proxy << device
                                       << QList<Report>{{46, QStringLiteral("krpalroot.cpp"), 25, addFunction,
                                              {QStringLiteral("KrDeviceAbstraction with key = a"),
                                                  QStringLiteral("KrPalRoot")}}}
                                       << QList<QByteArray>{"a"};
        QTest::newRow("NULL") << QList<QByteArray>{"NULL"} << proxy << device
                              << QList<Report>{{39, QStringLiteral("krpalroot.cpp"), 30, addFunction,
                                     {QStringLiteral("key")}}}
                              << nothing;
    }
    // What was built and not kept is gone before createPalRoot returns, proxies included.
    void failures()
    {
        QFETCH(QList<QByteArray>, ids);
        QFETCH(const QMetaObject *, proxyClass);
        QFETCH(const QMetaObject *, deviceClass);
        QFETCH(QList<Report>, expectedReports);
        QFETCH(QList<QByteArray>, registered);
        RecordingReporter reporter;
        const int liveProxiesBefore = liveProxies();
        TestConfiguration configuration;
        configuration.ids = ids;
        configuration.proxyClass = proxyClass ? *proxyClass : QMetaObject();
        configuration.deviceClass = deviceClass ? *deviceClass : QMetaObject();
        const QSharedPointer<Pal::KrPalRoot> root = configuration.createPalRoot();

        QVERIFY(root);
        QCOMPARE(reporter.reports(), expectedReports);
        QCOMPARE(CountingDevice::s_live, registered.size());
        QCOMPARE(liveProxies(), liveProxiesBefore + registered.size());
        for (const QByteArray &key : registered)
            QVERIFY(root->deviceAbstraction(key.constData()));
        QCOMPARE(reporter.count(), expectedReports.size());
    }

    void baseImplementations()
    {
        RecordingReporter reporter;
        KeysOnlyConfiguration configuration;
        configuration.ids = {"x"};
        QVERIFY(configuration.commandIds("x").isEmpty());
        QVERIFY(configuration.commandFormatters("x").isEmpty());
        QVERIFY(!configuration.createDeviceAbstraction("x"));
        const QMetaObject deviceClass = configuration.deviceAbstraction("x");
        QVERIFY(!deviceClass.d.superdata && !deviceClass.d.stringdata && !deviceClass.d.data);

        // The factory asks nothing for an empty key.
        TestConfiguration recording;
        QVERIFY(!recording.createKrDeviceAbstraction(QByteArray()));
        QVERIFY(recording.calls.isEmpty());
        reporter.clear();

        QVERIFY(configuration.createPalRoot());
        QCOMPARE(reporter.reports(),
            (QList<Report>{{50, configurationFile, 79, factoryFunction, {QString()}}, notConstructed("x")}));
    }
};

QTEST_GUILESS_MAIN(TestKrPalConfiguration)
#include "tst_krpalconfiguration.moc"
