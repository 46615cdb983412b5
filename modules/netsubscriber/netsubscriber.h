#pragma once

#include "netenvelope.h"

#include <ztmiextended.h>

#include <QHash>
#include <QSet>
#include <QVector>
#include <QVariantMap>

#include <atomic>

class NetSocket;

// Subscribes to `topic` at `endpoint` (a NetPublisher, or any program speaking the envelope) and
// sends every list it receives on its stream propagator "out", from its own thread, in the
// order of each publisher.
//
// Sequence numbers are followed per publisher id: a gap is counted as lost and said once per
// pass ("lost 12 lists from tcp://acq1:5555 topic adc"); a new publisher id after another one is
// a restarted publisher. The lists a publisher sent before this subscriber joined count as lost
// too, so received + lost is what each publisher sent. A peer that goes away and comes back is
// said once each, from ZeroMQ's socket monitor; reconnecting is ZeroMQ's.
//
// Options: endpoint (several separated by commas), topic, hwm (messages queued before ZeroMQ
// drops; 0: no limit).
class NetSubscriber : public ZtMIExtended
{
    Q_OBJECT

public:
    explicit NetSubscriber(int id, QObject *parent = nullptr);

    // {"received", "lost", "restarts", "refused"}; safe from any thread.
    Q_INVOKABLE QVariantMap netCounters() const;

public slots:
    bool init() override;
    void final() override;

protected:
    void initOptions() override;

private:
    bool drain();
    void take(const QByteArray &bytes);
    void recycle();

    NetSocket *socket = nullptr;
    QString endpoint;
    QString topic;
    // Decoded into again and again: its list is refilled in place while the receivers keep no
    // copy of it (the decoder checks), which saves an allocation and a free per value.
    NetWire::Envelope incoming;
    // Lists of earlier messages that a receiver still held (a queued receiver that has not come
    // to them yet): refilled once it lets go. At most a few, so that a receiver keeping every
    // list pins no more than these.
    QVector<QVariantList> spares;
    int nextSpare = 0;
    QHash<qint64, qint64> nextSeq; // per publisher id: the sequence number expected next
    qint64 lastPublisher = 0;
    quint64 lostInPass = 0;
    QSet<QString> away; // peers that went away and did not come back yet
    QSet<QString> seen; // peers connected at least once
    std::atomic<quint64> received {0};
    std::atomic<quint64> lost {0};
    std::atomic<quint64> restarts {0};
    std::atomic<quint64> refused {0};
};
