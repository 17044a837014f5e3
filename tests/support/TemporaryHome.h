#pragma once

#include <QByteArray>
#include <QString>
#include <QTemporaryDir>

namespace Quorix::Testing {

// Isolates a test from the user's files: standard paths switch to test mode and the working directory
// (where the host keeps "quorix_settings.ini") becomes a fresh temporary folder until destruction.
class TemporaryHome
{
public:
    TemporaryHome();
    ~TemporaryHome();

    TemporaryHome(const TemporaryHome &) = delete;
    TemporaryHome &operator=(const TemporaryHome &) = delete;

    QString path() const;
    QString filePath(const QString &relative) const;

private:
    QTemporaryDir directory;
    QString previousWorkingDirectory;
    QByteArray previousHome;
};

} // namespace Quorix::Testing
