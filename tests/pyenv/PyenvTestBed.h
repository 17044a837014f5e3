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

    bool isReady() const;
    QString problem() const;
    QString indexUrl() const;
    QString extraIndexUrl() const;
    QString secondExtraIndexUrl() const;
    // Stand-ins for the packages of the reference server's demo environments (numpy, opencv-python, pillow).
    QString demoIndexUrl() const;
    QString scratchPath(const QString &relative) const;
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
