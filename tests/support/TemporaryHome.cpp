#include "TemporaryHome.h"

#include <QDir>
#include <QStandardPaths>

namespace Quorix::Testing {

TemporaryHome::TemporaryHome()
    : previousWorkingDirectory(QDir::currentPath())
    , previousHome(qgetenv("HOME"))
{
    // Test mode alone keeps data under the real home's ~/.qttest, shared by every build tree and run of a test on
    // this machine; a home of its own keeps concurrent runs from removing each other's environments.
    qputenv("HOME", directory.path().toLocal8Bit());
    QStandardPaths::setTestModeEnabled(true);
    QDir::setCurrent(directory.path());
}

TemporaryHome::~TemporaryHome()
{
    QDir::setCurrent(previousWorkingDirectory);
    qputenv("HOME", previousHome);
}

} // namespace Quorix::Testing
