#pragma once

#include <CatalogueServer.h>

#include <QByteArray>
#include <QHash>
#include <QJsonObject>
#include <QList>
#include <QNetworkAccessManager>
#include <QPair>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <memory>

namespace Quorix::Testing {

// The reference catalogue server started in-process on a free 127.0.0.1 port, with a temporary data directory and
// dev login, plus a blocking HTTP client for talking to it from tests.
class CatalogueServerFixture
{
public:
    struct Reply
    {
        int status = 0;
        QByteArray body;
        QJsonObject json;
        QHash<QByteArray, QByteArray> headers;
        QByteArray header(const QByteArray &name) const { return headers.value(name.toLower()); }
    };

    struct UploadFile
    {
        QString part;
        QString fileName;
        QByteArray content;
    };

    explicit CatalogueServerFixture(bool seedDemo = false, const QStringList &administratorIds = {});
    ~CatalogueServerFixture();

    // False with the server's message in error() when it could not start.
    bool start();
    QString error() const { return startError; }
    quint16 port() const;
    QString origin() const;
    QString dataDirectory() const { return directory.path(); }
    // origin + "/api/scripts/" + path
    QString apiUrl(const QString &path) const;

    // Signs a user in through dev login and returns the session token (empty on failure).
    QString signIn(const QString &discordId, const QString &username, const QString &globalName = QString());

    Reply get(const QString &path, const QString &token = QString());
    Reply post(const QString &path, const QByteArray &body, const QString &token = QString(),
               const QList<QPair<QByteArray, QByteArray>> &headers = {});
    Reply postJson(const QString &path, const QJsonObject &body, const QString &token = QString());
    // POST with _method=DELETE in query and body and the override header, as the plugin deletes.
    Reply remove(const QString &path, const QString &token);
    // A multipart form: text fields in order, then the files.
    Reply upload(const QString &path, const QString &token, const QList<QPair<QString, QString>> &fields,
                 const QList<UploadFile> &files);
    // Uploads a script with valid metadata; the new ID is in json["data"]["id"].
    Reply uploadScript(const QString &token, const QString &fileName, const QByteArray &content,
                       const QString &visibility = QStringLiteral("public"), const QString &existingId = QString());

    // Sends any prepared request through the fixture's client and waits (at most 60 s) for the reply.
    Reply send(const QByteArray &method, const QString &url, const QByteArray &body,
               const QList<QPair<QByteArray, QByteArray>> &headers, const QString &token);

private:
    QTemporaryDir directory;
    CatalogueServer::Options options;
    std::unique_ptr<CatalogueServer> server;
    QNetworkAccessManager network;
    QString startError;
};

} // namespace Quorix::Testing
