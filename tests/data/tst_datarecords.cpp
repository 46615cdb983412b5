#include <modbusregsarray.h>
#include <standardsensor.h>

#include <QtTest>

class tst_DataRecords : public QObject
{
    Q_OBJECT

private slots:
    void registerBlockCopy();
    void sensorConstructors_data();
    void sensorConstructors();
};

void tst_DataRecords::registerBlockCopy()
{
    ModBusRegsArray block(ModBusRegsArray::Coils);
    QCOMPARE(int(block.getMode()), 0);
    QCOMPARE(block.getStartAddress(), 0);

    block.regs = {0xffff, 1};
    block.bits = {1, 0, 1};
    block.setStartAddress(40001);
    block.setMode(ModBusRegsArray::ReadWrite);
    block.setType(ModBusRegsArray::InputRegisters);
    const ModBusRegsArray copy(block);
    QCOMPARE(copy.regs, block.regs);
    QCOMPARE(copy.bits, block.bits);
    QCOMPARE(copy.getStartAddress(), 40001);
    QCOMPARE(copy.getMode(), ModBusRegsArray::ReadWrite);
    QCOMPARE(copy.getType(), ModBusRegsArray::InputRegisters);
}

void tst_DataRecords::sensorConstructors_data()
{
    QTest::addColumn<StandardSensor>("sensor");
    QTest::addColumn<double>("first");
    QTest::addColumn<double>("second");
    QTest::addColumn<int>("kind");

    QTest::newRow("default") << StandardSensor() << 0.0 << 0.0 << 1;
    QTest::newRow("one argument is ignored") << StandardSensor(5.0) << 0.0 << 0.0 << 2;
    QTest::newRow("two arguments") << StandardSensor(1.5, -2.0) << 1.5 << -2.0 << 0;
    StandardSensor named(3.0, 4.0);
    named.setName(QStringLiteral("T1"));
    QTest::newRow("copy") << StandardSensor(named) << 3.0 << 4.0 << 0;
}

void tst_DataRecords::sensorConstructors()
{
    QFETCH(StandardSensor, sensor);
    QFETCH(double, first);
    QFETCH(double, second);
    QFETCH(int, kind);
    QCOMPARE(sensor.getFirst(), first);
    QCOMPARE(sensor.getSecond(), second);
    QCOMPARE(sensor.getKind(), kind);
}

QTEST_GUILESS_MAIN(tst_DataRecords)
#include "tst_datarecords.moc"
