#pragma once

#include "ztcore_export.h"
#include "propagatorfeedback.h"

// The server is connected directly and answers inside the requester's call, in the requester's
// thread. The deferred reads cannot be deferred here: readLater only records the position and
// warns, and waitLaterRead performs the read.
class ZTCORE_EXPORT PropagatorFeedbackDirect : public PropagatorFeedback
{
    Q_OBJECT

public:
    explicit PropagatorFeedbackDirect(QObject *parent = nullptr);

    QByteArray read(qlonglong pos) override;
    QVariantList readList(qlonglong pos) override;
    bool readLater(qlonglong pos) override;
    bool readListLater(qlonglong pos) override;
    qlonglong write(const QByteArray &data) override;
    qlonglong writeList(const QVariantList &list) override;
    void readReturn(const QByteArray &data) override;
    void readListReturn(const QVariantList &list) override;
    void writeReturn(qlonglong result) override;
    void writeListReturn(qlonglong result) override;
    bool waitForBytesWritten(int msecs) override;
    QByteArray waitLaterRead(int msecs, bool *ok) override;
    QVariantList waitLaterReadList(int msecs, bool *ok) override;
};
