#pragma once

#include <wabstractoptions.h>
#include <ztmifound.h>

class QDoubleSpinBox;

// Gain and offset of a processing stage, as a dialog. Like every options widget of the examples
// it shows what the module announces and writes through a queued setOptionsFromList call.
class ProcessingOptions : public WAbstractOptions
{
    Q_OBJECT

public:
    explicit ProcessingOptions(ZtMIFound *module, QWidget *parent = nullptr);

public slots:
    void readOptions() override;
    void writeOptions() override;

private slots:
    void showOptions(ModuleOptions opts);

private:
    ModuleOptions shown;
    QDoubleSpinBox *gain;
    QDoubleSpinBox *offset;
};
