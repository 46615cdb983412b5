#include "ztmifound.h"

#include "wabstractmain.h"
#include "wabstractoptions.h"

#include <QAction>
#include <QCoreApplication>
#include <QDebug>
#include <QThread>

// Tells the logger which senders are modules and how to name them. The logger includes nothing
// of this layer, so the module layer hands it this function when the library is loaded.
static bool describeSource(QObject *sender, bool readAlias, Logger::SourceInfo *info)
{
    auto *module = qobject_cast<ZtMIFound *>(sender);
    if (!module)
        return false;
    info->id = module->getId();
    info->objectName = module->objectName();
    if (readAlias)
        info->alias = module->getOptions()->value(QStringLiteral(".alias")).toString();
    return true;
}

[[maybe_unused]] static const bool sourceNamerInstalled
    = (Logger::setSourceNamer(&describeSource), true);

ZtMIFound::ZtMIFound(int id, QObject *parent)
    : QObject(parent)
    , id(id)
    , isneedthreadgui(false)
    , mt(ModFound)
    , wMain(nullptr)
    , wOptions(nullptr)
    , wState(nullptr)
    , locker(this)
{ }

ZtMIFound::ZtMIFound(const ZtMIFound &other, QObject *parent)
    : QObject(parent)
    , id(other.id)
    , isneedthreadgui(other.isneedthreadgui)
    , mt(other.mt)
    , wMain(nullptr)
    , wOptions(nullptr)
    , wState(nullptr)
    , options(other.options)
    , actions(other.actions)
    , locker(this)
{ }

ZtMIFound::~ZtMIFound()
{
    for (QAction *action : qAsConst(actions))
        delete action;

    // Somebody still holding the module's lock at this point is a wiring error elsewhere; say so
    // and go on, the object is going away regardless.
    if (locker.tryLock())
        locker.unlock();
    else
        qDebug() << "Locked";
}

QHash<QString, QAction *> *ZtMIFound::getActions()
{
    return &actions;
}

QHash<QString, QVariant> *ZtMIFound::getOptions()
{
    return &options;
}

QAction *ZtMIFound::getAction(QString name)
{
    Q_UNUSED(name)
    return nullptr;
}

QVariant ZtMIFound::getOption(QString name)
{
    return options.value(name);
}

bool ZtMIFound::setOption(QString name, QVariant value)
{
    auto it = options.find(name);
    if (it == options.end() || !value.isValid())
        return false;
    it.value() = value;
    return true;
}

QString ZtMIFound::errorString()
{
    return errString;
}

bool ZtMIFound::initWidgets(QWidget *parent)
{
    Q_UNUSED(parent)
    return true;
}

QWidget *ZtMIFound::getWMain(QWidget *parent)
{
    Q_UNUSED(parent)
    return nullptr;
}

QWidget *ZtMIFound::getWOptions(QWidget *parent)
{
    Q_UNUSED(parent)
    return nullptr;
}

QWidget *ZtMIFound::getWState(QWidget *parent)
{
    Q_UNUSED(parent)
    return nullptr;
}

void ZtMIFound::setup()
{
    const QString className = QString::fromLatin1(metaObject()->className());
    setObjectName(className);
    options.insert(QStringLiteral(".name"), QVariant(className));
    initOptions();
    createActions();
}

void ZtMIFound::initInterface(QObject *parent)
{
    Q_UNUSED(parent)
    wMain = nullptr;
    wOptions = nullptr;
    wState = nullptr;
}

int ZtMIFound::getId() const
{
    return id;
}

ModLocker *ZtMIFound::getLocker()
{
    return &locker;
}

bool ZtMIFound::isNeedThreadGui() const
{
    return isneedthreadgui;
}

ZtMIFound::ModType ZtMIFound::getModType() const
{
    return mt;
}

bool ZtMIFound::init()
{
    return true;
}

void ZtMIFound::final() { }

// The widgets live in the GUI thread while the module may live in a worker thread: call the
// widget at once only when both share a thread, otherwise queue the refresh into its thread.
// readOptions() is a virtual slot of both widget bases, so either way the subclass's runs.
static void refreshWidget(QObject *module, QWidget *widget)
{
    if (!widget)
        return;
    const bool sameThread = widget->thread() == module->thread();
    QMetaObject::invokeMethod(widget, "readOptions",
                              sameThread ? Qt::DirectConnection : Qt::QueuedConnection);
}

void ZtMIFound::updateWMain()
{
    refreshWidget(this, wMain);
}

void ZtMIFound::updateWOptions()
{
    refreshWidget(this, wOptions);
}

void ZtMIFound::setOptionsFromList(const QVariantList &data)
{
    // Pairs of (name, value). A pair whose first element is not a string is skipped as a whole;
    // the walk does not resynchronise on the next string.
    for (int i = 0; i < data.size(); i += 2) {
        if (data.at(i).type() != QVariant::String)
            continue;
        const QVariant value = i + 1 < data.size() ? data.at(i + 1) : QVariant();
        setOption(data.at(i).toString(), value);
    }
    actForOptionsChanged();
}

void ZtMIFound::recvOptions(ModuleOptions opts)
{
    // Only options that this module declared are taken; the rest is somebody else's.
    const QStringList keys = opts.hash.keys();
    for (const QString &key : keys) {
        auto own = options.find(key);
        if (own == options.end() || !own.value().isValid())
            continue;
        own.value() = opts.hash.value(key);
    }
    actForOptionsChanged();
}

void ZtMIFound::applyOptions() { }

void ZtMIFound::actForOptionsChanged()
{
    updateWMain();
    updateWOptions();
    applyOptions();
    emit sendOptions(ModuleOptions(options));
}

void ZtMIFound::moveMeToTheMainThread()
{
    moveToThread(QCoreApplication::instance()->thread());
}

void ZtMIFound::initOptions() { }

void ZtMIFound::createActions() { }
