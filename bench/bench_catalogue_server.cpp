// Lists a 10,000-resource catalogue page by page through HTTP and prints request rate and latency of the list
// request, with and without a search term. Client and server share one process and one event loop, as the
// in-process demo does, so the figures include both sides.
#include "CatalogueFill.h"

#include <CatalogueDatabase.h>
#include <CatalogueServer.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkProxy>
#include <QNetworkReply>
#include <QTemporaryDir>
#include <QTextStream>

#include <algorithm>

using namespace Quorix;

namespace {

constexpr int resourceCount = 10000;
constexpr int pageSize = 24;

bool fillCatalogue(const QString &directory)
{
    CatalogueDatabase database(directory + QStringLiteral("/catalogue.sqlite"));
    QString error;
    if (!database.open(&error))
        return false;
    const qint64 authorId = database.signIn(QStringLiteral("123456789012345678"), QStringLiteral("bench"), {}).id;
    return CatalogueFill::addScripts(database, authorId, resourceCount);
}

struct Figures
{
    QList<double> latencies;
    double seconds = 0;
};

Figures listAllPages(QNetworkAccessManager &network, const QString &origin, const QString &search)
{
    Figures figures;
    QElapsedTimer total;
    total.start();
    int page = 1;
    int totalPages = 1;
    while (page <= totalPages) {
        QString url = origin + QStringLiteral("/api/scripts/?page=%1&limit=%2&sort=popular").arg(page).arg(pageSize);
        if (!search.isEmpty())
            url += QStringLiteral("&search=") + search;
        QNetworkRequest request{QUrl(url)};
        request.setRawHeader("Accept", "application/json");
        QElapsedTimer timer;
        timer.start();
        QNetworkReply *reply = network.get(request);
        QEventLoop loop;
        QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
        loop.exec();
        const QJsonObject body = QJsonDocument::fromJson(reply->readAll()).object();
        figures.latencies.append(timer.nsecsElapsed() / 1e6);
        reply->deleteLater();
        totalPages = body.value(QStringLiteral("pagination")).toObject().value(QStringLiteral("total_pages")).toInt();
        if (body.value(QStringLiteral("scripts")).toArray().isEmpty())
            break;
        ++page;
    }
    figures.seconds = total.nsecsElapsed() / 1e9;
    return figures;
}

void print(QTextStream &out, const QString &label, Figures figures)
{
    std::sort(figures.latencies.begin(), figures.latencies.end());
    const auto at = [&](double fraction) {
        return figures.latencies.at(qMin(figures.latencies.size() - 1, int(fraction * figures.latencies.size())));
    };
    out << label << ": " << figures.latencies.size() << " requests, "
        << QString::number(figures.latencies.size() / figures.seconds, 'f', 1) << " requests/s, median "
        << QString::number(at(0.5), 'f', 2) << " ms, p99 " << QString::number(at(0.99), 'f', 2) << " ms\n";
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QTextStream out(stdout);
    QTemporaryDir directory;
    QElapsedTimer fill;
    fill.start();
    if (!fillCatalogue(directory.path())) {
        out << "bench_catalogue_server: cannot fill the catalogue\n";
        return 1;
    }
    out << "filled " << resourceCount << " resources in " << fill.elapsed() << " ms\n";

    CatalogueServer::Options options;
    options.dataDirectory = directory.path();
    options.port = 0;
    CatalogueServer server(options);
    QString error;
    if (!server.start(&error)) {
        out << "bench_catalogue_server: " << error << '\n';
        return 1;
    }
    QNetworkAccessManager network;
    network.setProxy(QNetworkProxy::NoProxy);
    listAllPages(network, server.origin(), QString()).latencies.size();
    print(out, QStringLiteral("list, no search (all pages of 24)"), listAllPages(network, server.origin(), QString()));
    print(out, QStringLiteral("list, search \"recoil\" (all pages)"),
          listAllPages(network, server.origin(), QStringLiteral("recoil")));
    print(out, QStringLiteral("list, search \"number 4242\" (one hit)"),
          listAllPages(network, server.origin(), QStringLiteral("number%204242")));
    return 0;
}
