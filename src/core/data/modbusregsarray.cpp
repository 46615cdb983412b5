#include "modbusregsarray.h"

ModBusRegsArray::ModBusRegsArray(RegsType type)
    : startAddress(0)
    , mode(Read)
    , type(type)
{ }

ModBusRegsArray::ModBusRegsArray(const ModBusRegsArray &other) = default;
ModBusRegsArray &ModBusRegsArray::operator=(const ModBusRegsArray &other) = default;

void ModBusRegsArray::setType(RegsType type)
{
    this->type = type;
}

void ModBusRegsArray::setMode(RegsMode mode)
{
    this->mode = mode;
}

void ModBusRegsArray::setStartAddress(int address)
{
    startAddress = address;
}

bool ModBusRegsArray::operator==(const ModBusRegsArray &other) const
{
    return regs == other.regs && bits == other.bits && startAddress == other.startAddress
        && mode == other.mode && type == other.type;
}
