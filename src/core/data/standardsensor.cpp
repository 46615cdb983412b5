#include "standardsensor.h"

StandardSensor::StandardSensor()
    : first(0.0)
    , second(0.0)
    , kind(KindDefault)
{ }

StandardSensor::StandardSensor(double ignored)
    : first(0.0)
    , second(0.0)
    , kind(KindOneParameter)
{
    Q_UNUSED(ignored)
}

StandardSensor::StandardSensor(double first, double second)
    : first(first)
    , second(second)
    , kind(KindTwoParameters)
{ }

StandardSensor::StandardSensor(const StandardSensor &other) = default;
StandardSensor &StandardSensor::operator=(const StandardSensor &other) = default;

void StandardSensor::setName(const QString &name)
{
    this->name = name;
}

void StandardSensor::setUnit(const QString &unit)
{
    this->unit = unit;
}

void StandardSensor::setFirst(double value)
{
    first = value;
}

void StandardSensor::setSecond(double value)
{
    second = value;
}
