#include "plot.h"

#include "plotwidget.h"

#include <propagatorstream.h>
#include <ztdataarray.h>
#include <ztdatawrapper.h>
#include <ztdataxy.h>

#include <QAction>

Plot::Plot(int id, QObject *parent)
    : ZtMIExtended(id, parent)
{
    isneedthreadgui = true;
}

void Plot::initOptions()
{
    options.insert(QStringLiteral("span"), 2.0);
    options.insert(QStringLiteral("title"), QStringLiteral("Signals"));
    options.insert(QStringLiteral("gain"), 1.0);
    options.insert(QStringLiteral("offset"), 0.0);
    options.insert(QStringLiteral("genwaveform"), QString());
    options.insert(QStringLiteral("genfrequency"), 0.0);
    streams.hash.insert(QStringLiteral("in"), nullptr);
}

void Plot::createActions()
{
    actions.insert(QStringLiteral("quit"), new QAction(tr("Quit")));
    actions.insert(QStringLiteral("stay"), new QAction(tr("Keep running")));
}

QWidget *Plot::getWMain(QWidget *parent)
{
    if (!wMain)
        wMain = new PlotWidget(this, parent);
    return wMain;
}

bool Plot::init()
{
    // The kernel has plugged the propagator in by now; an unplugged name gives the null
    // propagator, which never emits.
    connect(streams.value(QStringLiteral("in")), &PropagatorStream::trySendList, this,
            &Plot::receive);
    return true;
}

void Plot::applyOptions()
{
    span = qMax(0.1, options.value(QStringLiteral("span")).toDouble());
    // Options synchronisers feed the caption; say when it changes.
    const QString text = caption();
    if (text != shownCaption) {
        shownCaption = text;
        emit state(QStringLiteral("caption: ") + text, Logger::Info);
    }
    if (wMain)
        wMain->update();
}

QString Plot::caption() const
{
    QString text = options.value(QStringLiteral("title")).toString();
    text += QStringLiteral("  |  gain %1, offset %2")
                .arg(options.value(QStringLiteral("gain")).toDouble())
                .arg(options.value(QStringLiteral("offset")).toDouble());
    const QString shape = options.value(QStringLiteral("genwaveform")).toString();
    if (!shape.isEmpty())
        text += QStringLiteral("  |  %1 %2 Hz")
                    .arg(shape)
                    .arg(options.value(QStringLiteral("genfrequency")).toDouble());
    return text;
}

static void collectPoints(ZtDataArray &array, QVector<QPointF> &points)
{
    for (int i = 0; i < array.items.size(); ++i) {
        if (array.itemType(i) != ZtDataArray::ItemXY)
            continue;
        const ZtDataXY p = array.items.at(i).value<ZtDataXY>();
        points.append(QPointF(p.getX().toDouble(), p.getY().toDouble()));
    }
}

void Plot::receive(QVariantList list)
{
    ZtDataArray block = ZtDataWrapper::convListToArray(list);
    ++blocks;
    for (int i = 0; i < block.items.size(); ++i) {
        if (!block.isItemArray(i))
            continue;
        ZtDataArray array = block.items.at(i).value<ZtDataArray>();
        const QString name
            = array.isNameSet() ? array.getName() : QStringLiteral("curve %1").arg(i + 1);
        Curve &curve = curves[name];
        if (array.isPenSet())
            curve.pen = array.getPen();
        QVector<QPointF> fresh;
        collectPoints(array, fresh);
        if (fresh.isEmpty())
            continue;
        // A clock that went back by more than the span (midnight) starts the curve again.
        if (!curve.points.isEmpty() && fresh.first().x() < curve.points.last().x() - span)
            curve.points.clear();
        curve.points += fresh;
        const double from = curve.points.last().x() - span;
        int drop = 0;
        while (drop < curve.points.size() && curve.points.at(drop).x() < from)
            ++drop;
        curve.points.remove(0, drop);

        if (!announced.contains(name)) {
            announced.insert(name);
            emit state(
                QStringLiteral("received curve %1 with %2 points").arg(name).arg(fresh.size()),
                Logger::Info);
        }
    }
    if (blocks % 200 == 0)
        emit state(QStringLiteral("received %1 blocks, %2 curves").arg(blocks).arg(curves.size()),
                   Logger::Message);
    if (wMain)
        wMain->update();
}
