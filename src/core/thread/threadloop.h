#pragma once

#include "ztcore_export.h"

#include <QThread>

// A worker thread that announces itself (launch) from inside the new thread and then runs an
// event loop, so that objects moved to it receive queued calls.
class ZTCORE_EXPORT ThreadLoop : public QThread
{
    Q_OBJECT

public:
    explicit ThreadLoop(QObject *parent = nullptr);

signals:
    void launch(QThread *thread);

protected:
    void run() override;
};
