#pragma once

#include <wabstractmain.h>
#include <wabstractoptions.h>
#include <ztaction.h>
#include <ztmifound.h>

#include <QStringList>
#include <QThread>
#include <QVBoxLayout>

#include <type_traits>

// A module widget that records the calls the base classes make into it, in a list shared with
// its module, and the thread of its last refresh.
template<class Base>
class Recorder : public Base
{
public:
    Recorder(QStringList *calls, const QString &name, QWidget *parent = nullptr)
        : Base(parent)
        , calls(calls)
        , name(name)
    {
        if constexpr (std::is_same_v<Base, WAbstractOptions>)
            (new QVBoxLayout(this))->addWidget(&this->buttonBox);
    }

    void readOptions() override
    {
        readThread = QThread::currentThread();
        *calls << name + QStringLiteral(".read");
    }
    void writeOptions() override { *calls << name + QStringLiteral(".write"); }

    QThread *readThread = nullptr;

private:
    QStringList *calls;
    QString name;
};

using TestMain = Recorder<WAbstractMain>;
using TestOptions = Recorder<WAbstractOptions>;

// A module as a plug-in author writes one: two options with values, one without, one action.
class TestModule : public ZtMIFound
{
    Q_OBJECT

public:
    explicit TestModule(int id)
        : ZtMIFound(id)
    { }
    TestModule(const TestModule &other)
        : ZtMIFound(other)
    { }

    QWidget *getWMain(QWidget *parent) override
    {
        return wMain = main = new TestMain(&calls, QStringLiteral("main"), parent);
    }
    QWidget *getWOptions(QWidget *parent) override
    {
        return wOptions = new TestOptions(&calls, QStringLiteral("options"), parent);
    }
    void applyOptions() override { calls << QStringLiteral("apply"); }

    void setError(const QString &text) { errString = text; }

    QStringList calls;
    TestMain *main = nullptr;

protected:
    void initOptions() override
    {
        options.insert(QStringLiteral("gain"), 1);
        options.insert(QStringLiteral("mode"), QStringLiteral("fast"));
        options.insert(QStringLiteral("blank"), QVariant());
    }
    void createActions() override { actions.insert(QStringLiteral("run"), new ZtAction(this)); }
};
