#include "netclient.h"
#include "hostedzthost.h"
#include "netenvelope.h"

#include <propagatorfeedbackconcurrent.h>
#include <ztdataconverter.h>

#include <QColor>
#include <QDateTime>
#include <QPen>
#include <QPointF>
#include <QThread>
#include <QProcess>
#include <QRegularExpression>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QtTest>

#include <zmq.hpp>

#include <cstring>
#include <limits>
#include <memory>
#include <thread>

namespace {

// zthost in the folder `name` of `dir`, on a settings file written there, with the module folder.
class Host : public HostedZtHost
{
public:
    Host(const QString &dir, const QString &modules, const QString &name, const QString &ini,
         int quitAfter)
        : HostedZtHost(
            dir + "/" + name,
            {writeIni(dir + "/" + name, ini), modules, "--quit-after", QString::number(quitAfter)})
    { }
    // True when zthost quit by itself with exit code 0.
    bool finish() { return HostedZtHost::finish().ok(); }

private:
    static QString writeIni(const QString &dir, const QString &ini)
    {
        QDir().mkpath(dir);
        QFile file(dir + "/system.ini");
        file.open(QIODevice::WriteOnly);
        file.write("[mainwindow]\nloggerfile=zthost.log\nloggerlevel=5\n" + ini.toUtf8());
        return file.fileName();
    }
};

int freePort()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    return probe.serverPort();
}

QString publisherIni(int port, const QString &count)
{
    return QString("[modules]\n"
                   "id_0\\.name=NetCount\nid_0\\.thread=0\n%2\n"
                   "id_1\\.name=NetPublisher\nid_1\\.thread=1\n"
                   "id_1\\endpoint=tcp://127.0.0.1:%1\nid_1\\topic=adc\nid_1\\hwm=0\n"
                   "[connections]\n01=\"id_0;signal_ImReady(QVariantList);id_1;in\"\n")
        .arg(port)
        .arg(count);
}

QString subscriberIni(int port)
{
    return QString("[modules]\n"
                   "id_0\\.name=NetSubscriber\nid_0\\.thread=0\n"
                   "id_0\\endpoint=tcp://127.0.0.1:%1\nid_0\\topic=adc\nid_0\\hwm=0\n"
                   "id_1\\.name=NetCheck\nid_1\\.thread=1\n"
                   "[connections]\n01=\"id_0;out;id_1;slot_StartProcessing(QVariantList)\"\n")
        .arg(port);
}

qint64 sumOf(const QString &text, const QString &pattern)
{
    qint64 sum = 0;
    auto it = QRegularExpression(pattern).globalMatch(text);
    while (it.hasNext())
        sum += it.next().captured(1).toLongLong();
    return sum;
}

} // namespace

// The network modules between real zthost processes on 127.0.0.1, and the wire form they share
// with programs in other languages.
class tst_Net : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void payloadRoundTrip_data();
    void payloadRoundTrip();
    void refusesUnknownType_data();
    void refusesUnknownType();
    void skipsUnknownKeys();
    void refusesMalformed_data();
    void refusesMalformed();
    void streamAcrossProcesses();
    void publisherRestart();
    void requestsAcrossProcesses();
    void lateAnswerDropped();
    void badEndpoints();
    void pythonSubscriber();
    void reusedBuffers_data();
    void reusedBuffers();

private:
    QTemporaryDir work;
    QString modules;
};

void tst_Net::initTestCase()
{
    ZtDataConverter::registerVectorTypes(); // sample vectors compare by their samples
    // One folder with the shipped, example and fixture libraries, as zthost takes one.
    modules = work.filePath("modules");
    QDir().mkpath(modules);
    for (const QString &from : {QString(NET_MODULES_DIR), QString(NET_FIXTURES_DIR)}) {
        for (const QFileInfo &lib : QDir(from).entryInfoList({"*.dll"}, QDir::Files))
            QVERIFY(QFile::link(lib.absoluteFilePath(), modules + "/" + lib.fileName()));
    }
    for (const char *lib :
         {"netpublisher.dll", "netsubscriber.dll", "netserver.dll", "netclient.dll", "netcount.dll",
          "netcheck.dll", "poller.dll", "registerdevice.dll"})
        QVERIFY2(QFile::exists(modules + "/" + lib), lib);
}

void tst_Net::payloadRoundTrip_data()
{
    QTest::addColumn<QVariantList>("list");
    QTest::newRow("numbers") << QVariantList {0, -7, qint64(1) << 40, 2.5, -0.0, true, 3u};
    QTest::newRow("text and bytes")
        << QVariantList {QString("Größe"), QString(), QByteArray("\0\xff", 2), QByteArray()};
    QTest::newRow("nested") << QVariantList {QVariantList {1, QVariantList {2.5, "x"}}, 3};
    QTest::newRow("date-time") << QVariantList {
        QDateTime(QDate(2026, 11, 25), QTime(13, 5, 7, 250), Qt::UTC),
        QDateTime(QDate(1999, 1, 1), QTime(0, 0), Qt::OffsetFromUTC, 3600)};
    QTest::newRow("pens") << QVariantList {QPen(QColor(200, 60, 40), 2.0),
                                           QPen(QColor(1, 2, 3, 4), 0.5, Qt::DotLine)};
    QTest::newRow("terminators") << QVariantList {1, QVariant(), 2, QVariant()};
    QTest::newRow("sample vectors")
        << QVariantList {QVariant::fromValue(QVector<double> {1.5, -2, 1e300}),
                         QVariant::fromValue(QVector<qint16> {-32768, 7}),
                         QVariant::fromValue(QVector<qint64> {qint64(1) << 62}),
                         QVariant::fromValue(QVector<qint8> {-1})};
}

void tst_Net::payloadRoundTrip()
{
    QFETCH(QVariantList, list);
    NetWire::Envelope sent;
    sent.id = NetWire::randomId();
    sent.seq = 41;
    sent.topic = "adc";
    sent.list = list;
    QString error;
    const QByteArray bytes = NetWire::encode(sent, &error);
    QVERIFY2(!bytes.isEmpty(), qPrintable(error));
    NetWire::Envelope got;
    QVERIFY2(NetWire::decode(bytes, &got, &error), qPrintable(error));
    QCOMPARE(got.kind, int(NetWire::Data));
    QCOMPARE(got.id, sent.id);
    QCOMPARE(got.seq, qint64(41));
    QCOMPARE(got.topic, QString("adc"));
    QVERIFY(got.isList);
    const QVariantList &back = got.list;
    QCOMPARE(back.size(), list.size());
    for (int i = 0; i < list.size(); ++i) {
        QVERIFY2(back.at(i) == list.at(i) && back.at(i).isValid() == list.at(i).isValid(),
                 qPrintable(QString("entry %1: %2").arg(i).arg(back.at(i).typeName())));
        // Attributes keep their type, so that convListToArray reads them as attributes.
        if (list.at(i).userType() != QMetaType::UInt && list.at(i).userType() != QMetaType::Bool
            && list.at(i).userType() != QMetaType::LongLong)
            QCOMPARE(back.at(i).userType(), list.at(i).userType());
    }
}

void tst_Net::refusesUnknownType_data()
{
    QTest::addColumn<QVariantList>("list");
    QTest::addColumn<QString>("type");
    QTest::newRow("colour") << QVariantList {1, QColor(Qt::red)} << "QColor";
    QTest::newRow("point inside a nested list")
        << QVariantList {QVariantList {QPointF(1, 2)}} << "QPointF";
}

void tst_Net::refusesUnknownType()
{
    QFETCH(QVariantList, list);
    QFETCH(QString, type);
    NetWire::Envelope e;
    e.list = list;
    QString error;
    QVERIFY(NetWire::encode(e, &error).isEmpty()); // nothing half-written
    QVERIFY2(error.contains(type), qPrintable(error));
}

void tst_Net::refusesMalformed_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::newRow("empty") << QByteArray();
    QTest::newRow("not a map") << QByteArray::fromHex("83010203");
    QTest::newRow("map without kind") << QByteArray::fromHex("a1626964"
                                                             "01");
    QTest::newRow("cut inside the list")
        << QByteArray::fromHex("a2616b00646461746183010203").left(11);
    QTest::newRow("unknown tag") << QByteArray::fromHex("a2616b00646461746181d9ffff01");
}

void tst_Net::skipsUnknownKeys()
{
    // {"k": 0, "x": {"a": [1, 2.5], "b": h'00'}, "seq": 3, "topic": "t", "data": [1]}: a newer
    // sender's key, whatever its value, is read past.
    const QByteArray bytes = QByteArray::fromHex(
        "a5616b006178a261618201fb400400000000000061624100637365710365746f706963617464646174618101");
    NetWire::Envelope e;
    QString error;
    QVERIFY2(NetWire::decode(bytes, &e, &error), qPrintable(error));
    QCOMPARE(e.seq, qint64(3));
    QCOMPARE(e.topic, QString("t"));
    QCOMPARE(e.list, QVariantList {1});
}

void tst_Net::refusesMalformed()
{
    // What reaches a socket may come from anything; it is refused, never read half.
    QFETCH(QByteArray, bytes);
    NetWire::Envelope e;
    QString error;
    QVERIFY(!NetWire::decode(bytes, &e, &error));
    QVERIFY(!error.isEmpty());
}

void tst_Net::streamAcrossProcesses()
{
    // A subscriber that keeps up: no high-water mark, the source paced at 100 lists per 2 ms.
    const int port = freePort();
    Host sub(work.path(), modules, "stream-sub", subscriberIni(port), 120);
    QVERIFY2(sub.waitFor("subscribed to").hasMatch(), qPrintable(sub.output()));
    Host pub(work.path(), modules, "stream-pub",
             publisherIni(port, "id_0\\count=100000\nid_0\\chunk=100\nid_0\\period=2"), 120);
    const auto done = sub.waitFor("received (\\d+) lists, (\\d+) out of order, last 99999");
    QVERIFY2(done.hasMatch(), qPrintable(sub.output().right(3000) + pub.output().right(2000)));
    QVERIFY2(pub.waitFor("publishing on tcp://127.0.0.1:\\d+ topic adc").hasMatch(),
             qPrintable(pub.output()));
    const qint64 lost
        = sumOf(sub.output(), "lost (\\d+) lists from tcp://127.0.0.1:\\d+ topic adc");
    QCOMPARE(done.captured(1).toLongLong() + lost, qint64(100000));
    QCOMPARE(lost, qint64(0));
    QCOMPARE(done.captured(2), QString("0"));
    QVERIFY(sub.output().contains("run from 0"));
}

void tst_Net::publisherRestart()
{
    const int port = freePort();
    Host sub(work.path(), modules, "restart-sub", subscriberIni(port), 120);
    QVERIFY(sub.waitFor("subscribed to").hasMatch());
    auto first = std::make_unique<Host>(
        work.path(), modules, "restart-pub1",
        publisherIni(port, "id_0\\count=10000000\nid_0\\chunk=10\nid_0\\period=10"), 120);
    QVERIFY2(sub.waitFor("received \\d{3,} lists").hasMatch(), qPrintable(sub.output()));
    first->kill();
    QVERIFY2(sub.waitFor("publisher at tcp://127.0.0.1:\\d+ went away").hasMatch(),
             qPrintable(sub.output()));
    const int mark = sub.output().size();

    // The new run counts from 0 again; only its id tells the subscriber it is a new publisher.
    Host second(work.path(), modules, "restart-pub2",
                publisherIni(port, "id_0\\count=2000\nid_0\\chunk=10\nid_0\\period=5"), 120);
    QVERIFY2(sub.waitFor("publisher of tcp://127.0.0.1:\\d+ topic adc restarted", 60000, mark)
                 .hasMatch(),
             qPrintable(sub.output().mid(mark)));
    QVERIFY2(sub.waitFor("publisher at tcp://127.0.0.1:\\d+ is back", 60000, mark).hasMatch(),
             qPrintable(sub.output().mid(mark)));
    QVERIFY2(sub.waitFor("run from \\d+", 60000, mark).hasMatch(), qPrintable(sub.output()));
    QVERIFY2(sub.waitFor("received \\d+ lists, 0 out of order, last 1999", 60000, mark).hasMatch(),
             qPrintable(sub.output().mid(mark)));
    // Said once each.
    QCOMPARE(sub.output().count(QRegularExpression("went away")), 1);
    QCOMPARE(sub.output().count(QRegularExpression("is back")), 1);
}

void tst_Net::requestsAcrossProcesses()
{
    const int port = freePort();
    const QString serverIni = QString("[modules]\n"
                                      "device\\.name=RegisterDevice\ndevice\\.thread=0\n"
                                      "server\\.name=NetServer\nserver\\.thread=1\n"
                                      "server\\endpoint=tcp://127.0.0.1:%1\nserver\\timeout=500\n"
                                      "[aliases]\nid_0=device\nid_1=server\n"
                                      "[connections]\n01=\"server;local;device;regs;feedback\"\n")
                                  .arg(port);
    const QString clientIni
        = QString("[modules]\n"
                  "poller\\.name=Poller\npoller\\.thread=0\npoller\\interval=40\n"
                  "client\\.name=NetClient\nclient\\.thread=1\n"
                  "client\\endpoint=tcp://127.0.0.1:%1\nclient\\timeout=300\n"
                  "[aliases]\nid_0=poller\nid_1=client\n"
                  "[connections]\n01=\"poller;dev;client;remote;feedback\"\n"
                  "02=\"act:poller,poll;actstart;poller;slot_start()\"\n")
              .arg(port);
    auto server = std::make_unique<Host>(work.path(), modules, "rr-server1", serverIni, 120);
    QVERIFY2(server->waitFor("serving on").hasMatch(), qPrintable(server->output()));
    Host client(work.path(), modules, "rr-client", clientIni, 120);

    // The write reaches the remote device and its count comes back; reads bring the registers,
    // a sine of amplitude 1000 around 2048.
    QVERIFY2(client.waitFor("setpoint 1000 written, device answered 1").hasMatch(),
             qPrintable(client.output() + server->output()));
    QVERIFY(server->waitFor("device: wrote 1 registers at 0, first 1000").hasMatch());
    auto read = client.waitFor("received registers 0\\.\\.1: (\\d+), (\\d+)");
    QVERIFY2(read.hasMatch(), qPrintable(client.output().right(3000)));
    for (int i : {1, 2})
        QVERIFY(qAbs(read.captured(i).toInt() - 2048) <= 1001);

    // Server gone: requests fail within the time-out, the client says so once.
    server->kill();
    int mark = client.output().size();
    QVERIFY2(client
                 .waitFor("list read request \\d+ to tcp://127.0.0.1:\\d+ not answered within "
                          "300 ms: failed",
                          60000, mark)
                 .hasMatch(),
             qPrintable(client.output().mid(mark)));
    QVERIFY(client.waitFor("server at tcp://127.0.0.1:\\d+ went away", 60000, mark).hasMatch());

    // Back: answers again.
    server = std::make_unique<Host>(work.path(), modules, "rr-server2", serverIni, 120);
    QVERIFY2(client.waitFor("server at tcp://127.0.0.1:\\d+ is back", 60000, mark).hasMatch(),
             qPrintable(client.output().mid(mark)));
    mark = client.output().size();
    QVERIFY2(client.waitFor("received registers 0\\.\\.1: \\d+, \\d+", 60000, mark).hasMatch(),
             qPrintable(client.output().mid(mark)));
    QCOMPARE(client.output().count("went away"), 1);
}

void tst_Net::lateAnswerDropped()
{
    // A hand-made server that answers the first request after the client's time-out (1 s), and
    // the second at once: the second requester must get its own answer, not the first one's.
    // The second request goes out when the first times out; the server, still asleep, takes it
    // 0.5 s later, half its time-out.
    const int port = freePort();
    zmq::context_t context(1);
    zmq::socket_t router(context, ZMQ_ROUTER);
    router.set(zmq::sockopt::linger, 0);
    router.set(zmq::sockopt::rcvtimeo, 20000);
    router.bind(QString("tcp://127.0.0.1:%1").arg(port).toStdString());
    std::thread server([&router] {
        for (int k = 0; k < 2; ++k) {
            zmq::message_t identity, body;
            if (!router.recv(identity) || !router.recv(body))
                return;
            NetWire::Envelope e;
            QString error;
            NetWire::decode(QByteArray(body.data<char>(), int(body.size())), &e, &error);
            if (k == 0)
                std::this_thread::sleep_for(std::chrono::milliseconds(1500));
            e.kind = NetWire::Answer;
            e.list = {k == 0 ? 111 : 222};
            const QByteArray bytes = NetWire::encode(e, &error);
            router.send(identity, zmq::send_flags::sndmore);
            router.send(zmq::buffer(bytes.constData(), size_t(bytes.size())));
        }
    });

    QThread worker;
    worker.start();
    auto *client = new NetClient(0);
    client->setup();
    client->setOption("endpoint", QString("tcp://127.0.0.1:%1").arg(port));
    client->setOption("timeout", 1000);
    auto *remote = new PropagatorFeedbackConcurrent;
    client->setPropagator("remote", remote, true);
    client->moveToThread(&worker);
    remote->moveToThread(&worker);
    bool ok = false;
    QMetaObject::invokeMethod(client, "init", Qt::BlockingQueuedConnection, Q_RETURN_ARG(bool, ok));
    QVERIFY(ok);

    const QVariantList first = remote->readList(1);
    // The late answer comes in while the second request waits.
    const QVariantList second = remote->readList(2);
    QVariantMap counts;
    QMetaObject::invokeMethod(client, "netCounters", Qt::DirectConnection,
                              Q_RETURN_ARG(QVariantMap, counts));
    QMetaObject::invokeMethod(client, "final", Qt::BlockingQueuedConnection);
    QMetaObject::invokeMethod(
        client,
        [client, remote] {
            delete client;
            delete remote;
        },
        Qt::BlockingQueuedConnection);
    worker.quit();
    worker.wait();
    server.join();

    QCOMPARE(first, QVariantList());
    QCOMPARE(second, QVariantList {222});
    QCOMPARE(counts.value("timeouts").toInt(), 1);
    QCOMPARE(counts.value("late").toInt(), 1);
}

void tst_Net::badEndpoints()
{
    // One module per failure, and one good publisher beside them that must still run.
    const int port = freePort();
    const QString ini
        = QString("[modules]\n"
                  "id_0\\.name=NetPublisher\nid_0\\.thread=0\nid_0\\endpoint=tcp://127.0.0.1:%1\n"
                  "id_1\\.name=NetPublisher\nid_1\\.thread=1\nid_1\\endpoint=tcp://127.0.0.1:%1\n"
                  "id_2\\.name=NetSubscriber\nid_2\\.thread=2\nid_2\\endpoint=tcp:/nowhere\n"
                  "id_3\\.name=NetClient\nid_3\\.thread=3\nid_3\\endpoint=carrier-pigeon://x\n"
                  "id_4\\.name=NetServer\nid_4\\.thread=4\nid_4\\endpoint=tcp://127.0.0.1:%2\n")
              .arg(port)
              .arg(port == 65535 ? 1 : port + 1);
    Host host(work.path(), modules, "bad", ini, 1);
    QVERIFY2(host.finish(), qPrintable(host.output()));
    const QString out = host.output();
    QVERIFY2(out.contains(QRegularExpression("publishing on tcp://127.0.0.1:\\d+ topic data")),
             qPrintable(out));
    QVERIFY2(out.contains(QRegularExpression(
                 "cannot publish on tcp://127.0.0.1:\\d+: Address already in use")),
             qPrintable(out));
    QVERIFY2(out.contains("cannot subscribe to tcp:/nowhere: "), qPrintable(out));
    QVERIFY2(out.contains("cannot reach carrier-pigeon://x: "), qPrintable(out));
    QVERIFY2(out.contains("serving on tcp://127.0.0.1:"), qPrintable(out));
}

void tst_Net::pythonSubscriber()
{
    if (QString(NET_PYTHON).isEmpty())
        QSKIP("no python3 found");
    const int port = freePort();
    QProcess python;
    python.setProcessChannelMode(QProcess::MergedChannels);
    python.start(NET_PYTHON,
                 {NET_PY_SUBSCRIBER, QString("tcp://127.0.0.1:%1").arg(port), "adc", "3"});
    QVERIFY(python.waitForStarted());
    QString out;
    while (!out.contains("ready") && python.state() == QProcess::Running) {
        python.waitForReadyRead(1000);
        out += QString::fromUtf8(python.readAll());
    }
    python.waitForFinished(1000);
    out += QString::fromUtf8(python.readAll());
    if (python.state() == QProcess::NotRunning && python.exitCode() == 77)
        QSKIP(qPrintable("python3-zmq or python3-cbor2 is absent (scripts/setup installs them): "
                         + out.trimmed()));
    QVERIFY2(out.contains("ready"), qPrintable(out));

    Host pub(work.path(), modules, "python-pub",
             publisherIni(port, "id_0\\count=3\nid_0\\chunk=1\nid_0\\period=20\nid_0\\rich=true"),
             60);
    const bool ended = python.waitForFinished(60000);
    out += QString::fromUtf8(python.readAll());
    QVERIFY2(ended, qPrintable(out));
    QCOMPARE(python.exitCode(), 0);
    for (int n : {0, 1, 2}) {
        const QString line
            = QString("seq %1 id [0-9a-f]+ \\[int:%1,double:%2,text:list %1,"
                      "datetime:2026-01-02T03:04:05.600000\\+00:00,pen:#ff00ff00/2.5/2,"
                      "bytes:0102,\\[int:%1,int:%3\\]\\]")
                  .arg(n)
                  .arg(QString::number(n / 2.0))
                  .arg(-n);
        QVERIFY2(out.contains(QRegularExpression(line)), qPrintable(out + "\n" + line));
    }
}

void tst_Net::reusedBuffers_data()
{
    // A sender encodes into one buffer and a receiver decodes into one envelope, message after
    // message: the second message must come out as if nothing came before it.
    QTest::addColumn<QVariantList>("before");
    QTest::addColumn<QVariantList>("after");
    QTest::addColumn<int>("cut"); // bytes missing at the end of the second message
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    QTest::newRow("fewer doubles")
        << QVariantList {1.0, 2.0, 3.0, 4.0, 5.0} << QVariantList {1.5, -2.5} << 0;
    QTest::newRow("more doubles") << QVariantList {1.0} << QVariantList {1.5, 2.5, 3.5, 1e-300}
                                  << 0;
    QTest::newRow("doubles over other types")
        << QVariantList {QString("text"), 7, QVariantList {1}, QByteArray("b"), QVariant()}
        << QVariantList {1.5, -2.0, 3.25, 4.0, 0.5} << 0;
    QTest::newRow("other types over doubles")
        << QVariantList {1.5, 2.5, 3.5, 4.5, 5.5}
        << QVariantList {QString("x"), 2, qint64(1) << 40, true, QVariantList {2.5}} << 0;
    QTest::newRow("integers stay integers") << QVariantList {1.5, 2.5} << QVariantList {1, -2} << 0;
    QTest::newRow("non-finite doubles")
        << QVariantList {0.0, 0.0, 0.0, 0.0} << QVariantList {nan, inf, -inf, -0.0} << 0;
    QTest::newRow("cut in a double")
        << QVariantList {1.0, 2.0, 3.0} << QVariantList {4.0, 5.0, 6.0} << 4;
    QTest::newRow("cut after the array head")
        << QVariantList {1.0, 2.0} << QVariantList {QString("x"), 2.0} << 11;
}

void tst_Net::reusedBuffers()
{
    QFETCH(QVariantList, before);
    QFETCH(QVariantList, after);
    QFETCH(int, cut);
    NetWire::Envelope e;
    e.topic = "adc";
    QString error;
    QByteArray buffer;
    QVERIFY2(NetWire::encode(e, &buffer, &error), qPrintable(error));
    e.list = before;
    QVERIFY2(NetWire::encode(e, &buffer, &error), qPrintable(error));
    const QByteArray first = buffer;
    e.list = after;
    e.seq = 1;
    QVERIFY2(NetWire::encode(e, &buffer, &error), qPrintable(error));
    QCOMPARE(buffer, NetWire::encode(e, &error));
    const QByteArray second = buffer;

    // Same values, same types; doubles by their bits, so that NaN and -0 count.
    auto same = [](const QVariantList &a, const QVariantList &b) {
        if (a.size() != b.size())
            return false;
        for (int i = 0; i < a.size(); ++i) {
            if (a.at(i).userType() != b.at(i).userType())
                return false;
            if (a.at(i).userType() == QMetaType::Double) {
                const double x = a.at(i).toDouble(), y = b.at(i).toDouble();
                if (std::memcmp(&x, &y, sizeof x) != 0)
                    return false;
            } else if (a.at(i) != b.at(i)) {
                return false;
            }
        }
        return true;
    };
    // Once with the first list let go, once with a receiver still holding it (that copy must
    // not change under it).
    for (bool held : {false, true}) {
        NetWire::Envelope got;
        QVERIFY2(NetWire::decode(first, &got, &error), qPrintable(error));
        const QVariantList kept = held ? got.list : QVariantList();
        if (cut > 0) {
            QVERIFY(!NetWire::decode(second.left(second.size() - cut), &got, &error));
            QVERIFY(!error.isEmpty());
        }
        QVERIFY2(NetWire::decode(second, &got, &error), qPrintable(error));
        QCOMPARE(got.seq, qint64(1));
        QVERIFY2(same(got.list, after), held ? "held" : "let go");
        if (held)
            QVERIFY(same(kept, before));
    }
    // A bytes payload after a list leaves no list behind.
    NetWire::Envelope got;
    QVERIFY(NetWire::decode(second, &got, &error));
    e.isList = false;
    e.bytes = "raw";
    QVERIFY(NetWire::encode(e, &buffer, &error));
    QVERIFY2(NetWire::decode(buffer, &got, &error), qPrintable(error));
    QVERIFY(!got.isList && got.list.isEmpty());
    QCOMPARE(got.bytes, QByteArray("raw"));
}

QTEST_GUILESS_MAIN(tst_Net)
#include "tst_net.moc"
