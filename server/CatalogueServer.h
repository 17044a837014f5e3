#pragma once

#include <QHostAddress>
#include <QObject>
#include <QString>
#include <QStringList>

#include <memory>

class QHttpServer;
class QHttpServerRequest;
class QHttpServerResponder;

namespace Quorix {

class CatalogueApi;
class CatalogueDatabase;

// The reference catalogue server: HTTP on QHttpServer, records in SQLite, files under the data directory.
// Runs on the thread that creates it, either as the catalogue-server program or inside another process.
class CatalogueServer : public QObject
{
    Q_OBJECT

public:
    struct Options
    {
        QString dataDirectory;
        QHostAddress bindAddress = QHostAddress::LocalHost;
        // 0 picks a free port; port() tells which.
        quint16 port = 8787;
        bool seedDemo = false;
        bool devLogin = false;
        QStringList administratorIds;
    };

    explicit CatalogueServer(const Options &options, QObject *parent = nullptr);
    ~CatalogueServer() override;

    // Opens (or creates) the catalogue, seeds it when asked, and starts listening. False with a message on failure.
    bool start(QString *error);
    quint16 port() const { return boundPort; }
    QString origin() const;

private:
    void onRequest(const QHttpServerRequest &request, QHttpServerResponder &&responder);
    bool listen(QString *error);

    Options options;
    std::unique_ptr<CatalogueDatabase> database;
    std::unique_ptr<CatalogueApi> api;
    QHttpServer *httpServer = nullptr;
    quint16 boundPort = 0;
};

} // namespace Quorix
