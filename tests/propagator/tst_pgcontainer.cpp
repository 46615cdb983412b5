#include "pgcontainer.h"
#include "pgfbcontainer.h"
#include "propagatorfeedbackdirect.h"
#include "propagatorstreamdirect.h"

#include <QPointer>
#include <QTest>

#include <memory>

class tst_PGContainer : public QObject
{
    Q_OBJECT

private slots:
    void fallsBackToNullPropagator_data();
    void fallsBackToNullPropagator();

private:
    template<typename Container, typename Real>
    void checkFallBack();
};

template<typename Container, typename Real>
void tst_PGContainer::checkFallBack()
{
    Real real;
    QPointer<Real> guard(&real);
    {
        Container c;
        auto *fallBack = c.value("a");
        QVERIFY(fallBack);
        QCOMPARE(fallBack->getType(), Propagator::Null);
        QVERIFY(c.isNull("a"));

        // Declared but unplugged, undeclared: both give the one null propagator.
        c.hash.insert("a", nullptr);
        QVERIFY(c.isNull("a"));
        QCOMPARE(c.value("a"), fallBack);
        QCOMPARE(c.value("b"), fallBack);

        c.hash.insert("b", &real);
        QVERIFY(!c.isNull("b"));
        QCOMPARE(c.value("b"), &real);
        QCOMPARE(c.value("a"), fallBack);
    }
    // The container owns only its null propagator.
    QVERIFY(!guard.isNull());
}

void tst_PGContainer::fallsBackToNullPropagator_data()
{
    QTest::addColumn<bool>("feedback");
    QTest::newRow("streams") << false;
    QTest::newRow("feedbacks") << true;
}

void tst_PGContainer::fallsBackToNullPropagator()
{
    QFETCH(bool, feedback);
    if (feedback)
        checkFallBack<PGFBContainer, PropagatorFeedbackDirect>();
    else
        checkFallBack<PGContainer, PropagatorStreamDirect>();
}

QTEST_GUILESS_MAIN(tst_PGContainer)
#include "tst_pgcontainer.moc"
