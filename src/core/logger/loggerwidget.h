#pragma once

#include "ztcore_export.h"

#include <QCheckBox>
#include <QColor>
#include <QHash>
#include <QLineEdit>
#include <QTextEdit>
#include <QWidget>

// The on-screen log view: each line gets the background colour of its type letter, each type
// can be hidden with a check box, and lines are filtered by a regular expression. Only lines
// arriving after a change are affected; nothing is kept apart from the view's text.
class ZTCORE_EXPORT LoggerWidget : public QWidget
{
    Q_OBJECT

public:
    explicit LoggerWidget(QWidget *parent = nullptr);

    void append(QString text, QColor color);
    void setMaximumBlockCount(int count);
    void initLevelFilter(QCheckBox *box, QString letter, bool checked, QColor color);

    QTextEdit *view();
    QLineEdit *filterEdit();
    QCheckBox *levelBox(const QString &letter);

signals:
    void levelsChanged(QHash<QString, bool> levels);
    void levelsColorChanged(QHash<QString, QColor> colors);

public slots:
    void print(QString text, QString type);

private slots:
    void onCheckedLevels(int state);

private:
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
};
