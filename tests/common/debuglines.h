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
    static void install() { previous() = qInstallMessageHandler(&DebugLines::handle); }

    static QStringList all()
    {
        QMutexLocker guard(&mutex());
        return store();
    }

    static void clear()
    {
        QMutexLocker guard(&mutex());
        store().clear();
    }

private:
    static void handle(QtMsgType type, const QMessageLogContext &context, const QString &text)
    {
        if (type != QtDebugMsg) {
            if (previous())
                previous()(type, context, text);
            return;
        }
        QMutexLocker guard(&mutex());
        store().append(text);
    }

    static QMutex &mutex()
    {
        static QMutex instance;
        return instance;
    }
    static QStringList &store()
    {
        static QStringList lines;
        return lines;
    }
    static QtMessageHandler &previous()
    {
        static QtMessageHandler handler = nullptr;
        return handler;
    }
};
