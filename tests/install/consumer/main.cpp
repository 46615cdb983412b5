#include <logger.h>
#include <ztmifound.h>

#include <QCoreApplication>

#include <cstdio>

// A host in miniature: one module reporting to one logger, through the library's public headers
// only. Exits 0 when the report arrived as the logger prints it.
int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);

    ZtMIFound module(1);
    module.setup();
    Logger logger;
    QObject::connect(&module, QOverload<QString, Logger::Level>::of(&ZtMIFound::state), &logger,
                     QOverload<QString, Logger::Level>::of(&Logger::append));
    QString printed;
    QObject::connect(&logger, &Logger::print, [&printed](const QString &text) { printed = text; });

    emit module.state(QStringLiteral("hello"), Logger::Info);

    if (!printed.endsWith(QStringLiteral("id_1 (ZtMIFound): hello"))) {
        std::fprintf(stderr, "unexpected log line: %s\n", qPrintable(printed));
        return 1;
    }
    return 0;
}
