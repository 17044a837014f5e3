#pragma once

#include <QByteArrayView>
#include <QString>
#include <QStringList>

#include <memory>
#include <vector>

class QSaveFile;

namespace Quorix {

// The files of the catalogue under the data directory, and the staged writes of one upload. Staged files are
// written aside, moved into place together right before the database commits, and put back as they were unless
// confirm() is called, so that a refused or failed upload leaves nothing behind and an update loses nothing.
class ResourceFiles
{
public:
    explicit ResourceFiles(const QString &dataDirectory);
    ~ResourceFiles();

    ResourceFiles(const ResourceFiles &) = delete;
    ResourceFiles &operator=(const ResourceFiles &) = delete;

    // Creates the storage folders; false when the data directory is unusable.
    bool prepare();

    QString resourceFile(const QString &id) const;
    QString headerImage(const QString &id) const;
    QString thumbnailImage(const QString &id) const;

    bool stage(const QString &finalPath, QByteArrayView data);
    // Moves every staged file into place, keeping what it replaces until confirm().
    bool install();
    void confirm();

    void removeResource(const QString &id) const;
    QString errorString() const { return error; }

private:
    void rollBack();

    QString directory;
    std::vector<std::unique_ptr<QSaveFile>> staged;
    QStringList installed;
    QStringList backups;
    QString error;
};

} // namespace Quorix
