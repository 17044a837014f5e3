#pragma once

#include <QByteArray>
#include <QString>
#include <QTemporaryDir>

namespace Quorix::Testing {

// Isolates a test from the user's files: HOME and the working directory (where the host keeps
// "quorix_settings.ini") become a fresh temporary folder until destruction, and standard paths switch to test mode.
class TemporaryHome
{
public:
    TemporaryHome();
    ~TemporaryHome();

    TemporaryHome(const TemporaryHome &) = delete;
    TemporaryHome &operator=(const TemporaryHome &) = delete;

    QString path() const { return directory.path(); }
    QString filePath(const QString &relative) const { return directory.filePath(relative); }

private:
    QTemporaryDir directory;
    QString previousWorkingDirectory;
    QByteArray previousHome;
};

} // namespace Quorix::Testing
