#pragma once

#include <ztmiextended.h>

#include <QHash>
#include <QPen>
#include <QPointF>
#include <QPointer>
#include <QSet>
#include <QString>
#include <QVariantList>
#include <QVector>

class PlotterWidget;
class ZtDataArray;
class QTimer;

// An extended module for the GUI thread that plots curves over a sliding time window with Qwt.
//
// Input: lists arriving on the stream propagator "in" or through the slot StartProcessing, each
// a flattened ZtDataArray whose nested arrays are curves: the array's name picks the curve (an
// unnamed one is "curve <n>"), its pen, when set, becomes the curve's pen, and its ZtDataXY items
// are appended as (x = time in seconds, y) points. Points older than `span` seconds before a
// curve's newest point are dropped; a clock that goes back by more than the span (midnight)
// starts the curve again.
//
// The module only collects; a timer (`refresh` ms) hands the collected windows to the widget,
// which replots once per tick whatever arrived in between, so that fast or large input never
// makes the GUI thread paint per list. While paused the collection goes on (the window keeps
// sliding) but the widget keeps showing what it showed; resuming shows the newest window.
//
// Options: span (s), refresh (ms), maxpoints (per curve; the oldest go first), title, caption
// (a text in which "{name}" stands for the value of option "name", so that options arriving
// through synchronisers can be shown), timeaxis (x labelled as the time of day), hidden (the
// names of the curves hidden through the legend, comma-separated; kept by the state store).
// Action "pause" (checkable); actions "quit" and "stay", for the settings file's quit protocol.
class Plotter : public ZtMIExtended
{
    Q_OBJECT

public:
    struct Curve
    {
        QString name;
        QPen pen;
        QVector<QPointF> points;
        // Points arrived since the widget last took this curve.
        bool changed = false;
    };

    explicit Plotter(int id, QObject *parent = nullptr);
    ~Plotter() override;

    QWidget *getWMain(QWidget *parent) override;

    // In the order of their first arrival.
    const QVector<Curve> &getCurves() const { return curves; }
    QString caption() const;
    double getSpan() const { return span; }
    bool isPaused() const { return paused; }
    bool isTimeAxis() const { return timeAxis; }
    bool isHidden(const QString &curve) const { return hidden.contains(curve); }
    // From the legend: remembered in the option "hidden" without announcing it.
    void setHidden(const QString &curve, bool hide);

public slots:
    bool init() override;
    void final() override;
    void applyOptions() override;
    void StartProcessing(QVariantList list);
    void setPaused(bool pause);
    // Hands what changed to the widget; the timer calls it.
    void refresh();

signals:
    void pausedChanged(bool paused);

protected:
    void initOptions() override;
    void createActions() override;

private:
    void takeCurve(const ZtDataArray &array, int position);

    QVector<Curve> curves;
    QHash<QString, int> curveIndex;
    QPointer<PlotterWidget> widget;
    QTimer *timer = nullptr;
    QSet<QString> hidden;
    QString shownCaption;
    qint64 blocks = 0;
    double span = 10.0;
    int maxPoints = 200000;
    bool paused = false;
    bool timeAxis = true;
    // Something to show that the widget has not shown yet (data, pens, caption, options).
    bool dirty = true;
};
