#include "DetailsTestRecords.h"
#include "ModalAnswerer.h"
#include "RecordingHttpServer.h"
#include "TemporaryHome.h"

#include "api/OnlineResourcesAPI.h"
#include "browser/OnlineResourcesWidget.h"
#include "browser/ResourceCard.h"

#include <PluginHost.h>
#include <SettingsManager.h>

#include <QComboBox>
#include <QLabel>
#include <QPushButton>
#include <QSignalSpy>
#include <QTest>
#include <QToolButton>

#include <memory>

using namespace Quorix;
using namespace Quorix::Testing;
namespace Records = DetailsTestRecords;

namespace {

constexpr int S = Records::Script, E = Records::Environment, W = Records::Weights;

// The list path, the key of its items and the details path of each kind; the type filter's index is the kind's.
const char *const listPaths[] = {"/api/scripts/", "/api/scripts/qenv/list", "/api/scripts/onnx/list"};
const char *const itemKeys[] = {"scripts", "environments", "weights"};
const char *const detailsPaths[]
        = {"/api/scripts/details/", "/api/scripts/qenv/details/", "/api/scripts/onnx/details/"};
const int filterIndexes[] = {0, 3, 4};

QJsonObject item(int kind, const QString &id)
{
    return Records::record(kind, {{"id", id}, {"name", "Item " + id}});
}

ScriptedResponse listReply(int kind, const QJsonArray &items)
{
    const QJsonObject pagination{
            {"current_page", 1}, {"total_pages", 1}, {QString("total_") + itemKeys[kind], items.size()}};
    return ScriptedResponse::json({{"success", true}, {itemKeys[kind], items}, {"pagination", pagination}});
}

ScriptedResponse details(const QJsonObject &record, int delayMs = 0)
{
    return ScriptedResponse::json({{"success", true}, {"data", record}}).withDelay(delayMs);
}

ResourceCard *card(QWidget *page, const QString &id)
{
    for (ResourceCard *candidate : page->findChildren<ResourceCard *>()) {
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

    TemporaryHome home;
    RecordingHttpServer server;
    PluginHost host;

    std::unique_ptr<OnlineResourcesWidget> openPage(int kind, const QJsonArray &items)
    {
        server.setRule(listPaths[S], listReply(S, kind == S ? items : QJsonArray()));
        server.setRule(listPaths[kind], listReply(kind, items));
        auto page = std::make_unique<OnlineResourcesWidget>(nullptr);
        page->setPluginHost(&host);
        page->setSettingsManager(SettingsManager::instance());
        page->resize(900, 700);
        page->show();
        if (kind != S) {
            auto *refresh = page->findChild<QToolButton *>("refreshButton");
            if (!QTest::qWaitFor([&] { return refresh->isEnabled(); }))
                return nullptr;
            page->findChild<QComboBox *>("typeFilter")->setCurrentIndex(filterIndexes[kind]);
        }
        const QString lastId = items.last().toObject().value("id").toString();
        return QTest::qWaitFor([&] { return card(page.get(), lastId) != nullptr; }) ? std::move(page) : nullptr;
    }

    int requestsTo(const QString &path) const
    {
        const QList<RecordedRequest> all = server.requests();
        return int(std::count_if(all.begin(), all.end(), [&](const RecordedRequest &r) { return r.path() == path; }));
    }

private slots:
    void initTestCase()
    {
        QVERIFY(server.listen());
        qputenv("QUORIX_ADMIN_IDS", Records::administratorId.toUtf8());
        qputenv("QUORIX_SERVER_URL", server.origin().toUtf8());
    }

    void init()
    {
        server.reset();
        server.setDefaultResponse(ScriptedResponse::json({{"success", true}}));
        host.signIn({Records::authorId, "frame_perfect", "Frame Perfect", "avatar", "token"});
    }

    void cardClickShowsLoadingThenTheRecord_data()
    {
        QTest::addColumn<int>("kind");
        QTest::addColumn<QString>("loadingTitle");
        QTest::addColumn<QString>("title");
        QTest::newRow("script") << S << "Loading Script Details..." << "Script Details - Item a1";
        QTest::newRow("environment") << E << "Loading Environment Details..." << "Environment Details - Item a1";
        QTest::newRow("weights") << W << "Loading ONNX Weights Details..." << "ONNX Weights - Item a1";
    }

    void cardClickShowsLoadingThenTheRecord()
    {
        QFETCH(int, kind);
        QFETCH(QString, loadingTitle);
        QFETCH(QString, title);
        server.setRule("/api/scripts/liked", ScriptedResponse::json({{"success", true}, {"data", QJsonArray{"a1"}}}));
        QJsonObject record = item(kind, "a1");
        record.insert("visibility_type", "private");
        record.insert("likes", 9);
        server.setRule(detailsPaths[kind] + QString("a1"), details(record, 300));
        auto page = openPage(kind, {item(kind, "a1")});
        QVERIFY(page);

        QTest::mouseClick(card(page.get(), "a1"), Qt::LeftButton);
        const QList<ResourceDetailsDialog *> dialogs = page->findChildren<ResourceDetailsDialog *>();
        QCOMPARE(dialogs.size(), 1);
        ResourceDetailsDialog *dialog = dialogs.first();
        QVERIFY(dialog->isVisible());
        QCOMPARE(dialog->windowTitle(), loadingTitle);
        QTRY_COMPARE(dialog->windowTitle(), title);
        QCOMPARE(requestsTo(detailsPaths[kind] + QString("a1")), 1);
        // Signed in as the author of a private resource, with the resource in the liked set.
        QVERIFY(dialog->findChild<QPushButton *>("manageAccessButton")->isVisible());
        QVERIFY(!dialog->findChild<QPushButton *>("banAuthorButton")->isVisible());
        QCOMPARE(dialog->findChild<QPushButton *>("likeButton")->text(), "Unlike");
        QVERIFY(dialog->findChild<QLabel *>("statsLabel")->text().endsWith("9 likes"));
    }

    void onlyTheLatestClickFillsTheOneDialog()
    {
        server.setRule("/api/scripts/details/a1", details(item(S, "a1"), 600));
        server.setRule("/api/scripts/details/a2", details(item(S, "a2")));
        server.setRule("/api/scripts/details/a3", details(item(S, "a3"), 300));
        auto page = openPage(S, {item(S, "a1"), item(S, "a2"), item(S, "a3")});
        QVERIFY(page);
        QSignalSpy loaded(page->api(), &OnlineResourcesAPI::scriptDetailsLoaded);
        QTest::mouseClick(card(page.get(), "a1"), Qt::LeftButton);
        QTest::mouseClick(card(page.get(), "a2"), Qt::LeftButton);
        QTRY_COMPARE(loaded.count(), 2);
        const QList<ResourceDetailsDialog *> dialogs = page->findChildren<ResourceDetailsDialog *>();
        QCOMPARE(dialogs.size(), 1);
        QCOMPARE(dialogs.first()->windowTitle(), "Script Details - Item a2");
        QCOMPARE(dialogs.first()->resourceId(), "a2");

        // A reply that arrives after the dialog was closed is dropped.
        QTest::mouseClick(card(page.get(), "a3"), Qt::LeftButton);
        dialogs.first()->findChild<QPushButton *>("closeButton")->click();
        QVERIFY(loaded.wait());
        QVERIFY(!dialogs.first()->isVisible());
        QCOMPARE(dialogs.first()->windowTitle(), "Loading Script Details...");
        QVERIFY(dialogs.first()->resourceId().isEmpty());
    }

    void dialogActionsReachTheServer_data()
    {
        QTest::addColumn<int>("kind");
        QTest::addColumn<QString>("button");
        QTest::addColumn<QString>("path");
        const char *const kinds[] = {"script", "environment", "weights"}, *const prefixes[] = {"", "qenv/", "onnx/"};
        for (const int kind : {S, E, W}) {
            QTest::addRow("like %s", kinds[kind]) << kind << "likeButton"
                                                  << QString("/api/scripts/%1like/a1").arg(prefixes[kind]);
            QTest::addRow("delete %s", kinds[kind]) << kind << "deleteButton"
                                                    << QString("/api/scripts/%1a1").arg(prefixes[kind]);
        }
        QTest::newRow("ban") << W << "banAuthorButton" << "/api/scripts/ban/" + Records::authorId;
    }

    void dialogActionsReachTheServer()
    {
        QFETCH(int, kind);
        QFETCH(QString, button);
        QFETCH(QString, path);
        host.signIn({Records::administratorId, "admin", "Admin", "avatar", "token"});
        server.setRule(detailsPaths[kind] + QString("a1"), details(item(kind, "a1")));
        // Unanswered, so that no outcome box follows the request.
        server.setRule(path, ScriptedResponse::json({}).stallingAfter(0));
        auto page = openPage(kind, {item(kind, "a1")});
        QVERIFY(page);
        QTest::mouseClick(card(page.get(), "a1"), Qt::LeftButton);
        auto *dialog = page->findChild<ResourceDetailsDialog *>();
        QTRY_COMPARE(dialog->resourceId(), "a1");
        ModalAnswerer confirmation;
        if (button != "likeButton")
            confirmation.pressButton(QMessageBox::Yes);
        auto *action = dialog->findChild<QPushButton *>(button);
        QVERIFY(action->isVisible());
        action->click();
        QTRY_COMPARE(requestsTo(path), 1);
    }

    void detailsFailuresAreReported_data()
    {
        QTest::addColumn<int>("kind");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("serverError");
        QTest::addColumn<QString>("title");
        QTest::addColumn<QString>("text");
        const char *failed = "Failed to Load Details";
        const QString retry = "Could not load %1 details. Please try again.";
        const QString gone
                = "%1 could not be found on the server.\n%2 may have been deleted or %3 no longer accessible.";
        QTest::newRow("script not found")
                << S << 404 << "Script not found" << "Script Not Found" << gone.arg(u"This script", u"It", u"is");
        QTest::newRow("script server error") << S << 500 << "boom" << failed << retry.arg("script");
        QTest::newRow("digits of a port are no 404")
                << S << 200 << "Upstream 127.0.0.1:40412 busy" << failed << retry.arg("script");
        QTest::newRow("environment not found")
                << E << 404 << "gone"
                << "Environment Not Found" << gone.arg(u"This environment", u"It", u"is");
        QTest::newRow("environment refused") << E << 200 << "busy" << failed << retry.arg("environment");
        QTest::newRow("weights not found") << W << 200 << "Weights not found (404)" << "Weights Not Found"
                                           << gone.arg(u"These weights", u"They", u"are");
        QTest::newRow("weights refused") << W << 200 << "busy" << failed << retry.arg("weights");
    }

    void detailsFailuresAreReported()
    {
        QFETCH(int, kind);
        QFETCH(int, status);
        QFETCH(QString, serverError);
        QFETCH(QString, title);
        QFETCH(QString, text);
        server.setRule(detailsPaths[kind] + QString("a1"),
                       ScriptedResponse::json({{"success", false}, {"error", serverError}}, status));
        auto page = openPage(kind, {item(kind, "a1")});
        QVERIFY(page);
        const int listsBefore = requestsTo(listPaths[kind]);
        ModalAnswerer answerer;
        answerer.pressButton(QMessageBox::Ok);
        QTest::mouseClick(card(page.get(), "a1"), Qt::LeftButton);
        QVERIFY(answerer.waitForAnswer());
        QCOMPARE((QStringList{answerer.seenTitle(), answerer.seenText()}), (QStringList{title, text}));
        QVERIFY(!page->findChild<ResourceDetailsDialog *>()->isVisible());
        // A resource that is gone reloads the list it came from; other failures leave it alone.
        if (title.endsWith("Not Found"))
            QTRY_COMPARE(requestsTo(listPaths[kind]), listsBefore + 1);
        else
            QCOMPARE(requestsTo(listPaths[kind]), listsBefore);
    }
};

QTEST_MAIN(DetailsBrowserTest)
#include "tst_details_browser.moc"
