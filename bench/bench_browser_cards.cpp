// Prints what the catalogue grid costs: adding a page, reflowing and scrolling with many items loaded, resident
// memory per loaded item, and how long `quorix-shell --demo` takes to paint its first cards.
// Run from a build tree: bin/bench_browser_cards
#include "RecordingHttpServer.h"
#include "TemporaryHome.h"

#include "api/OnlineResourcesAPI.h"
#include "browser/OnlineResourcesWidget.h"

#include <QApplication>
#include <QBuffer>
#include <QDateTime>
#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QFile>
#include <QImage>
#include <QJsonArray>
#include <QProcess>
#include <QProcessEnvironment>
#include <QScrollArea>
#include <QScrollBar>
#include <QTest>
#include <QTextStream>

#include <algorithm>

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

// The page asks for a list page as a reader makes it: a refresh for the first, reaching the bottom for a next one.
// The recording server never answers those requests; the replies come through the client's own signal instead.
void askFor(OnlineResourcesWidget &widget, const QJsonObject &reply)
{
    const int number = reply.value(QStringLiteral("pagination")).toObject().value(QStringLiteral("current_page")).toInt();
    QMetaObject::invokeMethod(&widget, number == 1 ? "onRefreshClicked" : "onScrolledToBottom");
}

void deliver(OnlineResourcesWidget &widget, const QJsonObject &reply)
{
    askFor(widget, reply);
    emit widget.api()->scriptsLoaded(reply);
}

void loadPages(OnlineResourcesWidget &widget, int pages, const QString &thumbnail)
{
    for (int number = 1; number <= pages; ++number)
        deliver(widget, page(number, pages, thumbnail));
    QCoreApplication::processEvents();
}

// Layout requests and moves are delivered as posted events; a frame is done once they are.
void settle()
{
    QCoreApplication::sendPostedEvents();
}

QScrollBar *scrollBar(OnlineResourcesWidget &widget)
{
    return widget.findChild<QScrollArea *>()->verticalScrollBar();
}

// The second page arriving while the reader is at the top, or at the bottom where the new rows come into view.
double millisecondsToAddOnePage(OnlineResourcesWidget &widget, bool atBottom)
{
    constexpr int rounds = 20;
    double total = 0;
    for (int round = 0; round < rounds; ++round) {
        // The reader has seen the first page, and the grid has built its band, before the second arrives.
        deliver(widget, page(1, 2, QString()));
        QTest::qWait(100);
        if (atBottom)
            scrollBar(widget)->setValue(scrollBar(widget)->maximum());
        QTest::qWait(100);
        const QJsonObject second = page(2, 2, QString());
        askFor(widget, second);
        // The request's own work (the network stack's events) is not the grid's.
        QTest::qWait(20);
        QElapsedTimer timer;
        timer.start();
        emit widget.api()->scriptsLoaded(second);
        settle();
        total += timer.nsecsElapsed() / 1e6;
    }
    return total / rounds;
}

double millisecondsToReflow(OnlineResourcesWidget &widget, int items)
{
    loadPages(widget, items / pageSize, QString());
    settle();
    QElapsedTimer timer;
    timer.start();
    QMetaObject::invokeMethod(&widget, "updateCardLayout");
    settle();
    return timer.nsecsElapsed() / 1e6;
}

struct ScrollCost
{
    double worstFrame = 0;
    double worstIdleSlice = 0;
};

// From the first to the last of 2,400 items in 100 equal steps; a frame is the scroll, the grid's response and
// the repaint of the viewport. Between frames the event loop runs what the grid left for idle time (the cards of
// the band off screen), one slice at a time, as it would between a person's scroll steps.
ScrollCost scrollCost(OnlineResourcesWidget &widget)
{
    loadPages(widget, 2400 / pageSize, QString());
    settle();
    QScrollBar *bar = scrollBar(widget);
    QWidget *viewport = widget.findChild<QScrollArea *>()->viewport();
    bar->setValue(0);
    settle();
    viewport->repaint();
    ScrollCost cost;
    const auto runIdleWork = [&cost] {
        for (int slice = 0; slice < 12; ++slice) {
            QElapsedTimer timer;
            timer.start();
            QCoreApplication::processEvents();
            cost.worstIdleSlice = std::max(cost.worstIdleSlice, timer.nsecsElapsed() / 1e6);
        }
    };
    runIdleWork();
    for (int step = 1; step <= 100; ++step) {
        QElapsedTimer timer;
        timer.start();
        bar->setValue(bar->maximum() * step / 100);
        settle();
        viewport->repaint();
        cost.worstFrame = std::max(cost.worstFrame, timer.nsecsElapsed() / 1e6);
        runIdleWork();
    }
    return cost;
}

// quorix-shell prints the time its grid first painted cards when QUORIX_REPORT_FIRST_CARDS is set. The first run
// starts with an empty artwork cache (this program's home is new), the others find it filled.
QString millisecondsToFirstCards(const QString &program)
{
    QList<qint64> runs;
    for (int run = 0; run < 3; ++run) {
        QProcess shell;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("QUORIX_REPORT_FIRST_CARDS"), QStringLiteral("1"));
        environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
        shell.setProcessEnvironment(environment);
        shell.setProcessChannelMode(QProcess::MergedChannels);
        const qint64 started = QDateTime::currentMSecsSinceEpoch();
        shell.start(program, {QStringLiteral("--demo")});
        qint64 painted = 0;
        QByteArray output;
        QDeadlineTimer deadline(30000);
        while (painted == 0 && !deadline.hasExpired() && shell.waitForReadyRead(int(deadline.remainingTime()))) {
            output += shell.readAll();
            const qsizetype at = output.indexOf("first cards painted at ");
            const qsizetype end = output.indexOf('\n', at);
            if (at >= 0 && end > at)
                painted = output.mid(at + 23, end - at - 23).trimmed().toLongLong();
        }
        shell.kill();
        shell.waitForFinished();
        if (painted == 0)
            return QStringLiteral("n/a");
        runs.append(painted - started);
    }
    return QStringLiteral("cold cache %1 ms; warm %2 ms, %3 ms").arg(runs.at(0)).arg(runs.at(1)).arg(runs.at(2));
}

double kilobytesPerItem(OnlineResourcesWidget &widget, const QString &thumbnail, int cards)
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
    server.setDefaultResponse(ScriptedResponse::json({}).stallingAfter(0));
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
                = withThumbnail ? kilobytesPerItem(widget, server.url(QStringLiteral("/thumb.png")).toString(), 480)
                                : kilobytesPerItem(widget, QString(), 2400);
        QTextStream(stdout) << QString::number(kilobytes, 'f', 1) << '\n';
        return 0;
    }

    // Another build's shell can be measured with --shell PATH.
    const int shellFlag = app.arguments().indexOf(QStringLiteral("--shell"));
    const QString shellProgram = shellFlag > 0 && shellFlag + 1 < app.arguments().size()
                                         ? app.arguments().at(shellFlag + 1)
                                         : QStringLiteral(QUORIX_SHELL_PROGRAM);
    QTextStream out(stdout);
    out << "| measurement | value |\n|---|---|\n";
    out << QStringLiteral("| add one page of 24 items at the top (mean of 20) | %1 ms |\n")
                    .arg(millisecondsToAddOnePage(widget, false), 0, 'f', 2);
    out << QStringLiteral("| add one page of 24 items at the bottom (mean of 20) | %1 ms |\n")
                    .arg(millisecondsToAddOnePage(widget, true), 0, 'f', 2);
    for (const int items : {240, 1200, 2400})
        out << QStringLiteral("| full reflow, %1 items loaded, 6 columns | %2 ms |\n")
                        .arg(items)
                        .arg(millisecondsToReflow(widget, items), 0, 'f', 2);
    const ScrollCost scrolling = scrollCost(widget);
    out << QStringLiteral("| worst frame scrolling through 2,400 items in 100 steps | %1 ms |\n")
                    .arg(scrolling.worstFrame, 0, 'f', 2);
    out << QStringLiteral("| longest idle slice building off-screen cards meanwhile | %1 ms |\n")
                    .arg(scrolling.worstIdleSlice, 0, 'f', 2);
    out.flush();
    out << QStringLiteral("| resident memory per loaded item, no thumbnail (2,400 items) | %1 KiB |\n")
                    .arg(memoryInFreshProcess(QStringLiteral("plain")));
    out << QStringLiteral("| resident memory per loaded item, fetched thumbnail (480 items) | %1 KiB |\n")
                    .arg(memoryInFreshProcess(QStringLiteral("thumbnail")));
    out << QStringLiteral("| quorix-shell --demo start to first cards painted | %1 |\n")
                    .arg(millisecondsToFirstCards(shellProgram));
    return 0;
}
