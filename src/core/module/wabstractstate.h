#pragma once

#include "ztcore_export.h"

#include <QWidget>

// Base of a module's state widget; a shape for the host window, with nothing of its own.
class ZTCORE_EXPORT WAbstractState : public QWidget
{
    Q_OBJECT

public:
    explicit WAbstractState(QWidget *parent = nullptr);
};
