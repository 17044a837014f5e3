// Prints how long the catalogue page takes to add a page of cards and to reflow a large grid, and what a card
// costs in resident memory. Run from a build tree: bin/bench_browser_cards
#include "RecordingHttpServer.h"
#include "TemporaryHome.h"

#include "api/OnlineResourcesAPI.h"
#include "browser/OnlineResourcesWidget.h"
#include "browser/ScriptCard.h"

#include <QApplication>
#include <QBuffer>
#include <QElapsedTimer>
#include <QFile>
#include <QImage>
#include <QJsonArray>
#include <QLayout>
#include <QProcess>
#include <QTest>
#include <QTextStream>

#include <unistd.h>

using namespace Quorix;
using namespace Quorix::Testing;

namespace {

constexpr int pageSize = 24;

QJsonObject page(int number, int totalPages, const QString &thumbnail)
{
    QJsonArray items;
    for (int index = 0; index < pageSize; ++index) {
        const int id = (number - 1) * pageSize + index;
        items.append(QJsonObject{
                {QStringLiteral("id"), QStringLiteral("script-%1").arg(id)},
                {QStringLiteral("name"), QStringLiteral("Benchmark script %1").arg(id)},
                {QStringLiteral("type"), QStringLiteral("gpc3")},
                {QStringLiteral("description"), QStringLiteral("A script used to measure the catalogue grid.")},
                {QStringLiteral("created"), QStringLiteral("2026-01-02T03:04:05Z")},
                {QStringLiteral("downloads"), 1234 + id},
                {QStringLiteral("likes"), id % 7},
                {QStringLiteral("version"), 1.5},
                {QStringLiteral("visibility_type"), QStringLiteral("public")},
                {QStringLiteral("thumbnail"), thumbnail},
                {QStringLiteral("author"), QJsonObject{{QStringLiteral("username"), QStringLiteral("bench")}}}});
    }
    return {{QStringLiteral("success"), true},
            {QStringLiteral("scripts"), items},
            {QStringLiteral("pagination"), QJsonObject{{QStringLiteral("current_page"), number},
                                                       {QStringLiteral("total_pages"), totalPages},
                                                       {QStringLiteral("total_scripts"), totalPages * pageSize}}}};
}

qint64 residentBytes()
{
    QFile statm(QStringLiteral("/proc/self/statm"));
    if (!statm.open(QIODevice::ReadOnly))
        return 0;
    const QList<QByteArray> fields = statm.readAll().split(' ');
    return fields.size() > 1 ? fields.at(1).toLongLong() * sysconf(_SC_PAGESIZE) : 0;
}

// The page as the API client would fill it: list replies go through the client's own signal.
void deliver(OnlineResourcesWidget &widget, const QJsonObject &reply)
{
    emit widget.api()->scriptsLoaded(reply);
}

void loadPages(OnlineResourcesWidget &widget, int pages, const QString &thumbnail)
{
    for (int number = 1; number <= pages; ++number)
        deliver(widget, page(number, pages, thumbnail));
    QCoreApplication::processEvents();
}

double millisecondsToAddOnePage(OnlineResourcesWidget &widget)
{
    constexpr int rounds = 20;
    double total = 0;
    for (int round = 0; round < rounds; ++round) {
        deliver(widget, page(1, 2, QString()));
        QElapsedTimer timer;
        timer.start();
        deliver(widget, page(2, 2, QString()));
        widget.findChild<ScriptCard *>()->parentWidget()->layout()->activate();
        total += timer.nsecsElapsed() / 1e6;
    }
    return total / rounds;
}

double millisecondsToReflow(OnlineResourcesWidget &widget, int cards)
{
    loadPages(widget, cards / pageSize, QString());
    QLayout *grid = widget.findChild<ScriptCard *>()->parentWidget()->layout();
    grid->activate();
    QElapsedTimer timer;
    timer.start();
    QMetaObject::invokeMethod(&widget, "updateCardLayout");
    grid->activate();
    return timer.nsecsElapsed() / 1e6;
}

double kilobytesPerCard(OnlineResourcesWidget &widget, const QString &thumbnail, int cards)
{
    deliver(widget, page(1, 1, QString()));
    QTest::qWait(200);
    const qint64 before = residentBytes();
    loadPages(widget, cards / pageSize, thumbnail);
    QTest::qWait(thumbnail.isEmpty() ? 200 : 3000);
    return double(residentBytes() - before) / 1024.0 / (cards - pageSize);
}

QString memoryInFreshProcess(const QString &variant)
{
    QProcess child;
    child.start(QCoreApplication::applicationFilePath(), {QStringLiteral("--memory"), variant});
    if (!child.waitForFinished(120000))
        return QStringLiteral("n/a");
    return QString::fromUtf8(child.readAllStandardOutput()).trimmed();
}

QByteArray thumbnailPng()
{
    QImage image(320, 180, QImage::Format_RGB32);
    image.fill(QColor(0x58, 0x65, 0xF2));
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG");
    return bytes;
}

} // namespace

int main(int argc, char **argv)
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    TemporaryHome home;
    RecordingHttpServer server;
    server.listen();
    server.setRule(QStringLiteral("/thumb.png"), ScriptedResponse::bytes(thumbnailPng(), "image/png"));
    server.setDefaultResponse(ScriptedResponse::json(page(1, 1, QString())));
    qputenv("QUORIX_SERVER_URL", server.origin().toUtf8());

    OnlineResourcesWidget widget(nullptr);
    widget.resize(1860, 1000);
    widget.show();
    QTest::qWait(300);

    // Memory is measured in a process of its own: freed cards of earlier rounds would otherwise be reused.
    const int memoryFlag = app.arguments().indexOf(QStringLiteral("--memory"));
    if (memoryFlag > 0 && memoryFlag + 1 < app.arguments().size()) {
        const bool withThumbnail = app.arguments().at(memoryFlag + 1) == QLatin1String("thumbnail");
        const double kilobytes
                = withThumbnail ? kilobytesPerCard(widget, server.url(QStringLiteral("/thumb.png")).toString(), 480)
                                : kilobytesPerCard(widget, QString(), 2400);
        QTextStream(stdout) << QString::number(kilobytes, 'f', 1) << '\n';
        return 0;
    }

    QTextStream out(stdout);
    out << "| measurement | value |\n|---|---|\n";
    out << QStringLiteral("| add one page of 24 cards (mean of 20) | %1 ms |\n")
                    .arg(millisecondsToAddOnePage(widget), 0, 'f', 2);
    for (const int cards : {240, 1200, 2400})
        out << QStringLiteral("| full reflow, %1 cards, 6 columns | %2 ms |\n")
                        .arg(cards)
                        .arg(millisecondsToReflow(widget, cards), 0, 'f', 2);
    out << QStringLiteral("| resident memory per card, no thumbnail (2,400 cards) | %1 KiB |\n")
                    .arg(memoryInFreshProcess(QStringLiteral("plain")));
    out << QStringLiteral("| resident memory per card, fetched thumbnail (480 cards) | %1 KiB |\n")
                    .arg(memoryInFreshProcess(QStringLiteral("thumbnail")));
    return 0;
}
