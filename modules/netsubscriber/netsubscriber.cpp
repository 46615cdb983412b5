#include "netsubscriber.h"

#include "netsocket.h"

#include <propagatorstream.h>

#include <QElapsedTimer>

NetSubscriber::NetSubscriber(int id, QObject *parent)
    : ZtMIExtended(id, parent)
{ }

void NetSubscriber::initOptions()
{
    options.insert(QStringLiteral("endpoint"), QStringLiteral("tcp://localhost:5555"));
    options.insert(QStringLiteral("topic"), QStringLiteral("data"));
    options.insert(QStringLiteral("hwm"), 10000);
    streams.hash.insert(QStringLiteral("out"), nullptr);
}

QVariantMap NetSubscriber::netCounters() const
{
    return {{QStringLiteral("received"), received.load()},
            {QStringLiteral("lost"), lost.load()},
            {QStringLiteral("restarts"), restarts.load()},
            {QStringLiteral("refused"), refused.load()}};
}

bool NetSubscriber::init()
{
    endpoint = options.value(QStringLiteral("endpoint")).toString();
    topic = options.value(QStringLiteral("topic")).toString();
    socket = new NetSocket(ZMQ_SUB, 0, this);
    socket->socket().set(zmq::sockopt::rcvhwm,
                         qMax(0, options.value(QStringLiteral("hwm")).toInt()));
    // The first frame is the topic alone: the prefix filter of ZeroMQ becomes an exact match
    // once the envelope's topic is compared as well.
    socket->socket().set(zmq::sockopt::subscribe, topic.toStdString());
    QString error;
    if (!socket->connect(endpoint, &error)) {
        errString = QStringLiteral("cannot subscribe to %1").arg(error);
        emit state(errString, Logger::Error);
        delete socket;
        socket = nullptr;
        return false;
    }
    socket->watchPeers([this](NetSocket::PeerEvent e, const QString &where) {
        if (e == NetSocket::PeerDown) {
            if (!away.contains(where)) {
                away.insert(where);
                emit state(QStringLiteral("publisher at %1 went away").arg(where), Logger::Warning);
            }
        } else if (away.remove(where)) {
            emit state(QStringLiteral("publisher at %1 is back").arg(where), Logger::Info);
        } else if (!seen.contains(where)) {
            emit state(QStringLiteral("connected to %1").arg(where), Logger::Info);
        }
        seen.insert(where);
    });
    socket->start([this] { return drain(); });
    emit state(QStringLiteral("subscribed to %1 topic %2").arg(endpoint, topic), Logger::Info);
    return true;
}

void NetSubscriber::final()
{
    if (!socket)
        return;
    socket->close();
    delete socket;
    socket = nullptr;
    incoming.list.clear();
    spares.clear();
    emit state(QStringLiteral("received %1 lists from %2 topic %3, lost %4")
                   .arg(received.load())
                   .arg(endpoint, topic)
                   .arg(lost.load()),
               Logger::Info);
}

bool NetSubscriber::drain()
{
    // At most 20 ms per pass, so that the thread's other events get their turn; the clock is
    // read every 64 messages only.
    QElapsedTimer pass;
    pass.start();
    bool more = false;
    for (int n = 1;; ++n) {
        if (n % 64 == 0 && pass.elapsed() >= 20) {
            more = true;
            break;
        }
        zmq::message_t head;
        if (!socket->socket().recv(head, zmq::recv_flags::dontwait))
            break;
        zmq::message_t body;
        if (!head.more())
            continue;
        if (!socket->socket().recv(body, zmq::recv_flags::dontwait))
            break;
        while (body.more()) { // frames we do not know: skip them
            zmq::message_t rest;
            if (!socket->socket().recv(rest, zmq::recv_flags::dontwait))
                break;
            body.move(rest);
        }
        take(QByteArray::fromRawData(body.data<char>(), int(body.size())));
    }
    if (lostInPass) {
        emit state(
            QStringLiteral("lost %1 lists from %2 topic %3").arg(lostInPass).arg(endpoint, topic),
            Logger::Warning);
        lostInPass = 0;
    }
    return more;
}

void NetSubscriber::recycle()
{
    // A list no one else holds is refilled by the decoder as it is; a receiver in another thread
    // may drop its copy at any time, which soleHolder() allows for.
    QVariantList &list = incoming.list;
    if (NetWire::soleHolder(list))
        return;
    for (int i = 0; i < spares.size(); ++i) {
        if (NetWire::soleHolder(spares[i])) {
            list.swap(spares[i]);
            if (spares[i].isEmpty())
                spares.remove(i);
            return;
        }
    }
    if (!list.isEmpty()) {
        constexpr int MaxSpares = 4;
        if (spares.size() < MaxSpares) {
            spares.append(list);
        } else {
            spares[nextSpare] = list;
            nextSpare = (nextSpare + 1) % MaxSpares;
        }
    }
    list = QVariantList();
}

void NetSubscriber::take(const QByteArray &bytes)
{
    recycle();
    NetWire::Envelope &e = incoming;
    QString error;
    if (!NetWire::decode(bytes, &e, &error) || e.kind != NetWire::Data || e.topic != topic) {
        const quint64 n = ++refused;
        if (n <= 10 || n % 1000 == 0)
            emit state(QStringLiteral("refused message %1 from %2: %3")
                           .arg(n)
                           .arg(endpoint,
                                error.isEmpty()
                                    ? QStringLiteral("not a data list of topic ") + topic
                                    : error),
                       Logger::Warning);
        return;
    }
    auto next = nextSeq.find(e.id);
    if (next == nextSeq.end()) {
        if (lastPublisher != 0) {
            ++restarts;
            emit state(QStringLiteral("publisher of %1 topic %2 restarted (publisher %3, was %4)")
                           .arg(endpoint, topic)
                           .arg(e.id, 16, 16, QLatin1Char('0'))
                           .arg(lastPublisher, 16, 16, QLatin1Char('0')),
                       Logger::Warning);
        } else {
            emit state(
                QStringLiteral("receiving from publisher %1").arg(e.id, 16, 16, QLatin1Char('0')),
                Logger::Info);
        }
        // Ids of earlier runs are kept a while (a second publisher may feed the same topic), but
        // not without bound.
        if (nextSeq.size() >= 64)
            nextSeq.clear();
        next = nextSeq.insert(e.id, 0);
    }
    lastPublisher = e.id;
    if (e.seq < *next) {
        // ZeroMQ keeps one publisher's order; an older number is a sender's fault.
        ++refused;
        return;
    }
    if (e.seq > *next) {
        lost += quint64(e.seq - *next);
        lostInPass += quint64(e.seq - *next);
    }
    *next = e.seq + 1;
    ++received;
    PropagatorStream *out = streams.value(QStringLiteral("out"));
    if (e.isList)
        out->sendList(e.list);
    else
        out->send(e.bytes);
}
