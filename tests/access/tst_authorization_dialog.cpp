#include "BoxAnswers.h"
#include "RecordingHttpServer.h"
#include "TemporaryHome.h"
#include "access/AuthorizationManagementDialog.h"
#include "api/OnlineResourcesAPI.h"

#include <QCheckBox>
#include <QDate>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPointer>
#include <QPushButton>
#include <QSignalSpy>
#include <QTest>

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

QJsonObject reply(bool success, const QString &text, QJsonObject extra = {})
{
    extra.insert("success", success);
    extra.insert(success ? "message" : "error", text);
    return extra;
}

} // namespace

// The dialog against a scripted server: what it asks for, what it shows, and what it tells the user.
class TestAuthorizationDialog : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<TemporaryHome> home;
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
        QList<RecordedRequest> matching;
        for (const RecordedRequest &request : server.requests()) {
            if (request.path() == path)
                matching.append(request);
        }
        return matching;
    }

    // Answers the next list requests in order: the first one to loadAuthorizations(), the others to Load More.
    void loadPages(const QJsonArray &replies)
    {
        QSignalSpy loaded(api.get(), &OnlineResourcesAPI::scriptAuthorizationsLoaded);
        for (const QJsonValue &answer : replies) {
            server.enqueue(ScriptedResponse::json(answer.toObject()));
            if (loaded.isEmpty())
                dialog->loadAuthorizations();
            else
                child<QPushButton>("loadMoreButton")->click();
            const qsizetype before = loaded.size();
            QTRY_VERIFY(loaded.size() > before);
        }
    }

    QStringList boxAfterClicking(const char *button)
    {
        return answerBoxes([this, button] { child<QPushButton>(button)->click(); }, {QMessageBox::Ok}).first();
    }

private slots:
    void initTestCase()
    {
        home = std::make_unique<TemporaryHome>();
        QVERIFY(server.listen());
        qputenv("QUORIX_SERVER_URL", server.origin().toUtf8());
    }

    void init()
    {
        server.reset();
        server.setDefaultResponse(ScriptedResponse::json(page(0, 0, 0)));
        api = std::make_unique<OnlineResourcesAPI>();
        dialog = new AuthorizationManagementDialog(api.get(), QStringLiteral("res-1"), QStringLiteral("Res"));
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
        QTest::newRow("cleared while a search is shown")
                << QStringList{"ab", ""} << QStringList{"ab", ""} << "No users currently authorized";
        QTest::newRow("cleared while the full list is shown")
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
        const QJsonObject first = page(0, 500, 1234);
        QTest::newRow("first of three pages") << QJsonArray{first} << 500 << "Load More (500 of 1234)..."
                                              << "Showing 500 of 1234 user(s)"
                                              << "0";
        QTest::newRow("later offset appends")
                << QJsonArray{first, page(500, 500, 1234)} << 1000 << "Load More (1000 of 1234)..."
                << "Showing 1000 of 1234 user(s)"
                << "0,500";
        QTest::newRow("last page hides the button")
                << QJsonArray{first, page(500, 500, 1234), page(1000, 234, 1234)} << 1234 << ""
                << "1234 user(s) authorized"
                << "0,500,1000";
        QTest::newRow("offset 0 replaces") << QJsonArray{first, page(0, 3, 3)} << 3 << ""
                                           << "3 user(s) authorized"
                                           << "0,500";
        QTest::newRow("no pagination") << QJsonArray{first, page(0, 7, 0, false)} << 7 << ""
                                       << "7 user(s) authorized"
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
            QCOMPARE(request.query().queryItemValue("limit"), QStringLiteral("500"));
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
        QTest::newRow("duplicate of a loaded row") << "300000000000000000" << false << QJsonObject()
                                                   << QStringList{"Error", taken.arg("300000000000000000")};
        QTest::newRow("duplicate on a page not loaded")
                << "300000000000000001" << false << reply(false, taken.arg("300000000000000001"))
                << QStringList{"Error", taken.arg("300000000000000001")};
        QTest::newRow("pending grant shows its code")
                << "812345678901234567" << false
                << reply(true, "Not signed in yet.", {{"pending", true}, {"authorization_code", "AB12CD"}})
                << QStringList{"Success", "Not signed in yet.\n\nAuthorization code: AB12CD"};
        QTest::newRow("grant with an expiry") << "412345678901234567" << true << reply(true, "Access granted")
                                              << QStringList{"Success", "Access granted"};
    }

    void grantReportsTheOutcome()
    {
        QFETCH(QString, discordId);
        QFETCH(bool, expires);
        QFETCH(QJsonObject, answer);
        QFETCH(QStringList, box);
        loadPages({page(0, 1, 2)});
        const QString grantPath = QStringLiteral("/api/scripts/authorize/res-1");
        server.setRule(grantPath, ScriptedResponse::json(answer));
        QSignalSpy changed(dialog.data(), &AuthorizationManagementDialog::authorizationChanged);
        child<QLineEdit>("discordIdEdit")->setText(discordId);
        child<QCheckBox>("expiresCheckBox")->setChecked(expires);

        QCOMPARE(boxAfterClicking("grantButton"), box);
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
        loadPages({QJsonObject{{"success", true}, {"data", QJsonObject{{"authorizations", QJsonArray{record}}}}}});
        server.setRule("/api/scripts/revoke/res-1", ScriptedResponse::json(reply(true, "Authorization revoked")));
        QSignalSpy changed(dialog.data(), &AuthorizationManagementDialog::authorizationChanged);
        child<QListWidget>("authorizationList")->setCurrentRow(0);

        const QList<QStringList> boxes = answerBoxes([this] { child<QPushButton>("revokeButton")->click(); },
                                                     {QMessageBox::Yes, QMessageBox::Ok});
        QCOMPARE(boxes, (QList<QStringList>{
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
        const QString path = home->filePath(QStringLiteral("out.json"));
        ModalAnswerer chooser;
        chooser.chooseFile(path);
        QCOMPARE(boxAfterClicking("exportButton"),
                 (QStringList{"Success", "Exported 500 of 1234 authorization(s) to file.\n\nNote: Only loaded records "
                                         "were exported. Click 'Load More' to load all before exporting."}));
        QFile file(path);
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(QJsonDocument::fromJson(file.readAll()).object().value("authorizations").toArray().size(), 500);
    }

    void importWithoutIdsSendsNothing()
    {
        QFile file(home->filePath(QStringLiteral("garbage.txt")));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("\x01\x02 nothing 1234567890123456\n");
        file.close();
        ModalAnswerer chooser;
        chooser.chooseFile(file.fileName());
        QCOMPARE(boxAfterClicking("importButton"), (QStringList{"Error", "No valid Discord IDs found in the file."}));
        QVERIFY(requestsTo("/api/scripts/bulk-authorize/res-1").isEmpty());
    }
};

QTEST_MAIN(TestAuthorizationDialog)
#include "tst_authorization_dialog.moc"
