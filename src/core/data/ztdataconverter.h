#pragma once

#include "ztcore_export.h"

#include <QAtomicPointer>
#include <QList>
#include <QMetaType>
#include <QVariant>
#include <QVector>

#include <limits>
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
    // Otherwise elements are converted one by one. A double becomes an integer truncated toward
    // zero; one outside T's range saturates to T's minimum or maximum, and NaN becomes 0. A
    // wider integer becomes a narrower one by keeping its low-order bits (two's complement
    // wrap). Integers become doubles exactly where the double can hold them. Any other variant
    // type is a programming error and ends the process.
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
    template<typename T, typename S>
    static T convertElement(S value);
    [[noreturn]] static void unsupported();

    static QAtomicPointer<ZtDataConverter> p_instance;
    QList<int> listId;
};

template<typename T, typename S>
T ZtDataConverter::convertElement(S value)
{
    if constexpr (std::is_floating_point<S>::value && std::is_integral<T>::value) {
        // A plain cast is undefined for NaN and for values outside T's range.
        if (value != value)
            return 0;
        // Both limits are powers of two (or one less), so the comparison against their double
        // forms is exact: anything at or above 2^(bits-1) is out of range.
        constexpr S upper = S(std::numeric_limits<T>::max()) + S(1);
        constexpr S lower = S(std::numeric_limits<T>::min());
        if (value >= upper)
            return std::numeric_limits<T>::max();
        if (value < lower)
            return std::numeric_limits<T>::min();
        return static_cast<T>(value);
    } else if constexpr (std::is_integral<S>::value && std::is_integral<T>::value) {
        // Narrowing keeps the low-order bits; done on the unsigned type, where it is defined.
        using U = typename std::make_unsigned<T>::type;
        return static_cast<T>(static_cast<U>(value));
    } else {
        return static_cast<T>(value);
    }
}

template<typename T, typename S>
QVector<T> ZtDataConverter::convertElements(const QVariant &v)
{
    const QVector<S> &src = *static_cast<const QVector<S> *>(v.constData());
    const int n = src.size();
    QVector<T> out(n);
    const S *s = src.constData();
    T *d = out.data();
    for (int i = 0; i < n; ++i)
        d[i] = convertElement<T, S>(s[i]);
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
