#pragma once

#include <wabstractmain.h>
#include <wabstractoptions.h>
#include <ztaction.h>
#include <ztmifound.h>

#include <QStringList>
#include <QThread>
#include <QVBoxLayout>

// A module as a plug-in author would write one: it declares two options and one action, offers
// a main and an options widget, and records the order of the calls the base class makes into
// it and its widgets, so that tests can check what a module author relies on.

// Shared by a module and its widgets; only touched from the GUI thread unless a test says so.
struct CallLog
{
    QStringList calls;
};

class TestMain : public WAbstractMain
{
    Q_OBJECT

public:
    explicit TestMain(CallLog *log, QWidget *parent = nullptr)
        : WAbstractMain(parent)
        , log(log)
    { }

    int readCount = 0;
    int writeCount = 0;
    QThread *readThread = nullptr;

public slots:
    void readOptions() override
    {
        ++readCount;
        readThread = QThread::currentThread();
        if (log)
            log->calls << QStringLiteral("main.read");
    }
    void writeOptions() override { ++writeCount; }

private:
    CallLog *log;
};

class TestOptions : public WAbstractOptions
{
    Q_OBJECT

public:
    explicit TestOptions(CallLog *log, QWidget *parent = nullptr)
        : WAbstractOptions(parent)
        , log(log)
    {
        auto *layout = new QVBoxLayout(this);
        layout->addWidget(&buttonBox);
    }

    int readCount = 0;
    int writeCount = 0;
    QThread *readThread = nullptr;

public slots:
    void readOptions() override
    {
        ++readCount;
        readThread = QThread::currentThread();
        if (log)
            log->calls << QStringLiteral("options.read");
    }
    void writeOptions() override
    {
        ++writeCount;
        if (log)
            log->calls << QStringLiteral("options.write");
    }

private:
    CallLog *log;
};

class TestModule : public ZtMIFound
{
    Q_OBJECT

public:
    explicit TestModule(int id, QObject *parent = nullptr)
        : ZtMIFound(id, parent)
    { }
    TestModule(const TestModule &other, QObject *parent = nullptr)
        : ZtMIFound(other, parent)
    { }

    QWidget *getWMain(QWidget *parent) override
    {
        auto *widget = new TestMain(log, parent);
        wMain = widget;
        return widget;
    }
    QWidget *getWOptions(QWidget *parent) override
    {
        auto *widget = new TestOptions(log, parent);
        wOptions = widget;
        return widget;
    }

    void setError(const QString &text) { errString = text; }

    CallLog *log = nullptr;
    int applyCount = 0;

public slots:
    void applyOptions() override
    {
        ++applyCount;
        if (log)
            log->calls << QStringLiteral("apply");
    }

protected:
    void initOptions() override
    {
        options.insert(QStringLiteral("gain"), 1);
        options.insert(QStringLiteral("mode"), QStringLiteral("fast"));
        // Declared without a value: received option sets never fill it in.
        options.insert(QStringLiteral("blank"), QVariant());
    }
    void createActions() override
    {
        auto *action = new ZtAction(this);
        action->setObjectName(QStringLiteral("run"));
        actions.insert(QStringLiteral("run"), action);
    }
};
