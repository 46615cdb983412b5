#pragma once

#include <ztmiextended.h>

#include <QModbusTcpServer>
#include <QVariantList>

// A Modbus TCP server that also says which client writes it served. QModbusServer reports
// changed values only (dataWritten); a SCADA system that writes the same setpoint twice still
// expects two writes, so the request itself is looked at once the server has stored it.
class ReportingModbusServer : public QModbusTcpServer
{
    Q_OBJECT

public:
    explicit ReportingModbusServer(QObject *parent = nullptr)
        : QModbusTcpServer(parent)
    { }

signals:
    // table as ModBusRegsArray::RegsType numbers it (0 coils, 3 holding registers).
    void clientWrote(int table, int address, int count);

protected:
    QModbusResponse processRequest(const QModbusPdu &request) override;
};

// An extended module that serves four Modbus tables of `registers` elements each over TCP
// (`host`, `port`, answering as `unit`), in its own thread.
//   - Lists arriving on the stream propagator "in" fill the input registers: value i goes to
//     register `inputbase` + i, multiplied by `scale`, rounded and clamped to 16 bits (signed
//     -32768..32767 stored as two's complement, or with `signed` false 0..65535). A nested curve
//     (a ZtDataArray flattened by ZtDataWrapper) counts as one value: its latest sample.
//   - What clients write into coils and holding registers stays there (they read it back) and
//     goes out on the stream propagator "writes" as [table, address, value, ...].
class ModbusServer : public ZtMIExtended
{
    Q_OBJECT

public:
    explicit ModbusServer(int id, QObject *parent = nullptr);

public slots:
    bool init() override;
    void final() override;

protected:
    void initOptions() override;

private:
    QStringList checkOptions() const;
    void receive(const QVariantList &list);
    void reportWrite(int table, int address, int count);

    ReportingModbusServer *server = nullptr;
    int registers = 0;
    bool clipped = false; // values past the last input register were dropped and said so
};
