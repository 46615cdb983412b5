#pragma once

#include <ztmiextended.h>

#include <QVariantMap>

#include <atomic>

class NetSocket;
namespace NetWire {
struct Envelope;
}

// Publishes every list (and byte array) that arrives on its stream propagator "in" on a ZeroMQ
// PUB socket bound to `endpoint`, under `topic`, numbered from 0 with the publisher id of this
// run. A list holding a value the wire form has no place for is refused whole and logged.
//
// Options: endpoint (e.g. "tcp://*:5555", several separated by commas), topic, hwm (messages
// queued per subscriber before ZeroMQ drops; 0: no limit).
class NetPublisher : public ZtMIExtended
{
    Q_OBJECT

public:
    explicit NetPublisher(int id, QObject *parent = nullptr);

    // {"sent", "refused"}: lists published and lists refused; safe from any thread.
    Q_INVOKABLE QVariantMap netCounters() const;

public slots:
    bool init() override;
    void final() override;

private slots:
    void publishList(const QVariantList &list);
    void publishBytes(const QByteArray &bytes);

protected:
    void initOptions() override;

private:
    void publish(NetWire::Envelope &e);

    NetSocket *socket = nullptr;
    QString endpoint;
    QByteArray topic;
    QString topicText;
    QByteArray buffer; // the envelope being sent; keeps its capacity from one list to the next
    qint64 publisherId = 0;
    qint64 seq = 0;
    std::atomic<quint64> sent {0};
    std::atomic<quint64> refused {0};
};
