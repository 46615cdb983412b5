#pragma once

#include <modbusregsarray.h>
#include <ztmiextended.h>

#include <QByteArray>
#include <QVariantList>

class QTimer;

// A simulated register device, an extended module that runs on a worker thread and serves the
// requests of its feedback propagator "regs" like a small Modbus slave:
//   read list   pos = address << 16 | count -> the input registers as a list of ints
//   read bytes  the same, as big-endian 16-bit words
//   write list  [address, value, value, ...] -> holding registers, answers the count written
//   write bytes big-endian words: address, then values
// Its timer moves the input registers: channel k is a sine of period `period` seconds around
// 2048 whose amplitude is holding register 0, shifted by a quarter period per channel.
//
// Options: channels, period (s). Every answer goes back through the same propagator; a
// concurrent one holds its requester until then.
class RegisterDevice : public ZtMIExtended
{
    Q_OBJECT

public:
    explicit RegisterDevice(int id, QObject *parent = nullptr);

public slots:
    bool init() override;
    void final() override;
    void applyOptions() override;

private slots:
    void simulate();
    void serveRead(qlonglong pos);
    void serveReadList(qlonglong pos);
    void serveWrite(QByteArray data);
    void serveWriteList(QVariantList list);

protected:
    void initOptions() override;

private:
    QVariantList readRegisters(qlonglong pos);
    int writeRegisters(int address, const QVector<quint16> &values);

    ModBusRegsArray inputs {ModBusRegsArray::InputRegisters};
    ModBusRegsArray holding {ModBusRegsArray::HoldingRegisters};
    QTimer *timer = nullptr;
    double period = 5.0;
    qint64 reads = 0;
};
