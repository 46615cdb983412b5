#include "testmodule.h"

#include <optisync.h>
#include <optisyncdiffer.h>
#include <optisyncsame.h>

#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>
#include <QThread>

#include <memory>

using OptionTable = QHash<QString, QVariant>;

namespace {

OptionTable emitted(const QSignalSpy &spy)
{
    return spy.last().at(0).value<ModuleOptions>().hash;
}

class OptionsCollector : public QObject
{
    Q_OBJECT

public:
    QList<ModuleOptions> received;

public slots:
    void collect(ModuleOptions opts) { received << opts; }
};

} // namespace

class tst_OptiSync : public QObject
{
    Q_OBJECT

private slots:
    void passesEverything();
    void same_data();
    void same();
    void differ_data();
    void differ();
    void differRefusesShortTargets();
    void emptyRecordMakesModuleReannounce();
    void chainAcrossThreads();
};

void tst_OptiSync::passesEverything()
{
    OptiSync sync;
    QSignalSpy sent(&sync, &OptiSync::sendOptions);
    const OptionTable record {{"a", 1}, {".name", "X"}, {"b", QVariant()}};

    sync.recvOptions(ModuleOptions(record));

    QCOMPARE(sent.count(), 1);
    QCOMPARE(emitted(sent), record);
}

void tst_OptiSync::same_data()
{
    QTest::addColumn<QStringList>("names");
    QTest::addColumn<OptionTable>("incoming");
    QTest::addColumn<OptionTable>("expected");

    QTest::newRow("listed and unlisted")
        << QStringList {"a", "b"} << OptionTable {{"a", 1}, {"c", 2}} << OptionTable {{"a", 1}};
    QTest::newRow("none listed present")
        << QStringList {"a"} << OptionTable {{"c", 2}} << OptionTable {};
    QTest::newRow("no names") << QStringList {} << OptionTable {{"a", 1}} << OptionTable {};
    QTest::newRow("invalid value kept")
        << QStringList {"a"} << OptionTable {{"a", QVariant()}} << OptionTable {{"a", QVariant()}};
    QTest::newRow("all listed") << QStringList {"a", "b"} << OptionTable {{"a", 1}, {"b", 2}}
                                << OptionTable {{"a", 1}, {"b", 2}};
}

void tst_OptiSync::same()
{
    QFETCH(QStringList, names);
    QFETCH(OptionTable, incoming);
    QFETCH(OptionTable, expected);

    OptiSyncSame sync(names);
    QSignalSpy sent(&sync, &OptiSync::sendOptions);

    sync.recvOptions(ModuleOptions(incoming));

    QCOMPARE(sent.count(), 1);
    QCOMPARE(emitted(sent), expected);
}

void tst_OptiSync::differ_data()
{
    QTest::addColumn<QStringList>("sources");
    QTest::addColumn<QStringList>("targets");
    QTest::addColumn<OptionTable>("incoming");
    QTest::addColumn<OptionTable>("expected");

    QTest::newRow("renamed") << QStringList {"a", "b"} << QStringList {"x", "y"}
                             << OptionTable {{"a", 1}, {"b", 2}, {"c", 3}}
                             << OptionTable {{"x", 1}, {"y", 2}};
    QTest::newRow("two sources one target: first wins")
        << QStringList {"a", "b"} << QStringList {"x", "x"} << OptionTable {{"a", 1}, {"b", 2}}
        << OptionTable {{"x", 1}};
    QTest::newRow("two sources one target: only second present")
        << QStringList {"a", "b"} << QStringList {"x", "x"} << OptionTable {{"b", 2}}
        << OptionTable {{"x", 2}};
    QTest::newRow("extra targets unused") << QStringList {"a"} << QStringList {"x", "y"}
                                          << OptionTable {{"a", 1}} << OptionTable {{"x", 1}};
    QTest::newRow("nothing listed present")
        << QStringList {"a"} << QStringList {"x"} << OptionTable {{"x", 1}} << OptionTable {};
    QTest::newRow("swap") << QStringList {"a", "b"} << QStringList {"b", "a"}
                          << OptionTable {{"a", 1}, {"b", 2}} << OptionTable {{"b", 1}, {"a", 2}};
}

void tst_OptiSync::differ()
{
    QFETCH(QStringList, sources);
    QFETCH(QStringList, targets);
    QFETCH(OptionTable, incoming);
    QFETCH(OptionTable, expected);

    OptiSyncDiffer sync(sources, targets);
    QSignalSpy sent(&sync, &OptiSync::sendOptions);

    sync.recvOptions(ModuleOptions(incoming));

    QCOMPARE(sent.count(), 1);
    QCOMPARE(emitted(sent), expected);
}

void tst_OptiSync::differRefusesShortTargets()
{
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("^OptiSyncDiffer: ")));
    OptiSyncDiffer sync({"a", "b"}, {"x"});
    QSignalSpy sent(&sync, &OptiSync::sendOptions);

    sync.recvOptions(ModuleOptions(OptionTable {{"a", 1}, {"b", 2}}));

    QCOMPARE(sent.count(), 1);
    QCOMPARE(emitted(sent), OptionTable {});
}

void tst_OptiSync::emptyRecordMakesModuleReannounce()
{
    TestModule module(1);
    module.setup();
    const OptionTable before = *module.getOptions();
    OptiSyncSame sync({"unrelated"});
    connect(&sync, &OptiSync::sendOptions, &module, &ZtMIFound::recvOptions);
    QSignalSpy announced(&module, &ZtMIFound::sendOptions);

    sync.recvOptions(ModuleOptions(OptionTable {{"gain", 5}}));

    QCOMPARE(announced.count(), 1);
    QCOMPARE(emitted(announced), before);
}

// source module (worker 1) -> OptiSyncSame (GUI thread) -> sink module (worker 2) -> collector:
// every hop is a queued call carrying ModuleOptions by value.
void tst_OptiSync::chainAcrossThreads()
{
    auto *source = new TestModule(1);
    source->setup();
    auto *sink = new TestModule(2);
    sink->setup();
    OptiSyncSame sync({"gain"});
    OptionsCollector collector;
    OptionTable expected = *sink->getOptions();
    expected.insert(QStringLiteral("gain"), 9);

    QThread first;
    QThread second;
    first.start();
    second.start();
    source->moveToThread(&first);
    sink->moveToThread(&second);

    connect(source, &ZtMIFound::sendOptions, &sync, &OptiSync::recvOptions);
    connect(&sync, &OptiSync::sendOptions, sink, &ZtMIFound::recvOptions);
    connect(sink, &ZtMIFound::sendOptions, &collector, &OptionsCollector::collect);

    QMetaObject::invokeMethod(
        source,
        [source] {
            source->setOptionsFromList({"gain", 9, "mode", "slow"});
        },
        Qt::QueuedConnection);

    QTRY_COMPARE(collector.received.size(), 1);
    // "mode" changed at the source but is not synchronised.
    QCOMPARE(collector.received.first().hash, expected);

    for (auto pair : {std::make_pair(source, &first), std::make_pair(sink, &second)}) {
        QMetaObject::invokeMethod(pair.first, "moveMeToTheMainThread",
                                  Qt::BlockingQueuedConnection);
        pair.second->quit();
        pair.second->wait();
        delete pair.first;
    }
}

QTEST_MAIN(tst_OptiSync)
#include "tst_optisync.moc"
