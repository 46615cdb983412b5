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
