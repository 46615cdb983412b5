#include "ztaction.h"

ZtAction::ZtAction(QObject *parent)
    : QAction(parent)
{ }

void ZtAction::setValue(int value)
{
    if (data().toInt() == value)
        return;
    setData(value);
    emit valueChanged(value);
}

void ZtAction::setValue(double value)
{
    // Equal only when neither side is NaN and neither is less or greater than the other, so a
    // NaN always counts as a change.
    const double current = data().toDouble();
    const bool equal
        = !qIsNaN(current) && !qIsNaN(value) && !(current < value) && !(current > value);
    if (equal)
        return;
    setData(value);
    emit valueChanged(value);
}

void ZtAction::setValue(QVariant value)
{
    if (data() == value)
        return;
    setData(value);
    emit valueChanged(value);
}
