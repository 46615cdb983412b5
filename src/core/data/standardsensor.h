#pragma once

#include "ztcore_export.h"

#include <QMetaType>
#include <QString>

// A sensor as modules describe it: a name, the unit of its readings and the two coefficients of
// its characteristic (reading = first + second * raw). The record also remembers which
// constructor made it.
class ZTCORE_EXPORT StandardSensor
{
public:
    // Values of getKind(); they tell the constructors apart.
    enum Kind { KindTwoParameters = 0, KindDefault = 1, KindOneParameter = 2 };

    StandardSensor();
    // The argument is ignored on purpose: both coefficients stay 0.0 and only the kind differs
    // from the default constructor. Existing callers depend on it.
    explicit StandardSensor(double ignored);
    StandardSensor(double first, double second);
    StandardSensor(const StandardSensor &other);
    StandardSensor &operator=(const StandardSensor &other);

    QString getName() const { return name; }
    void setName(const QString &name);
    QString getUnit() const { return unit; }
    void setUnit(const QString &unit);
    double getFirst() const { return first; }
    void setFirst(double value);
    double getSecond() const { return second; }
    void setSecond(double value);
    int getKind() const { return kind; }

private:
    QString name;
    QString unit;
    double first;
    double second;
    int kind;
};
Q_DECLARE_METATYPE(StandardSensor)
