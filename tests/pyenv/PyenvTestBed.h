#pragma once

#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

namespace Quorix {
class PythonEnvironmentManager;
}

namespace Quorix::Testing {

// The real tools the environment manager drives, without the internet: a copy of this machine's CPython laid out as
// a uv-managed install, small wheels in local package indexes served over HTTP on 127.0.0.1, and uv's caches and the
// temporary folder inside a private directory. The Python copy and the wheels are made once per build tree.
class PyenvTestBed
{
public:
    PyenvTestBed();
    ~PyenvTestBed();

    PyenvTestBed(const PyenvTestBed &) = delete;
    PyenvTestBed &operator=(const PyenvTestBed &) = delete;

    bool isReady() const { return failure.isEmpty() && indexUrls.size() == 4; }
    QString problem() const { return failure; }
    QString extraIndexUrl() const { return indexUrls.value(1); }
    QString secondExtraIndexUrl() const { return indexUrls.value(2); }
    // Stand-ins for the packages of the reference server's demo environments (numpy, opencv-python, pillow).
    QString demoIndexUrl() const { return indexUrls.value(3); }
    QString scratchPath(const QString &relative) const { return scratch.filePath(relative); }
    // Writes content to the scratch file of that name and returns its path.
    QString writeFile(const QString &name, const QByteArray &content) const;
    // The uv found on PATH, the pinned one the test set-up installed.
    static QString uvProgram();
    // Puts uv where the manager keeps it and empties everything else under its base folder.
    void prepareBaseFolder(const PythonEnvironmentManager &manager, bool withUv) const;

    struct Outcome
    {
        int exitCode = -1;
        QString output;
    };
    static Outcome run(const QString &program, const QStringList &arguments, int limitMs = 120000);

private:
    QString provisionPython(const QString &root);
    QString provisionIndexes(const QString &root);
    QString startIndex(const QString &folder);

    QTemporaryDir scratch;
    QList<QProcess *> servers;
    QStringList indexUrls;
    QString failure;
};

} // namespace Quorix::Testing
