#include "propagatorfeedbacknull.h"

PropagatorFeedbackNull::PropagatorFeedbackNull(QObject *parent)
    : PropagatorFeedback(Propagator::Null, parent)
{ }

QByteArray PropagatorFeedbackNull::read(qlonglong)
{
    return QByteArray();
}

QVariantList PropagatorFeedbackNull::readList(qlonglong)
{
    return QVariantList();
}

bool PropagatorFeedbackNull::readLater(qlonglong)
{
    return false;
}

bool PropagatorFeedbackNull::readListLater(qlonglong)
{
    return false;
}

qlonglong PropagatorFeedbackNull::write(const QByteArray &)
{
    return -1;
}

qlonglong PropagatorFeedbackNull::writeList(const QVariantList &)
{
    return -1;
}

void PropagatorFeedbackNull::readReturn(const QByteArray &) { }

void PropagatorFeedbackNull::readListReturn(const QVariantList &) { }

void PropagatorFeedbackNull::writeReturn(qlonglong) { }

void PropagatorFeedbackNull::writeListReturn(qlonglong) { }

bool PropagatorFeedbackNull::waitForBytesWritten(int)
{
    return false;
}

// ok stays as the caller left it: there is no answer to report on.
QByteArray PropagatorFeedbackNull::waitLaterRead(int, bool *)
{
    return QByteArray();
}

QVariantList PropagatorFeedbackNull::waitLaterReadList(int, bool *)
{
    return QVariantList();
}
