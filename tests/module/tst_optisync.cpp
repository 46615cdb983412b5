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
    void passOn_data();
    void passOn();
    void emptyRecordMakesModuleReannounce();
    void chainAcrossThreads();
};

void tst_OptiSync::passOn_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QStringList>("sources");
    QTest::addColumn<QStringList>("targets");
    QTest::addColumn<OptionTable>("incoming");
    QTest::addColumn<OptionTable>("expected");

    using L = QStringList;
    using T = OptionTable;
    const T all {{"a", 1}, {".name", "X"}, {"b", QVariant()}};
    QTest::newRow("all") << "all" << L {} << L {} << all << all;

    QTest::newRow("same: listed and unlisted")
        << "same" << L {"a", "b"} << L {} << T {{"a", 1}, {"c", 2}} << T {{"a", 1}};
    QTest::newRow("same: none present") << "same" << L {"a"} << L {} << T {{"c", 2}} << T {};
    QTest::newRow("same: invalid value kept")
        << "same" << L {"a"} << L {} << T {{"a", QVariant()}} << T {{"a", QVariant()}};

    QTest::newRow("differ: renamed") << "differ" << L {"a", "b"} << L {"x", "y"}
                                     << T {{"a", 1}, {"b", 2}, {"c", 3}} << T {{"x", 1}, {"y", 2}};
    QTest::newRow("differ: first source wins")
        << "differ" << L {"a", "b"} << L {"x", "x"} << T {{"a", 1}, {"b", 2}} << T {{"x", 1}};
    QTest::newRow("differ: only second present")
        << "differ" << L {"a", "b"} << L {"x", "x"} << T {{"b", 2}} << T {{"x", 2}};
    QTest::newRow("differ: extra targets unused")
        << "differ" << L {"a"} << L {"x", "y"} << T {{"a", 1}} << T {{"x", 1}};
    QTest::newRow("differ: swap") << "differ" << L {"a", "b"} << L {"b", "a"}
                                  << T {{"a", 1}, {"b", 2}} << T {{"b", 1}, {"a", 2}};
    QTest::newRow("differ: short targets refused")
        << "differ" << L {"a", "b"} << L {"x"} << T {{"a", 1}, {"b", 2}} << T {};
}

void tst_OptiSync::passOn()
{
    QFETCH(QString, kind);
    QFETCH(QStringList, sources);
    QFETCH(QStringList, targets);
    QFETCH(OptionTable, incoming);
    QFETCH(OptionTable, expected);

    std::unique_ptr<OptiSync> sync;
    if (kind == QLatin1String("all")) {
        sync = std::make_unique<OptiSync>();
    } else if (kind == QLatin1String("same")) {
        sync = std::make_unique<OptiSyncSame>(sources);
    } else {
        if (targets.size() < sources.size())
            QTest::ignoreMessage(QtWarningMsg,
                                 QRegularExpression(QStringLiteral("^OptiSyncDiffer: ")));
        sync = std::make_unique<OptiSyncDiffer>(sources, targets);
    }
    QSignalSpy sent(sync.get(), &OptiSync::sendOptions);

    sync->recvOptions(ModuleOptions(incoming));

    QCOMPARE(sent.count(), 1);
    QCOMPARE(emitted(sent), expected);
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
    TestModule source(1);
    TestModule sink(2);
    source.setup();
    sink.setup();
    OptiSyncSame sync({"gain"});
    OptionsCollector collector;
    OptionTable expected = *sink.getOptions();
    expected.insert(QStringLiteral("gain"), 9);

    QThread first;
    QThread second;
    first.start();
    second.start();
    source.moveToThread(&first);
    sink.moveToThread(&second);
    connect(&source, &ZtMIFound::sendOptions, &sync, &OptiSync::recvOptions);
    connect(&sync, &OptiSync::sendOptions, &sink, &ZtMIFound::recvOptions);
    connect(&sink, &ZtMIFound::sendOptions, &collector, &OptionsCollector::collect);
    // Queued delivery looks the type up by the name it was registered under.
    QCOMPARE(QMetaType::type("ModuleOptions"), qMetaTypeId<ModuleOptions>());

    QMetaObject::invokeMethod(
        &source,
        [&source] {
            source.setOptionsFromList({"gain", 9, "mode", "slow"});
        },
        Qt::QueuedConnection);

    QTRY_COMPARE(collector.received.size(), 1);
    // "mode" changed at the source but is not synchronised.
    QCOMPARE(collector.received.first().hash, expected);

    for (TestModule *module : {&source, &sink}) {
        QThread *thread = module->thread();
        QMetaObject::invokeMethod(module, "moveMeToTheMainThread", Qt::BlockingQueuedConnection);
        thread->quit();
        thread->wait();
    }
}

QTEST_MAIN(tst_OptiSync)
#include "tst_optisync.moc"
