#pragma once

#include <wabstractmain.h>
#include <ztmifound.h>

class QDoubleSpinBox;
class QLabel;
class ZtAction;

// The generator's main widget: start and stop buttons bound to the module's actions, and the
// amplitude bound to the module's value action. Lives on the GUI thread while the module may run
// elsewhere, so it never reads the module's table: it shows the option sets that the module
// announces (sendOptions), delivered here as queued calls.
class GeneratorPanel : public WAbstractMain
{
    Q_OBJECT

public:
    GeneratorPanel(ZtMIFound *module, ZtAction *amplitude, QWidget *parent = nullptr);

public slots:
    void readOptions() override;

private slots:
    void showOptions(ModuleOptions opts);

private:
    ModuleOptions shown;
    QLabel *summary;
    QDoubleSpinBox *amplitudeBox;
};
