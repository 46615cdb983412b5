#pragma once

#include <ztmiextended.h>

#include <QMap>
#include <QPen>
#include <QPointF>
#include <QSet>
#include <QString>
#include <QVariantList>
#include <QVector>

// An extended module that needs the GUI thread: it collects the curves that arrive through its
// stream propagator "in" and its widget draws them. Every nested array of an incoming block is
// one curve; its name and pen come from the array's attributes and its points are appended to
// the curve of that name, keeping the last `span` seconds (x is time in seconds).
//
// Options: span (s), title; gain, offset, genwaveform and genfrequency are only shown in the
// caption and arrive from other modules through option synchronisers.
// Actions "quit" and "stay", wired by the settings file to the kernel's quit protocol.
class Plot : public ZtMIExtended
{
    Q_OBJECT

public:
    struct Curve
    {
        QPen pen;
        QVector<QPointF> points;
    };

    explicit Plot(int id, QObject *parent = nullptr);

    QWidget *getWMain(QWidget *parent) override;

    const QMap<QString, Curve> &getCurves() const { return curves; }
    QString caption() const;

public slots:
    bool init() override;
    void applyOptions() override;
    void receive(QVariantList list);

protected:
    void initOptions() override;
    void createActions() override;

private:
    QMap<QString, Curve> curves;
    QSet<QString> announced;
    qint64 blocks = 0;
    double span = 2.0;
    QString shownCaption;
};
