#include "hostoptions.h"
#include "mainwindow.h"

#include <ztbacktrace.h>
#include <ztcheck.h>

#include <QApplication>
#include <QTextStream>

// zthost: runs a ZtCore system from its settings file. Without a display it runs on Qt's
// offscreen platform, so it also works on a headless machine (log lines go to standard output).
int main(int argc, char *argv[])
{
    ztset_signal_handler(argv[0]);
    if (qEnvironmentVariableIsEmpty("DISPLAY") && qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY")
        && qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");

    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("zthost"));
    QApplication::setOrganizationName(QStringLiteral("ZtCore"));
    const HostOptions options = HostOptions::parse(app);
    if (options.check) {
        QTextStream out(stdout);
        QTextStream err(stderr);
        return ztcheck::run({QStringLiteral("--modules"), options.modulesDir, options.settingsFile},
                            out, err);
    }

    MainWindow window(options);
    window.start();
    window.show();
    const int rc = app.exec();
    window.saveSettings();
    return rc;
}
