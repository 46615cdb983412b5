#pragma once

#include "ztcore_export.h"
#include "ztdataarray.h"

#include <QVariantList>

// Converts between ZtDataArray and the flat QVariantList form that the propagators' list signals
// carry. Stateless; the conversions are static and may run on any thread.
//
// Flat form written by convArrayToList, per item in order:
//   nested array -> one QVariantList entry (the nested array's own flat form)
//   point        -> x, y
//   value        -> y
// then the item's set attributes in the order name (QString), pen (QPen), style (int),
// timestamp (QDateTime); then, for a value item, an invalid QVariant as terminator provided no
// item of this array (this nesting level) has written an attribute so far. Once one has, later
// bare values get no terminator.
//
// convListToArray reads that form with the following grammar. Entries are classified by their
// exact type:
//   L  QVariantList                    a nested array, read recursively
//   N  QString   P  QPen   T  QDateTime  attributes name, pen, timestamp
//   E  invalid QVariant
//   I  int
//   V  a value: bool, uint, qlonglong, qulonglong, double, float, short, ushort, char, schar,
//      uchar, long, ulong, QChar, QByteArray, QStringList, QByteArrayList, the five sample
//      vector types, QPointF, QPoint. (QStringList and QByteArrayList are single values, never
//      names or nested arrays.)
//   anything else ends the process with "ZtDataWrapper::convListToArray: unknown type".
// The reader keeps at most one pending value (the start of an item not yet decided) and the
// current item, the last one appended, to which attributes go, together with how far its
// attributes have got (none < name < pen < style < timestamp).
//   V        pending value -> appends a point (pending, V); it becomes current.
//            otherwise     -> becomes the pending value; no item is current.
//   I        is the style of the current item when nothing is pending, the current item is a
//            nested array or already has a name or pen, it has neither style nor timestamp, and
//            the next entry is not E (a terminator only ever follows a value). Otherwise I is
//            read like V.
//   E        a pending value becomes a value item; no item is current afterwards.
//   L        a pending value becomes a value item; then the nested array is appended and is
//            current.
//   N, P, T  a pending value becomes a value item and current; the attribute then goes to the
//            current item. No current item, or an attribute that does not come after the
//            current item's last one (in the order above), ends the process with
//            "ZtDataWrapper::convListToArray: conversion failed".
//   end      a pending value becomes a value item.
// So two values in a row are one point (pairs are formed from the left), an int after a value
// is a value, and an int after a nested array, name or pen is a style.
//
// Arrays that read back equal (convListToArray(convArrayToList(a)) == a, value equality with
// variant types compared too): every array a without attributes of its own (the flat form has
// no place for them; nested arrays keep theirs) whose nested arrays, ignoring their own
// attributes, are again of this class, and whose items satisfy
//   1. every x and y is a valid variant of a V or I type above;
//   2. a point or value item that has a style also has a name or a pen;
//   3. a value item without attributes that is written without terminator (some earlier item of
//      the same array has an attribute) is the last item or is followed by a nested array;
//   4. an item whose first value (x of a point, y of a value) is an int, unless it is a value
//      item written with a terminator, does not directly follow an item left open for a style:
//      a nested array, or an item with a name or pen, that has neither style nor timestamp.
// This includes arrays of bare values, arrays of points, nested arrays (curves) with any
// attributes, and mixtures of them that keep rules 2 to 4. Outside the class the reading is
// still deterministic: a value item with style 2 and nothing else ([1, 2]) reads as the point
// (1, 2), and [point(1, 2) with style 3] ([1, 2, 3]) as the point (1, 2) and the value 3.
class ZTCORE_EXPORT ZtDataWrapper
{
public:
    // Registers the sample vector types so that variants of them can be made before any
    // conversion has run.
    ZtDataWrapper();

    static QVariantList convArrayToList(const ZtDataArray &array);
    static ZtDataArray convListToArray(const QVariantList &list);
};
