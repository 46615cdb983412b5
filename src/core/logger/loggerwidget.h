#pragma once

#include "ztcore_export.h"

#include <QBasicTimer>
#include <QCheckBox>
#include <QColor>
#include <QElapsedTimer>
#include <QHash>
#include <QLineEdit>
#include <QRegExp>
#include <QTextCharFormat>
#include <QTextEdit>
#include <QWidget>

#include <deque>

// The on-screen log view: each line gets the background colour of its type letter, each type
// can be hidden with a check box, and lines are filtered by a regular expression. Only lines
// arriving after a change are affected; nothing is kept apart from the view's text.
//
// Lines pass the boxes and the filter as they arrive and then wait, at most as many as the view
// keeps, until the event loop takes them into the view in one edit; a flood is taken in over
// several passes, each bounded in time and at least 20 ms apart, so that the event loop keeps
// running. A person sees the
// view only when it is painted, so this changes nothing visible. view() takes the waiting lines
// in before it returns.
class ZTCORE_EXPORT LoggerWidget : public QWidget
{
    Q_OBJECT

public:
    explicit LoggerWidget(QWidget *parent = nullptr);

    void append(QString text, QColor color);
    // Takes the waiting lines in first, so that the new limit applies to all of them.
    void setMaximumBlockCount(int count);
    void initLevelFilter(QCheckBox *box, QString letter, bool checked, QColor color);

    // Whether lines wait and the next pass that takes them in is due now.
    bool isDueToTakeIn() const;

    QTextEdit *view();
    QLineEdit *filterEdit();
    QCheckBox *levelBox(const QString &letter);

signals:
    void levelsChanged(QHash<QString, bool> levels);
    void levelsColorChanged(QHash<QString, QColor> colors);
    // A type box or the filter is about to apply to the lines that arrive from now on; a source
    // that holds lines back hands them over here, so that the earlier settings apply to them.
    void filtersAboutToChange();

public slots:
    void print(QString text, QString type);

private slots:
    void onCheckedLevels(int state);

protected:
    void timerEvent(QTimerEvent *event) override;

private:
    struct Line
    {
        QString text;
        QColor color;
    };
    // Inserts one batch of waiting lines in one edit and sizes the next batch so that an edit
    // takes about half of budgetMs; all waiting lines at once when budgetMs < 0.
    void takeIn(int budgetMs);
    const QTextCharFormat &formatFor(const QColor &color);
    void filterChanged(const QString &text);

    QLineEdit filter;
    QTextEdit textView;
    QCheckBox boxC;
    QCheckBox boxE;
    QCheckBox boxW;
    QCheckBox boxI;
    QCheckBox boxM;
    QCheckBox boxD;
    QHash<QString, bool> levels;
    QHash<QString, QColor> levelsColor;

    // Lines that passed boxes and filter, oldest first; never more than the view keeps.
    std::deque<Line> waiting;
    QBasicTimer passTimer;
    QElapsedTimer lastPass;
    // Lines per edit, adapted so that one pass stays within its time budget.
    int batch = 64;
    // The filter as lines see it; it changes only after filtersAboutToChange().
    QRegExp expression;
    bool filtering = false;
    QVector<QPair<QColor, QTextCharFormat>> formats;
};
