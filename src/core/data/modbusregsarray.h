#pragma once

#include "ztcore_export.h"

#include <QVector>

// A block of Modbus data as a module reads or writes it: 16-bit registers for the register
// tables, one byte per bit (0 or 1) for the bit tables, the address of the first element, the
// table it belongs to and what the module is asked to do with it.
class ZTCORE_EXPORT ModBusRegsArray
{
public:
    enum RegsType { Coils = 0, DiscreteInputs = 1, InputRegisters = 2, HoldingRegisters = 3 };
    enum RegsMode { Read = 0, Write = 1, ReadWrite = 2 };

    explicit ModBusRegsArray(RegsType type);
    ModBusRegsArray(const ModBusRegsArray &other);
    ModBusRegsArray &operator=(const ModBusRegsArray &other);

    RegsType getType() const { return type; }
    void setType(RegsType type);
    RegsMode getMode() const { return mode; }
    void setMode(RegsMode mode);
    int getStartAddress() const { return startAddress; }
    void setStartAddress(int address);

    QVector<quint16> regs;
    QVector<quint8> bits;

private:
    int startAddress;
    RegsMode mode;
    RegsType type;
};
