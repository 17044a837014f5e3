#include "StorageReconciliation.h"

#include "CatalogueDatabase.h"
#include "ResourceFiles.h"
#include "Sha256.h"

#include <QDir>
#include <QFile>
#include <QSet>

#include <cstdio>

namespace Quorix {

namespace {

bool replace(const QString &staged, const QString &live)
{
    return std::rename(QFile::encodeName(staged).constData(), QFile::encodeName(live).constData()) == 0;
}

} // namespace

StorageReconciliation::StorageReconciliation(CatalogueDatabase *database, const QString &dataDirectory)
    : database(database)
    , directory(dataDirectory)
{ }

QStringList StorageReconciliation::run()
{
    actions.clear();
    clearStaging();
    settleStagedFiles();
    settleStagedImages();
    removeOrphans();
    reportMissingFiles();
    return actions;
}

void StorageReconciliation::clearStaging()
{
    QDir staging(directory + QStringLiteral("/staging"));
    const QStringList leftovers = staging.entryList(QDir::Files | QDir::Hidden);
    for (const QString &name : leftovers)
        staging.remove(name);
    if (!leftovers.isEmpty())
        actions.append(QStringLiteral("removed %1 interrupted upload(s) from staging").arg(leftovers.size()));
}

void StorageReconciliation::settleStagedFiles()
{
    const ResourceFiles files(directory);
    const QDir folder(directory + QStringLiteral("/files"));
    const QString suffix = ResourceFiles::stagedSuffix();
    for (const QString &name : folder.entryList({QLatin1Char('*') + suffix}, QDir::Files)) {
        const QString id = name.chopped(suffix.size());
        const CatalogueDatabase::Resource resource = database->resource(id);
        const QString staged = folder.filePath(name);
        if (resource.isValid() && !resource.sha256.isEmpty() && Sha256::ofFile(staged) == resource.sha256
            && replace(staged, files.resourceFile(id))) {
            actions.append(QStringLiteral("finished the file of %1").arg(id));
        } else {
            QFile::remove(staged);
            actions.append(QStringLiteral("rolled back an uncommitted file of %1").arg(id));
        }
    }
}

void StorageReconciliation::settleStagedImages()
{
    const ResourceFiles files(directory);
    QDir folder(directory + QStringLiteral("/images"));
    const QString suffix = ResourceFiles::stagedSuffix();
    const QString headerSuffix = QStringLiteral(".header") + suffix;
    // Thumbnails are published before their header, so a staged header decides for both.
    for (const QString &name : folder.entryList({QLatin1Char('*') + headerSuffix}, QDir::Files)) {
        const QString id = name.chopped(headerSuffix.size());
        const CatalogueDatabase::Resource resource = database->resource(id);
        const QString header = folder.filePath(name);
        const QString thumbnail = files.thumbnailImage(id) + suffix;
        if (resource.isValid() && !resource.imageSha256.isEmpty() && Sha256::ofFile(header) == resource.imageSha256
            && (!QFile::exists(thumbnail) || replace(thumbnail, files.thumbnailImage(id)))
            && replace(header, files.headerImage(id))) {
            actions.append(QStringLiteral("finished the images of %1").arg(id));
        } else {
            QFile::remove(header);
            QFile::remove(thumbnail);
            actions.append(QStringLiteral("rolled back uncommitted images of %1").arg(id));
        }
    }
    for (const QString &name : folder.entryList({QLatin1Char('*') + suffix}, QDir::Files)) {
        folder.remove(name);
        actions.append(QStringLiteral("removed the stray staged image %1").arg(name));
    }
}

void StorageReconciliation::removeOrphans()
{
    const QStringList ids = database->resourceIds();
    const QSet<QString> known(ids.cbegin(), ids.cend());
    for (const QString &sub : {QStringLiteral("files"), QStringLiteral("images")}) {
        QDir folder(directory + QLatin1Char('/') + sub);
        for (const QString &name : folder.entryList(QDir::Files)) {
            const QString id = name.section(QLatin1Char('.'), 0, 0);
            if (known.contains(id))
                continue;
            folder.remove(name);
            actions.append(QStringLiteral("removed %1/%2, which no resource owns").arg(sub, name));
        }
    }
}

void StorageReconciliation::reportMissingFiles()
{
    const ResourceFiles files(directory);
    for (const QString &id : database->resourceIds()) {
        if (!QFile::exists(files.resourceFile(id)))
            actions.append(QStringLiteral("the file of %1 is missing; its downloads answer 410").arg(id));
    }
}

} // namespace Quorix
