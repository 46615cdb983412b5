#pragma once

#include "ztcore_export.h"

#include <QAtomicPointer>
#include <QList>
#include <QMetaType>
#include <QVariant>
#include <QVector>

#include <type_traits>

// Reads a numeric sample vector out of a variant in the element type the caller wants, whatever
// element type the sender used. The five sample vector types are registered under the names
// "QVector<qint8>", "QVector<qint16>", "QVector<qint32>", "QVector<qint64>" and
// "QVector<double>" (in this order, which is the index into the id list) together with Qt's
// sequential-iterable view, so variants of them also read as QVariantList.
//
// One process-wide instance caches the five meta-type ids; it is created on first use (safely
// from any thread) and never destroyed.
class ZTCORE_EXPORT ZtDataConverter
{
public:
    // V is QVector<T> for T = qint8, qint16, qint32, qint64 or double. A variant that already
    // holds V is returned as it is: the result shares the held data, nothing is copied.
    // Otherwise elements are converted one by one like static_cast<T>: doubles are truncated
    // toward zero (values outside T's range are not supported), wider integers keep their
    // low-order bits. Any other variant type is a programming error and ends the process.
    template<typename V>
    static V convertFromVariant(const QVariant &v);

    static ZtDataConverter *instance();

    // Registers the five sample vector types; returns their ids in index order.
    static QList<int> registerVectorTypes();

private:
    ZtDataConverter();
    void fillListId();

    template<typename T, typename S>
    static QVector<T> convertElements(const QVariant &v);
    [[noreturn]] static void unsupported();

    static QAtomicPointer<ZtDataConverter> p_instance;
    QList<int> listId;
};

template<typename T, typename S>
QVector<T> ZtDataConverter::convertElements(const QVariant &v)
{
    const QVector<S> &src = *static_cast<const QVector<S> *>(v.constData());
    const int n = src.size();
    QVector<T> out(n);
    const S *s = src.constData();
    T *d = out.data();
    for (int i = 0; i < n; ++i)
        d[i] = static_cast<T>(s[i]);
    return out;
}

template<typename V>
V ZtDataConverter::convertFromVariant(const QVariant &v)
{
    using T = typename V::value_type;
    static_assert(std::is_same<V, QVector<T>>::value
                      && (std::is_same<T, qint8>::value || std::is_same<T, qint16>::value
                          || std::is_same<T, qint32>::value || std::is_same<T, qint64>::value
                          || std::is_same<T, double>::value),
                  "convertFromVariant is provided for QVector of qint8, qint16, qint32, qint64 "
                  "and double");
    const ZtDataConverter *converter = instance();
    const int type = v.userType();
    if (type == qMetaTypeId<V>())
        return *static_cast<const V *>(v.constData());

    switch (converter->listId.indexOf(type)) {
    case 0:
        return convertElements<T, qint8>(v);
    case 1:
        return convertElements<T, qint16>(v);
    case 2:
        return convertElements<T, qint32>(v);
    case 3:
        return convertElements<T, qint64>(v);
    case 4:
        return convertElements<T, double>(v);
    default:
        unsupported();
    }
}
