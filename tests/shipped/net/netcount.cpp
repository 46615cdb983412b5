#include <ztcore/ztmistream.h>
#include <ztcore/ztmodulelibrary.h>

#include <QDateTime>
#include <QPen>
#include <QTimer>

// Sends `count` numbered lists [n] from 0 on (or, with `rich`, [n, n / 2.0, "list n", date-time,
// pen, bytes, [n, -n]]), `chunk` of them every `period` ms, starting `delay` ms after init.
class NetCount : public ZtMIStream
{
    Q_OBJECT

public:
    using ZtMIStream::ZtMIStream;

public slots:
    bool init() override
    {
        next = 0;
        end = options.value("count").toLongLong();
        timer = new QTimer(this);
        connect(timer, &QTimer::timeout, this, &NetCount::tick);
        QTimer::singleShot(options.value("delay").toInt(), timer,
                           [this] { timer->start(options.value("period").toInt()); });
        return true;
    }
    void final() override
    {
        delete timer;
        timer = nullptr;
    }

protected:
    void initOptions() override
    {
        options.insert("count", 1000);
        options.insert("chunk", 100);
        options.insert("period", 5);
        options.insert("delay", 1000);
        options.insert("rich", false);
    }

private:
    void tick()
    {
        const bool rich = options.value("rich").toBool();
        for (int i = options.value("chunk").toInt(); i > 0 && next < end; --i, ++next) {
            if (!rich) {
                emit ImReady({next});
                continue;
            }
            emit ImReady({next, next / 2.0, QString("list %1").arg(next),
                          QDateTime(QDate(2026, 1, 2), QTime(3, 4, 5, 600), Qt::UTC),
                          QPen(QColor(0, 255, 0), 2.5, Qt::DashLine), QByteArray("\x01\x02", 2),
                          QVariantList {next, -next}});
        }
        if (next >= end) {
            timer->stop();
            emit state(QString("sent %1 lists").arg(end), Logger::Info);
        }
    }

    QTimer *timer = nullptr;
    qint64 next = 0;
    qint64 end = 0;
};

class NetCountLibrary : public ZtModuleLibrary<NetCount>
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID ZtLibLevelInterface_iid FILE "ztmodule.json")
    Q_INTERFACES(ZtLibLevelInterface)
};

#include "netcount.moc"
