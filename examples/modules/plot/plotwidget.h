#pragma once

#include <wabstractmain.h>

class Plot;

// Draws the plot module's curves with QPainter: a frame with a grid, the curves with their own
// pens over the last `span` seconds, a legend with their names and the module's caption. Lives
// in the GUI thread like its module, so it reads the module's curves directly.
class PlotWidget : public WAbstractMain
{
    Q_OBJECT

public:
    explicit PlotWidget(Plot *plot, QWidget *parent = nullptr);

    QSize sizeHint() const override;

public slots:
    void readOptions() override;

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    Plot *plot;
};
