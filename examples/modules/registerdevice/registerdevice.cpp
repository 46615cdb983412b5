#include "registerdevice.h"

#include <propagatorfeedback.h>

#include <QDataStream>
#include <QTime>
#include <QTimer>

#include <cmath>

RegisterDevice::RegisterDevice(int id, QObject *parent)
    : ZtMIExtended(id, parent)
{
    holding.regs.fill(0, 8);
    holding.regs[0] = 1000;
}

void RegisterDevice::initOptions()
{
    options.insert(QStringLiteral("channels"), 4);
    options.insert(QStringLiteral("period"), 5.0);
    feedbacks.hash.insert(QStringLiteral("regs"), nullptr);
}

bool RegisterDevice::init()
{
    PropagatorFeedback *pg = feedbacks.value(QStringLiteral("regs"));
    // The propagator emits its requests in its own thread; they reach this module queued.
    connect(pg, &PropagatorFeedback::tryRead, this, &RegisterDevice::serveRead);
    connect(pg, &PropagatorFeedback::tryReadList, this, &RegisterDevice::serveReadList);
    connect(pg, &PropagatorFeedback::tryWrite, this, &RegisterDevice::serveWrite);
    connect(pg, &PropagatorFeedback::tryWriteList, this, &RegisterDevice::serveWriteList);

    timer = new QTimer(this);
    connect(timer, &QTimer::timeout, this, &RegisterDevice::simulate);
    applyOptions();
    simulate();
    timer->start(50);
    return true;
}

void RegisterDevice::final()
{
    delete timer;
    timer = nullptr;
}

void RegisterDevice::applyOptions()
{
    period = qMax(0.1, options.value(QStringLiteral("period")).toDouble());
    const int channels = qBound(1, options.value(QStringLiteral("channels")).toInt(), 64);
    inputs.regs.resize(channels);
}

void RegisterDevice::simulate()
{
    const double t = QTime::currentTime().msecsSinceStartOfDay() / 1000.0;
    const double level = holding.regs.at(0);
    for (int k = 0; k < inputs.regs.size(); ++k) {
        const double v = 2048.0 + level * std::sin(2.0 * M_PI * (t / period + k * 0.25));
        inputs.regs[k] = static_cast<quint16>(qBound(0.0, v, 65535.0));
    }
}

QVariantList RegisterDevice::readRegisters(qlonglong pos)
{
    const int address = static_cast<int>(pos >> 16);
    const int count = static_cast<int>(pos & 0xffff);
    QVariantList values;
    for (int i = 0; i < count; ++i)
        values.append(static_cast<int>(inputs.regs.value(address + i, 0)));
    if (reads++ % 50 == 0)
        emit state(QStringLiteral("served read %1 of %2 registers at %3")
                       .arg(reads)
                       .arg(count)
                       .arg(address),
                   Logger::Message);
    return values;
}

void RegisterDevice::serveReadList(qlonglong pos)
{
    feedbacks.value(QStringLiteral("regs"))->readListReturn(readRegisters(pos));
}

void RegisterDevice::serveRead(qlonglong pos)
{
    QByteArray bytes;
    QDataStream out(&bytes, QIODevice::WriteOnly);
    for (const QVariant &v : readRegisters(pos))
        out << static_cast<quint16>(v.toInt());
    feedbacks.value(QStringLiteral("regs"))->readReturn(bytes);
}

int RegisterDevice::writeRegisters(int address, const QVector<quint16> &values)
{
    if (address < 0 || address + values.size() > holding.regs.size()) {
        emit state(
            QStringLiteral("refused write of %1 registers at %2").arg(values.size()).arg(address),
            Logger::Warning);
        return 0;
    }
    for (int i = 0; i < values.size(); ++i)
        holding.regs[address + i] = values.at(i);
    // The inputs follow a new amplitude at once, not only at the next tick.
    simulate();
    emit state(QStringLiteral("wrote %1 registers at %2, first %3")
                   .arg(values.size())
                   .arg(address)
                   .arg(values.value(0)),
               Logger::Info);
    return values.size();
}

void RegisterDevice::serveWriteList(QVariantList list)
{
    QVector<quint16> values;
    for (int i = 1; i < list.size(); ++i)
        values.append(static_cast<quint16>(list.at(i).toUInt()));
    const int written = list.isEmpty() ? 0 : writeRegisters(list.first().toInt(), values);
    feedbacks.value(QStringLiteral("regs"))->writeListReturn(written);
}

void RegisterDevice::serveWrite(QByteArray data)
{
    QDataStream in(data);
    quint16 address = 0;
    in >> address;
    QVector<quint16> values;
    while (!in.atEnd()) {
        quint16 v = 0;
        in >> v;
        values.append(v);
    }
    const int written = data.size() < 2 ? 0 : writeRegisters(address, values);
    feedbacks.value(QStringLiteral("regs"))->writeReturn(written);
}
