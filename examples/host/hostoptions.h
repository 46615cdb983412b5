#pragma once

#include <QString>
#include <QStringList>

class QCoreApplication;

// What zthost was asked to do on its command line. Defaults point into the build tree: the demo
// settings file (next to the executable's "../demo" folder when installed that way, else the
// source tree's), the example module folder and the compiled translations.
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
};
