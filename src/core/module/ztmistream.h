#pragma once

#include "ztcore_export.h"
#include "ztmifound.h"

#include <QString>
#include <QVariantList>

// A module wired to others by plain signals and slots carrying variant lists: input arrives in
// StartProcessing, output leaves through ImReady. Both may cross threads as queued calls, hence
// the list by value. myStatus is forwarded to state(QString) so that a subclass's status lines
// reach the logger without it knowing about the logger.
class ZTCORE_EXPORT ZtMIStream : public ZtMIFound
{
    Q_OBJECT

public:
    explicit ZtMIStream(int id, QObject *parent = nullptr);
    ZtMIStream(const ZtMIStream &other, QObject *parent = nullptr);

signals:
    void ImReady(QVariantList data);
    void myStatus(QString str);

public slots:
    // Taken by value on purpose: modules override it as StartProcessing(QVariantList data).
    virtual void StartProcessing(QVariantList data);
};
