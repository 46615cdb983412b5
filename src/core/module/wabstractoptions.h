#pragma once

#include "ztcore_export.h"

#include <QDialogButtonBox>
#include <QWidget>

class ZtMIFound;

// Base of a module's options widget. Ok writes the edits into the module (writeOptions) and
// announces changed(); Cancel reloads the shown values from the module (readOptions). The
// subclass places buttonBox in its own layout.
class ZTCORE_EXPORT WAbstractOptions : public QWidget
{
    Q_OBJECT

public:
    explicit WAbstractOptions(QWidget *parent = nullptr);

    // The module this widget edits; not owned. The base only clears it.
    void setModule(ZtMIFound *module);
    ZtMIFound *getModule() const;

signals:
    void changed();

public slots:
    virtual void readOptions();
    virtual void writeOptions();

protected:
    QDialogButtonBox buttonBox;
    ZtMIFound *module;
};
