#pragma once

#include <QList>
#include <QModbusDataUnit>
#include <QString>

// A run of elements of one Modbus table, as requests and the `poll` option name it. Tables are
// numbered as ModBusRegsArray::RegsType numbers them (0 coils, 1 discrete inputs, 2 input
// registers, 3 holding registers), so that an answer fills the array of the same type; in text
// they are "co", "di", "ir" and "hr".
struct ModbusBlock
{
    int table = -1;
    int address = 0;
    int count = 0;

    // A list read's position: table << 32 | address << 16 | count.
    static ModbusBlock fromPos(qlonglong pos);
    // "hr:0:10" (table:address:count); on failure an invalid block and *error says why.
    static ModbusBlock parse(const QString &text, QString *error);
    // A comma-separated list of blocks; empty text gives no blocks.
    static QList<ModbusBlock> parseList(const QString &text, QString *error);
    static QString tableName(int table);

    bool isBits() const { return table == 0 || table == 1; }
    bool isWritable() const { return table == 0 || table == 3; }
    QModbusDataUnit::RegisterType registerType() const;
    // "hr:0:10".
    QString name() const;
    // Why a request for this block cannot be sent (empty when it can): unknown table, a count
    // outside what one Modbus frame carries, addresses past 65535, a write to a read-only table.
    QString problem(bool write) const;
};
