#pragma once

#include "ztcore_export.h"
#include "ztliblevelinterface.h"

#include <QFileInfo>
#include <QJsonObject>
#include <QPluginLoader>
#include <QString>
#include <QStringList>
#include <QtPlugin>

// What a module library says about itself in the metadata that ztcore_add_module embeds: name,
// kind, version, description, interface type and interface version. It is read from the file
// without loading the library, so no code of the module runs (QPluginLoader::metaData()).
//
// A value type. A library built without that metadata (an empty "MetaData" object) reads back as
// not valid; so does a file that is no plug-in of the module interface. A loaded library reads
// its own metadata straight from the bytes moc embedded (fromEmbedded()).
class ZtModuleMetaData
{
public:
    ZtModuleMetaData() = default;

    // Reads the metadata of the library at `path`; errorString() says why when it is not valid.
    static ZtModuleMetaData fromFile(const QString &path)
    {
        QPluginLoader loader(path);
        ZtModuleMetaData result = fromPluginMetaData(loader.metaData());
        result.fileName = QFileInfo(path).fileName();
        if (!QFileInfo::exists(path))
            result.error = QStringLiteral("no such file");
        else if (loader.metaData().isEmpty())
            result.error = QStringLiteral("not a plug-in: ") + loader.errorString();
        return result;
    }

    // From the object QPluginLoader::metaData() or QStaticPlugin::metaData() gives: "IID" and
    // the embedded object under "MetaData".
    static ZtModuleMetaData fromPluginMetaData(const QJsonObject &plugin)
    {
        ZtModuleMetaData result;
        const QJsonObject data = plugin.value(QStringLiteral("MetaData")).toObject();
        if (plugin.value(QStringLiteral("IID")).toString()
            != QLatin1String(ZtLibLevelInterface_iid)) {
            result.error = QStringLiteral("not a ZtCore module library");
            return result;
        }
        result.error.clear();
        result.name = data.value(QStringLiteral("name")).toString();
        result.kind = data.value(QStringLiteral("kind")).toString();
        result.version = data.value(QStringLiteral("version")).toString();
        result.description = data.value(QStringLiteral("description")).toString();
        result.interfaceType = data.value(QStringLiteral("interfaceType")).toString();
        result.interfaceVersion
            = packVersion(data.value(QStringLiteral("interfaceVersion")).toString());
        if (result.name.isEmpty())
            result.error = QStringLiteral("no module metadata");
        return result;
    }

    // The metadata a loaded plug-in embeds, given its qt_plugin_query_metadata(). Read straight
    // from the raw bytes when they are in the form readRaw() knows, which costs a small part of
    // Qt's conversion of the whole object to JSON (QStaticPlugin::metaData()); Qt's conversion
    // otherwise, so that a future layout still reads correctly, only slower.
    static ZTCORE_EXPORT ZtModuleMetaData fromEmbedded(QtPluginMetaDataFunction query);

    // Reads the raw form of Qt 5's plug-in metadata as moc writes it: the signature
    // "QTMETADATA !", a metadata format byte (0), Qt's major and minor version, the architecture
    // requirements, then one CBOR map whose keys are small integers for Qt's own entries (2 the
    // IID, 4 the "MetaData" object; text keys are accepted too). Fills `result` as
    // fromPluginMetaData() would from Qt's JSON form and returns true; returns false, leaving
    // `result` unspecified, for anything else: a null pointer, another signature or format,
    // malformed or truncated CBOR.
    static ZTCORE_EXPORT bool readRaw(const char *raw, ZtModuleMetaData *result);

    // "1.2.0" -> 1 << 16 | 2 << 8 | 0, the form of ZtLibLevelInterface::getInterfaceVersion();
    // -1 for anything else.
    static int packVersion(const QString &text)
    {
        const QVector<QStringRef> parts = text.splitRef(QLatin1Char('.'));
        if (parts.size() != 3)
            return -1;
        int packed = 0;
        for (const QStringRef &part : parts) {
            bool ok = false;
            const int value = part.toInt(&ok);
            if (!ok || value < 0 || value > 127)
                return -1;
            packed = packed << 8 | value;
        }
        return packed;
    }

    // The other way round: 0x010200 -> "1.2.0".
    static QString versionText(int packed)
    {
        return QStringLiteral("%1.%2.%3")
            .arg(packed >> 16 & 0xff)
            .arg(packed >> 8 & 0xff)
            .arg(packed & 0xff);
    }

    bool isValid() const { return error.isEmpty(); }
    QString errorString() const { return error; }

    QString getFileName() const { return fileName; }
    QString getName() const { return name; }
    QString getKind() const { return kind; }
    QString getVersion() const { return version; }
    QString getDescription() const { return description; }
    QString getInterfaceType() const { return interfaceType; }
    int getInterfaceVersion() const { return interfaceVersion; }

    // The answers of `library` that differ from this metadata, one line each
    // ("version: \"1.0\" in the metadata, \"1.1\" from the library"). Empty when they agree, and
    // for a library without metadata, which has nothing to disagree with.
    QStringList disagreements(const ZtLibLevelInterface &library) const
    {
        QStringList result;
        if (!isValid())
            return result;
        const auto compare = [&result](const char *what, const QString &ours,
                                       const QString &theirs) {
            if (ours != theirs)
                result.append(QStringLiteral("%1: \"%2\" in the metadata, \"%3\" from the library")
                                  .arg(QLatin1String(what), ours, theirs));
        };
        compare("name", name, library.getName());
        compare("kind", kind, library.getKind());
        compare("version", version, library.getVersion());
        compare("interface type", interfaceType, library.getInterfaceType());
        // Compared as text, as reported; the numbers are only a shortcut for the usual agreement.
        const int theirVersion = library.getInterfaceVersion();
        if (theirVersion != interfaceVersion)
            compare("interface version", versionText(interfaceVersion), versionText(theirVersion));
        return result;
    }

private:
    QString fileName;
    QString name;
    QString kind;
    QString version;
    QString description;
    QString interfaceType;
    int interfaceVersion = -1;
    QString error = QStringLiteral("empty");
};
