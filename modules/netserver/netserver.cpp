#include "netserver.h"

#include "netenvelope.h"
#include "netsocket.h"

#include <propagatorfeedback.h>
#include <propagatorfeedbackconcurrent.h>

#include <QElapsedTimer>

#include <vector>

NetServer::NetServer(int id, QObject *parent)
    : ZtMIExtended(id, parent)
{ }

void NetServer::initOptions()
{
    options.insert(QStringLiteral("endpoint"), QStringLiteral("tcp://*:5556"));
    options.insert(QStringLiteral("timeout"), 1000);
    feedbacks.hash.insert(QStringLiteral("local"), nullptr);
}

QVariantMap NetServer::netCounters() const
{
    return {{QStringLiteral("requests"), requests.load()},
            {QStringLiteral("timeouts"), timeouts.load()},
            {QStringLiteral("refused"), refused.load()}};
}

bool NetServer::init()
{
    endpoint = options.value(QStringLiteral("endpoint")).toString();
    timeout = qMax(1, options.value(QStringLiteral("timeout")).toInt());
    socket = new NetSocket(ZMQ_ROUTER, 0, this);
    QString error;
    if (!socket->bind(endpoint, &error)) {
        errString = QStringLiteral("cannot serve on %1").arg(error);
        emit state(errString, Logger::Error);
        delete socket;
        socket = nullptr;
        return false;
    }
    if (auto *local
        = qobject_cast<PropagatorFeedbackConcurrent *>(feedbacks.value(QStringLiteral("local"))))
        local->setRequestTimeout(timeout);
    socket->watchPeers([this](NetSocket::PeerEvent e, const QString &where) {
        emit state(e == NetSocket::PeerUp ? QStringLiteral("a client connected on %1").arg(where)
                                          : QStringLiteral("a client on %1 went away").arg(where),
                   Logger::Info);
    });
    socket->start([this] { return drain(); });
    emit state(QStringLiteral("serving on %1").arg(endpoint), Logger::Info);
    return true;
}

void NetServer::final()
{
    if (!socket)
        return;
    socket->close();
    delete socket;
    socket = nullptr;
    emit state(QStringLiteral("served %1 requests on %2, %3 not answered locally in time")
                   .arg(requests.load())
                   .arg(endpoint)
                   .arg(timeouts.load()),
               Logger::Info);
}

bool NetServer::drain()
{
    // Requests for 20 ms at most per pass, then the event loop gets its turn (final() among
    // others, so that stopping waits for one local answer at most, not for a queue of them).
    QElapsedTimer pass;
    pass.start();
    while (pass.elapsed() < 20) {
        // ROUTER: the client's routing frames (identity, and the empty delimiter of a REQ
        // client), then the envelope. The routing frames go back in front of the answer.
        std::vector<zmq::message_t> frames;
        do {
            zmq::message_t frame;
            if (!socket->socket().recv(frame, zmq::recv_flags::dontwait))
                return false;
            frames.push_back(std::move(frame));
        } while (frames.back().more());
        if (frames.size() < 2) {
            ++refused;
            continue;
        }
        NetWire::Envelope request;
        QString error;
        const zmq::message_t &body = frames.back();
        if (!NetWire::decode(QByteArray::fromRawData(body.data<char>(), int(body.size())), &request,
                             &error)
            || request.kind != NetWire::Request) {
            ++refused;
            emit state(QStringLiteral("refused a request: %1")
                           .arg(error.isEmpty() ? QStringLiteral("not a request") : error),
                       Logger::Warning);
            continue;
        }
        ++requests;
        NetWire::Envelope answer;
        answer.kind = NetWire::Answer;
        answer.id = request.id;
        answer.seq = request.seq;
        answer.op = request.op;
        answer.pos = -1;
        if (!serve(request, &answer)) {
            ++timeouts;
            answer.pos = -1;
            answer.isList = request.op != NetWire::Read;
            answer.list.clear();
            answer.bytes.clear();
        }
        QByteArray bytes = NetWire::encode(answer, &error);
        if (bytes.isEmpty()) {
            emit state(QStringLiteral("the local answer to request %1 cannot be sent: %2")
                           .arg(request.seq)
                           .arg(error),
                       Logger::Warning);
            answer.pos = -1;
            answer.list.clear();
            bytes = NetWire::encode(answer, &error);
        }
        try {
            for (size_t i = 0; i + 1 < frames.size(); ++i)
                socket->socket().send(frames[i],
                                      zmq::send_flags::sndmore | zmq::send_flags::dontwait);
            socket->socket().send(zmq::buffer(bytes.constData(), size_t(bytes.size())),
                                  zmq::send_flags::dontwait);
        } catch (const zmq::error_t &x) {
            emit state(QStringLiteral("answer to request %1 not sent: %2")
                           .arg(request.seq)
                           .arg(QString::fromLocal8Bit(x.what())),
                       Logger::Warning);
        }
    }
    return true;
}

bool NetServer::serve(const NetWire::Envelope &request, NetWire::Envelope *answer)
{
    PropagatorFeedback *local = feedbacks.value(QStringLiteral("local"));
    const bool concurrent = qobject_cast<PropagatorFeedbackConcurrent *>(local) != nullptr;
    answer->isList = request.op != NetWire::Read;
    switch (request.op) {
    case NetWire::Read:
    case NetWire::ReadList: {
        const bool list = request.op == NetWire::ReadList;
        bool ok = true;
        if (concurrent) {
            // A deferred read, so that the wait is bounded. An answer that came after an earlier
            // time-out is still waiting to be collected: collect and drop it first.
            auto ask = [&] {
                return list ? local->readListLater(request.pos) : local->readLater(request.pos);
            };
            if (!ask()) {
                list ? void(local->waitLaterReadList(0, &ok)) : void(local->waitLaterRead(0, &ok));
                if (!ask())
                    return false;
            }
            if (list)
                answer->list = local->waitLaterReadList(timeout, &ok);
            else
                answer->bytes = local->waitLaterRead(timeout, &ok);
        } else if (list) {
            answer->list = local->readList(request.pos);
        } else {
            answer->bytes = local->read(request.pos);
        }
        if (!ok) {
            emit state(QStringLiteral("request %1: the local server did not answer within %2 ms")
                           .arg(request.seq)
                           .arg(timeout),
                       Logger::Warning);
            return false;
        }
        answer->pos = request.pos;
        return true;
    }
    case NetWire::Write:
        answer->pos = local->write(request.bytes);
        return true;
    case NetWire::WriteList:
        answer->pos = local->writeList(request.list);
        return true;
    default:
        emit state(QStringLiteral("request %1 refused: unknown operation %2")
                       .arg(request.seq)
                       .arg(request.op),
                   Logger::Warning);
        return true;
    }
}
