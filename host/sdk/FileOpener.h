#pragma once

#include <QMetaObject>
#include <QObject>
#include <QString>

namespace Quorix {

// How one plugin hands a file to another that shows files of its kind ("GPC 3" for .gpc3 and .gbc3, "CV Python" for
// .py), without either linking against the other. The receiving plugin declares, in its QObject class,
//
//     Q_INVOKABLE void openFile(const QString &filePath);
//
// and opens or reveals the file there. Senders find the plugin through PluginHost::getPlugin and call openFile below.
class FileOpener
{
public:
    static constexpr const char *methodName = "openFile";

    // False when the plugin is null or declares no such method.
    static bool openFile(QObject *plugin, const QString &filePath)
    {
        return plugin && QMetaObject::invokeMethod(plugin, methodName, Q_ARG(QString, filePath));
    }
};

} // namespace Quorix
