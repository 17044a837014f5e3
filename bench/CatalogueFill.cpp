#include "CatalogueFill.h"

#include <CatalogueDatabase.h>

#include <QDateTime>
#include <QRandomGenerator>
#include <QStringList>
#include <QUuid>

using namespace Quorix;

bool CatalogueFill::addScripts(CatalogueDatabase &database, qint64 authorId, int count)
{
    const QStringList words{QStringLiteral("recoil"),  QStringLiteral("sprint"), QStringLiteral("overlay"),
                            QStringLiteral("tracker"), QStringLiteral("reader"), QStringLiteral("macro"),
                            QStringLiteral("helper"),  QStringLiteral("trainer")};
    const QStringList subtypes{QStringLiteral("gpc3"), QStringLiteral("gbc3"), QStringLiteral("python")};
    QRandomGenerator random(1);
    const QDateTime now = QDateTime::currentDateTimeUtc();
    if (!database.transaction())
        return false;
    for (int i = 0; i < count; ++i) {
        CatalogueDatabase::ResourceWrite write;
        write.id = QUuid::createUuid().toString(QUuid::WithoutBraces);
        write.kind = QStringLiteral("script");
        write.subtype = subtypes.at(i % subtypes.size());
        const QString word = words.at(int(random.bounded(words.size())));
        write.name = QStringLiteral("%1 %2").arg(word).arg(i);
        write.description = QStringLiteral("Benchmark resource number %1, a %2 for testing.").arg(i).arg(word);
        write.tags = {word, QStringLiteral("bench")};
        write.visibility = i % 10 == 0 ? QStringLiteral("private") : QStringLiteral("public");
        write.authorId = authorId;
        write.fileName = QStringLiteral("bench-%1.gpc3").arg(i);
        write.fileSize = 100;
        write.created = now.addSecs(-qint64(random.bounded(365 * 24 * 3600)));
        if (!database.writeResource(write, true)) {
            database.rollback();
            return false;
        }
        database.setCounters(write.id, random.bounded(5000), random.bounded(20000));
    }
    return database.commit();
}
