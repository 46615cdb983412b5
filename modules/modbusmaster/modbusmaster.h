#pragma once

#include "modbusblock.h"

#include <ztmiextended.h>

#include <QDeadlineTimer>
#include <QModbusDevice>
#include <QPointer>
#include <QVector>

#include <deque>
#include <optional>

class PropagatorFeedback;
class QEventLoop;
class QModbusClient;
class QModbusReply;
class QTimer;

// A Modbus master (client) for one device, over TCP (`host`, `port`) or RTU (`serialport`, set:
// RTU). It serves the requests of its feedback propagator "regs" and polls the blocks of its
// `poll` option every `interval` ms, sending them on its stream propagator "out".
//
// Requests, tables numbered as ModBusRegsArray::RegsType (0 co, 1 di, 2 ir, 3 hr):
//   readList(table << 32 | address << 16 | count) -> [value, ...]       error: []
//   read(same pos)             -> big-endian 16-bit words, one per value  error: empty
//   writeList([table, address, value, ...])        -> values written      error: -1
//   write(big-endian words: table, address, values) -> values written     error: -1
//
// Thread affinity: the QModbus client, its replies and the timers are created in init() and
// live in the module's own thread; every request arrives there as a queued signal from the
// propagator's thread. One Modbus transaction is on the wire at a time, so answers leave in the
// order the requests came, which is how a concurrent feedback propagator matches them. Each
// request carries a deadline of timeout x (retries + 1) from its arrival: when it passes, the
// request gets the error answer even if the device still owes one (the late reply is then
// dropped), so no requester waits longer than that. While the connection is down every request
// gets the error answer at once.
class ModbusMaster : public ZtMIExtended
{
    Q_OBJECT

public:
    explicit ModbusMaster(int id, QObject *parent = nullptr);
    ~ModbusMaster() override;

public slots:
    bool init() override;
    void final() override;
    void applyOptions() override;

protected:
    void initOptions() override;

private:
    enum Kind { ReadBytes, ReadList, WriteBytes, WriteList, Poll };

    struct Job
    {
        Kind kind = Poll;
        ModbusBlock block;
        QVector<quint16> values; // what a write writes
        QString refusal; // set: the request is malformed and gets the error answer
        QDeadlineTimer deadline; // requests only
        quint64 serial = 0; // requests only, in arrival order
        int pollIndex = -1; // polls only
    };

    QStringList checkOptions() const;
    QString device() const;
    bool isRequest(const Job &job) const { return job.kind != Poll; }

    void enqueue(Job job);
    void pump();
    bool start(Job &job);
    void replyFinished(QModbusReply *reply);
    void complete(Job &job, bool ok, const QVector<quint16> &values);
    void answer(const Job &job, bool ok, const QVector<quint16> &values);
    void expire();
    void armDeadline();
    void failPending();

    void deviceStateChanged(QModbusDevice::State state);
    void reconnect();

    void pollNow();
    void pollBlockDone(int index, bool ok, const QVector<quint16> &values);

    QModbusClient *client = nullptr;
    QTimer *pollTimer = nullptr;
    QTimer *deadlineTimer = nullptr;
    QTimer *reconnectTimer = nullptr;
    QPointer<PropagatorFeedback> regs; // the requester's propagator, answered in arrival order
    bool serving = false; // init() succeeded: requests go to the device
    bool closing = false; // final() runs: state changes are no news
    bool everConnected = false;
    bool down = false; // a loss or failed connect was logged; the next connect is "back"
    int backoff = 500; // ms before the next reconnect attempt

    std::deque<Job> queue; // requests first (in arrival order), then polls
    std::optional<Job> current; // on the wire
    QModbusReply *currentReply = nullptr;
    bool currentAnswered = false; // its deadline passed and its requester got the error answer
    quint64 nextSerial = 0;
    quint64 answeredSerial = 0; // requests are answered in serial order
    QEventLoop *directWait = nullptr; // a same-thread requester waits in here

    QList<ModbusBlock> blocks; // the `poll` option
    QList<ModbusBlock> roundBlocks; // the blocks of the round on its way (`poll` may change)
    QVector<std::optional<QVector<quint16>>> pollResults; // this round's answers, by block
    QStringList pollProblems; // last failure per block, so that a lasting one is logged once
    int pollOutstanding = 0;
    int timeout = 1000;
    int retries = 1;
    int unit = 1;
    double scale = 1.0;
    bool isSigned = false;
};
