#include "ztdataarray.h"

namespace {
struct TypeIds
{
    int array;
    int xy;
    int y;
};

// Registered once per process; every array keeps its own copy of the ids for its type tests.
const TypeIds &typeIds()
{
    static const TypeIds ids = [] {
        TypeIds ids;
        ids.array = qRegisterMetaType<ZtDataArray>("ZtDataArray");
        QMetaType::registerEqualsComparator<ZtDataArray>();
        ids.xy = qRegisterMetaType<ZtDataXY>("ZtDataXY");
        ids.y = qRegisterMetaType<ZtDataY>("ZtDataY");
        return ids;
    }();
    return ids;
}
} // namespace

ZtDataArray::ZtDataArray()
    : ZtDataItem(QString(), QPen(), -1, QDateTime())
    , idArray(typeIds().array)
    , idXY(typeIds().xy)
    , idY(typeIds().y)
{ }

ZtDataArray::ZtDataArray(const ZtDataArray &other)
    : ZtDataItem(other)
    , idArray(other.idArray)
    , idXY(other.idXY)
    , idY(other.idY)
    , items(other.items)
{ }

ZtDataArray &ZtDataArray::operator=(const ZtDataArray &other)
{
    ZtDataItem::operator=(other);
    idArray = other.idArray;
    idXY = other.idXY;
    idY = other.idY;
    items = other.items;
    return *this;
}

ZtDataArray::~ZtDataArray() = default;

int ZtDataArray::type() const
{
    return ItemArray;
}

int ZtDataArray::itemType(int i) const
{
    const int t = items.at(i).userType();
    if (t == idArray)
        return ItemArray;
    if (t == idXY)
        return ItemXY;
    if (t == idY)
        return ItemY;
    qFatal("ZtDataArray::itemType: unknown item type");
}

bool ZtDataArray::isItemArray(int i) const
{
    return items.at(i).userType() == idArray;
}

void ZtDataArray::replace(int i, const ZtDataItem *item)
{
    switch (item->type()) {
    case ItemXY:
        items[i] = QVariant::fromValue(*static_cast<const ZtDataXY *>(item));
        break;
    case ItemY:
        items[i] = QVariant::fromValue(*static_cast<const ZtDataY *>(item));
        break;
    case ItemArray:
        items[i] = QVariant::fromValue(*static_cast<const ZtDataArray *>(item));
        break;
    default:
        qFatal("ZtDataArray::replace( int, ZtDataItem*): unknown type");
    }
}

ZtDataItem *ZtDataArray::itemDataPointer(int i)
{
    const QVariant &v = items.at(i);
    const int t = v.userType();
    if (t == idXY) {
        scratchXY = v.value<ZtDataXY>();
        return &scratchXY;
    }
    if (t == idY) {
        scratchY = v.value<ZtDataY>();
        return &scratchY;
    }
    return nullptr;
}

bool ZtDataArray::operator==(const ZtDataArray &other) const
{
    if (!ZtDataItem::operator==(other) || items.size() != other.items.size())
        return false;
    for (int i = 0; i < items.size(); ++i) {
        const QVariant &a = items.at(i);
        const QVariant &b = other.items.at(i);
        const int t = a.userType();
        if (t != b.userType())
            return false;
        if (t == idArray) {
            if (*static_cast<const ZtDataArray *>(a.constData())
                != *static_cast<const ZtDataArray *>(b.constData()))
                return false;
        } else if (t == idXY) {
            if (*static_cast<const ZtDataXY *>(a.constData())
                != *static_cast<const ZtDataXY *>(b.constData()))
                return false;
        } else if (t == idY) {
            if (*static_cast<const ZtDataY *>(a.constData())
                != *static_cast<const ZtDataY *>(b.constData()))
                return false;
        } else if (a != b) {
            return false;
        }
    }
    return true;
}
