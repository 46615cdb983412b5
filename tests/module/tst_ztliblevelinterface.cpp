#include <ztliblevelinterface.h>
#include <ztmifound.h>

#include <QDir>
#include <QPluginLoader>
#include <QSignalSpy>
#include <QTest>

#include <memory>

// Module libraries on disk, loaded the way the kernel loads them: by file, through Qt's plug-in
// loader, answering the factory interface.

namespace {

ZtLibLevelInterface *loadInterface(QPluginLoader &loader, const QString &fileName)
{
    loader.setFileName(QDir(QStringLiteral(ZT_FIXTURE_DIR)).filePath(fileName));
    QObject *root = loader.instance();
    if (!root)
        qWarning() << loader.errorString();
    return qobject_cast<ZtLibLevelInterface *>(root);
}

} // namespace

class tst_ZtLibLevelInterface : public QObject
{
    Q_OBJECT

private slots:
    void createsModule();
    void bareLibraryMakesNoModule();
};

void tst_ZtLibLevelInterface::createsModule()
{
    QPluginLoader loader;
    ZtLibLevelInterface *library = loadInterface(loader, QStringLiteral("testfoundplugin.dll"));
    QVERIFY(library);
    QCOMPARE(loader.metaData().value(QStringLiteral("IID")).toString(),
             QStringLiteral("Zantor.ZtLibLevelInterface/1.2"));
    QCOMPARE(library->getName(), QStringLiteral("TestFound"));
    QCOMPARE(library->getInterfaceType(), QStringLiteral("ZtMIStream"));
    QCOMPARE(library->getInterfaceVersion(), 0x010203);
    QCOMPARE(library->getVersion(), QStringLiteral("0.1"));

    const QVariant made = library->instance(3, nullptr);
    QVERIFY(made.isValid());
    std::unique_ptr<ZtMIFound> module(made.value<ZtMIFound *>());
    QVERIFY(module);
    QCOMPARE(module->getId(), 3);

    module->setup();
    // Named after the library's own class, with the option the library declared.
    QCOMPARE(module->objectName(), QStringLiteral("FixtureModule"));
    const QHash<QString, QVariant> declared {{".name", "FixtureModule"}, {"rate", 100}};
    QCOMPARE(*module->getOptions(), declared);

    QSignalSpy sent(module.get(), &ZtMIFound::sendOptions);
    module->setOptionsFromList({"rate", 50});
    QCOMPARE(sent.count(), 1);
    QCOMPARE(module->getOption(QStringLiteral("rate")), QVariant(50));
}

void tst_ZtLibLevelInterface::bareLibraryMakesNoModule()
{
    QPluginLoader loader;
    ZtLibLevelInterface *library = loadInterface(loader, QStringLiteral("testbareplugin.dll"));
    QVERIFY(library);
    QCOMPARE(library->getName(), QStringLiteral("TestBare"));

    QObject parent;
    QVERIFY(!library->instance(1, &parent).isValid());
    QVERIFY(parent.children().isEmpty());
    QCOMPARE(library->getDescription(), QString());
}

QTEST_GUILESS_MAIN(tst_ZtLibLevelInterface)
#include "tst_ztliblevelinterface.moc"
