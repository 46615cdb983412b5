#pragma once

#include <ztmiextended.h>

#include <QElapsedTimer>
#include <QQueue>
#include <QSet>
#include <QVariantMap>

#include <atomic>

class NetSocket;
class QTimer;

// Serves its feedback propagator "remote" for local requesters by forwarding each request to a
// NetServer at `endpoint` (a ZeroMQ DEALER socket) and handing the answer back. A request not
// answered within `timeout` ms fails (empty data, -1) and is logged; every request carries an
// id, so that an answer that comes later is recognised and dropped, never given to the next
// request. Requests go out one at a time, in the order they came.
//
// The module never blocks its thread: requests and answers move on its event loop. It must not
// share a thread with its requesters (they wait on the channel for the answer). While no server
// is connected a request is held back (ZeroMQ's immediate mode, so nothing piles up for a server
// that comes back much later) and sent as soon as one is, within its time-out.
//
// Options: endpoint (e.g. "tcp://acq1:5556"), timeout (ms).
class NetClient : public ZtMIExtended
{
    Q_OBJECT

public:
    explicit NetClient(int id, QObject *parent = nullptr);

    // {"requests", "answers", "timeouts", "late"}; safe from any thread.
    Q_INVOKABLE QVariantMap netCounters() const;

public slots:
    bool init() override;
    void final() override;

protected:
    void initOptions() override;

private:
    struct Request
    {
        int op = 0;
        qint64 pos = 0;
        bool isList = true;
        QVariantList list;
        QByteArray bytes;
    };

    void enqueue(const Request &request);
    void startNext();
    void trySend();
    bool drain();
    void expire();
    // Hands the answer of the current request to the requester and moves on.
    void finish(qint64 pos, const QVariantList &list = {}, const QByteArray &bytes = {});

    NetSocket *socket = nullptr;
    QTimer *deadline = nullptr;
    QTimer *retry = nullptr;
    QString endpoint;
    int timeout = 1000;
    qint64 clientId = 0;
    qint64 lastId = 0;
    QQueue<Request> queue;
    bool busy = false; // a request is out (or held back) and not yet answered
    bool sent = false;
    Request current;
    QByteArray currentBytes;
    QSet<QString> away;
    QSet<QString> seen;
    std::atomic<quint64> requests {0};
    std::atomic<quint64> answers {0};
    std::atomic<quint64> timeouts {0};
    std::atomic<quint64> late {0};
};
