#include <optisync.h>
#include <optisyncdiffer.h>
#include <optisyncsame.h>
#include <wabstractmain.h>
#include <wabstractoptions.h>
#include <ztaction.h>
#include <ztliblevelinterface.h>
#include <ztmifound.h>
#include <ztmodulemetadata.h>

#include <QCborMap>
#include <QCborStreamWriter>
#include <QDialogButtonBox>
#include <QDir>
#include <QMetaMethod>
#include <QMetaProperty>
#include <QPluginLoader>
#include <QPointer>
#include <QPushButton>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QSignalSpy>
#include <QTest>
#include <QThread>
#include <QVBoxLayout>

#include <limits>
#include <memory>
#include <type_traits>

// The module base with its options, widgets and actions, option synchronisers, and a module
// library loaded from disk.

using OptionTable = QHash<QString, QVariant>;

// A module widget that records the calls the base classes make into it, in a list shared with
// its module. An options widget places its button box, as a subclass must.
template<class Base>
class Recorder : public Base
{
public:
    Recorder(QStringList *calls, const QString &name, QWidget *parent = nullptr)
        : Base(parent)
        , calls(calls)
        , name(name)
    {
        if constexpr (std::is_same_v<Base, WAbstractOptions>)
            (new QVBoxLayout(this))->addWidget(&this->buttonBox);
    }

    void readOptions() override { *calls << name + QStringLiteral(".read"); }
    void writeOptions() override { *calls << name + QStringLiteral(".write"); }

private:
    QStringList *calls;
    QString name;
};

// A module as a plug-in author writes one: two options with values, one without, one action.
class TestModule : public ZtMIFound
{
    Q_OBJECT

public:
    using ZtMIFound::ZtMIFound;

    QWidget *getWMain(QWidget *parent) override
    {
        return wMain = new Recorder<WAbstractMain>(&calls, QStringLiteral("main"), parent);
    }
    QWidget *getWOptions(QWidget *parent) override
    {
        return wOptions = new Recorder<WAbstractOptions>(&calls, QStringLiteral("options"), parent);
    }
    void applyOptions() override { calls << QStringLiteral("apply"); }
    void setError(const QString &text) { errString = text; }

    QStringList calls;

protected:
    void initOptions() override
    {
        options.insert(QStringLiteral("gain"), 1);
        options.insert(QStringLiteral("mode"), QStringLiteral("fast"));
        options.insert(QStringLiteral("blank"), QVariant());
    }
    void createActions() override { actions.insert(QStringLiteral("run"), new ZtAction(this)); }
};

namespace {

const double notANumber = std::numeric_limits<double>::quiet_NaN();

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

} // namespace

class tst_Module : public QObject
{
    Q_OBJECT

private slots:
    void optionChanges_data();
    void optionChanges();
    void refresh_data();
    void refresh();
    void copyConstructor();
    void destruction();
    void libraries();
    void layout();
    void sync_data();
    void sync();
    void buttons();
    void setValue_data();
    void setValue();
    void embeddedMetaData_data();
    void embeddedMetaData();
};

// setOption takes a [name, value] list and announces nothing; recvOptions and
// setOptionsFromList end in one refresh and one announcement, whatever they changed.
void tst_Module::optionChanges_data()
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
}

void tst_Module::optionChanges()
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

// The widgets are read at once when they share the module's thread, and later, in their own
// thread, when the module is on a worker.
void tst_Module::refresh_data()
{
    QTest::addColumn<bool>("onWorker");
    QTest::addColumn<bool>("interfaceReset");
    QTest::addColumn<QStringList>("atOnce");
    QTest::addColumn<QStringList>("inTheEnd");

    const QStringList direct {"main.read", "options.read", "apply", "send"};
    QTest::newRow("same thread") << false << false << direct << direct;
    QTest::newRow("module on a worker")
        << true << false << QStringList {"apply", "send"}
        << QStringList {"apply", "send", "main.read", "options.read"};
    QTest::newRow("after initInterface")
        << false << true << QStringList {"apply", "send"} << QStringList {"apply", "send"};
}

void tst_Module::refresh()
{
    QFETCH(bool, onWorker);
    QFETCH(bool, interfaceReset);
    QFETCH(QStringList, atOnce);
    QFETCH(QStringList, inTheEnd);

    TestModule module(1);
    module.setup();
    QWidget host;
    module.getWMain(&host);
    module.getWOptions(&host);
    if (interfaceReset)
        module.initInterface(&host);
    connect(&module, &ZtMIFound::sendOptions, [&module] { module.calls << "send"; });
    QThread worker;
    const auto home = qScopeGuard([&worker, &module] {
        if (!worker.isRunning())
            return;
        QMetaObject::invokeMethod(&module, "moveMeToTheMainThread", Qt::BlockingQueuedConnection);
        worker.quit();
        worker.wait(10000);
    });
    if (onWorker) {
        worker.start();
        module.moveToThread(&worker);
    }

    QMetaObject::invokeMethod(
        &module, [&module] { module.actForOptionsChanged(); },
        onWorker ? Qt::BlockingQueuedConnection : Qt::DirectConnection);
    QCOMPARE(module.calls, atOnce);
    QTRY_COMPARE(module.calls, inTheEnd);
}

void tst_Module::copyConstructor()
{
    TestModule original(6);
    original.setup();
    original.setOption(QStringLiteral("gain"), 9);
    original.setError(QStringLiteral("broken"));
    QWidget host;
    original.getWMain(&host);

    TestModule copy(original);
    // The action pointers are shared; only the original may delete them.
    const auto disown = qScopeGuard([&copy] { copy.getActions()->clear(); });

    QCOMPARE(copy.getId(), 6);
    QCOMPARE(*copy.getOptions(), *original.getOptions());
    QCOMPARE(*copy.getActions(), *original.getActions());
    QCOMPARE(copy.errorString(), QString());
    QCOMPARE(copy.getLocker()->getOwner(), &copy);
    // No widgets: refreshing the copy does not reach the original's widget.
    copy.actForOptionsChanged();
    QVERIFY(original.calls.isEmpty());
}

void tst_Module::destruction()
{
    auto module = std::make_unique<TestModule>(1);
    module->setup();
    QPointer<QAction> action = module->getActions()->value(QStringLiteral("run"));
    QVERIFY(action);
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

// A module library loaded from disk, as the kernel loads it, makes modules of its own class.
void tst_Module::libraries()
{
    QPluginLoader loader(QDir(QStringLiteral(ZT_FIXTURE_DIR)).filePath("testfoundplugin.dll"));
    auto *library = qobject_cast<ZtLibLevelInterface *>(loader.instance());
    QVERIFY2(library, qPrintable(loader.errorString()));
    std::unique_ptr<ZtMIFound> module(library->instance(3, nullptr).value<ZtMIFound *>());
    QVERIFY(module);
    module->setup();
    // Named after its most derived class, with the options that class declared.
    QCOMPARE(module->objectName(), QStringLiteral("FixtureModule"));
    QCOMPARE(*module->getOptions(), OptionTable({{".name", "FixtureModule"}, {"rate", 100}}));
    QCOMPARE(module->getOption(QStringLiteral(".name")).type(), QVariant::String);
    QCOMPARE(module->property("isneedthreadgui"), QVariant(false));
    QCOMPARE(module->property("mt").toInt(), -1);

    // The interface's defaults: no module, and an empty eighth operation.
    QObject parent;
    QVERIFY(!library->ZtLibLevelInterface::instance(1, &parent).isValid());
    QVERIFY(parent.children().isEmpty());
    QCOMPARE(library->getDescription(), QString());
}

// Plug-ins connect to modules by signature and index, and read their properties.
void tst_Module::layout()
{
    const QMetaObject &mo = ZtMIFound::staticMetaObject;
    static const char *const kinds[] = {"method", "signal", "slot", "constructor"};
    QStringList actual;
    for (int i = mo.methodOffset(); i < mo.methodCount(); ++i)
        actual << kinds[mo.method(i).methodType()] + QStringLiteral(" ")
                + mo.method(i).methodSignature();
    for (int i = mo.propertyOffset(); i < mo.propertyCount(); ++i) {
        const QMetaProperty property = mo.property(i);
        actual << QStringLiteral("property ") + property.name()
                + (property.isWritable() ? " writable" : "")
                + (property.isEnumType() ? " enum" : "");
    }
    QCOMPARE(
        actual.join(QStringLiteral("; ")),
        "signal state(QString,Logger::Level); signal state(QString); signal closeWMain(); "
        "signal closeWOptions(); signal sendOptions(ModuleOptions); slot init(); slot final(); "
        "slot updateWMain(); slot updateWOptions(); slot setOptionsFromList(QVariantList); "
        "slot recvOptions(ModuleOptions); slot applyOptions(); slot actForOptionsChanged(); "
        "slot moveMeToTheMainThread(); property isneedthreadgui; property mt enum");
}

// The plain cases (everything, a listed subset, renamed options) run through the kernel's
// option links; these are the edges of the two filtering synchronisers.
void tst_Module::sync_data()
{
    QTest::addColumn<QStringList>("sources");
    QTest::addColumn<QStringList>("targets"); // none: OptiSyncSame
    QTest::addColumn<OptionTable>("incoming");
    QTest::addColumn<OptionTable>("expected");

    using L = QStringList;
    using T = OptionTable;
    QTest::newRow("same: none present") << L {"a"} << L {} << T {{"c", 2}} << T {};
    QTest::newRow("differ: first source wins")
        << L {"a", "b"} << L {"x", "x"} << T {{"a", 1}, {"b", 2}} << T {{"x", 1}};
    QTest::newRow("differ: only second present")
        << L {"a", "b"} << L {"x", "x"} << T {{"b", 2}} << T {{"x", 2}};
    QTest::newRow("differ: short targets refused")
        << L {"a", "b"} << L {"x"} << T {{"a", 1}, {"b", 2}} << T {};
}

void tst_Module::sync()
{
    QFETCH(QStringList, sources);
    QFETCH(QStringList, targets);
    QFETCH(OptionTable, incoming);
    QFETCH(OptionTable, expected);

    if (!targets.isEmpty() && targets.size() < sources.size())
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("^OptiSyncDiffer: "));
    std::unique_ptr<OptiSync> sync;
    if (targets.isEmpty())
        sync = std::make_unique<OptiSyncSame>(sources);
    else
        sync = std::make_unique<OptiSyncDiffer>(sources, targets);
    QSignalSpy sent(sync.get(), &OptiSync::sendOptions);

    sync->recvOptions(ModuleOptions(incoming));

    QCOMPARE(sent.count(), 1);
    QCOMPARE(sent.first().at(0).value<ModuleOptions>().hash, expected);
}

// Cancel reloads the module's values, discarding edits; Ok commits them and announces a change.
void tst_Module::buttons()
{
    QStringList log;
    Recorder<WAbstractOptions> widget(&log, QStringLiteral("options"));
    connect(&widget, &WAbstractOptions::changed, [&log] { log << QStringLiteral("changed"); });
    auto *box = widget.findChild<QDialogButtonBox *>(QStringLiteral("buttonBox"));
    QCOMPARE(int(box->standardButtons()), 0x400400);

    box->button(QDialogButtonBox::Cancel)->click();
    QCOMPARE(log, QStringList {"options.read"});
    box->button(QDialogButtonBox::Ok)->click();
    QCOMPARE(log, QStringList({"options.read", "options.write", "changed"}));
}

// Each setter emits only its own overload of valueChanged, and only on a real change, so that a
// menu, a tool bar and a module observing one value never feed back into each other. The
// setter is chosen by the type of the new value: int, double, or any other as a variant.
void tst_Module::setValue_data()
{
    QTest::addColumn<QVariant>("initial");
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<bool>("emits");

    QTest::newRow("int same") << QVariant(5) << QVariant(5) << false;
    QTest::newRow("int different") << QVariant(5) << QVariant(6) << true;
    QTest::newRow("int 0 on non-number") << QVariant("abc") << QVariant(0) << false;
    QTest::newRow("double 2.5 on int 2") << QVariant(2) << QVariant(2.5) << true;
    QTest::newRow("double 2.0 on int 2") << QVariant(2) << QVariant(2.0) << false;
    QTest::newRow("double NaN on NaN") << QVariant(notANumber) << QVariant(notANumber) << true;
    QTest::newRow("double 1 on NaN") << QVariant(notANumber) << QVariant(1.0) << true;
    QTest::newRow("variant same") << QVariant("on") << QVariant("on") << false;
    QTest::newRow("variant different") << QVariant("on") << QVariant("off") << true;
    QTest::newRow("variant empty on empty") << QVariant() << QVariant() << false;
}

void tst_Module::setValue()
{
    QFETCH(QVariant, initial);
    QFETCH(QVariant, value);
    QFETCH(bool, emits);

    ZtAction action;
    action.setData(initial);
    QSignalSpy asInt(&action, QOverload<int>::of(&ZtAction::valueChanged));
    QSignalSpy asDouble(&action, QOverload<double>::of(&ZtAction::valueChanged));
    QSignalSpy asVariant(&action, QOverload<QVariant>::of(&ZtAction::valueChanged));
    QSignalSpy *own = &asVariant;
    if (value.userType() == QMetaType::Int) {
        own = &asInt;
        action.setValue(value.toInt());
    } else if (value.userType() == QMetaType::Double) {
        own = &asDouble;
        action.setValue(value.toDouble());
    } else {
        action.setValue(value);
    }

    QCOMPARE(own->count(), emits ? 1 : 0);
    QCOMPARE(asInt.count() + asDouble.count() + asVariant.count(), own->count());
    if (emits) {
        // Compared as text so that a stored NaN matches.
        QCOMPARE(own->first().at(0).toString(), value.toString());
        QCOMPARE(action.data().toString(), value.toString());
        QCOMPARE(action.data().userType(), value.userType());
    }
}

// The raw plug-in metadata a module library reads about itself: its own reader must give what
// Qt's conversion to JSON gives, and bytes it does not know must still come out right through
// Qt's conversion.
namespace {

QByteArray rawMetaData;
const char *queryRawMetaData()
{
    return rawMetaData.constData();
}

QByteArray metaDataHeader(char last = '!')
{
    QByteArray header("QTMETADATA ");
    header += last;
    header += char(0);
    header += char(QT_VERSION_MAJOR);
    header += char(QT_VERSION_MINOR);
    header += char(0);
    return header;
}

QCborMap moduleEntries(const QVariant &version = QStringLiteral("2.1.0"))
{
    return QCborMap::fromVariantMap(
        {{QStringLiteral("description"), QStringLiteral("Gain")},
         {QStringLiteral("interfaceType"), QStringLiteral("ZtMIStream")},
         {QStringLiteral("interfaceVersion"), QStringLiteral("1.2.0")},
         {QStringLiteral("kind"), QStringLiteral("filter")},
         {QStringLiteral("name"), QStringLiteral("Gain")},
         {QStringLiteral("version"), version}});
}

// The layout moc writes: a map of indefinite length with small integer keys.
QByteArray mocLayout(const QString &iid, const QCborMap &entries)
{
    QByteArray cbor;
    QCborStreamWriter writer(&cbor);
    writer.startMap();
    writer.append(2);
    writer.append(iid);
    writer.append(3);
    writer.append(QLatin1String("GainLibrary"));
    writer.append(4);
    entries.toCborValue().toCbor(writer);
    writer.endMap();
    return metaDataHeader() + cbor;
}

} // namespace

void tst_Module::embeddedMetaData_data()
{
    QTest::addColumn<QByteArray>("raw");
    QTest::addColumn<bool>("direct"); // read without Qt's conversion
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("error");

    const QString iid = QStringLiteral(ZtLibLevelInterface_iid);
    QTest::newRow("moc layout") << mocLayout(iid, moduleEntries()) << true << "Gain"
                                << "";
    QTest::newRow("text keys, definite map") << metaDataHeader()
            + QCborMap {{QStringLiteral("IID"), iid}, {QStringLiteral("MetaData"), moduleEntries()}}
                  .toCborValue()
                  .toCbor() << true << "Gain"
                                             << "";
    QTest::newRow("no module metadata") << mocLayout(iid, QCborMap()) << true << ""
                                        << "no module metadata";
    QTest::newRow("another interface")
        << mocLayout(QStringLiteral("org.example.Other/1.0"), moduleEntries()) << true << ""
        << "not a ZtCore module library";
    QTest::newRow("version not text") << mocLayout(iid, moduleEntries(3)) << true << "Gain"
                                      << "";

    // A text in chunks (indefinite length) is valid CBOR that moc does not write.
    QByteArray chunked
        = mocLayout(iid, QCborMap {{QStringLiteral("name"), QStringLiteral("@@@@")}});
    const QByteArray name = QByteArray("\x64") + "@@@@";
    chunked.replace(chunked.indexOf(name), name.size(), QByteArray("\x7f\x62Ga\x62in\xff", 8));
    QTest::newRow("chunked text") << chunked << false << "Gain"
                                  << "";
    QByteArray reserved = mocLayout(iid, moduleEntries());
    reserved[metaDataHeader().size() + 1] = char(0x1c); // a reserved head where a key starts
    QTest::newRow("malformed") << reserved << false << ""
                               << "not a ZtCore module library";
    QTest::newRow("other signature")
        << metaDataHeader('?') + mocLayout(iid, moduleEntries()).mid(16) << false << ""
        << "not a ZtCore module library";
}

void tst_Module::embeddedMetaData()
{
    QFETCH(QByteArray, raw);
    QFETCH(bool, direct);
    QFETCH(QString, name);
    QFETCH(QString, error);

    rawMetaData = raw;
    const auto clear = qScopeGuard([] { rawMetaData.clear(); });
    ZtModuleMetaData read;
    QCOMPARE(ZtModuleMetaData::readRaw(raw.constData(), &read), direct);

    const ZtModuleMetaData embedded = ZtModuleMetaData::fromEmbedded(&queryRawMetaData);
    const ZtModuleMetaData byQt = ZtModuleMetaData::fromPluginMetaData(
        QStaticPlugin {nullptr, &queryRawMetaData}.metaData());
    const auto fields = [](const ZtModuleMetaData &data) {
        return QStringList {data.getName(),          data.getKind(),
                            data.getVersion(),       data.getDescription(),
                            data.getInterfaceType(), QString::number(data.getInterfaceVersion()),
                            data.errorString()};
    };
    QCOMPARE(fields(embedded), fields(byQt));
    QCOMPARE(embedded.getName(), name);
    QCOMPARE(embedded.errorString(), error);
    if (direct)
        QCOMPARE(fields(read), fields(byQt));
}

QTEST_MAIN(tst_Module)
#include "tst_module.moc"
