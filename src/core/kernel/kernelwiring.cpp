#include "kernelwiring_p.h"

#include "logger.h"
#include "optisync.h"
#include "optisyncdiffer.h"
#include "optisyncsame.h"
#include "propagator.h"
#include "propagatorfeedbackconcurrent.h"
#include "propagatorfeedbackdirect.h"
#include "propagatorstreambatched.h"
#include "propagatorstreamconcurrent.h"
#include "propagatorstreamdirect.h"
#include "syssettings.h"
#include "threadlauncher.h"
#include "ztkernel.h"
#include "ztkernelrecords.h"
#include "ztmiextended.h"
#include "ztmifound.h"
#include "ztmistream.h"

#include <QAction>
#include <QDebug>
#include <QMetaMethod>
#include <QMetaObject>
#include <QThread>

// Every debug line of the kernel starts with its object name.
#define KDEBUG qDebug().noquote() << kernel->objectName()

KernelWiring::KernelWiring(ZtKernel *kernel)
    : kernel(kernel)
{ }

ZtMIFound *KernelWiring::moduleAt(int index) const
{
    return kernel->moduleAt(index);
}

// "signal_ImReady(QVariantList)" -> "2ImReady(QVariantList)", "slot_x(int)" -> "1x(int)": the
// method strings that QObject::connect expects (Qt's signal and slot codes).
static QByteArray signalCode(const QString &field)
{
    return (QString::number(QSIGNAL_CODE) + field.mid(7)).toLatin1();
}

static QByteArray slotCode(const QString &field)
{
    return (QString::number(QSLOT_CODE) + field.mid(5)).toLatin1();
}

// "id_12" -> 12; anything that is not a number gives -1.
static int moduleNumber(const QString &field)
{
    bool ok = false;
    const int n = field.mid(3).toInt(&ok);
    return ok ? n : -1;
}

static const QString idPrefix = QStringLiteral("id_");
static const QString signalPrefix = QStringLiteral("signal_");
static const QString slotPrefix = QStringLiteral("slot_");

void KernelWiring::makeConnections()
{
    const QStringList entries = kernel->sysSettings->readConnections();
    for (const QString &entry : entries)
        makeEntry(entry);
}

QString KernelWiring::moduleName(int index) const
{
    const ModuleLoadRecord record = kernel->m_records.value(index);
    if (record.number == index && !record.alias.isEmpty())
        return record.alias;
    return QStringLiteral("id_%1").arg(index);
}

void KernelWiring::optionWarning(const QString &text)
{
    kernel->log(text, 3);
    KDEBUG << text;
}

// Options are taken off first, so that every branch below sees the entry as it always was.
void KernelWiring::makeEntry(const QString &entry)
{
    KDEBUG << entry;
    current = Current();
    current.entry = entry;
    QStringList fields = entry.split(QLatin1Char(';'));
    current.options = ConnectionOptions::take(fields);
    for (const ConnectionOptions::Problem &problem : qAsConst(current.options.problems))
        optionWarning(ConnectionOptions::problemText(entry, problem));

    const QString source = fields.value(0);
    const QString target = fields.value(2);
    ChannelRow row;
    row.entry = entry;
    row.sourceName = fields.value(1);
    row.target = target.startsWith(idPrefix) ? moduleName(moduleNumber(target)) : target;
    row.targetName = fields.value(3);
    bool ok = false;

    if (!source.startsWith(idPrefix)) {
        // "actid_<module>,<action>;<keyword>[;id_<target>;slot_<signature>]"
        const QStringList head = source.mid(6).split(QLatin1Char(','));
        bool numeric = false;
        const int id = head.value(0).toInt(&numeric);
        row.kind = QStringLiteral("action");
        row.source = numeric ? moduleName(id) : source;
        row.sourceName = head.value(1);
        if (!target.startsWith(idPrefix)) {
            row.target = kernel->objectName();
            row.targetName = fields.value(1);
        }
        ok = makeActionLink(fields);
    } else {
        row.source = moduleName(moduleNumber(source));
        const QString signal = fields.value(1);
        const QString slot = fields.value(3);
        if (target == QLatin1String("logger")) {
            row.kind = QStringLiteral("logger");
            ok = makeLoggerLink(fields);
        } else if (!target.startsWith(idPrefix)) {
            row.kind = QStringLiteral("unknown");
            KDEBUG << "unknown identifer" << target;
        } else if (signal.startsWith(signalPrefix) && slot.startsWith(slotPrefix)) {
            if (signal.contains(QLatin1String("sendOptions"))
                && slot.contains(QLatin1String("recvOptions"))) {
                row.kind = QStringLiteral("options");
                ok = makeOptionsSync(fields);
            } else {
                current.kind = QStringLiteral("signal/slot");
                ok = makePlainLink(fields);
                KDEBUG << (ok ? "connected" : "not connect");
            }
        } else {
            current.kind = fields.value(4) == QLatin1String("feedback") ? QStringLiteral("feedback")
                                                                        : QStringLiteral("stream");
            ok = connMod2Mod(fields);
            KDEBUG << (ok ? "connected" : "not connect");
        }
    }

    if (!current.kind.isEmpty())
        row.kind = current.batchedMade ? QStringLiteral("batched") : current.kind;
    row.connected = ok;
    row.counted = current.channel != nullptr;
    for (const QString &field : qAsConst(current.options.accepted)) {
        if (current.applied.contains(field))
            row.options.append(field); // in the entry's order
    }
    if (ok)
        warnUnapplied();
    kernel->m_rows.append(row);
    kernel->m_rowChannels.append(current.channel);
}

// Every accepted option that no branch applied is named with what it applies to.
void KernelWiring::warnUnapplied()
{
    if (current.optionsRefused)
        return;
    for (const QString &field : qAsConst(current.options.accepted)) {
        if (current.applied.contains(field))
            continue;
        const QString name = field.section(QLatin1Char('='), 0, 0).trimmed();
        QString scope;
        if (name == QLatin1String("timeout"))
            scope = QStringLiteral("a feedback channel between threads");
        else if (name == QLatin1String("channel"))
            scope = QStringLiteral("a new stream channel between threads");
        else if (name == QLatin1String("policy") && !current.options.hasLimit())
            scope = QStringLiteral("a stream channel between threads, together with limit=");
        else
            scope = QStringLiteral("a stream channel between threads");
        optionWarning(QStringLiteral("connection \"%1\": connection option \"%2\" applies only to "
                                     "%3; ignored")
                          .arg(current.entry, field, scope));
    }
}

// The accepted fields of option `name`, as written.
static QStringList fieldsOf(const ConnectionOptions &options, const char *name)
{
    QStringList found;
    for (const QString &field : options.accepted) {
        if (field.section(QLatin1Char('='), 0, 0).trimmed() == QLatin1String(name))
            found.append(field);
    }
    return found;
}

PropagatorStreamConcurrent *KernelWiring::newStreamChannel(bool batchedAllowed)
{
    if (current.options.batched && batchedAllowed) {
        current.batchedMade = true;
        current.applied += fieldsOf(current.options, "channel");
        return new PropagatorStreamBatched;
    }
    return new PropagatorStreamConcurrent;
}

// `pg` carries the current entry. A queue limit bounds what waits for a consumer in another
// thread; within one thread there is no queue to bound.
void KernelWiring::carryStream(Propagator *pg, bool acrossThreads)
{
    current.channel = pg;
    if (acrossThreads)
        limitQueue(pg);
}

void KernelWiring::limitQueue(Propagator *pg)
{
    auto *concurrent = qobject_cast<PropagatorStreamConcurrent *>(pg);
    if (!concurrent || !current.options.hasLimit())
        return;
    concurrent->setQueueLimit(current.options.limit,
                              current.options.policy == ConnectionOptions::Drop
                                  ? PropagatorStreamConcurrent::Drop
                                  : PropagatorStreamConcurrent::Block);
    for (const char *name : {"limit", "policy"}) {
        for (const QString &field : fieldsOf(current.options, name)) {
            if (!current.applied.contains(field))
                current.applied.append(field);
        }
    }
}

// A concurrent feedback channel learns its server's thread (a blocking request from there could
// never be answered) and the request time-out of its entry.
void KernelWiring::carryFeedback(Propagator *pg, ZtMIFound *server, bool acrossThreads)
{
    current.channel = pg;
    auto *concurrent = qobject_cast<PropagatorFeedbackConcurrent *>(pg);
    if (!concurrent)
        return;
    concurrent->setServerThread(server->thread());
    if (acrossThreads && current.options.timeout > 0) {
        concurrent->setRequestTimeout(current.options.timeout);
        current.applied += fieldsOf(current.options, "timeout");
    }
}

// A plain signal/slot entry. With connection options it goes through a counting channel with
// the same delivery (automatic: queued into the target's thread, in order), without module
// locks, as the plain connection has none. Only list and byte-array signals can travel that way.
bool KernelWiring::makePlainLink(const QStringList &fields)
{
    ZtMIFound *from = moduleAt(moduleNumber(fields.value(0)));
    ZtMIFound *to = moduleAt(moduleNumber(fields.value(2)));
    if (!from || !to)
        return false;
    const QString signal = fields.value(1);
    const QString slot = fields.value(3);
    if (!current.options.isEmpty())
        return routePlain(from, to, signal, slot);
    return QObject::connect(from, signalCode(signal).constData(), to, slotCode(slot).constData(),
                            Qt::AutoConnection);
}

bool KernelWiring::routePlain(ZtMIFound *from, ZtMIFound *to, const QString &signal,
                              const QString &slot)
{
    const QByteArray signature = QMetaObject::normalizedSignature(qPrintable(signal.mid(7)));
    const int index = from->metaObject()->indexOfSignal(signature.constData());
    const QList<QByteArray> types
        = index >= 0 ? from->metaObject()->method(index).parameterTypes() : QList<QByteArray>();
    const bool lists = types == QList<QByteArray> {"QVariantList"};
    const bool bytes = types == QList<QByteArray> {"QByteArray"};
    if (!lists && !bytes) {
        current.optionsRefused = true;
        optionWarning(QStringLiteral("connection \"%1\": connection options need a signal passing "
                                     "(QVariantList) or (QByteArray); plain connection made")
                          .arg(current.entry));
        return QObject::connect(from, signalCode(signal).constData(), to,
                                slotCode(slot).constData(), Qt::AutoConnection);
    }

    const bool across = from->thread() != to->thread();
    PropagatorStreamConcurrent *pg = newStreamChannel(across);
    keep(pg);
    // A batched channel delivers from its own thread: the consumer's.
    if (current.batchedMade)
        pg->moveToThread(to->thread());
    // No module locks here, so the channel learns its consumer from the kernel.
    pg->addConsumer(to);
    const bool in = QObject::connect(from, signalCode(signal).constData(), pg,
                                     lists ? SLOT(sendList(QVariantList)) : SLOT(send(QByteArray)),
                                     Qt::DirectConnection);
    const bool out = QObject::connect(
        pg, lists ? SIGNAL(trySendList(QVariantList)) : SIGNAL(trySend(QByteArray)), to,
        slotCode(slot).constData(), Qt::AutoConnection);
    carryStream(pg, across);
    return in && out;
}

namespace {

// The synchroniser delivery running in this thread: the module receiving and the module whose
// options it receives.
struct OptionsDelivery
{
    const ZtMIFound *to = nullptr;
    const ZtMIFound *from = nullptr;
};
thread_local OptionsDelivery currentDelivery;

// True when `options` would change a value that `module` owns (recvOptions takes only those).
// Run in the module's thread: the table is written there.
bool changesOptions(ZtMIFound *module, const ModuleOptions &options)
{
    const QHash<QString, QVariant> *own = module->getOptions();
    for (auto it = options.hash.cbegin(); it != options.hash.cend(); ++it) {
        const auto mine = own->constFind(it.key());
        if (mine != own->cend() && mine->isValid() && *mine != it.value())
            return true;
    }
    return false;
}

} // namespace

// A module re-announces its whole option set whenever it receives options, so synchronisers
// that lead back to a source (A->B with B->A, or a longer ring) would pass the same values round
// for ever: recursion in one thread, endless traffic across threads. The links break such
// rings twice over: a delivery that would change nothing the target owns is dropped, and what a
// module announces while it takes options from a synchroniser is not passed back to the module
// they came from. The source side runs in the source's thread as it emits; the delivery runs
// in the target's thread (queued when that is another), the synchroniser being stateless.
bool KernelWiring::makeOptionsSync(const QStringList &fields)
{
    OptiSync *sync = nullptr;
    switch (fields.size()) {
    case 4:
        sync = new OptiSync(kernel);
        break;
    case 5:
        sync = new OptiSyncSame(fields.at(4).split(QLatin1Char(',')), kernel);
        break;
    case 6:
        sync = new OptiSyncDiffer(fields.at(4).split(QLatin1Char(',')),
                                  fields.at(5).split(QLatin1Char(',')), kernel);
        break;
    default:
        KDEBUG << "invalid arguments";
        return false;
    }
    kernel->optiSyncs.append(sync);

    ZtMIFound *from = moduleAt(moduleNumber(fields.at(0)));
    ZtMIFound *to = moduleAt(moduleNumber(fields.at(2)));
    if (!from || !to) {
        KDEBUG << "not connect";
        return false;
    }
    const bool in = QObject::connect(
        from, &ZtMIFound::sendOptions, sync,
        [from, to, sync](const ModuleOptions &options) {
            if (currentDelivery.to == from && currentDelivery.from == to)
                return;
            sync->recvOptions(options);
        },
        Qt::DirectConnection);
    const bool out = QObject::connect(sync, &OptiSync::sendOptions, to,
                                      [from, to](const ModuleOptions &options) {
                                          if (!changesOptions(to, options))
                                              return;
                                          const OptionsDelivery outer = currentDelivery;
                                          currentDelivery = {to, from};
                                          to->recvOptions(options);
                                          currentDelivery = outer;
                                      });
    KDEBUG << ((in && out) ? "connected" : "not connect");
    return in && out;
}

// A "logger" entry connects the named signal to Logger::append with the signal's own parameters:
// a (QString) signal logs at level 5, a (QString,Logger::Level) signal at its level. Every
// module's state(QString,Logger::Level) is connected at load time already; connecting it again
// is refused (unique connection) and reported as obsolete.
bool KernelWiring::makeLoggerLink(const QStringList &fields)
{
    ZtMIFound *from = moduleAt(moduleNumber(fields.value(0)));
    const QString signal = fields.value(1);
    const int params = signal.indexOf(QLatin1Char('('));
    bool ok = false;
    if (from && kernel->logger && signal.startsWith(signalPrefix) && params > 0) {
        const QByteArray slot
            = QByteArray::number(QSLOT_CODE) + "append" + signal.mid(params).toLatin1();
        ok = QObject::connect(from, signalCode(signal).constData(), kernel->logger,
                              slot.constData(), Qt::UniqueConnection);
    }
    KDEBUG << (ok ? "connected" : "not connect, obsoleted");
    return ok;
}

// Action entry: "actid_<module>,<action>;<keyword>[;id_<target>;slot_<signature>]". The
// action's triggered() drives it. "actstart" also ties the target slot to the kernel's actStart
// signal of the same parameters, so that it runs once at start-up as well.
bool KernelWiring::makeActionLink(const QStringList &fields)
{
    const QString head = fields.value(0);
    const QString keyword = fields.value(1);
    if (!head.startsWith(QLatin1String("actid_"))) {
        KDEBUG << "actions not connected, unknown identifer";
        kernel->log(ZtKernel::tr("actions not connected, unknown identifer:") + head, 3);
        return false;
    }
    const QStringList idAndName = head.mid(6).split(QLatin1Char(','));
    bool numeric = false;
    const int id = idAndName.value(0).toInt(&numeric);
    ZtMIFound *module = numeric ? moduleAt(id) : nullptr;
    if (!module) {
        KDEBUG << "Error, try connect to undefined module";
        return false;
    }
    QAction *action = module->getActions()->value(idAndName.value(1), nullptr);
    if (!action) {
        KDEBUG << "actions not connected";
        return false;
    }

    if (keyword == QLatin1String("actquit")) {
        const bool ok = QObject::connect(action, SIGNAL(triggered()), kernel, SLOT(tryQuit()));
        if (ok)
            ++kernel->quitRequests;
        KDEBUG << (ok ? "connected" : "actions not connected");
        return ok;
    }
    if (keyword == QLatin1String("actcancelquit")) {
        const bool ok = QObject::connect(action, SIGNAL(triggered()), kernel, SLOT(cancelQuit()));
        KDEBUG << (ok ? "connected" : "actions not connected");
        return ok;
    }
    if (keyword != QLatin1String("actstart")) {
        KDEBUG << "actions not connected, unknown identifer";
        kernel->log(ZtKernel::tr("actions not connected, unknown identifer:") + keyword, 3);
        return false;
    }

    const QString target = fields.value(2);
    const QString slot = fields.value(3);
    if (target.isEmpty() || slot.isEmpty()) {
        KDEBUG << "actions not connected, receiver not defined";
        return false;
    }
    if (!target.startsWith(idPrefix) || !slot.startsWith(slotPrefix)) {
        KDEBUG << "actions not connected, not implemented yet";
        return false;
    }
    ZtMIFound *receiver = moduleAt(moduleNumber(target));
    if (!receiver) {
        KDEBUG << "Error, try connect to undefined module";
        return false;
    }
    const QByteArray signature = QMetaObject::normalizedSignature(qPrintable(slot.mid(5)));
    const int index = receiver->metaObject()->indexOfMethod(signature.constData());
    if (index < 0) {
        KDEBUG << "actions not connected";
        return false;
    }
    const QMetaMethod method = receiver->metaObject()->method(index);
    const QList<QByteArray> types = method.parameterTypes();

    bool ok = false;
    if (types.isEmpty()) {
        ok = QObject::connect(kernel, SIGNAL(actStart()), receiver, slotCode(slot).constData())
            && QObject::connect(action, SIGNAL(triggered()), receiver, slotCode(slot).constData());
    } else if (types == QList<QByteArray> {"QVariantList"}) {
        ok = QObject::connect(kernel, SIGNAL(actStart(QVariantList)), receiver,
                              slotCode(slot).constData());
        ok = ok && QObject::connect(action, &QAction::triggered, receiver, [receiver, method] {
                 method.invoke(receiver, Qt::DirectConnection, Q_ARG(QVariantList, QVariantList()));
             });
    } else if (types == QList<QByteArray> {"QByteArray"}) {
        ok = QObject::connect(kernel, SIGNAL(actStart(QByteArray)), receiver,
                              slotCode(slot).constData());
        ok = ok && QObject::connect(action, &QAction::triggered, receiver, [receiver, method] {
                 method.invoke(receiver, Qt::DirectConnection, Q_ARG(QByteArray, QByteArray()));
             });
    } else {
        KDEBUG << "actions not connected, not implemented yet";
        return false;
    }
    KDEBUG << (ok ? "connected" : "actions not connected");
    return ok;
}

// Every channel the kernel makes is named after the entry that made it, and what it has to say
// (a queue limit reached, a request timed out or refused) goes to the log from the GUI thread.
void KernelWiring::keep(Propagator *pg)
{
    kernel->propagators.append(pg);
    if (pg->objectName().isEmpty())
        pg->setObjectName(current.entry);
    ZtKernel *k = kernel;
    QObject::connect(pg, &Propagator::warning, kernel,
                     [k](const QString &message) { k->log(message, 3); });
}

// Module locks are not recursive: a propagator must never hold the same module's lock twice,
// or its first send would wait for itself.
static void addLock(Propagator *pg, ZtMIFound *module)
{
    if (!pg->getLockers().contains(module->getLocker()))
        pg->appendLocker(module->getLocker());
}

bool KernelWiring::unknownIdentifier(const QString &field)
{
    KDEBUG << "unknown identifer";
    kernel->log(ZtKernel::tr("unknown identifer:") + field, 3);
    return false;
}

bool KernelWiring::plugInto(int id, const QString &name, Propagator *pg, bool feedback)
{
    auto *module = qobject_cast<ZtMIExtended *>(moduleAt(id));
    if (module && module->setPropagator(name, pg, feedback))
        return true;
    KDEBUG << "can't set propagator to module with id" << id;
    return false;
}

bool KernelWiring::connMod2Mod(const QStringList &fields)
{
    const int a = moduleNumber(fields.value(0));
    const int b = moduleNumber(fields.value(2));
    for (int id : {a, b}) {
        if (!moduleAt(id)) {
            KDEBUG << "module with id" << id << "is NULL";
            return false;
        }
    }
    const int kindA = kernel->modules.at(a).type;
    const int kindB = kernel->modules.at(b).type;
    for (const auto &kind : {qMakePair(a, kindA), qMakePair(b, kindB)}) {
        if (kind.second != 0 && kind.second != 1) {
            KDEBUG << "unknown type of module with id" << kind.first;
            return false;
        }
    }
    if (kindA == 0 && kindB == 0)
        return connStreamToStream(fields, a, b);
    if (kindA == 0)
        return connStreamToExtended(fields, a, b);
    if (kindB == 0)
        return connExtendedToStream(fields, a, b);
    if (fields.size() > 4 && fields.at(4) == QLatin1String("feedback"))
        return connFeedback(fields, a, b);
    return connExtendedToExtended(fields, a, b);
}

bool KernelWiring::connStreamToStream(const QStringList &fields, int a, int b)
{
    ZtMIFound *from = moduleAt(a);
    ZtMIFound *to = moduleAt(b);
    const QString signal = fields.value(1);
    const QString slot = fields.value(3);

    if (from->thread() == to->thread()) {
        if (!signal.startsWith(signalPrefix))
            return unknownIdentifier(signal);
        if (!slot.startsWith(slotPrefix))
            return unknownIdentifier(slot);
        return QObject::connect(from, signalCode(signal).constData(), to,
                                slotCode(slot).constData(), Qt::DirectConnection);
    }

    PropagatorStreamConcurrent *pg = newStreamChannel(true);
    addLock(pg, to);
    keep(pg);
    if (current.batchedMade)
        pg->moveToThread(to->thread());
    carryStream(pg, true);
    if (!signal.startsWith(signalPrefix))
        return unknownIdentifier(signal);
    if (!slot.startsWith(slotPrefix))
        return unknownIdentifier(slot);
    const bool in = QObject::connect(from, signalCode(signal).constData(), pg,
                                     SLOT(sendList(QVariantList)), Qt::DirectConnection);
    const bool out = QObject::connect(pg, SIGNAL(trySendList(QVariantList)), to,
                                      slotCode(slot).constData(), Qt::AutoConnection);
    return in && out;
}

// The target's stream propagator under `name`, created (direct, living in the target's thread)
// and handed to the target when it has none yet.
Propagator *KernelWiring::targetStream(int b, const QString &name)
{
    auto *to = qobject_cast<ZtMIExtended *>(moduleAt(b));
    Propagator *pgto = to->getPropagator(name, false);
    if (pgto)
        return pgto;
    pgto = new PropagatorStreamDirect;
    keep(pgto);
    if (!plugInto(b, name, pgto, false))
        return nullptr;
    if (pgto->thread() != to->thread())
        pgto->moveToThread(to->thread());
    return pgto;
}

bool KernelWiring::connStreamToExtended(const QStringList &fields, int a, int b)
{
    if (fields.size() > 4 && fields.at(4) == QLatin1String("feedback")) {
        KDEBUG << "error connect stream to feedback with feedback options" << b;
        return false;
    }
    ZtMIFound *from = moduleAt(a);
    ZtMIFound *to = moduleAt(b);
    const QString signal = fields.value(1);
    if (!signal.startsWith(signalPrefix))
        return unknownIdentifier(signal);
    Propagator *pgto = targetStream(b, fields.value(3));
    if (!pgto)
        return false;

    if (from->thread() == to->thread()) {
        carryStream(pgto, false);
        return QObject::connect(from, signalCode(signal).constData(), pgto,
                                SLOT(recvSendList(QVariantList)), Qt::DirectConnection);
    }

    PropagatorStreamConcurrent *pg = newStreamChannel(true);
    keep(pg);
    addLock(pg, to);
    pg->moveToThread(to->thread());
    carryStream(pg, true);
    const bool in = QObject::connect(from, signalCode(signal).constData(), pg,
                                     SLOT(recvSendList(QVariantList)), Qt::DirectConnection);
    const bool out = QObject::connect(pg, SIGNAL(trySendList(QVariantList)), pgto,
                                      SIGNAL(trySendList(QVariantList)), Qt::AutoConnection);
    return in && out;
}

// The concurrent propagator that carries a source's traffic into another thread: `pgfrom`
// itself when it is concurrent, else a concurrent child behind the direct `pgfrom`, reused when
// it has one and made otherwise. A direct child is never reused: it would run the consumer in
// the source's thread. Null, reported, for another propagator type or a refused child.
Propagator *KernelWiring::concurrentBehind(int a, Propagator *pgfrom, const char *unknownType)
{
    if (pgfrom->getType() == Propagator::Concurrent)
        return pgfrom;
    if (pgfrom->getType() != Propagator::Direct) {
        KDEBUG << unknownType << a;
        return nullptr;
    }
    Propagator *child = pgfrom->getChild();
    if (child && child->getType() == Propagator::Concurrent) {
        KDEBUG << "pgchild reused" << child;
        return child;
    }
    auto *pg = new PropagatorStreamConcurrent;
    KDEBUG << "pgto" << pg;
    keep(pg);
    if (!pgfrom->setChild(pg)) {
        KDEBUG << "can't set child for propagator to module with id" << a;
        return nullptr;
    }
    return pg;
}

bool KernelWiring::connExtendedToStream(const QStringList &fields, int a, int b)
{
    if (fields.size() > 4 && fields.at(4) == QLatin1String("feedback")) {
        KDEBUG << "error connect feedback to stream with feedback options" << a;
        return false;
    }
    ZtMIFound *from = moduleAt(a);
    ZtMIFound *to = moduleAt(b);
    const QString name = fields.value(1);
    const QString slot = fields.value(3);
    Propagator *pgfrom = qobject_cast<ZtMIExtended *>(from)->getPropagator(name, false);

    if (from->thread() == to->thread()) {
        if (!pgfrom) {
            pgfrom = new PropagatorStreamDirect;
            keep(pgfrom);
            if (!plugInto(a, name, pgfrom, false))
                return false;
        }
        if (pgfrom->getType() == Propagator::Concurrent)
            addLock(pgfrom, to);
        carryStream(pgfrom, false);
        if (!slot.startsWith(slotPrefix))
            return unknownIdentifier(slot);
        return QObject::connect(pgfrom, SIGNAL(streamSendList(QVariantList)), to,
                                slotCode(slot).constData(), Qt::DirectConnection);
    }

    // Across threads the stream consumer is reached through a concurrent propagator: the
    // source's own, a concurrent child behind its direct one, or a new one.
    // A batched channel is only made new, and delivers from the consumer's thread itself.
    Propagator *pg = nullptr;
    if (!pgfrom) {
        pg = newStreamChannel(true);
        keep(pg);
        if (!plugInto(a, name, pg, false))
            return false;
        if (current.batchedMade)
            pg->moveToThread(to->thread());
    } else {
        pg = concurrentBehind(a, pgfrom, "unknown ptopagator type to module with id");
        if (!pg)
            return false;
    }
    addLock(pg, to);
    carryStream(pg, true);
    if (!slot.startsWith(slotPrefix))
        return unknownIdentifier(slot);
    return QObject::connect(pg, SIGNAL(streamSendList(QVariantList)), to,
                            slotCode(slot).constData(),
                            current.batchedMade ? Qt::AutoConnection : Qt::QueuedConnection);
}

bool KernelWiring::connExtendedToExtended(const QStringList &fields, int a, int b)
{
    ZtMIFound *from = moduleAt(a);
    ZtMIFound *to = moduleAt(b);
    const QString nameFrom = fields.value(1);
    const QString nameTo = fields.value(3);
    Propagator *pgfrom = qobject_cast<ZtMIExtended *>(from)->getPropagator(nameFrom, false);
    Propagator *pgto = qobject_cast<ZtMIExtended *>(to)->getPropagator(nameTo, false);
    const bool sameThread = from->thread() == to->thread();

    // `shared` is what the target will listen to: the source's propagator, or across threads a
    // concurrent one (the source's own, or a child chained behind its direct one).
    Propagator *shared = pgfrom;
    if (!pgfrom) {
        shared = sameThread ? static_cast<Propagator *>(new PropagatorStreamDirect)
                            : static_cast<Propagator *>(newStreamChannel(true));
        keep(shared);
        if (!plugInto(a, nameFrom, shared, false))
            return false;
        // A batched channel delivers from its own thread: the target's.
        if (current.batchedMade)
            shared->moveToThread(to->thread());
    } else if (!sameThread) {
        shared = concurrentBehind(a, pgfrom, "unknown propagator type to module with id");
        if (!shared)
            return false;
    }
    carryStream(shared, !sameThread);
    if (!pgto || pgto == shared) {
        if (!sameThread && shared->getType() == Propagator::Concurrent)
            addLock(shared, to);
        return pgto == shared || plugInto(b, nameTo, shared, false);
    }
    // The target already listens to a propagator of its own (fed by another source, say): keep
    // it and relay into it, so that every source reaches the target. The relay is a direct call
    // in the sender's thread, made while `shared` holds the locks of its own list; `shared` is
    // not given the target's lock. Whether the target's lock is taken is up to pgto: a
    // concurrent pgto takes the locks in its list in recvSend (all of them) and recvSendList
    // (those of extended modules) - the target's, when an earlier entry made pgto as the shared
    // propagator of a cross-thread link; a direct pgto takes only its own mutex. The module
    // locks are not recursive, so the two sides must never hold the same one.
    KDEBUG << "relay to pgto" << pgto;
    const bool bytes = QObject::connect(shared, SIGNAL(trySend(QByteArray)), pgto,
                                        SLOT(recvSend(QByteArray)), Qt::DirectConnection);
    const bool lists = QObject::connect(shared, SIGNAL(trySendList(QVariantList)), pgto,
                                        SLOT(recvSendList(QVariantList)), Qt::DirectConnection);
    // The lists wait for the target behind pgto: a queue limit bounds it there as well.
    if (!sameThread)
        limitQueue(pgto);
    return bytes && lists;
}

// Request and answer between two extended modules: the requester (source) and the server
// (target) hold the same feedback propagator. In one thread it is direct. Across threads it is
// concurrent and is moved to the thread launcher's propagator thread - neither the requester's
// nor the server's - whose event loop turns requests into try* signals that reach the server
// in its own thread while the requester waits on the propagator's semaphore.
bool KernelWiring::connFeedback(const QStringList &fields, int a, int b)
{
    ZtMIFound *from = moduleAt(a);
    ZtMIFound *to = moduleAt(b);
    const QString nameFrom = fields.value(1);
    const QString nameTo = fields.value(3);
    Propagator *pgfrom = qobject_cast<ZtMIExtended *>(from)->getPropagator(nameFrom, true);
    Propagator *pgto = qobject_cast<ZtMIExtended *>(to)->getPropagator(nameTo, true);
    const bool sameThread = from->thread() == to->thread();

    if (!pgfrom) {
        if (sameThread) {
            pgfrom = new PropagatorFeedbackDirect;
        } else {
            pgfrom = new PropagatorFeedbackConcurrent;
            pgfrom->moveToThread(kernel->threadLauncher->getPpgThread());
        }
        keep(pgfrom);
        if (!plugInto(a, nameFrom, pgfrom, true))
            return false;
    } else if (!sameThread && pgfrom->getType() == Propagator::Direct) {
        // A direct request would run the server in the requester's thread; feedback
        // propagators take no child to bridge that.
        KDEBUG << "can't set child for propagator to module with id" << b;
        return false;
    } else if (pgfrom->getType() != Propagator::Direct
               && pgfrom->getType() != Propagator::Concurrent) {
        KDEBUG << "unknown propagator type to module with id" << a;
        return false;
    }

    if (pgto && pgto != pgfrom) {
        // One server answers one requester's propagator; overlapping requests from two
        // requesters through one propagator are not supported.
        KDEBUG << "can't set propagator to module with id" << b << ", already exist";
        return false;
    }
    if (!pgto && !plugInto(b, nameTo, pgfrom, true))
        return false;
    carryFeedback(pgfrom, to, !sameThread);
    return true;
}
