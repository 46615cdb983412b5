#include "modbusrig.h"

#include <propagatorfeedbackconcurrent.h>
#include <propagatorfeedbackdirect.h>
#include <propagatorstreamdirect.h>
#include <ztdataarray.h>
#include <ztdatawrapper.h>
#include <ztdataxy.h>

#include <QDataStream>
#include <QModbusTcpServer>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>

#include <memory>

// ModbusMaster loaded from disk, on its own thread, asked through a concurrent feedback
// propagator by a requester on yet another thread, against a QModbusTcpServer on 127.0.0.1.

namespace {

using Words = QVector<quint16>;

// Request positions and writes as the module's documentation spells them.
qlonglong pos(int table, int address, int count)
{
    return static_cast<qlonglong>(table) << 32 | address << 16 | count;
}

QByteArray words(const Words &values)
{
    QByteArray bytes;
    QDataStream out(&bytes, QIODevice::WriteOnly);
    for (quint16 v : values)
        out << v;
    return bytes;
}

// A Modbus device: ten elements of each table, some of them preset.
class Device
{
public:
    explicit Device(quint16 port)
    {
        QModbusDataUnitMap map;
        for (auto type : {QModbusDataUnit::Coils, QModbusDataUnit::DiscreteInputs,
                          QModbusDataUnit::InputRegisters, QModbusDataUnit::HoldingRegisters})
            map.insert(type, QModbusDataUnit(type, 0, 10));
        server.setMap(map);
        server.setServerAddress(1);
        server.setConnectionParameter(QModbusDevice::NetworkAddressParameter,
                                      QStringLiteral("127.0.0.1"));
        server.setConnectionParameter(QModbusDevice::NetworkPortParameter, port);
        server.setData(QModbusDataUnit(QModbusDataUnit::Coils, 0, Words {1, 0, 1, 1}));
        server.setData(QModbusDataUnit(QModbusDataUnit::DiscreteInputs, 0, Words {0, 1}));
        server.setData(QModbusDataUnit(QModbusDataUnit::InputRegisters, 0, Words {100, 200, 300}));
        server.setData(QModbusDataUnit(QModbusDataUnit::HoldingRegisters, 0, Words {7, 8, 9}));
        server.connectDevice();
    }

    // QModbusTcpServer frees a connection's buffer only when it sees the socket close.
    ~Device()
    {
        server.disconnectDevice();
        QCoreApplication::processEvents();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }

    Words values(QModbusDataUnit::RegisterType type, int address, int count)
    {
        QModbusDataUnit unit(type, address, static_cast<quint16>(count));
        server.data(&unit);
        return unit.values();
    }

    QModbusTcpServer server;
};

// A thread that is stopped before it is destroyed.
struct RunningThread : QThread
{
    ~RunningThread() override
    {
        quit();
        wait();
    }
};

// The master with its propagators: "regs" concurrent (in a thread of its own, as the kernel
// places it) and "out" direct, whose blocks are collected in the test's thread. Torn down in
// reverse: the module (final() answers what is pending), the propagator thread, the propagators.
struct Master
{
    explicit Master(const QVariantMap &options)
        : rig(options)
    {
        regs.moveToThread(&pgThread);
        pgThread.start();
        rig.plug(QStringLiteral("regs"), &regs, true);
        rig.plug(QStringLiteral("out"), &out, false);
        QObject::connect(&out, &PropagatorStream::trySendList, &receiver,
                         [this](const QVariantList &list) { blocks.append(list); });
    }

    QVariantList readList(qlonglong p)
    {
        QVariantList answer {QStringLiteral("no answer")};
        if (!runElsewhere([&] { answer = regs.readList(p); }))
            return {QStringLiteral("blocked")};
        return answer;
    }

    PropagatorFeedbackConcurrent regs;
    PropagatorStreamDirect out;
    QObject receiver;
    QList<QVariantList> blocks;
    RunningThread pgThread;
    ModuleRig rig;
};

QVariantMap masterOptions(quint16 port, QVariantMap extra = {})
{
    QVariantMap options {
        {"host", "127.0.0.1"}, {"port", port}, {"unit", 1}, {"timeout", 300}, {"retries", 1}};
    for (auto it = extra.cbegin(); it != extra.cend(); ++it)
        options.insert(it.key(), it.value());
    return options;
}

} // namespace

class tst_ModbusMaster : public QObject
{
    Q_OBJECT

private slots:
    void requests_data();
    void requests();
    void sameThreadRequester();
    void polling();
    void reconnects();
    void unansweredRequests_data();
    void unansweredRequests();
    void badOptions_data();
    void badOptions();
};

enum Request { ReadList, Read, WriteList, Write };

void tst_ModbusMaster::requests_data()
{
    QTest::addColumn<int>("request");
    QTest::addColumn<QVariant>("argument");
    QTest::addColumn<QVariant>("answer");
    // After a write: [table, address, values...] as the device holds them.
    QTest::addColumn<QVariantList>("stored");

    const QVariantList none;
    QTest::newRow("read coils") << int(ReadList) << QVariant(pos(0, 0, 4))
                                << QVariant(QVariantList {1, 0, 1, 1}) << none;
    QTest::newRow("read discrete inputs")
        << int(ReadList) << QVariant(pos(1, 0, 2)) << QVariant(QVariantList {0, 1}) << none;
    QTest::newRow("read input registers")
        << int(ReadList) << QVariant(pos(2, 1, 2)) << QVariant(QVariantList {200, 300}) << none;
    QTest::newRow("read holding registers")
        << int(ReadList) << QVariant(pos(3, 0, 3)) << QVariant(QVariantList {7, 8, 9}) << none;
    QTest::newRow("read as bytes")
        << int(Read) << QVariant(pos(3, 1, 2)) << QVariant(words({8, 9})) << none;
    QTest::newRow("write holding registers")
        << int(WriteList) << QVariant(QVariantList {3, 5, 11, 12}) << QVariant(2LL)
        << QVariantList {3, 5, 11, 12};
    QTest::newRow("write coils") << int(WriteList) << QVariant(QVariantList {0, 2, 0, 5})
                                 << QVariant(2LL) << QVariantList {0, 2, 0, 1};
    QTest::newRow("write a negative register")
        << int(WriteList) << QVariant(QVariantList {3, 0, -1}) << QVariant(1LL)
        << QVariantList {3, 0, 65535};
    QTest::newRow("write as bytes")
        << int(Write) << QVariant(words({3, 1, 42})) << QVariant(1LL) << QVariantList {3, 1, 42};
    // Error answers: empty data, -1; the device is not asked.
    QTest::newRow("write input registers") << int(WriteList) << QVariant(QVariantList {2, 0, 1})
                                           << QVariant(-1LL) << QVariantList {2, 0, 100};
    QTest::newRow("write without values") << int(WriteList) << QVariant(QVariantList {3, 0})
                                          << QVariant(-1LL) << QVariantList {3, 0, 7};
    QTest::newRow("write a value past 16 bits")
        << int(WriteList) << QVariant(QVariantList {3, 0, 70000}) << QVariant(-1LL)
        << QVariantList {3, 0, 7};
    QTest::newRow("read nothing") << int(ReadList) << QVariant(pos(3, 0, 0))
                                  << QVariant(QVariantList()) << none;
    QTest::newRow("read more than a frame carries")
        << int(ReadList) << QVariant(pos(3, 0, 126)) << QVariant(QVariantList()) << none;
    QTest::newRow("read an unknown table")
        << int(ReadList) << QVariant(pos(7, 0, 1)) << QVariant(QVariantList()) << none;
}

void tst_ModbusMaster::requests()
{
    QFETCH(int, request);
    QFETCH(QVariant, argument);
    QFETCH(QVariant, answer);
    QFETCH(QVariantList, stored);

    const quint16 port = freePort();
    Device device(port);
    Master master(masterOptions(port));
    QVERIFY(master.rig.start());
    QTRY_COMPARE(master.rig.logged("connected"), 1);

    QVariant result;
    QVERIFY(runElsewhere([&] {
        switch (request) {
        case ReadList:
            result = master.regs.readList(argument.toLongLong());
            break;
        case Read:
            result = master.regs.read(argument.toLongLong());
            break;
        case WriteList:
            result = master.regs.writeList(argument.toList());
            break;
        default:
            result = master.regs.write(argument.toByteArray());
            break;
        }
    }));
    QCOMPARE(result, answer);

    if (!stored.isEmpty()) {
        const auto type = QList<QModbusDataUnit::RegisterType> {QModbusDataUnit::Coils,
                                                                QModbusDataUnit::DiscreteInputs,
                                                                QModbusDataUnit::InputRegisters,
                                                                QModbusDataUnit::HoldingRegisters}
                              .at(stored.at(0).toInt());
        QVariantList held {stored.at(0), stored.at(1)};
        for (quint16 v : device.values(type, stored.at(1).toInt(), stored.size() - 2))
            held.append(int(v));
        QCOMPARE(held, stored);
    }
}

// A requester in the master's own thread is wired with a direct propagator: its call returns
// with the answer although the device answers later.
void tst_ModbusMaster::sameThreadRequester()
{
    const quint16 port = freePort();
    Device device(port);
    PropagatorFeedbackDirect regs;
    ModuleRig rig(masterOptions(port));
    rig.plug(QStringLiteral("regs"), &regs, true);
    QVERIFY(rig.start());
    QTRY_COMPARE(rig.logged("connected"), 1);

    qlonglong written = 0;
    QVariantList answer;
    QVERIFY(runElsewhere([&] {
        callIn(rig.module, [&] {
            written = regs.writeList({3, 4, 40, 41});
            answer = regs.readList(pos(3, 3, 3));
        });
    }));
    QCOMPARE(written, 2);
    QCOMPARE(answer, QVariantList({0, 40, 41}));
}

// Each register of the polled blocks is a curve of its own, named after its table and address.
void tst_ModbusMaster::polling()
{
    const quint16 port = freePort();
    Device device(port);
    device.server.setData(QModbusDataUnit::HoldingRegisters, 0, 65532); // -4 read signed
    Master master(masterOptions(
        port, {{"poll", "hr:0:2, ir:1:2"}, {"interval", 20}, {"scale", 0.5}, {"signed", true}}));
    QVERIFY(master.rig.start());
    QTRY_VERIFY(!master.blocks.isEmpty());

    const ZtDataArray block = ZtDataWrapper::convListToArray(master.blocks.first());
    QStringList names;
    QVariantList values;
    for (const QVariant &item : block.items) {
        const ZtDataArray curve = item.value<ZtDataArray>();
        names.append(curve.getName());
        QCOMPARE(curve.items.size(), 1);
        values.append(curve.items.first().value<ZtDataXY>().getY().toDouble());
    }
    QCOMPARE(names, QStringList({"hr:0", "hr:1", "ir:1", "ir:2"}));
    QCOMPARE(values, QVariantList({-2.0, 4.0, 100.0, 150.0}));
}

// A Modbus exception is logged and answered with the error answer. The device goes away and
// comes back on the same port: the loss and the return are logged once each, requests in between
// get the error answer, and answers resume.
void tst_ModbusMaster::reconnects()
{
    const quint16 port = freePort();
    auto device = std::make_unique<Device>(port);
    Master master(masterOptions(port));
    QVERIFY(master.rig.start());
    QTRY_COMPARE(master.rig.logged("connected"), 1);
    QCOMPARE(master.readList(pos(3, 0, 1)), QVariantList {7});
    QCOMPARE(master.readList(pos(3, 500, 2)), QVariantList());
    QTRY_COMPARE(
        master.rig.logged("Modbus exception 2 (illegal data address) for read of hr:500:2"), 1);

    device.reset();
    QTRY_COMPARE(master.rig.logged("connection lost"), 1);
    for (int i = 0; i < 3; ++i)
        QCOMPARE(master.readList(pos(3, 0, 1)), QVariantList());

    device = std::make_unique<Device>(port);
    device->server.setData(QModbusDataUnit::HoldingRegisters, 0, 77);
    QTRY_COMPARE_WITH_TIMEOUT(master.rig.logged("connection is back"), 1, 20000);
    QCOMPARE(master.readList(pos(3, 0, 1)), QVariantList {77});
    QCOMPARE(master.rig.logged("connection lost"), 1);
}

void tst_ModbusMaster::unansweredRequests_data()
{
    QTest::addColumn<bool>("hangUp");
    QTest::addColumn<QVariantMap>("options");
    QTest::addColumn<int>("losses");

    // Keeps the connection and never answers: each request ends at its deadline.
    QTest::newRow("silent peer") << false << QVariantMap {{"timeout", 100}, {"retries", 2}} << 0;
    // Reads the request and hangs up: the request is failed with the connection, not left to a
    // deadline that lies far beyond the end of the test.
    QTest::newRow("peer hangs up")
        << true << QVariantMap {{"timeout", 600000}, {"retries", 0}} << 1;
}

// Requests the device leaves unanswered still get their error answer.
void tst_ModbusMaster::unansweredRequests()
{
    QFETCH(bool, hangUp);
    QFETCH(QVariantMap, options);
    QFETCH(int, losses);

    QTcpServer peer;
    QVERIFY(peer.listen(QHostAddress::LocalHost, 0));
    connect(&peer, &QTcpServer::newConnection, &peer, [&] {
        QTcpSocket *socket = peer.nextPendingConnection();
        if (hangUp)
            connect(socket, &QTcpSocket::readyRead, socket, &QTcpSocket::abort);
    });
    Master master(masterOptions(peer.serverPort(), options));
    QVERIFY(master.rig.start());
    QTRY_COMPARE(master.rig.logged("connected"), 1);

    QCOMPARE(master.readList(pos(3, 0, 1)), QVariantList());
    QTRY_COMPARE(master.rig.logged("connection lost"), losses);
    if (!hangUp) {
        QVariant written;
        QVERIFY(runElsewhere([&] { written = master.regs.writeList({3, 0, 1}); }));
        QCOMPARE(written, QVariant(-1LL));
    }
}

void tst_ModbusMaster::badOptions_data()
{
    QTest::addColumn<QVariantMap>("options");
    QTest::addColumn<QString>("message");

    QTest::newRow("port out of range")
        << QVariantMap {{"port", 70000}} << "port \"70000\" is not a TCP port (1 to 65535)";
    QTest::newRow("poll entry without count")
        << QVariantMap {{"poll", "hr:0:10,ir:5"}}
        << "poll entry \"ir:5\": expected table:address:count";
    QTest::newRow("poll entry too long")
        << QVariantMap {{"poll", "ir:0:200"}}
        << "poll entry \"ir:0:200\": 200 elements asked, one request carries 1 to 125";
    QTest::newRow("serial port that does not exist")
        << QVariantMap {{"serialport", "/dev/ttyZtCoreNone"}}
        << "serial port \"/dev/ttyZtCoreNone\" does not exist";
}

// The module says what is wrong, does not start, and still answers (with the error answer).
void tst_ModbusMaster::badOptions()
{
    QFETCH(QVariantMap, options);
    QFETCH(QString, message);

    Master master(masterOptions(freePort(), options));
    QVERIFY(!master.rig.start());
    QCOMPARE(master.rig.logged(message), 1);
    QVERIFY(master.rig.log().first().contains("not started"));
    QCOMPARE(master.readList(pos(3, 0, 1)), QVariantList());
}

QTEST_GUILESS_MAIN(tst_ModbusMaster)
#include "tst_modbusmaster.moc"
