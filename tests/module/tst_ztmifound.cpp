#include "testmodule.h"

#include <optisync.h>
#include <wabstractstate.h>
#include <ztliblevelinterface.h>
#include <ztmifound.h>

#include <QAction>
#include <QDir>
#include <QMetaMethod>
#include <QMetaProperty>
#include <QPluginLoader>
#include <QPointer>
#include <QSignalSpy>
#include <QTest>
#include <QThread>

#include <memory>

using OptionTable = QHash<QString, QVariant>;
Q_DECLARE_METATYPE(const QMetaObject *)

namespace {

OptionTable declared(std::initializer_list<std::pair<QString, QVariant>> changes = {})
{
    OptionTable table {{QStringLiteral(".name"), QStringLiteral("TestModule")},
                       {QStringLiteral("gain"), 1},
                       {QStringLiteral("mode"), QStringLiteral("fast")},
                       {QStringLiteral("blank"), QVariant()}};
    for (const auto &change : changes)
        table.insert(change.first, change.second);
    return table;
}

// Loads a module library the way the kernel does: by file, through Qt's plug-in loader.
ZtLibLevelInterface *loadInterface(QPluginLoader &loader, const QString &fileName)
{
    loader.setFileName(QDir(QStringLiteral(ZT_FIXTURE_DIR)).filePath(fileName));
    QObject *root = loader.instance();
    if (!root)
        qWarning() << loader.errorString();
    return qobject_cast<ZtLibLevelInterface *>(root);
}

} // namespace

class tst_ZtMIFound : public QObject
{
    Q_OBJECT

private slots:
    void setup();
    void optionChanges_data();
    void optionChanges();
    void refreshOrder();
    void refreshAcrossThreads();
    void copyConstructor();
    void destruction();
    void libraries();
    void methods_data();
    void methods();
    void moduleProperties();
};

void tst_ZtMIFound::setup()
{
    TestModule module(4);
    module.setup();
    QCOMPARE(module.objectName(), QStringLiteral("TestModule"));
    QCOMPARE(*module.getOptions(), declared());
    QCOMPARE(module.getOption(QStringLiteral(".name")).type(), QVariant::String);
    QCOMPARE(module.getActions()->keys(), QStringList {QStringLiteral("run")});

    ZtMIFound bare(0);
    bare.setup();
    QCOMPARE(bare.objectName(), QStringLiteral("ZtMIFound"));
    QCOMPARE(*bare.getOptions(), OptionTable({{QStringLiteral(".name"), "ZtMIFound"}}));
    QVERIFY(bare.getActions()->isEmpty());
    QVERIFY(!bare.getOption(QStringLiteral("gain")).isValid());
}

// setOption takes a [name, value] list and announces nothing; recvOptions and
// setOptionsFromList end in one refresh and one announcement, whatever they changed.
void tst_ZtMIFound::optionChanges_data()
{
    QTest::addColumn<QString>("call");
    QTest::addColumn<QVariant>("input");
    QTest::addColumn<OptionTable>("expected");

    const auto list = [](const QVariantList &l) { return QVariant(l); };
    const auto hash = [](const OptionTable &h) { return QVariant(h); };
    QTest::newRow("set: unknown name") << "set" << list({"unknown", 5}) << declared();
    QTest::newRow("set: invalid value") << "set" << list({".name", QVariant()}) << declared();
    QTest::newRow("set: name overwritten")
        << "set" << list({".name", "x"}) << declared({{".name", "x"}});
    QTest::newRow("set: type not compared")
        << "set" << list({"gain", "loud"}) << declared({{"gain", "loud"}});
    QTest::newRow("set: declared without value")
        << "set" << list({"blank", 2}) << declared({{"blank", 2}});

    QTest::newRow("recv: known and unknown")
        << "recv" << hash({{"gain", 7}, {"foreign", 1}}) << declared({{"gain", 7}});
    QTest::newRow("recv: only unknown") << "recv" << hash({{"foreign", 1}}) << declared();
    QTest::newRow("recv: empty") << "recv" << hash({}) << declared();
    QTest::newRow("recv: own entry holds no value") << "recv" << hash({{"blank", 3}}) << declared();
    QTest::newRow("recv: invalid value overwrites")
        << "recv" << hash({{"mode", QVariant()}}) << declared({{"mode", QVariant()}});

    QTest::newRow("list: non-string name skipped")
        << "list" << list({"gain", 5, 9, "mode", "mode", "slow"})
        << declared({{"gain", 5}, {"mode", "slow"}});
    QTest::newRow("list: no resynchronisation")
        << "list" << list({9, "gain", 3, "mode"}) << declared();
    QTest::newRow("list: name without value") << "list" << list({"gain"}) << declared();
    QTest::newRow("list: empty") << "list" << list({}) << declared();
    QTest::newRow("list: later pair wins")
        << "list" << list({"gain", 2, "gain", 3}) << declared({{"gain", 3}});
}

void tst_ZtMIFound::optionChanges()
{
    QFETCH(QString, call);
    QFETCH(QVariant, input);
    QFETCH(OptionTable, expected);

    TestModule module(1);
    module.setup();
    QSignalSpy sent(&module, &ZtMIFound::sendOptions);

    if (call == QLatin1String("set")) {
        const QVariantList pair = input.toList();
        QCOMPARE(module.setOption(pair.at(0).toString(), pair.at(1)), expected != declared());
        QCOMPARE(sent.count(), 0);
        QVERIFY(module.calls.isEmpty());
    } else {
        if (call == QLatin1String("recv"))
            module.recvOptions(ModuleOptions(input.toHash()));
        else
            module.setOptionsFromList(input.toList());
        QCOMPARE(sent.count(), 1);
        QCOMPARE(sent.first().at(0).value<ModuleOptions>().hash, expected);
        QCOMPARE(module.calls, QStringList {QStringLiteral("apply")});
    }
    QCOMPARE(*module.getOptions(), expected);
}

void tst_ZtMIFound::refreshOrder()
{
    TestModule module(1);
    module.setup();
    QWidget host;
    module.getWMain(&host);
    module.getWOptions(&host);
    connect(&module, &ZtMIFound::sendOptions,
            [&module] { module.calls << QStringLiteral("send"); });

    // Same thread: the widgets are refreshed by direct calls, before any event processing.
    module.actForOptionsChanged();
    QCOMPARE(module.calls, QStringList({"main.read", "options.read", "apply", "send"}));

    // After initInterface the module no longer knows its widgets.
    module.calls.clear();
    module.initInterface(&host);
    module.actForOptionsChanged();
    QCOMPARE(module.calls, QStringList({"apply", "send"}));
}

void tst_ZtMIFound::refreshAcrossThreads()
{
    TestModule module(1);
    module.setup();
    QWidget host;
    module.getWMain(&host);
    QThread worker;
    worker.start();
    module.moveToThread(&worker);

    QMetaObject::invokeMethod(
        &module,
        [&module] {
            module.recvOptions(ModuleOptions(OptionTable {{"gain", 4}}));
        },
        Qt::BlockingQueuedConnection);

    // The refresh is queued into the widget's thread, not run on the module's.
    QTRY_COMPARE(module.main->readThread, QThread::currentThread());
    QMetaObject::invokeMethod(&module, "moveMeToTheMainThread", Qt::BlockingQueuedConnection);
    worker.quit();
    worker.wait();
    QCOMPARE(module.getOption(QStringLiteral("gain")), QVariant(4));
    QCOMPARE(module.calls, QStringList({"apply", "main.read"}));
}

void tst_ZtMIFound::copyConstructor()
{
    TestModule original(6);
    original.setup();
    original.setOption(QStringLiteral("gain"), 9);
    original.setError(QStringLiteral("broken"));
    QWidget host;
    original.getWMain(&host);

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
    QVERIFY(original.calls.isEmpty());

    // The action pointers are shared; only the original may delete them.
    copy.getActions()->clear();
}

void tst_ZtMIFound::destruction()
{
    auto module = std::make_unique<TestModule>(1);
    module->setup();
    QPointer<QAction> action = module->getActions()->value(QStringLiteral("run"));
    // The table owns its actions, whatever their parent.
    QPointer<QAction> foreign = new QAction(nullptr);
    module->getActions()->insert(QStringLiteral("foreign"), foreign);
    module->getActions()->insert(QStringLiteral("none"), nullptr);
    module->getLocker()->lock();

    QTest::ignoreMessage(QtDebugMsg, "Locked");
    QTest::ignoreMessage(QtWarningMsg, "QMutex: destroying locked mutex");
    module.reset();

    QVERIFY(action.isNull());
    QVERIFY(foreign.isNull());
}

void tst_ZtMIFound::libraries()
{
    QPluginLoader loader;
    ZtLibLevelInterface *library = loadInterface(loader, QStringLiteral("testfoundplugin.dll"));
    QVERIFY(library);
    QCOMPARE(loader.metaData().value(QStringLiteral("IID")).toString(),
             QStringLiteral("Zantor.ZtLibLevelInterface/1.2"));
    std::unique_ptr<ZtMIFound> module(library->instance(3, nullptr).value<ZtMIFound *>());
    QVERIFY(module);
    QCOMPARE(module->getId(), 3);
    module->setup();
    // Named after the library's own class, with the option the library declared.
    QCOMPARE(module->objectName(), QStringLiteral("FixtureModule"));
    QCOMPARE(*module->getOptions(), OptionTable({{".name", "FixtureModule"}, {"rate", 100}}));

    // The interface's defaults: no module, and an empty eighth operation.
    QPluginLoader bareLoader;
    ZtLibLevelInterface *bare = loadInterface(bareLoader, QStringLiteral("testbareplugin.dll"));
    QVERIFY(bare);
    QObject parent;
    QVERIFY(!bare->instance(1, &parent).isValid());
    QVERIFY(parent.children().isEmpty());
    QCOMPARE(bare->getDescription(), QString());
}

void tst_ZtMIFound::methods_data()
{
    QTest::addColumn<const QMetaObject *>("metaObject");
    QTest::addColumn<QStringList>("expected");

    QTest::newRow("ZtMIFound") << &ZtMIFound::staticMetaObject
                               << QStringList {"signal state(QString,Logger::Level)",
                                               "signal state(QString)",
                                               "signal closeWMain()",
                                               "signal closeWOptions()",
                                               "signal sendOptions(ModuleOptions)",
                                               "slot init()",
                                               "slot final()",
                                               "slot updateWMain()",
                                               "slot updateWOptions()",
                                               "slot setOptionsFromList(QVariantList)",
                                               "slot recvOptions(ModuleOptions)",
                                               "slot applyOptions()",
                                               "slot actForOptionsChanged()",
                                               "slot moveMeToTheMainThread()"};
    QTest::newRow("WAbstractMain") << &WAbstractMain::staticMetaObject
                                   << QStringList {"slot readOptions()", "slot writeOptions()"};
    QTest::newRow("WAbstractOptions")
        << &WAbstractOptions::staticMetaObject
        << QStringList {"signal changed()", "slot readOptions()", "slot writeOptions()"};
    QTest::newRow("WAbstractState") << &WAbstractState::staticMetaObject << QStringList {};
    QTest::newRow("ZtAction") << &ZtAction::staticMetaObject
                              << QStringList {
                                     "signal valueChanged(int)",      "signal valueChanged(double)",
                                     "signal valueChanged(QVariant)", "slot setValue(int)",
                                     "slot setValue(double)",         "slot setValue(QVariant)"};
    QTest::newRow("OptiSync") << &OptiSync::staticMetaObject
                              << QStringList {"signal sendOptions(ModuleOptions)",
                                              "slot recvOptions(ModuleOptions)"};
}

void tst_ZtMIFound::methods()
{
    QFETCH(const QMetaObject *, metaObject);
    QFETCH(QStringList, expected);

    // Plug-ins connect to these classes by signature and index.
    static const char *const kinds[] = {"method", "signal", "slot", "constructor"};
    QStringList actual;
    for (int i = metaObject->methodOffset(); i < metaObject->methodCount(); ++i) {
        const QMetaMethod method = metaObject->method(i);
        actual << QString::fromLatin1(kinds[method.methodType()]) + QLatin1Char(' ')
                + QString::fromLatin1(method.methodSignature());
    }
    QCOMPARE(actual, expected);
}

void tst_ZtMIFound::moduleProperties()
{
    const QMetaObject &mo = ZtMIFound::staticMetaObject;
    QCOMPARE(mo.propertyCount() - mo.propertyOffset(), 2);
    const QMetaProperty needGui = mo.property(mo.propertyOffset());
    const QMetaProperty kind = mo.property(mo.propertyOffset() + 1);
    QCOMPARE(needGui.name(), "isneedthreadgui");
    QCOMPARE(needGui.type(), QVariant::Bool);
    QCOMPARE(kind.name(), "mt");
    QVERIFY(kind.isEnumType());
    for (const QMetaProperty &property : {needGui, kind}) {
        QVERIFY(property.isReadable() && !property.isWritable());
        QVERIFY(property.isStored() && property.isDesignable() && property.isScriptable());
    }

    // What the kernel reads from a fresh module through the property system.
    ZtMIFound module(0);
    QCOMPARE(module.property("isneedthreadgui"), QVariant(false));
    QCOMPARE(module.property("mt").toInt(), -1);
}

QTEST_MAIN(tst_ZtMIFound)
#include "tst_ztmifound.moc"
