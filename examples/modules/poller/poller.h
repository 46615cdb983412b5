#pragma once

#include <ztmiextended.h>

class QTimer;

// An extended module on a worker thread that polls a register device through its feedback
// propagator "dev" and streams what it read through its stream propagator "out": every
// `interval` ms it reads `count` registers from `address` (one blocking readList: across threads
// the propagator holds this thread until the device answered) and sends one curve per register,
// named "register <n>", with one point (time of day in seconds, value * scale).
// On start and whenever "setpoint" changes it writes the setpoint into holding register 0.
//
// Options: interval (ms), address, count, scale, setpoint. Polling starts through the "poll"
// action (wired to the kernel's start signal by the settings file) so that the device is
// initialised before the first request.
class Poller : public ZtMIExtended
{
    Q_OBJECT

public:
    explicit Poller(int id, QObject *parent = nullptr);

    QWidget *getWOptions(QWidget *parent) override;

public slots:
    bool init() override;
    void final() override;
    void applyOptions() override;
    void start();

private slots:
    void poll();

protected:
    void initOptions() override;
    void createActions() override;

private:
    void writeSetpoint();

    QTimer *timer = nullptr;
    int address = 0;
    int count = 1;
    double scale = 1.0;
    int setpoint = -1;
    int written = -1;
    qint64 polls = 0;
};
