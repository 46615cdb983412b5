#include "modbusmaster.h"

#include <propagatorfeedback.h>
#include <propagatorstream.h>
#include <ztdataarray.h>
#include <ztdataxy.h>

#include <QColor>
#include <QDataStream>
#include <QEventLoop>
#include <QFileInfo>
#include <QModbusReply>
#include <QModbusRtuSerialMaster>
#include <QModbusTcpClient>
#include <QPen>
#include <QSerialPort>
#include <QSerialPortInfo>
#include <QTime>
#include <QTimer>

#include <algorithm>

namespace {

const int maxBackoff = 10000;

QString exceptionText(int code)
{
    switch (code) {
    case QModbusPdu::IllegalFunction:
        return QStringLiteral("illegal function");
    case QModbusPdu::IllegalDataAddress:
        return QStringLiteral("illegal data address");
    case QModbusPdu::IllegalDataValue:
        return QStringLiteral("illegal data value");
    case QModbusPdu::ServerDeviceFailure:
        return QStringLiteral("server device failure");
    case QModbusPdu::Acknowledge:
        return QStringLiteral("acknowledge");
    case QModbusPdu::ServerDeviceBusy:
        return QStringLiteral("server device busy");
    case QModbusPdu::NegativeAcknowledge:
        return QStringLiteral("negative acknowledge");
    case QModbusPdu::MemoryParityError:
        return QStringLiteral("memory parity error");
    case QModbusPdu::GatewayPathUnavailable:
        return QStringLiteral("gateway path unavailable");
    case QModbusPdu::GatewayTargetDeviceFailedToRespond:
        return QStringLiteral("gateway target device failed to respond");
    default:
        return QStringLiteral("unknown exception");
    }
}

bool parityFrom(const QString &text, QSerialPort::Parity *parity)
{
    static const QHash<QString, QSerialPort::Parity> names {
        {QStringLiteral("none"), QSerialPort::NoParity},
        {QStringLiteral("even"), QSerialPort::EvenParity},
        {QStringLiteral("odd"), QSerialPort::OddParity},
        {QStringLiteral("space"), QSerialPort::SpaceParity},
        {QStringLiteral("mark"), QSerialPort::MarkParity}};
    const auto it = names.constFind(text.trimmed().toLower());
    if (it == names.constEnd())
        return false;
    if (parity)
        *parity = it.value();
    return true;
}

bool serialPortExists(const QString &name)
{
    if (!QSerialPortInfo(name).isNull())
        return true;
    // Ports the enumeration does not list (pseudo terminals, adapters without a driver record).
    return QFileInfo::exists(name.startsWith(QLatin1Char('/')) ? name
                                                               : QStringLiteral("/dev/") + name);
}

// A whole number within [lo, hi], or false.
bool intIn(const QVariant &value, int lo, int hi, int *out = nullptr)
{
    bool ok = false;
    const int v = value.toInt(&ok);
    if (!ok || v < lo || v > hi)
        return false;
    if (out)
        *out = v;
    return true;
}

} // namespace

ModbusMaster::ModbusMaster(int id, QObject *parent)
    : ZtMIExtended(id, parent)
{ }

// Normally final() has run. If not, the client (a child) goes down with the base object and
// must not report its last state change to a half-destroyed module.
ModbusMaster::~ModbusMaster()
{
    if (client)
        client->disconnect(this);
}

void ModbusMaster::initOptions()
{
    options.insert(QStringLiteral("host"), QStringLiteral("127.0.0.1"));
    options.insert(QStringLiteral("port"), 502);
    options.insert(QStringLiteral("serialport"), QString());
    options.insert(QStringLiteral("baud"), 19200);
    options.insert(QStringLiteral("parity"), QStringLiteral("even"));
    options.insert(QStringLiteral("databits"), 8);
    options.insert(QStringLiteral("stopbits"), 1);
    options.insert(QStringLiteral("unit"), 1);
    options.insert(QStringLiteral("timeout"), 1000);
    options.insert(QStringLiteral("retries"), 1);
    options.insert(QStringLiteral("poll"), QString());
    options.insert(QStringLiteral("interval"), 1000);
    options.insert(QStringLiteral("scale"), 1.0);
    options.insert(QStringLiteral("signed"), false);
    feedbacks.hash.insert(QStringLiteral("regs"), nullptr);
    streams.hash.insert(QStringLiteral("out"), nullptr);
}

QString ModbusMaster::device() const
{
    const QString port = options.value(QStringLiteral("serialport")).toString().trimmed();
    if (!port.isEmpty())
        return port;
    return QStringLiteral("%1:%2")
        .arg(options.value(QStringLiteral("host")).toString())
        .arg(options.value(QStringLiteral("port")).toString());
}

QStringList ModbusMaster::checkOptions() const
{
    QStringList problems;
    auto value = [this](const char *name) { return options.value(QLatin1String(name)); };
    const QString serial = value("serialport").toString().trimmed();
    if (serial.isEmpty()) {
        if (value("host").toString().trimmed().isEmpty())
            problems << QStringLiteral("host is empty");
        if (!intIn(value("port"), 1, 65535))
            problems << QStringLiteral("port \"%1\" is not a TCP port (1 to 65535)")
                            .arg(value("port").toString());
    } else {
        if (!serialPortExists(serial))
            problems << QStringLiteral("serial port \"%1\" does not exist").arg(serial);
        if (!intIn(value("baud"), 1, 4000000))
            problems
                << QStringLiteral("baud \"%1\" is not a baud rate").arg(value("baud").toString());
        if (!parityFrom(value("parity").toString(), nullptr))
            problems << QStringLiteral("parity \"%1\" is not none, even, odd, space or mark")
                            .arg(value("parity").toString());
        if (!intIn(value("databits"), 5, 8))
            problems << QStringLiteral("databits \"%1\" is not 5 to 8")
                            .arg(value("databits").toString());
        if (!intIn(value("stopbits"), 1, 2))
            problems << QStringLiteral("stopbits \"%1\" is not 1 or 2")
                            .arg(value("stopbits").toString());
    }
    if (!intIn(value("unit"), 0, 255))
        problems << QStringLiteral("unit \"%1\" is not 0 to 255").arg(value("unit").toString());
    if (!intIn(value("timeout"), 10, 600000))
        problems << QStringLiteral("timeout \"%1\" is not 10 to 600000 ms")
                        .arg(value("timeout").toString());
    if (!intIn(value("retries"), 0, 100))
        problems
            << QStringLiteral("retries \"%1\" is not 0 to 100").arg(value("retries").toString());
    QString error;
    ModbusBlock::parseList(value("poll").toString(), &error);
    if (!error.isEmpty())
        problems << QStringLiteral("poll entry %1").arg(error);
    if (!intIn(value("interval"), 10, 86400000))
        problems << QStringLiteral("interval \"%1\" is not 10 ms to a day")
                        .arg(value("interval").toString());
    return problems;
}

bool ModbusMaster::init()
{
    regs = feedbacks.value(QStringLiteral("regs"));
    // Connected even when the options are bad: a requester must get the error answer, not wait.
    connect(regs, &PropagatorFeedback::tryReadList, this, [this](qlonglong pos) {
        Job job;
        job.kind = ReadList;
        job.block = ModbusBlock::fromPos(pos);
        job.refusal = job.block.problem(false);
        enqueue(job);
    });
    connect(regs, &PropagatorFeedback::tryRead, this, [this](qlonglong pos) {
        Job job;
        job.kind = ReadBytes;
        job.block = ModbusBlock::fromPos(pos);
        job.refusal = job.block.problem(false);
        enqueue(job);
    });
    auto write = [this](Kind kind, const QVector<int> &words, bool wellFormed) {
        Job job;
        job.kind = kind;
        if (!wellFormed || words.size() < 3) {
            job.refusal = QStringLiteral("a write is table, address and at least one value");
        } else {
            job.block.table = words.at(0);
            job.block.address = words.at(1);
            job.block.count = words.size() - 2;
            for (int i = 2; i < words.size(); ++i)
                job.values.append(job.block.isBits() ? quint16(words.at(i) != 0)
                                                     : static_cast<quint16>(words.at(i)));
            job.refusal = job.block.problem(true);
        }
        enqueue(job);
    };
    connect(regs, &PropagatorFeedback::tryWriteList, this, [write](const QVariantList &list) {
        QVector<int> words;
        bool wellFormed = true;
        for (const QVariant &v : list) {
            int word = 0;
            // Registers take 0..65535 or their signed reading -32768..-1.
            wellFormed = wellFormed && intIn(v, -32768, 65535, &word);
            words.append(word);
        }
        write(WriteList, words, wellFormed);
    });
    connect(regs, &PropagatorFeedback::tryWrite, this, [write](const QByteArray &bytes) {
        QVector<int> words;
        QDataStream in(bytes);
        while (!in.atEnd()) {
            quint16 word = 0;
            in >> word;
            words.append(word);
        }
        write(WriteBytes, words, bytes.size() % 2 == 0);
    });

    const QStringList problems = checkOptions();
    if (!problems.isEmpty()) {
        for (const QString &problem : problems)
            emit state(QStringLiteral("ModbusMaster %1: %2; not started").arg(device(), problem),
                       Logger::Error);
        errString = problems.join(QStringLiteral("; "));
        return false;
    }

    const QString serial = options.value(QStringLiteral("serialport")).toString().trimmed();
    if (serial.isEmpty()) {
        client = new QModbusTcpClient(this);
        client->setConnectionParameter(QModbusDevice::NetworkAddressParameter,
                                       options.value(QStringLiteral("host")).toString().trimmed());
        client->setConnectionParameter(QModbusDevice::NetworkPortParameter,
                                       options.value(QStringLiteral("port")).toInt());
    } else {
        QSerialPort::Parity parity = QSerialPort::EvenParity;
        parityFrom(options.value(QStringLiteral("parity")).toString(), &parity);
        client = new QModbusRtuSerialMaster(this);
        client->setConnectionParameter(QModbusDevice::SerialPortNameParameter, serial);
        client->setConnectionParameter(QModbusDevice::SerialParityParameter, parity);
        client->setConnectionParameter(QModbusDevice::SerialBaudRateParameter,
                                       options.value(QStringLiteral("baud")).toInt());
        client->setConnectionParameter(QModbusDevice::SerialDataBitsParameter,
                                       options.value(QStringLiteral("databits")).toInt());
        client->setConnectionParameter(QModbusDevice::SerialStopBitsParameter,
                                       options.value(QStringLiteral("stopbits")).toInt());
    }
    connect(client, &QModbusDevice::stateChanged, this, &ModbusMaster::deviceStateChanged);

    pollTimer = new QTimer(this);
    connect(pollTimer, &QTimer::timeout, this, &ModbusMaster::pollNow);
    deadlineTimer = new QTimer(this);
    deadlineTimer->setSingleShot(true);
    connect(deadlineTimer, &QTimer::timeout, this, &ModbusMaster::expire);
    reconnectTimer = new QTimer(this);
    reconnectTimer->setSingleShot(true);
    connect(reconnectTimer, &QTimer::timeout, this, &ModbusMaster::reconnect);

    serving = true;
    applyOptions();
    reconnect();
    return true;
}

void ModbusMaster::final()
{
    closing = true;
    serving = false;
    failPending();
    delete pollTimer;
    delete deadlineTimer;
    delete reconnectTimer;
    pollTimer = deadlineTimer = reconnectTimer = nullptr;
    if (client) {
        client->disconnect(this);
        client->disconnectDevice();
        delete client; // and its replies
        client = nullptr;
    }
    currentReply = nullptr;
}

void ModbusMaster::applyOptions()
{
    if (!serving)
        return;
    timeout = options.value(QStringLiteral("timeout")).toInt();
    retries = options.value(QStringLiteral("retries")).toInt();
    unit = options.value(QStringLiteral("unit")).toInt();
    scale = options.value(QStringLiteral("scale")).toDouble();
    isSigned = options.value(QStringLiteral("signed")).toBool();
    if (timeout < 10 || retries < 0) {
        // A later change from an options synchroniser or the state store; keep working.
        timeout = qMax(10, timeout);
        retries = qMax(0, retries);
    }
    client->setTimeout(timeout);
    client->setNumberOfRetries(retries);

    QString error;
    const QList<ModbusBlock> parsed
        = ModbusBlock::parseList(options.value(QStringLiteral("poll")).toString(), &error);
    if (!error.isEmpty()) {
        emit state(QStringLiteral("ModbusMaster %1: poll entry %2; polling %3 unchanged")
                       .arg(device(), error)
                       .arg(blocks.size()),
                   Logger::Warning);
    } else {
        blocks = parsed;
        pollProblems = QStringList();
        for (int i = 0; i < blocks.size(); ++i)
            pollProblems.append(QString());
    }
    if (blocks.isEmpty()) {
        pollTimer->stop();
    } else {
        pollTimer->start(qBound(10, options.value(QStringLiteral("interval")).toInt(), 86400000));
    }
}

// ---- requests -------------------------------------------------------------------------------

void ModbusMaster::enqueue(Job job)
{
    if (job.kind != Poll) {
        job.serial = ++nextSerial;
        job.deadline = QDeadlineTimer(static_cast<qint64>(timeout) * (retries + 1));
        // Requests go ahead of the polls that wait, behind the requests that came earlier.
        const auto firstPoll
            = std::find_if(queue.begin(), queue.end(), [](const Job &j) { return j.kind == Poll; });
        queue.insert(firstPoll, job);
    } else {
        queue.push_back(job);
    }
    pump();
    armDeadline();

    // A requester in this very thread (a direct propagator) is still inside its call: the answer
    // must be in the buffers when the signal returns. The deadline bounds this wait as well.
    if (job.kind != Poll && regs && regs->getType() == Propagator::Direct) {
        QEventLoop loop;
        QEventLoop *outer = directWait;
        directWait = &loop;
        while (answeredSerial < job.serial)
            loop.exec();
        directWait = outer;
    }
}

void ModbusMaster::pump()
{
    while (!current && !queue.empty()) {
        Job job = queue.front();
        queue.pop_front();
        if (!job.refusal.isEmpty()) {
            emit state(
                QStringLiteral("ModbusMaster %1: request refused: %2").arg(device(), job.refusal),
                Logger::Warning);
            complete(job, false, {});
            continue;
        }
        if (!serving || !client || client->state() != QModbusDevice::ConnectedState) {
            complete(job, false, {});
            continue;
        }
        if (!start(job))
            continue;
        current = job;
        currentAnswered = false;
    }
}

// Puts the job on the wire; false when it finished at once (then it has been completed).
bool ModbusMaster::start(Job &job)
{
    const bool write = job.kind == WriteBytes || job.kind == WriteList;
    QModbusReply *reply = nullptr;
    if (write) {
        QModbusDataUnit data(job.block.registerType(), job.block.address, job.values);
        reply = client->sendWriteRequest(data, unit);
    } else {
        QModbusDataUnit data(job.block.registerType(), job.block.address,
                             static_cast<quint16>(job.block.count));
        reply = client->sendReadRequest(data, unit);
    }
    if (!reply) {
        emit state(QStringLiteral("ModbusMaster %1: %2 of %3 not sent: %4")
                       .arg(device(), write ? QStringLiteral("write") : QStringLiteral("read"),
                            job.block.name(), client->errorString()),
                   Logger::Error);
        complete(job, false, {});
        return false;
    }
    if (reply->isFinished()) {
        // Broadcasts (unit 0) are finished as soon as they are sent.
        const bool ok = reply->error() == QModbusDevice::NoError;
        complete(job, ok, write ? job.values : reply->result().values());
        delete reply;
        return false;
    }
    currentReply = reply;
    connect(reply, &QModbusReply::finished, this, [this, reply] { replyFinished(reply); });
    return true;
}

void ModbusMaster::replyFinished(QModbusReply *reply)
{
    reply->deleteLater();
    if (reply != currentReply || !current)
        return; // given up when the connection went
    Job job = *current;
    current.reset();
    currentReply = nullptr;
    const bool write = job.kind == WriteBytes || job.kind == WriteList;
    const QString what
        = QStringLiteral("%1 of %2")
              .arg(write ? QStringLiteral("write") : QStringLiteral("read"), job.block.name());

    bool ok = false;
    QString problem;
    switch (reply->error()) {
    case QModbusDevice::NoError:
        ok = true;
        break;
    case QModbusDevice::ProtocolError: {
        // An exception answer's data is its code; QModbusPdu's own accessors read the function
        // code field, which QModbusClient fills sign-extended (0xffffff83), out of its enum.
        const QByteArray data = reply->rawResult().data();
        const int code = data.isEmpty() ? 0 : static_cast<quint8>(data.at(0));
        problem = QStringLiteral("Modbus exception %1 (%2) for %3 from unit %4")
                      .arg(code)
                      .arg(exceptionText(code), what)
                      .arg(unit);
        break;
    }
    case QModbusDevice::ConnectionError:
        break; // the loss is logged once, by the state change
    default:
        problem = QStringLiteral("%1 failed: %2").arg(what, reply->errorString());
        break;
    }
    if (!problem.isEmpty() && (job.kind != Poll || pollProblems.value(job.pollIndex) != problem))
        emit state(QStringLiteral("ModbusMaster %1: %2").arg(device(), problem), Logger::Warning);
    if (job.kind == Poll && job.pollIndex < pollProblems.size())
        pollProblems[job.pollIndex] = problem;

    if (!currentAnswered)
        complete(job, ok, write ? job.values : reply->result().values());
    pump();
    armDeadline();
}

void ModbusMaster::complete(Job &job, bool ok, const QVector<quint16> &values)
{
    if (job.kind == Poll)
        pollBlockDone(job.pollIndex, ok, values);
    else
        answer(job, ok, values);
}

void ModbusMaster::answer(const Job &job, bool ok, const QVector<quint16> &values)
{
    answeredSerial = job.serial;
    if (directWait)
        directWait->quit();
    if (!regs)
        return;
    switch (job.kind) {
    case ReadList: {
        QVariantList list;
        if (ok) {
            list.reserve(values.size());
            for (quint16 v : values)
                list.append(static_cast<int>(v));
        }
        regs->readListReturn(list);
        break;
    }
    case ReadBytes: {
        QByteArray bytes;
        if (ok) {
            QDataStream out(&bytes, QIODevice::WriteOnly);
            for (quint16 v : values)
                out << v;
        }
        regs->readReturn(bytes);
        break;
    }
    case WriteList:
        regs->writeListReturn(ok ? job.values.size() : -1);
        break;
    case WriteBytes:
        regs->writeReturn(ok ? job.values.size() : -1);
        break;
    case Poll:
        break;
    }
}

// The deadlines grow with the serials, so the expired requests are answered in order.
void ModbusMaster::expire()
{
    if (current && isRequest(*current) && !currentAnswered && current->deadline.hasExpired()) {
        emit state(QStringLiteral("ModbusMaster %1: no answer to %2 within %3 ms")
                       .arg(device(), current->block.name())
                       .arg(static_cast<qint64>(timeout) * (retries + 1)),
                   Logger::Warning);
        answer(*current, false, {});
        currentAnswered = true;
    }
    for (auto it = queue.begin(); it != queue.end();) {
        if (isRequest(*it) && it->deadline.hasExpired()) {
            answer(*it, false, {});
            it = queue.erase(it);
        } else {
            ++it;
        }
    }
    armDeadline();
}

void ModbusMaster::armDeadline()
{
    if (!deadlineTimer)
        return;
    qint64 next = -1;
    if (current && isRequest(*current) && !currentAnswered)
        next = current->deadline.remainingTime();
    for (const Job &job : queue) {
        if (isRequest(job)) {
            const qint64 left = job.deadline.remainingTime();
            next = next < 0 ? left : qMin(next, left);
            break; // the first waiting request has the earliest deadline
        }
    }
    if (next < 0)
        deadlineTimer->stop();
    else
        deadlineTimer->start(static_cast<int>(qMin<qint64>(next, 86400000)));
}

// Everything outstanding gets its error answer, in order: the job on the wire first.
void ModbusMaster::failPending()
{
    if (current) {
        Job job = *current;
        current.reset();
        currentReply = nullptr; // its finish is ignored; the client owns and deletes it
        if (!currentAnswered || job.kind == Poll)
            complete(job, false, {});
    }
    while (!queue.empty()) {
        Job job = queue.front();
        queue.pop_front();
        complete(job, false, {});
    }
    armDeadline();
}

// ---- connection -----------------------------------------------------------------------------

void ModbusMaster::reconnect()
{
    if (client && client->state() == QModbusDevice::UnconnectedState)
        client->connectDevice();
}

void ModbusMaster::deviceStateChanged(QModbusDevice::State s)
{
    if (closing)
        return;
    if (s == QModbusDevice::ConnectedState) {
        backoff = 500;
        emit state(down ? QStringLiteral("ModbusMaster %1: connection is back").arg(device())
                        : QStringLiteral("ModbusMaster %1: connected").arg(device()),
                   Logger::Info);
        down = false;
        everConnected = true;
        pump();
        return;
    }
    if (s != QModbusDevice::UnconnectedState)
        return;
    failPending();
    if (!down) {
        const QString why = client->errorString();
        emit state(QStringLiteral("ModbusMaster %1: %2%3; reconnecting")
                       .arg(device(),
                            everConnected ? QStringLiteral("connection lost")
                                          : QStringLiteral("cannot connect"),
                            why.isEmpty() ? QString() : QStringLiteral(" (%1)").arg(why)),
                   Logger::Warning);
        down = true;
    }
    reconnectTimer->start(backoff);
    backoff = qMin(backoff * 2, maxBackoff);
}

// ---- polling --------------------------------------------------------------------------------

void ModbusMaster::pollNow()
{
    // A round still on its way (a slow device) is not overtaken by the next one.
    if (pollOutstanding > 0 || !client || client->state() != QModbusDevice::ConnectedState)
        return;
    roundBlocks = blocks;
    pollResults = QVector<std::optional<QVector<quint16>>>(blocks.size());
    pollOutstanding = blocks.size();
    for (int i = 0; i < blocks.size(); ++i) {
        Job job;
        job.kind = Poll;
        job.block = blocks.at(i);
        job.pollIndex = i;
        enqueue(job);
    }
}

void ModbusMaster::pollBlockDone(int index, bool ok, const QVector<quint16> &values)
{
    if (index < 0 || index >= pollResults.size() || pollOutstanding == 0)
        return;
    if (ok)
        pollResults[index] = values;
    if (--pollOutstanding > 0)
        return;

    static const QColor colors[]
        = {QColor(200, 60, 40),  QColor(40, 110, 200), QColor(40, 150, 60),
           QColor(150, 60, 170), QColor(200, 140, 0),  QColor(0, 150, 160)};
    const double t = QTime::currentTime().msecsSinceStartOfDay() / 1000.0;
    ZtDataArray round;
    int curveIndex = 0;
    for (int b = 0; b < pollResults.size(); ++b) {
        const ModbusBlock &block = roundBlocks.at(b);
        if (!pollResults.at(b))
            continue;
        const QVector<quint16> &values = *pollResults.at(b);
        for (int k = 0; k < values.size(); ++k) {
            const double raw
                = isSigned && !block.isBits() ? static_cast<qint16>(values.at(k)) : values.at(k);
            ZtDataArray curve;
            curve.setName(QStringLiteral("%1:%2")
                              .arg(ModbusBlock::tableName(block.table))
                              .arg(block.address + k));
            curve.setPen(QPen(colors[curveIndex++ % 6], 1.5));
            curve.items.append(QVariant::fromValue(ZtDataXY(t, raw * scale)));
            round.items.append(QVariant::fromValue(curve));
        }
    }
    pollResults.clear();
    if (!round.items.isEmpty())
        streams.value(QStringLiteral("out"))->sendArray(round);
}
