#include "propagatorfeedbackdirect.h"

#include <QDebug>

PropagatorFeedbackDirect::PropagatorFeedbackDirect(QObject *parent)
    : PropagatorFeedback(Propagator::Direct, parent)
{ }

QByteArray PropagatorFeedbackDirect::read(qlonglong p)
{
    data.clear();
    pos = p;
    emit tryRead(p);
    return data;
}

QVariantList PropagatorFeedbackDirect::readList(qlonglong p)
{
    listData.clear();
    pos = p;
    emit tryReadList(p);
    return listData;
}

// The message texts are matched by existing log readers; "proparator" stays as it is.
bool PropagatorFeedbackDirect::readLater(qlonglong p)
{
    data.clear();
    pos = p;
    qWarning() << "readLater can work insufficient in DirectConnect proparator";
    return true;
}

bool PropagatorFeedbackDirect::readListLater(qlonglong p)
{
    listData.clear();
    pos = p;
    qWarning() << "readListLater can work insufficient in DirectConnect proparator";
    return true;
}

qlonglong PropagatorFeedbackDirect::write(const QByteArray &bytes)
{
    data = bytes;
    emit tryWrite(data);
    return pos;
}

qlonglong PropagatorFeedbackDirect::writeList(const QVariantList &list)
{
    listData = list;
    emit tryWriteList(listData);
    return pos;
}

void PropagatorFeedbackDirect::readReturn(const QByteArray &bytes)
{
    data = bytes;
}

void PropagatorFeedbackDirect::readListReturn(const QVariantList &list)
{
    listData = list;
}

void PropagatorFeedbackDirect::writeReturn(qlonglong result)
{
    pos = result;
}

void PropagatorFeedbackDirect::writeListReturn(qlonglong result)
{
    pos = result;
}

bool PropagatorFeedbackDirect::waitForBytesWritten(int)
{
    return true;
}

QByteArray PropagatorFeedbackDirect::waitLaterRead(int, bool *ok)
{
    emit tryRead(pos);
    if (ok)
        *ok = true;
    return data;
}

QVariantList PropagatorFeedbackDirect::waitLaterReadList(int, bool *ok)
{
    emit tryReadList(pos);
    if (ok)
        *ok = true;
    return listData;
}
