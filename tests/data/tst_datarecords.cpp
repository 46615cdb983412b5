#include <modbusregsarray.h>
#include <standardsensor.h>

#include <QtTest>

class tst_DataRecords : public QObject
{
    Q_OBJECT

private slots:
    void registerBlockStartsReadingAtZero();
    void registerBlockCopiesEveryField_data();
    void registerBlockCopiesEveryField();
    void sensorConstructors_data();
    void sensorConstructors();
    void sensorCopy();
};

void tst_DataRecords::registerBlockStartsReadingAtZero()
{
    const ModBusRegsArray block(ModBusRegsArray::HoldingRegisters);
    QCOMPARE(int(block.getMode()), 0);
    QCOMPARE(block.getStartAddress(), 0);
    QVERIFY(block.regs.isEmpty());
    QVERIFY(block.bits.isEmpty());
}

void tst_DataRecords::registerBlockCopiesEveryField_data()
{
    QTest::addColumn<int>("field"); // the one field that differs from a plain block

    QTest::newRow("registers") << 0;
    QTest::newRow("bits") << 1;
    QTest::newRow("start address") << 2;
    QTest::newRow("mode") << 3;
    QTest::newRow("type") << 4;
}

void tst_DataRecords::registerBlockCopiesEveryField()
{
    QFETCH(int, field);

    const ModBusRegsArray plain(ModBusRegsArray::Coils);
    ModBusRegsArray block(ModBusRegsArray::Coils);
    switch (field) {
    case 0:
        block.regs = {0xffff, 1, 0x8000};
        break;
    case 1:
        block.bits = {1, 0, 1};
        break;
    case 2:
        block.setStartAddress(40001);
        break;
    case 3:
        block.setMode(ModBusRegsArray::ReadWrite);
        break;
    default:
        block.setType(ModBusRegsArray::InputRegisters);
        break;
    }
    QVERIFY(block != plain); // the comparison below must be able to fail

    const ModBusRegsArray copied(block);
    QVERIFY(copied == block);
    ModBusRegsArray assigned(ModBusRegsArray::DiscreteInputs);
    assigned = block;
    QVERIFY(assigned == block);
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
    QTest::newRow("two zero arguments") << StandardSensor(0.0, 0.0) << 0.0 << 0.0 << 0;
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

void tst_DataRecords::sensorCopy()
{
    StandardSensor sensor(2.0, 3.0);
    sensor.setName(QStringLiteral("T1"));
    sensor.setUnit(QStringLiteral("degC"));
    const StandardSensor copy(sensor);
    QVERIFY(copy == sensor);
    QVERIFY(copy != StandardSensor(5.0));
}

QTEST_GUILESS_MAIN(tst_DataRecords)
#include "tst_datarecords.moc"
