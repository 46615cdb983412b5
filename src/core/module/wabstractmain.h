#pragma once

#include "ztcore_export.h"

#include <QWidget>

class ZtMIFound;

// Base of a module's main widget. The module base calls readOptions() whenever the module's
// options changed (directly, or queued by name when the module lives in another thread).
class ZTCORE_EXPORT WAbstractMain : public QWidget
{
    Q_OBJECT

public:
    explicit WAbstractMain(QWidget *parent = nullptr);

    // The module this widget shows; not owned. The base only clears it.
    void setModule(ZtMIFound *module);
    ZtMIFound *getModule() const;

public slots:
    virtual void readOptions();
    virtual void writeOptions();

protected:
    ZtMIFound *module;
};
