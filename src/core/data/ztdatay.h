#pragma once

#include "ztcore_export.h"
#include "ztdataitem.h"

#include <QMetaType>

// A single value (a sample, a level, a whole sample vector) with its attributes. The value is
// any variant; in the flat list form it must not be a QString, QPen, QDateTime, QVariantList or
// an invalid variant, since those entries mean attributes, nested arrays and terminators there.
class ZTCORE_EXPORT ZtDataY : public ZtDataItem
{
public:
    ZtDataY();
    explicit ZtDataY(QVariant y, QString name = QString(), QPen pen = QPen(), int style = -1,
                     QDateTime timestamp = QDateTime());
    ZtDataY(const ZtDataY &other);
    ZtDataY &operator=(const ZtDataY &other);
    ~ZtDataY() override;

    int type() const override;

    QVariant getY() const { return y; }
    void setY(QVariant y);

    // Value equality: attributes, flags, and y of the same variant type and value.
    bool operator==(const ZtDataY &other) const;
    bool operator!=(const ZtDataY &other) const { return !(*this == other); }

private:
    QVariant y;
};
Q_DECLARE_METATYPE(ZtDataY)
