#pragma once

#include <QCoreApplication>
#include <QString>

namespace Quorix {

class SettingsManager;

// Where downloaded scripts land and where publishing starts looking: the file explorer's current folder when it
// still exists, else "scripts" beside the application (beside its "lib" folder when the binary lives in one).
class ScriptsDirectory
{
public:
    // An absolute path; the fallback folder is created when missing.
    static QString resolve(const SettingsManager *settings,
                           const QString &applicationDirectory = QCoreApplication::applicationDirPath());
};

} // namespace Quorix
