#pragma once

#include <QMutex>
#include <QMutexLocker>
#include <QStringList>
#include <QtGlobal>

// Catches the debug lines the library writes through Qt's message handler, from any thread, so
// that a test can check them. Other messages go on to the handler installed before (Qt Test's),
// so QTest::ignoreMessage keeps working for warnings.
class DebugLines
{
public:
    static void install() { state().previous = qInstallMessageHandler(&DebugLines::handle); }
    static QStringList all()
    {
        QMutexLocker guard(&state().mutex);
        return state().lines;
    }
    static void clear()
    {
        QMutexLocker guard(&state().mutex);
        state().lines.clear();
    }

private:
    struct State
    {
        QMutex mutex;
        QStringList lines;
        QtMessageHandler previous = nullptr;
    };
    static State &state()
    {
        static State instance;
        return instance;
    }
    static void handle(QtMsgType type, const QMessageLogContext &context, const QString &text)
    {
        if (type != QtDebugMsg) {
            if (state().previous)
                state().previous(type, context, text);
            return;
        }
        QMutexLocker guard(&state().mutex);
        state().lines.append(text);
    }
};
