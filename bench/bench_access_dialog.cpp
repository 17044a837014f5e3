// Prints how long the access dialog takes to show the first page and all pages of a 10,000-entry access list
// served by the reference server, the resident memory it costs, and how long import files take to read.
// Run from a build tree: bin/bench_access_dialog
#include "CatalogueServerFixture.h"
#include "TemporaryHome.h"

#include "access/AuthorizationFileFormats.h"
#include "access/AuthorizationManagementDialog.h"
#include "api/OnlineResourcesAPI.h"

#include <CatalogueDatabase.h>

#include <QApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QListWidget>
#include <QPushButton>
#include <QSignalSpy>
#include <QTest>
#include <QTextStream>

#include <unistd.h>

using namespace Quorix;
using namespace Quorix::Testing;

namespace {

constexpr int authorizationCount = 10000;

qint64 residentBytes()
{
    QFile statm(QStringLiteral("/proc/self/statm"));
    if (!statm.open(QIODevice::ReadOnly))
        return 0;
    const QList<QByteArray> fields = statm.readAll().split(' ');
    return fields.size() > 1 ? fields.at(1).toLongLong() * sysconf(_SC_PAGESIZE) : 0;
}

QString discordId(int index)
{
    return QString::number(400000000000000000LL + index);
}

// Half the entries belong to people who have signed in, half are still pending, as on a busy resource.
bool seedAuthorizations(const QString &dataDirectory, const QString &resourceId)
{
    CatalogueDatabase database(dataDirectory + QStringLiteral("/catalogue.sqlite"));
    QString error;
    if (!database.open(&error) || !database.transaction())
        return false;
    for (int index = 0; index < authorizationCount; ++index) {
        if (index % 2 == 0)
            database.signIn(discordId(index), QStringLiteral("player_%1").arg(index),
                            QStringLiteral("Player %1").arg(index));
        QString code;
        database.grant(resourceId, discordId(index), QStringLiteral("Season pass, batch %1").arg(index / 100),
                       QString(), &code);
    }
    return database.commit();
}

QString writeCsv(const TemporaryHome &home, int lines)
{
    const QString path = home.filePath(QStringLiteral("import.csv"));
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return QString();
    QTextStream out(&file);
    out << "discord_id,username,global_name,status,notes,expires_at\n";
    for (int index = 0; index < lines; ++index)
        out << discordId(index) << ",player_" << index << ",Player " << index << ",active,Season pass; batch,\n";
    return path;
}

double millisecondsToRead(const QString &path, int *ids)
{
    QElapsedTimer timer;
    timer.start();
    *ids = int(AuthorizationFileFormats::readImportFile(path).discordIds.size());
    return timer.nsecsElapsed() / 1e6;
}

} // namespace

int main(int argc, char **argv)
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    TemporaryHome home;
    QTextStream out(stdout);

    CatalogueServerFixture server;
    if (!server.start()) {
        out << "cannot start the server: " << server.error() << '\n';
        return 1;
    }
    qputenv("QUORIX_SERVER_URL", server.origin().toUtf8());
    const QString token = server.signIn(QStringLiteral("100000000000000077"), QStringLiteral("bench_author"));
    const QString resourceId
            = server.uploadScript(token, QStringLiteral("bench.gpc3"), "main {}\n", QStringLiteral("private"))
                      .json.value(QStringLiteral("data"))
                      .toObject()
                      .value(QStringLiteral("id"))
                      .toString();
    if (resourceId.isEmpty() || !seedAuthorizations(server.dataDirectory(), resourceId)) {
        out << "cannot seed the access list\n";
        return 1;
    }

    OnlineResourcesAPI api;
    api.authToken = token;
    // Connected before the dialog, so the difference to the spy below is the dialog's own handling of a page.
    QElapsedTimer handling;
    qint64 handlingNanoseconds = 0;
    QObject::connect(&api, &OnlineResourcesAPI::scriptAuthorizationsLoaded, [&handling] { handling.start(); });
    const qint64 before = residentBytes();
    auto *dialog = new AuthorizationManagementDialog(&api, resourceId, QStringLiteral("Bench"));
    dialog->show();
    auto *list = dialog->findChild<QListWidget *>(QStringLiteral("authorizationList"));
    auto *loadMore = dialog->findChild<QPushButton *>(QStringLiteral("loadMoreButton"));
    QSignalSpy loaded(&api, &OnlineResourcesAPI::scriptAuthorizationsLoaded);
    QObject::connect(&api, &OnlineResourcesAPI::scriptAuthorizationsLoaded,
                     [&] { handlingNanoseconds += handling.nsecsElapsed(); });

    QElapsedTimer timer;
    timer.start();
    dialog->loadAuthorizations();
    if (!loaded.wait(30000))
        return 1;
    const double firstPage = timer.nsecsElapsed() / 1e6;
    int pages = 1;
    while (loadMore->isVisible()) {
        loadMore->click();
        if (!loaded.wait(30000))
            return 1;
        ++pages;
    }
    const double allPages = timer.nsecsElapsed() / 1e6;
    QTest::qWait(200);
    const qint64 after = residentBytes();

    out << "access list of " << list->count() << " entries in " << pages << " pages from the reference server\n";
    out << "  first page shown:        " << QString::number(firstPage, 'f', 1) << " ms\n";
    out << "  all pages loaded:        " << QString::number(allPages, 'f', 1) << " ms\n";
    out << "  of which the dialog:     " << QString::number(handlingNanoseconds / 1e6, 'f', 1)
        << " ms (the rest is the server and the transfer)\n";
    out << "  dialog resident memory:  " << QString::number((after - before) / 1048576.0, 'f', 1) << " MiB ("
        << QString::number(double(after - before) / list->count(), 'f', 0) << " bytes per entry)\n";
    delete dialog;

    int ids = 0;
    const double csv = millisecondsToRead(writeCsv(home, 100000), &ids);
    out << "100,000-line CSV import read: " << QString::number(csv, 'f', 1) << " ms, " << ids << " IDs\n";
    QFile huge(home.filePath(QStringLiteral("huge.txt")));
    if (huge.open(QIODevice::WriteOnly)) {
        const QByteArray filler = QByteArray(63, 'x') + '\n';
        for (int line = 0; line < 50 * 1024 * 1024 / 64; ++line)
            huge.write(filler);
        huge.write("400000000000000001\n");
        huge.close();
        const double text = millisecondsToRead(huge.fileName(), &ids);
        out << "50 MB text import read:        " << QString::number(text, 'f', 1) << " ms, " << ids << " IDs\n";
    }
    return 0;
}
