#include "plotter.h"

#include "plotterwidget.h"

#include <propagatorstream.h>
#include <ztdataarray.h>
#include <ztdatawrapper.h>
#include <ztdataxy.h>

#include <QAction>
#include <QRegularExpression>
#include <QTimer>

// Pens for curves whose data brings none: distinct on white, in order of arrival.
static const QColor defaultColors[]
    = {QColor(31, 119, 180),  QColor(214, 39, 40), QColor(44, 160, 44),
       QColor(148, 103, 189), QColor(140, 86, 75), QColor(227, 119, 194)};

Plotter::Plotter(int id, QObject *parent)
    : ZtMIExtended(id, parent)
{
    isneedthreadgui = true;
}

Plotter::~Plotter() = default;

void Plotter::initOptions()
{
    options.insert(QStringLiteral("span"), 10.0);
    options.insert(QStringLiteral("refresh"), 100);
    options.insert(QStringLiteral("maxpoints"), 200000);
    options.insert(QStringLiteral("title"), QString());
    options.insert(QStringLiteral("caption"), QStringLiteral("{title}"));
    options.insert(QStringLiteral("timeaxis"), true);
    options.insert(QStringLiteral("hidden"), QString());
    streams.hash.insert(QStringLiteral("in"), nullptr);
}

void Plotter::createActions()
{
    auto *pause = new QAction(tr("Pause"));
    pause->setCheckable(true);
    pause->setToolTip(tr("Freeze the plot; data keeps arriving and shows on resume"));
    connect(pause, &QAction::toggled, this, &Plotter::setPaused);
    actions.insert(QStringLiteral("pause"), pause);
    actions.insert(QStringLiteral("quit"), new QAction(tr("Quit")));
    actions.insert(QStringLiteral("stay"), new QAction(tr("Keep running")));
}

QWidget *Plotter::getWMain(QWidget *parent)
{
    if (!widget) {
        widget = new PlotterWidget(this, parent);
        wMain = widget;
        dirty = true;
    }
    return widget;
}

bool Plotter::init()
{
    // An unplugged name gives the null propagator, which never emits.
    connect(streams.value(QStringLiteral("in")), &PropagatorStream::trySendList, this,
            &Plotter::StartProcessing);
    // Created here so that it belongs to the module's thread, which is the GUI thread.
    timer = new QTimer(this);
    connect(timer, &QTimer::timeout, this, &Plotter::refresh);
    timer->start(qMax(10, options.value(QStringLiteral("refresh")).toInt()));
    return true;
}

void Plotter::final()
{
    delete timer;
    timer = nullptr;
    disconnect(streams.value(QStringLiteral("in")), nullptr, this, nullptr);
}

static QSet<QString> namesOf(const QVariant &value)
{
    // A list from the settings file (a,b unquoted) or one text (from the state store).
    QStringList names = value.type() == QVariant::StringList
        ? value.toStringList()
        : value.toString().split(QLatin1Char(','), Qt::SkipEmptyParts);
    QSet<QString> set;
    for (const QString &name : qAsConst(names)) {
        if (!name.trimmed().isEmpty())
            set.insert(name.trimmed());
    }
    return set;
}

void Plotter::applyOptions()
{
    span = options.value(QStringLiteral("span")).toDouble();
    if (!(span > 0.0))
        span = 10.0;
    maxPoints = qMax(100, options.value(QStringLiteral("maxpoints")).toInt());
    timeAxis = options.value(QStringLiteral("timeaxis")).toBool();
    hidden = namesOf(options.value(QStringLiteral("hidden")));
    if (timer)
        timer->setInterval(qMax(10, options.value(QStringLiteral("refresh")).toInt()));

    // Options synchronisers feed the caption; say when it changes.
    const QString text = caption();
    if (text != shownCaption) {
        shownCaption = text;
        emit state(QStringLiteral("caption: ") + text, Logger::Info);
    }
    if (widget)
        widget->optionsChanged();
    dirty = true;
}

QString Plotter::caption() const
{
    static const QRegularExpression field(QStringLiteral("\\{([^{}]+)\\}"));
    const QString pattern = options.value(QStringLiteral("caption")).toString();
    QString text;
    int from = 0;
    for (auto it = field.globalMatch(pattern); it.hasNext();) {
        const QRegularExpressionMatch match = it.next();
        text += pattern.midRef(from, match.capturedStart() - from);
        const auto option = options.constFind(match.captured(1));
        text += option == options.cend() ? match.captured(0) : option.value().toString();
        from = match.capturedEnd();
    }
    return text + pattern.midRef(from);
}

void Plotter::setHidden(const QString &curve, bool hide)
{
    if (hide == hidden.contains(curve))
        return;
    if (hide)
        hidden.insert(curve);
    else
        hidden.remove(curve);
    QStringList names = hidden.values();
    names.sort();
    setOption(QStringLiteral("hidden"), names.join(QLatin1Char(',')));
}

void Plotter::setPaused(bool pause)
{
    if (pause == paused)
        return;
    paused = pause;
    if (QAction *action = actions.value(QStringLiteral("pause")))
        action->setChecked(pause);
    emit state(pause ? QStringLiteral("paused") : QStringLiteral("resumed"), Logger::Info);
    emit pausedChanged(pause);
    // Catch up at once rather than on the next tick.
    if (!pause)
        refresh();
}

void Plotter::StartProcessing(QVariantList list)
{
    const ZtDataArray block = ZtDataWrapper::convListToArray(list);
    ++blocks;
    for (int i = 0; i < block.items.size(); ++i) {
        if (block.isItemArray(i))
            takeCurve(block.items.at(i).value<ZtDataArray>(), i);
    }
    if (blocks % 200 == 0)
        emit state(QStringLiteral("received %1 blocks, %2 curves").arg(blocks).arg(curves.size()),
                   Logger::Message);
}

void Plotter::takeCurve(const ZtDataArray &array, int position)
{
    const QString name
        = array.isNameSet() ? array.getName() : QStringLiteral("curve %1").arg(position + 1);
    int index = curveIndex.value(name, -1);
    const bool known = index >= 0;
    if (!known) {
        index = curves.size();
        curveIndex.insert(name, index);
        Curve curve;
        curve.name = name;
        const int colors = int(sizeof defaultColors / sizeof defaultColors[0]);
        curve.pen = QPen(defaultColors[index % colors], 1.5);
        curves.append(curve);
    }
    Curve &curve = curves[index];
    if (array.isPenSet() && array.getPen() != curve.pen) {
        curve.pen = array.getPen();
        curve.changed = true;
    }
    dirty = dirty || !known || curve.changed;

    QVector<QPointF> fresh;
    fresh.reserve(array.items.size());
    for (int i = 0; i < array.items.size(); ++i) {
        if (array.itemType(i) != ZtDataArray::ItemXY)
            continue;
        const ZtDataXY p = array.items.at(i).value<ZtDataXY>();
        fresh.append(QPointF(p.getX().toDouble(), p.getY().toDouble()));
    }
    if (fresh.isEmpty())
        return;
    if (curve.points.isEmpty())
        emit state(QStringLiteral("received curve %1 with %2 points").arg(name).arg(fresh.size()),
                   Logger::Info);
    // A clock that went back by more than the span (midnight) starts the curve again.
    if (!curve.points.isEmpty() && fresh.first().x() < curve.points.last().x() - span)
        curve.points.clear();
    curve.points += fresh;
    curve.changed = true;
    dirty = true;

    // The window itself is cut on the next tick, once for all lists in between; only a curve
    // that grows far beyond its limit before that is cut here.
    if (curve.points.size() > 2 * maxPoints)
        curve.points.remove(0, curve.points.size() - maxPoints);
}

void Plotter::refresh()
{
    if (!dirty)
        return;
    for (Curve &curve : curves) {
        if (!curve.changed || curve.points.isEmpty())
            continue;
        // Points come in time order, so the old ones are at the front.
        const double from = curve.points.last().x() - span;
        int drop = qMax(0, curve.points.size() - maxPoints);
        while (drop < curve.points.size() && curve.points.at(drop).x() < from)
            ++drop;
        if (drop > 0)
            curve.points.remove(0, drop);
    }
    // Paused, the curves keep their changes for the resume.
    if (paused || !widget)
        return;
    widget->showCurves();
    for (Curve &curve : curves)
        curve.changed = false;
    dirty = false;
}
