#pragma once

#include <ztmistream.h>

#include <QVariantList>

class QTimer;
class ZtAction;

// A stream module that produces a waveform in blocks: every `interval` ms its timer, which lives
// in the module's own thread, emits ImReady with one curve of rate * interval / 1000 samples in
// the flat ZtDataArray form (one nested array named "generator", points of time in seconds of
// the day against value).
//
// Options: waveform (sine, square, triangle, saw), frequency (Hz), amplitude, rate (samples/s),
// interval (ms). Values restored from a state file arrive as strings, so every read converts.
//
// Actions (created without parent on the GUI thread, so that menus and tool bars may hold them;
// the module deletes them): "start" (wired by the settings file), "stop", and "amplitude", a
// ZtAction whose value is the amplitude: the generator panel edits it, the module follows its
// valueChanged(double) and pushes option changes back into it.
class SignalGenerator : public ZtMIStream
{
    Q_OBJECT

public:
    explicit SignalGenerator(int id, QObject *parent = nullptr);

    QWidget *getWMain(QWidget *parent) override;
    QWidget *getWOptions(QWidget *parent) override;

    // The waveform's value at `phase` (in periods) for a shape name; unknown names give a sine.
    static double waveValue(const QString &shape, double phase);

public slots:
    bool init() override;
    void final() override;
    void applyOptions() override;
    void start();
    void stop();
    void setAmplitude(double amplitude);

private slots:
    void generate();

protected:
    void initOptions() override;
    void createActions() override;

private:
    QTimer *timer = nullptr;
    ZtAction *amplitudeAction = nullptr;
    double phase = 0.0;
    // Time of the last sample sent, in seconds of the day; negative before the first block.
    double clock = -1.0;
    qint64 blocks = 0;
    QString shape;
    double frequency = 0.0;
    double amplitude = 0.0;
    int rate = 0;
    int interval = 0;
};
