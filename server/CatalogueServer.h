#pragma once

#include "HttpTransport.h"

#include <QHostAddress>
#include <QObject>
#include <QString>
#include <QStringList>

#include <memory>

namespace Quorix {

class CatalogueApi;
class CatalogueDatabase;

// The reference catalogue server: HTTP on a pool of I/O threads, records in SQLite, files under the data directory.
// Sockets, limits and file streaming live on the pool; every request handler and every database call runs on the
// thread that created the server (its Qt event loop), so the database connection and the API state never see two
// threads. A request costs that thread only the handler's own work: bodies arrive staged, files leave from disk.
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
        qint64 sessionLifetimeSeconds = 30 * 24 * 3600;
        HttpTransport::Limits limits;
    };

    explicit CatalogueServer(const Options &options, QObject *parent = nullptr);
    ~CatalogueServer() override;

    // Opens (or creates) the catalogue, seeds it when asked, and starts listening. False with a message on failure.
    bool start(QString *error);
    quint16 port() const { return boundPort; }
    QString origin() const;

private:
    bool prepareDataDirectory(QString *error);
    HttpTransport::Handlers handlers();

    Options options;
    std::unique_ptr<CatalogueDatabase> database;
    std::unique_ptr<CatalogueApi> api;
    std::unique_ptr<HttpTransport> transport;
    quint16 boundPort = 0;
};

} // namespace Quorix
