#include "ztdataitem.h"

namespace {
bool isNameSetBy(const QString &name)
{
    return name != QString();
}
bool isPenSetBy(const QPen &pen)
{
    return pen != QPen();
}
bool isStyleSetBy(int style)
{
    return style != -1;
}
// Not `!= QDateTime()`: Qt compares date-times as instants and treats the null one as the epoch,
// which would make a timestamp of exactly 1970-01-01T00:00Z look unset.
bool isTimestampSetBy(const QDateTime &timestamp)
{
    return !timestamp.isNull();
}
} // namespace

ZtDataItem::ZtDataItem(QString name, QPen pen, int style, QDateTime timestamp)
    : name(std::move(name))
    , pen(std::move(pen))
    , style(style)
    , timestamp(std::move(timestamp))
    , nameSet(isNameSetBy(this->name))
    , penSet(isPenSetBy(this->pen))
    , styleSet(isStyleSetBy(style))
    , timestampSet(isTimestampSetBy(this->timestamp))
{ }

ZtDataItem::ZtDataItem(const ZtDataItem &other) = default;
ZtDataItem &ZtDataItem::operator=(const ZtDataItem &other) = default;
ZtDataItem::~ZtDataItem() = default;

void ZtDataItem::setName(QString name)
{
    this->name = std::move(name);
    nameSet = isNameSetBy(this->name);
}

void ZtDataItem::setPen(QPen pen)
{
    this->pen = std::move(pen);
    penSet = isPenSetBy(this->pen);
}

void ZtDataItem::setStyle(int style)
{
    this->style = style;
    styleSet = isStyleSetBy(style);
}

void ZtDataItem::setTimestamp(QDateTime timestamp)
{
    this->timestamp = std::move(timestamp);
    timestampSet = isTimestampSetBy(this->timestamp);
}

bool ZtDataItem::operator==(const ZtDataItem &other) const
{
    return type() == other.type() && name == other.name && pen == other.pen && style == other.style
        && timestamp == other.timestamp && nameSet == other.nameSet && penSet == other.penSet
        && styleSet == other.styleSet && timestampSet == other.timestampSet;
}
