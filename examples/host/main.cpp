#include "hostoptions.h"
#include "mainwindow.h"

#include <ztbacktrace.h>

#include <QApplication>

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

    MainWindow window(options);
    window.start();
    window.show();
    const int rc = app.exec();
    window.saveSettings();
    return rc;
}
