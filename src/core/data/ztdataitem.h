#pragma once

#include "ztcore_export.h"

#include <QDateTime>
#include <QPen>
#include <QString>
#include <QVariant>
#include <QVector>

// Common part of every data item that modules exchange: presentation attributes (name, pen,
// style) and a timestamp, each with an is-set flag. Only attributes whose flag is set travel in
// the flat list form, so the flags are always derived from the values and never set by hand:
// a name is set when non-empty, a pen when it differs from QPen(), a style when it is not -1 and
// a timestamp when it is not null.
//
// Plug-ins are compiled against the order of the members and virtual operations; keep it.
class ZTCORE_EXPORT ZtDataItem
{
public:
    ZtDataItem(QString name, QPen pen, int style, QDateTime timestamp);
    ZtDataItem(const ZtDataItem &other);
    ZtDataItem &operator=(const ZtDataItem &other);
    virtual ~ZtDataItem();

    virtual int type() const = 0;

    QString getName() const { return name; }
    QPen getPen() const { return pen; }
    int getStyle() const { return style; }
    QDateTime getTimestamp() const { return timestamp; }
    bool isNameSet() const { return nameSet; }
    bool isPenSet() const { return penSet; }
    bool isStyleSet() const { return styleSet; }
    bool isTimestampSet() const { return timestampSet; }

    void setName(QString name);
    void setPen(QPen pen);
    void setStyle(int style);
    void setTimestamp(QDateTime timestamp);

    // The sample vector held by a variant, or an empty vector when the variant holds something
    // else. Provided for QVector<qint8>, <qint16>, <qint32>, <qint64> and <double>. No element
    // type conversion happens here; use ZtDataConverter::convertFromVariant for that.
    template<typename V>
    V extractFromVariant(const QVariant &v) const;

    // Same concrete type, same attributes (values and flags). Derived classes add their values.
    bool operator==(const ZtDataItem &other) const;
    bool operator!=(const ZtDataItem &other) const { return !(*this == other); }

private:
    QString name;
    QPen pen;
    int style;
    QDateTime timestamp;
    bool nameSet;
    bool penSet;
    bool styleSet;
    bool timestampSet;
};

template<typename V>
V ZtDataItem::extractFromVariant(const QVariant &v) const
{
    using T = typename V::value_type;
    static_assert(std::is_same<V, QVector<T>>::value
                      && (std::is_same<T, qint8>::value || std::is_same<T, qint16>::value
                          || std::is_same<T, qint32>::value || std::is_same<T, qint64>::value
                          || std::is_same<T, double>::value),
                  "extractFromVariant is provided for QVector of qint8, qint16, qint32, qint64 "
                  "and double");
    if (v.userType() == qMetaTypeId<V>())
        return *static_cast<const V *>(v.constData());
    return V();
}
