#pragma once

#include <QString>

namespace Quorix {

class CatalogueDatabase;

// Fills an empty catalogue with a lived-in demo set: scripts of every subtype, environment packages, weights,
// authors, likes, counters, dates and pictures, all made here.
class DemoCatalogue
{
public:
    // The signed-in user of quorix-shell --demo; some demo resources are theirs.
    static constexpr const char *demoUserDiscordId = "100000000000000001";
    static constexpr const char *demoUsername = "demo_user";
    static constexpr const char *demoGlobalName = "Demo User";

    DemoCatalogue(CatalogueDatabase *database, const QString &dataDirectory);

    // Does nothing when the catalogue already holds resources.
    bool seedIfEmpty(QString *error);

private:
    CatalogueDatabase *database;
    QString dataDirectory;
};

} // namespace Quorix
