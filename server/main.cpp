#include "CatalogueServer.h"

#include <QCommandLineParser>
#include <QGuiApplication>
#include <QTextStream>

using namespace Quorix;

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
    parser.addOptions({dataDirOption, portOption, bindOption, seedOption, devLoginOption, adminOption});
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

    CatalogueServer server(options);
    QString error;
    if (!server.start(&error)) {
        err << "catalogue-server: " << error << '\n';
        return 1;
    }
    QTextStream(stdout) << "catalogue-server: listening on " << server.origin() << Qt::endl;
    return app.exec();
}
