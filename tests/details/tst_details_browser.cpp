#include "DetailsTestRecords.h"
#include "ModalAnswerer.h"
#include "RecordingHttpServer.h"
#include "TemporaryHome.h"

#include "browser/OnlineResourcesWidget.h"
#include "browser/ResourceCard.h"
#include "details/ResourceDetailsDialog.h"

#include "api/OnlineResourcesAPI.h"

#include <PluginHost.h>
#include <SettingsManager.h>

#include <QComboBox>
#include <QJsonArray>
#include <QLabel>
#include <QPushButton>
#include <QSignalSpy>
#include <QTest>
#include <QToolButton>

#include <memory>

using namespace Quorix;
using namespace Quorix::Testing;

namespace {

using Records = DetailsTestRecords;

struct KindPaths
{
    int filterIndex;
    QString listPath;
    QString itemsKey;
    QString detailsPrefix;
    QString likePrefix;
    const char *detailsLoaded;
};

KindPaths pathsOf(int kind)
{
    switch (kind) {
    case Records::Environment:
        return {3,
                QStringLiteral("/api/scripts/qenv/list"),
                QStringLiteral("environments"),
                QStringLiteral("/api/scripts/qenv/details/"),
                QStringLiteral("/api/scripts/qenv/like/"),
                SIGNAL(environmentDetailsLoaded(QJsonObject))};
    case Records::Weights:
        return {4,
                QStringLiteral("/api/scripts/onnx/list"),
                QStringLiteral("weights"),
                QStringLiteral("/api/scripts/onnx/details/"),
                QStringLiteral("/api/scripts/onnx/like/"),
                SIGNAL(weightsDetailsLoaded(QJsonObject))};
    default:
        return {0,
                QStringLiteral("/api/scripts/"),
                QStringLiteral("scripts"),
                QStringLiteral("/api/scripts/details/"),
                QStringLiteral("/api/scripts/like/"),
                SIGNAL(scriptDetailsLoaded(QJsonObject))};
    }
}

QJsonObject item(int kind, const QString &id)
{
    return Records::record(Records::Kind(kind),
                           {{QStringLiteral("id"), id}, {QStringLiteral("name"), QStringLiteral("Item %1").arg(id)}});
}

QJsonObject page(int kind, const QJsonArray &items)
{
    const QString total = kind == Records::Environment ? QStringLiteral("total_environments")
                          : kind == Records::Weights   ? QStringLiteral("total_weights")
                                                       : QStringLiteral("total_scripts");
    return {{QStringLiteral("success"), true},
            {pathsOf(kind).itemsKey, items},
            {QStringLiteral("pagination"), QJsonObject{{QStringLiteral("current_page"), 1},
                                                       {QStringLiteral("total_pages"), 1},
                                                       {total, items.size()}}}};
}

ScriptedResponse details(const QJsonObject &record, int delayMs = 0)
{
    return ScriptedResponse::json({{QStringLiteral("success"), true}, {QStringLiteral("data"), record}})
            .withDelay(delayMs);
}

ResourceCard *card(QWidget *page, const QString &id)
{
    const QList<ResourceCard *> cards = page->findChildren<ResourceCard *>();
    for (ResourceCard *candidate : cards) {
        if (candidate->resourceId() == id)
            return candidate;
    }
    return nullptr;
}

} // namespace

// The page's side of the details dialogs: which dialog a card click opens, which reply may fill it, and what the
// user is told when the details cannot be loaded.
class DetailsBrowserTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();

    void cardClickShowsLoadingThenTheRecord_data();
    void cardClickShowsLoadingThenTheRecord();
    void secondClickWhileLoadingKeepsOneDialogAndTheLatestRecord();
    void replyAfterTheDialogClosedIsIgnored();
    void detailsFailuresAreReported_data();
    void detailsFailuresAreReported();

private:
    std::unique_ptr<OnlineResourcesWidget> openPage(int kind, const QJsonArray &items);
    int requestsTo(const QString &path) const;

    std::unique_ptr<TemporaryHome> home;
    RecordingHttpServer server;
    PluginHost host;
};

void DetailsBrowserTest::initTestCase()
{
    home = std::make_unique<TemporaryHome>();
    QVERIFY(server.listen());
    qputenv("QUORIX_ADMIN_IDS", Records::administratorDiscordId);
    qputenv("QUORIX_SERVER_URL", server.origin().toUtf8());
}

void DetailsBrowserTest::init()
{
    server.reset();
    server.setDefaultResponse(ScriptedResponse::json({{QStringLiteral("success"), true}}));
    host.signIn({QString::fromLatin1(Records::authorDiscordId), QStringLiteral("frame_perfect"),
                 QStringLiteral("Frame Perfect"), QStringLiteral("avatar"), QStringLiteral("token")});
}

std::unique_ptr<OnlineResourcesWidget> DetailsBrowserTest::openPage(int kind, const QJsonArray &items)
{
    const KindPaths paths = pathsOf(kind);
    server.setRule(QStringLiteral("/api/scripts/"),
                   ScriptedResponse::json(page(Records::Script, kind == Records::Script ? items : QJsonArray())));
    server.setRule(paths.listPath, ScriptedResponse::json(page(kind, items)));
    auto widget = std::make_unique<OnlineResourcesWidget>(nullptr);
    widget->setPluginHost(&host);
    widget->setSettingsManager(SettingsManager::instance());
    widget->resize(900, 700);
    widget->show();
    if (paths.filterIndex != 0) {
        auto *refresh = widget->findChild<QToolButton *>(QStringLiteral("refreshButton"));
        if (!QTest::qWaitFor([&] { return refresh->isEnabled(); }))
            return nullptr;
        widget->findChild<QComboBox *>(QStringLiteral("typeFilter"))->setCurrentIndex(paths.filterIndex);
    }
    const QString lastId = items.last().toObject().value(QStringLiteral("id")).toString();
    if (!QTest::qWaitFor([&] { return card(widget.get(), lastId) != nullptr; }))
        return nullptr;
    return widget;
}

int DetailsBrowserTest::requestsTo(const QString &path) const
{
    const QList<RecordedRequest> all = server.requests();
    return int(std::count_if(all.begin(), all.end(), [&](const RecordedRequest &r) { return r.path() == path; }));
}

void DetailsBrowserTest::cardClickShowsLoadingThenTheRecord_data()
{
    QTest::addColumn<int>("kind");
    QTest::addColumn<QString>("loadingTitle");
    QTest::addColumn<QString>("title");
    QTest::newRow("script") << int(Records::Script) << "Loading Script Details..."
                            << "Script Details - Item a1";
    QTest::newRow("environment") << int(Records::Environment) << "Loading Environment Details..."
                                 << "Environment Details - Item a1";
    QTest::newRow("weights") << int(Records::Weights) << "Loading ONNX Weights Details..."
                             << "ONNX Weights - Item a1";
}

void DetailsBrowserTest::cardClickShowsLoadingThenTheRecord()
{
    QFETCH(int, kind);
    QFETCH(QString, loadingTitle);
    QFETCH(QString, title);
    const KindPaths paths = pathsOf(kind);
    server.setRule(QStringLiteral("/api/scripts/liked"),
                   ScriptedResponse::json({{QStringLiteral("success"), true},
                                           {QStringLiteral("data"), QJsonArray{QStringLiteral("a1")}}}));
    QJsonObject record = item(kind, QStringLiteral("a1"));
    record.insert(QStringLiteral("visibility_type"), QStringLiteral("private"));
    record.insert(QStringLiteral("likes"), 9);
    server.setRule(paths.detailsPrefix + QStringLiteral("a1"), details(record, 300));
    auto widget = openPage(kind, {item(kind, QStringLiteral("a1"))});
    QVERIFY(widget);

    QTest::mouseClick(card(widget.get(), QStringLiteral("a1")), Qt::LeftButton);
    const QList<ResourceDetailsDialog *> dialogs = widget->findChildren<ResourceDetailsDialog *>();
    QCOMPARE(dialogs.size(), 1);
    ResourceDetailsDialog *dialog = dialogs.first();
    QVERIFY(dialog->isVisible());
    QCOMPARE(dialog->windowTitle(), loadingTitle);

    QTRY_COMPARE(dialog->windowTitle(), title);
    QCOMPARE(requestsTo(paths.detailsPrefix + QStringLiteral("a1")), 1);
    // Signed in as the author of a private resource, with the resource in the liked set.
    QVERIFY(dialog->findChild<QPushButton *>(QStringLiteral("manageAccessButton"))->isVisible());
    QVERIFY(!dialog->findChild<QPushButton *>(QStringLiteral("banAuthorButton"))->isVisible());
    QCOMPARE(dialog->findChild<QPushButton *>(QStringLiteral("likeButton"))->text(), QStringLiteral("Unlike"));
    QVERIFY(dialog->findChild<QLabel *>(QStringLiteral("statsLabel"))->text().endsWith(QLatin1String("9 likes")));
}

void DetailsBrowserTest::secondClickWhileLoadingKeepsOneDialogAndTheLatestRecord()
{
    server.setRule(QStringLiteral("/api/scripts/details/a1"),
                   details(item(Records::Script, QStringLiteral("a1")), 600));
    server.setRule(QStringLiteral("/api/scripts/details/a2"), details(item(Records::Script, QStringLiteral("a2"))));
    auto widget = openPage(Records::Script,
                           {item(Records::Script, QStringLiteral("a1")), item(Records::Script, QStringLiteral("a2"))});
    QVERIFY(widget);
    QSignalSpy loaded(widget->api(), &OnlineResourcesAPI::scriptDetailsLoaded);

    QTest::mouseClick(card(widget.get(), QStringLiteral("a1")), Qt::LeftButton);
    QTest::mouseClick(card(widget.get(), QStringLiteral("a2")), Qt::LeftButton);
    QTRY_COMPARE(loaded.count(), 2);

    const QList<ResourceDetailsDialog *> dialogs = widget->findChildren<ResourceDetailsDialog *>();
    QCOMPARE(dialogs.size(), 1);
    QCOMPARE(dialogs.first()->windowTitle(), QStringLiteral("Script Details - Item a2"));
    QCOMPARE(dialogs.first()->resourceId(), QStringLiteral("a2"));
}

void DetailsBrowserTest::replyAfterTheDialogClosedIsIgnored()
{
    server.setRule(QStringLiteral("/api/scripts/details/a1"),
                   details(item(Records::Script, QStringLiteral("a1")), 300));
    auto widget = openPage(Records::Script, {item(Records::Script, QStringLiteral("a1"))});
    QVERIFY(widget);
    QSignalSpy loaded(widget->api(), &OnlineResourcesAPI::scriptDetailsLoaded);

    QTest::mouseClick(card(widget.get(), QStringLiteral("a1")), Qt::LeftButton);
    ResourceDetailsDialog *dialog = widget->findChild<ResourceDetailsDialog *>();
    dialog->findChild<QPushButton *>(QStringLiteral("closeButton"))->click();
    QVERIFY(loaded.wait());

    QVERIFY(!dialog->isVisible());
    QCOMPARE(dialog->windowTitle(), QStringLiteral("Loading Script Details..."));
    QVERIFY(dialog->resourceId().isEmpty());
}

void DetailsBrowserTest::detailsFailuresAreReported_data()
{
    QTest::addColumn<int>("kind");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("serverError");
    QTest::addColumn<QString>("title");
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("reloads");
    const auto row = [](const char *name, int kind, int status, const char *serverError, const char *title,
                        const char *text, bool reloads) {
        QTest::newRow(name) << kind << status << QString(serverError) << QString(title) << QString(text) << reloads;
    };
    const int script = Records::Script, environment = Records::Environment, weights = Records::Weights;
    const char *failed = "Failed to Load Details";

    row("script not found", script, 404, "Script not found", "Script Not Found",
        "This script could not be found on the server.\nIt may have been deleted or is no longer accessible.", true);
    row("script server error", script, 500, "boom", failed, "Could not load script details. Please try again.", false);
    row("script refused", script, 200, "Database locked", failed, "Could not load script details. Please try again.",
        false);
    row("digits of a port are no 404", script, 200, "Upstream 127.0.0.1:40412 busy", failed,
        "Could not load script details. Please try again.", false);
    row("environment not found", environment, 404, "gone", "Environment Not Found",
        "This environment could not be found on the server.\nIt may have been deleted or is no longer accessible.",
        true);
    row("environment refused", environment, 200, "busy", failed,
        "Could not load environment details. Please try again.", false);
    row("weights not found", weights, 200, "Weights not found (404)", "Weights Not Found",
        "These weights could not be found on the server.\nThey may have been deleted or are no longer accessible.",
        true);
    row("weights refused", weights, 200, "busy", failed, "Could not load weights details. Please try again.", false);
}

void DetailsBrowserTest::detailsFailuresAreReported()
{
    QFETCH(int, kind);
    QFETCH(int, status);
    QFETCH(QString, serverError);
    QFETCH(QString, title);
    QFETCH(QString, text);
    QFETCH(bool, reloads);
    const KindPaths paths = pathsOf(kind);
    server.setRule(paths.detailsPrefix + QStringLiteral("a1"),
                   ScriptedResponse::json({{QStringLiteral("success"), false}, {QStringLiteral("error"), serverError}},
                                          status));
    auto widget = openPage(kind, {item(kind, QStringLiteral("a1"))});
    QVERIFY(widget);
    const int listsBefore = requestsTo(paths.listPath);

    ModalAnswerer answerer;
    answerer.pressButton(QMessageBox::Ok);
    QTest::mouseClick(card(widget.get(), QStringLiteral("a1")), Qt::LeftButton);
    QVERIFY(answerer.waitForAnswer());
    QCOMPARE(answerer.seenTitle(), title);
    QCOMPARE(answerer.seenText(), text);
    QVERIFY(!widget->findChild<ResourceDetailsDialog *>()->isVisible());
    if (reloads)
        QTRY_COMPARE(requestsTo(paths.listPath), listsBefore + 1);
    else
        QCOMPARE(requestsTo(paths.listPath), listsBefore);
}

QTEST_MAIN(DetailsBrowserTest)
#include "tst_details_browser.moc"
