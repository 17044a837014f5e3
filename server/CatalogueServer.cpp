#include "CatalogueServer.h"

#include "CatalogueApi.h"
#include "CatalogueDatabase.h"
#include "DemoCatalogue.h"
#include "StorageReconciliation.h"

#include <QCoreApplication>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QPointer>
#include <QUuid>

namespace Quorix {

CatalogueServer::CatalogueServer(const Options &options, QObject *parent)
    : QObject(parent)
    , options(options)
{ }

CatalogueServer::~CatalogueServer()
{
    if (transport) {
        transport->stop();
        // Requests queued for the handlers hold their connections, which must go before the transport does.
        QCoreApplication::removePostedEvents(this);
        transport.reset();
    }
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

bool CatalogueServer::prepareDataDirectory(QString *error)
{
    if (options.dataDirectory.isEmpty() || !QDir().mkpath(options.dataDirectory)) {
        *error = QStringLiteral("Cannot use the data directory '%1'").arg(options.dataDirectory);
        return false;
    }
    const QDir directory(QFileInfo(options.dataDirectory).absoluteFilePath());
    // Finding out now beats refusing every upload later.
    const QString probe
            = directory.filePath(QStringLiteral(".write-test-") + QUuid::createUuid().toString(QUuid::Id128));
    QFile file(probe);
    const bool writable
            = directory.mkpath(QStringLiteral("staging")) && file.open(QIODevice::WriteOnly) && file.write("x") == 1;
    file.close();
    QFile::remove(probe);
    if (!writable) {
        *error = QStringLiteral("The data directory '%1' is not writable").arg(directory.absolutePath());
        return false;
    }
    return true;
}

bool CatalogueServer::start(QString *error)
{
    if (!prepareDataDirectory(error))
        return false;
    const QString directory = QDir(options.dataDirectory).absolutePath();
    database = std::make_unique<CatalogueDatabase>(directory + QStringLiteral("/catalogue.sqlite"));
    if (!database->open(error))
        return false;
    for (const QString &action : StorageReconciliation(database.get(), directory).run())
        qInfo().noquote() << QStringLiteral("catalogue-server: start-up check: ") + action;
    if (options.seedDemo && !DemoCatalogue(database.get(), directory).seedIfEmpty(error))
        return false;

    CatalogueApi::Settings settings;
    settings.dataDirectory = directory;
    settings.devLogin = options.devLogin;
    settings.sessionLifetimeSeconds = options.sessionLifetimeSeconds;
    for (const QString &id : std::as_const(options.administratorIds))
        settings.administratorIds.insert(id.trimmed());
    api = std::make_unique<CatalogueApi>(database.get(), settings);

    transport = std::make_unique<HttpTransport>(options.limits, handlers(), directory + QStringLiteral("/staging"));
    if (!transport->listen(options.bindAddress, options.port, error))
        return false;
    boundPort = transport->port();
    transport->setFallbackOrigin(origin());
    return true;
}

HttpTransport::Handlers CatalogueServer::handlers()
{
    HttpTransport::Handlers handlers;
    handlers.policy = [](const ApiRequest &head) {
        return CatalogueApi::bodyPolicy(head);
    };
    // Posted to this object's thread: the database and the API are only ever touched there.
    handlers.admit = [this](ApiRequest head, HttpTransport::AdmissionCompletion done) {
        QMetaObject::invokeMethod(
                this, [this, head = std::move(head), done = std::move(done)] { done(api->admit(head)); },
                Qt::QueuedConnection);
    };
    handlers.handle = [this](ApiRequest request, HttpTransport::Completion done) {
        QMetaObject::invokeMethod(
                this, [this, request = std::move(request), done = std::move(done)] { done(api->handle(request)); },
                Qt::QueuedConnection);
    };
    return handlers;
}

} // namespace Quorix
