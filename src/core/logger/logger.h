#pragma once

#include "ztcore_export.h"

#include <QFile>
#include <QObject>
#include <QPointer>
#include <QString>

class LoggerWidget;
class QWidget;

// The system's one log sink. Every entry is stamped with the time and the module that sent it,
// offered to the view through print() whatever its level, and written to the log file when its
// level passes the write filter. Lives on the GUI thread; modules on worker threads reach
// append() through queued connections. Owns its view.
class ZTCORE_EXPORT Logger : public QObject
{
    Q_OBJECT

public:
    // Lower is more severe. 0 and values outside 1..6 are shown as debug entries; 0 as the
    // write filter writes nothing.
    enum Level : int {
        Critical = 1,
        Error = 2,
        Warning = 3,
        Info = 4,
        Message = 5,
        Debug = 6,
    };
    Q_ENUM(Level)

    explicit Logger(QObject *parent = nullptr);
    ~Logger() override;

    void timedAppend(QString strout, Logger::Level level);
    void setFile(QString fileName);
    // Takes effect for setFile() calls after it.
    void setLevelWrite(Logger::Level level);
    void setMaximumBlockCount(int count);
    void createWidget(QWidget *parent);
    QWidget *getWidget();

    static QString levelTag(int level);
    static QString levelLetter(int level);

signals:
    void print(QString text, QString type);

public slots:
    void append(QString strout, Logger::Level level);
    void append(QString strout);

private:
    QString sourceName() const;

    QFile file;
    bool fileOpen;
    // Owned, but it also sits in the host window, which may delete it first.
    QPointer<LoggerWidget> widget;
    int maximumBlockCount;
    Level levelWrite;
};
