#pragma once

#include <QDateTime>
#include <QHash>
#include <QJsonArray>
#include <QJsonObject>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QString>
#include <QStringList>

namespace Quorix {

// The catalogue's SQLite store: users and their sessions, resources, likes and per-resource access lists.
class CatalogueDatabase
{
public:
    struct User
    {
        qint64 id = 0;
        QString discordId;
        QString username;
        QString globalName;
        bool banned = false;
        bool isValid() const { return id > 0; }
    };

    // Who is asking, for the visibility and download rules.
    struct Caller
    {
        qint64 userId = 0;
        bool administrator = false;
    };

    struct Resource
    {
        QString id;
        QString kind;
        QString subtype;
        qint64 authorId = 0;
        QString authorDiscordId;
        bool authorBanned = false;
        QString visibility;
        QString fileName;
        bool encrypted = false;
        bool hasImage = false;
        QString imageType;
        // Raw SHA-256 of the stored file as uploaded; empty for files stored before digests were kept.
        QByteArray sha256;
        QByteArray imageSha256;
        bool isValid() const { return !id.isEmpty(); }
    };

    struct ListRequest
    {
        QString kind;
        QStringList subtypes;
        QString search;
        QString sort;
        int page = 1;
        int limit = 24;
    };

    struct ListPage
    {
        QJsonArray records;
        int total = 0;
    };

    // Fields of a new or updated resource as the upload gives them.
    struct ResourceWrite
    {
        QString id;
        QString kind;
        QString subtype;
        QString name;
        QString description;
        QString instructions;
        QStringList tags;
        double version = 1.0;
        QString visibility;
        qint64 authorId = 0;
        QString fileName;
        qint64 fileSize = -1;
        bool encrypted = false;
        QJsonObject metadata;
        QString imageType;
        QDateTime created;
        QByteArray sha256;
        QByteArray imageSha256;
        bool replaceFile = false;
        bool replaceImage = false;
    };

    enum class GrantOutcome { Granted, Pending, AlreadyAuthorized, Failed };

    explicit CatalogueDatabase(const QString &path);
    ~CatalogueDatabase();

    CatalogueDatabase(const CatalogueDatabase &) = delete;
    CatalogueDatabase &operator=(const CatalogueDatabase &) = delete;

    // Opens the file and brings its schema to the current version.
    bool open(QString *error);
    static int schemaVersion();

    bool transaction();
    bool commit();
    void rollback();

    // The user of a session started less than lifetimeSeconds ago.
    User userForToken(const QString &token, qint64 lifetimeSeconds);
    bool endSession(const QString &token);
    User userByDiscordId(const QString &discordId);
    User userById(qint64 id);
    // Creates or renames the user and marks them as signed in.
    User signIn(const QString &discordId, const QString &username, const QString &globalName);
    QString createSession(qint64 userId);
    bool setBanned(const QString &discordId, bool banned, const QString &reason);

    Resource resource(const QString &id);
    QJsonObject record(const QString &id, const Caller &caller);
    ListPage list(const ListRequest &request, const Caller &caller);
    bool canSee(const Resource &resource, const Caller &caller);
    bool canDownload(const Resource &resource, const Caller &caller);
    // The caller's most recent resource with this file name among the given kind and subtypes.
    QString findOwnResource(qint64 authorId, const QString &fileName, const QString &kind, const QStringList &subtypes);
    bool writeResource(const ResourceWrite &write, bool isNew);
    bool deleteResource(const QString &id);
    void countView(const QString &id);
    int resourceCount();
    QStringList resourceIds();
    void setCounters(const QString &id, qint64 downloads, qint64 views);
    void countDownload(const QString &id, const Caller &caller);
    // Toggles the caller's like; returns the new state and count through the pointers.
    bool toggleLike(const QString &id, qint64 userId, bool *liked, int *likeCount);
    QStringList likedIds(const Caller &caller);
    // A number that moves after any write that can change what the lists of a kind show, so that answers built from
    // them can be kept until then.
    qint64 writeCount(const QString &kind);
    // The kind a list of the given kind shows: script, unless qenv or onnx.
    static QString listedKind(const QString &kind);

    GrantOutcome grant(const QString &resourceId, const QString &discordId, const QString &notes,
                       const QString &expiresAt, QString *code);
    QJsonObject authorizations(const QString &resourceId, int offset, int limit, const QString &search);
    bool revoke(const QString &resourceId, qint64 userId, const QString &discordId);
    int claimPending(const User &user);

    static QString timestamp(const QDateTime &time);
    static QString now();

private:
    QSqlDatabase database() const;
    bool migrate(QString *error);
    QString accessCondition(const Caller &caller, bool forDownload) const;
    // Prepared once per connection and kept, for the statements every list request runs.
    QSqlQuery &statement(const QString &sql);
    // The row ids a filter selects, in its order, from the cache or the database.
    const QList<qint64> &orderedRows(const QString &kind, const QString &filter);
    // Counts a write on this connection or a commit through another (a tool, a second server), and drops the cached
    // orders after the latter.
    void noticeWrites();
    // Accounts for the changes of a write that only adds a resource of one kind, so that the other kinds' lists keep
    // their caches. noticeWrites() must have run just before the write, or earlier changes would be accounted too.
    void noteKindWrite(const QString &kind);

    QString path;
    QString connectionName;
    QHash<QString, QSqlQuery> statements;
    // Which rows a caller-independent filter lists and in what order, by kind and then by the filter's SQL. Every
    // write that can change membership or order (resources, likes, bans, download counts) clears it, or the kind's
    // part when the write is confined to one kind; views and names do not count.
    QHash<QString, QHash<QString, QList<qint64>>> listOrders;
    qint64 dataVersion = -1;
    qint64 totalChanges = -1;
    // Writes that may concern every kind, and writes confined to one kind.
    qint64 writes = 0;
    QHash<QString, qint64> kindWrites;
};

} // namespace Quorix
