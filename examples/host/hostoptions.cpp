#include "hostoptions.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QLocale>
#include <QStandardPaths>

#include <cstdio>
#include <cstdlib>

static QString firstExisting(const QStringList &candidates)
{
    for (const QString &path : candidates) {
        if (QFileInfo::exists(path))
            return QFileInfo(path).absoluteFilePath();
    }
    return candidates.last();
}

HostOptions HostOptions::parse(const QCoreApplication &app)
{
    const QString appDir = QCoreApplication::applicationDirPath();
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QCoreApplication::translate("zthost", "Example host of ZtCore modules."));
    parser.addHelpOption();
    parser.addPositionalArgument(
        QStringLiteral("settings"),
        QCoreApplication::translate("zthost", "System settings file (default: the demo's)."),
        QStringLiteral("[settings]"));
    parser.addPositionalArgument(
        QStringLiteral("modules"),
        QCoreApplication::translate("zthost", "Folder of module libraries."),
        QStringLiteral("[modules]"));
    const QCommandLineOption localeOption(
        QStringLiteral("locale"),
        QCoreApplication::translate("zthost", "Locale of the translations, e.g. de."),
        QStringLiteral("locale"), QLocale::system().name());
    const QCommandLineOption translationsOption(
        QStringLiteral("translations"),
        QCoreApplication::translate("zthost", "Folder of the core_<locale>.qm files."),
        QStringLiteral("dir"));
    const QCommandLineOption stateOption(
        QStringLiteral("state"),
        QCoreApplication::translate("zthost", "Window and module state file."),
        QStringLiteral("file"));
    const QCommandLineOption quitOption(
        QStringLiteral("quit-after"),
        QCoreApplication::translate("zthost", "Quit through the kernel after this many seconds."),
        QStringLiteral("seconds"));
    const QCommandLineOption screenshotOption(
        QStringLiteral("screenshot"),
        QCoreApplication::translate("zthost", "Save the window as PNG before quitting."),
        QStringLiteral("file"));
    const QCommandLineOption setOption(
        QStringLiteral("set"),
        QCoreApplication::translate(
            "zthost", "Change a module option after start-up, as its options dialog would."),
        QStringLiteral("module/option=value"));
    const QCommandLineOption systemOption(
        QStringLiteral("system"),
        QCoreApplication::translate("zthost", "Open the System window (load records, channels)."));
    const QCommandLineOption systemShotOption(
        QStringLiteral("system-screenshot"),
        QCoreApplication::translate("zthost", "Save the System window as PNG before quitting."),
        QStringLiteral("file"));
    const QCommandLineOption systemTextOption(
        QStringLiteral("system-text"),
        QCoreApplication::translate(
            "zthost", "Write the System window's tables as text before quitting (- for stdout)."),
        QStringLiteral("file"));
    const QCommandLineOption profileOption(
        QStringLiteral("profile"),
        QCoreApplication::translate("zthost", "Print the start-up phases and their times."));
    const QCommandLineOption checkOption(
        QStringLiteral("check"),
        QCoreApplication::translate("zthost",
                                    "Check the settings file against the module "
                                    "libraries, print the findings and exit without "
                                    "starting the modules."));
    parser.addOptions({localeOption, translationsOption, stateOption, quitOption, screenshotOption,
                       setOption, systemOption, systemShotOption, systemTextOption, profileOption,
                       checkOption});
    parser.process(app);

    HostOptions result;
    const QStringList positional = parser.positionalArguments();
    result.settingsFile = positional.value(0);
    if (result.settingsFile.isEmpty())
        result.settingsFile = firstExisting(
            {appDir + QStringLiteral("/" ZTHOST_INSTALLED_DEMO_CONFIG),
             appDir + QStringLiteral("/../demo/system.ini"), QStringLiteral(ZTHOST_DEMO_CONFIG)});
    result.modulesDir = positional.value(1);
    if (result.modulesDir.isEmpty())
        result.modulesDir
            = firstExisting({appDir + QStringLiteral("/" ZTHOST_INSTALLED_MODULES_DIR),
                             QStringLiteral(ZTHOST_MODULES_DIR)});
    result.translationsDir = parser.isSet(translationsOption)
        ? parser.value(translationsOption)
        : firstExisting({appDir + QStringLiteral("/" ZTHOST_INSTALLED_TRANSLATIONS_DIR),
                         appDir + QStringLiteral("/../translations"),
                         QStringLiteral(ZTHOST_TRANSLATIONS_DIR)});
    result.locale = parser.value(localeOption);
    result.stateFile = parser.value(stateOption);
    if (result.stateFile.isEmpty())
        result.stateFile = QStandardPaths::writableLocation(QStandardPaths::AppConfigLocation)
            + QStringLiteral("/state.ini");
    result.screenshotFile = parser.value(screenshotOption);
    result.edits = parser.values(setOption);
    result.systemWindow = parser.isSet(systemOption);
    result.systemScreenshotFile = parser.value(systemShotOption);
    result.systemTextFile = parser.value(systemTextOption);
    result.profile = parser.isSet(profileOption);
    result.check = parser.isSet(checkOption);
    if (parser.isSet(quitOption)) {
        bool ok = false;
        result.quitAfter = parser.value(quitOption).toDouble(&ok);
        if (!ok || result.quitAfter < 0) {
            std::fprintf(stderr, "zthost: --quit-after needs a number of seconds\n");
            std::exit(2);
        }
    }
    if (!QFileInfo::exists(result.settingsFile)) {
        std::fprintf(stderr, "zthost: settings file %s not found\n",
                     qPrintable(result.settingsFile));
        std::exit(2);
    }
    return result;
}
