#include <ztcore/logger.h>
#include <ztmifound.h>
#include <ztmodulemetadata.h>

#include <QCoreApplication>
#include <QPluginLoader>

#include <cstdio>

// A host in miniature: one module reporting to one logger, through the library's public headers
// only. Exits 0 when the report arrived as the logger prints it.
//
// Given module library files, it prints each one's metadata instead, one line each, and fails
// when reading it loaded the library.
static int printMetaData(const QStringList &files)
{
    for (const QString &file : files) {
        const ZtModuleMetaData meta = ZtModuleMetaData::fromFile(file);
        std::printf("%s: %s %s %s %s %s \"%s\"\n", qPrintable(meta.getFileName()),
                    qPrintable(meta.getName()), qPrintable(meta.getVersion()),
                    qPrintable(meta.getKind()), qPrintable(meta.getInterfaceType()),
                    qPrintable(ZtModuleMetaData::versionText(meta.getInterfaceVersion())),
                    qPrintable(meta.getDescription()));
        if (!meta.isValid() || QPluginLoader(file).isLoaded()) {
            std::fprintf(stderr, "%s: %s\n", qPrintable(file),
                         meta.isValid() ? "loaded to read its metadata"
                                        : qPrintable(meta.errorString()));
            return 1;
        }
    }
    return 0;
}

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    if (argc > 1)
        return printMetaData(app.arguments().mid(1));

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
