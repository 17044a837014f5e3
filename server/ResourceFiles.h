#pragma once

#include <QByteArrayView>
#include <QString>
#include <QStringList>

namespace Quorix {

// The files of the catalogue under the data directory, and the staged writes of one upload. A staged file sits
// beside its live name with the suffix ".new", written and synced, before the database records the change; publish()
// then renames it over the live file, so at every moment the live name holds complete old or complete new bytes.
// Staged files that were never published are removed with this object; after a crash, start-up reconciliation
// decides from the recorded digests whether to publish or drop them.
class ResourceFiles
{
public:
    explicit ResourceFiles(const QString &dataDirectory);
    ~ResourceFiles();

    ResourceFiles(const ResourceFiles &) = delete;
    ResourceFiles &operator=(const ResourceFiles &) = delete;

    static QString stagedSuffix();

    // Creates the storage folders; false when the data directory is unusable.
    bool prepare();

    QString resourceFile(const QString &id) const;
    QString headerImage(const QString &id) const;
    QString thumbnailImage(const QString &id) const;

    bool stage(const QString &finalPath, QByteArrayView data);
    // Takes a file already written and synced elsewhere on the same file system (an upload's staging file).
    bool stageFile(const QString &finalPath, const QString &sourcePath);
    // Renames every staged file over its live name, the resource file last, and syncs the folders. Only after the
    // database has committed.
    bool publish();

    void removeResource(const QString &id) const;
    QString errorString() const { return error; }

private:
    QString directory;
    QStringList staged;
    QString error;
};

} // namespace Quorix
