// End-to-end tests of the connection entries: the kernel's fixture module libraries loaded from a
// settings file, real worker threads, data counted and ordered at the receiving module.
#include "debuglines.h"

#include <kernelprobe.h>
#include <propagator.h>
#include <propagatorfeedbackconcurrent.h>
#include <propagatorstreambatched.h>
#include <propagatorstreamdirect.h>
#include <threadlauncher.h>
#include <ztkernel.h>
#include <ztmiextended.h>

#include <QAction>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <functional>

namespace {

// One application from a module list such as "S E:1" (TestStream, then TestExtended on worker
// thread 1), lines added to the [modules] group, and connection entries; loaded, connected and
// started.
class Rig
{
public:
    Rig(const QString &moduleList, const QStringList &entries, const QString &extra = QString(),
        const std::function<void(ZtKernel *)> &beforeWiring = nullptr)
    {
        QString text = QStringLiteral("[mainwindow]\nloggerlevel=6\nloggerfile=%1\n[modules]\n")
                           .arg(dir.filePath(QStringLiteral("zt.log")));
        const QStringList modules = moduleList.split(QLatin1Char(' '));
        for (int i = 0; i < modules.size(); ++i) {
            const QStringList parts = modules.at(i).split(QLatin1Char(':'));
            text += QStringLiteral("id_%1\\.name=Test%2\n")
                        .arg(i)
                        .arg(parts.at(0) == QLatin1String("S") ? "Stream" : "Extended");
            if (parts.size() > 1)
                text += QStringLiteral("id_%1\\.thread=%2\n").arg(i).arg(parts.at(1));
        }
        text += extra + QStringLiteral("[connections]\n");
        for (int i = 0; i < entries.size(); ++i)
            text += QStringLiteral("%1=\"%2\"\n")
                        .arg(i + 1, 2, 10, QLatin1Char('0'))
                        .arg(entries.at(i));
        QFile file(dir.filePath(QStringLiteral("system.ini")));
        file.open(QIODevice::WriteOnly);
        file.write(text.toUtf8());
        file.close();
        DebugLines::clear();
        KernelProbe::clear();
        kernel = new ZtKernel(&host);
        kernel->setOptionsFileName(file.fileName());
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
        return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
    }
    // Module i sends the lists [first] to [first + count - 1] from its own thread: a stream module
    // ("S" in the list) by its signal, an extended one through its "out".
    void send(int i, int first, int count) const
    {
        if (kernel->getModule(i).type == 0)
            QMetaObject::invokeMethod(module(i), "emitNumbered", Qt::QueuedConnection,
                                      Q_ARG(int, first), Q_ARG(int, count));
        else
            QMetaObject::invokeMethod(module(i), "sendNumbered", Qt::QueuedConnection,
                                      Q_ARG(QString, "out"), Q_ARG(int, first), Q_ARG(int, count));
    }

    QTemporaryDir dir;
    QObject host; // also stops the worker threads, after the kernel
    ZtKernel *kernel = nullptr;
};

Qt::ConnectionType callType(QObject *target)
{
    return target->thread() == QThread::currentThread() ? Qt::DirectConnection
                                                        : Qt::BlockingQueuedConnection;
}

// A module's option, read in the module's own thread.
QVariant option(ZtMIFound *module, const char *name)
{
    QVariant value;
    QMetaObject::invokeMethod(
        module, [&] { value = module->getOption(QLatin1String(name)); }, callType(module));
    return value;
}

// The lists module `id` recorded, in the order they arrived.
QVariantList received(int id)
{
    QVariantList lists;
    for (const ProbeEvent &event : KernelProbe::events(id, QStringLiteral("list")))
        lists.append(event.detail);
    return lists;
}

// [first], [first + 1], ..., each `times` times in a row.
QVariantList numbered(int first, int count, int times = 1)
{
    QVariantList out;
    for (int i = 0; i < count * times; ++i)
        out.append(QVariant(QVariantList {first + i / times}));
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
    void moduleUsesItsPropagatorInInit();
    void failures_data();
    void failures();
    void optionSynchronisers_data();
    void optionSynchronisers();
    void optionSyncLoop_data();
    void optionSyncLoop();
    void startActions();
    void connectionOptions_data();
    void connectionOptions();
    void channelRows();
};

void tst_Connections::streamBranches_data()
{
    QTest::addColumn<QString>("modules"); // the source first, the consumer last
    QTest::addColumn<QStringList>("entries");
    QTest::addColumn<int>("propagators");
    QTest::addColumn<int>("times"); // deliveries of each list
    QTest::addColumn<QString>("extra");
    QTest::addColumn<bool>("locked"); // delivered while the sender holds the consumer's lock
    QTest::addColumn<int>("sources"); // the first modules, sending at the same time
    auto row
        = [](const char *name, const char *modules, const QStringList &entries, int propagators,
             int times = 1, const char *extra = "", bool locked = false, int sources = 1) {
              QTest::newRow(name) << modules << entries << propagators << times << extra << locked
                                  << sources;
          };

    const QString fromSignal = QStringLiteral("id_0;signal_ImReady(QVariantList);id_1;");
    // With both prefixes an entry is a plain Qt connection: queued across threads.
    row("stream->stream, one thread", "S S", {fromSignal + toSlot}, 0);
    row("stream->stream, two threads", "S:0 S:1", {fromSignal + toSlot}, 0);
    row("stream->extended, one thread", "S:0 E:0", {fromSignal + "in"}, 1);
    row("stream->extended, two threads", "S:0 E:1", {fromSignal + "in"}, 2);
    row("extended->stream, one thread", "E S", {"id_0;out;id_1;" + toSlot}, 1);
    row("extended->stream, two threads, by alias", "E:0 S:1", {"src;out;dst;" + toSlot}, 1, 1,
        "[aliases]\nid_0=src\nid_1=dst\n");
    row("extended->extended, one thread", "E:0 E:0", {"id_0;out;id_1;in"}, 1);
    row("extended->extended, two threads", "E:0 E:1", {"id_0;out;id_1;in"}, 1);
    // A concurrent child behind the source's direct propagator delivers each list twice to a
    // stream consumer: once from its own sendList, once relayed. Kept on purpose.
    row("extended->stream behind a direct propagator", "E:0 E:0 S:1",
        {"id_0;out;id_1;in", "id_0;out;id_2;" + toSlot}, 2, 2);
    row("extended->extended behind a direct propagator", "E:0 E:0 E:1",
        {"id_0;out;id_1;in", "id_0;out;id_2;in"}, 2);
    // The first entry makes the source's "out" concurrent (its target runs in another thread);
    // the second reuses it for a consumer in the source's thread, reached directly.
    row("concurrent source to a consumer in its own thread", "E:0 E:1 S:0",
        {"id_0;out;id_1;in", "id_0;out;id_2;" + toSlot}, 1, 1, "", true);
    row("two sources into one target", "E:0 E:1 E:2", {"id_0;out;id_2;in", "id_1;out;id_2;in"}, 2,
        1, "", false, 2);
}

void tst_Connections::streamBranches()
{
    QFETCH(QString, modules);
    QFETCH(QStringList, entries);
    QFETCH(int, propagators);
    QFETCH(int, times);
    QFETCH(QString, extra);
    QFETCH(bool, locked);
    QFETCH(int, sources);

    Rig rig(modules, entries, extra);
    QVERIFY2(DebugLines::all().count(QStringLiteral("kernel connected")) == entries.size(),
             qPrintable(DebugLines::all().join(QLatin1Char('\n'))));
    QCOMPARE(rig.kernel->getPropagators().size(), propagators);

    // Source i sends lists numbered from i * 100000 on; each source's lists arrive whole and in
    // order, interleaved with the other's as they come.
    for (int i = 0; i < sources; ++i)
        rig.send(i, i * 100000, messageCount);
    const int consumer = modules.count(QLatin1Char(' '));
    QTRY_COMPARE_WITH_TIMEOUT(received(consumer).size(), messageCount * times * sources, 30000);
    QVector<QVariantList> bySource(sources);
    for (const QVariant &list : received(consumer))
        bySource[list.toList().value(0).toInt() / 100000].append(list);
    for (int i = 0; i < sources; ++i)
        QCOMPARE(bySource.at(i), numbered(i * 100000, messageCount, times));
    // Whatever the path, the consumer's code ran in the consumer's own thread.
    for (const ProbeEvent &event : KernelProbe::events(consumer, QStringLiteral("list")))
        QCOMPARE(event.thread, rig.module(consumer)->thread());
    if (locked)
        QCOMPARE(KernelProbe::events(consumer, QStringLiteral("locked")).size(), messageCount);
}

void tst_Connections::moduleUsesItsPropagatorInInit()
{
    // Module 1 sends three lists from its init(); module 0, initialised first, is listening.
    Rig rig(QStringLiteral("E:0 E:1"), {"id_1;out;id_0;in"},
            QStringLiteral("id_1\\sendoninit=3\n"));
    QTRY_COMPARE(received(0), numbered(-3, 3));
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
    row("unknown action keyword", "S S", "actid_0,start;actfoo",
        {"actions not connected, unknown identifer"});
    row("action of a missing module", "S S", "actid_7,go;actquit",
        {"Error, try connect to undefined module"});
    row("missing action", "S S", "actid_0,nothere;actquit", {"kernel actions not connected"});
    row("start action without receiver", "S S", "actid_0,start;actstart",
        {"actions not connected, receiver not defined"});
    row("start action to a facility", "S S", "actid_0,start;actstart;logger;slot_start()",
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
    const QString all = DebugLines::all().join(QLatin1Char('\n'));
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
    QTest::addColumn<QStringList>("expected"); // module 1's gain and label

    QTest::newRow("four fields: everything") << QString() << QStringList {"5", "x"};
    QTest::newRow("five fields: same names")
        << QStringLiteral(";gain") << QStringList {"5", "none"};
    QTest::newRow("six fields: other names")
        << QStringLiteral(";gain,label;label,gain") << QStringList {"x", "5"};
}

void tst_Connections::optionSynchronisers()
{
    QFETCH(QString, extra);
    QFETCH(QStringList, expected);

    Rig rig(QStringLiteral("S:0 S:1"),
            {"id_0;signal_sendOptions(ModuleOptions);id_1;slot_recvOptions(ModuleOptions)" + extra},
            QStringLiteral("id_0\\gain=5\nid_0\\label=x\n"));
    QCOMPARE(rig.kernel->getOptiSyncs().size(), 1);

    // initModules made module 0 announce its options; they travel to module 1's thread.
    QTRY_COMPARE((QStringList {option(rig.module(1), "gain").toString(),
                               option(rig.module(1), "label").toString()}),
                 expected);
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
    auto announced = [] {
        return KernelProbe::events(0, QStringLiteral("sendOptions")).size()
            + KernelProbe::events(1, QStringLiteral("sendOptions")).size();
    };
    QTest::qWait(100);
    const int settled = announced();
    QTest::qWait(200);
    QCOMPARE(announced(), settled);
}

void tst_Connections::startActions()
{
    Rig rig(QStringLiteral("S S:1"),
            {"act:panel,start;actstart;id_1;slot_begin()",
             "actid_0,stop;actstart;id_1;slot_begin(QByteArray)",
             "actid_0,stay;actstart;id_1;slot_begin(QVariantList)"},
            QStringLiteral("[aliases]\nid_0=panel\n"));
    auto starts = [&rig] {
        QStringList result;
        for (const ProbeEvent &event : KernelProbe::events(1)) {
            if (event.what.startsWith("begin") && event.thread == rig.module(1)->thread())
                result << event.what;
        }
        return result;
    };
    // Once at start-up, each through the actStart signal of its own parameters, in their order;
    // then a trigger starts only its own target slot.
    QTRY_COMPARE(starts(), (QStringList {"begin()", "begin(QByteArray)0", "begin(QVariantList)0"}));
    rig.module(0)->getActions()->value("start")->trigger();
    rig.module(0)->getActions()->value("stay")->trigger();
    QTRY_COMPARE(starts().mid(3), (QStringList {"begin()", "begin(QVariantList)0"}));
}

void tst_Connections::connectionOptions_data()
{
    QTest::addColumn<QString>("modules"); // module 0 sends, module 1 receives
    QTest::addColumn<QString>("entry");
    QTest::addColumn<QStringList>("warnings");
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QStringList>("applied");
    QTest::addColumn<QString>("channel"); // class of the channel behind the entry; empty: none
    QTest::addColumn<QString>("traffic"); // "lists", "drop", "ask", or none
    auto row = [](const char *name, const char *modules, const QString &entry,
                  const QStringList &warnings, const char *kind, const QStringList &applied,
                  const char *channel, const char *traffic = "lists") {
        QTest::newRow(name) << modules << entry << warnings << kind << applied << channel
                            << traffic;
    };

    const QString plain = QStringLiteral("id_0;signal_ImReady(QVariantList);id_1;") + toSlot;
    const QString toStream = QStringLiteral("id_0;out;id_1;") + toSlot;
    const char *notBetween = "applies only to a stream channel between threads; ignored";
    // A plain entry with options goes through a counting channel with the same delivery.
    row("plain entry, across threads", "S:0 S:1", plain + ";limit=100000;policy=block", {},
        "signal/slot", {"limit=100000", "policy=block"}, "PropagatorStreamConcurrent");
    row("plain entry, one thread", "S S", plain + ";limit=5",
        {"connection option \"limit=5\" " + QString(notBetween)}, "signal/slot", {},
        "PropagatorStreamConcurrent");
    row("unknown option and bad value: plain as before", "S:0 S:1",
        plain + ";speed=fast;limit=zero",
        {"unknown connection option \"speed=fast\" ignored",
         "bad value in connection option \"limit=zero\" ignored"},
        "signal/slot", {}, "");
    row("signal without a list", "S S:1", "id_0;signal_closeWMain();id_1;slot_begin();limit=3",
        {"connection options need a signal passing (QVariantList) or (QByteArray); plain "
         "connection made"},
        "signal/slot", {}, "", "");
    row("batched, plain entry", "S:0 S:1", plain + ";channel=batched", {}, "batched",
        {"channel=batched"}, "PropagatorStreamBatched");
    row("batched, extended to extended", "E:0 E:1", "id_0;out;id_1;in;channel=batched;limit=100000",
        {}, "batched", {"channel=batched", "limit=100000"}, "PropagatorStreamBatched");
    row("batched, extended to stream", "E:0 S:1", toStream + ";channel=batched", {}, "batched",
        {"channel=batched"}, "PropagatorStreamBatched");
    row("batched, stream to extended", "S:0 E:1",
        "id_0;signal_ImReady(QVariantList);id_1;in;channel=batched", {}, "batched",
        {"channel=batched"}, "PropagatorStreamBatched");
    row("batched within one thread", "E:0 E:0", "id_0;out;id_1;in;channel=batched",
        {"connection option \"channel=batched\" applies only to a new stream channel between "
         "threads; ignored"},
        "stream", {}, "PropagatorStreamDirect");
    row("limit within one thread", "E:0 E:0", "id_0;out;id_1;in;limit=10",
        {"connection option \"limit=10\" " + QString(notBetween)}, "stream", {},
        "PropagatorStreamDirect");
    row("policy without limit", "E:0 E:1", "id_0;out;id_1;in;policy=drop",
        {"connection option \"policy=drop\" applies only to a stream channel between threads, "
         "together with limit=; ignored"},
        "stream", {}, "PropagatorStreamConcurrent");
    row("dropped when full", "E:0 S:1", toStream + ";limit=5;policy=drop", {}, "stream",
        {"limit=5", "policy=drop"}, "PropagatorStreamConcurrent", "drop");
    row("time-out on a stream", "E:0 E:1", "id_0;out;id_1;in;timeout=500",
        {"connection option \"timeout=500\" applies only to a feedback channel between threads; "
         "ignored"},
        "stream", {}, "PropagatorStreamConcurrent");
    // Requests are served in the server's thread, through the propagator thread across threads.
    const QString request = QStringLiteral("id_0;dev;id_1;regs;feedback");
    row("request in one thread", "E:0 E:0", request, {}, "feedback", {}, "PropagatorFeedbackDirect",
        "ask");
    row("request across worker threads", "E:0 E:1", request, {}, "feedback", {},
        "PropagatorFeedbackConcurrent", "ask");
    row("request from the GUI thread", "E E:1", request, {}, "feedback", {},
        "PropagatorFeedbackConcurrent", "ask");
    row("time-out on a request", "E:0 E:1", request + ";timeout=5000", {}, "feedback",
        {"timeout=5000"}, "PropagatorFeedbackConcurrent", "ask");
}

// Options change only what they name: the entry is made as without them, warnings name the
// entry, and the data still arrives whole and in order (or, dropped, is counted).
void tst_Connections::connectionOptions()
{
    QFETCH(QString, modules);
    QFETCH(QString, entry);
    QFETCH(QStringList, warnings);
    QFETCH(QString, kind);
    QFETCH(QStringList, applied);
    QFETCH(QString, channel);
    QFETCH(QString, traffic);

    Rig rig(modules, {entry});
    const QStringList lines = DebugLines::all();
    const QString all = lines.join(QLatin1Char('\n'));
    QVERIFY2(lines.contains(QStringLiteral("kernel connected")), qPrintable(all));
    const QString prefix = QStringLiteral("connection \"%1\": ").arg(entry);
    for (const QString &warning : qAsConst(warnings))
        QVERIFY2(lines.contains(QStringLiteral("kernel ") + prefix + warning), qPrintable(all));
    QCOMPARE(lines.filter(prefix).size(), warnings.size());
    for (const QString &warning : qAsConst(warnings))
        QTRY_VERIFY(rig.log().contains(prefix + warning));

    const QList<ChannelRow> rows = rig.kernel->channelRows();
    QCOMPARE(rows.size(), 1);
    const ChannelRow row = rows.first();
    QCOMPARE(row.entry, entry);
    QCOMPARE(row.kind, kind);
    QCOMPARE(row.options, applied);
    QVERIFY(row.connected);
    QCOMPARE(row.counted, !channel.isEmpty());
    Propagator *pg = nullptr;
    for (Propagator *candidate : rig.kernel->getPropagators()) {
        if (candidate->metaObject()->className() == channel)
            pg = candidate;
    }
    QCOMPARE(pg != nullptr, !channel.isEmpty());
    if (kind == QLatin1String("batched"))
        QCOMPARE(pg->thread(), rig.module(1)->thread());
    if (channel == QLatin1String("PropagatorFeedbackConcurrent"))
        QCOMPARE(pg->thread(), rig.kernel->getThreadLauncher()->getPpgThread());

    ChannelStats stats;
    if (traffic == QLatin1String("ask")) {
        int right = -1;
        QMetaObject::invokeMethod(rig.module(0), "askNumbered", callType(rig.module(0)),
                                  Q_RETURN_ARG(int, right), Q_ARG(int, 1), Q_ARG(int, 500));
        QCOMPARE(right, 500);
        // Only requests across threads are counted: a direct one is a plain call.
        const quint64 counted = pg->getType() == Propagator::Concurrent ? 500 : 0;
        stats = rig.kernel->channelRows().first().stats;
        QCOMPARE(stats.requests, counted);
        QCOMPARE(stats.answers, counted);
        QCOMPARE(stats.timeouts, quint64(0));
        return;
    }
    if (traffic.isEmpty())
        return;

    rig.send(0, 0, messageCount);
    if (traffic == QLatin1String("lists")) {
        QTRY_COMPARE_WITH_TIMEOUT(received(1).size(), messageCount, 30000);
        QCOMPARE(received(1), numbered(0, messageCount));
    }
    if (!row.counted)
        return;
    // The channel has counted what the consumer got.
    auto counted = [&rig, &stats](quint64 ChannelStats::*field, quint64 plus = 0) {
        return QTest::qWaitFor(
            [&] {
                stats = rig.kernel->channelRows().first().stats;
                return stats.*field + (plus ? stats.dropped : 0) == quint64(messageCount);
            },
            30000);
    };
    // A dropped list is not passed on: lists + dropped is what the producer sent.
    QVERIFY(counted(&ChannelStats::lists, 1));
    QVERIFY2(
        counted(&ChannelStats::deliveries, 1),
        qPrintable(
            QStringLiteral("%1 delivered, %2 dropped").arg(stats.deliveries).arg(stats.dropped)));
    if (traffic == QLatin1String("drop")) {
        // What was not dropped arrived, in order.
        QTRY_COMPARE(quint64(received(1).size()), stats.deliveries);
        int last = -1;
        for (const QVariant &list : received(1)) {
            QVERIFY(list.toList().value(0).toInt() > last);
            last = list.toList().value(0).toInt();
        }
    } else {
        QCOMPARE(stats.dropped, quint64(0));
    }
}

// One row per entry of every kind, named by aliases where the file gives them; the entries work.
void tst_Connections::channelRows()
{
    Rig rig(QStringLiteral("S:0 S:1 E:0 E:1"),
            {"id_0;signal_ImReady(QVariantList);id_1;" + toSlot, "src;out;id_3;in",
             "src;dev;id_3;regs;feedback",
             "id_0;signal_sendOptions(ModuleOptions);id_1;slot_recvOptions(ModuleOptions)",
             "id_0;signal_myStatus(QString);logger", "actid_0,quit;actquit",
             "src;out;id_9;in;limit=3"},
            QStringLiteral("[aliases]\nid_2=src\n"));
    QStringList rows;
    for (const ChannelRow &row : rig.kernel->channelRows())
        rows << QStringList {row.kind,
                             row.source,
                             row.sourceName,
                             row.target,
                             row.targetName,
                             row.options.join(','),
                             row.connected ? "connected" : "not connected",
                             row.counted ? "counted" : "not counted"}
                    .join('|');
    QCOMPARE(rows,
             (QStringList {"signal/slot|id_0|signal_ImReady(QVariantList)|id_1|" + toSlot
                               + "||connected|not counted",
                           "stream|src|out|id_3|in||connected|counted",
                           "feedback|src|dev|id_3|regs||connected|counted",
                           "options|id_0|signal_sendOptions(ModuleOptions)|id_1|slot_recvOptions("
                           "ModuleOptions)||connected|not counted",
                           "logger|id_0|signal_myStatus(QString)|logger|||connected|not counted",
                           "action|id_0|quit|kernel|actquit||connected|not counted",
                           "stream|src|out|id_9|in||not connected|not counted"}));

    // The logger entry: a status is logged as a message under the module's alias ("id_0" when
    // the file names none). Invoking a signal emits it, here in the module's own thread.
    QMetaObject::invokeMethod(rig.module(0), "myStatus", Qt::BlockingQueuedConnection,
                              Q_ARG(QString, "warming up"));
    QTRY_VERIFY(rig.log().contains(QRegularExpression(
        QStringLiteral("^\\(MM\\) .* id_0: +warming up$"), QRegularExpression::MultilineOption)));
}

QTEST_MAIN(tst_Connections)
#include "tst_connections.moc"
