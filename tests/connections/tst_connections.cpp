// End-to-end tests of the connection entries: real module libraries loaded by the kernel from a
// settings file, real worker threads, data counted and ordered at the receiving module.
#include <logger.h>
#include <propagator.h>
#include <threadlauncher.h>
#include <ztkernel.h>
#include <ztmifound.h>

#include <QAction>
#include <QFile>
#include <QMutex>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

namespace {

QMutex linesMutex;
QStringList lines;
QtMessageHandler previousHandler = nullptr;

void collect(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    {
        QMutexLocker guard(&linesMutex);
        lines.append(text);
    }
    if (type != QtDebugMsg && previousHandler)
        previousHandler(type, context, text);
}

QStringList debugLines()
{
    QMutexLocker guard(&linesMutex);
    return lines;
}

bool anyLineContains(const QString &text)
{
    for (const QString &line : debugLines()) {
        if (line.contains(text))
            return true;
    }
    return false;
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

// One application: a settings file in a temporary folder, a kernel that loaded the fixture
// modules from it and made its connections. Destroys the kernel before its parent, which then
// stops the worker threads.
class Rig
{
public:
    explicit Rig(const QString &body, bool initialise = true)
    {
        {
            QMutexLocker guard(&linesMutex);
            lines.clear();
        }
        settingsPath = dir.filePath(QStringLiteral("system.ini"));
        logPath = dir.filePath(QStringLiteral("zt.log"));
        QFile file(settingsPath);
        if (!file.open(QIODevice::WriteOnly))
            qFatal("cannot write the settings file");
        file.write("[mainwindow]\nloggerlevel=6\nloggerfile=" + logPath.toUtf8() + "\n\n"
                   + body.toUtf8());
        file.close();

        kernel = new ZtKernel(&probe);
        kernel->setOptionsFileName(settingsPath);
        kernel->loadModules(QStringLiteral(CONN_MODULES_DIR));
        kernel->makeConnections();
        if (initialise)
            kernel->initModules();
    }
    ~Rig() { delete kernel; }

    QObject *module(int i) const { return kernel->getModule(i).module; }
    QString log() const
    {
        QFile file(logPath);
        file.open(QIODevice::ReadOnly);
        return QString::fromUtf8(file.readAll());
    }

    QTemporaryDir dir;
    QString settingsPath;
    QString logPath;
    QuitProbe probe;
    ZtKernel *kernel = nullptr;
};

Qt::ConnectionType callType(QObject *target)
{
    return target->thread() == QThread::currentThread() ? Qt::DirectConnection
                                                        : Qt::BlockingQueuedConnection;
}

QVariantList received(QObject *module)
{
    QVariantList result;
    QMetaObject::invokeMethod(module, "received", Qt::DirectConnection,
                              Q_RETURN_ARG(QVariantList, result));
    return result;
}

int intCall(QObject *module, const char *method)
{
    int result = -1;
    QMetaObject::invokeMethod(module, method, Qt::DirectConnection, Q_RETURN_ARG(int, result));
    return result;
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

QVariantList numbered(int first, int count, int times)
{
    QVariantList out;
    for (int i = 0; i < count; ++i) {
        for (int t = 0; t < times; ++t)
            out.append(QVariant(QVariantList {first + i}));
    }
    return out;
}

const int messageCount = 3000;

} // namespace

class tst_Connections : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { previousHandler = qInstallMessageHandler(collect); }

    void streamBranches_data();
    void streamBranches();
    void twoSourcesIntoOneTarget();
    void concurrentSourceHoldsConsumerLockInOneThread();
    void feedback_data();
    void feedback();
    void moduleUsesItsPropagatorInInit();
    void failures_data();
    void failures();
    void optionSynchronisers_data();
    void optionSynchronisers();
    void quitActions();
    void cancelQuitAction();
    void startActions();
    void loggerEntries();
};

void tst_Connections::streamBranches_data()
{
    QTest::addColumn<QString>("modules");
    QTest::addColumn<QStringList>("entries");
    QTest::addColumn<QString>("output");
    QTest::addColumn<int>("target");
    QTest::addColumn<int>("times");
    QTest::addColumn<int>("propagators");

    const QString s = QStringLiteral("ConnStream");
    const QString e = QStringLiteral("ConnExt");
    auto mods = [](const QList<QPair<QString, int>> &list) {
        QString text = QStringLiteral("[modules]\n");
        for (int i = 0; i < list.size(); ++i) {
            text += QStringLiteral("id_%1\\.name=%2\n").arg(i).arg(list.at(i).first);
            if (list.at(i).second >= 0)
                text += QStringLiteral("id_%1\\.thread=%2\n").arg(i).arg(list.at(i).second);
        }
        return text;
    };
    const QString toSlot = QStringLiteral("slot_StartProcessing(QVariantList)");

    QTest::newRow("stream->stream, one thread")
        << mods({{s, -1}, {s, -1}})
        << QStringList {"id_0;signal_ImReady(QVariantList);id_1;" + toSlot} << "signal" << 1 << 1
        << 0;
    // With both prefixes an entry is a plain Qt connection: queued across threads.
    QTest::newRow("stream->stream, two threads")
        << mods({{s, 0}, {s, 1}})
        << QStringList {"id_0;signal_ImReady(QVariantList);id_1;" + toSlot} << "signal" << 1 << 1
        << 0;
    QTest::newRow("stream->extended, one thread")
        << mods({{s, 0}, {e, 0}}) << QStringList {"id_0;signal_ImReady(QVariantList);id_1;in"}
        << "signal" << 1 << 1 << 1;
    QTest::newRow("stream->extended, two threads")
        << mods({{s, 0}, {e, 1}}) << QStringList {"id_0;signal_ImReady(QVariantList);id_1;in"}
        << "signal" << 1 << 1 << 2;
    QTest::newRow("extended->stream, one thread")
        << mods({{e, -1}, {s, -1}}) << QStringList {"id_0;out;id_1;" + toSlot} << "out" << 1 << 1
        << 1;
    QTest::newRow("extended->stream, two threads")
        << mods({{e, 0}, {s, 1}}) << QStringList {"id_0;out;id_1;" + toSlot} << "out" << 1 << 1
        << 1;
    QTest::newRow("extended->extended, one thread")
        << mods({{e, 0}, {e, 0}}) << QStringList {"id_0;out;id_1;in"} << "out" << 1 << 1 << 1;
    QTest::newRow("extended->extended, two threads")
        << mods({{e, 0}, {e, 1}}) << QStringList {"id_0;out;id_1;in"} << "out" << 1 << 1 << 1;
    // A concurrent child behind the source's direct propagator delivers each list twice to a
    // stream consumer: once from its own sendList, once relayed. Kept on purpose.
    QTest::newRow("extended->stream behind a direct propagator")
        << mods({{e, 0}, {e, 0}, {s, 1}})
        << QStringList {"id_0;out;id_1;in", "id_0;out;id_2;" + toSlot} << "out" << 2 << 2 << 2;
    QTest::newRow("extended->extended behind a direct propagator")
        << mods({{e, 0}, {e, 0}, {e, 1}}) << QStringList {"id_0;out;id_1;in", "id_0;out;id_2;in"}
        << "out" << 2 << 1 << 2;
    QTest::newRow("aliases in the entry")
        << "[aliases]\nid_0=src\nid_1=dst\n" + mods({{e, 0}, {s, 1}})
        << QStringList {"src;out;dst;" + toSlot} << "out" << 1 << 1 << 1;
}

void tst_Connections::streamBranches()
{
    QFETCH(QString, modules);
    QFETCH(QStringList, entries);
    QFETCH(QString, output);
    QFETCH(int, target);
    QFETCH(int, times);
    QFETCH(int, propagators);

    QString connections = QStringLiteral("[connections]\n");
    for (int i = 0; i < entries.size(); ++i)
        connections
            += QStringLiteral("%1=\"%2\"\n").arg(i + 1, 2, 10, QLatin1Char('0')).arg(entries.at(i));
    Rig rig(modules + connections);

    for (int i = 0; i < entries.size(); ++i)
        QVERIFY2(debugLines().count(QStringLiteral("kernel connected")) == entries.size(),
                 qPrintable(debugLines().join(QLatin1Char('\n'))));
    QCOMPARE(rig.kernel->getPropagators().size(), propagators);

    QObject *source = rig.module(0);
    QObject *consumer = rig.module(target);
    QVERIFY(source && consumer);
    produce(source, output, 0, messageCount);
    QTRY_COMPARE_WITH_TIMEOUT(received(consumer).size(), messageCount * times, 30000);
    QCOMPARE(received(consumer), numbered(0, messageCount, times));
    // Whatever the path, the consumer's code ran in the consumer's own thread.
    QCOMPARE(intCall(consumer, "foreignThreadDeliveries"), 0);
}

void tst_Connections::twoSourcesIntoOneTarget()
{
    Rig rig(QStringLiteral("[modules]\n"
                           "id_0\\.name=ConnExt\nid_0\\.thread=0\n"
                           "id_1\\.name=ConnExt\nid_1\\.thread=1\n"
                           "id_2\\.name=ConnExt\nid_2\\.thread=2\n"
                           "[connections]\n01=\"id_0;out;id_2;in\"\n02=\"id_1;out;id_2;in\"\n"));
    QVERIFY(anyLineContains(QStringLiteral("relay to pgto")));

    QMetaObject::invokeMethod(rig.module(0), "sendNumbered", Qt::QueuedConnection,
                              Q_ARG(QString, "out"), Q_ARG(int, 0), Q_ARG(int, messageCount));
    QMetaObject::invokeMethod(rig.module(1), "sendNumbered", Qt::QueuedConnection,
                              Q_ARG(QString, "out"), Q_ARG(int, 100000), Q_ARG(int, messageCount));
    QTRY_COMPARE_WITH_TIMEOUT(received(rig.module(2)).size(), 2 * messageCount, 30000);

    // Both producers arrive whole, each in its own order, interleaved as they come.
    QVariantList fromFirst, fromSecond;
    for (const QVariant &list : received(rig.module(2))) {
        const int n = list.toList().value(0).toInt();
        (n < 100000 ? fromFirst : fromSecond).append(list);
    }
    QCOMPARE(fromFirst, numbered(0, messageCount, 1));
    QCOMPARE(fromSecond, numbered(100000, messageCount, 1));
}

void tst_Connections::concurrentSourceHoldsConsumerLockInOneThread()
{
    // The first entry gives module 0 a concurrent "out" (its target runs in another thread);
    // the second reuses it for a stream consumer in module 0's own thread, reached directly
    // while the propagator holds the consumer's lock.
    Rig rig(QStringLiteral("[modules]\n"
                           "id_0\\.name=ConnExt\nid_0\\.thread=0\n"
                           "id_1\\.name=ConnExt\nid_1\\.thread=1\n"
                           "id_2\\.name=ConnStream\nid_2\\.thread=0\n"
                           "[connections]\n01=\"id_0;out;id_1;in\"\n"
                           "02=\"id_0;out;id_2;slot_StartProcessing(QVariantList)\"\n"));
    produce(rig.module(0), QStringLiteral("out"), 0, 500);
    QTRY_COMPARE(received(rig.module(2)).size(), 500);
    QCOMPARE(intCall(rig.module(2), "lockedDeliveries"), 500);
    QTRY_COMPARE(received(rig.module(1)).size(), 500);
    QCOMPARE(received(rig.module(1)), numbered(0, 500, 1));
}

void tst_Connections::feedback_data()
{
    QTest::addColumn<int>("requesterThread");
    QTest::addColumn<int>("serverThread");
    QTest::addColumn<int>("type");

    QTest::newRow("one worker thread") << 0 << 0 << int(Propagator::Direct);
    QTest::newRow("two worker threads") << 0 << 1 << int(Propagator::Concurrent);
    QTest::newRow("requester in the GUI thread") << -1 << 1 << int(Propagator::Concurrent);
    QTest::newRow("both in the GUI thread") << -1 << -1 << int(Propagator::Direct);
}

void tst_Connections::feedback()
{
    QFETCH(int, requesterThread);
    QFETCH(int, serverThread);
    QFETCH(int, type);

    QString body = QStringLiteral("[modules]\nid_0\\.name=ConnExt\nid_1\\.name=ConnExt\n");
    if (requesterThread >= 0)
        body += QStringLiteral("id_0\\.thread=%1\n").arg(requesterThread);
    if (serverThread >= 0)
        body += QStringLiteral("id_1\\.thread=%1\n").arg(serverThread);
    body += QStringLiteral("[connections]\n01=\"id_0;dev;id_1;regs;feedback\"\n");
    Rig rig(body);

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
    Rig rig(QStringLiteral("[modules]\n"
                           "id_0\\.name=ConnExt\nid_0\\.thread=0\n"
                           "id_1\\.name=ConnExt\nid_1\\.thread=1\nid_1\\sendoninit=3\n"
                           "[connections]\n01=\"id_1;out;id_0;in\"\n"));
    QTRY_COMPARE(received(rig.module(0)).size(), 3);
    QCOMPARE(received(rig.module(0)),
             (QVariantList {QVariant(QVariantList {-1}), QVariant(QVariantList {-2}),
                            QVariant(QVariantList {-3})}));
}

void tst_Connections::failures_data()
{
    QTest::addColumn<QString>("modules");
    QTest::addColumn<QString>("entry");
    QTest::addColumn<QStringList>("expected");
    QTest::addColumn<QStringList>("absent");
    QTest::addColumn<int>("propagators");

    const QString twoStreams = QStringLiteral("id_0\\.name=ConnStream\nid_1\\.name=ConnStream\n");
    const QString twoStreamsApart = QStringLiteral("id_0\\.name=ConnStream\nid_0\\.thread=0\n"
                                                   "id_1\\.name=ConnStream\nid_1\\.thread=1\n");
    const QString streamAndExt = QStringLiteral("id_0\\.name=ConnStream\nid_1\\.name=ConnExt\n");
    const QString twoExts = QStringLiteral("id_0\\.name=ConnExt\nid_1\\.name=ConnExt\n");

    QTest::newRow("signal link to a missing module")
        << twoStreams << "id_0;signal_out(QVariantList);id_9;slot_in(QVariantList)"
        << QStringList {"kernel not connect"} << QStringList {"is NULL"} << 0;
    QTest::newRow("propagator link to a missing module")
        << twoStreams << "id_0;out;id_9;in"
        << QStringList {"module with id 9 is NULL", "kernel not connect"} << QStringList() << 0;
    QTest::newRow("stream slot without prefix across threads")
        << twoStreamsApart << "id_0;signal_a(QVariantList);id_1;b"
        << QStringList {"unknown identifer", "kernel not connect"} << QStringList() << 1;
    QTest::newRow("stream to extended as feedback")
        << streamAndExt << "id_0;signal_ImReady(QVariantList);id_1;in;feedback"
        << QStringList {"error connect stream to feedback with feedback options 1"} << QStringList()
        << 0;
    QTest::newRow("extended to stream as feedback")
        << streamAndExt << "id_1;out;id_0;slot_StartProcessing(QVariantList);feedback"
        << QStringList {"error connect feedback to stream with feedback options 1"} << QStringList()
        << 0;
    QTest::newRow("undeclared propagator name")
        << twoExts << "id_0;nothere;id_1;in"
        << QStringList {"can't set propagator to module with id 0", "kernel not connect"}
        << QStringList() << 1;
    QTest::newRow("unknown facility")
        << twoStreams << "id_0;signal_ImReady(QVariantList);foo;x"
        << QStringList {"unknown identifer foo"} << QStringList() << 0;
    QTest::newRow("synchroniser with seven fields")
        << twoStreams
        << "id_0;signal_sendOptions(ModuleOptions);id_1;slot_recvOptions(ModuleOptions);a;b;c"
        << QStringList {"invalid arguments"} << QStringList {"kernel connected"} << 0;
    QTest::newRow("unknown action keyword")
        << twoStreams << "actid_0,go;actfoo"
        << QStringList {"actions not connected, unknown identifer"} << QStringList() << 0;
    QTest::newRow("action of a missing module")
        << twoStreams << "actid_7,go;actquit"
        << QStringList {"Error, try connect to undefined module"} << QStringList() << 0;
    QTest::newRow("missing action")
        << twoStreams << "actid_0,nothere;actquit" << QStringList {"kernel actions not connected"}
        << QStringList() << 0;
    QTest::newRow("start action without receiver")
        << twoStreams << "actid_0,go;actstart"
        << QStringList {"actions not connected, receiver not defined"} << QStringList() << 0;
    QTest::newRow("start action to a facility")
        << twoStreams << "actid_0,go;actstart;logger;slot_start()"
        << QStringList {"actions not connected, not implemented yet"} << QStringList() << 0;
    QTest::newRow("state signal to the logger again")
        << twoStreams << "id_0;signal_state(QString,Logger::Level);logger"
        << QStringList {"not connect, obsoleted"} << QStringList() << 0;
}

void tst_Connections::failures()
{
    QFETCH(QString, modules);
    QFETCH(QString, entry);
    QFETCH(QStringList, expected);
    QFETCH(QStringList, absent);
    QFETCH(int, propagators);

    Rig rig(QStringLiteral("[modules]\n") + modules + QStringLiteral("[connections]\n01=\"") + entry
            + QStringLiteral("\"\n"));
    const QString all = debugLines().join(QLatin1Char('\n'));
    for (const QString &text : expected)
        QVERIFY2(all.contains(text), qPrintable(text + QStringLiteral(" not in:\n") + all));
    for (const QString &text : absent)
        QVERIFY2(!all.contains(text), qPrintable(text + QStringLiteral(" in:\n") + all));
    QCOMPARE(rig.kernel->getPropagators().size(), propagators);
    if (propagators == 1 && rig.module(1)->thread() != rig.module(0)->thread()) {
        // The propagator made before the failure stays, holding the target's lock.
        auto *target = qobject_cast<ZtMIFound *>(rig.module(1));
        QCOMPARE(rig.kernel->getPropagators().first()->getLockers(),
                 QList<ModLocker *> {target->getLocker()});
    }
}

void tst_Connections::optionSynchronisers_data()
{
    QTest::addColumn<QString>("extra");
    QTest::addColumn<int>("syncs");
    QTest::addColumn<int>("gain");
    QTest::addColumn<int>("offset");
    QTest::addColumn<int>("scale");

    QTest::newRow("everything") << QString() << 1 << 5 << 7 << 9;
    QTest::newRow("same names") << QStringLiteral(";gain,offset") << 1 << 5 << 7 << 1;
    QTest::newRow("other names") << QStringLiteral(";gain,offset;scale,gain") << 1 << 7 << 0 << 5;
}

void tst_Connections::optionSynchronisers()
{
    QFETCH(QString, extra);
    QFETCH(int, syncs);
    QFETCH(int, gain);
    QFETCH(int, offset);
    QFETCH(int, scale);

    Rig rig(QStringLiteral("[modules]\n"
                           "id_0\\.name=ConnStream\nid_0\\.thread=0\n"
                           "id_0\\gain=5\nid_0\\offset=7\nid_0\\scale=9\n"
                           "id_1\\.name=ConnStream\nid_1\\.thread=1\n"
                           "[connections]\n01=\"id_0;signal_sendOptions(ModuleOptions);id_1;"
                           "slot_recvOptions(ModuleOptions)")
            + extra + QStringLiteral("\"\n"));
    QCOMPARE(rig.kernel->getOptiSyncs().size(), syncs);

    // initModules made module 0 announce its options; they travel to module 1's thread.
    auto *target = qobject_cast<ZtMIFound *>(rig.module(1));
    auto option = [target](const char *name) {
        int value = -1;
        QMetaObject::invokeMethod(
            target, [&] { value = target->getOption(QString::fromLatin1(name)).toInt(); },
            Qt::BlockingQueuedConnection);
        return value;
    };
    QTRY_COMPARE(option("gain"), gain);
    QTRY_COMPARE(option("offset"), offset);
    QTRY_COMPARE(option("scale"), scale);
}

void tst_Connections::quitActions()
{
    Rig rig(QStringLiteral("[modules]\nid_0\\.name=ConnStream\nid_1\\.name=ConnStream\n"
                           "[connections]\n01=\"actid_0,quit;actquit\"\n"
                           "02=\"actid_1,quit;actquit\"\n"));
    auto action = [&rig](int id) {
        return qobject_cast<ZtMIFound *>(rig.module(id))->getActions()->value("quit");
    };
    action(0)->trigger();
    QTest::qWait(300);
    QCOMPARE(rig.probe.quits, 0); // one of two requesters asked: nothing happens
    action(1)->trigger();
    QTRY_COMPARE(rig.probe.quits, 1);
}

void tst_Connections::cancelQuitAction()
{
    Rig rig(QStringLiteral("[modules]\nid_0\\.name=ConnStream\n"
                           "[connections]\n01=\"actid_0,quit;actquit\"\n"
                           "02=\"actid_0,stay;actcancelquit\"\n"));
    auto *module = qobject_cast<ZtMIFound *>(rig.module(0));
    module->getActions()->value("quit")->trigger();
    module->getActions()->value("stay")->trigger(); // within the 100 ms: for good
    QTest::qWait(400);
    QCOMPARE(rig.probe.quits, 0);
    module->getActions()->value("quit")->trigger();
    QTest::qWait(300);
    QCOMPARE(rig.probe.quits, 0);
}

void tst_Connections::startActions()
{
    Rig rig(QStringLiteral("[aliases]\nid_0=panel\n"
                           "[modules]\nid_0\\.name=ConnStream\n"
                           "id_1\\.name=ConnStream\nid_1\\.thread=1\n"
                           "[connections]\n01=\"act:panel,go;actstart;id_1;slot_start()\"\n"
                           "02=\"actid_0,list;actstart;id_1;slot_startList(QVariantList)\"\n"
                           "03=\"actid_0,bytes;actstart;id_1;slot_startBytes(QByteArray)\"\n"));
    QObject *target = rig.module(1);
    auto starts = [target] {
        QStringList result;
        QMetaObject::invokeMethod(target, "starts", Qt::DirectConnection,
                                  Q_RETURN_ARG(QStringList, result));
        result.sort();
        return result;
    };
    // Once at start-up, each through the actStart signal of its own parameters.
    QTRY_COMPARE(starts(), (QStringList {"start()", "startBytes(0)", "startList(0)"}));

    auto *panel = qobject_cast<ZtMIFound *>(rig.module(0));
    panel->getActions()->value("go")->trigger();
    QTRY_COMPARE(starts().count("start()"), 2);
    panel->getActions()->value("list")->trigger();
    QTRY_COMPARE(starts().count("startList(0)"), 2);
    QCOMPARE(starts().size(), 5); // a trigger starts only its own target slot
}

void tst_Connections::loggerEntries()
{
    Rig rig(QStringLiteral("[modules]\nid_0\\.name=ConnStream\nid_0\\.thread=0\n"
                           "[connections]\n01=\"id_0;signal_myStatus(QString);logger\"\n"));
    QVERIFY(debugLines().contains(QStringLiteral("kernel connected")));
    QMetaObject::invokeMethod(rig.module(0), "status", Qt::BlockingQueuedConnection,
                              Q_ARG(QString, "warming up"));
    // The settings give every module an ".alias" ("id_0" when the file names none).
    QTRY_VERIFY(rig.log().contains(QStringLiteral(" id_0:    warming up\n")));
    QVERIFY(rig.log().contains(QStringLiteral("(MM) ")));
}

QTEST_MAIN(tst_Connections)
#include "tst_connections.moc"
