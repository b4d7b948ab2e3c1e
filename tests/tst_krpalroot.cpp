#include "recordingreporter.h"

#include <pal/krdeviceabstraction.h>
#include <pal/krpalroot.h>

#include <QTest>

using Pal::KrPalRoot;

Q_DECLARE_METATYPE(Report)

namespace {

const QString rootFile = QStringLiteral("krpalroot.cpp");
const QString addFunction = QStringLiteral(
    "StatusCode Pal::KrPalRoot::addDeviceAbstraction(const QByteArray&, std::shared_ptr<Pal::KrDeviceAbstraction>)");

// Counts its collectData() calls and the destructions of its class.
class CollectingDevice : public Pal::KrDeviceAbstraction
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

std::shared_ptr<CollectingDevice> makeDevice(const QByteArray &id = "device")
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
        QTest::addColumn<bool>("stored");
        QTest::addColumn<Report>("secondAddReport");
        const auto duplicate = [](const char *text) {
            return Report{46, rootFile, 25, addFunction, {QString::fromUtf8(text), QStringLiteral("KrPalRoot")}};
        };
        const Report reserved{39, rootFile, 30, addFunction, {QStringLiteral("key")}};
        QTest::newRow("plain") << QByteArray("adc") << true << duplicate("KrDeviceAbstraction with key = adc");
        QTest::newRow("empty") << QByteArray() << true << duplicate("KrDeviceAbstraction with key = ");
        QTest::newRow("null") << QByteArray("null") << true << duplicate("KrDeviceAbstraction with key = null");
        QTest::newRow("NULL and blank") << QByteArray("NULL ") << true
                                        << duplicate("KrDeviceAbstraction with key = NULL ");
        QTest::newRow("NUL byte") << QByteArray("ab\0cd", 5) << true << duplicate("KrDeviceAbstraction with key = ab");
        QTest::newRow("UTF-8") << QByteArray("\xc3\xa4") << true
                               << duplicate("KrDeviceAbstraction with key = \xc3\xa4");
        QTest::newRow("NULL") << QByteArray("NULL") << false << reserved;
    }
    // The reporter's answer comes back; a refused device is released at once.
    void addDeviceAbstraction()
    {
        QFETCH(QByteArray, key);
        QFETCH(bool, stored);
        QFETCH(Report, secondAddReport);
        RecordingReporter reporter(1234);
        KrPalRoot root;
        const auto first = makeDevice();
        QCOMPARE(root.addDeviceAbstraction(key, first), StatusCode(stored ? 0 : 1234));
        reporter.clear();

        const int destroyedBefore = CollectingDevice::s_destroyed;
        QCOMPARE(root.addDeviceAbstraction(key, makeDevice()), StatusCode(1234));
        QCOMPARE(CollectingDevice::s_destroyed, destroyedBefore + 1);
        QCOMPARE(reporter.reports(), QList<Report>{secondAddReport});
        root.collectData(nullptr);
        QCOMPARE(first->collectCount, stored ? 1 : 0);
    }

    void lookups()
    {
        RecordingReporter reporter;
        KrPalRoot root;
        const auto unnamed = makeDevice();
        root.addDeviceAbstraction(QByteArray(), unnamed);
        root.addDeviceAbstraction("empty", nullptr);
        QCOMPARE(root.deviceAbstraction(nullptr), unnamed.get());
        QCOMPARE(root.deviceAbstraction("empty"), nullptr);
        QCOMPARE(reporter.count(), 0);

        QCOMPARE(root.deviceAbstraction("NULL"), nullptr);
        root.collectData("dac");
        const QString lookupFunction
            = QStringLiteral("Pal::KrDeviceAbstraction* Pal::KrPalRoot::deviceAbstraction(const char*)");
        const QString collectFunction = QStringLiteral("void Pal::KrPalRoot::collectData(const char*) const");
        QCOMPARE(reporter.reports(),
            (QList<Report>{
                {47, rootFile, 44, lookupFunction, {QStringLiteral("KrDeviceAbstraction with key = NULL KrPalRoot")}},
                {47, rootFile, 74, collectFunction, {QStringLiteral("Device ID dac"), QStringLiteral("KrPalRoot")}}}));
    }

    void collectData()
    {
        RecordingReporter reporter;
        KrPalRoot root;
        root.collectData(nullptr);
        const QList<std::shared_ptr<CollectingDevice>> devices{makeDevice("a"), makeDevice("b"), makeDevice("c")};
        for (const auto &device : devices)
            root.addDeviceAbstraction(device->id(), device);
        // Never called through.
        root.addDeviceAbstraction("empty", nullptr);

        root.collectData(nullptr);
        root.collectData("b");
        root.collectData("empty");
        QCOMPARE((QList<int>{devices[0]->collectCount, devices[1]->collectCount, devices[2]->collectCount}),
            (QList<int>{1, 2, 1}));
        QCOMPARE(reporter.count(), 0);
    }

    void destructionReleasesDevices()
    {
        const auto held = makeDevice();
        std::weak_ptr<CollectingDevice> rootOnly;
        {
            KrPalRoot root;
            auto device = makeDevice();
            rootOnly = device;
            root.addDeviceAbstraction("rootOnly", std::move(device));
            root.addDeviceAbstraction("held", held);
            QVERIFY(!rootOnly.expired());
        }
        QVERIFY(rootOnly.expired());
        QCOMPARE(held.use_count(), 1L);
    }
};

QTEST_GUILESS_MAIN(TestKrPalRoot)
#include "tst_krpalroot.moc"
