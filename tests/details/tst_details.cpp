#include "BrowserTestData.h"
#include "DetailsTestRecords.h"
#include "ModalAnswerer.h"
#include "RecordingHttpServer.h"
#include "TemporaryHome.h"

#include "api/OnlineResourcesAPI.h"
#include "browser/OnlineResourcesWidget.h"
#include "browser/ResourceCard.h"
#include "details/RichTextSanitizer.h"

#include <PluginHost.h>
#include <SettingsManager.h>

#include <QApplication>
#include <QClipboard>
#include <QComboBox>
#include <QJsonDocument>
#include <QLabel>
#include <QListWidget>
#include <QNetworkAccessManager>
#include <QPushButton>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>
#include <QTextBrowser>
#include <QTextDocument>
#include <QTimer>
#include <QToolButton>

#include <memory>

using namespace Quorix;
using namespace Quorix::Testing;
namespace Records = DetailsTestRecords;

namespace {

constexpr int S = Records::Script, E = Records::Environment, W = Records::Weights;

// What the named widget shows for one aspect: "text", "visible", "enabled" or "tip".
QString shown(QWidget *dialog, const QString &name, const QString &aspect)
{
    auto *widget = dialog->findChild<QWidget *>(name);
    if (!widget)
        return "<no " + name + ">";
    if (aspect != "text")
        return aspect == "tip"                                                             ? widget->toolTip()
               : (aspect == "visible" ? widget->isVisibleTo(dialog) : widget->isEnabled()) ? "yes"
                                                                                           : "no";
    if (auto *label = qobject_cast<QLabel *>(widget))
        return label->text();
    if (auto *view = qobject_cast<QTextBrowser *>(widget))
        return view->toPlainText();
    if (auto *button = qobject_cast<QPushButton *>(widget))
        return button->text();
    QStringList items;
    for (int row = 0; row < qobject_cast<QListWidget *>(widget)->count(); ++row)
        items.append(qobject_cast<QListWidget *>(widget)->item(row)->text());
    return items.join(',');
}

QJsonObject json(const QByteArray &text)
{
    return QJsonDocument::fromJson(text).object();
}

std::unique_ptr<ResourceDetailsDialog> dialogFor(int kind, const QJsonObject &changes = {}, bool loadingFirst = true)
{
    std::unique_ptr<ResourceDetailsDialog> dialog(Records::createDialog(kind));
    if (loadingFirst)
        dialog->showLoadingState();
    dialog->setRecord(Records::record(kind, changes));
    return dialog;
}

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

// The details dialogs as the user meets them: the description's markup, what a record looks like, which buttons the
// user gets, the confirmations before destructive actions and the header picture; and the page's side: which dialog a
// card click opens, which reply may fill it, and what the user is told when the details cannot be loaded.
class DetailsTest : public QObject
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

    void keepsHarmlessMarkupAndDropsTheRest_data()
    {
        QTest::addColumn<QString>("input");
        QTest::addColumn<QString>("expected");
        const struct
        {
            const char *tag, *input, *expected;
        } rows[] = {
                {"emphasis", "<b>b</b> <i>i</i> <em>e</em> <strong>s</strong> <u>u</u>",
                 "<b>b</b> <i>i</i> <em>e</em> <strong>s</strong> <u>u</u>"},
                {"upper-case tags", "<B>x</B><BR>", "<b>x</b><br>"},
                {"paragraphs and lists", "<p>a<br/>b</p><ul><li>c</li></ul><ol><li>d</li></ol>",
                 "<p>a<br>b</p><ul><li>c</li></ul><ol><li>d</li></ol>"},
                {"attributes stripped", "<p style=\"color:red\" class=\"w\" onclick=\"x()\">hi</p>", "<p>hi</p>"},
                {"fake warning", "<font size=\"7\" color=\"red\"><span style=\"font-size:40pt\">WARNING</span></font>",
                 "WARNING"},
                {"headings lose their size", "<h1>Title</h1>text", "<p>Title</p>text"},
                {"image dropped", "before<img src=\"http://evil.example/x.png\">after", "beforeafter"},
                {"table flattened", "<table><tr><td>cell</td></tr></table>", "cell"},
                {"fake button", "<a href=\"https://x.example\" style=\"x\"><button>Install</button></a>",
                 "<a href=\"https://x.example\">Install</a>"},
                {"script", "a<script>alert('x')</script>b", "ab"},
                {"unterminated script", "a<script>alert(1)", "a"},
                {"comment", "a<!-- <b>hidden</b> -->b", "ab"},
                {"misnested", "<b><i>x</b>y</i>", "<b><i>x</i></b>y"},
                {"unclosed tags are closed", "<ul><li><b>open", "<ul><li><b>open</b></li></ul>"},
                {"stray closing tag", "x</b></p>y", "xy"},
                {"unterminated tag is text", "a <b class=\"x", "a &lt;b class=&quot;x"},
                {"less-than in text", "1 < 2 > 0", "1 &lt; 2 &gt; 0"},
                {"entities kept", "&amp; &lt;b&gt; &#169; &#x263A; &nbsp;", "&amp; &lt;b&gt; &#169; &#x263A; &nbsp;"},
                {"bare ampersand", "R&D & more", "R&amp;D &amp; more"},
                {"quoted greater-than", "<a href=\"https://x.example/?a=1>2\">l</a>",
                 "<a href=\"https://x.example/?a=1%3E2\">l</a>"},
                {"web link", "<a href='http://x.example/p?q=1&amp;r=2' target=\"_blank\">go</a>",
                 "<a href=\"http://x.example/p?q=1&amp;r=2\">go</a>"},
                {"upper-case scheme", "<a href=\"HTTPS://x.example/\">go</a>", "<a href=\"https://x.example/\">go</a>"},
                {"javascript link", "<a href=\"javascript:alert(1)\">x</a>", "x"},
                {"javascript behind entities", "<a href=\"jav&#x61;script:alert(1)\">x</a>", "x"},
                {"javascript behind blanks", "<a href=\"  JavaScript:alert(1)\">x</a>", "x"},
                {"data link", "<a href=\"data:text/html,<b>x</b>\">x</a>", "x"},
                {"file link", "<a href=\"file:///C:/Windows\">x</a>", "x"},
                {"file link with a host", "<a href=\"file://server/share\">x</a>", "x"},
                {"mail link", "<a href=\"mailto:a@example.com\">x</a>", "x"},
                {"relative link", "<a href=\"/details/1\">x</a>", "x"},
                {"web link without host", "<a href=\"https:///x\">x</a>", "x"},
                {"link without address", "<a name=\"top\">x</a>", "x"},
                {"nested link ends the outer one",
                 "<a href=\"https://a.example\">1<a href=\"https://b.example\">2</a>3</a>",
                 "<a href=\"https://a.example\">12</a>3"},
        };
        for (const auto &row : rows)
            QTest::newRow(row.tag) << QString(row.input) << QString(row.expected);
    }

    void keepsHarmlessMarkupAndDropsTheRest()
    {
        QFETCH(QString, input);
        QFETCH(QString, expected);
        QCOMPARE(RichTextSanitizer::sanitize(input), expected);
        // Links the view may follow are exactly those the sanitized text keeps.
        const QString href = input.section("href=", 1).section(QRegularExpression("[\"']"), 1, 1);
        if (input.contains("href=") && !input.contains("&"))
            QCOMPARE(RichTextSanitizer::isAllowedLink(QUrl(href.trimmed())), expected.contains("href"));
    }

    // Whatever the input, the rendered document holds no image and no font sizes or colours of the author's choosing.
    void renderedResultLoadsNothing()
    {
        QTextDocument document;
        document.setHtml(RichTextSanitizer::sanitize(
                "<div style=\"position:fixed\"><img src=\"https://t.example/p.gif\"><span style=\"font-size:60pt;"
                "color:#f00\">ALERT</span><table border=9><tr><td><input type=button "
                "value=OK></td></tr></table></div>"));
        QCOMPARE(document.toPlainText().trimmed(), "ALERT");
        for (const char *unwanted : {"<img", "60pt", "#ff0000", "<table"})
            QVERIFY2(!document.toHtml().contains(unwanted), unwanted);
    }

    void recordIsShown_data()
    {
        QTest::addColumn<int>("kind");
        QTest::addColumn<QByteArray>("changes");
        QTest::addColumn<QString>("widget");
        QTest::addColumn<QString>("aspect");
        QTest::addColumn<QString>("expected");
        const char *metadata = R"({"qenv_metadata": {"packages": ["numpy==1.26.4", "torch"], "cuda": "12.1"}})";
        const struct
        {
            const char *tag;
            int kind;
            const char *changes, *widget, *aspect, *expected;
        } rows[] = {
                {"counts", S, R"({"downloads": 0, "views": 1500, "likes": 2500000})", "statsLabel", "text",
                 "1.5K views • 2.5M likes"},
                {"installs", E, R"({"downloads": 1200, "views": 0, "likes": 7})", "statsLabel", "text",
                 "1.2K installs • 7 likes"},
                {"version as text", S, R"({"version": "2"})", "versionDateLabel", "text", "v2.00 • Mar 5, 2024"},
                {"version 0", S, R"({"version": 0})", "versionDateLabel", "text", "Mar 5, 2024"},
                {"invalid date", S, R"({"version": 1.5, "created": "x"})", "versionDateLabel", "text", "v1.50 • "},
                {"environments show no version", E, R"({"version": 3})", "versionDateLabel", "text", "Mar 5, 2024"},
                {"type py", S, R"({"type": "py"})", "typeBadge", "text", "PYTHON"},
                {"environment badge", E, "{}", "typeBadge", "text", "QENV"},
                {"size", W, R"({"size": 1572864})", "sizeBadge", "text", "1.5 MB"},
                {"size 0", W, R"({"size": 0})", "sizeBadge", "visible", "no"},
                {"encrypted badge", W, R"({"is_encrypted": 1})", "typeBadge", "text", "ENNX"},
                {"encrypted warning", W, R"({"is_encrypted": 1})", "encryptedLabel", "visible", "yes"},
                {"not encrypted", W, R"({"is_encrypted": false})", "encryptedLabel", "visible", "no"},
                {"no metadata: python", E, "{}", "pythonBadge", "text", "Python 3.x"},
                {"no metadata: packages", E, "{}", "packageCountBadge", "text", "0 packages"},
                {"no metadata: packages box", E, "{}", "packagesBox", "visible", "no"},
                {"no metadata: cuda", E, "{}", "cudaLabel", "visible", "no"},
                {"packages listed", E, metadata, "packagesList", "text", "numpy==1.26.4,torch"},
                {"cuda line", E, metadata, "cudaLabel", "text", "\U0001F3AE CUDA: 12.1"},
                {"private badge", S, R"({"visibility_type": "private"})", "statusBadge", "text", "PRIVATE"},
                {"purchasable badge", W, R"({"visibility_type": "purchasable"})", "statusBadge", "text", "LOCKED"},
                {"public has no badge", S, "{}", "statusBadge", "visible", "no"},
                {"locked script", S, R"({"visibility_type": "purchasable", "can_download": false})", "downloadButton",
                 "tip", "This script is locked. Contact the author for access."},
                {"private environment", E, R"({"visibility_type": "private", "can_download": false})", "installButton",
                 "enabled", "no"},
                {"private weights", W, R"({"visibility_type": "private", "can_download": false})", "downloadButton",
                 "tip", "These weights are private. You need authorization from the author."},
                {"empty description", S, R"({"description": ""})", "descriptionView", "text",
                 "No description provided"},
                {"description markup", E,
                 "{\"description\": \"<b>Fast</b>\\nsecond<img src='http://127.0.0.1:1/x.png'> line\"}",
                 "descriptionView", "text", "Fast\nsecond line"},
                {"no instructions", S, "{}", "instructionsBox", "visible", "no"},
                {"instructions", S, R"({"instructions": "Hold L2\nthen R2"})", "instructionsBox", "visible", "yes"},
                {"tags", S, "{}", "tagsLabel", "text", "#fps  #aim"},
                {"own disclaimer", S, R"({"disclaimer": "Mine."})", "disclaimerLabel", "text", "Mine."},
                {"author as plain text", S, R"({"author": "legacy"})", "authorLabel", "text", "by legacy"},
        };
        for (const auto &row : rows)
            QTest::newRow(row.tag) << row.kind << QByteArray(row.changes) << QString(row.widget) << QString(row.aspect)
                                   << QString(row.expected);
    }

    void recordIsShown()
    {
        QFETCH(int, kind);
        QFETCH(QByteArray, changes);
        QFETCH(QString, widget);
        QFETCH(QString, aspect);
        QFETCH(QString, expected);
        QCOMPARE(shown(dialogFor(kind, json(changes)).get(), widget, aspect), expected);
    }

    // The loading titles of each kind are checked where the page opens the dialogs.
    void loadingStateHidesThePreviousRecord()
    {
        auto dialog = dialogFor(W, json(R"({"visibility_type": "private", "is_encrypted": true})"), false);
        dialog->setCurrentUser(Records::authorId, false);
        dialog->showLoadingState();
        QVERIFY(dialog->resourceId().isEmpty());
        QStringList seen;
        for (const char *name : {"headerImageLabel", "titleLabel", "descriptionView", "authorLabel", "statsLabel"})
            seen << shown(dialog.get(), name, "text");
        for (const char *name :
             {"statusBadge", "encryptedLabel", "deleteButton", "manageAccessButton", "banAuthorButton"})
            seen << shown(dialog.get(), name, "visible");
        for (const char *name : {"downloadButton", "authorButton", "likeButton"})
            seen << shown(dialog.get(), name, "enabled");
        QCOMPARE(seen, (QStringList{"\u23F3", "Loading...", "Loading description...", "", "", "no", "no", "no", "no",
                                    "no", "no", "no", "no"}));
        QCOMPARE(shown(dialog.get(), "versionDateLabel", "text"), QString());
    }

    void ownerButtonsFollowUserAndVisibility_data()
    {
        QTest::addColumn<int>("kind");
        QTest::addColumn<QString>("user");
        QTest::addColumn<bool>("isAdministrator");
        QTest::addColumn<QByteArray>("changes");
        QTest::addColumn<bool>("loading");
        QTest::addColumn<QString>("expected"); // visible: Delete, Manage access, Ban
        const QString owner = Records::authorId, admin = Records::administratorId, stranger = "300000000000000003";
        const char *isPrivate = R"({"visibility_type": "private"})";
        const char *noDiscordId = R"({"author": {"username": "ghost"}})";
        const QByteArray adminOwned
                = QStringLiteral(R"({"visibility_type": "private", "author": {"username": "mod", "discordId": "%1"}})")
                          .arg(admin)
                          .toUtf8();
        QTest::newRow("owner, public") << S << owner << false << QByteArray("{}") << false << "D";
        QTest::newRow("owner, private") << S << owner << false << QByteArray(isPrivate) << false << "DM";
        QTest::newRow("owner, purchasable")
                << E << owner << false << QByteArray(R"({"visibility_type": "purchasable"})") << false << "DM";
        QTest::newRow("owner, is_public false")
                << W << owner << false << QByteArray(R"({"visibility_type": null, "is_public": false})") << false
                << "DM";
        QTest::newRow("owner, while loading") << S << owner << false << QByteArray(isPrivate) << true << "";
        QTest::newRow("administrator, public") << S << admin << true << QByteArray("{}") << false << "DB";
        QTest::newRow("administrator, private") << W << admin << true << QByteArray(isPrivate) << false << "DMB";
        QTest::newRow("administrator's own") << S << admin << true << adminOwned << false << "DM";
        QTest::newRow("administrator, author without ID")
                << E << admin << true << QByteArray(noDiscordId) << false << "D";
        QTest::newRow("stranger, private") << E << stranger << false << QByteArray(isPrivate) << false << "";
        QTest::newRow("stranger, author without ID")
                << S << stranger << false << QByteArray(noDiscordId) << false << "";
        QTest::newRow("signed out administrator flag")
                << S << QString() << true << QByteArray(isPrivate) << false << "";
    }

    void ownerButtonsFollowUserAndVisibility()
    {
        QFETCH(int, kind);
        QFETCH(QString, user);
        QFETCH(bool, isAdministrator);
        QFETCH(QByteArray, changes);
        QFETCH(bool, loading);
        QFETCH(QString, expected);
        auto dialog = dialogFor(kind, json(changes), false);
        if (loading)
            dialog->showLoadingState();
        // The user arrives after the record, as when the host reports a sign-in while the dialog is open.
        dialog->setCurrentUser(user, isAdministrator);
        QString visible;
        for (const char *name : {"deleteButton", "manageAccessButton", "banAuthorButton"}) {
            if (shown(dialog.get(), name, "visible") == "yes")
                visible += QChar(name[0]).toUpper();
        }
        QCOMPARE(visible, expected);
    }

    void destructiveActionsAskFirst_data()
    {
        QTest::addColumn<int>("kind");
        QTest::addColumn<bool>("encrypted");
        QTest::addColumn<QString>("button");
        QTest::addColumn<bool>("yes");
        QTest::addColumn<QStringList>("box"); // title, text, informative text
        QTest::addColumn<QStringList>("emitted"); // empty when nothing may be emitted
        const QStringList id{"res-1"};
        const QStringList banOther{"Ban Author", "Are you sure you want to ban frame_perfect?",
                                   "This will prevent them from uploading any new content to Online Resources."};
        QTest::newRow("delete script, yes")
                << S << false << "deleteButton" << true
                << QStringList{"Delete Script", "Are you sure you want to delete this script?",
                               "The script will be deleted from the Online Resources."}
                << id;
        QTest::newRow("delete environment, no")
                << E << false << "deleteButton" << false
                << QStringList{"Delete Environment", "Are you sure you want to delete this environment?",
                               "The environment definition will be deleted from the Online Resources."}
                << QStringList();
        QTest::newRow("delete weights, yes")
                << W << false << "deleteButton" << true
                << QStringList{"Delete ONNX Weights", "Are you sure you want to delete these ONNX weights?",
                               "The weights will be deleted from the Online Resources."}
                << id;
        QTest::newRow("delete encrypted weights, yes")
                << W << true << "deleteButton" << true
                << QStringList{"Delete ONNX Weights", "⚠️ WARNING: Deleting encrypted weights!",
                               "This action will permanently revoke access for ALL users.\n\n"
                               "• Users who downloaded these weights will no longer be able to use them\n"
                               "• Built engine caches (.eecache) will stop working\n"
                               "• Decryption keys are server-validated and will be rejected\n"
                               "• This cannot be undone\n\nAre you sure you want to delete these weights?"}
                << id;
        QTest::newRow("ban script author, yes")
                << S << false << "banAuthorButton" << true
                << QStringList{"Ban User", "Are you sure you want to ban frame_perfect?",
                               "This will prevent them from uploading any new scripts or resources. Their existing "
                               "uploads will "
                               "remain but be hidden from public listings."}
                << QStringList{Records::authorId, "Banned by administrator from script: Anti-Recoil Pro"};
        QTest::newRow("ban environment author, no")
                << E << false << "banAuthorButton" << false << banOther << QStringList();
        QTest::newRow("ban weights author, yes") << W << false << "banAuthorButton" << true << banOther
                                                 << QStringList{Records::authorId, "Banned via admin action"};
    }

    void destructiveActionsAskFirst()
    {
        QFETCH(int, kind);
        QFETCH(bool, encrypted);
        QFETCH(QString, button);
        QFETCH(bool, yes);
        QFETCH(QStringList, box);
        QFETCH(QStringList, emitted);
        auto dialog = dialogFor(kind, {{"is_encrypted", encrypted}}, false);
        dialog->setCurrentUser(Records::administratorId, true);
        dialog->show();
        QVERIFY(QTest::qWaitForWindowExposed(dialog.get()));
        QSignalSpy deleted(dialog.get(), SIGNAL(deleteRequested(QString)));
        QSignalSpy banned(dialog.get(), SIGNAL(banAuthorRequested(QString, QString)));

        ModalAnswerer answerer;
        answerer.pressButton(yes ? QMessageBox::Yes : QMessageBox::No);
        dialog->findChild<QPushButton *>(button)->click();
        QVERIFY(answerer.answered());
        QCOMPARE((QStringList{answerer.seenTitle(), answerer.seenText(), answerer.seenInformativeText()}), box);
        QCOMPARE(answerer.seenButtons(), (QStringList{"Yes", "No"}));
        QStringList arguments;
        for (const QVariant &argument : deleted.isEmpty() ? banned.value(0) : deleted.first())
            arguments.append(argument.toString());
        QCOMPARE(deleted.size() + banned.size(), emitted.isEmpty() ? 0 : 1);
        QCOMPARE(arguments, emitted);
        QCOMPARE(dialog->isVisible(), emitted.isEmpty());
    }

    void copyingTheMentionShowsCopiedForTwoSeconds()
    {
        auto plain = dialogFor(S, {{"author", "legacy"}});
        QApplication::clipboard()->setText("untouched");
        plain->findChild<QPushButton *>("authorButton")->click();
        QCOMPARE(QApplication::clipboard()->text(), "untouched");

        auto dialog = dialogFor(E);
        auto *author = dialog->findChild<QPushButton *>("authorButton");
        QCOMPARE(author->text(), "Author");
        author->click();
        author->click();
        QCOMPARE(QApplication::clipboard()->text(), "<@" + Records::authorId + ">");
        QCOMPARE(author->text(), "Copied");
        const QList<QTimer *> timers = dialog->findChildren<QTimer *>("copyFeedbackTimer");
        QCOMPARE(timers.size(), 2);
        for (QTimer *timer : timers)
            QVERIFY(timer->isActive() && timer->interval() == 2000);
        QTRY_COMPARE_WITH_TIMEOUT(author->text(), "Author", 5000);
        QTRY_VERIFY_WITH_TIMEOUT(dialog->findChildren<QTimer *>("copyFeedbackTimer").isEmpty(), 5000);
        QCOMPARE(author->text(), "Author");
    }

    void paletteChangeRefetchesTheIcons()
    {
        auto dialog = dialogFor(E);
        dialog->setLikeState(true, 4);
        const char *themed[] = {"authorButton", "installButton", "likeButton"};
        QList<qint64> before;
        for (const char *name : themed)
            before.append(dialog->findChild<QPushButton *>(name)->icon().cacheKey());
        QPalette dark = dialog->palette();
        dark.setColor(QPalette::Window, QColor(0x20, 0x22, 0x25));
        dark.setColor(QPalette::Text, Qt::white);
        dialog->setPalette(dark);
        for (int index = 0; index < 3; ++index)
            QVERIFY2(dialog->findChild<QPushButton *>(themed[index])->icon().cacheKey() != before.at(index),
                     themed[index]);
        QCOMPARE(shown(dialog.get(), "likeButton", "text"), "Unlike");
    }

    void headerImageOrPlaceholder_data()
    {
        QTest::addColumn<QByteArray>("images");
        QTest::addColumn<QByteArray>("served");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("requested");
        const QByteArray png = BrowserTestData::png({64, 32}, Qt::red);
        const QByteArray header = R"({"header": {"url": "%1/header.png"}})";
        QTest::newRow("header preferred")
                << QByteArray(R"({"header": {"url": "%1/header.png"}, "thumbnail": {"url": "%1/t.png"}})") << png << 200
                << "/header.png";
        QTest::newRow("thumbnail without header")
                << QByteArray(R"({"thumbnail": {"url": "%1/t.png"}})") << png << 200 << "/t.png";
        QTest::newRow("server error") << header << png << 404 << "/header.png";
        QTest::newRow("undecodable bytes") << header << QByteArray("not a picture") << 200 << "/header.png";
        QTest::newRow("no address") << QByteArray("{}") << png << 200 << "";
    }

    void headerImageOrPlaceholder()
    {
        QFETCH(QByteArray, images);
        QFETCH(QByteArray, served);
        QFETCH(int, status);
        QFETCH(QString, requested);
        server.reset();
        server.setDefaultResponse(ScriptedResponse::bytes(served, "image/png", status));
        auto dialog = dialogFor(W, {{"images", json(QString(images).arg(server.origin()).toUtf8())}});
        auto *header = dialog->findChild<QLabel *>("headerImageLabel");
        if (!requested.isEmpty()) {
            QVERIFY(server.waitForRequests(1));
            QCOMPARE(server.lastRequest().path(), requested);
            QTRY_VERIFY(dialog->findChildren<QNetworkAccessManager *>().isEmpty());
        }
        QCOMPARE(server.requestCount(), requested.isEmpty() ? 0 : 1);
        const QImage picture = header->pixmap().toImage();
        if (status == 200 && served == BrowserTestData::png({64, 32}, Qt::red) && !requested.isEmpty())
            QCOMPARE(picture.pixelColor(picture.width() / 2, picture.height() / 2), QColor(Qt::red));
        else
            QVERIFY(picture.isNull() && header->text() == "\U0001F5BC\uFE0F");
    }

    void headerReplyForAReplacedRecordIsIgnored()
    {
        server.reset();
        server.setRule("/first.png",
                       ScriptedResponse::bytes(BrowserTestData::png({64, 32}, Qt::blue), "image/png").withDelay(600));
        server.setRule("/second.png", ScriptedResponse::bytes(BrowserTestData::png({64, 32}, Qt::green), "image/png"));
        const auto withHeader = [this](const char *id, const char *path) {
            return Records::record(
                    S, {{"id", id},
                        {"images", QJsonObject{{"header", QJsonObject{{"url", server.url(path).toString()}}}}}});
        };
        auto dialog = dialogFor(S);
        dialog->setRecord(withHeader("first", "/first.png"));
        QVERIFY(server.waitForRequests(1));
        dialog->setRecord(withHeader("second", "/second.png"));
        // Both replies have arrived once both fetches have released their network managers.
        QTRY_VERIFY_WITH_TIMEOUT(dialog->findChildren<QNetworkAccessManager *>().isEmpty(), 5000);
        QCOMPARE(server.requestCount(), 2);
        const QImage picture = dialog->findChild<QLabel *>("headerImageLabel")->pixmap().toImage();
        QCOMPARE(picture.pixelColor(picture.width() / 2, picture.height() / 2), QColor(Qt::green));
    }
};

QTEST_MAIN(DetailsTest)
#include "tst_details.moc"
