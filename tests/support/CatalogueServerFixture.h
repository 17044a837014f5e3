#pragma once

#include <CatalogueServer.h>

#include <QHash>
#include <QJsonArray>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QProcess>
#include <QTemporaryDir>

#include <memory>

namespace Quorix::Testing {

// The reference catalogue server on a free 127.0.0.1 port, with a temporary data directory and dev login, plus a
// blocking HTTP client for talking to it from tests. start() runs it in-process; startProcess() runs the real
// catalogue-server program, which tests can kill and start again on the same data.
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
        // The JSON value at a slash-separated path such as "data/pagination/total"; a number picks an array element.
        QJsonValue at(const QString &path) const;
        // That value as text: "5" for a count, "true" for a flag, "" when absent.
        QString text(const QString &path) const { return at(path).toVariant().toString(); }
        // Several such values, separated by spaces.
        QString texts(const QStringList &paths) const;
        // The key of every record in the array at the path, e.g. the names of a listing.
        QStringList column(const QString &arrayPath, const QString &key) const;
    };

    struct UploadFile
    {
        QString part;
        QString fileName;
        QByteArray content;
    };

    explicit CatalogueServerFixture(bool seedDemo = false, const QStringList &administratorIds = {});
    ~CatalogueServerFixture();

    // Shortens sign-ins for an in-process server; call before start().
    void setSessionLifetime(qint64 seconds) { options.sessionLifetimeSeconds = seconds; }
    // False with the server's message in error() when it could not start.
    bool start();
    // Starts the built catalogue-server program with these extra arguments and environment additions.
    bool startProcess(const QStringList &arguments = {}, const QList<QPair<QString, QString>> &environment = {});
    // Waits (at most 30 s) for the program to end, as it does when a crash point aborts it; false if it did not.
    bool waitForProcessEnd();
    // Everything the program last started printed so far.
    QByteArray processOutput();
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

    // A PNG picture of this size, and the Repr-Digest header value the server sends for these bytes.
    static QByteArray png(int width, int height);
    static QByteArray reprDigest(const QByteArray &bytes);

    // Writes raw bytes on a fresh connection and returns what comes back until the server closes it, a whole response
    // has arrived, or waitMilliseconds pass.
    QByteArray exchange(const QByteArray &raw, int waitMilliseconds = 10000);

    // Sends any prepared request through the fixture's client and waits (at most 60 s) for the reply.
    Reply send(const QByteArray &method, const QString &url, const QByteArray &body,
               const QList<QPair<QByteArray, QByteArray>> &headers, const QString &token);

private:
    QTemporaryDir directory;
    CatalogueServer::Options options;
    std::unique_ptr<CatalogueServer> server;
    std::unique_ptr<QProcess> process;
    QByteArray output;
    quint16 processPort = 0;
    QNetworkAccessManager network;
    QString startError;
};

} // namespace Quorix::Testing
