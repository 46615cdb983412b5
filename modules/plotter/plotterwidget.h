#pragma once

#include <wabstractmain.h>

#include <QHash>
#include <QPointer>
#include <QString>

class Plotter;
class PlotterZoomer;
class QAction;
class QVariant;
class QwtLegend;
class QwtPlot;
class QwtPlotCurve;
class QwtPlotPanner;

// The Plotter's main widget: a QwtPlot with one QwtPlotCurve per curve of the module, a
// checkable legend (unchecking an entry hides its curve), a grid, and a row with the module's
// pause action and a "Live" button.
//
// The view follows the data ("live"): the x axis shows the last `span` seconds up to the newest
// point and the y axis is autoscaled, both with the round ticks of Qwt's linear scale engine.
// Zooming (drag a rectangle), panning (middle button) or magnifying (wheel) leaves the live view
// and keeps what the user chose while the curves go on updating; right click steps back through
// the zooms, Ctrl + right click or "Live" returns to the live view.
//
// Lives in the GUI thread, like its module (which never leaves it), so it reads the module's
// curves directly when the module hands them over.
class PlotterWidget : public WAbstractMain
{
    Q_OBJECT

public:
    explicit PlotterWidget(Plotter *plotter, QWidget *parent = nullptr);
    ~PlotterWidget() override;

    QSize sizeHint() const override;

    // Takes the module's changed curves into the plot and replots once.
    void showCurves();
    // Caption, time axis and hidden curves as the module's options say.
    void optionsChanged();
    bool isLive() const { return live; }

public slots:
    void goLive();

private:
    void leaveLive();
    void applyView();
    void legendChecked(const QVariant &itemInfo, bool on);
    void setLegendChecked(QwtPlotCurve *curve, bool on);

    QPointer<Plotter> plotter;
    QwtPlot *plot = nullptr;
    QwtLegend *legend = nullptr;
    PlotterZoomer *zoomer = nullptr;
    QwtPlotPanner *panner = nullptr;
    QAction *liveAction = nullptr;
    QHash<QString, QwtPlotCurve *> plotCurves;
    bool live = true;
    bool timeAxis = false;
};
