#include "systemwindow.h"

#include <ztkernel.h>

#include <QApplication>
#include <QClipboard>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QPushButton>
#include <QSplitter>
#include <QTableWidget>
#include <QTimer>
#include <QVBoxLayout>

#include <utility>

namespace {

QString milliseconds(qint64 ns)
{
    return ns < 0 ? QString() : QString::number(ns / 1e6, 'f', 2);
}

QString count(bool counted, quint64 value)
{
    return counted ? QString::number(value) : QString();
}

QString gauge(bool counted, qint64 value)
{
    return counted && value >= 0 ? QString::number(value) : QString();
}

QTableWidget *makeTable(const QStringList &headers, const QString &objectName, QWidget *parent)
{
    auto *table = new QTableWidget(0, headers.size(), parent);
    table->setObjectName(objectName);
    table->setHorizontalHeaderLabels(headers);
    table->setEditTriggers(QAbstractItemView::NoEditTriggers);
    table->setSelectionBehavior(QAbstractItemView::SelectRows);
    table->verticalHeader()->hide();
    table->setWordWrap(false);
    return table;
}

// Failures stand out on any style: red text on a pale red ground.
void fillRow(QTableWidget *table, int row, const QStringList &cells, bool failed)
{
    for (int column = 0; column < cells.size(); ++column) {
        auto *item = new QTableWidgetItem(cells.at(column));
        if (failed) {
            item->setForeground(QColor(190, 0, 0));
            item->setBackground(QColor(255, 215, 215));
        }
        table->setItem(row, column, item);
    }
}

void appendTable(QString &out, const QString &title, const QTableWidget *table)
{
    out += title + QLatin1Char('\n');
    QStringList cells;
    for (int column = 0; column < table->columnCount(); ++column)
        cells.append(table->horizontalHeaderItem(column)->text());
    out += cells.join(QLatin1Char('\t')) + QLatin1Char('\n');
    for (int row = 0; row < table->rowCount(); ++row) {
        cells.clear();
        for (int column = 0; column < table->columnCount(); ++column) {
            const QTableWidgetItem *item = table->item(row, column);
            // A tab or line break inside a cell (an error text) would break the columns.
            cells.append(item ? item->text().simplified() : QString());
        }
        out += cells.join(QLatin1Char('\t')) + QLatin1Char('\n');
    }
}

} // namespace

SystemWindow::SystemWindow(ZtKernel *kernel, QWidget *parent)
    : QWidget(parent, Qt::Window)
    , kernel(kernel)
    , timer(new QTimer(this))
{
    setObjectName(QStringLiteral("zthost_system"));
    setWindowTitle(tr("System"));
    modules
        = makeTable({tr("number"), tr("name"), tr("alias"), tr("stage"), tr("error"), tr("thread"),
                     tr("load ms"), tr("init ms"), tr("version"), tr("build date")},
                    QStringLiteral("system_modules"), this);
    channels = makeTable({tr("entry"), tr("kind"), tr("source"), tr("target"), tr("options"),
                          tr("connected"), tr("lists"), tr("arrays"), tr("deliveries"),
                          tr("dropped"), tr("pending"), tr("high mark"), tr("requests"),
                          tr("answers"), tr("time-outs"), tr("refused"), tr("latency ms")},
                         QStringLiteral("system_channels"), this);

    auto *copyButton = new QPushButton(tr("Copy"), this);
    copyButton->setObjectName(QStringLiteral("system_copy"));
    connect(copyButton, &QPushButton::clicked, this, &SystemWindow::copy);
    auto *closeButton = new QPushButton(tr("Close"), this);
    connect(closeButton, &QPushButton::clicked, this, &QWidget::close);

    auto *splitter = new QSplitter(Qt::Vertical, this);
    const std::pair<QString, QTableWidget *> panes[]
        = {{tr("Modules"), modules}, {tr("Channels"), channels}};
    for (const auto &[title, table] : panes) {
        auto *pane = new QWidget(splitter);
        auto *paneLayout = new QVBoxLayout(pane);
        paneLayout->setContentsMargins(0, 0, 0, 0);
        paneLayout->addWidget(new QLabel(title, pane));
        paneLayout->addWidget(table);
        splitter->addWidget(pane);
    }
    auto *buttons = new QHBoxLayout;
    buttons->addStretch();
    buttons->addWidget(copyButton);
    buttons->addWidget(closeButton);
    auto *layout = new QVBoxLayout(this);
    layout->addWidget(splitter);
    layout->addLayout(buttons);
    resize(1100, 600);

    timer->setInterval(1000);
    connect(timer, &QTimer::timeout, this, &SystemWindow::refresh);
    refresh();
}

bool SystemWindow::isFailure(ModuleLoadRecord::Stage stage)
{
    switch (stage) {
    case ModuleLoadRecord::FileMissing:
    case ModuleLoadRecord::NotAPlugin:
    case ModuleLoadRecord::UnknownInterface:
    case ModuleLoadRecord::NoInstance:
    case ModuleLoadRecord::InitFailed:
        return true;
    case ModuleLoadRecord::NotLoaded:
    case ModuleLoadRecord::Created:
    case ModuleLoadRecord::Initialised:
        break;
    }
    return false;
}

void SystemWindow::refresh()
{
    if (kernel)
        showRecords(kernel->loadRecords(), kernel->channelRows());
}

void SystemWindow::showRecords(const QList<ModuleLoadRecord> &records,
                               const QList<ChannelRow> &rows)
{
    modules->setRowCount(records.size());
    for (int i = 0; i < records.size(); ++i) {
        const ModuleLoadRecord &r = records.at(i);
        // A module that was never made sits on no thread.
        QString thread = r.threadName;
        if (thread.isEmpty() && r.stage >= ModuleLoadRecord::Created)
            thread = r.threadNumber < 0 ? tr("main") : QString::number(r.threadNumber);
        fillRow(modules, i,
                {QString::number(r.number), r.name, r.alias, ModuleLoadRecord::stageText(r.stage),
                 r.error, thread, milliseconds(r.loadNs), milliseconds(r.initNs), r.version,
                 r.buildDate},
                isFailure(r.stage));
    }

    channels->setRowCount(rows.size());
    for (int i = 0; i < rows.size(); ++i) {
        const ChannelRow &c = rows.at(i);
        const ChannelStats &s = c.stats;
        const bool n = c.counted;
        const QString latency = n && s.latencyMedianNs >= 0
            ? milliseconds(s.latencyMedianNs) + QStringLiteral(" / ") + milliseconds(s.latencyP99Ns)
            : QString();
        fillRow(channels, i,
                {c.entry, c.kind, (c.source + QLatin1Char(' ') + c.sourceName).trimmed(),
                 (c.target + QLatin1Char(' ') + c.targetName).trimmed(),
                 c.options.join(QLatin1Char(';')), c.connected ? tr("yes") : tr("no"),
                 count(n, s.lists), count(n, s.arrays), count(n, s.deliveries), count(n, s.dropped),
                 gauge(n, s.pending), gauge(n, s.pendingHigh), count(n, s.requests),
                 count(n, s.answers), count(n, s.timeouts), count(n, s.refused), latency},
                !c.connected);
    }
    modules->resizeColumnsToContents();
    channels->resizeColumnsToContents();
}

QString SystemWindow::text() const
{
    QString out;
    appendTable(out, tr("Modules"), modules);
    out += QLatin1Char('\n');
    appendTable(out, tr("Channels"), channels);
    return out;
}

void SystemWindow::copy()
{
    QApplication::clipboard()->setText(text());
}

void SystemWindow::showEvent(QShowEvent *event)
{
    refresh();
    timer->start();
    QWidget::showEvent(event);
}

void SystemWindow::hideEvent(QHideEvent *event)
{
    timer->stop();
    QWidget::hideEvent(event);
}

QString profileText(const QList<StartupPhase> &phases)
{
    // Like Qt Creator's -profile: where each step began and what it took, module steps indented
    // under their phase, and the total at the end.
    QString out = QStringLiteral("profile: start ms, took ms, step\n");
    qint64 end = 0;
    for (const StartupPhase &phase : phases) {
        out += QStringLiteral("profile: %1 %2  %3%4\n")
                   .arg(milliseconds(phase.startNs), 9)
                   .arg(milliseconds(phase.durationNs), 9)
                   .arg(QString(2 * phase.depth, QLatin1Char(' ')), phase.name);
        end = qMax(end, phase.startNs + phase.durationNs);
    }
    out += QStringLiteral("profile: %1 %2  total\n")
               .arg(milliseconds(0), 9)
               .arg(milliseconds(end), 9);
    return out;
}
