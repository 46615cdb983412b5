#pragma once

#include "ztcore_export.h"
#include "channelcounters.h"

#include <QPointer>
#include <QString>
#include <QStringList>
#include <QThread>

// What the kernel knows of one configured module number after loading and initialisation,
// whether or not the module could be made.
struct ZTCORE_EXPORT ModuleLoadRecord
{
    enum Stage {
        NotLoaded, // not tried (yet)
        FileMissing, // no library file at the configured path
        NotAPlugin, // the loader refused the file, or its root object is not a module library
        UnknownInterface, // the library's interface type is neither stream nor extended
        NoInstance, // the library returned no module
        Created, // the module exists and sits on its thread
        Initialised, // init() returned true
        InitFailed // init() returned false
    };

    int number = -1; // the module's number in the settings file (id_<number>)
    QString name; // the configured ".name" (library name)
    QString alias; // from the [aliases] group; empty when none
    QString libraryPath; // the file the kernel tried
    Stage stage = NotLoaded;
    QString error; // the loader's or the kernel's text for a failure
    int threadNumber = -1; // the worker thread it was placed on (".thread"); -1: the GUI thread
    QString threadName;
    QPointer<QThread> thread;
    qint64 loadNs = -1; // monotonic time spent loading and creating the module; -1: not measured
    qint64 initNs = -1; // time of the init() call
    QString version; // the library's own answers
    QString buildDate;

    static QString stageText(Stage stage); // "file missing", "initialised", ...
};

// One step of the kernel's start-up, timed with the monotonic clock. Module steps are nested in
// their phase ("load modules" holds one "load gen (id_0)" per module).
struct ZTCORE_EXPORT StartupPhase
{
    QString name;
    qint64 startNs = 0; // since the kernel was created
    qint64 durationNs = 0;
    int depth = 0; // 0: phase, 1: a module's step within it
};

// One connection entry as the kernel made it, with the counters of the channel behind it.
struct ZTCORE_EXPORT ChannelRow
{
    QString entry; // as read from the settings (options included)
    QString kind; // "signal/slot", "stream", "feedback", "options", "logger", "action", "batched"
                  // ("unknown": a target that is neither a module nor "logger")
    QString source; // module alias or id, and signal or propagator name
    QString sourceName;
    QString target;
    QString targetName;
    QStringList options; // the connection options that were applied
    bool connected = false;
    bool counted = false; // false for a plain signal/slot connection (no channel behind it)
    ChannelStats stats;
};
