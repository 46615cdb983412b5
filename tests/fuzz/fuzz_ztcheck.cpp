// Arbitrary bytes as a system settings file, through the configuration checker (findings and
// graph) and through the wiring of a kernel that has no modules: every connection entry the
// file holds is taken apart by makeConnections as at start-up. Nothing may crash, hang, leak,
// trip a sanitizer or leave a settings group open.

#include <configchecker.h>
#include <inilocator.h>
#include <syssettings.h>
#include <systemgraph.h>
#include <ztkernel.h>

#include <QApplication>
#include <QByteArray>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <cstdint>
#include <cstdlib>

namespace {

void quiet(QtMsgType type, const QMessageLogContext &, const QString &)
{
    if (type == QtFatalMsg)
        abort();
}

void check(const QString &path)
{
    ConfigChecker checker(path);
    if (!checker.run())
        abort();
    for (const Finding &finding : checker.findings())
        finding.format();
    SystemGraph::dot(path, checker.modules(), checker.connections());
}

void wire(const QString &path, const QString &logFile)
{
    // The thread launcher and the settings belong to the kernel's parent, not to the kernel.
    QObject owner;
    auto *settings = new SysSettings(path, &owner);
    // The file may name any log file; the kernel must write only into the fuzzer's folder.
    settings->setValue(QStringLiteral("mainwindow/loggerfile"), logFile);
    settings->setValue(QStringLiteral("mainwindow/loggerlevel"), 0);
    ZtKernel kernel(&owner);
    kernel.setSysSettings(settings);
    kernel.loadModules(QStringLiteral("/nonexistent"));
    kernel.makeConnections();
    if (!settings->group().isEmpty())
        abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static QTemporaryDir *dir = [] {
        qInstallMessageHandler(quiet);
        if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
            qputenv("QT_QPA_PLATFORM", "offscreen");
        static int argc = 1;
        static char name[] = "fuzz_ztcheck";
        static char *argv[] = {name, nullptr};
        new QApplication(argc, argv);
        const QString shm = QStringLiteral("/dev/shm");
        if (QFileInfo(shm).isWritable())
            qputenv("TMPDIR", shm.toLocal8Bit());
        return new QTemporaryDir;
    }();
    static quint64 inputs = 0;

    const QByteArray text = QByteArray::fromRawData(reinterpret_cast<const char *>(data),
                                                    int(qMin<size_t>(size, 1 << 20)));
    IniLocator::fromText(text);
    // A fresh name each time: QSettings caches files by name.
    const QString path = dir->filePath(QStringLiteral("input%1.ini").arg(++inputs));
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(text) != text.size())
        abort();
    file.close();
    check(path);
    wire(path, dir->filePath(QStringLiteral("zt.log")));
    QFile::remove(path);
    return 0;
}
