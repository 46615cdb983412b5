#include "ztdataconverter.h"

QAtomicPointer<ZtDataConverter> ZtDataConverter::p_instance;

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
    static const QList<int> ids = {
        qRegisterMetaType<QVector<qint8>>("QVector<qint8>"),
        qRegisterMetaType<QVector<qint16>>("QVector<qint16>"),
        qRegisterMetaType<QVector<qint32>>("QVector<qint32>"),
        qRegisterMetaType<QVector<qint64>>("QVector<qint64>"),
        qRegisterMetaType<QVector<double>>("QVector<double>"),
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
