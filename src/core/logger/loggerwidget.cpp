#include "loggerwidget.h"

#include <QElapsedTimer>
#include <QHBoxLayout>
#include <QScrollBar>
#include <QSpacerItem>
#include <QTextCursor>
#include <QTextDocument>
#include <QTimerEvent>
#include <QVBoxLayout>

namespace {

// Time one pass may spend taking lines in (the edit and the layout it triggers), so that a
// flood leaves the event loop room for painting and input.
constexpr int passBudgetMs = 6;
// During a flood a pass follows the one before after this long: each edit lays out the whole
// view again once the limit trims it, so fewer, larger edits cost less. A person does not see
// the difference between a line shown now and one shown 20 ms later.
constexpr int passIntervalMs = 20;
constexpr int minimumBatch = 16;
constexpr int maximumBatch = 4096;

} // namespace

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

    // The expression is built once per change of the text, not once per line.
    connect(&filter, &QLineEdit::textChanged, this, &LoggerWidget::filterChanged);
}

void LoggerWidget::filterChanged(const QString &text)
{
    emit filtersAboutToChange();
    filtering = !text.isEmpty();
    expression = QRegExp(text);
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
    emit filtersAboutToChange();
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
    if (filtering && expression.indexIn(text) < 0)
        return;
    waiting.push_back(Line {std::move(text), color});
    // Lines beyond the view's limit would only be removed again.
    const int limit = textView.document()->maximumBlockCount();
    if (limit > 0 && waiting.size() > size_t(limit))
        waiting.pop_front();
    if (!passTimer.isActive()) {
        const qint64 since = lastPass.isValid() ? lastPass.elapsed() : passIntervalMs;
        passTimer.start(int(qMax<qint64>(0, passIntervalMs - since)), this);
    }
}

bool LoggerWidget::isDueToTakeIn() const
{
    return !waiting.empty() && (!lastPass.isValid() || lastPass.elapsed() >= passIntervalMs);
}

void LoggerWidget::timerEvent(QTimerEvent *event)
{
    if (event->timerId() != passTimer.timerId()) {
        QWidget::timerEvent(event);
        return;
    }
    takeIn(passBudgetMs);
    lastPass.start();
    passTimer.stop();
    if (!waiting.empty())
        passTimer.start(passIntervalMs, this);
}

const QTextCharFormat &LoggerWidget::formatFor(const QColor &color)
{
    for (const auto &known : qAsConst(formats)) {
        if (known.first == color)
            return known.second;
    }
    QTextCharFormat format;
    format.setBackground(QBrush(color));
    formats.append({color, format});
    return formats.last().second;
}

// One edit block for the whole batch, so that the document lays out and trims to its limit once
// per batch instead of once per line. Each line becomes one paragraph as QTextEdit::append()
// makes it (HTML included), with the same scrolling: the view follows the end if it was there.
void LoggerWidget::takeIn(int budgetMs)
{
    if (waiting.empty())
        return;
    QElapsedTimer clock;
    clock.start();
    const size_t count = budgetMs < 0 ? waiting.size() : qMin(waiting.size(), size_t(batch));
    QScrollBar *bar = textView.verticalScrollBar();
    const bool atBottom
        = textView.isReadOnly() ? bar->value() >= bar->maximum() : textView.textCursor().atEnd();
    QTextDocument *document = textView.document();
    QTextCursor cursor(document);
    cursor.beginEditBlock();
    cursor.movePosition(QTextCursor::End);
    for (size_t i = 0; i < count; ++i) {
        const Line &line = waiting[i];
        const QTextCharFormat &format = formatFor(line.color);
        if (!document->isEmpty())
            cursor.insertBlock(QTextBlockFormat(), format);
        else
            cursor.setCharFormat(format);
        if (Qt::mightBeRichText(line.text))
            cursor.insertHtml(line.text);
        else
            cursor.insertText(line.text, format);
    }
    cursor.endEditBlock();
    waiting.erase(waiting.begin(), waiting.begin() + count);
    if (atBottom)
        bar->setValue(bar->maximum());
    if (budgetMs < 0)
        return;
    // Aim at half the budget, leaving room for the cost of a batch to vary.
    const qint64 spent = clock.elapsed();
    if (spent * 2 > budgetMs)
        batch = qMax(minimumBatch, batch / 2);
    else if (spent * 4 < budgetMs && count == size_t(batch))
        batch = qMin(maximumBatch, batch * 2);
}

void LoggerWidget::setMaximumBlockCount(int count)
{
    takeIn(-1);
    textView.document()->setMaximumBlockCount(count);
}

QTextEdit *LoggerWidget::view()
{
    takeIn(-1);
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
