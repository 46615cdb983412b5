#pragma once

#include <wabstractoptions.h>
#include <ztmifound.h>

class QComboBox;
class QDoubleSpinBox;
class QSpinBox;

// The generator's options dialog. Shows the option sets the module announces; Ok hands the
// edits to the module as one setOptionsFromList call queued into the module's thread, so the
// module's table is only ever written there.
class GeneratorOptions : public WAbstractOptions
{
    Q_OBJECT

public:
    explicit GeneratorOptions(ZtMIFound *module, QWidget *parent = nullptr);

public slots:
    void readOptions() override;
    void writeOptions() override;

private slots:
    void showOptions(ModuleOptions opts);

private:
    ModuleOptions shown;
    QComboBox *waveform;
    QDoubleSpinBox *frequency;
    QDoubleSpinBox *amplitude;
    QSpinBox *rate;
};
