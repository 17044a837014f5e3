#include "ResourceFiles.h"

#include "CrashPoint.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace Quorix {

namespace {

bool syncPath(const QString &path)
{
    const int descriptor = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0)
        return false;
    const bool synced = ::fsync(descriptor) == 0;
    ::close(descriptor);
    return synced;
}

} // namespace

ResourceFiles::ResourceFiles(const QString &dataDirectory)
    : directory(dataDirectory)
{ }

ResourceFiles::~ResourceFiles()
{
    for (const QString &target : std::as_const(staged))
        QFile::remove(target + stagedSuffix());
}

QString ResourceFiles::stagedSuffix()
{
    return QStringLiteral(".new");
}

bool ResourceFiles::prepare()
{
    const QDir root(directory);
    return root.mkpath(QStringLiteral("files")) && root.mkpath(QStringLiteral("images"));
}

QString ResourceFiles::resourceFile(const QString &id) const
{
    return directory + QStringLiteral("/files/") + id;
}

QString ResourceFiles::headerImage(const QString &id) const
{
    return directory + QStringLiteral("/images/") + id + QStringLiteral(".header");
}

QString ResourceFiles::thumbnailImage(const QString &id) const
{
    return directory + QStringLiteral("/images/") + id + QStringLiteral(".thumbnail");
}

bool ResourceFiles::stage(const QString &finalPath, QByteArrayView data)
{
    // QSaveFile syncs before its rename, so the staged name only ever holds complete bytes.
    QSaveFile file(finalPath + stagedSuffix());
    if (!file.open(QIODevice::WriteOnly) || file.write(data.data(), data.size()) != data.size() || !file.commit()) {
        error = file.errorString();
        return false;
    }
    staged.append(finalPath);
    return true;
}

bool ResourceFiles::stageFile(const QString &finalPath, const QString &sourcePath)
{
    QFile::remove(finalPath + stagedSuffix());
    if (std::rename(QFile::encodeName(sourcePath).constData(),
                    QFile::encodeName(finalPath + stagedSuffix()).constData())
        != 0) {
        error = QStringLiteral("Cannot stage %1").arg(QFileInfo(finalPath).fileName());
        return false;
    }
    staged.append(finalPath);
    return syncPath(QFileInfo(finalPath).absolutePath());
}

bool ResourceFiles::publish()
{
    CrashPoint::reach("after-commit");
    // Images before the resource file, and the thumbnail before its header: reconciliation relies on this order.
    std::stable_sort(staged.begin(), staged.end(), [](const QString &a, const QString &b) {
        const auto rank = [](const QString &path) {
            return path.endsWith(QLatin1String(".thumbnail")) ? 0 : path.endsWith(QLatin1String(".header")) ? 1 : 2;
        };
        return rank(a) < rank(b);
    });
    bool ok = true;
    QStringList folders;
    for (const QString &target : std::as_const(staged)) {
        // rename() replaces the live file in one step: readers see the old bytes or the new, never neither.
        if (std::rename(QFile::encodeName(target + stagedSuffix()).constData(), QFile::encodeName(target).constData())
            != 0) {
            error = QStringLiteral("Cannot replace %1").arg(QFileInfo(target).fileName());
            ok = false;
        }
        CrashPoint::reach("during-publish");
        if (!folders.contains(QFileInfo(target).absolutePath()))
            folders.append(QFileInfo(target).absolutePath());
    }
    staged.clear();
    for (const QString &folder : std::as_const(folders))
        syncPath(folder);
    return ok;
}

void ResourceFiles::removeResource(const QString &id) const
{
    QFile::remove(resourceFile(id));
    QFile::remove(headerImage(id));
    QFile::remove(thumbnailImage(id));
}

} // namespace Quorix
