#include "loggerwidget.h"

#include <QHBoxLayout>
#include <QRegExp>
#include <QSpacerItem>
#include <QTextDocument>
#include <QVBoxLayout>

LoggerWidget::LoggerWidget(QWidget *parent)
    : QWidget(parent)
{
    setWindowTitle(tr("logger"));

    auto *outer = new QHBoxLayout;
    auto *left = new QVBoxLayout;
    auto *right = new QVBoxLayout;
    outer->addLayout(left);
    outer->addLayout(right);

    left->addWidget(&textView);
    left->addWidget(&filter);

    // Pushes the check boxes to the bottom of the right column.
    right->addItem(new QSpacerItem(1, 1, QSizePolicy::Maximum, QSizePolicy::Expanding));

    const struct
    {
        QCheckBox *box;
        const char *letter;
        bool checked;
        QColor color;
    } rows[] = {
        {&boxD, "D", false, QColor(Qt::darkGray)},
        {&boxM, "M", true, QColor(Qt::transparent)},
        {&boxI, "I", true, QColor(180, 180, 180, 255)},
        {&boxW, "W", true, QColor(Qt::yellow)},
        {&boxE, "E", true, QColor(250, 170, 0, 255)},
        {&boxC, "C", true, QColor(255, 100, 100, 255)},
    };
    for (const auto &row : rows) {
        initLevelFilter(row.box, QString::fromLatin1(row.letter), row.checked, row.color);
        right->addWidget(row.box);
    }

    setLayout(outer);
}

void LoggerWidget::initLevelFilter(QCheckBox *box, QString letter, bool checked, QColor color)
{
    box->setChecked(checked);
    box->setText(letter);

    QPalette palette = boxD.palette();
    palette.setBrush(QPalette::Active, QPalette::Button, QBrush(color));
    palette.setBrush(QPalette::Inactive, QPalette::Button, QBrush(color));
    box->setAutoFillBackground(true);
    box->setPalette(palette);

    levels.insert(letter, box->isChecked());
    levelsColor.insert(letter, color);

    connect(box, &QCheckBox::stateChanged, this, &LoggerWidget::onCheckedLevels);
}

void LoggerWidget::onCheckedLevels(int state)
{
    auto *box = qobject_cast<QCheckBox *>(sender());
    if (!box)
        return;
    levels.insert(box->text(), state != 0);
    emit levelsChanged(levels);
}

void LoggerWidget::print(QString text, QString type)
{
    if (!levels.value(type, false))
        return;
    append(text, levelsColor.value(type, QColor()));
}

void LoggerWidget::append(QString text, QColor color)
{
    if (!filter.text().isEmpty()) {
        const QRegExp expression(filter.text());
        if (expression.indexIn(text) < 0)
            return;
    }
    textView.setTextBackgroundColor(color);
    textView.append(text);
}

void LoggerWidget::setMaximumBlockCount(int count)
{
    textView.document()->setMaximumBlockCount(count);
}

QTextEdit *LoggerWidget::view()
{
    return &textView;
}

QLineEdit *LoggerWidget::filterEdit()
{
    return &filter;
}

QCheckBox *LoggerWidget::levelBox(const QString &letter)
{
    for (QCheckBox *box : {&boxC, &boxE, &boxW, &boxI, &boxM, &boxD}) {
        if (box->text() == letter)
            return box;
    }
    return nullptr;
}
