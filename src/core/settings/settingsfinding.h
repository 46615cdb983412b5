#pragma once

#include <QString>

// One value of a settings file that could not be read safely and was treated as absent: where it
// stands and why it was refused. SysSettings keeps these for its owner to report;
// WSSettings reports them as warnings.
struct SettingsFinding
{
    QString fileName;
    int line = 0; // 1-based line of the file on which the entry starts
    QString key; // the key as written, before the INI escapes are decoded
    QString reason;

    QString message() const
    {
        return QStringLiteral("Damaged value ignored: %1:%2, key \"%3\": %4")
            .arg(fileName)
            .arg(line)
            .arg(key, reason);
    }
};
