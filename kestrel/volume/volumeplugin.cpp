#include "volume/volumeplugin_p.h"

#include "kestrelpaths.h"
#include "velivolume.h"

#include <QDir>
#include <QGenericPlugin>
#include <QLibrary>
#include <QPluginLoader>

namespace kestrel::internal {

namespace {

VelIVolume* fromInstance(QObject* instance)
{
    auto* plugin = qobject_cast<QGenericPlugin*>(instance);
    if (!plugin)
        return nullptr;
    QObject* object = plugin->create(QStringLiteral("volume"), QStringLiteral("vel"));
    if (auto* companion = qobject_cast<VelIVolume*>(object))
        return companion;
    delete object;
    return nullptr;
}

} // namespace

VelIVolume* createVolumeCompanion()
{
    for (QObject* instance : QPluginLoader::staticInstances())
        if (VelIVolume* companion = fromInstance(instance))
            return companion;

    QStringList files;
    const QString named = qEnvironmentVariable("KESTREL_VOLUME_PLUGIN");
    if (!named.isEmpty()) {
        files << named;
    } else {
        for (const QString& folder : {Kestrel::applicationDir() + "/plugins/volume",
                                      Kestrel::applicationDir() + "/../plugins/volume"}) {
            const QDir dir(folder);
            for (const QString& name : dir.entryList(QDir::Files, QDir::Name))
                if (QLibrary::isLibrary(name))
                    files << dir.filePath(name);
        }
    }
    for (const QString& file : files) {
        QPluginLoader loader(file);
        if (VelIVolume* companion = fromInstance(loader.instance()))
            return companion;
    }
    return nullptr;
}

} // namespace kestrel::internal
