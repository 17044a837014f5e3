#include "ScriptsDirectory.h"

#include <SettingsManager.h>

#include <QDir>
#include <QFileInfo>

namespace Quorix {

QString ScriptsDirectory::resolve(const SettingsManager *settings, const QString &applicationDirectory)
{
    if (settings) {
        const QString explorerFolder
                = settings->getPluginValue(QStringLiteral("FileExplorer"), QStringLiteral("lastWorkingDirectory"))
                          .toString();
        if (!explorerFolder.isEmpty() && QFileInfo(explorerFolder).isDir())
            return QFileInfo(explorerFolder).absoluteFilePath();
    }
    QString base = QDir(applicationDirectory).absolutePath();
    if (QFileInfo(base).fileName() == QLatin1String("lib"))
        base = QFileInfo(base).path();
    const QString scripts = base + QStringLiteral("/scripts");
    QDir().mkpath(scripts);
    return scripts;
}

} // namespace Quorix
