#include "netpublisher.h"

#include "netenvelope.h"
#include "netsocket.h"

#include <propagatorstream.h>

NetPublisher::NetPublisher(int id, QObject *parent)
    : ZtMIExtended(id, parent)
{ }

void NetPublisher::initOptions()
{
    options.insert(QStringLiteral("endpoint"), QStringLiteral("tcp://*:5555"));
    options.insert(QStringLiteral("topic"), QStringLiteral("data"));
    options.insert(QStringLiteral("hwm"), 10000);
    streams.hash.insert(QStringLiteral("in"), nullptr);
}

QVariantMap NetPublisher::netCounters() const
{
    return {{QStringLiteral("sent"), sent.load()}, {QStringLiteral("refused"), refused.load()}};
}

bool NetPublisher::init()
{
    endpoint = options.value(QStringLiteral("endpoint")).toString();
    topicText = options.value(QStringLiteral("topic")).toString();
    topic = topicText.toUtf8();
    publisherId = NetWire::randomId();
    seq = 0;
    socket = new NetSocket(ZMQ_PUB, 200, this);
    socket->socket().set(zmq::sockopt::sndhwm,
                         qMax(0, options.value(QStringLiteral("hwm")).toInt()));
    QString error;
    if (!socket->bind(endpoint, &error)) {
        errString = QStringLiteral("cannot publish on %1").arg(error);
        emit state(errString, Logger::Error);
        delete socket;
        socket = nullptr;
        return false;
    }
    socket->watchPeers([this](NetSocket::PeerEvent e, const QString &where) {
        emit state(e == NetSocket::PeerUp
                       ? QStringLiteral("a subscriber connected on %1").arg(where)
                       : QStringLiteral("a subscriber on %1 went away").arg(where),
                   Logger::Info);
    });
    PropagatorStream *in = streams.value(QStringLiteral("in"));
    connect(in, &PropagatorStream::trySendList, this, &NetPublisher::publishList);
    connect(in, &PropagatorStream::trySend, this, &NetPublisher::publishBytes);
    emit state(QStringLiteral("publishing on %1 topic %2 as publisher %3")
                   .arg(endpoint, QString::fromUtf8(topic))
                   .arg(publisherId, 16, 16, QLatin1Char('0')),
               Logger::Info);
    return true;
}

void NetPublisher::final()
{
    PropagatorStream *in = streams.value(QStringLiteral("in"));
    disconnect(in, nullptr, this, nullptr);
    if (!socket)
        return;
    socket->close();
    delete socket;
    socket = nullptr;
    emit state(QStringLiteral("published %1 lists on %2 topic %3, refused %4")
                   .arg(sent.load())
                   .arg(endpoint, QString::fromUtf8(topic))
                   .arg(refused.load()),
               Logger::Info);
}

void NetPublisher::publishList(const QVariantList &list)
{
    if (!socket)
        return;
    NetWire::Envelope e;
    e.list = list;
    publish(e);
}

void NetPublisher::publishBytes(const QByteArray &bytes)
{
    if (!socket)
        return;
    NetWire::Envelope e;
    e.isList = false;
    e.bytes = bytes;
    publish(e);
}

void NetPublisher::publish(NetWire::Envelope &e)
{
    e.kind = NetWire::Data;
    e.id = publisherId;
    e.seq = seq;
    e.topic = topicText;
    QString error;
    if (!NetWire::encode(e, &buffer, &error)) {
        // One line for the first refusals and then one per thousand, not one per list. A
        // refused list takes no sequence number: the subscribers see no gap for it.
        const quint64 n = ++refused;
        if (n <= 10 || n % 1000 == 0)
            emit state(QStringLiteral("refused list %1 (%2 values): %3; the list was not sent")
                           .arg(n)
                           .arg(e.list.size())
                           .arg(error),
                       Logger::Warning);
        return;
    }
    ++seq;
    // PUB never blocks: at the high-water mark ZeroMQ drops the message for that subscriber,
    // which sees the gap in the sequence numbers.
    try {
        socket->socket().send(zmq::buffer(topic.constData(), size_t(topic.size())),
                              zmq::send_flags::sndmore | zmq::send_flags::dontwait);
        socket->socket().send(zmq::buffer(buffer.constData(), size_t(buffer.size())),
                              zmq::send_flags::dontwait);
    } catch (const zmq::error_t &x) {
        emit state(QStringLiteral("send failed: %1").arg(QString::fromLocal8Bit(x.what())),
                   Logger::Error);
        return;
    }
    ++sent;
}
