#include "recordingreporter.h"

#include <pal/krdeviceabstraction.h>
#include <pal/krpalroot.h>

#include <QTest>

class CollectingDevice : public Pal::KrDeviceAbstraction
{
    Q_OBJECT
public:
    using KrDeviceAbstraction::KrDeviceAbstraction;
    void collectData() override { ++collectCount; }
    int collectCount = 0;
};

class TestKrPalRoot : public QObject
{
    Q_OBJECT
private Q_SLOTS:
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
};

QTEST_GUILESS_MAIN(TestKrPalRoot)
#include "tst_krpalroot.moc"
