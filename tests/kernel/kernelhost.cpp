// A host in a process of its own: start-up from a settings file, then the shutdown a host does.
// Usage: kernelhost <settings> <modules folder> destroy|unload [whole]
// Without "whole" the process ends right after the kernel has gone (the thread launcher, which
// would have to terminate a stuck thread, is left alone); it then prints what happened to
// module 1 in that shutdown.
#include <kernelprobe.h>
#include <ztkernel.h>

#include <QApplication>
#include <QStringList>
#include <QThread>

#include <cstdio>
#include <unistd.h>

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() < 4)
        return 2;
    auto *host = new QObject;
    auto *kernel = new ZtKernel(host);
    kernel->setOptionsFileName(args.at(1));
    kernel->loadModules(args.at(2));
    kernel->makeConnections();
    kernel->initModules();
    // The start-up's posted calls have run once module 1 announced its options.
    for (int i = 0; i < 500 && KernelProbe::events(1, QStringLiteral("sendOptions")).isEmpty(); ++i)
        QThread::msleep(10);
    QCoreApplication::processEvents();
    KernelProbe::clear();

    if (args.at(3) == QLatin1String("unload")) {
        kernel->unloadModules();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
    delete kernel;
    QStringList seen;
    for (const ProbeEvent &event : KernelProbe::events(1))
        seen.append(event.what);
    std::printf("module 1: %s\n", qPrintable(seen.join(QLatin1Char(' '))));
    std::fflush(stdout);
    if (!args.contains(QLatin1String("whole")))
        _exit(0);
    delete host;
    return 0;
}
