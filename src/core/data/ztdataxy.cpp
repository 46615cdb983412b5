#include "ztdataxy.h"

namespace {
void registerType()
{
    static const int id = [] {
        const int id = qRegisterMetaType<ZtDataXY>("ZtDataXY");
        QMetaType::registerEqualsComparator<ZtDataXY>();
        return id;
    }();
    Q_UNUSED(id)
}
} // namespace

ZtDataXY::ZtDataXY()
{
    registerType();
}

ZtDataXY::ZtDataXY(QVariant x, QVariant y, QString name, QPen pen, int style, QDateTime timestamp)
    : ZtDataY(std::move(y), std::move(name), std::move(pen), style, std::move(timestamp))
    , x(std::move(x))
{
    registerType();
}

ZtDataXY::ZtDataXY(const ZtDataXY &other) = default;
ZtDataXY &ZtDataXY::operator=(const ZtDataXY &other) = default;
ZtDataXY::~ZtDataXY() = default;

int ZtDataXY::type() const
{
    return 1;
}

void ZtDataXY::setX(QVariant x)
{
    this->x = std::move(x);
}

bool ZtDataXY::operator==(const ZtDataXY &other) const
{
    return ZtDataY::operator==(other) && x.userType() == other.x.userType() && x == other.x;
}
