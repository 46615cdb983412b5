#include "signalgenerator.h"

#include "generatoroptions.h"
#include "generatorpanel.h"

#include <ztaction.h>
#include <ztdataarray.h>
#include <ztdatawrapper.h>
#include <ztdataxy.h>

#include <QAction>
#include <QColor>
#include <QPen>
#include <QTime>
#include <QTimer>

#include <cmath>

SignalGenerator::SignalGenerator(int id, QObject *parent)
    : ZtMIStream(id, parent)
{ }

void SignalGenerator::initOptions()
{
    options.insert(QStringLiteral("waveform"), QStringLiteral("sine"));
    options.insert(QStringLiteral("frequency"), 2.0);
    options.insert(QStringLiteral("amplitude"), 1.0);
    options.insert(QStringLiteral("rate"), 1000);
    options.insert(QStringLiteral("interval"), 50);
}

void SignalGenerator::createActions()
{
    auto *startAction = new QAction(tr("Start"));
    auto *stopAction = new QAction(tr("Stop"));
    amplitudeAction = new ZtAction;
    amplitudeAction->setText(tr("Reset amplitude"));
    amplitudeAction->setValue(1.0);
    actions.insert(QStringLiteral("start"), startAction);
    actions.insert(QStringLiteral("stop"), stopAction);
    actions.insert(QStringLiteral("amplitude"), amplitudeAction);

    // "start" is wired by the settings file (actstart), "stop" here. Both reach the module in
    // its own thread as queued calls once it has been moved there.
    connect(stopAction, &QAction::triggered, this, &SignalGenerator::stop);
    connect(amplitudeAction, QOverload<double>::of(&ZtAction::valueChanged), this,
            &SignalGenerator::setAmplitude);
    ZtAction *value = amplitudeAction;
    connect(amplitudeAction, &QAction::triggered, value, [value] { value->setValue(1.0); });
}

QWidget *SignalGenerator::getWMain(QWidget *parent)
{
    if (!wMain)
        wMain = new GeneratorPanel(this, amplitudeAction, parent);
    return wMain;
}

QWidget *SignalGenerator::getWOptions(QWidget *parent)
{
    if (!wOptions)
        wOptions = new GeneratorOptions(this, parent);
    return wOptions;
}

bool SignalGenerator::init()
{
    // Runs in the module's thread, so the timer lives there too.
    timer = new QTimer(this);
    connect(timer, &QTimer::timeout, this, &SignalGenerator::generate);
    applyOptions();
    return true;
}

void SignalGenerator::final()
{
    delete timer;
    timer = nullptr;
}

void SignalGenerator::applyOptions()
{
    shape = options.value(QStringLiteral("waveform")).toString();
    frequency = qBound(0.0, options.value(QStringLiteral("frequency")).toDouble(), 1000.0);
    amplitude = options.value(QStringLiteral("amplitude")).toDouble();
    rate = qBound(1, options.value(QStringLiteral("rate")).toInt(), 100000);
    interval = qBound(10, options.value(QStringLiteral("interval")).toInt(), 10000);
    if (timer)
        timer->setInterval(interval);
    // The action lives on the GUI thread.
    QMetaObject::invokeMethod(amplitudeAction, "setValue", Qt::QueuedConnection,
                              Q_ARG(double, amplitude));
    emit state(QStringLiteral("options: %1 %2 Hz, amplitude %3, %4 samples/s")
                   .arg(shape)
                   .arg(frequency)
                   .arg(amplitude)
                   .arg(rate),
               Logger::Info);
}

void SignalGenerator::start()
{
    if (!timer || timer->isActive())
        return;
    timer->start(interval);
    emit myStatus(QStringLiteral("generator started"));
}

void SignalGenerator::stop()
{
    if (!timer || !timer->isActive())
        return;
    timer->stop();
    emit myStatus(QStringLiteral("generator stopped"));
}

void SignalGenerator::setAmplitude(double value)
{
    if (qFuzzyCompare(1.0 + value, 1.0 + options.value(QStringLiteral("amplitude")).toDouble()))
        return;
    options.insert(QStringLiteral("amplitude"), value);
    actForOptionsChanged();
}

double SignalGenerator::waveValue(const QString &shape, double phase)
{
    const double p = phase - std::floor(phase);
    if (shape == QLatin1String("square"))
        return p < 0.5 ? 1.0 : -1.0;
    if (shape == QLatin1String("triangle"))
        return p < 0.5 ? 4.0 * p - 1.0 : 3.0 - 4.0 * p;
    if (shape == QLatin1String("saw"))
        return 2.0 * p - 1.0;
    return std::sin(2.0 * M_PI * p);
}

void SignalGenerator::generate()
{
    const int count = qMax(1, rate * interval / 1000);
    const double step = 1.0 / rate;
    // Samples are evenly spaced: the block continues where the last one ended, and follows the
    // wall clock only when the two drift apart (a stall, a stop, midnight), since timer ticks
    // jitter.
    const double now = QTime::currentTime().msecsSinceStartOfDay() / 1000.0;
    double start = clock + step;
    if (clock < 0.0 || qAbs(start + (count - 1) * step - now) > 0.25)
        start = now - (count - 1) * step;
    clock = start + (count - 1) * step;

    ZtDataArray curve;
    curve.setName(QStringLiteral("generator"));
    curve.setPen(QPen(QColor(40, 90, 200), 1.5));
    for (int i = 0; i < count; ++i) {
        const double t = start + i * step;
        curve.items.append(QVariant::fromValue(ZtDataXY(t, amplitude * waveValue(shape, phase))));
        phase += frequency * step;
    }
    phase -= std::floor(phase);

    ZtDataArray block;
    block.items.append(QVariant::fromValue(curve));
    emit ImReady(ZtDataWrapper::convArrayToList(block));
    if (blocks++ % 100 == 0)
        emit state(QStringLiteral("sent block %1 of %2 samples").arg(blocks).arg(count),
                   Logger::Message);
}
