#pragma once

#include <QCoreApplication>
#include <QHash>
#include <QProcess>
#include <QProcessEnvironment>
#include <QtTest>

#include <functional>

// Cases that must end the process (qFatal) or that need a fresh process (nothing registered yet)
// run in a child copy of the test executable. The child is selected by an environment variable
// and runs exactly one case instead of the test class.
namespace ChildCase {

constexpr const char *variable = "ZTCORE_TEST_CHILD_CASE";

using Cases = QHash<QByteArray, std::function<int()>>;

struct Result
{
    bool finished = false;
    bool normalExit = false;
    int exitCode = -1;
    QByteArray stderrText;
};

inline Result run(const QByteArray &name)
{
    QProcess child;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QString::fromLatin1(variable), QString::fromLatin1(name));
    child.setProcessEnvironment(env);
    child.start(QCoreApplication::applicationFilePath(), QStringList());
    Result result;
    result.finished = child.waitForFinished(120000);
    result.normalExit = child.exitStatus() == QProcess::NormalExit;
    result.exitCode = child.exitCode();
    result.stderrText = child.readAllStandardError();
    return result;
}

// The child must die (abort or non-zero exit) and say exactly `message` on stderr. Sanitizer
// builds may add their own report around it.
inline bool diesWith(const QByteArray &name, const QByteArray &message)
{
    const Result r = run(name);
    if (!r.finished || (r.normalExit && r.exitCode == 0) || !r.stderrText.contains(message)) {
        qWarning("child case %s: exit %d (%s), stderr:\n%s", name.constData(), r.exitCode,
                 r.normalExit ? "normal" : "crash", r.stderrText.constData());
        return false;
    }
    return true;
}

inline bool succeeds(const QByteArray &name)
{
    const Result r = run(name);
    if (!r.finished || !r.normalExit || r.exitCode != 0) {
        qWarning("child case %s: exit %d, stderr:\n%s", name.constData(), r.exitCode,
                 r.stderrText.constData());
        return false;
    }
    return true;
}

// main() for a test with child cases: a child runs its case and exits with its result, or with
// 3 when a case meant to die returned.
template<typename TestClass>
int main(int argc, char **argv, const Cases &cases)
{
    QCoreApplication app(argc, argv);
    const QByteArray selected = qgetenv(variable);
    if (!selected.isEmpty()) {
        const auto it = cases.find(selected);
        return it == cases.end() ? 4 : it.value()();
    }
    TestClass test;
    return QTest::qExec(&test, argc, argv);
}

} // namespace ChildCase
