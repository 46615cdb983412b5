#include "ztcheck.h"

#include <QApplication>
#include <QTextStream>

#include <cstdio>

int main(int argc, char *argv[])
{
    // Module libraries may make actions and widgets while they are set up; no window is shown,
    // so no display is needed.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    QTextStream out(stdout);
    QTextStream err(stderr);
    return ztcheck::run(app.arguments().mid(1), out, err);
}
