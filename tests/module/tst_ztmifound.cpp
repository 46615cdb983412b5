#include "testmodule.h"

#include <ztmifound.h>

#include <QAction>
#include <QPointer>
#include <QSignalSpy>
#include <QTest>
#include <QThread>

#include <memory>

using OptionTable = QHash<QString, QVariant>;

namespace {

OptionTable declaredOptions()
{
    return OptionTable {{QStringLiteral(".name"), QStringLiteral("TestModule")},
                        {QStringLiteral("gain"), 1},
                        {QStringLiteral("mode"), QStringLiteral("fast")},
                        {QStringLiteral("blank"), QVariant()}};
}

OptionTable withChanges(std::initializer_list<std::pair<QString, QVariant>> changes)
{
    OptionTable table = declaredOptions();
    for (const auto &change : changes)
        table.insert(change.first, change.second);
    return table;
}

ModuleOptions sentOptions(const QSignalSpy &spy)
{
    return spy.last().at(0).value<ModuleOptions>();
}

// Receives option sets on the thread it lives on; a queued connection from another thread
// brings them here.
class OptionsCollector : public QObject
{
    Q_OBJECT

public:
    QList<ModuleOptions> received;

public slots:
    void collect(ModuleOptions opts) { received << opts; }
};

// Ends a worker thread and brings the module living on it back first, as the kernel does.
void retire(ZtMIFound *module, QThread *thread)
{
    QMetaObject::invokeMethod(module, "moveMeToTheMainThread", Qt::BlockingQueuedConnection);
    thread->quit();
    thread->wait();
}

} // namespace

class tst_ZtMIFound : public QObject
{
    Q_OBJECT

private slots:
    void setupNamesAndDeclares();
    void setupOfBareBase();
    void setOption_data();
    void setOption();
    void recvOptions_data();
    void recvOptions();
    void setOptionsFromList_data();
    void setOptionsFromList();
    void optionChangeRefreshesInOrder();
    void moduleWithoutWidgets();
    void refreshAcrossThreads();
    void initInterfaceForgetsWidgets();
    void copyConstructor();
    void destructionDeletesActions();
    void destructionWhileLocked();
    void moduleOptionsCrossThreads();
};

void tst_ZtMIFound::setupNamesAndDeclares()
{
    TestModule module(4);
    module.setup();

    QCOMPARE(module.objectName(), QStringLiteral("TestModule"));
    QCOMPARE(*module.getOptions(), declaredOptions());
    QCOMPARE(module.getOption(QStringLiteral(".name")).type(), QVariant::String);
    QCOMPARE(module.getActions()->keys(), QStringList {QStringLiteral("run")});
}

void tst_ZtMIFound::setupOfBareBase()
{
    ZtMIFound module(0);
    module.setup();

    QCOMPARE(module.objectName(), QStringLiteral("ZtMIFound"));
    QCOMPARE(*module.getOptions(), OptionTable({{QStringLiteral(".name"), "ZtMIFound"}}));
    QVERIFY(module.getActions()->isEmpty());
    QVERIFY(!module.getOption(QStringLiteral("gain")).isValid());
}

void tst_ZtMIFound::setOption_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<bool>("accepted");
    QTest::addColumn<OptionTable>("expected");

    QTest::newRow("unknown name") << "unknown" << QVariant(5) << false << declaredOptions();
    QTest::newRow("invalid value") << ".name" << QVariant() << false << declaredOptions();
    QTest::newRow("name overwritten")
        << ".name" << QVariant("x") << true << withChanges({{".name", "x"}});
    QTest::newRow("type not compared")
        << "gain" << QVariant("loud") << true << withChanges({{"gain", "loud"}});
    QTest::newRow("declared without value")
        << "blank" << QVariant(2) << true << withChanges({{"blank", 2}});
}

void tst_ZtMIFound::setOption()
{
    QFETCH(QString, name);
    QFETCH(QVariant, value);
    QFETCH(bool, accepted);
    QFETCH(OptionTable, expected);

    TestModule module(1);
    module.setup();
    QSignalSpy sent(&module, &ZtMIFound::sendOptions);

    QCOMPARE(module.setOption(name, value), accepted);
    QCOMPARE(*module.getOptions(), expected);
    // A change through setOption alone is announced by nobody.
    QCOMPARE(sent.count(), 0);
    QCOMPARE(module.applyCount, 0);
}

void tst_ZtMIFound::recvOptions_data()
{
    QTest::addColumn<OptionTable>("incoming");
    QTest::addColumn<OptionTable>("expected");

    QTest::newRow("known and unknown keys")
        << OptionTable {{"gain", 7}, {"foreign", 1}} << withChanges({{"gain", 7}});
    QTest::newRow("only unknown keys") << OptionTable {{"foreign", 1}} << declaredOptions();
    QTest::newRow("empty record") << OptionTable {} << declaredOptions();
    QTest::newRow("own entry holds no value") << OptionTable {{"blank", 3}} << declaredOptions();
    QTest::newRow("incoming invalid value overwrites")
        << OptionTable {{"mode", QVariant()}} << withChanges({{"mode", QVariant()}});
}

void tst_ZtMIFound::recvOptions()
{
    QFETCH(OptionTable, incoming);
    QFETCH(OptionTable, expected);

    TestModule module(1);
    module.setup();
    QSignalSpy sent(&module, &ZtMIFound::sendOptions);

    module.recvOptions(ModuleOptions(incoming));

    QCOMPARE(*module.getOptions(), expected);
    QCOMPARE(sent.count(), 1);
    QCOMPARE(sentOptions(sent).hash, expected);
    QCOMPARE(module.applyCount, 1);
}

void tst_ZtMIFound::setOptionsFromList_data()
{
    QTest::addColumn<QVariantList>("data");
    QTest::addColumn<OptionTable>("expected");

    QTest::newRow("pair with non-string name skipped")
        << QVariantList {"gain", 5, 9, "mode", "mode", "slow"}
        << withChanges({{"gain", 5}, {"mode", "slow"}});
    QTest::newRow("no resynchronisation after a skipped pair")
        << QVariantList {9, "gain", 3, "mode"} << declaredOptions();
    QTest::newRow("name without value") << QVariantList {"gain"} << declaredOptions();
    QTest::newRow("empty list") << QVariantList {} << declaredOptions();
    QTest::newRow("unknown name") << QVariantList {"foreign", 1} << declaredOptions();
    QTest::newRow("invalid value") << QVariantList {"gain", QVariant()} << declaredOptions();
    QTest::newRow("later pair wins")
        << QVariantList {"gain", 2, "gain", 3} << withChanges({{"gain", 3}});
}

void tst_ZtMIFound::setOptionsFromList()
{
    QFETCH(QVariantList, data);
    QFETCH(OptionTable, expected);

    TestModule module(1);
    module.setup();
    QSignalSpy sent(&module, &ZtMIFound::sendOptions);

    module.setOptionsFromList(data);

    QCOMPARE(*module.getOptions(), expected);
    QCOMPARE(sent.count(), 1);
    QCOMPARE(sentOptions(sent).hash, expected);
}

void tst_ZtMIFound::optionChangeRefreshesInOrder()
{
    CallLog log;
    TestModule module(1);
    module.log = &log;
    module.setup();
    QWidget host;
    auto *main = static_cast<TestMain *>(module.getWMain(&host));
    auto *options = static_cast<TestOptions *>(module.getWOptions(&host));
    connect(&module, &ZtMIFound::sendOptions, [&log] { log.calls << QStringLiteral("send"); });

    module.recvOptions(ModuleOptions(OptionTable {{"gain", 2}}));

    // Same thread: the widgets were refreshed by direct calls, before any event processing.
    const QStringList order {"main.read", "options.read", "apply", "send"};
    QCOMPARE(log.calls, order);
    QCOMPARE(main->readThread, QThread::currentThread());
    QCOMPARE(options->readThread, QThread::currentThread());

    log.calls.clear();
    module.actForOptionsChanged();
    QCOMPARE(log.calls, order);
}

void tst_ZtMIFound::moduleWithoutWidgets()
{
    TestModule module(1);
    module.setup();
    QSignalSpy sent(&module, &ZtMIFound::sendOptions);

    module.updateWMain();
    module.updateWOptions();
    module.actForOptionsChanged();

    QCOMPARE(sent.count(), 1);
    QCOMPARE(module.applyCount, 1);
}

void tst_ZtMIFound::refreshAcrossThreads()
{
    TestModule module(1);
    module.setup();
    QWidget host;
    auto *main = static_cast<TestMain *>(module.getWMain(&host));
    auto *options = static_cast<TestOptions *>(module.getWOptions(&host));

    QThread worker;
    worker.start();
    module.moveToThread(&worker);

    QMetaObject::invokeMethod(
        &module,
        [&module] {
            module.recvOptions(ModuleOptions(OptionTable {{"gain", 4}}));
        },
        Qt::QueuedConnection);

    QTRY_COMPARE(main->readCount, 1);
    QTRY_COMPARE(options->readCount, 1);
    // The refresh was queued into the widgets' thread, not run on the module's.
    QCOMPARE(main->readThread, QThread::currentThread());
    QCOMPARE(options->readThread, QThread::currentThread());

    retire(&module, &worker);
    QCOMPARE(module.getOption(QStringLiteral("gain")), QVariant(4));
    QCOMPARE(main->readCount, 1);
}

void tst_ZtMIFound::initInterfaceForgetsWidgets()
{
    TestModule module(1);
    module.setup();
    QWidget host;
    auto *main = static_cast<TestMain *>(module.getWMain(&host));

    module.initInterface(&host);
    module.actForOptionsChanged();

    QCOMPARE(main->readCount, 0);
}

void tst_ZtMIFound::copyConstructor()
{
    TestModule original(6);
    original.setup();
    original.setOption(QStringLiteral("gain"), 9);
    original.setError(QStringLiteral("broken"));
    QWidget host;
    auto *main = static_cast<TestMain *>(original.getWMain(&host));

    TestModule copy(original);

    QCOMPARE(copy.getId(), 6);
    QCOMPARE(*copy.getOptions(), *original.getOptions());
    QCOMPARE(*copy.getActions(), *original.getActions());
    QCOMPARE(copy.errorString(), QString());
    QCOMPARE(copy.getLocker()->getOwner(), &copy);

    // A lock of its own: holding the original's does not hold the copy's.
    original.getLocker()->lock();
    QVERIFY(copy.getLocker()->tryLock());
    copy.getLocker()->unlock();
    original.getLocker()->unlock();

    // No widgets: refreshing the copy does not reach the original's widget.
    copy.actForOptionsChanged();
    QCOMPARE(main->readCount, 0);

    // The options are the copy's own once written.
    copy.setOption(QStringLiteral("gain"), 1);
    QCOMPARE(original.getOption(QStringLiteral("gain")), QVariant(9));

    // The action pointers are shared; only the original may delete them.
    copy.getActions()->clear();
}

void tst_ZtMIFound::destructionDeletesActions()
{
    auto module = std::make_unique<TestModule>(1);
    module->setup();
    QPointer<QAction> action = module->getActions()->value(QStringLiteral("run"));
    // An action whose parent is not the module is deleted as well: the table owns it.
    QPointer<QAction> foreign = new QAction(nullptr);
    module->getActions()->insert(QStringLiteral("foreign"), foreign);
    module->getActions()->insert(QStringLiteral("none"), nullptr);

    module.reset();

    QVERIFY(action.isNull());
    QVERIFY(foreign.isNull());
}

void tst_ZtMIFound::destructionWhileLocked()
{
    auto module = std::make_unique<TestModule>(1);
    module->setup();
    module->getLocker()->lock();

    QTest::ignoreMessage(QtDebugMsg, "Locked");
    // Qt itself complains about a mutex destroyed while held; that is expected here.
    QTest::ignoreMessage(QtWarningMsg, "QMutex: destroying locked mutex");
    module.reset();

    // Destroying an unlocked module says nothing.
    auto quiet = std::make_unique<TestModule>(2);
    quiet->getLocker()->lock();
    quiet->getLocker()->unlock();
    quiet.reset();
}

void tst_ZtMIFound::moduleOptionsCrossThreads()
{
    TestModule source(1);
    source.setup();
    auto *sink = new TestModule(2);
    sink->setup();
    OptionsCollector collector;

    QThread worker;
    worker.start();
    sink->moveToThread(&worker);
    connect(&source, &ZtMIFound::sendOptions, sink, &ZtMIFound::recvOptions);
    connect(sink, &ZtMIFound::sendOptions, &collector, &OptionsCollector::collect);
    // Queued delivery looks the type up by the name it was registered under.
    QVERIFY(QMetaType::type("ModuleOptions") != QMetaType::UnknownType);
    QCOMPARE(QMetaType::type("ModuleOptions"), qMetaTypeId<ModuleOptions>());

    source.setOptionsFromList({"gain", 12, "mode", "slow"});

    QTRY_COMPARE(collector.received.size(), 1);
    QCOMPARE(collector.received.first().hash, withChanges({{"gain", 12}, {"mode", "slow"}}));

    retire(sink, &worker);
    delete sink;
}

QTEST_MAIN(tst_ZtMIFound)
#include "tst_ztmifound.moc"
