#include "recordingreporter.h"

#include <pal/krdeviceabstraction.h>
#include <pal/krpalroot.h>

#include <QTest>

using Pal::KrDeviceAbstraction;
using Pal::KrPalRoot;

Q_DECLARE_METATYPE(Report)

namespace {

const QString rootFile = QStringLiteral("krpalroot.cpp");
const QString addFunction = QStringLiteral(
    "StatusCode Pal::KrPalRoot::addDeviceAbstraction(const QByteArray&, std::shared_ptr<Pal::KrDeviceAbstraction>)");
const QString lookupFunction
    = QStringLiteral("Pal::KrDeviceAbstraction* Pal::KrPalRoot::deviceAbstraction(const char*)");
const QString collectFunction = QStringLiteral("void Pal::KrPalRoot::collectData(const char*) const");

// Counts its collectData() calls and the destructions of its class.
class CollectingDevice : public KrDeviceAbstraction
{
    Q_OBJECT
public:
    explicit CollectingDevice(const QByteArray &id)
        : KrDeviceAbstraction(id, nullptr)
    {
    }
    ~CollectingDevice() override { ++s_destroyed; }
    void collectData() override { ++collectCount; }

    int collectCount = 0;
    static int s_destroyed;
};
int CollectingDevice::s_destroyed = 0;

std::shared_ptr<CollectingDevice> makeDevice(const QByteArray &id)
{
    return std::make_shared<CollectingDevice>(id);
}

} // namespace

class TestKrPalRoot : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void addDeviceAbstraction_data()
    {
        QTest::addColumn<QByteArray>("key");
        QTest::addColumn<QList<Report>>("expectedReports");
        const QList<Report> none;
        QTest::newRow("plain key") << QByteArray("adc") << none;
        QTest::newRow("lower-case null") << QByteArray("null") << none;
        QTest::newRow("NULL with a blank") << QByteArray("NULL ") << none;
        QTest::newRow("empty key") << QByteArray() << none;
        QTest::newRow("NULL refused") << QByteArray("NULL")
                                      << QList<Report>{{39, rootFile, 30, addFunction, {QStringLiteral("key")}}};
    }
    void addDeviceAbstraction()
    {
        QFETCH(QByteArray, key);
        QFETCH(QList<Report>, expectedReports);
        RecordingReporter reporter(1234);
        KrPalRoot root;
        const auto device = makeDevice(key);

        QCOMPARE(root.addDeviceAbstraction(key, device), StatusCode(expectedReports.isEmpty() ? 0 : 1234));
        QCOMPARE(reporter.reports(), expectedReports);
        reporter.clear();
        QCOMPARE(root.deviceAbstraction(key.constData()), expectedReports.isEmpty() ? device.get() : nullptr);
        QCOMPARE(reporter.count(), expectedReports.size());
    }

    void duplicateKeyKeepsFirstDevice_data()
    {
        QTest::addColumn<QByteArray>("key");
        QTest::addColumn<QString>("expectedText");
        QTest::newRow("plain") << QByteArray("adc") << QStringLiteral("KrDeviceAbstraction with key = adc");
        QTest::newRow("NUL byte") << QByteArray("ab\0cd", 5) << QStringLiteral("KrDeviceAbstraction with key = ab");
        QTest::newRow("UTF-8") << QByteArray("gr\xc3\xb6\xc3\x9f"
                                             "e")
                               << QStringLiteral("KrDeviceAbstraction with key = gr\u00f6\u00dfe");
    }
    void duplicateKeyKeepsFirstDevice()
    {
        QFETCH(QByteArray, key);
        QFETCH(QString, expectedText);
        RecordingReporter reporter(77);
        KrPalRoot root;
        const auto first = makeDevice(key);
        QCOMPARE(root.addDeviceAbstraction(key, first), StatusCode(0));

        const int destroyedBefore = CollectingDevice::s_destroyed;
        QCOMPARE(root.addDeviceAbstraction(key, makeDevice(key)), StatusCode(77));
        // The refused device is not kept.
        QCOMPARE(CollectingDevice::s_destroyed, destroyedBefore + 1);
        const Report expected{46, rootFile, 25, addFunction, {expectedText, QStringLiteral("KrPalRoot")}};
        QCOMPARE(reporter.reports(), QList<Report>{expected});
        root.collectData(nullptr);
        QCOMPARE(first->collectCount, 1);
    }

    void unknownKeys()
    {
        RecordingReporter reporter;
        KrPalRoot root;
        root.addDeviceAbstraction("adc", makeDevice("adc"));

        QCOMPARE(root.deviceAbstraction("ADC"), nullptr);
        QCOMPARE(root.deviceAbstraction(nullptr), nullptr);
        root.collectData("dac");
        root.collectData("");
        QCOMPARE(reporter.reports(),
            (QList<Report>{
                {47, rootFile, 44, lookupFunction, {QStringLiteral("KrDeviceAbstraction with key = ADC KrPalRoot")}},
                {47, rootFile, 44, lookupFunction, {QStringLiteral("KrDeviceAbstraction with key =  KrPalRoot")}},
                {47, rootFile, 74, collectFunction, {QStringLiteral("Device ID dac"), QStringLiteral("KrPalRoot")}},
                {47, rootFile, 74, collectFunction, {QStringLiteral("Device ID "), QStringLiteral("KrPalRoot")}}}));
    }

    void emptyRoot()
    {
        RecordingReporter reporter;
        KrPalRoot root;
        root.collectData(nullptr);
        QCOMPARE(reporter.count(), 0);
        QCOMPARE(root.deviceAbstraction("NULL"), nullptr);
        QCOMPARE(reporter.count(), 1);
    }

    void nullKeyFindsEmptyKey()
    {
        RecordingReporter reporter;
        KrPalRoot root;
        const auto device = makeDevice(QByteArray());
        QCOMPARE(root.addDeviceAbstraction(QByteArray(), device), StatusCode(0));
        QCOMPARE(root.deviceAbstraction(nullptr), device.get());
        QCOMPARE(root.deviceAbstraction(""), device.get());
        QCOMPARE(reporter.count(), 0);
    }

    void collectData()
    {
        RecordingReporter reporter;
        KrPalRoot root;
        const auto a = makeDevice("a");
        const auto b = makeDevice("b");
        const auto c = makeDevice("c");
        root.addDeviceAbstraction("a", a);
        root.addDeviceAbstraction("b", b);
        root.addDeviceAbstraction("c", c);
        // An empty entry is accepted, found as null and never called through.
        QCOMPARE(root.addDeviceAbstraction("empty", nullptr), StatusCode(0));
        QCOMPARE(root.deviceAbstraction("empty"), nullptr);

        root.collectData(nullptr);
        QCOMPARE((QList<int>{a->collectCount, b->collectCount, c->collectCount}), (QList<int>{1, 1, 1}));
        root.collectData("b");
        root.collectData("empty");
        QCOMPARE((QList<int>{a->collectCount, b->collectCount, c->collectCount}), (QList<int>{1, 2, 1}));
        QCOMPARE(reporter.count(), 0);
    }

    void destructionReleasesDevices()
    {
        const int destroyedBefore = CollectingDevice::s_destroyed;
        auto held = makeDevice("held");
        std::weak_ptr<CollectingDevice> rootOnly;
        {
            KrPalRoot root;
            auto device = makeDevice("rootOnly");
            rootOnly = device;
            root.addDeviceAbstraction("rootOnly", std::move(device));
            root.addDeviceAbstraction("held", held);
            QCOMPARE(CollectingDevice::s_destroyed, destroyedBefore);
        }
        QVERIFY(rootOnly.expired());
        QCOMPARE(CollectingDevice::s_destroyed, destroyedBefore + 1);
        QCOMPARE(held.use_count(), 1L);
        QCOMPARE(held->id(), QByteArray("held"));
    }
};

QTEST_GUILESS_MAIN(TestKrPalRoot)
#include "tst_krpalroot.moc"
