#pragma once

#include "ApiRequest.h"
#include "ApiResponse.h"
#include "CatalogueDatabase.h"
#include "FileDigests.h"
#include "ImageLinkSigner.h"

#include <QByteArray>
#include <QCache>
#include <QJsonObject>
#include <QSet>
#include <QString>

#include <optional>

namespace Quorix {

// The catalogue's HTTP interface: validates each request, decides who may do what, and answers in the shapes the
// Online Resources client reads. It knows nothing of sockets; CatalogueServer feeds it.
class CatalogueApi
{
public:
    struct Settings
    {
        QString dataDirectory;
        bool devLogin = false;
        QSet<QString> administratorIds;
        qint64 sessionLifetimeSeconds = 30 * 24 * 3600;
    };

    static constexpr qint64 scriptLimit = 10 * 1024 * 1024;
    static constexpr qint64 weightsLimit = 500 * 1024 * 1024;
    static constexpr qint64 imageLimit = 4 * 1024 * 1024;
    // Multipart framing and the text fields around the files.
    static constexpr qint64 formOverhead = 1024 * 1024;
    static constexpr qint64 jsonBodyLimit = 1024 * 1024;

    CatalogueApi(CatalogueDatabase *database, const Settings &settings);

    // How much body a request may bring, decided from its head before any of the body is read.
    static BodyPolicy bodyPolicy(const ApiRequest &head);
    // Whether the sender of an upload may write at all, asked before its body is read; a refusal, or nothing.
    std::optional<ApiResponse> admit(const ApiRequest &head);
    ApiResponse handle(const ApiRequest &request);

private:
    struct Context
    {
        const ApiRequest &request;
        CatalogueDatabase::User user;
        CatalogueDatabase::Caller caller;
    };

    ApiResponse route(Context &context);
    static ApiResponse forClient(const ApiRequest &request, ApiResponse response);
    ApiResponse routeKind(Context &context, const QString &kind, const QStringList &rest);
    CatalogueDatabase::User identify(const ApiRequest &request);
    static QString sessionToken(const ApiRequest &request);
    // 401 for no one, 403 for a banned user, 200 (nothing to say) for anyone who may write.
    static ApiResponse refuseBanned(const Context &context);

    ApiResponse devLogin(Context &context);
    ApiResponse signOut(Context &context);
    ApiResponse list(Context &context, const QString &kind);
    ApiResponse details(Context &context, const QString &kind, const QString &id);
    ApiResponse download(Context &context, const QString &kind, const QString &id);
    ApiResponse upload(Context &context, const QString &kind);
    ApiResponse removeResource(Context &context, const QString &kind, const QString &id);
    ApiResponse toggleLike(Context &context, const QString &kind, const QString &id);
    ApiResponse liked(Context &context);
    ApiResponse checkExisting(Context &context);
    ApiResponse listAuthorizations(Context &context, const QString &id);
    ApiResponse authorize(Context &context, const QString &id);
    ApiResponse bulkAuthorize(Context &context, const QString &id);
    ApiResponse revoke(Context &context, const QString &id);
    ApiResponse claim(Context &context);
    ApiResponse ban(Context &context, const QString &discordId, bool banned);
    ApiResponse updateVisibility(Context &context, const QString &id);
    ApiResponse image(Context &context, const QString &id, const QString &which);

    // Finds a resource the caller may see, of the kind the path names (any kind for the plain script paths).
    ApiResponse findVisible(Context &context, const QString &kind, const QString &id,
                            CatalogueDatabase::Resource *resource);
    // Finds a resource whose access list the caller manages.
    ApiResponse findManaged(Context &context, const QString &id, CatalogueDatabase::Resource *resource, bool toWrite);
    QString signedImagePath(const QString &path) const;
    QJsonObject withOrigin(QJsonObject record, const QString &origin) const;
    bool isAdministrator(const CatalogueDatabase::User &user) const;

    CatalogueDatabase *database;
    Settings settings;
    FileDigests digests;
    ImageLinkSigner imageLinks;
    // A list answer that every anonymous caller (or every administrator) gets alike, and the write count of its kind
    // it was built at.
    struct SharedListPage
    {
        QByteArray body;
        qint64 writes = 0;
    };
    QCache<QString, SharedListPage> sharedListPages{16 * 1024 * 1024};
};

} // namespace Quorix
