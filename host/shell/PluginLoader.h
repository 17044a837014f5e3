#pragma once

#include <QList>
#include <QString>

class QObject;

namespace Quorix {

class IPlugin;
class IUIPlugin;
class PluginHost;

struct LoadedPlugin
{
    QObject *object = nullptr;
    IPlugin *plugin = nullptr;
    IUIPlugin *uiPlugin = nullptr; // null for plugins without a page
};

// Loads every plugin module of a folder and hands each plugin object to the host, which then owns it.
class PluginLoader
{
public:
    static QList<LoadedPlugin> loadAll(const QString &directory, PluginHost *host, QStringList *errors);
};

} // namespace Quorix
