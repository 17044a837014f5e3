#include "TemporaryHome.h"

#include <QDir>
#include <QStandardPaths>

namespace Quorix::Testing {

TemporaryHome::TemporaryHome()
    : previousWorkingDirectory(QDir::currentPath())
{
    QStandardPaths::setTestModeEnabled(true);
    QDir::setCurrent(directory.path());
}

TemporaryHome::~TemporaryHome()
{
    QDir::setCurrent(previousWorkingDirectory);
}

QString TemporaryHome::path() const
{
    return directory.path();
}

QString TemporaryHome::filePath(const QString &relative) const
{
    return directory.filePath(relative);
}

} // namespace Quorix::Testing
