#pragma once

#include <QString>
#include <QStringList>

namespace Quorix {

class CatalogueDatabase;

// Puts the files back in line with the database after a crash, before the server takes requests. A staged ".new"
// file whose digest is the one the database recorded belonged to a committed change and is published; any other
// staged file is dropped, as are upload leftovers and the files of resources the database no longer lists.
class StorageReconciliation
{
public:
    StorageReconciliation(CatalogueDatabase *database, const QString &dataDirectory);

    // What it did, one line per action; empty when everything was in order.
    QStringList run();

private:
    void clearStaging();
    void settleStagedFiles();
    void settleStagedImages();
    void removeOrphans();
    void reportMissingFiles();

    CatalogueDatabase *database;
    QString directory;
    QStringList actions;
};

} // namespace Quorix
