#include "ztdatay.h"

#include "ztdataconverter.h"

namespace {
// Registered before the first value exists, so that a variant or a queued call carrying one
// can always be made by name.
void registerType()
{
    static const int id = [] {
        const int id = qRegisterMetaType<ZtDataY>("ZtDataY");
        QMetaType::registerEqualsComparator<ZtDataY>();
        // Values often hold sample vectors; their comparators make == compare samples.
        ZtDataConverter::registerVectorTypes();
        return id;
    }();
    Q_UNUSED(id)
}
} // namespace

ZtDataY::ZtDataY()
    : ZtDataItem(QString(), QPen(), -1, QDateTime())
{
    registerType();
}

ZtDataY::ZtDataY(QVariant y, QString name, QPen pen, int style, QDateTime timestamp)
    : ZtDataItem(std::move(name), std::move(pen), style, std::move(timestamp))
    , y(std::move(y))
{
    registerType();
}

ZtDataY::ZtDataY(const ZtDataY &other) = default;
ZtDataY &ZtDataY::operator=(const ZtDataY &other) = default;
ZtDataY::~ZtDataY() = default;

int ZtDataY::type() const
{
    return 2;
}

void ZtDataY::setY(QVariant y)
{
    this->y = std::move(y);
}

bool ZtDataY::operator==(const ZtDataY &other) const
{
    return ZtDataItem::operator==(other) && y.userType() == other.y.userType() && y == other.y;
}
