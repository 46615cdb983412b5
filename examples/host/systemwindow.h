#pragma once

#include <ztkernelrecords.h>

#include <QList>
#include <QWidget>

class QTableWidget;
class QTimer;
class ZtKernel;

// zthost's Modules > System... window: what the kernel knows of every configured module (stage
// reached, error, thread, load and init times, version) and of every connection entry (kind,
// ends, options, counters of the channel behind it). Reads the kernel once a second while shown;
// modules that failed and entries that are not connected are shown in red. "Copy" puts both
// tables on the clipboard as tab-separated text. GUI thread only.
class SystemWindow : public QWidget
{
    Q_OBJECT

public:
    explicit SystemWindow(ZtKernel *kernel, QWidget *parent = nullptr);

    // Both tables as tab-separated text, a heading line before each, one line per row.
    QString text() const;

    static bool isFailure(ModuleLoadRecord::Stage stage);

public slots:
    // Reads the kernel's records and rows again.
    void refresh();
    // Shows the given records and rows (what refresh() does with the kernel's).
    void showRecords(const QList<ModuleLoadRecord> &records, const QList<ChannelRow> &rows);
    void copy();

protected:
    void showEvent(QShowEvent *event) override;
    void hideEvent(QHideEvent *event) override;

private:
    ZtKernel *kernel;
    QTableWidget *modules;
    QTableWidget *channels;
    QTimer *timer;
};

// The kernel's start-up phases as text, one line per phase and one indented line per module
// step: where it began and how long it took, in milliseconds.
QString profileText(const QList<StartupPhase> &phases);
