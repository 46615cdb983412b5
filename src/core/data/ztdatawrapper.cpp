#include "ztdatawrapper.h"

#include "ztdataconverter.h"

#include <QByteArrayList>

namespace {
// Entry classes of the flat form; see the grammar in the header.
enum class Entry { Nested, Name, Pen, Timestamp, Terminator, Int, Value };

Entry classify(const QVariant &v)
{
    const int t = v.userType();
    switch (t) {
    case QMetaType::UnknownType:
        return Entry::Terminator;
    case QMetaType::QVariantList:
        return Entry::Nested;
    case QMetaType::QString:
        return Entry::Name;
    case QMetaType::QPen:
        return Entry::Pen;
    case QMetaType::QDateTime:
        return Entry::Timestamp;
    case QMetaType::Int:
        return Entry::Int;
    case QMetaType::Double:
    case QMetaType::Bool:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Float:
    case QMetaType::Short:
    case QMetaType::UShort:
    case QMetaType::Char:
    case QMetaType::SChar:
    case QMetaType::UChar:
    case QMetaType::Long:
    case QMetaType::ULong:
    case QMetaType::QChar:
    case QMetaType::QByteArray:
    case QMetaType::QStringList:
    case QMetaType::QPoint:
    case QMetaType::QPointF:
        return Entry::Value;
    default:
        break;
    }
    static const QList<int> vectorIds = ZtDataConverter::registerVectorTypes();
    if (t == qMetaTypeId<QByteArrayList>() || vectorIds.contains(t))
        return Entry::Value;
    qFatal("ZtDataWrapper::convListToArray: unknown type");
}

enum Level { NoAttribute, NameLevel, PenLevel, StyleLevel, TimestampLevel };

// One nesting level of convListToArray. The current item is kept outside items until it can
// take no more attributes, so attributes are set on a plain object rather than inside a variant.
class ListReader
{
public:
    explicit ListReader(const QVariantList &list)
        : list(list)
    { }

    ZtDataArray read()
    {
        const int n = list.size();
        for (int i = 0; i < n; ++i) {
            const QVariant &e = list.at(i);
            switch (classify(e)) {
            case Entry::Value:
                value(e);
                break;
            case Entry::Int:
                if (takesStyle() && !(i + 1 < n && !list.at(i + 1).isValid())) {
                    current().setStyle(e.toInt());
                    level = StyleLevel;
                } else {
                    value(e);
                }
                break;
            case Entry::Terminator:
                pendingToValueItem();
                closeCurrent();
                break;
            case Entry::Nested:
                pendingToValueItem();
                closeCurrent();
                currentArray = ListReader(*static_cast<const QVariantList *>(e.constData())).read();
                kind = ZtDataArray::ItemArray;
                level = NoAttribute;
                break;
            case Entry::Name:
                attributeLevel(NameLevel);
                current().setName(e.toString());
                break;
            case Entry::Pen:
                attributeLevel(PenLevel);
                current().setPen(e.value<QPen>());
                break;
            case Entry::Timestamp:
                attributeLevel(TimestampLevel);
                current().setTimestamp(e.toDateTime());
                break;
            }
        }
        pendingToValueItem();
        closeCurrent();
        return array;
    }

private:
    bool takesStyle() const
    {
        return !pending && kind != NoItem && level < StyleLevel
            && (kind == ZtDataArray::ItemArray || level >= NameLevel);
    }

    void value(const QVariant &e)
    {
        if (pending) {
            currentXY = ZtDataXY(*pending, e);
            kind = ZtDataArray::ItemXY;
            level = NoAttribute;
            pending = nullptr;
        } else {
            closeCurrent();
            pending = &e;
        }
    }

    void pendingToValueItem()
    {
        if (!pending)
            return;
        currentY = ZtDataY(*pending);
        kind = ZtDataArray::ItemY;
        level = NoAttribute;
        pending = nullptr;
    }

    void attributeLevel(Level attribute)
    {
        pendingToValueItem();
        if (kind == NoItem || level >= attribute)
            qFatal("ZtDataWrapper::convListToArray: conversion failed");
        level = attribute;
    }

    ZtDataItem &current()
    {
        switch (kind) {
        case ZtDataArray::ItemXY:
            return currentXY;
        case ZtDataArray::ItemY:
            return currentY;
        default:
            return currentArray;
        }
    }

    void closeCurrent()
    {
        switch (kind) {
        case ZtDataArray::ItemXY:
            array.items.append(QVariant::fromValue(currentXY));
            break;
        case ZtDataArray::ItemY:
            array.items.append(QVariant::fromValue(currentY));
            break;
        case ZtDataArray::ItemArray:
            array.items.append(QVariant::fromValue(currentArray));
            currentArray = ZtDataArray();
            break;
        default:
            break;
        }
        kind = NoItem;
    }

    static constexpr int NoItem = -1;

    const QVariantList &list;
    ZtDataArray array;
    const QVariant *pending = nullptr;
    int kind = NoItem;
    Level level = NoAttribute;
    ZtDataXY currentXY;
    ZtDataY currentY;
    ZtDataArray currentArray;
};

void appendAttributes(QVariantList &out, const ZtDataItem &item, bool &attributeWritten)
{
    if (item.isNameSet()) {
        out.append(item.getName());
        attributeWritten = true;
    }
    if (item.isPenSet()) {
        out.append(QVariant::fromValue(item.getPen()));
        attributeWritten = true;
    }
    if (item.isStyleSet()) {
        out.append(item.getStyle());
        attributeWritten = true;
    }
    if (item.isTimestampSet()) {
        out.append(item.getTimestamp());
        attributeWritten = true;
    }
}
} // namespace

ZtDataWrapper::ZtDataWrapper()
{
    ZtDataConverter::registerVectorTypes();
}

QVariantList ZtDataWrapper::convArrayToList(const ZtDataArray &array)
{
    const int idArray = qMetaTypeId<ZtDataArray>();
    const int idXY = qMetaTypeId<ZtDataXY>();
    const int idY = qMetaTypeId<ZtDataY>();

    QVariantList out;
    out.reserve(array.items.size() * 2);
    // Deliberately per call and never reset per item: once any item of this array has written
    // an attribute, bare values that follow get no terminator. Receivers rely on this layout.
    bool attributeWritten = false;
    for (const QVariant &v : array.items) {
        const int t = v.userType();
        const ZtDataItem *item;
        if (t == idArray) {
            const auto *nested = static_cast<const ZtDataArray *>(v.constData());
            out.append(QVariant(convArrayToList(*nested)));
            item = nested;
        } else if (t == idXY) {
            const auto *xy = static_cast<const ZtDataXY *>(v.constData());
            out.append(xy->getX());
            out.append(xy->getY());
            item = xy;
        } else if (t == idY) {
            const auto *y = static_cast<const ZtDataY *>(v.constData());
            out.append(y->getY());
            item = y;
        } else {
            qFatal("ZtDataWrapper::convArrayToList: unknown type");
        }
        appendAttributes(out, *item, attributeWritten);
        if (item->type() == ZtDataArray::ItemY && !attributeWritten)
            out.append(QVariant());
    }
    return out;
}

ZtDataArray ZtDataWrapper::convListToArray(const QVariantList &list)
{
    return ListReader(list).read();
}
