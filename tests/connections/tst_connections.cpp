// End-to-end tests of the connection entries: real module libraries loaded by the kernel from a
// settings file, real worker threads, data counted and ordered at the receiving module.
#include "debuglines.h"

#include <propagator.h>
#include <propagatorstreamdirect.h>
#include <threadlauncher.h>
#include <ztkernel.h>
#include <ztmiextended.h>
#include <ztmifound.h>

#include <QAction>
#include <QFile>
#include <QMutex>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <atomic>
#include <functional>

namespace {

QStringList debugLines()
{
    return DebugLines::all();
}

// The parent object of the kernel: the kernel's final quit() lands here.
class QuitProbe : public QObject
{
    Q_OBJECT
public:
    int quits = 0;
public slots:
    void quit() { ++quits; }
};

// One application from a module list such as "S E:1" (ConnStream, then ConnExt on worker thread
// 1), lines added to the [modules] group, and connection entries; loaded, connected and started.
class Rig
{
public:
    Rig(const QString &moduleList, const QStringList &entries, const QString &extra = QString(),
        const std::function<void(ZtKernel *)> &beforeWiring = nullptr)
    {
        QString text = QStringLiteral("[mainwindow]\nloggerlevel=6\nloggerfile=%1\n[modules]\n")
                           .arg(dir.filePath(QStringLiteral("zt.log")));
        const QStringList modules = moduleList.split(QLatin1Char(' '));
        const QString settings = dir.filePath(QStringLiteral("system.ini"));
        for (int i = 0; i < modules.size(); ++i) {
            const QStringList parts = modules.at(i).split(QLatin1Char(':'));
            text += QStringLiteral("id_%1\\.name=%2\n")
                        .arg(i)
                        .arg(parts.at(0) == QLatin1String("S") ? "ConnStream" : "ConnExt");
            if (parts.size() > 1)
                text += QStringLiteral("id_%1\\.thread=%2\n").arg(i).arg(parts.at(1));
        }
        text += extra + QStringLiteral("[connections]\n");
        for (int i = 0; i < entries.size(); ++i)
            text += QStringLiteral("%1=\"%2\"\n")
                        .arg(i + 1, 2, 10, QLatin1Char('0'))
                        .arg(entries.at(i));
        {
            QFile file(settings);
            file.open(QIODevice::WriteOnly);
            file.write(text.toUtf8());
            DebugLines::clear();
        }
        kernel = new ZtKernel(&probe);
        kernel->setOptionsFileName(settings);
        kernel->loadModules(QStringLiteral(CONN_MODULES_DIR));
        if (beforeWiring)
            beforeWiring(kernel);
        kernel->makeConnections();
        kernel->initModules();
    }

    ZtMIFound *module(int i) const { return kernel->getModule(i).module; }
    QString log() const
    {
        QFile file(dir.filePath(QStringLiteral("zt.log")));
        file.open(QIODevice::ReadOnly);
        return QString::fromUtf8(file.readAll());
    }

    QTemporaryDir dir;
    QuitProbe probe; // also stops the worker threads, after the kernel
    ZtKernel *kernel = nullptr;
};

Qt::ConnectionType callType(QObject *target)
{
    return target->thread() == QThread::currentThread() ? Qt::DirectConnection
                                                        : Qt::BlockingQueuedConnection;
}

// What a fixture module recorded under `key` (see its report()).
QVariant report(QObject *module, const char *key)
{
    QVariantMap result;
    QMetaObject::invokeMethod(module, "report", Qt::DirectConnection,
                              Q_RETURN_ARG(QVariantMap, result));
    return result.value(QLatin1String(key));
}

// A module's option, read in the module's own thread.
QVariant option(ZtMIFound *module, const char *name)
{
    QVariant value;
    QMetaObject::invokeMethod(
        module, [&] { value = module->getOption(QLatin1String(name)); }, callType(module));
    return value;
}

QVariantList received(QObject *module)
{
    return report(module, "lists").toList();
}

// Makes `module` send `count` numbered lists from its own thread: a stream module emits
// ImReady, an extended module sends through its propagator `output`.
void produce(QObject *module, const QString &output, int first, int count)
{
    if (output == QLatin1String("signal"))
        QMetaObject::invokeMethod(module, "emitNumbered", callType(module), Q_ARG(int, first),
                                  Q_ARG(int, count));
    else
        QMetaObject::invokeMethod(module, "sendNumbered", callType(module), Q_ARG(QString, output),
                                  Q_ARG(int, first), Q_ARG(int, count));
}

QVariantList numbered(int first, int count, int times = 1)
{
    QVariantList out;
    for (int i = 0; i < count; ++i) {
        for (int t = 0; t < times; ++t)
            out.append(QVariant(QVariantList {first + i}));
    }
    return out;
}

const int messageCount = 3000;
const QString toSlot = QStringLiteral("slot_StartProcessing(QVariantList)");

} // namespace

class tst_Connections : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { DebugLines::install(); }

    void streamBranches_data();
    void streamBranches();
    void twoSourcesIntoOneTarget();
    void feedback_data();
    void feedback();
    void moduleUsesItsPropagatorInInit();
    void failures_data();
    void failures();
    void optionSynchronisers_data();
    void optionSynchronisers();
    void optionSyncLoop_data();
    void optionSyncLoop();
    void startActions();
    void loggerEntries();
};

void tst_Connections::streamBranches_data()
{
    QTest::addColumn<QString>("modules"); // the source first, the consumer last
    QTest::addColumn<QStringList>("entries");
    QTest::addColumn<int>("propagators");
    QTest::addColumn<int>("times"); // deliveries of each list
    QTest::addColumn<QString>("extra");
    QTest::addColumn<bool>("locked"); // delivered while the sender holds the consumer's lock
    auto row = [](const char *name, const char *modules, const QStringList &entries,
                  int propagators, int times = 1, const char *extra = "", bool locked = false) {
        QTest::newRow(name) << modules << entries << propagators << times << extra << locked;
    };

    const QString fromSignal = QStringLiteral("id_0;signal_ImReady(QVariantList);id_1;");
    // With both prefixes an entry is a plain Qt connection: queued across threads.
    row("stream->stream, one thread", "S S", {fromSignal + toSlot}, 0);
    row("stream->stream, two threads", "S:0 S:1", {fromSignal + toSlot}, 0);
    row("stream->extended, one thread", "S:0 E:0", {fromSignal + "in"}, 1);
    row("stream->extended, two threads", "S:0 E:1", {fromSignal + "in"}, 2);
    row("extended->stream, one thread", "E S", {"id_0;out;id_1;" + toSlot}, 1);
    row("extended->stream, two threads", "E:0 S:1", {"id_0;out;id_1;" + toSlot}, 1);
    row("extended->extended, one thread", "E:0 E:0", {"id_0;out;id_1;in"}, 1);
    row("extended->extended, two threads", "E:0 E:1", {"id_0;out;id_1;in"}, 1);
    // A concurrent child behind the source's direct propagator delivers each list twice to a
    // stream consumer: once from its own sendList, once relayed. Kept on purpose.
    row("extended->stream behind a direct propagator", "E:0 E:0 S:1",
        {"id_0;out;id_1;in", "id_0;out;id_2;" + toSlot}, 2, 2);
    row("extended->extended behind a direct propagator", "E:0 E:0 E:1",
        {"id_0;out;id_1;in", "id_0;out;id_2;in"}, 2);
    row("aliases in the entry", "E:0 S:1", {"src;out;dst;" + toSlot}, 1, 1,
        "[aliases]\nid_0=src\nid_1=dst\n");
    // The first entry makes the source's "out" concurrent (its target runs in another thread);
    // the second reuses it for a consumer in the source's thread, reached directly.
    row("concurrent source to a consumer in its own thread", "E:0 E:1 S:0",
        {"id_0;out;id_1;in", "id_0;out;id_2;" + toSlot}, 1, 1, "", true);
}

void tst_Connections::streamBranches()
{
    QFETCH(QString, modules);
    QFETCH(QStringList, entries);
    QFETCH(int, propagators);
    QFETCH(int, times);
    QFETCH(QString, extra);
    QFETCH(bool, locked);

    Rig rig(modules, entries, extra);
    QVERIFY2(debugLines().count(QStringLiteral("kernel connected")) == entries.size(),
             qPrintable(debugLines().join(QLatin1Char('\n'))));
    QCOMPARE(rig.kernel->getPropagators().size(), propagators);

    QObject *consumer = rig.module(modules.count(QLatin1Char(' ')));
    produce(rig.module(0), modules.startsWith('S') ? "signal" : "out", 0, messageCount);
    QTRY_COMPARE_WITH_TIMEOUT(received(consumer).size(), messageCount * times, 30000);
    QCOMPARE(received(consumer), numbered(0, messageCount, times));
    // Whatever the path, the consumer's code ran in the consumer's own thread.
    QCOMPARE(report(consumer, "foreign").toInt(), 0);
    if (locked)
        QCOMPARE(report(consumer, "locked").toInt(), messageCount);
}

void tst_Connections::twoSourcesIntoOneTarget()
{
    Rig rig(QStringLiteral("E:0 E:1 E:2"), {"id_0;out;id_2;in", "id_1;out;id_2;in"});
    QVERIFY(!debugLines().filter(QStringLiteral("relay to pgto")).isEmpty());

    QMetaObject::invokeMethod(rig.module(0), "sendNumbered", Qt::QueuedConnection,
                              Q_ARG(QString, "out"), Q_ARG(int, 0), Q_ARG(int, messageCount));
    QMetaObject::invokeMethod(rig.module(1), "sendNumbered", Qt::QueuedConnection,
                              Q_ARG(QString, "out"), Q_ARG(int, 100000), Q_ARG(int, messageCount));
    QTRY_COMPARE_WITH_TIMEOUT(received(rig.module(2)).size(), 2 * messageCount, 30000);

    // Both producers arrive whole, each in its own order, interleaved as they come.
    QVariantList fromFirst, fromSecond;
    for (const QVariant &list : received(rig.module(2)))
        (list.toList().value(0).toInt() < 100000 ? fromFirst : fromSecond).append(list);
    QCOMPARE(fromFirst, numbered(0, messageCount));
    QCOMPARE(fromSecond, numbered(100000, messageCount));
}

void tst_Connections::feedback_data()
{
    QTest::addColumn<QString>("modules");
    QTest::addColumn<int>("type");

    QTest::newRow("one worker thread") << "E:0 E:0" << int(Propagator::Direct);
    QTest::newRow("two worker threads") << "E:0 E:1" << int(Propagator::Concurrent);
    QTest::newRow("requester in the GUI thread") << "E E:1" << int(Propagator::Concurrent);
    QTest::newRow("both in the GUI thread") << "E E" << int(Propagator::Direct);
}

void tst_Connections::feedback()
{
    QFETCH(QString, modules);
    QFETCH(int, type);

    Rig rig(modules, {"id_0;dev;id_1;regs;feedback"});
    QCOMPARE(rig.kernel->getPropagators().size(), 1);
    Propagator *pg = rig.kernel->getPropagators().first();
    QCOMPARE(int(pg->getType()), type);
    if (type == Propagator::Concurrent)
        QCOMPARE(pg->thread(), rig.kernel->getThreadLauncher()->getPpgThread());

    QObject *requester = rig.module(0);
    int right = -1;
    QMetaObject::invokeMethod(requester, "askNumbered", callType(requester),
                              Q_RETURN_ARG(int, right), Q_ARG(int, 1), Q_ARG(int, 2000));
    QCOMPARE(right, 2000);
}

void tst_Connections::moduleUsesItsPropagatorInInit()
{
    // Module 1 sends three lists from its init(); module 0, initialised first, is listening.
    Rig rig(QStringLiteral("E:0 E:1"), {"id_1;out;id_0;in"},
            QStringLiteral("id_1\\sendoninit=3\n"));
    QTRY_COMPARE(received(rig.module(0)),
                 (QVariantList {QVariant(QVariantList {-1}), QVariant(QVariantList {-2}),
                                QVariant(QVariantList {-3})}));
}

void tst_Connections::failures_data()
{
    QTest::addColumn<QString>("modules");
    QTest::addColumn<QString>("entry");
    QTest::addColumn<QStringList>("expected");
    QTest::addColumn<int>("propagators");
    QTest::addColumn<QString>("absent");
    QTest::addColumn<bool>("directChild"); // module 0's "out" is direct with a direct child
    auto row = [](const char *name, const char *modules, const QString &entry,
                  const QStringList &expected, int propagators = 0, const char *absent = "",
                  bool directChild = false) {
        QTest::newRow(name) << modules << entry << expected << propagators << absent << directChild;
    };

    row("signal link to a missing module", "S S",
        "id_0;signal_out(QVariantList);id_9;slot_in(QVariantList)", {"kernel not connect"}, 0,
        "is NULL");
    row("propagator link to a missing module", "S S", "id_0;out;id_9;in",
        {"module with id 9 is NULL", "kernel not connect"});
    row("stream slot without prefix across threads", "S:0 S:1",
        "id_0;signal_a(QVariantList);id_1;b", {"unknown identifer", "kernel not connect"}, 1);
    row("stream to extended as feedback", "S E",
        "id_0;signal_ImReady(QVariantList);id_1;in;feedback",
        {"error connect stream to feedback with feedback options 1"});
    row("extended to stream as feedback", "S E", "id_1;out;id_0;" + toSlot + ";feedback",
        {"error connect feedback to stream with feedback options 1"});
    row("undeclared propagator name", "E E", "id_0;nothere;id_1;in",
        {"can't set propagator to module with id 0", "kernel not connect"}, 1);
    // A direct child would run the consumer in the source's thread: a concurrent one is made,
    // and the direct propagator refuses a second child.
    row("direct child behind the source", "E:0 E:1", "id_0;out;id_1;in",
        {"can't set child for propagator to module with id 0", "kernel not connect"}, 1,
        "pgchild reused", true);
    row("unknown facility", "S S", "id_0;signal_ImReady(QVariantList);foo;x",
        {"unknown identifer foo"});
    row("synchroniser with seven fields", "S S",
        "id_0;signal_sendOptions(ModuleOptions);id_1;slot_recvOptions(ModuleOptions);a;b;c",
        {"invalid arguments"}, 0, "kernel connected");
    row("unknown action keyword", "S S", "actid_0,go;actfoo",
        {"actions not connected, unknown identifer"});
    row("action of a missing module", "S S", "actid_7,go;actquit",
        {"Error, try connect to undefined module"});
    row("missing action", "S S", "actid_0,nothere;actquit", {"kernel actions not connected"});
    row("start action without receiver", "S S", "actid_0,go;actstart",
        {"actions not connected, receiver not defined"});
    row("start action to a facility", "S S", "actid_0,go;actstart;logger;slot_start()",
        {"actions not connected, not implemented yet"});
    row("state signal to the logger again", "S S",
        "id_0;signal_state(QString,Logger::Level);logger", {"not connect, obsoleted"});
}

void tst_Connections::failures()
{
    QFETCH(QString, modules);
    QFETCH(QString, entry);
    QFETCH(QStringList, expected);
    QFETCH(int, propagators);
    QFETCH(QString, absent);
    QFETCH(bool, directChild);

    Rig rig(modules, {entry}, QString(), [directChild](ZtKernel *kernel) {
        if (!directChild)
            return;
        auto *pg = new PropagatorStreamDirect(kernel);
        pg->setChild(new PropagatorStreamDirect(pg));
        qobject_cast<ZtMIExtended *>(kernel->getModule(0).module)->setPropagator("out", pg, false);
    });
    const QString all = debugLines().join(QLatin1Char('\n'));
    for (const QString &text : expected)
        QVERIFY2(all.contains(text), qPrintable(text + QStringLiteral(" not in:\n") + all));
    if (!absent.isEmpty())
        QVERIFY2(!all.contains(absent), qPrintable(absent + QStringLiteral(" in:\n") + all));
    QCOMPARE(rig.kernel->getPropagators().size(), propagators);
    if (propagators == 1 && !directChild && rig.module(1)->thread() != rig.module(0)->thread()) {
        // The propagator made before the failure stays, holding the target's lock.
        QCOMPARE(rig.kernel->getPropagators().first()->getLockers(),
                 QList<ModLocker *> {rig.module(1)->getLocker()});
    }
}

void tst_Connections::optionSynchronisers_data()
{
    QTest::addColumn<QString>("extra");
    QTest::addColumn<int>("gain");
    QTest::addColumn<int>("offset");
    QTest::addColumn<int>("scale");

    QTest::newRow("four fields: everything") << QString() << 5 << 7 << 9;
    QTest::newRow("five fields: same names") << QStringLiteral(";gain,offset") << 5 << 7 << 1;
    QTest::newRow("six fields: other names")
        << QStringLiteral(";gain,offset;scale,gain") << 7 << 0 << 5;
}

void tst_Connections::optionSynchronisers()
{
    QFETCH(QString, extra);
    QFETCH(int, gain);
    QFETCH(int, offset);
    QFETCH(int, scale);

    Rig rig(QStringLiteral("S:0 S:1"),
            {"id_0;signal_sendOptions(ModuleOptions);id_1;slot_recvOptions(ModuleOptions)" + extra},
            QStringLiteral("id_0\\gain=5\nid_0\\offset=7\nid_0\\scale=9\n"));
    QCOMPARE(rig.kernel->getOptiSyncs().size(), 1);

    // initModules made module 0 announce its options; they travel to module 1's thread.
    auto options = [&rig] {
        QList<int> values;
        for (const char *name : {"gain", "offset", "scale"})
            values << option(rig.module(1), name).toInt();
        return values;
    };
    QTRY_COMPARE(options(), (QList<int> {gain, offset, scale}));
}

void tst_Connections::optionSyncLoop_data()
{
    QTest::addColumn<QString>("modules");
    QTest::newRow("one thread") << "S S";
    QTest::newRow("two threads") << "S:0 S:1";
}

// A->B and B->A: every module re-announces what it receives, so the options must not go round
// for ever (a stack overflow in one thread, endless traffic across two).
void tst_Connections::optionSyncLoop()
{
    QFETCH(QString, modules);

    const QString sync = QStringLiteral(
        "id_%1;signal_sendOptions(ModuleOptions);id_%2;slot_recvOptions(ModuleOptions);gain");
    Rig rig(modules, {sync.arg(0).arg(1), sync.arg(1).arg(0)});
    std::atomic<int> announced {0};
    for (int i : {0, 1})
        connect(
            rig.module(i), &ZtMIFound::sendOptions, this, [&announced] { ++announced; },
            Qt::DirectConnection);
    // Let the start-up announcements and their deliveries run first: a call into each thread,
    // twice, waits for what was queued there before.
    for (int round : {0, 1, 0, 1})
        option(rig.module(round), "gain");
    for (int i : {0, 1}) {
        ZtMIFound *source = rig.module(i);
        QMetaObject::invokeMethod(source, [source, i] {
            source->setOption(QStringLiteral("gain"), 10 + i);
            source->actForOptionsChanged();
        });
        for (int j : {0, 1})
            QTRY_COMPARE(option(rig.module(j), "gain").toInt(), 10 + i);
    }
    QTest::qWait(100);
    const int settled = announced;
    QTest::qWait(200);
    QCOMPARE(int(announced), settled);
}

void tst_Connections::startActions()
{
    Rig rig(QStringLiteral("S S:1"),
            {"act:panel,go;actstart;id_1;slot_start()",
             "actid_0,list;actstart;id_1;slot_startList(QVariantList)",
             "actid_0,bytes;actstart;id_1;slot_startBytes(QByteArray)"},
            QStringLiteral("[aliases]\nid_0=panel\n"));
    auto starts = [&rig] {
        QStringList result = report(rig.module(1), "starts").toStringList();
        result.sort();
        return result;
    };
    // Once at start-up, each through the actStart signal of its own parameters.
    QTRY_COMPARE(starts(), (QStringList {"start()", "startBytes(0)", "startList(0)"}));

    rig.module(0)->getActions()->value("go")->trigger();
    QTRY_COMPARE(starts().count("start()"), 2);
    rig.module(0)->getActions()->value("list")->trigger();
    QTRY_COMPARE(starts().count("startList(0)"), 2);
    QCOMPARE(starts().size(), 5); // a trigger starts only its own target slot
}

void tst_Connections::loggerEntries()
{
    Rig rig(QStringLiteral("S:0"), {"id_0;signal_myStatus(QString);logger"});
    // Invoking a signal emits it, here in the module's own thread.
    QMetaObject::invokeMethod(rig.module(0), "myStatus", Qt::BlockingQueuedConnection,
                              Q_ARG(QString, "warming up"));
    // The settings give every module an ".alias" ("id_0" when the file names none).
    QTRY_VERIFY(rig.log().contains(QStringLiteral("(MM) ")));
    QTRY_VERIFY(rig.log().contains(QStringLiteral(" id_0:    warming up\n")));
}

QTEST_MAIN(tst_Connections)
#include "tst_connections.moc"
