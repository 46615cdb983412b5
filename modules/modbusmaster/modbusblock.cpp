#include "modbusblock.h"

#include <QStringList>

namespace {

const char *const tableNames[] = {"co", "di", "ir", "hr"};

// What one request frame carries (Modbus application protocol, function codes 1-4, 15, 16).
int maxCount(int table, bool write)
{
    const bool bits = table == 0 || table == 1;
    if (write)
        return bits ? 1968 : 123;
    return bits ? 2000 : 125;
}

} // namespace

ModbusBlock ModbusBlock::fromPos(qlonglong pos)
{
    ModbusBlock block;
    block.table = static_cast<int>(pos >> 32);
    block.address = static_cast<int>((pos >> 16) & 0xffff);
    block.count = static_cast<int>(pos & 0xffff);
    return block;
}

QString ModbusBlock::tableName(int table)
{
    return table >= 0 && table < 4 ? QString::fromLatin1(tableNames[table])
                                   : QStringLiteral("table %1").arg(table);
}

QModbusDataUnit::RegisterType ModbusBlock::registerType() const
{
    switch (table) {
    case 0:
        return QModbusDataUnit::Coils;
    case 1:
        return QModbusDataUnit::DiscreteInputs;
    case 2:
        return QModbusDataUnit::InputRegisters;
    case 3:
        return QModbusDataUnit::HoldingRegisters;
    default:
        return QModbusDataUnit::Invalid;
    }
}

QString ModbusBlock::name() const
{
    return QStringLiteral("%1:%2:%3").arg(tableName(table)).arg(address).arg(count);
}

QString ModbusBlock::problem(bool write) const
{
    if (table < 0 || table > 3)
        return QStringLiteral("unknown table %1 (0 coils, 1 discrete inputs, 2 input registers, "
                              "3 holding registers)")
            .arg(table);
    if (write && !isWritable())
        return QStringLiteral("%1 is read-only").arg(tableName(table));
    const int most = maxCount(table, write);
    if (count < 1 || count > most)
        return QStringLiteral("%1 elements asked, one request carries 1 to %2")
            .arg(count)
            .arg(most);
    if (address < 0 || address + count > 0x10000)
        return QStringLiteral("addresses %1 to %2 are past 65535")
            .arg(address)
            .arg(address + count - 1);
    return QString();
}

ModbusBlock ModbusBlock::parse(const QString &text, QString *error)
{
    const QStringList parts = text.trimmed().split(QLatin1Char(':'));
    ModbusBlock block;
    bool addressOk = false;
    bool countOk = false;
    if (parts.size() == 3) {
        for (int t = 0; t < 4; ++t) {
            if (parts.at(0).trimmed().compare(QLatin1String(tableNames[t]), Qt::CaseInsensitive)
                == 0)
                block.table = t;
        }
        block.address = parts.at(1).trimmed().toInt(&addressOk);
        block.count = parts.at(2).trimmed().toInt(&countOk);
    }
    QString why;
    if (parts.size() != 3)
        why = QStringLiteral("expected table:address:count, e.g. hr:0:10");
    else if (block.table < 0)
        why = QStringLiteral("unknown table \"%1\" (co, di, ir or hr)").arg(parts.at(0).trimmed());
    else if (!addressOk || !countOk)
        why = QStringLiteral("address and count must be whole numbers");
    else
        why = block.problem(false);
    if (!why.isEmpty()) {
        if (error)
            *error = QStringLiteral("\"%1\": %2").arg(text.trimmed(), why);
        return ModbusBlock();
    }
    return block;
}

QList<ModbusBlock> ModbusBlock::parseList(const QString &text, QString *error)
{
    QList<ModbusBlock> blocks;
    if (text.trimmed().isEmpty())
        return blocks;
    for (const QString &entry : text.split(QLatin1Char(','))) {
        const ModbusBlock block = parse(entry, error);
        if (block.table < 0)
            return {};
        blocks.append(block);
    }
    return blocks;
}
