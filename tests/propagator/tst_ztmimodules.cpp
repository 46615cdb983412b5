#include "propagatorfeedbackdirect.h"
#include "propagatorstreamdirect.h"
#include "ztmiextended.h"
#include "ztmistream.h"

#include <QPointer>
#include <QSignalSpy>
#include <QTest>

#include <memory>

namespace {

// Declares one stream name "out" and one feedback name "dev", as a module does in initOptions.
class Device : public ZtMIExtended
{
    Q_OBJECT

public:
    explicit Device(int id)
        : ZtMIExtended(id)
    {
        streams.hash.insert("out", nullptr);
        feedbacks.hash.insert("dev", nullptr);
    }

    QStringList names() const
    {
        QStringList all = streams.hash.keys();
        for (const QString &name : feedbacks.hash.keys())
            all << "fb:" + name;
        all.sort();
        return all;
    }
};

} // namespace

class tst_ZtMIModules : public QObject
{
    Q_OBJECT

private slots:
    void statusReachesState_data();
    void statusReachesState();
    void pointerVariants_data();
    void pointerVariants();
    void setPropagator_data();
    void setPropagator();
    void clearPropagator();
};

void tst_ZtMIModules::statusReachesState_data()
{
    QTest::addColumn<bool>("copy");
    QTest::newRow("constructed") << false;
    QTest::newRow("copied") << true;
}

void tst_ZtMIModules::statusReachesState()
{
    QFETCH(bool, copy);

    ZtMIStream original(4);
    std::unique_ptr<ZtMIStream> copied(copy ? new ZtMIStream(original) : nullptr);
    ZtMIStream *m = copy ? copied.get() : &original;
    QSignalSpy states(m, QOverload<QString>::of(&ZtMIFound::state));

    emit m->myStatus("x");
    QCOMPARE(states.count(), 1);
    QCOMPARE(states.first().first().toString(), QString("x"));
    QCOMPARE(m->property("mt").toInt(), 0);
}

void tst_ZtMIModules::pointerVariants_data()
{
    QTest::addColumn<bool>("extended");
    QTest::newRow("stream module") << false;
    QTest::newRow("extended module") << true;
}

void tst_ZtMIModules::pointerVariants()
{
    QFETCH(bool, extended);

    // A library's instance() hands the module over as a variant of its own pointer type; the
    // kernel must get the QObject back out of it.
    std::unique_ptr<ZtMIFound> m;
    QVariant v;
    if (extended) {
        auto *e = new ZtMIExtended(1);
        m.reset(e);
        v = QVariant::fromValue(e);
    } else {
        auto *s = new ZtMIStream(1);
        m.reset(s);
        v = QVariant::fromValue(s);
    }
    const char *name = extended ? "ZtMIExtended*" : "ZtMIStream*";
    QCOMPARE(v.typeName(), name);
    QCOMPARE(QMetaType::type(name), v.userType());
    QVERIFY(v.canConvert<QObject *>());
    QCOMPARE(qvariant_cast<QObject *>(v), static_cast<QObject *>(m.get()));
    QCOMPARE(qvariant_cast<QObject *>(v)->property("mt").toInt(), extended ? 1 : 0);
}

void tst_ZtMIModules::setPropagator_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("feedback");
    QTest::addColumn<bool>("giveFeedback");
    QTest::addColumn<bool>("accepted");
    QTest::addColumn<bool>("stored");

    QTest::newRow("stream into stream name") << "out" << false << false << true << true;
    QTest::newRow("feedback into feedback name") << "dev" << true << true << true << true;
    QTest::newRow("stream into feedback name") << "dev" << true << false << true << false;
    QTest::newRow("feedback into stream name") << "out" << false << true << true << false;
    QTest::newRow("undeclared name") << "nope" << false << false << false << false;
    QTest::newRow("name declared in the other container")
        << "out" << true << true << false << false;
}

void tst_ZtMIModules::setPropagator()
{
    QFETCH(QString, name);
    QFETCH(bool, feedback);
    QFETCH(bool, giveFeedback);
    QFETCH(bool, accepted);
    QFETCH(bool, stored);

    Device m(1);
    const QStringList declared = m.names();
    PropagatorStreamDirect stream;
    PropagatorFeedbackDirect fb;
    Propagator *p = giveFeedback ? static_cast<Propagator *>(&fb) : &stream;

    QCOMPARE(m.setPropagator(name, p, feedback), accepted);
    QCOMPARE(m.getPropagator(name, feedback), stored ? p : nullptr);
    QCOMPARE(m.getPropagator(name, !feedback), nullptr);
    QCOMPARE(m.names(), declared);
}

void tst_ZtMIModules::clearPropagator()
{
    Device m(1);
    PropagatorStreamDirect out;
    QPointer<PropagatorStreamDirect> alive(&out);
    int delivered = 0;
    connect(&out, &PropagatorStream::trySendList, this, [&] { ++delivered; });
    QVERIFY(m.setPropagator("out", &out, false));

    // Clearing an empty or undeclared name touches nobody's connections.
    QVERIFY(m.clearPropagator("dev", true));
    QVERIFY(m.clearPropagator("nope", false));
    out.sendList({1});
    QCOMPARE(delivered, 1);

    QVERIFY(m.clearPropagator("out", false));
    QCOMPARE(m.getPropagator("out", false), nullptr);
    QVERIFY(!alive.isNull());
    out.sendList({2});
    QCOMPARE(delivered, 1);
    // The name stays declared and can be plugged again.
    QVERIFY(m.setPropagator("out", &out, false));
}

QTEST_GUILESS_MAIN(tst_ZtMIModules)
#include "tst_ztmimodules.moc"
