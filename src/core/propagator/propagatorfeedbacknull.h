#pragma once

#include "ztcore_export.h"
#include "propagatorfeedback.h"

// Answers nothing and reports failure through its results (-1, false, empty). Containers hand
// it out for names that have no real propagator plugged in.
class ZTCORE_EXPORT PropagatorFeedbackNull : public PropagatorFeedback
{
    Q_OBJECT

public:
    explicit PropagatorFeedbackNull(QObject *parent = nullptr);

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
