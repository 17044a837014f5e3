#include "PluginLoader.h"

#include <IUIPlugin.h>
#include <PluginHost.h>

#include <QDir>
#include <QLibrary>
#include <QPluginLoader>

namespace Quorix {

QList<LoadedPlugin> PluginLoader::loadAll(const QString &directory, PluginHost *host, QStringList *errors)
{
    QList<LoadedPlugin> loaded;
    const QDir dir(directory);
    const QFileInfoList entries = dir.entryInfoList(QDir::Files, QDir::Name);
    for (const QFileInfo &entry : entries) {
        if (!QLibrary::isLibrary(entry.fileName()))
            continue;
        QPluginLoader loader(entry.absoluteFilePath());
        QObject *object = loader.instance();
        auto *plugin = qobject_cast<IPlugin *>(object);
        if (!plugin) {
            if (errors)
                errors->append(QStringLiteral("%1: %2").arg(entry.fileName(),
                        object ? QStringLiteral("not a Quorix plugin") : loader.errorString()));
            continue;
        }
        object->setParent(host);
        host->registerPlugin(plugin->pluginId(), plugin->displayName(), object);
        plugin->initialize();
        loaded.append({object, plugin, qobject_cast<IUIPlugin *>(object)});
    }
    return loaded;
}

} // namespace Quorix
