#pragma once

#include <QtGlobal>

namespace Quorix {
class CatalogueDatabase;
}

// Generated scripts for the server benchmarks: nine in ten public, with names, tags, dates and counters spread out so
// that searches and every sort order have real work to do. The same count gives the same catalogue every time.
class CatalogueFill
{
public:
    // Writes count scripts by authorId in one transaction; false when any write fails.
    static bool addScripts(Quorix::CatalogueDatabase &database, qint64 authorId, int count);
};
