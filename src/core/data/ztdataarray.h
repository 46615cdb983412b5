#pragma once

#include "ztcore_export.h"
#include "ztdataitem.h"
#include "ztdataxy.h"
#include "ztdatay.h"

#include <QList>
#include <QMetaType>
#include <QVariant>

// An ordered collection of items (points, values and nested arrays, e.g. one curve per nested
// array) with attributes of its own. items is public and users append to it directly; each
// element is a QVariant holding a ZtDataArray, ZtDataXY or ZtDataY by value. Anything else in
// items is a programming error that ends the process when the item is inspected.
//
// Not thread-safe: itemDataPointer writes the scratch items, so even reading through it needs
// the array to be used from one thread at a time.
class ZTCORE_EXPORT ZtDataArray : public ZtDataItem
{
public:
    enum ItemType { ItemArray = 0, ItemXY = 1, ItemY = 2 };

    ZtDataArray();
    // Copies attributes and items; the scratch items of the copy start empty.
    ZtDataArray(const ZtDataArray &other);
    ZtDataArray &operator=(const ZtDataArray &other);
    ~ZtDataArray() override;

    int type() const override;

    // 0 for a nested array, 1 for a point, 2 for a value; anything else is fatal.
    int itemType(int i) const;
    bool isItemArray(int i) const;
    // Stores a copy of *item at position i, wrapped as its concrete class (by item->type()).
    void replace(int i, const ZtDataItem *item);
    // Item i copied into the array's scratch ZtDataXY or ZtDataY, or null for a nested array.
    // The pointer stays valid until the next call for an item of the same kind; writes through
    // it do not reach items.
    ZtDataItem *itemDataPointer(int i);

    // Value equality: attributes, flags and items, compared item by item by value (a nested
    // array equals another with equal contents; y and x variants must have the same type).
    bool operator==(const ZtDataArray &other) const;
    bool operator!=(const ZtDataArray &other) const { return !(*this == other); }

private:
    int idArray;
    int idXY;
    int idY;
    ZtDataXY scratchXY;
    ZtDataY scratchY;

public:
    QList<QVariant> items;
};
Q_DECLARE_METATYPE(ZtDataArray)
