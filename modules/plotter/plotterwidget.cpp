#include "plotterwidget.h"

#include "plotter.h"

#include <qwt_legend.h>
#include <qwt_legend_label.h>
#include <qwt_plot.h>
#include <qwt_plot_canvas.h>
#include <qwt_plot_curve.h>
#include <qwt_plot_grid.h>
#include <qwt_plot_layout.h>
#include <qwt_plot_magnifier.h>
#include <qwt_plot_panner.h>
#include <qwt_plot_zoomer.h>
#include <qwt_scale_div.h>
#include <qwt_scale_draw.h>
#include <qwt_text.h>

#include <QAction>
#include <QHBoxLayout>
#include <QToolButton>
#include <QVBoxLayout>

#include <cmath>
#include <functional>
#include <limits>
#include <utility>

namespace {

// Labels x values (seconds since midnight, as the data items carry them) as the time of day,
// with as many decimals of a second as the tick step needs (steps are 1, 2 or 5 x 10^k).
class ClockScaleDraw : public QwtScaleDraw
{
public:
    QwtText label(double value) const override
    {
        const QList<double> ticks = scaleDiv().ticks(QwtScaleDiv::MajorTick);
        const double step = ticks.size() > 1 ? std::abs(ticks.at(1) - ticks.at(0)) : 1.0;
        const int decimals
            = step >= 1.0 ? 0 : qBound(0, int(std::ceil(-std::log10(step) - 1e-9)), 3);
        const qint64 unit = qRound64(std::pow(10.0, decimals));
        const qint64 day = 86400 * unit;
        const qint64 total = ((qRound64(value * double(unit)) % day) + day) % day;
        const qint64 seconds = total / unit;
        QString text = QStringLiteral("%1:%2:%3")
                           .arg(seconds / 3600, 2, 10, QLatin1Char('0'))
                           .arg(seconds / 60 % 60, 2, 10, QLatin1Char('0'))
                           .arg(seconds % 60, 2, 10, QLatin1Char('0'));
        if (decimals > 0)
            text += QLatin1Char('.')
                + QString::number(total % unit).rightJustified(decimals, QLatin1Char('0'));
        return text;
    }
};

// Wheel magnification; tells the widget that the user moved the view.
class PlotterMagnifier : public QwtPlotMagnifier
{
public:
    PlotterMagnifier(QWidget *canvas, std::function<void()> moved)
        : QwtPlotMagnifier(canvas)
        , moved(std::move(moved))
    { }

protected:
    void rescale(double factor) override
    {
        QwtPlotMagnifier::rescale(factor);
        moved();
    }

private:
    std::function<void()> moved;
};

} // namespace

// Rectangle zoom. Tells the widget whether the view is back at the live base (index 0) after
// each zoom step, also when a step back finds the stack already at its base (after a pan).
class PlotterZoomer : public QwtPlotZoomer
{
public:
    PlotterZoomer(QWidget *canvas, std::function<void(bool)> zoomedTo)
        : QwtPlotZoomer(canvas, false)
        , zoomedTo(std::move(zoomedTo))
    { }

    void zoom(const QRectF &rect) override
    {
        QwtPlotZoomer::zoom(rect);
        zoomedTo(zoomRectIndex() == 0);
    }
    void zoom(int offset) override
    {
        QwtPlotZoomer::zoom(offset);
        if (zoomRectIndex() == 0)
            zoomedTo(true);
    }

protected:
    QwtText trackerTextF(const QPointF &pos) const override
    {
        const QwtScaleDraw *x = plot()->axisScaleDraw(QwtPlot::xBottom);
        return QwtText(x->label(pos.x()).text() + QStringLiteral(", ")
                       + QString::number(pos.y(), 'g', 4));
    }

private:
    std::function<void(bool)> zoomedTo;
};

PlotterWidget::PlotterWidget(Plotter *plotter, QWidget *parent)
    : WAbstractMain(parent)
    , plotter(plotter)
{
    setModule(plotter);

    plot = new QwtPlot(this);
    plot->setAutoReplot(false);
    // Qwt's own minimum would grow a host window that was laid out for a smaller widget.
    plot->setMinimumSize(240, 160);
    auto *canvas = new QwtPlotCanvas();
    canvas->setFrameStyle(QFrame::Box | QFrame::Plain);
    canvas->setLineWidth(1);
    plot->setCanvas(canvas);
    plot->setCanvasBackground(Qt::white);
    // Room for the legend's frames and the last time label at the right edge.
    plot->setContentsMargins(0, 0, 8, 0);
    plot->plotLayout()->setAlignCanvasToScales(true);
    // Time labels are wide: fewer of them.
    plot->setAxisMaxMajor(QwtPlot::xBottom, 6);
    plot->setAxisAutoScale(QwtPlot::yLeft, true);

    auto *grid = new QwtPlotGrid();
    grid->setMajorPen(QColor(220, 220, 220), 0.0, Qt::SolidLine);
    grid->attach(plot);

    legend = new QwtLegend();
    legend->setDefaultItemMode(QwtLegendData::Checkable);
    plot->insertLegend(legend, QwtPlot::RightLegend);
    connect(legend, &QwtLegend::checked, this,
            [this](const QVariant &info, bool on, int) { legendChecked(info, on); });

    zoomer = new PlotterZoomer(canvas, [this](bool atBase) {
        if (atBase)
            goLive();
        else
            leaveLive();
    });
    zoomer->setRubberBandPen(QPen(Qt::darkGray, 1, Qt::DashLine));
    zoomer->setTrackerPen(QPen(Qt::darkGray));
    // Right click: one zoom back; Ctrl + right click: back to the live view. The middle button
    // is the panner's.
    zoomer->setMousePattern(QwtEventPattern::MouseSelect2, Qt::RightButton, Qt::ControlModifier);
    zoomer->setMousePattern(QwtEventPattern::MouseSelect3, Qt::RightButton);
    panner = new QwtPlotPanner(canvas);
    panner->setMouseButton(Qt::MiddleButton);
    connect(panner, &QwtPanner::panned, this, [this] { leaveLive(); });
    auto *magnifier = new PlotterMagnifier(canvas, [this] { leaveLive(); });
    magnifier->setMouseButton(Qt::NoButton);

    auto *bar = new QHBoxLayout();
    bar->setContentsMargins(0, 0, 0, 0);
    if (QAction *pause = plotter->getActions()->value(QStringLiteral("pause"))) {
        auto *button = new QToolButton(this);
        button->setDefaultAction(pause);
        bar->addWidget(button);
    }
    liveAction = new QAction(tr("Live"), this);
    liveAction->setToolTip(tr("Follow the newest data again (also Ctrl + right click). Drag to "
                              "zoom, right click to zoom back, middle button to pan, wheel to "
                              "magnify."));
    liveAction->setEnabled(false);
    connect(liveAction, &QAction::triggered, this, &PlotterWidget::goLive);
    auto *liveButton = new QToolButton(this);
    liveButton->setDefaultAction(liveAction);
    bar->addWidget(liveButton);
    bar->addStretch();

    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(4, 4, 4, 4);
    layout->setSpacing(2);
    layout->addLayout(bar);
    layout->addWidget(plot, 1);

    setAutoFillBackground(true);
    QPalette p = palette();
    p.setColor(QPalette::Window, Qt::white);
    setPalette(p);
    optionsChanged();
}

PlotterWidget::~PlotterWidget() = default;

QSize PlotterWidget::sizeHint() const
{
    return QSize(640, 400);
}

void PlotterWidget::optionsChanged()
{
    if (!plotter)
        return;
    QwtText title(plotter->caption());
    QFont font = title.font();
    font.setPointSizeF(font.pointSizeF() * 1.1);
    title.setFont(font);
    plot->setTitle(title);

    if (plotter->isTimeAxis() != timeAxis) {
        timeAxis = plotter->isTimeAxis();
        // The plot owns the scale draw and deletes the one it replaces.
        plot->setAxisScaleDraw(QwtPlot::xBottom,
                               timeAxis ? new ClockScaleDraw() : new QwtScaleDraw());
    }
    for (auto it = plotCurves.cbegin(); it != plotCurves.cend(); ++it) {
        const bool visible = !plotter->isHidden(it.key());
        if (visible != it.value()->isVisible()) {
            it.value()->setVisible(visible);
            setLegendChecked(it.value(), visible);
        }
    }
}

void PlotterWidget::showCurves()
{
    if (!plotter)
        return;
    // Beyond a few points per pixel, antialiasing costs much and shows nothing; without it Qwt
    // also weeds out points that fall on the same pixel.
    const int crowded = 4 * qMax(200, plot->canvas()->width());
    for (const Plotter::Curve &curve : plotter->getCurves()) {
        QwtPlotCurve *&shown = plotCurves[curve.name];
        if (!shown) {
            shown = new QwtPlotCurve(curve.name);
            shown->setLegendAttribute(QwtPlotCurve::LegendShowLine);
            shown->setPen(curve.pen);
            shown->setVisible(!plotter->isHidden(curve.name));
            // Attaching makes the legend entry.
            shown->attach(plot);
            setLegendChecked(shown, shown->isVisible());
        } else if (!curve.changed) {
            continue;
        }
        shown->setPen(curve.pen);
        shown->setRenderHint(QwtPlotItem::RenderAntialiased, curve.points.size() <= crowded);
        // Shares the module's vector until the module appends to it again.
        shown->setSamples(curve.points);
    }
    applyView();
    plot->replot();
    if (live)
        zoomer->setZoomBase(false);
}

void PlotterWidget::applyView()
{
    if (!live || !plotter)
        return;
    double newest = -std::numeric_limits<double>::infinity();
    for (const QwtPlotCurve *curve : qAsConst(plotCurves)) {
        if (curve->dataSize() > 0)
            newest = qMax(newest, curve->maxXValue());
    }
    const double span = plotter->getSpan();
    if (std::isinf(newest))
        newest = span;
    plot->setAxisScale(QwtPlot::xBottom, newest - span, newest);
    plot->setAxisAutoScale(QwtPlot::yLeft, true);
}

void PlotterWidget::goLive()
{
    live = true;
    liveAction->setEnabled(false);
    applyView();
    plot->replot();
    zoomer->setZoomBase(false);
}

void PlotterWidget::leaveLive()
{
    live = false;
    liveAction->setEnabled(true);
}

void PlotterWidget::legendChecked(const QVariant &itemInfo, bool on)
{
    QwtPlotItem *item = plot->infoToItem(itemInfo);
    if (!item || item->rtti() != QwtPlotItem::Rtti_PlotCurve)
        return;
    item->setVisible(on);
    if (plotter)
        plotter->setHidden(item->title().text(), !on);
    // A hidden curve leaves the autoscale.
    applyView();
    plot->replot();
    if (live)
        zoomer->setZoomBase(false);
}

void PlotterWidget::setLegendChecked(QwtPlotCurve *curve, bool on)
{
    if (auto *label = qobject_cast<QwtLegendLabel *>(legend->legendWidget(plot->itemToInfo(curve))))
        label->setChecked(on);
}
