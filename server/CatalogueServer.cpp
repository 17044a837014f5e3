#include "CatalogueServer.h"

#include "ApiRequest.h"
#include "ApiResponse.h"
#include "CatalogueApi.h"
#include "CatalogueDatabase.h"
#include "DemoCatalogue.h"

#include <QDir>
#include <QFile>
#include <QHttpServer>
#include <QHttpServerRequest>
#include <QHttpServerResponder>
#include <QRegularExpression>
#include <QTcpServer>

namespace Quorix {

namespace {

QByteArray methodName(QHttpServerRequest::Method method)
{
    switch (method) {
    case QHttpServerRequest::Method::Get:
        return "GET";
    case QHttpServerRequest::Method::Post:
        return "POST";
    case QHttpServerRequest::Method::Delete:
        return "DELETE";
    case QHttpServerRequest::Method::Head:
        return "HEAD";
    case QHttpServerRequest::Method::Put:
        return "PUT";
    case QHttpServerRequest::Method::Options:
        return "OPTIONS";
    case QHttpServerRequest::Method::Patch:
        return "PATCH";
    default:
        return "OTHER";
    }
}

} // namespace

CatalogueServer::CatalogueServer(const Options &options, QObject *parent)
    : QObject(parent)
    , options(options)
{ }

CatalogueServer::~CatalogueServer()
{
    delete httpServer;
    api.reset();
    database.reset();
}

QString CatalogueServer::origin() const
{
    const QString host = options.bindAddress.protocol() == QAbstractSocket::IPv6Protocol
                                 ? QLatin1Char('[') + options.bindAddress.toString() + QLatin1Char(']')
                                 : options.bindAddress.toString();
    return QStringLiteral("http://%1:%2").arg(host).arg(boundPort);
}

bool CatalogueServer::start(QString *error)
{
    if (options.dataDirectory.isEmpty() || !QDir().mkpath(options.dataDirectory)) {
        *error = QStringLiteral("Cannot use the data directory '%1'").arg(options.dataDirectory);
        return false;
    }
    const QString directory = QDir(options.dataDirectory).absolutePath();
    database = std::make_unique<CatalogueDatabase>(directory + QStringLiteral("/catalogue.sqlite"));
    if (!database->open(error))
        return false;
    if (options.seedDemo && !DemoCatalogue(database.get(), directory).seedIfEmpty(error))
        return false;

    CatalogueApi::Settings settings;
    settings.dataDirectory = directory;
    settings.devLogin = options.devLogin;
    for (const QString &id : std::as_const(options.administratorIds))
        settings.administratorIds.insert(id.trimmed());
    api = std::make_unique<CatalogueApi>(database.get(), settings);

    httpServer = new QHttpServer;
    httpServer->setMissingHandler([this](const QHttpServerRequest &request, QHttpServerResponder &&responder) {
        onRequest(request, std::move(responder));
    });
    return listen(error);
}

bool CatalogueServer::listen(QString *error)
{
    auto *tcpServer = new QTcpServer(httpServer);
    if (!tcpServer->listen(options.bindAddress, options.port)) {
        *error = QStringLiteral("Cannot listen on %1:%2: %3")
                         .arg(options.bindAddress.toString())
                         .arg(options.port)
                         .arg(tcpServer->errorString());
        return false;
    }
    // Qt 6.8 made bind() report failure and deprecated listen(); 6.4 binds unconditionally.
#if QT_VERSION >= QT_VERSION_CHECK(6, 8, 0)
    if (!httpServer->bind(tcpServer)) {
        *error = QStringLiteral("Cannot attach the HTTP server to its socket");
        return false;
    }
#else
    httpServer->bind(tcpServer);
#endif
    boundPort = tcpServer->serverPort();
    return true;
}

void CatalogueServer::onRequest(const QHttpServerRequest &request, QHttpServerResponder &&responder)
{
    ApiRequest apiRequest;
    apiRequest.method = methodName(request.method());
    apiRequest.segments = request.url().path().split(QLatin1Char('/'), Qt::SkipEmptyParts);
    apiRequest.query = request.query();
    const auto headers = request.headers();
    for (const auto &header : headers)
        apiRequest.headers.insert(header.first.toLower(), header.second);
    apiRequest.body = request.body();
    static const QRegularExpression hostPattern(
            QStringLiteral("^[A-Za-z0-9.\\-]+(:\\d{1,5})?$|^\\[[0-9a-fA-F:.]+\\](:\\d{1,5})?$"));
    const QString host = QString::fromLatin1(apiRequest.header("host"));
    apiRequest.origin = hostPattern.match(host).hasMatch() ? QStringLiteral("http://") + host : origin();

    const ApiResponse response = api->handle(apiRequest);
    const auto status = static_cast<QHttpServerResponder::StatusCode>(response.status);
    if (response.filePath.isEmpty()) {
        responder.write(response.body, {{"Content-Type", response.contentType}}, status);
        return;
    }
    auto *file = new QFile(response.filePath);
    if (!file->open(QIODevice::ReadOnly)) {
        delete file;
        const ApiResponse missing = ApiResponse::error(404, QStringLiteral("File not found"));
        responder.write(missing.body, {{"Content-Type", missing.contentType}},
                        QHttpServerResponder::StatusCode::NotFound);
        return;
    }
    // The responder takes its headers as a fixed list, so every combination of the optional two is spelt out.
    const QByteArray type = response.contentType;
    const QByteArray disposition = response.contentDisposition();
    const QByteArray digest = response.reprDigest;
    if (disposition.isEmpty() && digest.isEmpty())
        responder.write(file, {{"Content-Type", type}}, status);
    else if (digest.isEmpty())
        responder.write(file, {{"Content-Type", type}, {"Content-Disposition", disposition}}, status);
    else if (disposition.isEmpty())
        responder.write(file, {{"Content-Type", type}, {"Repr-Digest", digest}}, status);
    else
        responder.write(file, {{"Content-Type", type}, {"Content-Disposition", disposition}, {"Repr-Digest", digest}},
                        status);
}

} // namespace Quorix
