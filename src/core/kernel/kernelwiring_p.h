#pragma once

#include "connectionoptions.h"

#include <QString>
#include <QStringList>

class Propagator;
class PropagatorStreamConcurrent;
class ZtKernel;
class ZtMIFound;

// Wires a kernel's loaded modules from the connection entries of its settings: plain
// signal/slot links, options synchronisers, propagators between modules and action links. The
// kernel creates one per call; what it makes goes into the kernel's lists, which own it. GUI
// thread only, after the modules were moved to their threads: the choice between direct and
// concurrent propagators rests on the threads at that moment.
class KernelWiring
{
public:
    explicit KernelWiring(ZtKernel *kernel);

    void makeConnections();
    bool connMod2Mod(const QStringList &fields);

private:
    // The connection entry being made: its options, the channel that carries it and what came of
    // the options. Reset for every entry.
    struct Current
    {
        QString entry;
        ConnectionOptions options;
        QString kind;
        Propagator *channel = nullptr;
        QStringList applied;
        bool batchedMade = false;
        bool optionsRefused = false; // warned about as a whole; no per-option warnings
    };

    void makeEntry(const QString &entry);
    bool makePlainLink(const QStringList &fields);
    bool routePlain(ZtMIFound *from, ZtMIFound *to, const QString &signal, const QString &slot);
    PropagatorStreamConcurrent *newStreamChannel(bool batchedAllowed);
    void carryStream(Propagator *pg, bool acrossThreads);
    void limitQueue(Propagator *pg);
    void carryFeedback(Propagator *pg, ZtMIFound *server, bool acrossThreads);
    void warnUnapplied();
    void optionWarning(const QString &text);
    QString moduleName(int index) const;
    bool makeOptionsSync(const QStringList &fields);
    bool makeLoggerLink(const QStringList &fields);
    bool makeActionLink(const QStringList &fields);
    bool connStreamToStream(const QStringList &fields, int a, int b);
    bool connStreamToExtended(const QStringList &fields, int a, int b);
    bool connExtendedToStream(const QStringList &fields, int a, int b);
    bool connExtendedToExtended(const QStringList &fields, int a, int b);
    bool connFeedback(const QStringList &fields, int a, int b);
    Propagator *concurrentBehind(int a, Propagator *pgfrom, const char *unknownType);
    bool plugInto(int id, const QString &name, Propagator *pg, bool feedback);
    bool unknownIdentifier(const QString &field);
    Propagator *targetStream(int b, const QString &name);
    void keep(Propagator *pg);
    ZtMIFound *moduleAt(int index) const;

    ZtKernel *kernel;
    Current current;
};
