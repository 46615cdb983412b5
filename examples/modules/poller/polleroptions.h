#pragma once

#include <wabstractoptions.h>
#include <ztmifound.h>

class QSpinBox;

// Poll interval and setpoint of a poller, as a dialog; writes through a queued
// setOptionsFromList call like the other example option widgets.
class PollerOptions : public WAbstractOptions
{
    Q_OBJECT

public:
    explicit PollerOptions(ZtMIFound *module, QWidget *parent = nullptr);

public slots:
    void readOptions() override;
    void writeOptions() override;

private slots:
    void showOptions(ModuleOptions opts);

private:
    ModuleOptions shown;
    QSpinBox *interval;
    QSpinBox *setpoint;
};
