#pragma once

#include <QByteArray>
#include <QString>
#include <QVariantList>

// The wire form of the network channels. One envelope is one CBOR map:
//   "k"     kind: 0 data list (publisher), 1 request, 2 answer
//   "id"    sender id: a publisher's random id of this run; a client's random id
//   "seq"   data: the publisher's sequence number from 0; request/answer: the request id
//   "topic" data: the topic (also the first frame of the ZeroMQ message, for filtering)
//   "op"    request/answer: 1 read, 2 list read, 3 write, 4 list write
//   "pos"   request: the read position; answer: the write result (-1: failed)
//   "data"  a list (CBOR array, see encodeList) or bytes (CBOR byte string)
// Unknown keys are ignored, so that a newer sender can add some.
namespace NetWire {

enum Kind { Data = 0, Request = 1, Answer = 2 };
enum Op { Read = 1, ReadList = 2, Write = 3, WriteList = 4 };

struct Envelope
{
    int kind = Data;
    qint64 id = 0;
    qint64 seq = 0;
    QString topic;
    int op = 0;
    qint64 pos = 0;
    // "data": a list when isList, else bytes.
    bool isList = true;
    QVariantList list;
    QByteArray bytes;
};

// The CBOR form of a list as convArrayToList writes it, value by value:
//   bool, integers (int, long long, unsigned) -> CBOR bool / integer
//   float, double                   -> CBOR double
//   QString                         -> text string
//   QByteArray                      -> byte string
//   QVariantList                    -> array (nested)
//   QDateTime                       -> tag 0, RFC 3339 text with milliseconds and offset ("Z")
//   QPen                            -> map {"colour": "#aarrggbb", "width": double, "style": int}
//   invalid QVariant (terminator)   -> undefined
//   QVector<qint8|16|32|64|double>  -> RFC 8746 typed array: tag 72/77/78/79/86 on a byte string
//                                      of little-endian elements
// Any other type is refused: encode() returns an empty array and *error names the type; nothing
// of the list is sent.
QByteArray encode(const Envelope &envelope, QString *error);
// The same into *out, whose capacity is reused (a sender encoding one message after another
// allocates only when a message is larger than all before). False, *out empty, on a refusal.
bool encode(const Envelope &envelope, QByteArray *out, QString *error);
// False with a reason when the bytes are not an envelope (not CBOR, not a map, no kind) or hold
// a value no list of ours holds. Integers come back as int when they fit, else as long long.
// Decoding into the same envelope again reuses its list when nothing else shares it, so a
// receiver that keeps no copy of each list costs no allocation per value.
bool decode(const QByteArray &bytes, Envelope *envelope, QString *error);

// True when the caller's copy is the only one, so that the list may be written in place: the
// test by which a QList copy detaches. A holder in another thread may let go at any time; once
// it has, what it read of the list is ordered before the caller's writes.
bool soleHolder(const QVariantList &list);

// A random non-negative 63-bit id, different at every call in practice.
qint64 randomId();

} // namespace NetWire
