#include "modbusserver.h"

#include <propagatorstream.h>
#include <ztdataarray.h>
#include <ztdatawrapper.h>
#include <ztdataxy.h>
#include <ztdatay.h>

#include <QCoreApplication>
#include <QModbusDataUnitMap>
#include <QUrl>

#include <cmath>

namespace {

quint16 word(const QByteArray &data, int at)
{
    return static_cast<quint16>(static_cast<quint8>(data.at(at)) << 8
                                | static_cast<quint8>(data.at(at + 1)));
}

bool intIn(const QVariant &value, int lo, int hi)
{
    bool ok = false;
    const int v = value.toInt(&ok);
    return ok && v >= lo && v <= hi;
}

bool isNumber(const QVariant &v)
{
    switch (static_cast<int>(v.type())) {
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Double:
    case QMetaType::Float:
    case QMetaType::Short:
    case QMetaType::UShort:
    case QMetaType::Bool:
        return true;
    default:
        return false;
    }
}

// The value an item stands for: its y, or for a nested array its latest item's.
bool itemValue(const QVariant &item, double *value)
{
    const int type = item.userType();
    if (type == qMetaTypeId<ZtDataXY>()) {
        *value = item.value<ZtDataXY>().getY().toDouble();
        return true;
    }
    if (type == qMetaTypeId<ZtDataY>()) {
        *value = item.value<ZtDataY>().getY().toDouble();
        return true;
    }
    if (type == qMetaTypeId<ZtDataArray>()) {
        const ZtDataArray array = item.value<ZtDataArray>();
        for (int i = array.items.size() - 1; i >= 0; --i) {
            if (itemValue(array.items.at(i), value))
                return true;
        }
    }
    return false;
}

// A plain list of numbers (bare values may be followed by the invalid terminator) is taken as
// it is; anything else is read as a flattened ZtDataArray.
QVector<double> valuesOf(const QVariantList &list)
{
    QVector<double> values;
    bool plain = true;
    for (const QVariant &v : list) {
        if (!v.isValid())
            continue;
        if (!isNumber(v)) {
            plain = false;
            break;
        }
        values.append(v.toDouble());
    }
    if (plain)
        return values;
    values.clear();
    const ZtDataArray array = ZtDataWrapper::convListToArray(list);
    for (const QVariant &item : array.items) {
        double value = 0.0;
        if (itemValue(item, &value))
            values.append(value);
    }
    return values;
}

} // namespace

QModbusResponse ReportingModbusServer::processRequest(const QModbusPdu &request)
{
    const QModbusResponse response = QModbusTcpServer::processRequest(request);
    if (response.isException())
        return response;
    const QByteArray data = request.data();
    switch (request.functionCode()) {
    case QModbusPdu::WriteSingleCoil:
        if (data.size() >= 2)
            emit clientWrote(0, word(data, 0), 1);
        break;
    case QModbusPdu::WriteSingleRegister:
        if (data.size() >= 2)
            emit clientWrote(3, word(data, 0), 1);
        break;
    case QModbusPdu::WriteMultipleCoils:
        if (data.size() >= 4)
            emit clientWrote(0, word(data, 0), word(data, 2));
        break;
    case QModbusPdu::WriteMultipleRegisters:
        if (data.size() >= 4)
            emit clientWrote(3, word(data, 0), word(data, 2));
        break;
    case QModbusPdu::ReadWriteMultipleRegisters:
        if (data.size() >= 8)
            emit clientWrote(3, word(data, 4), word(data, 6));
        break;
    case QModbusPdu::MaskWriteRegister:
        if (data.size() >= 2)
            emit clientWrote(3, word(data, 0), 1);
        break;
    default:
        break;
    }
    return response;
}

ModbusServer::ModbusServer(int id, QObject *parent)
    : ZtMIExtended(id, parent)
{ }

void ModbusServer::initOptions()
{
    options.insert(QStringLiteral("host"), QStringLiteral("127.0.0.1"));
    options.insert(QStringLiteral("port"), 5020);
    options.insert(QStringLiteral("unit"), 1);
    options.insert(QStringLiteral("registers"), 100);
    options.insert(QStringLiteral("inputbase"), 0);
    options.insert(QStringLiteral("scale"), 1.0);
    options.insert(QStringLiteral("signed"), true);
    streams.hash.insert(QStringLiteral("in"), nullptr);
    streams.hash.insert(QStringLiteral("writes"), nullptr);
}

QStringList ModbusServer::checkOptions() const
{
    QStringList problems;
    auto value = [this](const char *name) { return options.value(QLatin1String(name)); };
    if (!intIn(value("port"), 1, 65535))
        problems << QStringLiteral("port \"%1\" is not a TCP port (1 to 65535)")
                        .arg(value("port").toString());
    if (!intIn(value("unit"), 0, 255))
        problems << QStringLiteral("unit \"%1\" is not 0 to 255").arg(value("unit").toString());
    if (!intIn(value("registers"), 1, 65535))
        problems << QStringLiteral("registers \"%1\" is not 1 to 65535")
                        .arg(value("registers").toString());
    else if (!intIn(value("inputbase"), 0, value("registers").toInt() - 1))
        problems << QStringLiteral("inputbase \"%1\" is not a register (0 to %2)")
                        .arg(value("inputbase").toString())
                        .arg(value("registers").toInt() - 1);
    bool scaleOk = false;
    value("scale").toDouble(&scaleOk);
    if (!scaleOk)
        problems << QStringLiteral("scale \"%1\" is not a number").arg(value("scale").toString());
    return problems;
}

bool ModbusServer::init()
{
    const QString where
        = QStringLiteral("%1:%2").arg(options.value(QStringLiteral("host")).toString(),
                                      options.value(QStringLiteral("port")).toString());
    const QStringList problems = checkOptions();
    if (!problems.isEmpty()) {
        for (const QString &problem : problems)
            emit state(QStringLiteral("ModbusServer %1: %2; not started").arg(where, problem),
                       Logger::Error);
        errString = problems.join(QStringLiteral("; "));
        return false;
    }

    registers = options.value(QStringLiteral("registers")).toInt();
    server = new ReportingModbusServer(this);
    QModbusDataUnitMap map;
    for (auto type : {QModbusDataUnit::Coils, QModbusDataUnit::DiscreteInputs,
                      QModbusDataUnit::InputRegisters, QModbusDataUnit::HoldingRegisters})
        map.insert(type, QModbusDataUnit(type, 0, static_cast<quint16>(registers)));
    server->setMap(map);
    server->setServerAddress(options.value(QStringLiteral("unit")).toInt());
    server->setConnectionParameter(QModbusDevice::NetworkAddressParameter,
                                   options.value(QStringLiteral("host")).toString());
    server->setConnectionParameter(QModbusDevice::NetworkPortParameter,
                                   options.value(QStringLiteral("port")).toInt());
    if (!server->connectDevice() || server->state() != QModbusDevice::ConnectedState) {
        errString = server->errorString();
        emit state(QStringLiteral("ModbusServer %1: cannot listen (%2); not started")
                       .arg(where, errString),
                   Logger::Error);
        delete server;
        server = nullptr;
        return false;
    }
    connect(server, &ReportingModbusServer::clientWrote, this, &ModbusServer::reportWrite);
    connect(streams.value(QStringLiteral("in")), &PropagatorStream::trySendList, this,
            &ModbusServer::receive);
    emit state(QStringLiteral("ModbusServer %1: serving unit %2, %3 elements per table")
                   .arg(where, options.value(QStringLiteral("unit")).toString())
                   .arg(registers),
               Logger::Info);
    return true;
}

void ModbusServer::final()
{
    if (!server)
        return;
    disconnect(streams.value(QStringLiteral("in")), nullptr, this, nullptr);
    server->disconnectDevice();
    // QModbusTcpServer frees a connection's buffer when the closed socket reports it, in this
    // thread's event loop: let that run before the server goes. Only this thread's events run
    // here, and "in" is no longer connected.
    QCoreApplication::processEvents();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    delete server;
    server = nullptr;
}

void ModbusServer::receive(const QVariantList &list)
{
    if (!server)
        return;
    const QVector<double> values = valuesOf(list);
    const int base = options.value(QStringLiteral("inputbase")).toInt();
    const double scale = options.value(QStringLiteral("scale")).toDouble();
    const bool isSigned = options.value(QStringLiteral("signed")).toBool();
    const int count = qMin(values.size(), registers - base);
    if (count < values.size() && !clipped) {
        clipped = true;
        emit state(QStringLiteral("ModbusServer: %1 values from register %2 do not fit into %3 "
                                  "input registers; the rest is dropped")
                       .arg(values.size())
                       .arg(base)
                       .arg(registers),
                   Logger::Warning);
    }
    if (count <= 0)
        return;
    QVector<quint16> words(count);
    for (int i = 0; i < count; ++i) {
        const double v = std::round(values.at(i) * scale);
        // NaN goes to 0; the comparisons below are false for it.
        const double lo = isSigned ? -32768.0 : 0.0;
        const double hi = isSigned ? 32767.0 : 65535.0;
        const double clamped = std::isnan(v) ? 0.0 : qBound(lo, v, hi);
        words[i] = static_cast<quint16>(static_cast<int>(clamped));
    }
    server->setData(QModbusDataUnit(QModbusDataUnit::InputRegisters, base, words));
}

void ModbusServer::reportWrite(int table, int address, int count)
{
    QModbusDataUnit unit(table == 0 ? QModbusDataUnit::Coils : QModbusDataUnit::HoldingRegisters,
                         address, static_cast<quint16>(count));
    if (!server || !server->data(&unit))
        return;
    QVariantList list {table, address};
    bool raw = false;
    for (quint16 v : unit.values()) {
        // QModbusServer keeps a single coil write as its wire value 0xff00.
        raw = raw || (table == 0 && v > 1);
        list.append(static_cast<int>(table == 0 ? v != 0 : v));
    }
    if (raw) {
        QVector<quint16> bits;
        for (int i = 2; i < list.size(); ++i)
            bits.append(static_cast<quint16>(list.at(i).toInt()));
        server->setData(QModbusDataUnit(QModbusDataUnit::Coils, address, bits));
    }
    emit state(QStringLiteral("ModbusServer: client wrote %1 %2 at %3")
                   .arg(count)
                   .arg(table == 0 ? QStringLiteral("coils") : QStringLiteral("holding registers"))
                   .arg(address),
               Logger::Message);
    streams.value(QStringLiteral("writes"))->sendList(list);
}
