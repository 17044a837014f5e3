#include "ResourceFiles.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

namespace Quorix {

namespace {

const QString backupSuffix = QStringLiteral(".previous");

} // namespace

ResourceFiles::ResourceFiles(const QString &dataDirectory)
    : directory(dataDirectory)
{ }

ResourceFiles::~ResourceFiles()
{
    rollBack();
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
    auto file = std::make_unique<QSaveFile>(finalPath);
    if (!file->open(QIODevice::WriteOnly) || file->write(data.data(), data.size()) != data.size()) {
        error = file->errorString();
        file->cancelWriting();
        return false;
    }
    staged.push_back(std::move(file));
    return true;
}

bool ResourceFiles::install()
{
    for (const auto &file : staged) {
        const QString target = file->fileName();
        if (QFile::exists(target)) {
            QFile::remove(target + backupSuffix);
            if (!QFile::rename(target, target + backupSuffix)) {
                error = QStringLiteral("Cannot replace %1").arg(QFileInfo(target).fileName());
                rollBack();
                return false;
            }
            backups.append(target);
        }
        if (!file->commit()) {
            error = file->errorString();
            rollBack();
            return false;
        }
        installed.append(target);
    }
    staged.clear();
    return true;
}

void ResourceFiles::confirm()
{
    for (const QString &target : std::as_const(backups))
        QFile::remove(target + backupSuffix);
    backups.clear();
    installed.clear();
}

void ResourceFiles::rollBack()
{
    for (const auto &file : staged)
        file->cancelWriting();
    staged.clear();
    for (const QString &target : std::as_const(installed))
        QFile::remove(target);
    for (const QString &target : std::as_const(backups)) {
        QFile::remove(target);
        QFile::rename(target + backupSuffix, target);
    }
    installed.clear();
    backups.clear();
}

void ResourceFiles::removeResource(const QString &id) const
{
    QFile::remove(resourceFile(id));
    QFile::remove(headerImage(id));
    QFile::remove(thumbnailImage(id));
}

} // namespace Quorix
