#include "netsocket.h"

#include <QSocketNotifier>
#include <QTimer>

#include <atomic>
#include <cstring>

namespace {

QString describe(const QString &endpoint, const zmq::error_t &e)
{
    return QStringLiteral("%1: %2").arg(endpoint, QString::fromLocal8Bit(e.what()));
}

QStringList endpointList(const QString &endpoints)
{
    QStringList list;
    for (const QString &e : endpoints.split(QLatin1Char(','), Qt::SkipEmptyParts))
        list.append(e.trimmed());
    return list;
}

} // namespace

NetSocket::NetSocket(int type, int lingerMs, QObject *parent)
    : QObject(parent)
    , m_context(std::make_unique<zmq::context_t>(1))
    , m_socket(std::make_unique<zmq::socket_t>(*m_context, type))
{
    m_socket->set(zmq::sockopt::linger, lingerMs);
    // ZMTP heartbeats: a peer that vanishes without closing its connection (a machine switched
    // off, a cable pulled) is dropped after 3 s, and the monitor says so, instead of after the
    // operating system's TCP time-outs.
    m_socket->set(zmq::sockopt::heartbeat_ivl, 1000);
    m_socket->set(zmq::sockopt::heartbeat_timeout, 3000);
}

NetSocket::~NetSocket()
{
    close();
}

bool NetSocket::bind(const QString &endpoints, QString *error)
{
    const QStringList list = endpointList(endpoints);
    if (list.isEmpty()) {
        *error = QStringLiteral("no endpoint given");
        return false;
    }
    for (const QString &e : list) {
        try {
            m_socket->bind(e.toStdString());
        } catch (const zmq::error_t &x) {
            *error = describe(e, x);
            return false;
        }
    }
    return true;
}

bool NetSocket::connect(const QString &endpoints, QString *error)
{
    const QStringList list = endpointList(endpoints);
    if (list.isEmpty()) {
        *error = QStringLiteral("no endpoint given");
        return false;
    }
    for (const QString &e : list) {
        try {
            m_socket->connect(e.toStdString());
        } catch (const zmq::error_t &x) {
            *error = describe(e, x);
            return false;
        }
    }
    return true;
}

bool NetSocket::readable(zmq::socket_t &s)
{
    return s.get(zmq::sockopt::events) & ZMQ_POLLIN;
}

void NetSocket::start(std::function<bool()> drain)
{
    m_drain = std::move(drain);
    const int fd = int(m_socket->get(zmq::sockopt::fd));
    m_notifier = new QSocketNotifier(fd, QSocketNotifier::Read, this);
    QObject::connect(m_notifier, &QSocketNotifier::activated, this, &NetSocket::pump);
    m_safety = new QTimer(this);
    QObject::connect(m_safety, &QTimer::timeout, this, &NetSocket::pump);
    m_safety->start(100);
    QTimer::singleShot(0, this, &NetSocket::pump);
}

void NetSocket::pump()
{
    // A drain may send (and so call pump() again): one level is enough, the outer loop re-reads
    // ZMQ_EVENTS.
    if (m_pumping || !m_socket || !m_drain) {
        m_again = true;
        return;
    }
    m_pumping = true;
    do {
        m_again = false;
        while (m_socket && readable(*m_socket)) {
            if (m_drain()) {
                // Budget used up: let other events in, then go on.
                QTimer::singleShot(0, this, &NetSocket::pump);
                m_again = false;
                break;
            }
        }
    } while (m_again && m_socket);
    m_pumping = false;
}

void NetSocket::watchPeers(std::function<void(PeerEvent, const QString &)> onPeer)
{
    static std::atomic<int> serial {0};
    m_onPeer = std::move(onPeer);
    const std::string address = "inproc://ztnet-monitor-" + std::to_string(++serial);
    if (zmq_socket_monitor(m_socket->handle(), address.c_str(),
                           ZMQ_EVENT_CONNECTED | ZMQ_EVENT_ACCEPTED | ZMQ_EVENT_DISCONNECTED)
        != 0)
        return;
    m_monitor = std::make_unique<zmq::socket_t>(*m_context, ZMQ_PAIR);
    m_monitor->set(zmq::sockopt::linger, 0);
    m_monitor->connect(address);
    m_monitorNotifier
        = new QSocketNotifier(int(m_monitor->get(zmq::sockopt::fd)), QSocketNotifier::Read, this);
    QObject::connect(m_monitorNotifier, &QSocketNotifier::activated, this, &NetSocket::pumpMonitor);
    if (!m_safety) {
        m_safety = new QTimer(this);
        m_safety->start(100);
    }
    QObject::connect(m_safety, &QTimer::timeout, this, &NetSocket::pumpMonitor);
}

void NetSocket::pumpMonitor()
{
    while (m_monitor && readable(*m_monitor)) {
        zmq::message_t head;
        zmq::message_t address;
        if (!m_monitor->recv(head, zmq::recv_flags::dontwait))
            break;
        if (!head.more() || !m_monitor->recv(address, zmq::recv_flags::dontwait))
            continue;
        if (head.size() < 6)
            continue;
        quint16 event = 0;
        std::memcpy(&event, head.data(), sizeof event);
        const QString where = QString::fromUtf8(address.data<char>(), int(address.size()));
        if (!m_onPeer)
            continue;
        if (event == ZMQ_EVENT_DISCONNECTED)
            m_onPeer(PeerDown, where);
        else
            m_onPeer(PeerUp, where);
    }
}

void NetSocket::close()
{
    delete m_notifier;
    m_notifier = nullptr;
    delete m_monitorNotifier;
    m_monitorNotifier = nullptr;
    delete m_safety;
    m_safety = nullptr;
    m_drain = nullptr;
    m_onPeer = nullptr;
    if (m_monitor) {
        zmq_socket_monitor(m_socket->handle(), nullptr, 0);
        m_monitor.reset();
    }
    m_socket.reset();
    // Ends the context: waits for each socket's linger at most.
    m_context.reset();
}
