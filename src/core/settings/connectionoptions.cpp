#include "connectionoptions.h"

#include <QRegularExpression>

namespace {

// An option's name is a plain word: a field such as "slot_x(a=b)" is never taken for one.
bool splitOption(const QString &field, QString *name, QString *value)
{
    static const QRegularExpression re(QStringLiteral("^\\s*([A-Za-z][A-Za-z0-9_]*)\\s*=(.*)$"));
    const QRegularExpressionMatch m = re.match(field);
    if (!m.hasMatch())
        return false;
    *name = m.captured(1);
    *value = m.captured(2).trimmed();
    return true;
}

bool positiveInt(const QString &value, int *out)
{
    bool ok = false;
    const int n = value.toInt(&ok);
    if (!ok || n <= 0)
        return false;
    *out = n;
    return true;
}

} // namespace

bool ConnectionOptions::isOptionField(const QString &field)
{
    QString name;
    QString value;
    return splitOption(field, &name, &value);
}

QStringList ConnectionOptions::knownNames()
{
    return {QStringLiteral("limit"), QStringLiteral("policy"), QStringLiteral("timeout"),
            QStringLiteral("channel")};
}

ConnectionOptions ConnectionOptions::take(QStringList &fields)
{
    int first = fields.size();
    while (first > 0 && isOptionField(fields.at(first - 1)))
        --first;

    ConnectionOptions options;
    for (int i = first; i < fields.size(); ++i) {
        const QString &field = fields.at(i);
        QString name;
        QString value;
        splitOption(field, &name, &value);
        bool good = false;
        bool known = true;
        if (name == QLatin1String("limit")) {
            good = positiveInt(value, &options.limit);
        } else if (name == QLatin1String("timeout")) {
            good = positiveInt(value, &options.timeout);
        } else if (name == QLatin1String("policy")) {
            good = value == QLatin1String("block") || value == QLatin1String("drop");
            if (good)
                options.policy = value == QLatin1String("drop") ? Drop : Block;
        } else if (name == QLatin1String("channel")) {
            good = value == QLatin1String("batched");
            if (good)
                options.batched = true;
        } else {
            known = false;
        }
        if (good)
            options.accepted.append(field.trimmed());
        else
            options.problems.append({known ? Problem::BadValue : Problem::UnknownName, field});
    }
    fields.erase(fields.begin() + first, fields.end());
    return options;
}

QString ConnectionOptions::problemText(const QString &entry, const Problem &problem)
{
    if (problem.kind == Problem::UnknownName)
        return QStringLiteral("connection \"%1\": unknown connection option \"%2\" ignored")
            .arg(entry, problem.field);
    return QStringLiteral("connection \"%1\": bad value in connection option \"%2\" ignored")
        .arg(entry, problem.field);
}
