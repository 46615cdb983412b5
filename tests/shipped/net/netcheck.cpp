#include <ztcore/ztmistream.h>
#include <ztcore/ztmodulelibrary.h>

#include <QTimer>

// Counts the numbered lists it receives and says, whenever something changed, how many came,
// how many came out of order (not after the previous number) and which numbers opened a run.
class NetCheck : public ZtMIStream
{
    Q_OBJECT

public:
    using ZtMIStream::ZtMIStream;

public slots:
    bool init() override
    {
        timer = new QTimer(this);
        connect(timer, &QTimer::timeout, this, &NetCheck::report);
        timer->start(200);
        return true;
    }
    void final() override
    {
        delete timer;
        timer = nullptr;
    }
    void StartProcessing(QVariantList data) override
    {
        const qint64 n = data.value(0).toLongLong();
        ++received;
        // A lower number than the last one opens a new run (a restarted source); equal or lower
        // without that is disorder only within one run.
        if (n <= last && n > 0 && last - n < 1000)
            ++disorder;
        else if (n <= last || last < 0)
            emit state(QString("run from %1").arg(n), Logger::Info);
        last = n;
    }

private:
    void report()
    {
        if (received == reported)
            return;
        reported = received;
        emit state(QString("received %1 lists, %2 out of order, last %3")
                       .arg(received)
                       .arg(disorder)
                       .arg(last),
                   Logger::Info);
    }

    QTimer *timer = nullptr;
    qint64 received = 0;
    qint64 reported = -1;
    qint64 last = -1;
    qint64 disorder = 0;
};

class NetCheckLibrary : public ZtModuleLibrary<NetCheck>
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID ZtLibLevelInterface_iid FILE "ztmodule.json")
    Q_INTERFACES(ZtLibLevelInterface)
};

#include "netcheck.moc"
