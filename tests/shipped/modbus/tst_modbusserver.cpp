#include "modbusrig.h"

#include <propagatorstreamdirect.h>
#include <ztdataarray.h>
#include <ztdatawrapper.h>
#include <ztdataxy.h>

#include <QModbusReply>
#include <QModbusTcpClient>
#include <QTest>

// ModbusServer loaded from disk, on its own thread, fed through its stream propagator "in" and
// read and written by a QModbusTcpClient over TCP on 127.0.0.1.

namespace {

using Words = QVector<quint16>;

QVariant listOf(const Words &words)
{
    QVariantList list;
    for (quint16 w : words)
        list.append(int(w));
    return list;
}

struct Server
{
    explicit Server(QVariantMap options)
        : port(freePort())
        , rig((options.insert(QStringLiteral("port"), port), options))
    {
        rig.plug(QStringLiteral("in"), &in, false);
        rig.plug(QStringLiteral("writes"), &writes, false);
        QObject::connect(&writes, &PropagatorStream::trySendList, &receiver,
                         [this](const QVariantList &list) { written.append(list); });
    }

    bool connectClient()
    {
        client.setConnectionParameter(QModbusDevice::NetworkAddressParameter,
                                      QStringLiteral("127.0.0.1"));
        client.setConnectionParameter(QModbusDevice::NetworkPortParameter, port);
        client.setTimeout(2000);
        client.connectDevice();
        return QTest::qWaitFor([this] { return client.state() == QModbusDevice::ConnectedState; },
                               10000);
    }

    // The values read, or the error text.
    QVariant finish(QModbusReply *reply)
    {
        if (!reply)
            return client.errorString();
        if (!QTest::qWaitFor([reply] { return reply->isFinished(); }, 10000))
            return QStringLiteral("no reply");
        const QVariant result = reply->error() == QModbusDevice::NoError
            ? listOf(reply->result().values())
            : QVariant(reply->errorString());
        delete reply;
        return result;
    }
    QVariant read(QModbusDataUnit::RegisterType type, int address, int count)
    {
        return finish(client.sendReadRequest(QModbusDataUnit(type, address, quint16(count)), 1));
    }
    // True when the server took the write.
    bool write(QModbusDataUnit::RegisterType type, int address, const Words &values)
    {
        return finish(client.sendWriteRequest(QModbusDataUnit(type, address, values), 1)).type()
            == QVariant::List;
    }

    quint16 port;
    PropagatorStreamDirect in;
    PropagatorStreamDirect writes;
    QObject receiver;
    QList<QVariantList> written;
    QModbusTcpClient client;
    ModuleRig rig;
};

QVariantList curveBlock(double last)
{
    ZtDataArray curve;
    curve.setName(QStringLiteral("generator"));
    curve.items.append(QVariant::fromValue(ZtDataXY(1.0, 0.9)));
    curve.items.append(QVariant::fromValue(ZtDataXY(1.1, last)));
    ZtDataArray block;
    block.items.append(QVariant::fromValue(curve));
    block.items.append(QVariant::fromValue(curve));
    return ZtDataWrapper::convArrayToList(block);
}

} // namespace

class tst_ModbusServer : public QObject
{
    Q_OBJECT

private slots:
    void inputRegistersFollowTheStream_data();
    void inputRegistersFollowTheStream();
    void clientWrites();
    void badOptions_data();
    void badOptions();
};

void tst_ModbusServer::inputRegistersFollowTheStream_data()
{
    QTest::addColumn<QVariantMap>("options");
    QTest::addColumn<QVariantList>("sent");
    QTest::addColumn<int>("address");
    QTest::addColumn<Words>("registers");
    QTest::addColumn<QString>("logged");

    const QVariantMap base {{"registers", 10}, {"inputbase", 2}, {"scale", 10}};
    QTest::newRow("scaled and rounded")
        << base << QVariantList {1.54, -2, 3} << 1 << Words {0, 15, 65516, 30, 0} << QString();
    QTest::newRow("clamped to signed 16 bits")
        << base << QVariantList {1e6, -1e6, qQNaN()} << 2 << Words {32767, 32768, 0} << QString();
    QTest::newRow("clamped to unsigned 16 bits")
        << QVariantMap {{"registers", 10}, {"signed", false}} << QVariantList {-5, 70000, 4.5} << 0
        << Words {0, 65535, 5} << QString();
    QTest::newRow("curves give their latest sample")
        << QVariantMap {{"registers", 10}, {"scale", 100}} << curveBlock(-0.25) << 0
        << Words {65511, 65511, 0} << QString();
    QTest::newRow("bare values with terminators")
        << QVariantMap {{"registers", 10}} << QVariantList {4, QVariant(), 5, QVariant()} << 0
        << Words {4, 5, 0} << QString();
    QTest::newRow("more values than registers")
        << QVariantMap {{"registers", 4}, {"inputbase", 2}} << QVariantList {1, 2, 3} << 1
        << Words {0, 1, 2} << "3 values from register 2 do not fit into 4 input registers";
}

void tst_ModbusServer::inputRegistersFollowTheStream()
{
    QFETCH(QVariantMap, options);
    QFETCH(QVariantList, sent);
    QFETCH(int, address);
    QFETCH(Words, registers);
    QFETCH(QString, logged);

    Server server(options);
    QVERIFY(server.rig.start());
    QVERIFY(server.connectClient());
    server.in.sendList(sent);
    QTRY_COMPARE(server.read(QModbusDataUnit::InputRegisters, address, registers.size()),
                 listOf(registers));
    if (!logged.isEmpty()) {
        server.in.sendList(sent);
        QTRY_COMPARE(server.rig.logged(logged), 1); // once, not for every list
    }
}

// Client writes stay in the tables and go out on "writes", each one, equal values included.
void tst_ModbusServer::clientWrites()
{
    Server server({{"registers", 20}});
    QVERIFY(server.rig.start());
    QVERIFY(server.connectClient());

    QVERIFY(server.write(QModbusDataUnit::HoldingRegisters, 3, {5, 6}));
    QVERIFY(server.write(QModbusDataUnit::HoldingRegisters, 3, {5, 6}));
    QVERIFY(server.write(QModbusDataUnit::HoldingRegisters, 10, {9}));
    QVERIFY(server.write(QModbusDataUnit::Coils, 1, {1}));
    QVERIFY(server.write(QModbusDataUnit::Coils, 4, {1, 0, 1}));
    QTRY_COMPARE(
        server.written,
        QList<QVariantList>({{3, 3, 5, 6}, {3, 3, 5, 6}, {3, 10, 9}, {0, 1, 1}, {0, 4, 1, 0, 1}}));

    QCOMPARE(server.read(QModbusDataUnit::HoldingRegisters, 2, 3), listOf(Words {0, 5, 6}));
    QCOMPARE(server.read(QModbusDataUnit::Coils, 0, 6), listOf(Words {0, 1, 0, 0, 1, 0}));
    // Past the tables: an exception for the client, nothing stored or reported.
    QVERIFY(!server.write(QModbusDataUnit::HoldingRegisters, 19, {1, 2}));
    QCOMPARE(server.written.size(), 5);
}

void tst_ModbusServer::badOptions_data()
{
    QTest::addColumn<QVariantMap>("options");
    QTest::addColumn<QString>("message");

    QTest::newRow("port out of range")
        << QVariantMap {{"port", 0}} << "port \"0\" is not a TCP port (1 to 65535)";
    QTest::newRow("input base past the registers")
        << QVariantMap {{"registers", 8}, {"inputbase", 8}}
        << "inputbase \"8\" is not a register (0 to 7)";
    QTest::newRow("no registers") << QVariantMap {{"registers", 0}}
                                  << "registers \"0\" is not 1 to 65535";
    QTest::newRow("address nobody has") << QVariantMap {{"host", "192.0.2.1"}} << "cannot listen";
}

void tst_ModbusServer::badOptions()
{
    QFETCH(QVariantMap, options);
    QFETCH(QString, message);

    Server server({});
    for (auto it = options.cbegin(); it != options.cend(); ++it)
        server.rig.module->setOption(it.key(), it.value());
    QVERIFY(!server.rig.start());
    QCOMPARE(server.rig.logged(message), 1);
    QVERIFY(server.rig.log().first().contains("not started"));
}

QTEST_GUILESS_MAIN(tst_ModbusServer)
#include "tst_modbusserver.moc"
