#include "ztdataconverter.h"

QAtomicPointer<ZtDataConverter> ZtDataConverter::p_instance;

namespace {
template<typename T>
int registerVectorType(const char *name)
{
    const int id = qRegisterMetaType<QVector<T>>(name);
    QMetaType::registerEqualsComparator<QVector<T>>();
    return id;
}
} // namespace

ZtDataConverter::ZtDataConverter()
{
    fillListId();
}

ZtDataConverter *ZtDataConverter::instance()
{
    ZtDataConverter *converter = p_instance.loadAcquire();
    if (converter)
        return converter;
    // Two threads may race to create it; the loser drops its own copy. The winner is never
    // destroyed: conversions may still run while static objects are torn down.
    auto *created = new ZtDataConverter;
    if (p_instance.testAndSetOrdered(nullptr, created, converter))
        return created;
    delete created;
    return converter;
}

QList<int> ZtDataConverter::registerVectorTypes()
{
    // Qt registers QVector<T> under the name of T's canonical type ("QVector<short>") and adds
    // the sequential-iterable converter when the id is first taken; the names below are
    // registered as aliases of that id so that senders may use either spelling.
    // The comparators make QVariant's == compare the samples, so that data items holding sample
    // vectors compare by value.
    static const QList<int> ids = {
        registerVectorType<qint8>("QVector<qint8>"),
        registerVectorType<qint16>("QVector<qint16>"),
        registerVectorType<qint32>("QVector<qint32>"),
        registerVectorType<qint64>("QVector<qint64>"),
        registerVectorType<double>("QVector<double>"),
    };
    return ids;
}

void ZtDataConverter::fillListId()
{
    listId.reserve(5);
    listId.append(registerVectorTypes());
}

void ZtDataConverter::unsupported()
{
    qFatal("ZtDataConverter::convertFromVariant, unsupported type");
}
