#pragma once

#include <QObject>
#include <QString>

#include <zmq.hpp>

#include <functional>
#include <memory>

class QSocketNotifier;
class QTimer;

// A ZeroMQ context with one socket (and optionally its peer monitor), pumped by the event loop of
// the thread that made it. ZeroMQ sockets are not thread-safe: create, use and close a NetSocket
// in one thread only (a module's own thread: make it in init(), close it in final()).
//
// Readiness comes from a QSocketNotifier on ZMQ_FD, which is edge-triggered: it only says that
// ZMQ_EVENTS may have changed, so every pump reads ZMQ_EVENTS, and a send on a socket that also
// receives must be followed by pump() (the send can swallow the edge of an arrival). A slow
// safety timer pumps as well, in case an edge is missed all the same.
class NetSocket : public QObject
{
    Q_OBJECT

public:
    // A peer event of the monitor: connected (we connected, or a peer connected to our bind) or
    // disconnected; address is the endpoint ZeroMQ reports.
    enum PeerEvent { PeerUp, PeerDown };

    // type: ZMQ_PUB, ZMQ_SUB, ZMQ_DEALER, ZMQ_ROUTER, ... lingerMs bounds how long close() may
    // wait for unsent messages.
    NetSocket(int type, int lingerMs, QObject *parent = nullptr);
    ~NetSocket() override;

    zmq::socket_t &socket() { return *m_socket; }

    // Binds or connects to each endpoint of a comma-separated list. False with a readable
    // reason ("tcp://*:5555: Address already in use") on the first that fails.
    bool bind(const QString &endpoints, QString *error);
    bool connect(const QString &endpoints, QString *error);

    // Starts pumping: `drain` is called whenever the socket may have something to read; it reads
    // with ZMQ_DONTWAIT and returns true when it stopped early (a budget, to keep the event loop
    // responsive), then it is called again from the event loop.
    void start(std::function<bool()> drain);
    // Reports connects and disconnects of peers (ZeroMQ's socket monitor).
    void watchPeers(std::function<void(PeerEvent, const QString &)> onPeer);
    // Checks the socket now; call after sending on a socket that also receives.
    void pump();
    // Stops pumping, closes the sockets (waiting at most the linger) and ends the context.
    void close();

private:
    void pumpMonitor();
    bool readable(zmq::socket_t &s);

    std::unique_ptr<zmq::context_t> m_context;
    std::unique_ptr<zmq::socket_t> m_socket;
    std::unique_ptr<zmq::socket_t> m_monitor;
    QSocketNotifier *m_notifier = nullptr;
    QSocketNotifier *m_monitorNotifier = nullptr;
    QTimer *m_safety = nullptr;
    std::function<bool()> m_drain;
    std::function<void(PeerEvent, const QString &)> m_onPeer;
    bool m_pumping = false;
    bool m_again = false;
};
