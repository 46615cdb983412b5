#include "plot.h"
#include "processingstage.h"
#include "registerdevice.h"
#include "signalgenerator.h"

#include <propagatorfeedbackdirect.h>
#include <propagatorstreamdirect.h>
#include <wabstractoptions.h>
#include <ztaction.h>
#include <ztdataarray.h>
#include <ztdatawrapper.h>
#include <ztdataxy.h>

#include <QDialogButtonBox>
#include <QDoubleSpinBox>
#include <QPen>
#include <QPushButton>
#include <QtTest>

#include <algorithm>
#include <memory>

// The demo's modules on their own, all in the test's thread.
class tst_ExampleModules : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { qRegisterMetaType<Logger::Level>("Logger::Level"); }
    void generatorBlocks_data();
    void generatorBlocks();
    void processingScalesCurves_data();
    void processingScalesCurves();
    void deviceRefusesForeignRegisters();
    void plotKeepsTheLastSpan();
    void optionsDialogShowsAndWrites();
    void amplitudeFollowsPanelActionAndOptions();
};

using Points = QVector<QPointF>;

template<typename M>
static std::unique_ptr<M> makeModule(int id)
{
    auto module = std::make_unique<M>(id);
    module->setup();
    return module;
}

static ZtDataArray curve(const QString &name, const Points &points)
{
    ZtDataArray c;
    c.setName(name);
    for (const QPointF &p : points)
        c.items.append(QVariant::fromValue(ZtDataXY(p.x(), p.y())));
    return c;
}

static QVariantList block(const QList<ZtDataArray> &curves)
{
    ZtDataArray b;
    for (const ZtDataArray &c : curves)
        b.items.append(QVariant::fromValue(c));
    return ZtDataWrapper::convArrayToList(b);
}

// The curves of a block that a module emitted.
static QList<ZtDataArray> curvesOf(const QVariant &list)
{
    QList<ZtDataArray> curves;
    for (const QVariant &item : ZtDataWrapper::convListToArray(list.toList()).items)
        curves.append(item.value<ZtDataArray>());
    return curves;
}

static Points pointsOf(const ZtDataArray &c)
{
    Points points;
    for (const QVariant &item : c.items) {
        const ZtDataXY p = item.value<ZtDataXY>();
        points.append(QPointF(p.getX().toDouble(), p.getY().toDouble()));
    }
    return points;
}

// Every sample within +-amplitude and, in time, after the one before, across blocks too.
void tst_ExampleModules::generatorBlocks_data()
{
    QTest::addColumn<QString>("waveform");
    QTest::addColumn<bool>("onlyPeaks"); // every sample at +-amplitude
    QTest::newRow("sine") << "sine" << false;
    QTest::newRow("square") << "square" << true;
    QTest::newRow("unknown shape is a sine") << "noise" << false;
}

void tst_ExampleModules::generatorBlocks()
{
    QFETCH(QString, waveform);
    QFETCH(bool, onlyPeaks);
    const double amplitude = 0.5;
    const int rate = 2000;
    auto gen = makeModule<SignalGenerator>(0);
    // Values as a state file gives them back: strings. Blocks of 40 ms, two periods each.
    gen->setOptionsFromList({"waveform", waveform, "amplitude", QString::number(amplitude), "rate",
                             QString::number(rate), "interval", "40", "frequency", "50"});
    QVERIFY(gen->init());
    QSignalSpy blocks(gen.get(), &ZtMIStream::ImReady);
    gen->start();
    QTRY_VERIFY(blocks.count() >= 2);
    gen->final();

    Points all;
    for (const QList<QVariant> &args : qAsConst(blocks)) {
        const QList<ZtDataArray> curves = curvesOf(args.at(0));
        QCOMPARE(curves.size(), 1);
        QCOMPARE(curves[0].items.size(), rate * 40 / 1000);
        all += pointsOf(curves[0]);
    }
    const auto byY = [](const QPointF &a, const QPointF &b) { return a.y() < b.y(); };
    const auto range = std::minmax_element(all.begin(), all.end(), byY);
    QVERIFY(range.first->y() >= -amplitude - 1e-9 && range.second->y() <= amplitude + 1e-9);
    QVERIFY(range.second->y() - range.first->y() > amplitude); // it does oscillate
    for (int i = 1; i < all.size(); ++i) {
        QVERIFY(all[i].x() > all[i - 1].x());
        QVERIFY(!onlyPeaks || qAbs(all[i].y()) == amplitude);
    }
    QVERIFY(qAbs(all[1].x() - all[0].x() - 1.0 / rate) < 1e-6);
}

void tst_ExampleModules::processingScalesCurves_data()
{
    QTest::addColumn<double>("gain");
    QTest::addColumn<double>("offset");
    QTest::addColumn<QString>("label"); // renames the curve unless empty
    QTest::addColumn<QString>("color");
    const QString none;
    QTest::newRow("gain and offset") << 2.0 << 0.5 << none << none;
    QTest::newRow("negative gain, renamed") << -1.0 << 0.0 << "out" << none;
    QTest::newRow("invalid colour keeps the pen") << 1.0 << 0.0 << none << "nocolour";
}

void tst_ExampleModules::processingScalesCurves()
{
    QFETCH(double, gain);
    QFETCH(double, offset);
    QFETCH(QString, label);
    QFETCH(QString, color);

    auto stage = makeModule<ProcessingStage>(1);
    stage->setOptionsFromList({"gain", gain, "offset", offset, "label", label, "color", color});
    QSignalSpy out(stage.get(), &ZtMIStream::ImReady);
    ZtDataArray first = curve("in", {{0.0, 1.0}, {0.5, -2.0}, {1.0, 4.0}});
    first.setPen(QPen(Qt::blue));
    stage->StartProcessing(block({first, curve("other", {{0.0, 10.0}})}));
    QCOMPARE(out.count(), 1);

    // Every curve of the block is processed.
    const QList<ZtDataArray> curves = curvesOf(out.at(0).at(0));
    QCOMPARE(curves.size(), 2);
    QCOMPARE(curves[0].getName(), label.isEmpty() ? QString("in") : label);
    QCOMPARE(curves[0].getPen().color(),
             QColor::isValidColor(color) ? QColor(color) : QColor(Qt::blue));
    auto f = [&](double y) { return gain * y + offset; };
    QCOMPARE(pointsOf(curves[0]), Points({{0.0, f(1.0)}, {0.5, f(-2.0)}, {1.0, f(4.0)}}));
    QCOMPARE(pointsOf(curves[1]), Points({{0.0, f(10.0)}}));
}

void tst_ExampleModules::deviceRefusesForeignRegisters()
{
    auto device = makeModule<RegisterDevice>(4);
    PropagatorFeedbackDirect pg;
    QVERIFY(device->setPropagator("regs", &pg, true));
    QVERIFY(device->init());

    // Reads and writes inside its registers run end to end in the demo. Registers past the
    // device's channels read as 0; writes there are refused, and reported; an empty one without
    // a word.
    QCOMPARE(pg.readList(3 << 16 | 3).mid(1), QVariantList({0, 0}));
    QSignalSpy states(device.get(), SIGNAL(state(QString, Logger::Level)));
    QCOMPARE(pg.writeList({7, 1, 2}), qlonglong(0));
    QCOMPARE(pg.writeList({}), qlonglong(0));
    QCOMPARE(states.count(), 1);
    QCOMPARE(states.at(0).at(0).toString(), QString("refused write of 2 registers at 7"));
    device->final();
}

void tst_ExampleModules::plotKeepsTheLastSpan()
{
    auto plot = makeModule<Plot>(2);
    PropagatorStreamDirect in;
    QVERIFY(plot->setPropagator("in", &in, false));
    plot->setOptionsFromList({"span", "2"});
    QVERIFY(plot->init());

    ZtDataArray a = curve("a", {{0.0, 1.0}, {1.0, 2.0}});
    a.setPen(QPen(Qt::red));
    in.sendList(block({a, curve("b", {{0.5, 0.0}})}));
    in.sendList(block({curve("a", {{2.0, 3.0}, {2.5, 4.0}})}));

    const auto &curves = plot->getCurves();
    QCOMPARE(curves.keys(), QStringList({"a", "b"}));
    // x 0.0 is older than 2.5 - 2; the pen stays when a block brings none.
    QCOMPARE(curves["a"].points, Points({{1.0, 2.0}, {2.0, 3.0}, {2.5, 4.0}}));
    QCOMPARE(curves["a"].pen.color(), QColor(Qt::red));
    QCOMPARE(curves["b"].points.size(), 1);
    // A clock that jumps back by more than the span starts the curve again.
    in.sendList(block({curve("a", {{0.1, 9.0}})}));
    QCOMPARE(curves["a"].points, Points({{0.1, 9.0}}));
}

void tst_ExampleModules::optionsDialogShowsAndWrites()
{
    auto stage = makeModule<ProcessingStage>(1);
    // The module does not own its widgets; the host window does.
    std::unique_ptr<QWidget> dialog(stage->getWOptions(nullptr));
    auto *options = qobject_cast<WAbstractOptions *>(dialog.get());
    QVERIFY(options);
    connect(options, &WAbstractOptions::changed, stage.get(), &ZtMIFound::actForOptionsChanged);
    stage->setOptionsFromList({"gain", 2.0, "offset", 1.0});

    const QList<QDoubleSpinBox *> boxes = dialog->findChildren<QDoubleSpinBox *>();
    auto *buttons = dialog->findChild<QDialogButtonBox *>();
    QVERIFY(boxes.size() == 2 && buttons);
    QCOMPARE(boxes[0]->value(), 2.0);
    QCOMPARE(boxes[1]->value(), 1.0);

    boxes[0]->setValue(3.0);
    buttons->button(QDialogButtonBox::Ok)->click();
    QTRY_COMPARE(stage->getOption("gain").toDouble(), 3.0);
    QCOMPARE(stage->getOption("offset").toDouble(), 1.0);
}

void tst_ExampleModules::amplitudeFollowsPanelActionAndOptions()
{
    auto gen = makeModule<SignalGenerator>(0);
    std::unique_ptr<QWidget> panel(gen->getWMain(nullptr));
    auto *action = qobject_cast<ZtAction *>(gen->getActions()->value("amplitude"));
    auto *box = panel->findChild<QDoubleSpinBox *>();
    QVERIFY(action && box);

    // Panel -> value action -> module option.
    QSignalSpy announced(gen.get(), &ZtMIFound::sendOptions);
    box->setValue(2.5);
    QCOMPARE(gen->getOption("amplitude").toDouble(), 2.5);
    QCOMPARE(action->data().toDouble(), 2.5);
    QCOMPARE(announced.count(), 1);
    // Option -> value action -> panel, without bouncing back into another announcement.
    gen->setOptionsFromList({"amplitude", "4"});
    QTRY_COMPARE(box->value(), 4.0);
    QCOMPARE(action->data().toDouble(), 4.0);
    QCOMPARE(announced.count(), 2);
    // Triggering the action resets the amplitude.
    action->trigger();
    QCOMPARE(gen->getOption("amplitude").toDouble(), 1.0);
    QCOMPARE(box->value(), 1.0);
}

QTEST_MAIN(tst_ExampleModules)
#include "tst_examplemodules.moc"
