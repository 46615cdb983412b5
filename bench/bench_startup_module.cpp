// The stream module of the start-up and batched-channel benchmarks: it emits lists of 8 doubles
// on request and counts the lists that reach its slot.
#include <ztcore/ztmodulelibrary.h>

#include <QAtomicInteger>

class BenchStream : public ZtMIStream
{
    Q_OBJECT

public:
    BenchStream(int id, QObject *parent)
        : ZtMIStream(id, parent)
    { }

    // Thread-safe: read from the benchmark's thread while lists arrive.
    Q_INVOKABLE qint64 received() const { return m_received.loadRelaxed(); }

public slots:
    void emitMany(int count)
    {
        const QVariantList list {0.5, 1.5, 2.5, 3.5, 4.5, 5.5, 6.5, 7.5};
        for (int i = 0; i < count; ++i)
            emit ImReady(list);
    }
    void StartProcessing(QVariantList data) override
    {
        Q_UNUSED(data)
        m_received.fetchAndAddRelaxed(1);
    }

private:
    QAtomicInteger<qint64> m_received {0};
};

class BenchStreamLibrary : public ZtModuleLibrary<BenchStream>
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID ZtLibLevelInterface_iid FILE "ztmodule.json")
    Q_INTERFACES(ZtLibLevelInterface)
};

#include "bench_startup_module.moc"
