#pragma once

#include "ztcore_export.h"

#include <QAction>
#include <QVariant>

// An action that carries a value in its data(). Each setter stores the value and emits its own
// overload of valueChanged() only when the value really changed, so that menus, tool bars and
// modules can observe one value without feedback loops.
class ZTCORE_EXPORT ZtAction : public QAction
{
    Q_OBJECT

public:
    explicit ZtAction(QObject *parent = nullptr);

signals:
    void valueChanged(int value);
    void valueChanged(double value);
    void valueChanged(QVariant value);

public slots:
    void setValue(int value);
    void setValue(double value);
    void setValue(QVariant value);
};
