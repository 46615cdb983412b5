#include "processingstage.h"

#include "processingoptions.h"

#include <ztdataarray.h>
#include <ztdatawrapper.h>
#include <ztdataxy.h>

#include <QColor>
#include <QPen>

ProcessingStage::ProcessingStage(int id, QObject *parent)
    : ZtMIStream(id, parent)
{ }

void ProcessingStage::initOptions()
{
    options.insert(QStringLiteral("gain"), 1.0);
    options.insert(QStringLiteral("offset"), 0.0);
    options.insert(QStringLiteral("label"), QString());
    options.insert(QStringLiteral("color"), QString());
}

QWidget *ProcessingStage::getWOptions(QWidget *parent)
{
    if (!wOptions)
        wOptions = new ProcessingOptions(this, parent);
    return wOptions;
}

void ProcessingStage::applyOptions()
{
    gain = options.value(QStringLiteral("gain")).toDouble();
    offset = options.value(QStringLiteral("offset")).toDouble();
    label = options.value(QStringLiteral("label")).toString();
    color = options.value(QStringLiteral("color")).toString();
    emit state(QStringLiteral("options: gain %1, offset %2").arg(gain).arg(offset), Logger::Info);
}

static ZtDataArray scaled(const ZtDataArray &in, double gain, double offset, int *points)
{
    ZtDataArray out(in);
    for (int i = 0; i < out.items.size(); ++i) {
        switch (out.itemType(i)) {
        case ZtDataArray::ItemArray:
            out.items[i] = QVariant::fromValue(
                scaled(out.items.at(i).value<ZtDataArray>(), gain, offset, points));
            break;
        case ZtDataArray::ItemXY: {
            ZtDataXY p = out.items.at(i).value<ZtDataXY>();
            p.setY(gain * p.getY().toDouble() + offset);
            out.items[i] = QVariant::fromValue(p);
            ++*points;
            break;
        }
        default:
            break;
        }
    }
    return out;
}

QVariantList ProcessingStage::process(const QVariantList &data, double gain, double offset,
                                      const QString &label, const QString &color, int *points)
{
    ZtDataArray block = scaled(ZtDataWrapper::convListToArray(data), gain, offset, points);
    for (QVariant &item : block.items) {
        if (item.userType() != qMetaTypeId<ZtDataArray>())
            continue;
        ZtDataArray curve = item.value<ZtDataArray>();
        if (!label.isEmpty())
            curve.setName(label);
        if (QColor::isValidColor(color))
            curve.setPen(QPen(QColor(color), 1.5));
        item = QVariant::fromValue(curve);
    }
    return ZtDataWrapper::convArrayToList(block);
}

void ProcessingStage::StartProcessing(QVariantList data)
{
    int points = 0;
    const QVariantList out = process(data, gain, offset, label, color, &points);
    if (blocks++ % 100 == 0)
        emit state(QStringLiteral("received block %1 with %2 points, gain %3, offset %4")
                       .arg(blocks)
                       .arg(points)
                       .arg(gain)
                       .arg(offset),
                   Logger::Message);
    emit ImReady(out);
}
