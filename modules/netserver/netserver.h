#pragma once

#include <ztmiextended.h>

#include <QVariantMap>

#include <atomic>

class NetSocket;
namespace NetWire {
struct Envelope;
}

// Listens on `endpoint` (a ZeroMQ ROUTER socket) and hands each remote request to the local
// server module behind its feedback propagator "local", then sends the answer back to the
// client that asked. The local server does not know the request came from afar.
//
// Requests are served one after the other, in arrival order. A read waits for the local answer
// up to `timeout` ms (a deferred read on a concurrent channel), a write as long as the channel's
// request time-out allows (the module sets it to `timeout` on a concurrent channel); an
// unanswered request goes back as the error answer (empty data, -1). This is the one place where
// a network module holds its thread longer than a moment.
//
// Options: endpoint (e.g. "tcp://*:5556"), timeout (ms).
class NetServer : public ZtMIExtended
{
    Q_OBJECT

public:
    explicit NetServer(int id, QObject *parent = nullptr);

    // {"requests", "timeouts", "refused"}; safe from any thread.
    Q_INVOKABLE QVariantMap netCounters() const;

public slots:
    bool init() override;
    void final() override;

protected:
    void initOptions() override;

private:
    bool drain();
    // Fills the answer's pos and data; false when the local server did not answer in time.
    bool serve(const NetWire::Envelope &request, NetWire::Envelope *answer);

    NetSocket *socket = nullptr;
    QString endpoint;
    int timeout = 1000;
    std::atomic<quint64> requests {0};
    std::atomic<quint64> timeouts {0};
    std::atomic<quint64> refused {0};
};
