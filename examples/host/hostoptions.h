#pragma once

#include <QString>
#include <QStringList>

class QCoreApplication;

// What zthost was asked to do on its command line. Defaults: the demo settings file, the example
// module folder and the library's translations, installed ones (found relative to the
// executable) before those of the build tree.
class HostOptions
{
public:
    // Parses the application's arguments; prints help or an error and exits on bad input.
    static HostOptions parse(const QCoreApplication &app);

    QString settingsFile;
    QString modulesDir;
    QString translationsDir;
    QString locale;
    QString stateFile;
    QString screenshotFile;
    // "<module>/<option>=<value>" edits applied after start-up, as an options dialog would.
    QStringList edits;
    double quitAfter = -1.0;
    // The System window: open at start, saved as PNG before quitting, its tables written as
    // text before quitting ("-": standard output).
    bool systemWindow = false;
    QString systemScreenshotFile;
    QString systemTextFile;
    // Print the kernel's start-up phases and their times once started.
    bool profile = false;
    // Check the settings file as ztcheck does, print the findings and exit.
    bool check = false;
};
