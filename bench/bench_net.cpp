// The network modules against bare ZeroMQ sockets, each pair across two processes over loopback
// (this program starts a copy of itself as the far end):
//   stream   NetPublisher -> NetSubscriber (encode, envelope, sequence check, decode, sendList
//            into a direct stream propagator) vs a bare PUB/SUB pair sending the same encoded
//            bytes; messages/s at the receiver, first to last message; lists of 8 and 1,000
//            doubles; the publisher is given the same list every time, and the receiver keeps
//            no copy, except in the "kept" line, where it holds on to each list until the next
//            (as a queued receiver would), so that the subscriber cannot refill its list;
//   request  one list read through NetClient -> NetServer -> a local server answering 8 values
//            (the requester blocks on a concurrent feedback propagator, NetClient runs in a
//            thread of its own) vs a bare REQ/REP round trip of the same request and answer
//            bytes; latency.
// The modules are made directly (no kernel, no settings file); the work per message is theirs.
// The pairs run in several rounds, alternating which side goes first; each printed ratio is the
// median of the per-round ratios, with the spread (lowest, highest).

#include "netclient.h"
#include "netenvelope.h"
#include "netpublisher.h"
#include "netserver.h"
#include "netsubscriber.h"

#include <propagatorfeedbackconcurrent.h>
#include <propagatorfeedbackdirect.h>
#include <propagatorstreamdirect.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QProcess>
#include <QTcpServer>
#include <QThread>
#include <QTimer>

#include <zmq.hpp>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <vector>

namespace {

constexpr int Rounds = 5;
constexpr int Requests = 2000;

// One list holding one sample vector (a ZtDataY of a whole QVector<double>): a typed array on
// the wire.
QVariantList vectorOf(int n)
{
    QVector<double> v;
    for (int i = 0; i < n; ++i)
        v.append(i * 0.001 + 1.5);
    return {QVariant::fromValue(v)};
}

QVariantList doubles(int n)
{
    QVariantList list;
    for (int i = 0; i < n; ++i)
        list.append(i * 0.001 + 1.5);
    return list;
}

int freePort()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    return probe.serverPort();
}

QString at(int port)
{
    return QString("tcp://127.0.0.1:%1").arg(port);
}

QByteArray encodedList(NetWire::Envelope e, const QVariantList &list)
{
    QString error;
    e.list = list;
    return NetWire::encode(e, &error);
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

// The far end: started with "--child <mode> <port> <count>", prints "ready", and for the
// receivers "<messages> <ns>" from the first to the last message.
int child(const QStringList &args)
{
    const QString mode = args.value(2);
    const int port = args.value(3).toInt();
    const qint64 count = args.value(4).toLongLong();
    const QString endpoint = at(port);
    if (mode == "bare-sub") {
        zmq::context_t context(1);
        zmq::socket_t sub(context, ZMQ_SUB);
        sub.set(zmq::sockopt::rcvhwm, 0);
        sub.set(zmq::sockopt::subscribe, "adc");
        sub.set(zmq::sockopt::rcvtimeo, 3000);
        sub.connect(endpoint.toStdString());
        std::printf("ready\n");
        std::fflush(stdout);
        QElapsedTimer clock;
        qint64 got = 0;
        while (got < count) {
            zmq::message_t topic, body;
            if (!sub.recv(topic) || !sub.recv(body))
                break;
            if (got++ == 0)
                clock.start();
        }
        std::printf("%lld %lld\n", got - 1, clock.nsecsElapsed());
        return 0;
    }
    if (mode == "net-sub" || mode == "net-sub-keep") {
        const bool keep = mode == "net-sub-keep";
        QVariantList kept;
        NetSubscriber module(0);
        module.setup();
        module.setOption("endpoint", endpoint);
        module.setOption("topic", "adc");
        module.setOption("hwm", 0);
        PropagatorStreamDirect out;
        module.setPropagator("out", &out, false);
        QElapsedTimer clock;
        qint64 got = 0;
        QTimer idle;
        idle.setSingleShot(true);
        QObject::connect(&idle, &QTimer::timeout, qApp, &QCoreApplication::quit);
        QObject::connect(&out, &PropagatorStream::trySendList, [&](const QVariantList &list) {
            if (keep)
                kept = list;
            if (got++ == 0)
                clock.start();
            if (got == count)
                qApp->quit();
            else if (got % 1000 == 0)
                idle.start(3000);
        });
        if (!module.init())
            return 1;
        idle.start(10000);
        std::printf("ready\n");
        std::fflush(stdout);
        qApp->exec();
        std::printf("%lld %lld\n", got - 1, clock.nsecsElapsed());
        module.final();
        return 0;
    }
    if (mode == "bare-rep") {
        zmq::context_t context(1);
        zmq::socket_t rep(context, ZMQ_REP);
        rep.bind(endpoint.toStdString());
        NetWire::Envelope answer;
        answer.kind = NetWire::Answer;
        const QByteArray bytes = encodedList(answer, doubles(8));
        std::printf("ready\n");
        std::fflush(stdout);
        for (;;) {
            zmq::message_t request;
            if (!rep.recv(request))
                return 0;
            rep.send(zmq::buffer(bytes.constData(), size_t(bytes.size())));
        }
    }
    if (mode == "net-server") {
        NetServer module(0);
        module.setup();
        module.setOption("endpoint", at(port));
        PropagatorFeedbackDirect local;
        const QVariantList values = doubles(8);
        QObject::connect(&local, &PropagatorFeedback::tryReadList,
                         [&](qlonglong) { local.readListReturn(values); });
        module.setPropagator("local", &local, true);
        if (!module.init())
            return 1;
        std::printf("ready\n");
        std::fflush(stdout);
        return qApp->exec();
    }
    return 2;
}

// Starts the far end and waits for its "ready".
bool startChild(QProcess &p, const QString &mode, int port, qint64 count)
{
    p.start(QCoreApplication::applicationFilePath(),
            {"--child", mode, QString::number(port), QString::number(count)});
    while (p.waitForReadyRead(10000))
        if (p.readLine().startsWith("ready"))
            return true;
    return false;
}

// Messages per second seen by the receiver.
double finishReceiver(QProcess &p)
{
    p.waitForFinished(60000);
    const QList<QByteArray> parts = p.readAll().trimmed().split(' ');
    const double messages = parts.value(0).toDouble();
    const double ns = parts.value(1).toDouble();
    return ns > 0 ? messages / ns * 1e9 : 0;
}

double barePubSub(const QVariantList &list, int count)
{
    const int port = freePort();
    zmq::context_t context(1);
    zmq::socket_t pub(context, ZMQ_PUB);
    pub.set(zmq::sockopt::sndhwm, 0);
    pub.set(zmq::sockopt::linger, 1000);
    pub.bind(at(port).toStdString());
    QProcess far;
    if (!startChild(far, "bare-sub", port, count))
        return 0;
    QThread::msleep(300); // the subscription has to reach the publisher
    // The same bytes the module would send: encoded once.
    NetWire::Envelope e;
    e.topic = "adc";
    const QByteArray bytes = encodedList(e, list);
    for (int i = 0; i < count; ++i) {
        pub.send(zmq::buffer("adc", 3), zmq::send_flags::sndmore);
        pub.send(zmq::buffer(bytes.constData(), size_t(bytes.size())));
    }
    return finishReceiver(far);
}

double netPubSub(const QVariantList &list, int count, bool keep)
{
    const int port = freePort();
    NetPublisher module(0);
    module.setup();
    module.setOption("endpoint", at(port));
    module.setOption("topic", "adc");
    module.setOption("hwm", 0);
    PropagatorStreamDirect in;
    module.setPropagator("in", &in, false);
    if (!module.init())
        return 0;
    QProcess far;
    if (!startChild(far, keep ? "net-sub-keep" : "net-sub", port, count))
        return 0;
    QThread::msleep(300);
    for (int i = 0; i < count; ++i)
        in.sendList(list);
    const double rate = finishReceiver(far);
    module.final();
    return rate;
}

// Nanoseconds per round trip.
double bareReqRep()
{
    const int port = freePort();
    QProcess far;
    if (!startChild(far, "bare-rep", port, 0))
        return 0;
    zmq::context_t context(1);
    zmq::socket_t req(context, ZMQ_REQ);
    req.set(zmq::sockopt::linger, 0);
    req.connect(at(port).toStdString());
    NetWire::Envelope e;
    e.kind = NetWire::Request;
    e.op = NetWire::ReadList;
    e.pos = 8;
    const QByteArray bytes = encodedList(e, {});
    auto once = [&] {
        req.send(zmq::buffer(bytes.constData(), size_t(bytes.size())));
        zmq::message_t answer;
        (void)req.recv(answer);
    };
    for (int i = 0; i < 100; ++i)
        once();
    QElapsedTimer clock;
    clock.start();
    for (int i = 0; i < Requests; ++i)
        once();
    const double ns = double(clock.nsecsElapsed()) / Requests;
    far.kill();
    far.waitForFinished();
    return ns;
}

double netReqRep()
{
    const int port = freePort();
    QProcess far;
    if (!startChild(far, "net-server", port, 0))
        return 0;
    QThread worker;
    worker.start();
    auto *module = new NetClient(0);
    module->setup();
    module->setOption("endpoint", at(port));
    module->setOption("timeout", 5000);
    auto *remote = new PropagatorFeedbackConcurrent;
    module->setPropagator("remote", remote, true);
    module->moveToThread(&worker);
    remote->moveToThread(&worker);
    bool ok = false;
    QMetaObject::invokeMethod(module, "init", Qt::BlockingQueuedConnection, Q_RETURN_ARG(bool, ok));
    double ns = 0;
    if (ok) {
        for (int i = 0; i < 100; ++i)
            remote->readList(8);
        QElapsedTimer clock;
        clock.start();
        for (int i = 0; i < Requests; ++i)
            if (remote->readList(8).size() != 8)
                std::fprintf(stderr, "bench_net: a request failed\n");
        ns = double(clock.nsecsElapsed()) / Requests;
    }
    QMetaObject::invokeMethod(module, "final", Qt::BlockingQueuedConnection);
    QMetaObject::invokeMethod(
        module,
        [module, remote] {
            delete module;
            delete remote;
        },
        Qt::BlockingQueuedConnection);
    worker.quit();
    worker.wait();
    far.kill();
    far.waitForFinished();
    return ns;
}

void report(const char *what, const std::vector<double> &bare, const std::vector<double> &net,
            const char *unit)
{
    // module / bare: for rates the share of the bare rate, for latencies the factor over it.
    std::vector<double> ratios;
    for (size_t i = 0; i < bare.size(); ++i)
        ratios.push_back(bare[i] > 0 ? net[i] / bare[i] : 0);
    const auto [lo, hi] = std::minmax_element(ratios.begin(), ratios.end());
    std::printf("%-28s bare %10.0f %s  module %10.0f %s  ratio %.2f (%.2f..%.2f)\n", what,
                median(bare), unit, median(net), unit, median(ratios), *lo, *hi);
    std::fflush(stdout);
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    if (app.arguments().value(1) == "--child")
        return child(app.arguments());

    // The codec alone, in this process: where the time of a list goes.
    for (int size : {8, 1000, -1000}) {
        const QVariantList list = size > 0 ? doubles(size) : vectorOf(-size);
        NetWire::Envelope e;
        e.topic = "adc";
        e.list = list;
        QString error;
        QByteArray bytes;
        QElapsedTimer clock;
        clock.start();
        for (int i = 0; i < 2000; ++i)
            NetWire::encode(e, &bytes, &error);
        const double encodeNs = double(clock.nsecsElapsed()) / 2000;
        clock.restart();
        NetWire::Envelope back;
        for (int i = 0; i < 2000; ++i)
            NetWire::decode(bytes, &back, &error);
        const double decodeNs = double(clock.nsecsElapsed()) / 2000;
        // A list held elsewhere cannot be refilled: a new one each time, and the old one freed.
        QVariantList kept;
        clock.restart();
        for (int i = 0; i < 2000; ++i) {
            NetWire::decode(bytes, &back, &error);
            kept = back.list;
        }
        const double keptNs = double(clock.nsecsElapsed()) / 2000;
        std::printf(
            "%-28s encode %8.0f ns  decode %8.0f ns  (new list %8.0f ns)  %d bytes\n",
            qPrintable(
                QString(size > 0 ? "codec, %1 doubles" : "codec, QVector of %1").arg(qAbs(size))),
            encodeNs, decodeNs, keptNs, int(bytes.size()));
    }

    struct Stream
    {
        const char *name;
        int size;
        int count;
        bool keep;
    };
    for (const Stream &s : {Stream {"stream, 8 doubles", 8, 50000, false},
                            Stream {"stream, 1000 doubles", 1000, 5000, false},
                            Stream {"stream, 1000 doubles, kept", 1000, 5000, true},
                            Stream {"stream, QVector of 1000", -1000, 5000, false}}) {
        const QVariantList list = s.size > 0 ? doubles(s.size) : vectorOf(-s.size);
        std::vector<double> bare, net;
        for (int r = 0; r < Rounds; ++r) {
            if (r % 2) {
                net.push_back(netPubSub(list, s.count, s.keep));
                bare.push_back(barePubSub(list, s.count));
            } else {
                bare.push_back(barePubSub(list, s.count));
                net.push_back(netPubSub(list, s.count, s.keep));
            }
        }
        report(s.name, bare, net, "msg/s");
    }
    std::vector<double> bare, net;
    for (int r = 0; r < Rounds; ++r) {
        if (r % 2) {
            net.push_back(netReqRep());
            bare.push_back(bareReqRep());
        } else {
            bare.push_back(bareReqRep());
            net.push_back(netReqRep());
        }
    }
    report("request round trip", bare, net, "ns");
    return 0;
}
