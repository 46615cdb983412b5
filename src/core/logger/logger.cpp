#include "logger.h"

#include "loggerwidget.h"

#include <QDateTime>
#include <QThread>

// Installed by the module layer from a static initialiser; constant-initialised, so it is null
// and never garbage before that runs.
static Logger::SourceNamer sourceNamer = nullptr;

void Logger::setSourceNamer(SourceNamer namer)
{
    sourceNamer = namer;
}

Logger::Logger(QObject *parent)
    : QObject(parent)
    , fileOpen(false)
    , widget(nullptr)
    , maximumBlockCount(500)
    , levelWrite(Info)
{
    setObjectName(QStringLiteral("logger"));
    qRegisterMetaType<Logger::Level>("Logger::Level");
}

Logger::~Logger()
{
    if (fileOpen)
        file.close();
    delete widget;
}

// Marks of levels 1 to 6; 0 and anything out of range are shown as debug entries.
static const char *const levelTags[] = {"(CC)", "(EE)", "(WW)", "(II)", "(MM)", "(DD)"};
static const char *const levelLetters[] = {"C", "E", "W", "I", "M", "D"};

static int levelIndex(int level)
{
    return (level >= Logger::Critical && level <= Logger::Debug) ? level - 1 : Logger::Debug - 1;
}

QString Logger::levelTag(int level)
{
    return QString::fromLatin1(levelTags[levelIndex(level)]);
}

QString Logger::levelLetter(int level)
{
    return QString::fromLatin1(levelLetters[levelIndex(level)]);
}

void Logger::append(QString strout, Logger::Level level)
{
    timedAppend(strout, level);
}

void Logger::append(QString strout)
{
    timedAppend(strout, Message);
}

void Logger::registerSource(const QObject *source, const QString &alias)
{
    if (!source)
        return;
    registered.insert(source, Registered {source, alias});
    // Delivered on this thread after the object is gone, maybe after a newer object at the same
    // address was registered: drop only an entry whose own object died.
    connect(source, &QObject::destroyed, this, [this, source] {
        auto it = registered.find(source);
        if (it != registered.end() && it->guard.isNull())
            registered.erase(it);
    });
}

// The module whose signal is being delivered: its alias, or "id_N (ObjectName)"; "null" for a
// direct call or a sender that is not a module. See the class comment for where the alias of a
// module on another thread comes from.
QString Logger::sourceName() const
{
    QObject *source = sender();
    if (!source || !sourceNamer)
        return QStringLiteral("null");
    const bool ownThread = source->thread() == QThread::currentThread();
    SourceInfo info;
    if (!sourceNamer(source, ownThread, &info))
        return QStringLiteral("null");
    if (!ownThread) {
        const auto it = registered.constFind(source);
        if (it != registered.constEnd() && !it->guard.isNull())
            info.alias = it->alias;
    }
    if (!info.alias.isEmpty())
        return info.alias;
    return QStringLiteral("id_") + QString::number(info.id) + QStringLiteral(" (") + info.objectName
        + QStringLiteral(")");
}

void Logger::timedAppend(QString strout, Logger::Level level)
{
    const QString shortTime = QTime::currentTime().toString(QStringLiteral("hh:mm:ss"));
    const QString longTime
        = QDateTime::currentDateTime().toString(QStringLiteral("dd MMM hh:mm:ss"));
    const int value = static_cast<int>(level);
    const QString source = sourceName();

    emit print(shortTime + QLatin1Char(' ') + source + QStringLiteral(": ") + strout,
               levelLetter(value));

    if (levelWrite != 0 && value <= static_cast<int>(levelWrite) && fileOpen) {
        strout.replace(QStringLiteral("\n"), QStringLiteral("\n\t"));
        const QString line = levelTag(value) + QLatin1Char(' ') + longTime + QLatin1Char(' ')
            + source + QStringLiteral(":    ") + strout + QLatin1Char('\n');
        file.write(line.toUtf8());
        file.flush();
    }
}

void Logger::setFile(QString fileName)
{
    if (file.isOpen())
        file.close();
    if (levelWrite == 0)
        return;
    file.setFileName(fileName);
    fileOpen = file.open(QIODevice::WriteOnly | QIODevice::Append);
    if (!fileOpen)
        return;
    const QDateTime now = QDateTime::currentDateTime();
    const QString header = QStringLiteral("\n\n==============================     ")
        + now.toString(QStringLiteral("dd.MM.yy")) + QLatin1Char(' ')
        + now.toString(QStringLiteral("hh:mm:ss "))
        + QStringLiteral("     =============================\n");
    file.write(header.toUtf8());
    file.flush();
}

void Logger::setLevelWrite(Logger::Level level)
{
    levelWrite = level;
}

void Logger::setMaximumBlockCount(int count)
{
    maximumBlockCount = count;
    if (widget)
        widget->setMaximumBlockCount(count);
}

void Logger::createWidget(QWidget *parent)
{
    if (widget)
        return;
    widget = new LoggerWidget(parent);
    widget->setMaximumBlockCount(maximumBlockCount);
    connect(this, &Logger::print, widget, &LoggerWidget::print);
}

QWidget *Logger::getWidget()
{
    if (!fileOpen)
        timedAppend(QStringLiteral("can't open log_file !!!"), Error);
    return widget;
}
