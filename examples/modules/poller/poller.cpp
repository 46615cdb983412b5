#include "poller.h"

#include "polleroptions.h"

#include <propagatorfeedback.h>
#include <propagatorstream.h>
#include <ztdataarray.h>
#include <ztdataxy.h>

#include <QAction>
#include <QColor>
#include <QPen>
#include <QTime>
#include <QTimer>

Poller::Poller(int id, QObject *parent)
    : ZtMIExtended(id, parent)
{ }

void Poller::initOptions()
{
    options.insert(QStringLiteral("interval"), 200);
    options.insert(QStringLiteral("address"), 0);
    options.insert(QStringLiteral("count"), 2);
    options.insert(QStringLiteral("scale"), 0.001);
    options.insert(QStringLiteral("setpoint"), 1000);
    feedbacks.hash.insert(QStringLiteral("dev"), nullptr);
    streams.hash.insert(QStringLiteral("out"), nullptr);
}

void Poller::createActions()
{
    actions.insert(QStringLiteral("poll"), new QAction(tr("Poll")));
}

QWidget *Poller::getWOptions(QWidget *parent)
{
    if (!wOptions)
        wOptions = new PollerOptions(this, parent);
    return wOptions;
}

bool Poller::init()
{
    timer = new QTimer(this);
    connect(timer, &QTimer::timeout, this, &Poller::poll);
    return true;
}

void Poller::final()
{
    delete timer;
    timer = nullptr;
}

void Poller::applyOptions()
{
    address = qBound(0, options.value(QStringLiteral("address")).toInt(), 0xffff);
    count = qBound(1, options.value(QStringLiteral("count")).toInt(), 64);
    scale = options.value(QStringLiteral("scale")).toDouble();
    setpoint = qBound(0, options.value(QStringLiteral("setpoint")).toInt(), 0xffff);
    if (timer) {
        timer->setInterval(qBound(10, options.value(QStringLiteral("interval")).toInt(), 60000));
        if (timer->isActive())
            writeSetpoint();
    }
}

void Poller::start()
{
    if (!timer || timer->isActive())
        return;
    writeSetpoint();
    timer->start();
    emit state(QStringLiteral("polling %1 registers at %2 every %3 ms")
                   .arg(count)
                   .arg(address)
                   .arg(timer->interval()),
               Logger::Info);
}

void Poller::writeSetpoint()
{
    if (setpoint == written)
        return;
    const qlonglong answer
        = feedbacks.value(QStringLiteral("dev"))->writeList(QVariantList {0, setpoint});
    written = setpoint;
    emit state(QStringLiteral("setpoint %1 written, device answered %2").arg(setpoint).arg(answer),
               Logger::Info);
}

void Poller::poll()
{
    const qlonglong pos = static_cast<qlonglong>(address) << 16 | count;
    const QVariantList values = feedbacks.value(QStringLiteral("dev"))->readList(pos);
    if (values.isEmpty())
        return;
    const double t = QTime::currentTime().msecsSinceStartOfDay() / 1000.0;
    static const QColor colors[]
        = {QColor(200, 60, 40), QColor(40, 150, 60), QColor(150, 60, 170), QColor(200, 140, 0)};
    ZtDataArray block;
    QStringList shown;
    for (int k = 0; k < values.size(); ++k) {
        ZtDataArray curve;
        curve.setName(QStringLiteral("register %1").arg(address + k));
        curve.setPen(QPen(colors[k % 4], 2.0));
        curve.items.append(QVariant::fromValue(ZtDataXY(t, values.at(k).toDouble() * scale)));
        block.items.append(QVariant::fromValue(curve));
        shown.append(values.at(k).toString());
    }
    if (polls++ % 25 == 0)
        emit state(QStringLiteral("received registers %1..%2: %3")
                       .arg(address)
                       .arg(address + values.size() - 1)
                       .arg(shown.join(QStringLiteral(", "))),
                   Logger::Info);
    streams.value(QStringLiteral("out"))->sendArray(block);
}
