#include "plot.h"
#include "poller.h"
#include "processingstage.h"
#include "registerdevice.h"
#include "signalgenerator.h"

#include <propagatorfeedbackdirect.h>
#include <propagatorstreamdirect.h>
#include <ztdataarray.h>
#include <ztdatawrapper.h>
#include <wabstractoptions.h>
#include <ztaction.h>
#include <ztdataxy.h>

#include <QDataStream>
#include <QDialogButtonBox>
#include <QDoubleSpinBox>
#include <QPushButton>
#include <QPen>
#include <QtTest>

#include <memory>

// The demo's modules on their own, all in the test's thread: what the generator emits, what a
// processing stage makes of a curve, how the device encodes its registers, what the poller
// streams and what the plot keeps.
class tst_ExampleModules : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void generatorBlocks_data();
    void generatorBlocks();
    void processingScalesCurves_data();
    void processingScalesCurves();
    void deviceServesRegisters();
    void deviceRefusesWritesOutsideItsRegisters();
    void pollerStreamsWhatTheDeviceHolds();
    void plotKeepsTheLastSpan();
    void optionsDialogOkWritesCancelRestores();
    void amplitudeFollowsPanelActionAndOptions();
};

template<typename M>
static std::unique_ptr<M> makeModule(int id)
{
    auto module = std::make_unique<M>(id);
    module->setup();
    return module;
}

static ZtDataArray curve(const QString &name, const QVector<QPointF> &points)
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

static QVector<QPointF> pointsOf(ZtDataArray c)
{
    QVector<QPointF> points;
    for (const QVariant &item : c.items) {
        const ZtDataXY p = item.value<ZtDataXY>();
        points.append(QPointF(p.getX().toDouble(), p.getY().toDouble()));
    }
    return points;
}

void tst_ExampleModules::initTestCase()
{
    qRegisterMetaType<Logger::Level>("Logger::Level");
}

void tst_ExampleModules::generatorBlocks_data()
{
    QTest::addColumn<QString>("waveform");
    QTest::addColumn<double>("amplitude");
    QTest::addColumn<int>("rate");
    QTest::addColumn<int>("interval");
    QTest::addColumn<bool>("onlyPeaks"); // every sample at +-amplitude
    QTest::newRow("sine") << "sine" << 2.0 << 1000 << 50 << false;
    QTest::newRow("square") << "square" << 0.5 << 2000 << 20 << true;
    QTest::newRow("triangle") << "triangle" << 3.0 << 500 << 100 << false;
    QTest::newRow("saw") << "saw" << 1.0 << 1000 << 200 << false;
    QTest::newRow("unknown shape is a sine") << "noise" << 1.0 << 1000 << 30 << false;
}

void tst_ExampleModules::generatorBlocks()
{
    QFETCH(QString, waveform);
    QFETCH(double, amplitude);
    QFETCH(int, rate);
    QFETCH(int, interval);
    QFETCH(bool, onlyPeaks);

    auto gen = makeModule<SignalGenerator>(0);
    // Values as a state file gives them back: strings.
    gen->setOptionsFromList({QStringLiteral("waveform"), waveform, QStringLiteral("amplitude"),
                             QString::number(amplitude), QStringLiteral("rate"),
                             QString::number(rate), QStringLiteral("interval"),
                             QString::number(interval), QStringLiteral("frequency"),
                             QStringLiteral("50")});
    QVERIFY(gen->init());
    QSignalSpy blocks(gen.get(), &ZtMIStream::ImReady);
    gen->start();
    QTRY_VERIFY(blocks.count() >= 2);
    gen->final();

    QVector<QPointF> all;
    for (const QList<QVariant> &args : qAsConst(blocks)) {
        ZtDataArray b = ZtDataWrapper::convListToArray(args.at(0).toList());
        QCOMPARE(b.items.size(), 1);
        QVERIFY(b.isItemArray(0));
        const ZtDataArray c = b.items.at(0).value<ZtDataArray>();
        QCOMPARE(c.getName(), QStringLiteral("generator"));
        QVERIFY(c.isPenSet());
        QCOMPARE(c.items.size(), rate * interval / 1000);
        all += pointsOf(c);
    }
    double low = amplitude;
    double high = -amplitude;
    for (int i = 0; i < all.size(); ++i) {
        const double y = all.at(i).y();
        QVERIFY2(qAbs(y) <= amplitude + 1e-9, qPrintable(QString::number(y)));
        if (onlyPeaks)
            QCOMPARE(qAbs(y), amplitude);
        low = qMin(low, y);
        high = qMax(high, y);
        // Evenly spaced in time across block boundaries, unless the clock was re-synchronised.
        if (i > 0)
            QVERIFY(all.at(i).x() > all.at(i - 1).x());
    }
    QVERIFY(high - low > amplitude); // it does oscillate
    QVERIFY(qAbs(all.at(1).x() - all.at(0).x() - 1.0 / rate) < 1e-6);
}

void tst_ExampleModules::processingScalesCurves_data()
{
    QTest::addColumn<double>("gain");
    QTest::addColumn<double>("offset");
    QTest::addColumn<QString>("label");
    QTest::addColumn<QString>("color");
    QTest::addColumn<QString>("expectedName");
    QTest::newRow("identity keeps the name") << 1.0 << 0.0 << ""
                                             << ""
                                             << "in";
    QTest::newRow("gain and offset") << 2.0 << 0.5 << ""
                                     << ""
                                     << "in";
    QTest::newRow("negative gain, renamed") << -1.0 << 0.0 << "out"
                                            << ""
                                            << "out";
    QTest::newRow("repen") << 1.0 << -3.0 << ""
                           << "darkorange"
                           << "in";
    QTest::newRow("invalid colour keeps the pen") << 1.0 << 0.0 << ""
                                                  << "nocolour"
                                                  << "in";
}

void tst_ExampleModules::processingScalesCurves()
{
    QFETCH(double, gain);
    QFETCH(double, offset);
    QFETCH(QString, label);
    QFETCH(QString, color);
    QFETCH(QString, expectedName);

    auto stage = makeModule<ProcessingStage>(1);
    stage->setOptionsFromList({QStringLiteral("gain"), gain, QStringLiteral("offset"), offset,
                               QStringLiteral("label"), label, QStringLiteral("color"), color});
    QSignalSpy out(stage.get(), &ZtMIStream::ImReady);

    ZtDataArray first = curve(QStringLiteral("in"), {{0.0, 1.0}, {0.5, -2.0}, {1.0, 4.0}});
    first.setPen(QPen(Qt::blue));
    const ZtDataArray second = curve(QStringLiteral("other"), {{0.0, 10.0}});
    stage->StartProcessing(block({first, second}));
    QCOMPARE(out.count(), 1);

    ZtDataArray result = ZtDataWrapper::convListToArray(out.at(0).at(0).toList());
    QCOMPARE(result.items.size(), 2);
    const ZtDataArray c = result.items.at(0).value<ZtDataArray>();
    QCOMPARE(c.getName(), expectedName);
    QCOMPARE(c.getPen().color(), QColor::isValidColor(color) ? QColor(color) : QColor(Qt::blue));
    const QVector<QPointF> points = pointsOf(c);
    QCOMPARE(
        points,
        QVector<QPointF>(
            {{0.0, gain * 1.0 + offset}, {0.5, gain * -2.0 + offset}, {1.0, gain * 4.0 + offset}}));
    // Every curve of the block is processed.
    QCOMPARE(pointsOf(result.items.at(1).value<ZtDataArray>()),
             QVector<QPointF>({{0.0, gain * 10.0 + offset}}));
}

void tst_ExampleModules::deviceServesRegisters()
{
    auto device = makeModule<RegisterDevice>(4);
    PropagatorFeedbackDirect pg;
    QVERIFY(device->setPropagator(QStringLiteral("regs"), &pg, true));
    QVERIFY(device->init());

    // Holding register 0 is the amplitude of the simulated channels.
    QCOMPARE(pg.writeList({0, 0}), qlonglong(1));
    const QVariantList flat = pg.readList(0 << 16 | 4);
    QCOMPARE(flat, QVariantList({2048, 2048, 2048, 2048}));

    QCOMPARE(pg.writeList({0, 1000}), qlonglong(1));
    const QVariantList moving = pg.readList(1 << 16 | 2);
    QCOMPARE(moving.size(), 2);
    for (const QVariant &v : moving)
        QVERIFY(qAbs(v.toInt() - 2048) <= 1000);
    // Channels are a quarter period apart: never all equal with a non-zero amplitude.
    const QVariantList four = pg.readList(0 << 16 | 4);
    QVERIFY(four.count(four.first()) < four.size());
    // Registers past the device's channels read as 0.
    QCOMPARE(pg.readList(3 << 16 | 3).mid(1), QVariantList({0, 0}));

    // The byte form carries the same registers as big-endian words.
    QByteArray expected;
    QDataStream words(&expected, QIODevice::WriteOnly);
    for (const QVariant &v : four)
        words << quint16(v.toInt());
    QCOMPARE(pg.read(0 << 16 | 4), expected);

    QByteArray write;
    QDataStream request(&write, QIODevice::WriteOnly);
    request << quint16(0) << quint16(0);
    QCOMPARE(pg.write(write), qlonglong(1));
    QCOMPARE(pg.readList(0 << 16 | 1), QVariantList({2048}));
    device->final();
}

void tst_ExampleModules::deviceRefusesWritesOutsideItsRegisters()
{
    auto device = makeModule<RegisterDevice>(4);
    PropagatorFeedbackDirect pg;
    QVERIFY(device->setPropagator(QStringLiteral("regs"), &pg, true));
    QVERIFY(device->init());
    QSignalSpy states(device.get(), SIGNAL(state(QString, Logger::Level)));
    QCOMPARE(pg.writeList({7, 1, 2}), qlonglong(0));
    QCOMPARE(pg.writeList({}), qlonglong(0));
    QCOMPARE(pg.write(QByteArray("\x00", 1)), qlonglong(0));
    QCOMPARE(states.count(), 1);
    QCOMPARE(states.at(0).at(0).toString(), QStringLiteral("refused write of 2 registers at 7"));
    device->final();
}

void tst_ExampleModules::pollerStreamsWhatTheDeviceHolds()
{
    auto device = makeModule<RegisterDevice>(4);
    auto poller = makeModule<Poller>(3);
    PropagatorFeedbackDirect feedback;
    PropagatorStreamDirect out;
    QVERIFY(device->setPropagator(QStringLiteral("regs"), &feedback, true));
    QVERIFY(poller->setPropagator(QStringLiteral("dev"), &feedback, true));
    QVERIFY(poller->setPropagator(QStringLiteral("out"), &out, false));
    poller->setOptionsFromList({QStringLiteral("setpoint"), QStringLiteral("0"),
                                QStringLiteral("count"), 3, QStringLiteral("address"), 1,
                                QStringLiteral("interval"), 10});
    QVERIFY(device->init());
    QVERIFY(poller->init());
    poller->applyOptions();

    QSignalSpy sent(&out, &PropagatorStream::trySendList);
    poller->start();
    QTRY_VERIFY(!sent.isEmpty());
    poller->final();
    device->final();

    // Setpoint 0 stills the device: every register reads 2048, scaled by 0.001.
    ZtDataArray b = ZtDataWrapper::convListToArray(sent.at(0).at(0).toList());
    QCOMPARE(b.items.size(), 3);
    for (int k = 0; k < 3; ++k) {
        const ZtDataArray c = b.items.at(k).value<ZtDataArray>();
        QCOMPARE(c.getName(), QStringLiteral("register %1").arg(k + 1));
        const QVector<QPointF> points = pointsOf(c);
        QCOMPARE(points.size(), 1);
        QCOMPARE(points.first().y(), 2.048);
    }
}

void tst_ExampleModules::plotKeepsTheLastSpan()
{
    auto plot = makeModule<Plot>(2);
    PropagatorStreamDirect in;
    QVERIFY(plot->setPropagator(QStringLiteral("in"), &in, false));
    plot->setOptionsFromList({QStringLiteral("span"), QStringLiteral("2")});
    QVERIFY(plot->init());

    ZtDataArray a = curve(QStringLiteral("a"), {{0.0, 1.0}, {1.0, 2.0}});
    a.setPen(QPen(Qt::red));
    in.sendList(block({a, curve(QStringLiteral("b"), {{0.5, 0.0}})}));
    in.sendList(block({curve(QStringLiteral("a"), {{2.0, 3.0}, {2.5, 4.0}})}));

    const auto &curves = plot->getCurves();
    QCOMPARE(curves.keys(), QStringList({QStringLiteral("a"), QStringLiteral("b")}));
    // x 0.0 is older than 2.5 - 2; the pen stays when a block brings none.
    QCOMPARE(curves.value(QStringLiteral("a")).points,
             QVector<QPointF>({{1.0, 2.0}, {2.0, 3.0}, {2.5, 4.0}}));
    QCOMPARE(curves.value(QStringLiteral("a")).pen.color(), QColor(Qt::red));
    QCOMPARE(curves.value(QStringLiteral("b")).points.size(), 1);

    // A clock that jumps back by more than the span starts the curve again.
    in.sendList(block({curve(QStringLiteral("a"), {{0.1, 9.0}})}));
    QCOMPARE(curves.value(QStringLiteral("a")).points, QVector<QPointF>({{0.1, 9.0}}));
}

void tst_ExampleModules::optionsDialogOkWritesCancelRestores()
{
    auto stage = makeModule<ProcessingStage>(1);
    // The module does not own its widgets; the host window does.
    std::unique_ptr<QWidget> dialog(stage->getWOptions(nullptr));
    auto *options = qobject_cast<WAbstractOptions *>(dialog.get());
    QVERIFY(options);
    connect(options, &WAbstractOptions::changed, stage.get(), &ZtMIFound::actForOptionsChanged);
    stage->setOptionsFromList({QStringLiteral("gain"), 2.0, QStringLiteral("offset"), 1.0});

    const QList<QDoubleSpinBox *> boxes = dialog->findChildren<QDoubleSpinBox *>();
    QCOMPARE(boxes.size(), 2);
    QCOMPARE(boxes.at(0)->value(), 2.0);
    QCOMPARE(boxes.at(1)->value(), 1.0);
    auto *buttons = dialog->findChild<QDialogButtonBox *>();
    QVERIFY(buttons);

    boxes.at(0)->setValue(3.0);
    buttons->button(QDialogButtonBox::Ok)->click();
    QTRY_COMPARE(stage->getOption(QStringLiteral("gain")).toDouble(), 3.0);
    QCOMPARE(stage->getOption(QStringLiteral("offset")).toDouble(), 1.0);

    boxes.at(1)->setValue(9.0);
    buttons->button(QDialogButtonBox::Cancel)->click();
    QCOMPARE(boxes.at(1)->value(), 1.0);
    QCoreApplication::processEvents();
    QCOMPARE(stage->getOption(QStringLiteral("offset")).toDouble(), 1.0);
}

void tst_ExampleModules::amplitudeFollowsPanelActionAndOptions()
{
    auto gen = makeModule<SignalGenerator>(0);
    std::unique_ptr<QWidget> panel(gen->getWMain(nullptr));
    auto *action = qobject_cast<ZtAction *>(gen->getActions()->value(QStringLiteral("amplitude")));
    QVERIFY(action);
    auto *box = panel->findChild<QDoubleSpinBox *>();
    QVERIFY(box);

    // Panel -> value action -> module option.
    QSignalSpy announced(gen.get(), &ZtMIFound::sendOptions);
    box->setValue(2.5);
    QCOMPARE(gen->getOption(QStringLiteral("amplitude")).toDouble(), 2.5);
    QCOMPARE(action->data().toDouble(), 2.5);
    QCOMPARE(announced.count(), 1);

    // Option -> value action -> panel, without bouncing back into another announcement.
    gen->setOptionsFromList({QStringLiteral("amplitude"), QStringLiteral("4")});
    QTRY_COMPARE(box->value(), 4.0);
    QCOMPARE(action->data().toDouble(), 4.0);
    QCOMPARE(announced.count(), 2);

    // Triggering the action resets the amplitude.
    action->trigger();
    QCOMPARE(gen->getOption(QStringLiteral("amplitude")).toDouble(), 1.0);
    QCOMPARE(box->value(), 1.0);
}

QTEST_MAIN(tst_ExampleModules)
#include "tst_examplemodules.moc"
