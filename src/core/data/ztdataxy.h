#pragma once

#include "ztcore_export.h"
#include "ztdatay.h"

#include <QMetaType>

// A point: the y of the base plus an x.
class ZTCORE_EXPORT ZtDataXY : public ZtDataY
{
public:
    ZtDataXY();
    ZtDataXY(QVariant x, QVariant y, QString name = QString(), QPen pen = QPen(), int style = -1,
             QDateTime timestamp = QDateTime());
    ZtDataXY(const ZtDataXY &other);
    ZtDataXY &operator=(const ZtDataXY &other);
    ~ZtDataXY() override;

    int type() const override;

    QVariant getX() const { return x; }
    void setX(QVariant x);

    bool operator==(const ZtDataXY &other) const;
    bool operator!=(const ZtDataXY &other) const { return !(*this == other); }

private:
    QVariant x;
};
Q_DECLARE_METATYPE(ZtDataXY)
