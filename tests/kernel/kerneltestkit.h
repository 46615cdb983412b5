#pragma once

#include <QDir>
#include <QFile>
#include <QMutex>
#include <QMutexLocker>
#include <QObject>
#include <QRegularExpression>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <QtGlobal>

// Helpers shared by the kernel tests: catching debug lines, copying settings fixtures next to a
// log file, reading that log file without its time stamps, and a host object to quit.

// Collects every debug line while it exists, from any thread; other messages go on to the
// previous handler so that test output keeps the warnings.
class MessageCatcher
{
public:
    MessageCatcher()
    {
        current = this;
        previous = qInstallMessageHandler(&MessageCatcher::handle);
    }
    ~MessageCatcher()
    {
        qInstallMessageHandler(previous);
        current = nullptr;
    }
    MessageCatcher(const MessageCatcher &) = delete;
    MessageCatcher &operator=(const MessageCatcher &) = delete;

    QStringList lines() const
    {
        QMutexLocker lock(&mutex);
        return caught;
    }
    int count(const QString &line) const { return lines().count(line); }
    bool contains(const QString &line) const { return lines().contains(line); }
    QStringList startingWith(const QString &head) const
    {
        return lines().filter(
            QRegularExpression(QLatin1Char('^') + QRegularExpression::escape(head)));
    }

private:
    static void handle(QtMsgType type, const QMessageLogContext &context, const QString &text)
    {
        MessageCatcher *catcher = current;
        if (!catcher)
            return;
        if (type != QtDebugMsg) {
            catcher->previous(type, context, text);
            return;
        }
        QMutexLocker lock(&catcher->mutex);
        catcher->caught.append(text);
    }

    static inline MessageCatcher *current = nullptr;
    QtMessageHandler previous;
    mutable QMutex mutex;
    QStringList caught;
};

// Copies settings text into `dir` with its log file pointing into the same folder.
inline QString writeSettings(const QTemporaryDir &dir, const QString &name, QString text)
{
    text.replace(QStringLiteral("@LOGDIR@"), dir.path());
    const QString path = dir.filePath(name);
    QFile file(path);
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        file.write(text.toUtf8());
    return path;
}

inline QString copySettings(const QTemporaryDir &dir, const QString &fixture)
{
    QFile source(QDir(QStringLiteral(ZT_SETTINGS_DIR)).filePath(fixture));
    if (!source.open(QIODevice::ReadOnly))
        return QString();
    return writeSettings(dir, fixture, QString::fromUtf8(source.readAll()));
}

// The log file with every time stamp replaced by "<stamp>": entries carry "dd MMM hh:mm:ss"
// (month name of the current locale), the start header "dd.MM.yy hh:mm:ss".
inline QString readLog(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QString();
    QString text = QString::fromUtf8(file.readAll());
    text.replace(
        QRegularExpression(
            QStringLiteral("^(\\((?:CC|EE|WW|II|MM|DD)\\)) \\d\\d \\S+ \\d\\d:\\d\\d:\\d\\d "),
            QRegularExpression::MultilineOption),
        QStringLiteral("\\1 <stamp> "));
    text.replace(
        QRegularExpression(QStringLiteral("\\d\\d\\.\\d\\d\\.\\d\\d \\d\\d:\\d\\d:\\d\\d")),
        QStringLiteral("<stamp>"));
    return text;
}

// Stands in for the application: the kernel quits its parent object through quit().
class Host : public QObject
{
    Q_OBJECT

public:
    int quits = 0;

public slots:
    void quit() { ++quits; }
};
