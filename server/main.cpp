#include "CatalogueServer.h"

#include <QCommandLineParser>
#include <QGuiApplication>
#include <QTextStream>

#include <algorithm>
#include <sys/resource.h>

using namespace Quorix;

namespace {

// Each connection is a descriptor; the common soft limit of 1024 would refuse clients long before the cap does.
void raiseDescriptorLimit(int connections)
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return;
    const rlim_t wanted = rlim_t(connections) + 256;
    if (limit.rlim_cur >= wanted)
        return;
    limit.rlim_cur = limit.rlim_max == RLIM_INFINITY ? wanted : std::min(wanted, limit.rlim_max);
    setrlimit(RLIMIT_NOFILE, &limit);
}

} // namespace

int main(int argc, char *argv[])
{
    // The demo pictures are drawn with fonts, which need a GUI application but never a display.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(argc, argv);
    QGuiApplication::setApplicationName(QStringLiteral("catalogue-server"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Reference catalogue server for Quorix Online Resources"));
    parser.addHelpOption();
    const QCommandLineOption dataDirOption(
            QStringLiteral("data-dir"), QStringLiteral("Folder for the database, the files and the images (required)."),
            QStringLiteral("dir"));
    const QCommandLineOption portOption(QStringLiteral("port"), QStringLiteral("TCP port to listen on (default 8787)."),
                                        QStringLiteral("n"), QStringLiteral("8787"));
    const QCommandLineOption bindOption(QStringLiteral("bind"),
                                        QStringLiteral("Address to listen on (default 127.0.0.1)."),
                                        QStringLiteral("addr"), QStringLiteral("127.0.0.1"));
    const QCommandLineOption seedOption(QStringLiteral("seed-demo"),
                                        QStringLiteral("Fill an empty catalogue with demo resources."));
    const QCommandLineOption devLoginOption(
            QStringLiteral("dev-login"),
            QStringLiteral("Offer POST /api/auth/dev-login, which signs anyone in without Discord. Development only."));
    const QCommandLineOption adminOption(QStringLiteral("admin-ids"),
                                         QStringLiteral("Comma-separated Discord IDs with administrator rights."),
                                         QStringLiteral("ids"));
    const HttpTransport::Limits defaults;
    const QCommandLineOption headerTimeoutOption(
            QStringLiteral("header-timeout"),
            QStringLiteral("Seconds a client has to send a request's headers (default %1).")
                    .arg(defaults.headerTimeout.count() / 1000),
            QStringLiteral("s"), QString::number(defaults.headerTimeout.count() / 1000));
    const QCommandLineOption bodyTimeoutOption(
            QStringLiteral("body-timeout"),
            QStringLiteral("Seconds a request or answer body may stall before the connection is dropped (default %1).")
                    .arg(defaults.bodyIdleTimeout.count() / 1000),
            QStringLiteral("s"), QString::number(defaults.bodyIdleTimeout.count() / 1000));
    const QCommandLineOption keepAliveOption(
            QStringLiteral("keep-alive-timeout"),
            QStringLiteral("Seconds an idle connection is kept open between requests (default %1).")
                    .arg(defaults.keepAliveTimeout.count() / 1000),
            QStringLiteral("s"), QString::number(defaults.keepAliveTimeout.count() / 1000));
    const QCommandLineOption connectionsOption(
            QStringLiteral("max-connections"),
            QStringLiteral("Open connections beyond which new ones get 503 (default %1).")
                    .arg(defaults.maximumConnections),
            QStringLiteral("n"), QString::number(defaults.maximumConnections));
    const QCommandLineOption threadsOption(
            QStringLiteral("io-threads"),
            QStringLiteral("Threads for network and file I/O (default %1).").arg(defaults.threads), QStringLiteral("n"),
            QString::number(defaults.threads));
    const QCommandLineOption sessionOption(
            QStringLiteral("session-days"),
            QStringLiteral("Days a sign-in stays valid (default 30; fractions allowed)."), QStringLiteral("days"),
            QStringLiteral("30"));
    parser.addOptions({dataDirOption, portOption, bindOption, seedOption, devLoginOption, adminOption, sessionOption,
                       headerTimeoutOption, bodyTimeoutOption, keepAliveOption, connectionsOption, threadsOption});
    parser.process(app);

    QTextStream err(stderr);
    CatalogueServer::Options options;
    options.dataDirectory = parser.value(dataDirOption);
    if (options.dataDirectory.isEmpty()) {
        err << "catalogue-server: --data-dir is required\n";
        return 2;
    }
    bool portOk = false;
    const uint port = parser.value(portOption).toUInt(&portOk);
    if (!portOk || port > 65535) {
        err << "catalogue-server: --port needs a number from 0 to 65535\n";
        return 2;
    }
    options.port = quint16(port);
    if (!options.bindAddress.setAddress(parser.value(bindOption))) {
        err << "catalogue-server: --bind needs an IP address\n";
        return 2;
    }
    options.seedDemo = parser.isSet(seedOption);
    options.devLogin = parser.isSet(devLoginOption);
    options.administratorIds = parser.value(adminOption).split(QLatin1Char(','), Qt::SkipEmptyParts);
    const auto positive = [&parser](const QCommandLineOption &option, int *value) {
        bool ok = false;
        *value = parser.value(option).toInt(&ok);
        return ok && *value > 0;
    };
    int headerSeconds = 0;
    int bodySeconds = 0;
    int keepAliveSeconds = 0;
    if (!positive(headerTimeoutOption, &headerSeconds) || !positive(bodyTimeoutOption, &bodySeconds)
        || !positive(keepAliveOption, &keepAliveSeconds)
        || !positive(connectionsOption, &options.limits.maximumConnections)
        || !positive(threadsOption, &options.limits.threads)) {
        err << "catalogue-server: timeouts, --max-connections and --io-threads need whole numbers above 0\n";
        return 2;
    }
    bool daysOk = false;
    const double sessionDays = parser.value(sessionOption).toDouble(&daysOk);
    if (!daysOk || !(sessionDays > 0) || sessionDays > 3650) {
        err << "catalogue-server: --session-days needs a number above 0 and at most 3650\n";
        return 2;
    }
    options.sessionLifetimeSeconds = qMax<qint64>(1, qint64(sessionDays * 24 * 3600));
    options.limits.headerTimeout = std::chrono::seconds(headerSeconds);
    options.limits.bodyIdleTimeout = std::chrono::seconds(bodySeconds);
    options.limits.keepAliveTimeout = std::chrono::seconds(keepAliveSeconds);
    raiseDescriptorLimit(options.limits.maximumConnections);

    CatalogueServer server(options);
    QString error;
    if (!server.start(&error)) {
        err << "catalogue-server: " << error << '\n';
        return 1;
    }
    QTextStream(stdout) << "catalogue-server: listening on " << server.origin() << Qt::endl;
    return app.exec();
}
