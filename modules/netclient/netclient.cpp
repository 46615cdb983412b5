#include "netclient.h"

#include "netenvelope.h"
#include "netsocket.h"

#include <propagatorfeedback.h>

#include <QTimer>

namespace {

const char *opName(int op)
{
    switch (op) {
    case NetWire::Read:
        return "read";
    case NetWire::ReadList:
        return "list read";
    case NetWire::Write:
        return "write";
    case NetWire::WriteList:
        return "list write";
    default:
        return "?";
    }
}

} // namespace

NetClient::NetClient(int id, QObject *parent)
    : ZtMIExtended(id, parent)
{ }

void NetClient::initOptions()
{
    options.insert(QStringLiteral("endpoint"), QStringLiteral("tcp://localhost:5556"));
    options.insert(QStringLiteral("timeout"), 1000);
    feedbacks.hash.insert(QStringLiteral("remote"), nullptr);
}

QVariantMap NetClient::netCounters() const
{
    return {{QStringLiteral("requests"), requests.load()},
            {QStringLiteral("answers"), answers.load()},
            {QStringLiteral("timeouts"), timeouts.load()},
            {QStringLiteral("late"), late.load()}};
}

bool NetClient::init()
{
    endpoint = options.value(QStringLiteral("endpoint")).toString();
    timeout = qMax(1, options.value(QStringLiteral("timeout")).toInt());
    clientId = NetWire::randomId();
    socket = new NetSocket(ZMQ_DEALER, 0, this);
    socket->socket().set(zmq::sockopt::immediate, 1);
    QString error;
    if (!socket->connect(endpoint, &error)) {
        errString = QStringLiteral("cannot reach %1").arg(error);
        emit state(errString, Logger::Error);
        delete socket;
        socket = nullptr;
        return false;
    }
    socket->watchPeers([this](NetSocket::PeerEvent e, const QString &where) {
        if (e == NetSocket::PeerDown) {
            if (!away.contains(where)) {
                away.insert(where);
                emit state(QStringLiteral("server at %1 went away").arg(where), Logger::Warning);
            }
        } else if (away.remove(where)) {
            emit state(QStringLiteral("server at %1 is back").arg(where), Logger::Info);
            trySend();
        } else if (!seen.contains(where)) {
            emit state(QStringLiteral("connected to %1").arg(where), Logger::Info);
            trySend();
        }
        seen.insert(where);
    });
    socket->start([this] { return drain(); });

    deadline = new QTimer(this);
    deadline->setSingleShot(true);
    connect(deadline, &QTimer::timeout, this, &NetClient::expire);
    // While no server is connected, a request waits here for one.
    retry = new QTimer(this);
    retry->setInterval(5);
    connect(retry, &QTimer::timeout, this, &NetClient::trySend);

    // The channel emits its requests in the channel's thread; they reach this module queued.
    PropagatorFeedback *remote = feedbacks.value(QStringLiteral("remote"));
    connect(remote, &PropagatorFeedback::tryRead, this, [this](qlonglong pos) {
        enqueue({NetWire::Read, pos, false, {}, {}});
    });
    connect(remote, &PropagatorFeedback::tryReadList, this, [this](qlonglong pos) {
        enqueue({NetWire::ReadList, pos, true, {}, {}});
    });
    connect(remote, &PropagatorFeedback::tryWrite, this, [this](const QByteArray &data) {
        enqueue({NetWire::Write, 0, false, {}, data});
    });
    connect(remote, &PropagatorFeedback::tryWriteList, this, [this](const QVariantList &list) {
        enqueue({NetWire::WriteList, 0, true, list, {}});
    });
    emit state(
        QStringLiteral("forwarding requests to %1, time-out %2 ms").arg(endpoint).arg(timeout),
        Logger::Info);
    return true;
}

void NetClient::final()
{
    disconnect(feedbacks.value(QStringLiteral("remote")), nullptr, this, nullptr);
    // Every requester still waiting is released with the error answer.
    if (busy)
        finish(-1);
    while (!queue.isEmpty()) {
        current = queue.dequeue();
        busy = true;
        finish(-1);
    }
    delete deadline;
    deadline = nullptr;
    delete retry;
    retry = nullptr;
    if (!socket)
        return;
    socket->close();
    delete socket;
    socket = nullptr;
    emit state(
        QStringLiteral("%1 requests to %2: %3 answered, %4 timed out, %5 late answers dropped")
            .arg(requests.load())
            .arg(endpoint)
            .arg(answers.load())
            .arg(timeouts.load())
            .arg(late.load()),
        Logger::Info);
}

void NetClient::enqueue(const Request &request)
{
    queue.enqueue(request);
    if (!busy)
        startNext();
}

void NetClient::startNext()
{
    while (!busy && !queue.isEmpty()) {
        current = queue.dequeue();
        busy = true;
        ++requests;
        NetWire::Envelope e;
        e.kind = NetWire::Request;
        e.id = clientId;
        e.seq = ++lastId;
        e.op = current.op;
        e.pos = current.pos;
        e.isList = current.isList;
        e.list = current.list;
        e.bytes = current.bytes;
        QString error;
        currentBytes = NetWire::encode(e, &error);
        if (!socket || currentBytes.isEmpty()) {
            // Failed at once, in its turn: answers keep the order of the requests.
            if (!error.isEmpty())
                emit state(QStringLiteral("%1 request %2 refused: %3")
                               .arg(QLatin1String(opName(current.op)))
                               .arg(lastId)
                               .arg(error),
                           Logger::Warning);
            finish(-1);
            continue;
        }
        sent = false;
        deadline->start(timeout);
        trySend();
    }
}

void NetClient::trySend()
{
    if (!busy || sent || !socket) {
        retry->stop();
        return;
    }
    try {
        sent = socket->socket()
                   .send(zmq::buffer(currentBytes.constData(), size_t(currentBytes.size())),
                         zmq::send_flags::dontwait)
                   .has_value();
    } catch (const zmq::error_t &x) {
        emit state(QStringLiteral("request %1 not sent: %2")
                       .arg(lastId)
                       .arg(QString::fromLocal8Bit(x.what())),
                   Logger::Warning);
    }
    if (sent) {
        retry->stop();
        socket->pump();
    } else if (!retry->isActive()) {
        retry->start();
    }
}

bool NetClient::drain()
{
    for (int n = 0; n < 100; ++n) {
        zmq::message_t frame;
        if (!socket->socket().recv(frame, zmq::recv_flags::dontwait))
            return false;
        while (frame.more()) {
            zmq::message_t rest;
            if (!socket->socket().recv(rest, zmq::recv_flags::dontwait))
                break;
            frame.move(rest);
        }
        NetWire::Envelope e;
        QString error;
        if (!NetWire::decode(QByteArray::fromRawData(frame.data<char>(), int(frame.size())), &e,
                             &error)
            || e.kind != NetWire::Answer || e.id != clientId) {
            emit state(QStringLiteral("dropped a message that is not an answer to us%1")
                           .arg(error.isEmpty() ? QString() : QStringLiteral(": ") + error),
                       Logger::Warning);
            continue;
        }
        if (!busy || e.seq != lastId) {
            ++late;
            emit state(QStringLiteral("dropped the late answer to request %1").arg(e.seq),
                       Logger::Info);
            continue;
        }
        ++answers;
        finish(e.pos, e.list, e.bytes);
    }
    return true;
}

void NetClient::expire()
{
    if (!busy)
        return;
    ++timeouts;
    emit state(QStringLiteral("%1 request %2 to %3 not answered within %4 ms: failed%5")
                   .arg(QLatin1String(opName(current.op)))
                   .arg(lastId)
                   .arg(endpoint)
                   .arg(timeout)
                   .arg(sent ? QString() : QStringLiteral(" (no server connected)")),
               Logger::Warning);
    finish(-1);
}

void NetClient::finish(qint64 pos, const QVariantList &list, const QByteArray &bytes)
{
    busy = false;
    sent = false;
    if (deadline)
        deadline->stop();
    if (retry)
        retry->stop();
    PropagatorFeedback *remote = feedbacks.value(QStringLiteral("remote"));
    switch (current.op) {
    case NetWire::Read:
        remote->readReturn(bytes);
        break;
    case NetWire::ReadList:
        remote->readListReturn(list);
        break;
    case NetWire::Write:
        remote->writeReturn(pos);
        break;
    case NetWire::WriteList:
        remote->writeListReturn(pos);
        break;
    default:
        break;
    }
    // The next request starts from the event loop, not inside this answer's call chain.
    if (!queue.isEmpty())
        QTimer::singleShot(0, this, &NetClient::startNext);
}
