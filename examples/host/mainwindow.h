#pragma once

#include "hostoptions.h"

#include <QList>
#include <QMainWindow>

class QMenu;
class SystemWindow;
class WSSettings;
class ZtKernel;

// The example host window. It drives one kernel through the start-up sequence (settings,
// translations, loading, connections, window elements, stored state, initialisation), shows the
// central main widget, the other main widgets and the log view in docks, the kernel's menus and
// tool bars and one action per options dialog, and leaves through the kernel's quit protocol.
//
// Owns the kernel (deleted first on destruction, so that modules finish while their widgets
// still exist) and the state store. GUI thread only.
class MainWindow : public QMainWindow
{
    Q_OBJECT

public:
    explicit MainWindow(const HostOptions &options, QWidget *parent = nullptr);
    ~MainWindow() override;

    void start();
    // Window geometry and state, options dialog geometry and every module's options.
    void saveSettings();

public slots:
    // Asks the kernel to quit; a second request (after a cancelled quit), or any request when
    // the settings wire no quit action, leaves at once.
    void requestQuit();

protected:
    void closeEvent(QCloseEvent *event) override;

private:
    struct OptionsDialog
    {
        int id;
        QWidget *widget;
    };

    void log(const QString &text);
    void placeMainWidgets(const QList<QWidget *> &mains);
    void addOptionsDialogs(const QList<QWidget *> &widgets);
    void applyEdits();
    void showModulesInfo();
    void showSystemWindow();
    // --system-screenshot and --system-text, just before quitting.
    void writeSystemReports();
    void describe();
    void quitAfterDelay();

    HostOptions options;
    ZtKernel *kernel;
    WSSettings *state;
    QMenu *modulesMenu = nullptr;
    SystemWindow *systemWindow = nullptr; // made when first needed
    QList<OptionsDialog> dialogs;
    bool quitRequested = false;
};
