#include <propagatorstreamdirect.h>
#include <ztdataarray.h>
#include <ztdatawrapper.h>
#include <ztdataxy.h>
#include <ztliblevelinterface.h>
#include <ztmiextended.h>

#include <qwt_legend.h>
#include <qwt_legend_label.h>
#include <qwt_plot.h>
#include <qwt_plot_curve.h>
#include <qwt_plot_zoomer.h>
#include <qwt_scale_div.h>

#include <QAction>
#include <QPluginLoader>
#include <QtTest>

#include <cmath>
#include <functional>
#include <memory>

// A Plotter made by its library, with its widget, fed as the kernel feeds it: through a stream
// propagator plugged into "in" or through its slot StartProcessing.
struct Rig
{
    std::unique_ptr<ZtMIExtended> module;
    std::unique_ptr<QWidget> widget;
    QwtPlot *plot = nullptr;
    PropagatorStreamDirect in;

    ~Rig()
    {
        if (module)
            module->final();
        widget.reset(); // the host window deletes the widget before the module
    }

    void refresh() { QVERIFY(QMetaObject::invokeMethod(module.get(), "refresh")); }
    void process(const QVariantList &list)
    {
        QVERIFY(
            QMetaObject::invokeMethod(module.get(), "StartProcessing", Q_ARG(QVariantList, list)));
    }

    QwtPlotCurve *curve(const QString &title) const
    {
        for (QwtPlotItem *item : plot->itemList(QwtPlotItem::Rtti_PlotCurve)) {
            if (item->title().text() == title)
                return static_cast<QwtPlotCurve *>(item);
        }
        return nullptr;
    }
    QwtLegendLabel *legendLabel(const QString &title) const
    {
        auto *legend = qobject_cast<QwtLegend *>(plot->legend());
        return legend
            ? qobject_cast<QwtLegendLabel *>(legend->legendWidget(plot->itemToInfo(curve(title))))
            : nullptr;
    }
    QwtInterval xRange() const { return plot->axisScaleDiv(QwtPlot::xBottom).interval(); }
};

// Points at x = t0 + i * dt, y = f(i).
static ZtDataArray curve(const QString &name, const QPen &pen, int count, double t0, double dt,
                         const std::function<double(int)> &f)
{
    ZtDataArray c;
    c.setName(name);
    c.setPen(pen);
    for (int i = 0; i < count; ++i)
        c.items.append(QVariant::fromValue(ZtDataXY(t0 + i * dt, f(i))));
    return c;
}

static QVariantList block(const QList<ZtDataArray> &curves)
{
    ZtDataArray b;
    for (const ZtDataArray &c : curves)
        b.items.append(QVariant::fromValue(c));
    return ZtDataWrapper::convArrayToList(b);
}

class tst_Plotter : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void curvesFromBothInputs();
    void legendTogglesCurve();
    void leaveAndReturnToLiveView_data();
    void leaveAndReturnToLiveView();

private:
    // options: name, value pairs, as the settings file would set them before start.
    void make(Rig &rig, const QVariantList &options);

    QPluginLoader loader;
    ZtLibLevelInterface *library = nullptr;
};

void tst_Plotter::initTestCase()
{
    qRegisterMetaType<Logger::Level>("Logger::Level");
    loader.setFileName(QStringLiteral(PLOTTER_LIBRARY));
    QVERIFY2(loader.load(), qPrintable(loader.errorString()));
    library = qobject_cast<ZtLibLevelInterface *>(loader.instance());
    QVERIFY(library);
    QCOMPARE(library->getName() + library->getInterfaceType(), QString("PlotterZtMIExtended"));
}

void tst_Plotter::make(Rig &rig, const QVariantList &options)
{
    rig.module.reset(library->instance(0, nullptr).value<ZtMIExtended *>());
    QVERIFY(rig.module);
    rig.module->setup();
    for (int i = 0; i + 1 < options.size(); i += 2)
        rig.module->getOptions()->insert(options.at(i).toString(), options.at(i + 1));
    QVERIFY(rig.module->setPropagator("in", &rig.in, false));
    rig.widget.reset(rig.module->getWMain(nullptr));
    QVERIFY(rig.widget);
    rig.widget->resize(800, 500);
    rig.plot = rig.widget->findChild<QwtPlot *>();
    QVERIFY(rig.plot);
    QVERIFY(rig.module->init());
    rig.module->applyOptions();
}

void tst_Plotter::curvesFromBothInputs()
{
    Rig rig;
    make(rig, {"span", 20.0});
    const QPen red(Qt::red, 2.0);
    const QPen blue(Qt::blue, 1.5);
    const auto sine = [](int i) { return std::sin(i * 0.01); };
    // 10,000 points per curve in one list, over 10 s: all within the span.
    // An array without name or pen becomes "curve <position>".
    const ZtDataArray unnamed = curve(QString(), QPen(), 3, 50000.0, 0.001, sine);
    rig.in.sendList(block({curve("a", red, 10000, 50000.0, 0.001, sine), unnamed}));
    rig.process(block({curve("b", blue, 10000, 50000.0, 0.001, sine)}));

    // The module's own timer hands the curves over.
    QTRY_VERIFY(rig.curve("b") && rig.curve("b")->dataSize() == 10000);
    QStringList titles;
    for (QwtPlotItem *item : rig.plot->itemList(QwtPlotItem::Rtti_PlotCurve))
        titles << item->title().text();
    QCOMPARE(titles, QStringList({"a", "curve 2", "b"}));
    QCOMPARE(rig.curve("a")->dataSize(), size_t(10000));
    QCOMPARE(rig.curve("a")->pen(), red);
    QCOMPARE(rig.curve("b")->pen(), blue);
    // A curve without a pen gets a colour of its own, not the default black.
    QVERIFY(rig.curve("curve 2")->pen().color() != QColor(Qt::black));
    // One checked legend entry per curve, showing its name.
    for (const QString &title : titles) {
        QwtLegendLabel *label = rig.legendLabel(title);
        QVERIFY(label && label->isChecked() && label->text().text() == title);
    }
    // The x axis shows the span up to the newest point; the tick steps are Qwt's.
    QCOMPARE(rig.xRange().maxValue(), rig.curve("a")->sample(9999).x());
    QVERIFY(qAbs(rig.xRange().width() - 20.0) < 1e-9);

    // 15 s more in small lists: the window keeps the last 20 s only.
    for (int k = 0; k < 150; ++k)
        rig.in.sendList(block({curve("a", red, 100, 50010.0 + k * 0.1, 0.001, sine)}));
    rig.refresh();
    QwtPlotCurve *a = rig.curve("a");
    QVERIFY(a->sample(0).x() >= a->maxXValue() - 20.0);
    QVERIFY2(qAbs(int(a->dataSize()) - 20000) <= 2, qPrintable(QString::number(a->dataSize())));
    // A clock that goes back by more than the span (midnight) starts the curve again.
    rig.process(block({curve("a", red, 5, 1.0, 0.1, sine)}));
    rig.refresh();
    QCOMPARE(rig.curve("a")->dataSize(), size_t(5));
}

void tst_Plotter::legendTogglesCurve()
{
    Rig rig;
    // "hidden" as the state store gives it back: c starts hidden.
    make(rig, {"span", 100.0, "hidden", "c"});
    rig.process(block({curve("small", QPen(Qt::red), 50, 0.0, 0.1, [](int i) { return i % 2; }),
                       curve("large", QPen(Qt::blue), 50, 0.0, 0.1, [](int) { return 100.0; }),
                       curve("c", QPen(Qt::green), 50, 0.0, 0.1, [](int) { return -500.0; })}));
    rig.refresh();
    QVERIFY(!rig.curve("c")->isVisible());
    QVERIFY(!rig.legendLabel("c")->isChecked());
    QVERIFY(rig.plot->axisScaleDiv(QwtPlot::yLeft).lowerBound() > -500.0);

    QTest::mouseClick(rig.legendLabel("large"), Qt::LeftButton);
    QVERIFY(!rig.curve("large")->isVisible());
    QVERIFY(!rig.legendLabel("large")->isChecked());
    // A hidden curve leaves the autoscale, and the choice is kept for the state store.
    QVERIFY(rig.plot->axisScaleDiv(QwtPlot::yLeft).upperBound() < 100.0);
    QCOMPARE(rig.module->getOption("hidden").toString(), QString("c,large"));

    QTest::mouseClick(rig.legendLabel("large"), Qt::LeftButton);
    QVERIFY(rig.curve("large")->isVisible());
    QVERIFY(rig.plot->axisScaleDiv(QwtPlot::yLeft).upperBound() >= 100.0);
    QCOMPARE(rig.module->getOption("hidden").toString(), QString("c"));
}

// Pausing freezes the curves and the view; zooming keeps taking data but holds the view. Either
// way, going back (resume, zoom out to the base) shows at once everything that came meanwhile,
// in the live view at the newest point.
void tst_Plotter::leaveAndReturnToLiveView_data()
{
    QTest::addColumn<bool>("zoom");
    QTest::newRow("pause") << false;
    QTest::newRow("zoom") << true;
}

void tst_Plotter::leaveAndReturnToLiveView()
{
    QFETCH(bool, zoom);
    Rig rig;
    make(rig, {"span", 100.0});
    const auto flat = [](int) { return 1.0; };
    rig.process(block({curve("a", QPen(Qt::red), 100, 0.0, 0.1, flat)}));
    rig.refresh();
    QAction *pause = rig.module->getActions()->value("pause");
    auto *zoomer = rig.plot->findChild<QwtPlotZoomer *>();
    QVERIFY(pause && pause->isCheckable() && zoomer);

    if (zoom) {
        zoomer->zoom(QRectF(2.0, -0.5, 3.0, 1.0));
        QCOMPARE(rig.xRange(), QwtInterval(2.0, 5.0));
    } else {
        pause->trigger();
    }
    const QwtInterval frozen = rig.xRange();
    rig.process(block({curve("a", QPen(Qt::red), 50, 10.0, 0.1, flat),
                       curve("new", QPen(Qt::blue), 10, 10.0, 0.1, flat)}));
    rig.refresh();
    QCOMPARE(rig.curve("a")->dataSize(), size_t(zoom ? 150 : 100));
    QCOMPARE(rig.curve("new") != nullptr, zoom);
    QCOMPARE(rig.xRange(), frozen);

    if (zoom) {
        zoomer->zoom(-1);
    } else {
        pause->trigger();
        QVERIFY(!pause->isChecked());
    }
    QCOMPARE(rig.curve("a")->dataSize(), size_t(150));
    QVERIFY(rig.curve("new"));
    QCOMPARE(rig.xRange().maxValue(), 10.0 + 49 * 0.1);
    rig.process(block({curve("a", QPen(Qt::red), 10, 15.0, 0.1, flat)}));
    rig.refresh();
    QCOMPARE(rig.xRange().maxValue(), 15.0 + 9 * 0.1);
}

QTEST_MAIN(tst_Plotter)
#include "tst_plotter.moc"
