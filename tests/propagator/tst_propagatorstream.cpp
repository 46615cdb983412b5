#include "modlocker.h"
#include "propagatorfeedbackdirect.h"
#include "propagatorstreamconcurrent.h"
#include "propagatorstreamdirect.h"
#include "propagatorstreamnull.h"
#include "propagatortest.h"
#include "ztmiextended.h"
#include "ztmistream.h"

#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>

#include <memory>

namespace {

std::unique_ptr<PropagatorStream> makeStream(int kind)
{
    switch (kind) {
    case Propagator::Direct:
        return std::make_unique<PropagatorStreamDirect>();
    case Propagator::Concurrent:
        return std::make_unique<PropagatorStreamConcurrent>();
    default:
        return std::make_unique<PropagatorStreamNull>();
    }
}

// Calls one of the four entry points by name, as an upstream propagator or the kernel would;
// recvSend and recvSendList are protected slots.
void invoke(PropagatorStream *p, const QString &call, const QByteArray &bytes,
            const QVariantList &list)
{
    const QByteArray name = call.toLatin1();
    const bool ok = call.endsWith("List")
        ? QMetaObject::invokeMethod(p, name.constData(), Qt::DirectConnection,
                                    Q_ARG(QVariantList, list))
        : QMetaObject::invokeMethod(p, name.constData(), Qt::DirectConnection,
                                    Q_ARG(QByteArray, bytes));
    QVERIFY(ok);
}

struct StreamSpies
{
    explicit StreamSpies(PropagatorStream *p)
        : bytes(p, &PropagatorStream::trySend)
        , lists(p, &PropagatorStream::trySendList)
        , stream(p, &PropagatorStream::streamSendList)
    { }
    QSignalSpy bytes;
    QSignalSpy lists;
    QSignalSpy stream;
};

} // namespace

class tst_PropagatorStream : public QObject
{
    Q_OBJECT

private slots:
    void emissions_data();
    void emissions();
    void childLinks_data();
    void childLinks();
    void arrays_data();
    void arrays();
    void moduleLocksHeldDuringEmission_data();
    void moduleLocksHeldDuringEmission();
};

void tst_PropagatorStream::emissions_data()
{
    QTest::addColumn<int>("kind");
    QTest::addColumn<QString>("call");
    QTest::addColumn<int>("trySend");
    QTest::addColumn<int>("trySendList");
    QTest::addColumn<int>("streamSendList");

    const struct
    {
        const char *name;
        int kind;
    } kinds[] = {{"direct", Propagator::Direct},
                 {"concurrent", Propagator::Concurrent},
                 {"null", Propagator::Null}};
    for (const auto &k : kinds) {
        const int on = k.kind == Propagator::Null ? 0 : 1;
        QTest::addRow("%s send", k.name) << k.kind << "send" << on << 0 << 0;
        QTest::addRow("%s sendList", k.name) << k.kind << "sendList" << 0 << on << on;
        QTest::addRow("%s recvSend", k.name) << k.kind << "recvSend" << on << 0 << 0;
        // Relayed lists are never announced as a fresh stream.
        QTest::addRow("%s recvSendList", k.name) << k.kind << "recvSendList" << 0 << on << 0;
    }
}

void tst_PropagatorStream::emissions()
{
    QFETCH(int, kind);
    QFETCH(QString, call);
    QFETCH(int, trySend);
    QFETCH(int, trySendList);
    QFETCH(int, streamSendList);

    auto p = makeStream(kind);
    StreamSpies spies(p.get());
    const QByteArray bytes("\x01\x02payload", 9);
    const QVariantList list {1, "two", 3.5};
    invoke(p.get(), call, bytes, list);

    QCOMPARE(spies.bytes.count(), trySend);
    QCOMPARE(spies.lists.count(), trySendList);
    QCOMPARE(spies.stream.count(), streamSendList);
    if (trySend)
        QCOMPARE(spies.bytes.first().first().toByteArray(), bytes);
    if (trySendList)
        QCOMPARE(spies.lists.first().first().toList(), list);
    if (streamSendList)
        QCOMPARE(spies.stream.first().first().toList(), list);
}

void tst_PropagatorStream::childLinks_data()
{
    QTest::addColumn<int>("childKind"); // -1: a feedback propagator
    QTest::addColumn<bool>("linked");
    QTest::addColumn<int>("trySend");
    QTest::addColumn<int>("trySendList");
    QTest::addColumn<int>("streamSendList");

    QTest::newRow("direct child") << int(Propagator::Direct) << true << 1 << 1 << 1;
    // The concurrent child sees each list twice on streamSendList: from its own sendList and
    // relayed from the parent's childSendList.
    QTest::newRow("concurrent child") << int(Propagator::Concurrent) << true << 1 << 1 << 2;
    QTest::newRow("null child") << int(Propagator::Null) << true << 0 << 0 << 0;
    QTest::newRow("feedback child") << -1 << false << 0 << 0 << 0;
}

void tst_PropagatorStream::childLinks()
{
    QFETCH(int, childKind);
    QFETCH(bool, linked);
    QFETCH(int, trySend);
    QFETCH(int, trySendList);
    QFETCH(int, streamSendList);

    PropagatorStreamDirect parent;
    std::unique_ptr<Propagator> child;
    if (childKind < 0) {
        child = std::make_unique<PropagatorFeedbackDirect>();
        const QRegularExpression noSlot("QObject::connect: No such slot .*");
        QTest::ignoreMessage(QtWarningMsg, noSlot);
        QTest::ignoreMessage(QtWarningMsg, noSlot);
    } else {
        child = makeStream(childKind);
    }
    QCOMPARE(parent.setChild(child.get()), linked);
    // Set once, even when linking failed; later children are refused.
    PropagatorStreamDirect later;
    QVERIFY(!parent.setChild(&later));
    QCOMPARE(parent.getChild(), child.get());
    if (childKind != Propagator::Direct)
        QVERIFY(!child->setChild(&later)); // only direct stream propagators take a child

    auto *streamChild = qobject_cast<PropagatorStream *>(child.get());
    std::unique_ptr<StreamSpies> spies(streamChild ? new StreamSpies(streamChild) : nullptr);
    StreamSpies own(&parent);

    parent.send("bytes");
    parent.sendList(QVariantList {7, 8});
    // Relayed data stays with the parent's own consumers.
    invoke(&parent, "recvSend", "relayed", {});
    invoke(&parent, "recvSendList", {}, QVariantList {9});

    QCOMPARE(own.bytes.count(), 2);
    QCOMPARE(own.lists.count(), 2);
    QCOMPARE(own.stream.count(), 1);
    if (!spies)
        return;
    QCOMPARE(spies->bytes.count(), trySend);
    QCOMPARE(spies->lists.count(), trySendList);
    QCOMPARE(spies->stream.count(), streamSendList);
    for (const QList<QVariant> &args : qAsConst(spies->stream))
        QCOMPARE(args.first().toList(), (QVariantList {7, 8}));
}

void tst_PropagatorStream::arrays_data()
{
    QTest::addColumn<int>("kind");
    QTest::addColumn<int>("emissions");

    QTest::newRow("direct") << int(Propagator::Direct) << 3;
    QTest::newRow("concurrent") << int(Propagator::Concurrent) << 3;
    QTest::newRow("null") << int(Propagator::Null) << 0;
}

void tst_PropagatorStream::arrays()
{
    QFETCH(int, kind);
    QFETCH(int, emissions);

    auto p = makeStream(kind);
    StreamSpies spies(p.get());
    const ZtDataArray array = sampleArray();
    const QVariantList flat = ZtDataWrapper::convArrayToList(array);

    p->sendArray(array);
    p->sendList(array);
    p->sendList(flat);

    QCOMPARE(spies.lists.count(), emissions);
    QCOMPARE(spies.stream.count(), emissions);
    for (const QList<QVariant> &args : qAsConst(spies.lists))
        QCOMPARE(args.first().toList(), flat);
    // The meta-object knows both array slots by the registered type name, so they can be
    // reached across threads.
    QVERIFY(QMetaType::type("ZtDataArray") != QMetaType::UnknownType);
    QVERIFY(p->metaObject()->indexOfSlot("sendList(ZtDataArray)") >= 0);
    QVERIFY(p->metaObject()->indexOfSlot("sendArray(ZtDataArray)") >= 0);
}

void tst_PropagatorStream::moduleLocksHeldDuringEmission_data()
{
    QTest::addColumn<QString>("call");
    QTest::addColumn<bool>("plainLocked");
    QTest::addColumn<bool>("streamLocked");
    QTest::addColumn<bool>("extendedLocked");

    QTest::newRow("send") << "send" << true << true << true;
    QTest::newRow("sendList") << "sendList" << true << true << true;
    QTest::newRow("recvSend") << "recvSend" << true << true << true;
    // Relayed lists lock only extended modules.
    QTest::newRow("recvSendList") << "recvSendList" << false << false << true;
}

void tst_PropagatorStream::moduleLocksHeldDuringEmission()
{
    QFETCH(QString, call);
    QFETCH(bool, plainLocked);
    QFETCH(bool, streamLocked);
    QFETCH(bool, extendedLocked);

    ZtMIFound plain(1);
    ZtMIStream stream(2);
    ZtMIExtended extended(3);
    const QList<ModLocker *> locks {plain.getLocker(), stream.getLocker(), extended.getLocker()};
    PropagatorStreamConcurrent p;
    for (ModLocker *lock : locks)
        p.appendLocker(lock);

    // A consumer connected directly runs inside the emission: probe every module lock there.
    // The locks are non-recursive, so tryLock from this thread fails exactly when held.
    QList<bool> held;
    int calls = 0;
    auto probe = [&] {
        ++calls;
        held.clear();
        for (ModLocker *lock : locks) {
            const bool free = lock->tryLock();
            if (free)
                lock->unlock();
            held.append(!free);
        }
    };
    connect(&p, &PropagatorStream::trySend, this, probe, Qt::DirectConnection);
    connect(&p, &PropagatorStream::trySendList, this, probe, Qt::DirectConnection);

    invoke(&p, call, "x", QVariantList {1});
    QCOMPARE(calls, 1);
    QCOMPARE(held, (QList<bool> {plainLocked, streamLocked, extendedLocked}));

    for (ModLocker *lock : locks) {
        QVERIFY2(lock->tryLock(), "a module lock stayed held after the emission");
        lock->unlock();
    }
}

QTEST_GUILESS_MAIN(tst_PropagatorStream)
#include "tst_propagatorstream.moc"
