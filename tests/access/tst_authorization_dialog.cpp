#include "ModalAnswerer.h"
#include "RecordingHttpServer.h"
#include "TemporaryHome.h"
#include "TestFiles.h"
#include "access/AuthorizationManagementDialog.h"
#include "api/OnlineResourcesAPI.h"

#include <QCheckBox>
#include <QDate>
#include <QJsonArray>
#include <QJsonDocument>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPointer>
#include <QPushButton>
#include <QSignalSpy>
#include <QTest>

#include <memory>
#include <vector>

using namespace Quorix;
using namespace Quorix::Testing;

namespace {

const QString listPath = QStringLiteral("/api/scripts/authorizations/res-1");

QJsonObject person(qint64 index)
{
    return {{"discord_id", QString::number(300000000000000000LL + index)},
            {"username", QStringLiteral("user%1").arg(index)},
            {"user_id", index + 1}};
}

QJsonObject page(int offset, int count, int total, bool paged = true)
{
    QJsonArray records;
    for (int i = offset; i < offset + count; ++i)
        records.append(person(i));
    QJsonObject data{{"authorizations", records}};
    if (paged)
        data.insert("pagination",
                    QJsonObject{{"offset", offset}, {"total", total}, {"has_more", offset + count < total}});
    return {{"success", true}, {"data", data}};
}

} // namespace

// The dialog against a scripted server: what it asks for, what it shows, and what it tells the user.
class TestAuthorizationDialog : public QObject
{
    Q_OBJECT

    TemporaryHome home;
    RecordingHttpServer server;
    std::unique_ptr<OnlineResourcesAPI> api;
    QPointer<AuthorizationManagementDialog> dialog;

    template<typename T>
    T *child(const char *name) const
    {
        return dialog->findChild<T *>(QLatin1String(name));
    }

    QList<RecordedRequest> requestsTo(const QString &path) const
    {
        QList<RecordedRequest> matching = server.requests();
        matching.removeIf([&path](const RecordedRequest &request) { return request.path() != path; });
        return matching;
    }

    // Answers the next list requests in order: the first one to loadAuthorizations(), the others to Load More.
    void loadPages(const QJsonArray &replies)
    {
        QSignalSpy loaded(api.get(), &OnlineResourcesAPI::scriptAuthorizationsLoaded);
        for (const QJsonValue &answer : replies) {
            server.enqueue(ScriptedResponse::json(answer.toObject()));
            const qsizetype before = loaded.size();
            if (before == 0)
                dialog->loadAuthorizations();
            else
                child<QPushButton>("loadMoreButton")->click();
            QTRY_VERIFY(loaded.size() > before);
        }
    }

    // Clicks the button and presses one answer on each box that follows, in order; returns each box's title and
    // text. All answerers are armed first, since a later box may open inside a nested event loop.
    QList<QStringList> boxesAfterClicking(const char *button,
                                          const QList<QMessageBox::StandardButton> &answers = {QMessageBox::Ok})
    {
        std::vector<std::unique_ptr<ModalAnswerer>> answerers;
        for (QMessageBox::StandardButton answer : answers) {
            answerers.push_back(std::make_unique<ModalAnswerer>());
            answerers.back()->pressButton(answer, 10000);
        }
        child<QPushButton>(button)->click();
        QList<QStringList> seen;
        for (const auto &answerer : answerers) {
            answerer->waitForAnswer(10000);
            seen.append({answerer->seenTitle(), answerer->seenText()});
        }
        return seen;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(server.listen());
        qputenv("QUORIX_SERVER_URL", server.origin().toUtf8());
    }

    void init()
    {
        server.reset();
        server.setDefaultResponse(ScriptedResponse::json(page(0, 0, 0)));
        api = std::make_unique<OnlineResourcesAPI>();
        dialog = new AuthorizationManagementDialog(api.get(), "res-1", "Res");
        dialog->show();
    }

    void cleanup()
    {
        delete dialog;
        api.reset();
    }

    void searchFollowsTheField_data()
    {
        QTest::addColumn<QStringList>("edits");
        QTest::addColumn<QStringList>("searchesSent");
        QTest::addColumn<QString>("status");
        QTest::newRow("one character") << QStringList{"a"} << QStringList{} << "No users currently authorized";
        QTest::newRow("two characters") << QStringList{" ab "} << QStringList{"ab"} << "No results found for 'ab'";
        QTest::newRow("cleared after a search")
                << QStringList{"ab", ""} << QStringList{"ab", ""} << "No users currently authorized";
        QTest::newRow("cleared after one character")
                << QStringList{"a", ""} << QStringList{} << "No users currently authorized";
    }

    void searchFollowsTheField()
    {
        QFETCH(QStringList, edits);
        QFETCH(QStringList, searchesSent);
        QFETCH(QString, status);
        loadPages({page(0, 0, 0)});
        for (const QString &edit : edits) {
            child<QLineEdit>("searchEdit")->setText(edit);
            QTest::qWait(700); // beyond the 400 ms debounce
        }
        QStringList searches;
        for (const RecordedRequest &request : requestsTo(listPath).mid(1))
            searches.append(request.query().queryItemValue("search"));
        QCOMPARE(searches, searchesSent);
        QTRY_COMPARE(child<QLabel>("statusLabel")->text(), status);
    }

    void pagesReplaceOrAppend_data()
    {
        QTest::addColumn<QJsonArray>("replies");
        QTest::addColumn<int>("rows");
        QTest::addColumn<QString>("loadMore");
        QTest::addColumn<QString>("status");
        QTest::addColumn<QString>("offsetsSent");
        const QJsonObject first = page(0, 500, 1234), second = page(500, 500, 1234);
        QTest::newRow("first of three") << QJsonArray{first} << 500 << "Load More (500 of 1234)..."
                                        << "Showing 500 of 1234 user(s)" << "0";
        QTest::newRow("later offset appends") << QJsonArray{first, second} << 1000 << "Load More (1000 of 1234)..."
                                              << "Showing 1000 of 1234 user(s)" << "0,500";
        QTest::newRow("last page hides the button") << QJsonArray{first, second, page(1000, 234, 1234)} << 1234 << ""
                                                    << "1234 user(s) authorized" << "0,500,1000";
        QTest::newRow("offset 0 replaces") << QJsonArray{first, page(0, 3, 3)} << 3 << "" << "3 user(s) authorized"
                                           << "0,500";
        QTest::newRow("no pagination") << QJsonArray{first, page(0, 7, 0, false)} << 7 << "" << "7 user(s) authorized"
                                       << "0,500";
    }

    void pagesReplaceOrAppend()
    {
        QFETCH(QJsonArray, replies);
        QFETCH(int, rows);
        QFETCH(QString, loadMore);
        QFETCH(QString, status);
        QFETCH(QString, offsetsSent);
        loadPages(replies);
        QCOMPARE(child<QListWidget>("authorizationList")->count(), rows);
        const QPushButton *more = child<QPushButton>("loadMoreButton");
        QCOMPARE(more->isVisible() ? more->text() : QString(), loadMore);
        QCOMPARE(child<QLabel>("statusLabel")->text(), status);
        QStringList offsets;
        for (const RecordedRequest &request : requestsTo(listPath)) {
            QCOMPARE(request.query().queryItemValue("limit"), "500");
            offsets.append(request.query().queryItemValue("offset"));
        }
        QCOMPARE(offsets.join(','), offsetsSent);
    }

    void grantReportsTheOutcome_data()
    {
        QTest::addColumn<QString>("discordId");
        QTest::addColumn<bool>("expires");
        QTest::addColumn<QJsonObject>("answer");
        QTest::addColumn<QStringList>("box");
        const QString taken = QStringLiteral("User with Discord ID %1 is already authorized/pending.");
        const QString id0 = "300000000000000000", id1 = "300000000000000001";
        QTest::newRow("duplicate of a loaded row")
                << id0 << false << QJsonObject() << QStringList{"Error", taken.arg(id0)};
        QTest::newRow("duplicate on a page not loaded")
                << id1 << false << QJsonObject{{"success", false}, {"error", taken.arg(id1)}}
                << QStringList{"Error", taken.arg(id1)};
        QTest::newRow("pending grant shows its code")
                << "812345678901234567" << false
                << QJsonObject{{"success", true},
                               {"message", "Not signed in yet."},
                               {"pending", true},
                               {"authorization_code", "AB12CD"}}
                << QStringList{"Success", "Not signed in yet.\n\nAuthorization code: AB12CD"};
        QTest::newRow("grant with an expiry")
                << "412345678901234567" << true << QJsonObject{{"success", true}, {"message", "Access granted"}}
                << QStringList{"Success", "Access granted"};
    }

    void grantReportsTheOutcome()
    {
        QFETCH(QString, discordId);
        QFETCH(bool, expires);
        QFETCH(QJsonObject, answer);
        QFETCH(QStringList, box);
        loadPages({page(0, 1, 2)});
        const QString grantPath = "/api/scripts/authorize/res-1";
        server.setRule(grantPath, ScriptedResponse::json(answer));
        QSignalSpy changed(dialog.data(), &AuthorizationManagementDialog::authorizationChanged);
        child<QLineEdit>("discordIdEdit")->setText(discordId);
        child<QCheckBox>("expiresCheckBox")->setChecked(expires);

        QCOMPARE(boxesAfterClicking("grantButton"), QList<QStringList>{box});
        const bool granted = answer.value("success").toBool();
        QCOMPARE(changed.size(), granted ? 1 : 0);
        QCOMPARE(child<QLineEdit>("discordIdEdit")->text().isEmpty(), granted);
        const QList<RecordedRequest> grants = requestsTo(grantPath);
        QCOMPARE(grants.size(), answer.isEmpty() ? 0 : 1);
        if (grants.isEmpty())
            return;
        const QJsonObject sent = QJsonDocument::fromJson(grants.first().body).object();
        QCOMPARE(sent.value("discord_id").toString(), discordId);
        QCOMPARE(sent.value("expires_at").toString().left(10),
                 expires ? QDate::currentDate().addDays(30).toString(Qt::ISODate) : QString());
        QTRY_COMPARE(requestsTo(listPath).size(), granted ? 2 : 1);
    }

    void revokeSendsTheBestHandle_data()
    {
        QTest::addColumn<QJsonValue>("userId");
        QTest::addColumn<QJsonValue>("sent");
        QTest::newRow("numeric user id") << QJsonValue(42) << QJsonValue(42);
        QTest::newRow("pending, no user id") << QJsonValue() << QJsonValue("300000000000000000");
    }

    void revokeSendsTheBestHandle()
    {
        QFETCH(QJsonValue, userId);
        QFETCH(QJsonValue, sent);
        QJsonObject record = person(0);
        record.remove("user_id");
        if (!userId.isNull())
            record.insert("user_id", userId);
        else
            record.insert("status", "pending");
        loadPages({QJsonObject{{"success", true}, {"data", QJsonObject{{"authorizations", QJsonArray{record}}}}}});
        server.setRule("/api/scripts/revoke/res-1",
                       ScriptedResponse::json({{"success", true}, {"message", "Authorization revoked"}}));
        QSignalSpy changed(dialog.data(), &AuthorizationManagementDialog::authorizationChanged);
        child<QListWidget>("authorizationList")->setCurrentRow(0);
        QCOMPARE(child<QListWidget>("authorizationList")->item(0)->text().section('\n', 0, 0),
                 userId.isNull() ? "user0 (@user0) [PENDING]" : "user0 (@user0)");

        QCOMPARE(boxesAfterClicking("revokeButton", {QMessageBox::Yes, QMessageBox::Ok}),
                 (QList<QStringList>{
                         {"Revoke Authorization", "Are you sure you want to revoke authorization for user0?"},
                         {"Success", "Authorization revoked"}}));
        const QList<RecordedRequest> revokes = requestsTo("/api/scripts/revoke/res-1");
        QCOMPARE(revokes.size(), 1);
        QCOMPARE(QJsonDocument::fromJson(revokes.first().body).object(),
                 (QJsonObject{{"user_id", sent}, {"reason", "Revoked by script author"}}));
        QCOMPARE(changed.size(), 1);
    }

    void exportOfSomePagesSaysSo()
    {
        loadPages({page(0, 500, 1234)});
        const QString path = home.filePath("out.json");
        ModalAnswerer chooser;
        chooser.chooseFile(path);
        QCOMPARE(boxesAfterClicking("exportButton").first(),
                 (QStringList{"Success", "Exported 500 of 1234 authorization(s) to file.\n\nNote: Only loaded records "
                                         "were exported. Click 'Load More' to load all before exporting."}));
        QCOMPARE(QJsonDocument::fromJson(TestFiles::read(path)).object().value("authorizations").toArray().size(), 500);
    }

    void importReportsWhatTheServerDid_data()
    {
        QTest::addColumn<QByteArray>("file");
        QTest::addColumn<QStringList>("sent");
        QTest::addColumn<QList<QStringList>>("boxes");
        const QString counts
                = "Import complete:\n• Granted: 1\n• Already authorized: 1\n• Not found (user hasn't signed in): 1";
        QTest::newRow("three ids")
                << QByteArray("discord_id,username\n111111111111111111,a\n222222222222222222,b\n333333333333333333,c\n")
                << QStringList{"111111111111111111", "222222222222222222", "333333333333333333"}
                << QList<QStringList>{{"Import Authorizations",
                                       "Found 3 Discord ID(s) to import.\n\nThe server will skip "
                                       "any that are already authorized.\nProceed with bulk import?"},
                                      {"Success", counts}};
        QTest::newRow("no ids") << QByteArray("\x01\x02 nothing 1234567890123456\n") << QStringList()
                                << QList<QStringList>{{"Error", "No valid Discord IDs found in the file."}};
    }

    void importReportsWhatTheServerDid()
    {
        QFETCH(QByteArray, file);
        QFETCH(QStringList, sent);
        QFETCH(QList<QStringList>, boxes);
        loadPages({page(0, 0, 0)});
        const QString bulkPath = "/api/scripts/bulk-authorize/res-1";
        server.setRule(bulkPath,
                       ScriptedResponse::json(
                               {{"success", true},
                                {"data", QJsonObject{{"granted", 1}, {"already_authorized", 1}, {"not_found", 1}}}}));
        const QString path = home.filePath("ids.csv");
        QVERIFY(TestFiles::write(path, file));
        QSignalSpy changed(dialog.data(), &AuthorizationManagementDialog::authorizationChanged);
        ModalAnswerer chooser;
        chooser.chooseFile(path);
        QCOMPARE(boxesAfterClicking("importButton",
                                    sent.isEmpty() ? QList{QMessageBox::Ok} : QList{QMessageBox::Yes, QMessageBox::Ok}),
                 boxes);
        const QList<RecordedRequest> bulk = requestsTo(bulkPath);
        QCOMPARE(bulk.size(), sent.isEmpty() ? 0 : 1);
        if (sent.isEmpty())
            return;
        QCOMPARE(QJsonDocument::fromJson(bulk.first().body).object().value("discord_ids").toVariant().toStringList(),
                 sent);
        QCOMPARE(changed.size(), 1);
        QTRY_COMPARE(requestsTo(listPath).size(), 2);
    }
};

QTEST_MAIN(TestAuthorizationDialog)
#include "tst_authorization_dialog.moc"
