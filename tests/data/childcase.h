#pragma once

#include <QCoreApplication>
#include <QHash>
#include <QProcess>
#include <QtTest>

#include <functional>

// Cases that end the process (qFatal) or need a fresh process run in a child copy of the test
// executable, selected by an environment variable; the child runs that one case instead of the
// test class and exits with the case's result.
namespace ChildCase {

using Cases = QHash<QByteArray, std::function<int()>>;
constexpr const char *selector = "ZTCORE_TEST_CHILD_CASE";

// With no message the child must exit with 0; with one it must die (abort or non-zero exit)
// and print the message on stderr, where a sanitizer build may add its own report.
inline bool check(const QByteArray &name, const QByteArray &fatalMessage = QByteArray())
{
    QProcess child;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QLatin1String(selector), QString::fromLatin1(name));
    child.setProcessEnvironment(env);
    child.start(QCoreApplication::applicationFilePath(), QStringList());
    if (!child.waitForFinished(120000))
        return false;
    const bool exitedCleanly = child.exitStatus() == QProcess::NormalExit && child.exitCode() == 0;
    const QByteArray err = child.readAllStandardError();
    const bool pass
        = fatalMessage.isEmpty() ? exitedCleanly : !exitedCleanly && err.contains(fatalMessage);
    if (!pass)
        qWarning("child case %s: exit code %d, stderr:\n%s", name.constData(), child.exitCode(),
                 err.constData());
    return pass;
}

template<typename TestClass>
int main(int argc, char **argv, const Cases &cases)
{
    QCoreApplication app(argc, argv);
    const QByteArray selected = qgetenv(selector);
    if (!selected.isEmpty())
        return cases.contains(selected) ? cases.value(selected)() : 4;
    TestClass test;
    return QTest::qExec(&test, argc, argv);
}

} // namespace ChildCase
