#include "CatalogueDatabase.h"

#include <QCryptographicHash>
#include <QJsonDocument>
#include <QRandomGenerator>
#include <QSqlError>
#include <QSqlQuery>
#include <QSqlRecord>
#include <QUuid>
#include <QVariant>

namespace Quorix {

namespace {

// Each entry brings the schema from its index to the next version; new versions append a step.
const QList<QStringList> migrations = {
        {
                QStringLiteral(
                        "CREATE TABLE users (id INTEGER PRIMARY KEY AUTOINCREMENT, discord_id TEXT NOT NULL UNIQUE,"
                        " username TEXT NOT NULL DEFAULT '', global_name TEXT NOT NULL DEFAULT '',"
                        " avatar TEXT NOT NULL DEFAULT '', signed_in INTEGER NOT NULL DEFAULT 0,"
                        " banned INTEGER NOT NULL DEFAULT 0, ban_reason TEXT NOT NULL DEFAULT '',"
                        " created TEXT NOT NULL)"),
                QStringLiteral("CREATE TABLE sessions (token_hash TEXT PRIMARY KEY, user_id INTEGER NOT NULL,"
                               " created TEXT NOT NULL)"),
                QStringLiteral("CREATE TABLE resources (id TEXT PRIMARY KEY, kind TEXT NOT NULL, subtype TEXT NOT NULL,"
                               " name TEXT NOT NULL, description TEXT NOT NULL, instructions TEXT NOT NULL DEFAULT '',"
                               " tags TEXT NOT NULL DEFAULT '', version REAL NOT NULL DEFAULT 1,"
                               " visibility TEXT NOT NULL, author_id INTEGER NOT NULL, file_name TEXT NOT NULL,"
                               " file_size INTEGER NOT NULL, encrypted INTEGER NOT NULL DEFAULT 0,"
                               " metadata TEXT NOT NULL DEFAULT '', image_type TEXT NOT NULL DEFAULT '',"
                               " created TEXT NOT NULL, updated TEXT NOT NULL, downloads INTEGER NOT NULL DEFAULT 0,"
                               " views INTEGER NOT NULL DEFAULT 0, likes INTEGER NOT NULL DEFAULT 0)"),
                QStringLiteral("CREATE INDEX resources_kind_created ON resources(kind, created)"),
                QStringLiteral("CREATE INDEX resources_author_file ON resources(author_id, file_name)"),
                QStringLiteral("CREATE TABLE likes (user_id INTEGER NOT NULL, resource_id TEXT NOT NULL,"
                               " created TEXT NOT NULL, PRIMARY KEY (user_id, resource_id))"),
                QStringLiteral("CREATE INDEX likes_resource ON likes(resource_id)"),
                QStringLiteral("CREATE TABLE authorizations (id INTEGER PRIMARY KEY AUTOINCREMENT,"
                               " resource_id TEXT NOT NULL, discord_id TEXT NOT NULL, user_id INTEGER,"
                               " status TEXT NOT NULL, notes TEXT NOT NULL DEFAULT '', expires_at TEXT,"
                               " code TEXT NOT NULL DEFAULT '', download_count INTEGER NOT NULL DEFAULT 0,"
                               " created TEXT NOT NULL, UNIQUE (resource_id, discord_id))"),
                QStringLiteral("CREATE INDEX authorizations_user ON authorizations(user_id, resource_id)"),
        },
        {
                // Popular is the default order: without this every page sorted the whole kind.
                QStringLiteral("CREATE INDEX resources_kind_popularity ON resources(kind, downloads + likes * 10 DESC,"
                               " created DESC)"),
        },
        {
                // Downloads carry the digest of what was uploaded instead of hashing the file again.
                QStringLiteral("ALTER TABLE resources ADD COLUMN sha256 TEXT NOT NULL DEFAULT ''"),
                QStringLiteral("ALTER TABLE resources ADD COLUMN image_sha256 TEXT NOT NULL DEFAULT ''"),
        },
};

// A null QString binds as SQL NULL, which the NOT NULL text columns refuse.
QVariant text(const QString &value)
{
    return value.isNull() ? QVariant(QStringLiteral("")) : QVariant(value);
}

QString hashToken(const QString &token)
{
    return QString::fromLatin1(QCryptographicHash::hash(token.toUtf8(), QCryptographicHash::Sha256).toHex());
}

QString escapeLike(QString text)
{
    text.replace(QLatin1Char('\\'), QStringLiteral("\\\\"));
    text.replace(QLatin1Char('%'), QStringLiteral("\\%"));
    text.replace(QLatin1Char('_'), QStringLiteral("\\_"));
    return QLatin1Char('%') + text + QLatin1Char('%');
}

QString sqlList(const QStringList &values)
{
    QStringList quoted;
    for (QString value : values)
        quoted.append(QLatin1Char('\'') + value.replace(QLatin1Char('\''), QStringLiteral("''")) + QLatin1Char('\''));
    return quoted.join(QLatin1Char(','));
}

const QString recordColumns = QStringLiteral(
        "r.id, r.kind, r.subtype, r.name, r.description, r.instructions, r.tags, r.version, r.visibility,"
        " r.file_name, r.file_size, r.encrypted, r.metadata, r.image_type, r.created, r.updated, r.downloads,"
        " r.views, r.likes, u.discord_id, u.username, u.global_name");

QJsonObject recordFromRow(const QSqlQuery &query, bool canDownload)
{
    const QString id = query.value(0).toString();
    const QString kind = query.value(1).toString();
    const QString visibility = query.value(8).toString();
    QJsonObject record{
            {QStringLiteral("id"), id},
            {QStringLiteral("type"), query.value(2).toString()},
            {QStringLiteral("name"), query.value(3).toString()},
            {QStringLiteral("description"), query.value(4).toString()},
            {QStringLiteral("instructions"), query.value(5).toString()},
            {QStringLiteral("tags"),
             QJsonArray::fromStringList(query.value(6).toString().split(QLatin1Char(','), Qt::SkipEmptyParts))},
            {QStringLiteral("version"), query.value(7).toDouble()},
            {QStringLiteral("visibility_type"), visibility},
            {QStringLiteral("is_public"), visibility == QLatin1String("public")},
            {QStringLiteral("file_name"), query.value(9).toString()},
            {QStringLiteral("size"), query.value(10).toLongLong()},
            {QStringLiteral("created"), query.value(14).toString()},
            {QStringLiteral("updated"), query.value(15).toString()},
            {QStringLiteral("downloads"), query.value(16).toLongLong()},
            {QStringLiteral("views"), query.value(17).toLongLong()},
            {QStringLiteral("likes"), query.value(18).toLongLong()},
            {QStringLiteral("can_download"), canDownload},
    };
    const QString globalName = query.value(21).toString();
    const QString username = query.value(20).toString();
    record.insert(QStringLiteral("author"),
                  QJsonObject{{QStringLiteral("username"), username},
                              {QStringLiteral("name"), globalName.isEmpty() ? username : globalName},
                              {QStringLiteral("global_name"), globalName},
                              {QStringLiteral("discord_id"), query.value(19).toString()}});
    // Image addresses are relative here; the API puts the origin the client reached in front.
    if (!query.value(13).toString().isEmpty()) {
        const QString header = QStringLiteral("/images/%1/header").arg(id);
        const QString thumbnail = QStringLiteral("/images/%1/thumbnail").arg(id);
        record.insert(QStringLiteral("thumbnail"), thumbnail);
        record.insert(QStringLiteral("images"),
                      QJsonObject{{QStringLiteral("header"), QJsonObject{{QStringLiteral("url"), header}}},
                                  {QStringLiteral("thumbnail"), QJsonObject{{QStringLiteral("url"), thumbnail}}}});
    } else {
        record.insert(QStringLiteral("thumbnail"), QString());
    }
    if (kind == QLatin1String("qenv"))
        record.insert(QStringLiteral("qenv_metadata"),
                      QJsonDocument::fromJson(query.value(12).toString().toUtf8()).object());
    if (kind == QLatin1String("onnx"))
        record.insert(QStringLiteral("is_encrypted"), query.value(11).toBool());
    return record;
}

} // namespace

CatalogueDatabase::CatalogueDatabase(const QString &path)
    : path(path)
    , connectionName(QStringLiteral("catalogue-") + QUuid::createUuid().toString(QUuid::WithoutBraces))
{ }

CatalogueDatabase::~CatalogueDatabase()
{
    statements.clear();
    if (QSqlDatabase::contains(connectionName)) {
        {
            QSqlDatabase db = QSqlDatabase::database(connectionName, false);
            db.close();
        }
        QSqlDatabase::removeDatabase(connectionName);
    }
}

QSqlDatabase CatalogueDatabase::database() const
{
    return QSqlDatabase::database(connectionName, false);
}

int CatalogueDatabase::schemaVersion()
{
    return migrations.size();
}

bool CatalogueDatabase::open(QString *error)
{
    QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), connectionName);
    db.setDatabaseName(path);
    if (!db.open()) {
        *error = db.lastError().text();
        return false;
    }
    QSqlQuery pragma(db);
    pragma.exec(QStringLiteral("PRAGMA journal_mode=WAL"));
    pragma.exec(QStringLiteral("PRAGMA synchronous=NORMAL"));
    return migrate(error);
}

bool CatalogueDatabase::migrate(QString *error)
{
    QSqlDatabase db = database();
    QSqlQuery query(db);
    if (!query.exec(QStringLiteral("PRAGMA user_version")) || !query.next()) {
        *error = query.lastError().text();
        return false;
    }
    const int current = query.value(0).toInt();
    if (current > schemaVersion()) {
        *error = QStringLiteral("The catalogue was written by a newer server (schema %1)").arg(current);
        return false;
    }
    for (int version = current; version < schemaVersion(); ++version) {
        db.transaction();
        for (const QString &statement : migrations.at(version)) {
            if (!query.exec(statement)) {
                *error = query.lastError().text();
                db.rollback();
                return false;
            }
        }
        query.exec(QStringLiteral("PRAGMA user_version = %1").arg(version + 1));
        if (!db.commit()) {
            *error = db.lastError().text();
            return false;
        }
    }
    return true;
}

bool CatalogueDatabase::transaction()
{
    return database().transaction();
}

bool CatalogueDatabase::commit()
{
    return database().commit();
}

void CatalogueDatabase::rollback()
{
    // A rolled-back write may have cleared the caches already, but a list read inside the transaction saw it.
    listOrders.clear();
    ++writes;
    database().rollback();
}

QString CatalogueDatabase::timestamp(const QDateTime &time)
{
    return time.toUTC().toString(QStringLiteral("yyyy-MM-ddTHH:mm:ssZ"));
}

QString CatalogueDatabase::now()
{
    return timestamp(QDateTime::currentDateTimeUtc());
}

namespace {

CatalogueDatabase::User userFromQuery(QSqlQuery &query)
{
    CatalogueDatabase::User user;
    if (!query.next())
        return user;
    user.id = query.value(0).toLongLong();
    user.discordId = query.value(1).toString();
    user.username = query.value(2).toString();
    user.globalName = query.value(3).toString();
    user.banned = query.value(4).toBool();
    return user;
}

const QString userColumns = QStringLiteral("u.id, u.discord_id, u.username, u.global_name, u.banned");

} // namespace

CatalogueDatabase::User CatalogueDatabase::userForToken(const QString &token, qint64 lifetimeSeconds)
{
    QSqlQuery query(database());
    query.prepare(QStringLiteral("SELECT %1 FROM sessions s JOIN users u ON u.id = s.user_id"
                                 " WHERE s.token_hash = ? AND s.created > ?")
                          .arg(userColumns));
    query.addBindValue(hashToken(token));
    query.addBindValue(timestamp(QDateTime::currentDateTimeUtc().addSecs(-lifetimeSeconds)));
    query.exec();
    return userFromQuery(query);
}

bool CatalogueDatabase::endSession(const QString &token)
{
    QSqlQuery query(database());
    query.prepare(QStringLiteral("DELETE FROM sessions WHERE token_hash = ?"));
    query.addBindValue(hashToken(token));
    return query.exec() && query.numRowsAffected() == 1;
}

CatalogueDatabase::User CatalogueDatabase::userByDiscordId(const QString &discordId)
{
    QSqlQuery query(database());
    query.prepare(QStringLiteral("SELECT %1 FROM users u WHERE u.discord_id = ? AND u.signed_in = 1").arg(userColumns));
    query.addBindValue(discordId);
    query.exec();
    return userFromQuery(query);
}

CatalogueDatabase::User CatalogueDatabase::userById(qint64 id)
{
    QSqlQuery query(database());
    query.prepare(QStringLiteral("SELECT %1 FROM users u WHERE u.id = ?").arg(userColumns));
    query.addBindValue(id);
    query.exec();
    return userFromQuery(query);
}

CatalogueDatabase::User CatalogueDatabase::signIn(const QString &discordId, const QString &username,
                                                  const QString &globalName)
{
    QSqlQuery query(database());
    query.prepare(QStringLiteral("INSERT INTO users (discord_id, username, global_name, signed_in, created)"
                                 " VALUES (?, ?, ?, 1, ?) ON CONFLICT (discord_id) DO UPDATE SET"
                                 " username = excluded.username, global_name = excluded.global_name, signed_in = 1"));
    query.addBindValue(discordId);
    query.addBindValue(text(username));
    query.addBindValue(text(globalName));
    query.addBindValue(now());
    if (!query.exec())
        return {};
    return userByDiscordId(discordId);
}

QString CatalogueDatabase::createSession(qint64 userId)
{
    QByteArray random(32, Qt::Uninitialized);
    QRandomGenerator::system()->fillRange(reinterpret_cast<quint32 *>(random.data()), random.size() / 4);
    const QString token = QString::fromLatin1(random.toHex());
    QSqlQuery query(database());
    query.prepare(QStringLiteral("INSERT INTO sessions (token_hash, user_id, created) VALUES (?, ?, ?)"));
    query.addBindValue(hashToken(token));
    query.addBindValue(userId);
    query.addBindValue(now());
    return query.exec() ? token : QString();
}

bool CatalogueDatabase::setBanned(const QString &discordId, bool banned, const QString &reason)
{
    listOrders.clear();
    QSqlQuery query(database());
    query.prepare(QStringLiteral("INSERT INTO users (discord_id, banned, ban_reason, created) VALUES (?, ?, ?, ?)"
                                 " ON CONFLICT (discord_id) DO UPDATE SET banned = excluded.banned,"
                                 " ban_reason = excluded.ban_reason"));
    query.addBindValue(discordId);
    query.addBindValue(banned ? 1 : 0);
    query.addBindValue(text(reason));
    query.addBindValue(now());
    return query.exec();
}

QString CatalogueDatabase::accessCondition(const Caller &caller, bool forDownload) const
{
    // Caller values are our own integers and timestamp, so they are written into the statement directly.
    const QString authorized
            = QStringLiteral("EXISTS (SELECT 1 FROM authorizations a WHERE a.resource_id = r.id AND a.user_id = %1"
                             " AND a.status = 'active' AND (a.expires_at IS NULL OR a.expires_at > '%2'))")
                      .arg(caller.userId)
                      .arg(now());
    const QString restricted
            = forDownload ? QStringLiteral("r.visibility = 'public'") : QStringLiteral("r.visibility <> 'private'");
    if (caller.administrator)
        return QStringLiteral("1");
    if (caller.userId <= 0)
        return restricted;
    return QStringLiteral("(%1 OR r.author_id = %2 OR %3)").arg(restricted).arg(caller.userId).arg(authorized);
}

CatalogueDatabase::Resource CatalogueDatabase::resource(const QString &id)
{
    QSqlQuery query(database());
    query.prepare(QStringLiteral("SELECT r.id, r.kind, r.subtype, r.author_id, u.discord_id, u.banned, r.visibility,"
                                 " r.file_name, r.encrypted, r.image_type, r.sha256,"
                                 " r.image_sha256 FROM resources r"
                                 " JOIN users u ON u.id = r.author_id WHERE r.id = ?"));
    query.addBindValue(id);
    Resource resource;
    if (!query.exec() || !query.next())
        return resource;
    resource.id = query.value(0).toString();
    resource.kind = query.value(1).toString();
    resource.subtype = query.value(2).toString();
    resource.authorId = query.value(3).toLongLong();
    resource.authorDiscordId = query.value(4).toString();
    resource.authorBanned = query.value(5).toBool();
    resource.visibility = query.value(6).toString();
    resource.fileName = query.value(7).toString();
    resource.encrypted = query.value(8).toBool();
    resource.imageType = query.value(9).toString();
    resource.hasImage = !resource.imageType.isEmpty();
    resource.sha256 = QByteArray::fromHex(query.value(10).toString().toLatin1());
    resource.imageSha256 = QByteArray::fromHex(query.value(11).toString().toLatin1());
    return resource;
}

bool CatalogueDatabase::canSee(const Resource &resource, const Caller &caller)
{
    if (!resource.isValid() || resource.authorBanned)
        return false;
    QSqlQuery query(database());
    query.prepare(
            QStringLiteral("SELECT 1 FROM resources r WHERE r.id = ? AND %1").arg(accessCondition(caller, false)));
    query.addBindValue(resource.id);
    return query.exec() && query.next();
}

bool CatalogueDatabase::canDownload(const Resource &resource, const Caller &caller)
{
    QSqlQuery query(database());
    query.prepare(QStringLiteral("SELECT 1 FROM resources r WHERE r.id = ? AND %1").arg(accessCondition(caller, true)));
    query.addBindValue(resource.id);
    return query.exec() && query.next();
}

QJsonObject CatalogueDatabase::record(const QString &id, const Caller &caller)
{
    QSqlQuery query(database());
    query.prepare(QStringLiteral("SELECT %1, %2 FROM resources r JOIN users u ON u.id = r.author_id WHERE r.id = ?")
                          .arg(recordColumns, accessCondition(caller, true)));
    query.addBindValue(id);
    if (!query.exec() || !query.next())
        return {};
    return recordFromRow(query, query.value(22).toBool());
}

CatalogueDatabase::ListPage CatalogueDatabase::list(const ListRequest &request, const Caller &caller)
{
    const QString kind = listedKind(request.kind);
    QString where = QStringLiteral("r.kind = '%1' AND u.banned = 0 AND %2").arg(kind, accessCondition(caller, false));
    if (!request.subtypes.isEmpty())
        where += QStringLiteral(" AND r.subtype IN (%1)").arg(sqlList(request.subtypes));
    if (!request.search.isEmpty())
        where += QStringLiteral(" AND (r.name LIKE :search ESCAPE '\\' OR r.description LIKE :search ESCAPE '\\'"
                                " OR r.tags LIKE :search ESCAPE '\\')");
    QString join = QStringLiteral("JOIN users u ON u.id = r.author_id");
    QString order;
    if (request.sort == QLatin1String("newest")) {
        order = QStringLiteral("r.created DESC, r.rowid DESC");
    } else if (request.sort == QLatin1String("oldest")) {
        order = QStringLiteral("r.created ASC, r.rowid ASC");
    } else if (request.sort == QLatin1String("my_liked")) {
        join += QStringLiteral(" JOIN likes l ON l.resource_id = r.id AND l.user_id = %1").arg(caller.userId);
        order = QStringLiteral("l.created DESC, l.rowid DESC");
    } else {
        // A like weighs like ten downloads: it is a deliberate act, a download may be a look.
        order = QStringLiteral("r.downloads + r.likes * 10 DESC, r.created DESC, r.rowid DESC");
    }

    ListPage page;
    // Anonymous and administrator callers see the same rows whoever they are, so their order outlives the request and
    // a page costs a slice and a few key lookups instead of counting and skipping through the whole kind.
    if (request.search.isEmpty() && request.sort != QLatin1String("my_liked")
        && (caller.administrator || caller.userId <= 0)) {
        const QList<qint64> &rows
                = orderedRows(kind, QStringLiteral("FROM resources r %1 WHERE %2 ORDER BY %3").arg(join, where, order));
        page.total = int(rows.size());
        const qint64 offset = qint64(request.page - 1) * request.limit;
        if (offset >= rows.size())
            return page;
        QStringList ids;
        for (const qint64 row : rows.mid(offset, request.limit))
            ids.append(QString::number(row));
        QSqlQuery &query = statement(QStringLiteral("SELECT %1, %2 FROM json_each(?) j JOIN resources r ON r.rowid ="
                                                    " j.value JOIN users u ON u.id = r.author_id ORDER BY j.key")
                                             .arg(recordColumns, accessCondition(caller, true)));
        query.bindValue(0, QLatin1Char('[') + ids.join(QLatin1Char(',')) + QLatin1Char(']'));
        if (query.exec()) {
            while (query.next())
                page.records.append(recordFromRow(query, query.value(22).toBool()));
        }
        query.finish();
        return page;
    }

    QSqlQuery count(database());
    count.prepare(QStringLiteral("SELECT COUNT(*) FROM resources r %1 WHERE %2").arg(join, where));
    if (!request.search.isEmpty())
        count.bindValue(QStringLiteral(":search"), escapeLike(request.search));
    if (count.exec() && count.next())
        page.total = count.value(0).toInt();

    QSqlQuery query(database());
    query.prepare(QStringLiteral("SELECT %1, %2 FROM resources r %3 WHERE %4 ORDER BY %5 LIMIT %6 OFFSET %7")
                          .arg(recordColumns, accessCondition(caller, true), join, where, order)
                          .arg(request.limit)
                          .arg(qint64(request.page - 1) * request.limit));
    if (!request.search.isEmpty())
        query.bindValue(QStringLiteral(":search"), escapeLike(request.search));
    if (query.exec()) {
        while (query.next())
            page.records.append(recordFromRow(query, query.value(22).toBool()));
    }
    return page;
}

QSqlQuery &CatalogueDatabase::statement(const QString &sql)
{
    auto found = statements.find(sql);
    if (found == statements.end()) {
        QSqlQuery query(database());
        // Forward-only keeps QtSql from caching every row the statement returns.
        query.setForwardOnly(true);
        query.prepare(sql);
        found = statements.insert(sql, query);
    }
    return *found;
}

void CatalogueDatabase::noticeWrites()
{
    QSqlQuery &query = statement(QStringLiteral("SELECT total_changes(), data_version FROM pragma_data_version"));
    if (query.exec() && query.next()) {
        const qint64 changes = query.value(0).toLongLong();
        const qint64 version = query.value(1).toLongLong();
        if (version != dataVersion)
            listOrders.clear();
        if (changes != totalChanges || version != dataVersion)
            ++writes;
        totalChanges = changes;
        dataVersion = version;
    }
    query.finish();
}

void CatalogueDatabase::noteKindWrite(const QString &kind)
{
    QSqlQuery &query = statement(QStringLiteral("SELECT total_changes()"));
    if (query.exec() && query.next()) {
        totalChanges = query.value(0).toLongLong();
        ++kindWrites[kind];
    }
    query.finish();
    listOrders.remove(kind);
}

qint64 CatalogueDatabase::writeCount(const QString &kind)
{
    noticeWrites();
    // Both parts only grow, so their sum moves whenever either does.
    return writes + kindWrites.value(listedKind(kind));
}

QString CatalogueDatabase::listedKind(const QString &kind)
{
    return kind == QLatin1String("qenv") || kind == QLatin1String("onnx") ? kind : QStringLiteral("script");
}

const QList<qint64> &CatalogueDatabase::orderedRows(const QString &kind, const QString &filter)
{
    noticeWrites();
    QHash<QString, QList<qint64>> &orders = listOrders[kind];
    auto found = orders.find(filter);
    if (found != orders.end())
        return *found;
    QList<qint64> rows;
    QSqlQuery &query = statement(QStringLiteral("SELECT r.rowid ") + filter);
    if (query.exec()) {
        while (query.next())
            rows.append(query.value(0).toLongLong());
    }
    query.finish();
    return *orders.insert(filter, rows);
}

QString CatalogueDatabase::findOwnResource(qint64 authorId, const QString &fileName, const QString &kind,
                                           const QStringList &subtypes)
{
    QSqlQuery query(database());
    query.prepare(QStringLiteral("SELECT id FROM resources WHERE author_id = ? AND file_name = ? AND kind = ?"
                                 " AND subtype IN (%1) ORDER BY updated DESC LIMIT 1")
                          .arg(sqlList(subtypes)));
    query.addBindValue(authorId);
    query.addBindValue(fileName);
    query.addBindValue(kind);
    return query.exec() && query.next() ? query.value(0).toString() : QString();
}

bool CatalogueDatabase::writeResource(const ResourceWrite &write, bool isNew)
{
    QSqlQuery query(database());
    const QString stamp = timestamp(write.created.isValid() ? write.created : QDateTime::currentDateTimeUtc());
    const QString metadata = write.metadata.isEmpty()
                                     ? QString()
                                     : QString::fromUtf8(QJsonDocument(write.metadata).toJson(QJsonDocument::Compact));
    if (isNew) {
        query.prepare(QStringLiteral(
                "INSERT INTO resources (id, kind, subtype, name, description, instructions, tags, version,"
                " visibility, author_id, file_name, file_size, encrypted, metadata, image_type, created, updated, "
                "sha256,"
                " image_sha256) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)"));
        for (const QVariant &value :
             {text(write.id), text(write.kind), text(write.subtype), text(write.name), text(write.description),
              text(write.instructions), text(write.tags.join(QLatin1Char(','))), QVariant(write.version),
              text(write.visibility), QVariant(write.authorId), text(write.fileName), QVariant(write.fileSize),
              QVariant(write.encrypted ? 1 : 0), text(metadata), text(write.imageType), text(stamp), text(stamp),
              text(QString::fromLatin1(write.sha256.toHex())), text(QString::fromLatin1(write.imageSha256.toHex()))})
            query.addBindValue(value);
        // A new resource shows in its own kind's lists only; an upload must not cool every other list's cache.
        noticeWrites();
        if (!query.exec())
            return false;
        noteKindWrite(listedKind(write.kind));
        return true;
    }
    listOrders.clear();
    QString sql = QStringLiteral("UPDATE resources SET subtype = ?, name = ?, description = ?, instructions = ?,"
                                 " tags = ?, version = ?, visibility = ?, encrypted = ?, updated = ?");
    if (write.replaceFile)
        sql += QStringLiteral(", file_name = ?, file_size = ?, metadata = ?, sha256 = ?");
    if (write.replaceImage)
        sql += QStringLiteral(", image_type = ?, image_sha256 = ?");
    sql += QStringLiteral(" WHERE id = ?");
    query.prepare(sql);
    for (const QVariant &value :
         {text(write.subtype), text(write.name), text(write.description), text(write.instructions),
          text(write.tags.join(QLatin1Char(','))), QVariant(write.version), text(write.visibility),
          QVariant(write.encrypted ? 1 : 0), text(stamp)})
        query.addBindValue(value);
    if (write.replaceFile) {
        query.addBindValue(text(write.fileName));
        query.addBindValue(write.fileSize);
        query.addBindValue(text(metadata));
        query.addBindValue(text(QString::fromLatin1(write.sha256.toHex())));
    }
    if (write.replaceImage) {
        query.addBindValue(text(write.imageType));
        query.addBindValue(text(QString::fromLatin1(write.imageSha256.toHex())));
    }
    query.addBindValue(write.id);
    return query.exec() && query.numRowsAffected() == 1;
}

bool CatalogueDatabase::deleteResource(const QString &id)
{
    listOrders.clear();
    QSqlQuery query(database());
    for (const QString &table : {QStringLiteral("likes"), QStringLiteral("authorizations")}) {
        query.prepare(QStringLiteral("DELETE FROM %1 WHERE resource_id = ?").arg(table));
        query.addBindValue(id);
        if (!query.exec())
            return false;
    }
    query.prepare(QStringLiteral("DELETE FROM resources WHERE id = ?"));
    query.addBindValue(id);
    return query.exec() && query.numRowsAffected() == 1;
}

void CatalogueDatabase::countView(const QString &id)
{
    QSqlQuery query(database());
    query.prepare(QStringLiteral("UPDATE resources SET views = views + 1 WHERE id = ?"));
    query.addBindValue(id);
    query.exec();
}

QStringList CatalogueDatabase::resourceIds()
{
    QSqlQuery query(database());
    QStringList ids;
    if (query.exec(QStringLiteral("SELECT id FROM resources"))) {
        while (query.next())
            ids.append(query.value(0).toString());
    }
    return ids;
}

int CatalogueDatabase::resourceCount()
{
    QSqlQuery query(database());
    return query.exec(QStringLiteral("SELECT COUNT(*) FROM resources")) && query.next() ? query.value(0).toInt() : -1;
}

void CatalogueDatabase::setCounters(const QString &id, qint64 downloads, qint64 views)
{
    listOrders.clear();
    QSqlQuery query(database());
    query.prepare(QStringLiteral("UPDATE resources SET downloads = ?, views = ? WHERE id = ?"));
    query.addBindValue(downloads);
    query.addBindValue(views);
    query.addBindValue(id);
    query.exec();
}

void CatalogueDatabase::countDownload(const QString &id, const Caller &caller)
{
    listOrders.clear();
    QSqlQuery query(database());
    query.prepare(QStringLiteral("UPDATE resources SET downloads = downloads + 1 WHERE id = ?"));
    query.addBindValue(id);
    query.exec();
    if (caller.userId <= 0)
        return;
    query.prepare(QStringLiteral("UPDATE authorizations SET download_count = download_count + 1"
                                 " WHERE resource_id = ? AND user_id = ? AND status = 'active'"));
    query.addBindValue(id);
    query.addBindValue(caller.userId);
    query.exec();
}

bool CatalogueDatabase::toggleLike(const QString &id, qint64 userId, bool *liked, int *likeCount)
{
    listOrders.clear();
    QSqlDatabase db = database();
    // Joins a transaction already open (the demo seeding) instead of nesting one.
    const bool ownTransaction = db.transaction();
    QSqlQuery query(db);
    query.prepare(QStringLiteral("DELETE FROM likes WHERE user_id = ? AND resource_id = ?"));
    query.addBindValue(userId);
    query.addBindValue(id);
    bool ok = query.exec();
    *liked = query.numRowsAffected() == 0;
    if (ok && *liked) {
        query.prepare(QStringLiteral("INSERT INTO likes (user_id, resource_id, created) VALUES (?, ?, ?)"));
        query.addBindValue(userId);
        query.addBindValue(id);
        query.addBindValue(now());
        ok = query.exec();
    }
    if (ok) {
        query.prepare(QStringLiteral("UPDATE resources SET likes = (SELECT COUNT(*) FROM likes WHERE resource_id = ?)"
                                     " WHERE id = ?"));
        query.addBindValue(id);
        query.addBindValue(id);
        ok = query.exec();
    }
    if (ok) {
        query.prepare(QStringLiteral("SELECT likes FROM resources WHERE id = ?"));
        query.addBindValue(id);
        ok = query.exec() && query.next();
        *likeCount = ok ? query.value(0).toInt() : 0;
    }
    if (!ownTransaction)
        return ok;
    if (!ok || !db.commit()) {
        db.rollback();
        return false;
    }
    return true;
}

QStringList CatalogueDatabase::likedIds(const Caller &caller)
{
    QStringList ids;
    QSqlQuery query(database());
    query.exec(QStringLiteral("SELECT r.id FROM likes l JOIN resources r ON r.id = l.resource_id"
                              " JOIN users u ON u.id = r.author_id WHERE l.user_id = %1 AND u.banned = 0 AND %2"
                              " ORDER BY l.created DESC")
                       .arg(caller.userId)
                       .arg(accessCondition(caller, false)));
    while (query.next())
        ids.append(query.value(0).toString());
    return ids;
}

CatalogueDatabase::GrantOutcome CatalogueDatabase::grant(const QString &resourceId, const QString &discordId,
                                                         const QString &notes, const QString &expiresAt, QString *code)
{
    QSqlQuery query(database());
    query.prepare(QStringLiteral("SELECT 1 FROM authorizations WHERE resource_id = ? AND discord_id = ?"));
    query.addBindValue(resourceId);
    query.addBindValue(discordId);
    if (!query.exec())
        return GrantOutcome::Failed;
    if (query.next())
        return GrantOutcome::AlreadyAuthorized;
    const User user = userByDiscordId(discordId);
    code->clear();
    if (!user.isValid()) {
        const quint64 random = QRandomGenerator::system()->generate64();
        *code = QString::number(random, 36).toUpper().left(10);
    }
    query.prepare(QStringLiteral("INSERT INTO authorizations (resource_id, discord_id, user_id, status, notes,"
                                 " expires_at, code, created) VALUES (?, ?, ?, ?, ?, ?, ?, ?)"));
    query.addBindValue(resourceId);
    query.addBindValue(discordId);
    query.addBindValue(user.isValid() ? QVariant(user.id) : QVariant(QMetaType::fromType<qint64>()));
    query.addBindValue(user.isValid() ? QStringLiteral("active") : QStringLiteral("pending"));
    query.addBindValue(text(notes));
    query.addBindValue(expiresAt.isEmpty() ? QVariant(QMetaType::fromType<QString>()) : QVariant(expiresAt));
    query.addBindValue(text(*code));
    query.addBindValue(now());
    if (!query.exec())
        return GrantOutcome::Failed;
    return user.isValid() ? GrantOutcome::Granted : GrantOutcome::Pending;
}

QJsonObject CatalogueDatabase::authorizations(const QString &resourceId, int offset, int limit, const QString &search)
{
    QString where = QStringLiteral("a.resource_id = :resource");
    if (!search.isEmpty())
        where += QStringLiteral(" AND (a.discord_id LIKE :search ESCAPE '\\' OR u.username LIKE :search ESCAPE '\\'"
                                " OR u.global_name LIKE :search ESCAPE '\\' OR a.notes LIKE :search ESCAPE '\\')");
    const QString from = QStringLiteral("FROM authorizations a LEFT JOIN users u ON u.id = a.user_id WHERE ") + where;
    auto bind = [&](QSqlQuery &query) {
        query.bindValue(QStringLiteral(":resource"), resourceId);
        if (!search.isEmpty())
            query.bindValue(QStringLiteral(":search"), escapeLike(search));
    };
    QSqlQuery count(database());
    count.prepare(QStringLiteral("SELECT COUNT(*) ") + from);
    bind(count);
    const int total = count.exec() && count.next() ? count.value(0).toInt() : 0;

    QSqlQuery query(database());
    query.prepare(QStringLiteral("SELECT a.discord_id, u.username, u.global_name, a.status, a.notes, a.expires_at,"
                                 " a.download_count, a.user_id, a.created ")
                  + from
                  + QStringLiteral(" ORDER BY a.created DESC, a.id DESC LIMIT %1 OFFSET %2").arg(limit).arg(offset));
    bind(query);
    QJsonArray records;
    if (query.exec()) {
        while (query.next()) {
            const QString discordId = query.value(0).toString();
            const QString username = query.value(1).toString();
            records.append(QJsonObject{
                    {QStringLiteral("discord_id"), discordId},
                    // Nobody has signed in under a pending ID yet, so the ID is the only name there is.
                    {QStringLiteral("username"), username.isEmpty() ? discordId : username},
                    {QStringLiteral("global_name"), query.value(2).toString()},
                    {QStringLiteral("status"), query.value(3).toString()},
                    {QStringLiteral("authorization_notes"), query.value(4).toString()},
                    {QStringLiteral("expires_at"), query.value(5).toString()},
                    {QStringLiteral("download_count"), query.value(6).toInt()},
                    {QStringLiteral("user_id"), query.value(7).toLongLong()},
                    {QStringLiteral("created"), query.value(8).toString()},
            });
        }
    }
    return QJsonObject{
            {QStringLiteral("authorizations"), records},
            {QStringLiteral("pagination"), QJsonObject{{QStringLiteral("offset"), offset},
                                                       {QStringLiteral("limit"), limit},
                                                       {QStringLiteral("total"), total},
                                                       {QStringLiteral("has_more"), offset + records.size() < total}}}};
}

bool CatalogueDatabase::revoke(const QString &resourceId, qint64 userId, const QString &discordId)
{
    QSqlQuery query(database());
    if (userId > 0) {
        query.prepare(QStringLiteral("DELETE FROM authorizations WHERE resource_id = ? AND user_id = ?"));
        query.addBindValue(resourceId);
        query.addBindValue(userId);
    } else {
        query.prepare(QStringLiteral("DELETE FROM authorizations WHERE resource_id = ? AND discord_id = ?"));
        query.addBindValue(resourceId);
        query.addBindValue(discordId);
    }
    return query.exec() && query.numRowsAffected() > 0;
}

int CatalogueDatabase::claimPending(const User &user)
{
    QSqlQuery query(database());
    query.prepare(QStringLiteral("UPDATE authorizations SET status = 'active', user_id = ?, code = ''"
                                 " WHERE discord_id = ? AND status = 'pending'"));
    query.addBindValue(user.id);
    query.addBindValue(user.discordId);
    return query.exec() ? query.numRowsAffected() : 0;
}

} // namespace Quorix
