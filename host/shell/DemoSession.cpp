#include "DemoSession.h"

#include <CatalogueServer.h>
#include <DemoCatalogue.h>

#include <QEventLoop>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkProxy>
#include <QNetworkReply>
#include <QTimer>

namespace Quorix {

DemoSession::DemoSession() = default;

DemoSession::~DemoSession() = default;

bool DemoSession::start(QString *error)
{
    if (!dataDirectory.isValid()) {
        *error = QStringLiteral("Cannot create a temporary data directory");
        return false;
    }
    CatalogueServer::Options options;
    options.dataDirectory = dataDirectory.path();
    options.bindAddress = QHostAddress::LocalHost;
    options.port = 0;
    options.seedDemo = true;
    options.devLogin = true;
    server = std::make_unique<CatalogueServer>(options);
    if (!server->start(error))
        return false;

    user.discordId = QString::fromLatin1(DemoCatalogue::demoUserDiscordId);
    user.username = QString::fromLatin1(DemoCatalogue::demoUsername);
    user.globalName = QString::fromLatin1(DemoCatalogue::demoGlobalName);
    const QJsonObject body{{QStringLiteral("discord_id"), user.discordId},
                           {QStringLiteral("username"), user.username},
                           {QStringLiteral("global_name"), user.globalName}};
    QNetworkAccessManager network;
    network.setProxy(QNetworkProxy::NoProxy);
    QNetworkRequest request(QUrl(server->origin() + QStringLiteral("/api/auth/dev-login")));
    request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
    request.setTransferTimeout(10000);
    QNetworkReply *reply = network.post(request, QJsonDocument(body).toJson());
    // The server answers from this thread's event loop, so wait in one rather than blocking.
    QEventLoop loop;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    loop.exec();
    user.sessionToken = QJsonDocument::fromJson(reply->readAll()).object().value(QStringLiteral("token")).toString();
    reply->deleteLater();
    if (user.sessionToken.isEmpty()) {
        *error = QStringLiteral("The demo server refused the demo sign-in");
        return false;
    }
    qputenv("QUORIX_SERVER_URL", server->origin().toUtf8());
    return true;
}

} // namespace Quorix
