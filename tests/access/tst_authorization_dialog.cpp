#include "ModalAnswerer.h"
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
#include <QPlainTextEdit>
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
    return {{QStringLiteral("discord_id"), QString::number(300000000000000000LL + index)},
            {QStringLiteral("username"), QStringLiteral("user%1").arg(index)},
            {QStringLiteral("status"), QStringLiteral("active")},
            {QStringLiteral("download_count"), 0},
            {QStringLiteral("user_id"), index + 1}};
}

QJsonObject page(int offset, int count, int total)
{
    QJsonArray records;
    for (int i = offset; i < offset + count; ++i)
        records.append(person(i));
    const QJsonObject pagination{{QStringLiteral("offset"), offset},
                                 {QStringLiteral("total"), total},
                                 {QStringLiteral("has_more"), offset + count < total}};
    return {{QStringLiteral("success"), true},
            {QStringLiteral("data"),
             QJsonObject{{QStringLiteral("authorizations"), records}, {QStringLiteral("pagination"), pagination}}}};
}

QJsonObject reply(bool success, const QString &text, const QJsonObject &extra = {})
{
    QJsonObject object = extra;
    object.insert(QStringLiteral("success"), success);
    object.insert(success ? QStringLiteral("message") : QStringLiteral("error"), text);
    return object;
}

QJsonObject body(const RecordedRequest &request)
{
    return QJsonDocument::fromJson(request.body).object();
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

    // Answers the next list requests with replies, the first one to loadAuthorizations(), the others to Load More.
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

    // Presses one button on each box that follows action, in order, and returns each box's title and text.
    static QList<QStringList> boxesAfter(const std::function<void()> &action,
                                         const QList<QMessageBox::StandardButton> &buttons)
    {
        std::vector<std::unique_ptr<ModalAnswerer>> answerers;
        for (QMessageBox::StandardButton button : buttons) {
            answerers.push_back(std::make_unique<ModalAnswerer>());
            answerers.back()->pressButton(button);
        }
        action();
        QList<QStringList> seen;
        for (const auto &answerer : answerers) {
            answerer->waitForAnswer();
            seen.append({answerer->seenTitle(), answerer->seenText()});
        }
        return seen;
    }

    static QStringList boxAfter(const std::function<void()> &action)
    {
        return boxesAfter(action, {QMessageBox::Ok}).first();
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
        api->authToken = QStringLiteral("token");
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
            QTest::qWait(700);
        }
        QStringList searches;
        for (const RecordedRequest &request : requestsTo(listPath).mid(1))
            searches.append(request.query().queryItemValue(QStringLiteral("search")));
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
        QTest::addColumn<QString>("error");
        const QJsonObject first = page(0, 500, 1234);
        QTest::newRow("first of three pages") << QJsonArray{first} << 500 << "Load More (500 of 1234)..."
                                              << "Showing 500 of 1234 user(s)"
                                              << "0"
                                              << "";
        QTest::newRow("later offset appends")
                << QJsonArray{first, page(500, 500, 1234)} << 1000 << "Load More (1000 of 1234)..."
                << "Showing 1000 of 1234 user(s)"
                << "0,500"
                << "";
        QTest::newRow("last page hides the button")
                << QJsonArray{first, page(500, 500, 1234), page(1000, 234, 1234)} << 1234 << ""
                << "1234 user(s) authorized"
                << "0,500,1000"
                << "";
        QTest::newRow("offset 0 replaces") << QJsonArray{first, page(0, 3, 3)} << 3 << ""
                                           << "3 user(s) authorized"
                                           << "0,500"
                                           << "";
        QJsonObject unpaged = page(0, 7, 7);
        QJsonObject data = unpaged.value(QStringLiteral("data")).toObject();
        data.remove(QStringLiteral("pagination"));
        unpaged.insert(QStringLiteral("data"), data);
        QTest::newRow("no pagination") << QJsonArray{first, unpaged} << 7 << ""
                                       << "7 user(s) authorized"
                                       << "0,500"
                                       << "";
        QTest::newRow("failure keeps what is loaded")
                << QJsonArray{first, reply(false, "Catalogue busy")} << 500 << "Loading..."
                << "Showing 500 of 1234 user(s)"
                << "0,500"
                << "Catalogue busy";
    }

    void pagesReplaceOrAppend()
    {
        QFETCH(QJsonArray, replies);
        QFETCH(int, rows);
        QFETCH(QString, loadMore);
        QFETCH(QString, status);
        QFETCH(QString, offsetsSent);
        QFETCH(QString, error);
        ModalAnswerer answerer;
        answerer.pressButton(QMessageBox::Ok, 10000);
        loadPages(replies);
        if (!error.isEmpty()) {
            QVERIFY(answerer.waitForAnswer());
            QCOMPARE(answerer.seenText(), error);
        }
        QCOMPARE(child<QListWidget>("authorizationList")->count(), rows);
        QCOMPARE(child<QPushButton>("loadMoreButton")->isVisible(), !loadMore.isEmpty());
        if (!loadMore.isEmpty())
            QCOMPARE(child<QPushButton>("loadMoreButton")->text(), loadMore);
        QCOMPARE(child<QLabel>("statusLabel")->text(), status);
        QStringList offsets;
        for (const RecordedRequest &request : requestsTo(listPath)) {
            offsets.append(request.query().queryItemValue(QStringLiteral("offset")));
            QCOMPARE(request.query().queryItemValue(QStringLiteral("limit")), QStringLiteral("500"));
        }
        QCOMPARE(offsets.join(QLatin1Char(',')), offsetsSent);
    }

    void rowsShowWhatIsKnown_data()
    {
        QTest::addColumn<QJsonObject>("record");
        QTest::addColumn<QString>("text");
        QTest::newRow("pending with everything")
                << QJsonObject{{"discord_id", "812345678901234567"},
                               {"username", "ann"},
                               {"global_name", "Ann"},
                               {"status", "pending"},
                               {"download_count", 3},
                               {"authorization_notes", "VIP, paid"},
                               {"expires_at", "2027-01-07T10:00:00Z"}}
                << "Ann (@ann) [PENDING]\nID: 812345678901234567\nDownloads: 3\nNotes: VIP, paid\nExpires: 2027-01-07";
        QTest::newRow("plain active") << QJsonObject{{"discord_id", "1"},
                                                     {"username", "bob"},
                                                     {"global_name", ""},
                                                     {"status", "Pending"},
                                                     {"expires_at", ""}}
                                      << "bob (@bob)\nID: 1\nDownloads: 0";
    }

    void rowsShowWhatIsKnown()
    {
        QFETCH(QJsonObject, record);
        QFETCH(QString, text);
        loadPages({QJsonObject{{"success", true}, {"data", QJsonObject{{"authorizations", QJsonArray{record}}}}}});
        QCOMPARE(child<QListWidget>("authorizationList")->item(0)->text(), text);
    }

    void grantNeedsAWholeId_data()
    {
        QTest::addColumn<QString>("typed");
        QTest::addColumn<bool>("enabled");
        QTest::newRow("16 digits") << "1234567890123456" << false;
        QTest::newRow("17 digits") << "12345678901234567" << true;
        QTest::newRow("20 digits, padded") << "  12345678901234567890 " << true;
        QTest::newRow("21 digits") << "123456789012345678901" << false;
        QTest::newRow("letters") << "12345678901234567a" << false;
    }

    void grantNeedsAWholeId()
    {
        QFETCH(QString, typed);
        QFETCH(bool, enabled);
        child<QLineEdit>("discordIdEdit")->setText(typed);
        QCOMPARE(child<QPushButton>("grantButton")->isEnabled(), enabled);
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
        QTest::newRow("grant with an expiry")
                << "412345678901234567" << true << reply(true, "Access granted", {{"pending", false}})
                << QStringList{"Success", "Access granted"};
    }

    void grantReportsTheOutcome()
    {
        QFETCH(QString, discordId);
        QFETCH(bool, expires);
        QFETCH(QJsonObject, answer);
        QFETCH(QStringList, box);
        loadPages({page(0, 1, 2)});
        server.setRule(QStringLiteral("/api/scripts/authorize/res-1"), ScriptedResponse::json(answer));
        QSignalSpy changed(dialog.data(), &AuthorizationManagementDialog::authorizationChanged);
        child<QLineEdit>("discordIdEdit")->setText(discordId);
        child<QPlainTextEdit>("notesEdit")->setPlainText(QStringLiteral("note"));
        child<QCheckBox>("expiresCheckBox")->setChecked(expires);

        QCOMPARE(boxAfter([this] { child<QPushButton>("grantButton")->click(); }), box);
        const QList<RecordedRequest> grants = requestsTo(QStringLiteral("/api/scripts/authorize/res-1"));
        QCOMPARE(grants.size(), answer.isEmpty() ? 0 : 1);
        const bool granted = answer.value(QStringLiteral("success")).toBool();
        QCOMPARE(changed.size(), granted ? 1 : 0);
        QCOMPARE(child<QLineEdit>("discordIdEdit")->text().isEmpty(), granted);
        if (grants.isEmpty())
            return;
        const QJsonObject sent = body(grants.first());
        QCOMPARE(sent.value(QStringLiteral("discord_id")).toString(), discordId);
        QCOMPARE(sent.value(QStringLiteral("notes")).toString(), QStringLiteral("note"));
        QCOMPARE(sent.value(QStringLiteral("expires_at")).toString().left(10),
                 expires ? QDate::currentDate().addDays(30).toString(Qt::ISODate) : QString());
        QTRY_COMPARE(requestsTo(listPath).size(), granted ? 2 : 1);
    }

    void revokeSendsTheBestHandle_data()
    {
        QTest::addColumn<QJsonValue>("userId");
        QTest::addColumn<int>("answer");
        QTest::addColumn<QJsonValue>("sent");
        QTest::newRow("numeric user id") << QJsonValue(42) << int(QMessageBox::Yes) << QJsonValue(42);
        QTest::newRow("pending, no user id")
                << QJsonValue() << int(QMessageBox::Yes) << QJsonValue(QStringLiteral("300000000000000000"));
        QTest::newRow("declined") << QJsonValue(42) << int(QMessageBox::No) << QJsonValue();
    }

    void revokeSendsTheBestHandle()
    {
        QFETCH(QJsonValue, userId);
        QFETCH(int, answer);
        QFETCH(QJsonValue, sent);
        QJsonObject record = person(0);
        record.remove(QStringLiteral("user_id"));
        if (!userId.isNull())
            record.insert(QStringLiteral("user_id"), userId);
        loadPages({QJsonObject{{"success", true}, {"data", QJsonObject{{"authorizations", QJsonArray{record}}}}}});
        server.setRule(QStringLiteral("/api/scripts/revoke/res-1"),
                       ScriptedResponse::json(reply(true, "Authorization revoked")));
        QSignalSpy changed(dialog.data(), &AuthorizationManagementDialog::authorizationChanged);
        child<QListWidget>("authorizationList")->setCurrentRow(0);

        const QString question = QStringLiteral("Are you sure you want to revoke authorization for user0?");
        const QList<QStringList> boxes = boxesAfter([this] { child<QPushButton>("revokeButton")->click(); },
                                                    {QMessageBox::StandardButton(answer), QMessageBox::Ok});
        QCOMPARE(boxes.first(), (QStringList{"Revoke Authorization", question}));
        const QList<RecordedRequest> revokes = requestsTo(QStringLiteral("/api/scripts/revoke/res-1"));
        QCOMPARE(revokes.size(), sent.isNull() ? 0 : 1);
        QCOMPARE(changed.size(), sent.isNull() ? 0 : 1);
        if (sent.isNull())
            return;
        QCOMPARE(body(revokes.first()), (QJsonObject{{"user_id", sent}, {"reason", "Revoked by script author"}}));
        QCOMPARE(boxes.last(), (QStringList{"Success", "Authorization revoked"}));
    }

    void exportWritesWhatIsLoaded_data()
    {
        QTest::addColumn<QString>("fileName");
        QTest::addColumn<int>("total");
        QTest::addColumn<QString>("message");
        QTest::newRow("partial json") << "out.json" << 1234
                                      << "Exported 500 of 1234 authorization(s) to file.\n\nNote: Only loaded records "
                                         "were exported. Click 'Load More' to load all before exporting.";
        QTest::newRow("complete csv") << "OUT.CSV" << 500 << "Exported 500 authorization(s) to file.";
    }

    void exportWritesWhatIsLoaded()
    {
        QFETCH(QString, fileName);
        QFETCH(int, total);
        QFETCH(QString, message);
        loadPages({page(0, 500, total)});
        const QString path = home->filePath(QStringLiteral("%1-%2").arg(QTest::currentDataTag(), fileName));
        ModalAnswerer chooser;
        chooser.chooseFile(path);
        QCOMPARE(boxAfter([this] { child<QPushButton>("exportButton")->click(); }), (QStringList{"Success", message}));
        QFile file(path);
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray content = file.readAll();
        if (fileName.endsWith(QLatin1String(".CSV"))) {
            QCOMPARE(content.count('\n'), 501);
        } else {
            const QJsonObject exported = QJsonDocument::fromJson(content).object();
            QCOMPARE(exported.value(QStringLiteral("exported_count")).toInt(), 500);
            QCOMPARE(exported.value(QStringLiteral("total_count")).toInt(), total);
            QCOMPARE(exported.value(QStringLiteral("authorizations")).toArray().first().toObject(), person(0));
        }
    }

    void importGrantsTheIdsFound_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QJsonObject>("counts");
        QTest::addColumn<QStringList>("box");
        QTest::addColumn<int>("changes");
        QTest::newRow("ids with errors")
                << QByteArray("add 111111111111111111 please\n222222222222222222\n111111111111111111\n")
                << QJsonObject{{"granted", 1}, {"already_authorized", 1}, {"not_found", 0}, {"errors", QJsonArray{1}}}
                << QStringList{"Success", "Import complete:\n• Granted: 1\n• Already authorized: 1\n• Not found (user "
                                          "hasn't signed in): 0\n• Errors: 1"}
                << 1;
        QTest::newRow("none granted")
                << QByteArray("111111111111111111\n222222222222222222\n")
                << QJsonObject{{"granted", 0}, {"already_authorized", 0}, {"not_found", 2}, {"errors", QJsonArray()}}
                << QStringList{"Success", "Import complete:\n• Granted: 0\n• Already authorized: 0\n• Not found (user "
                                          "hasn't signed in): 2"}
                << 0;
        QTest::newRow("no ids") << QByteArray("\x01\x02 nothing 1234567890123456\n") << QJsonObject()
                                << QStringList{"Error", "No valid Discord IDs found in the file."} << 0;
    }

    void importGrantsTheIdsFound()
    {
        QFETCH(QByteArray, content);
        QFETCH(QJsonObject, counts);
        QFETCH(QStringList, box);
        QFETCH(int, changes);
        QFile file(home->filePath(QStringLiteral("%1.txt").arg(QTest::currentDataTag())));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(content);
        file.close();
        server.setRule(QStringLiteral("/api/scripts/bulk-authorize/res-1"),
                       ScriptedResponse::json({{"success", true}, {"data", counts}}));
        QSignalSpy changed(dialog.data(), &AuthorizationManagementDialog::authorizationChanged);

        ModalAnswerer chooser;
        chooser.chooseFile(file.fileName());
        ModalAnswerer confirmation;
        if (!counts.isEmpty())
            confirmation.pressButton(QMessageBox::Yes);
        QCOMPARE(boxAfter([this] { child<QPushButton>("importButton")->click(); }), box);
        const QList<RecordedRequest> bulk = requestsTo(QStringLiteral("/api/scripts/bulk-authorize/res-1"));
        QCOMPARE(bulk.size(), counts.isEmpty() ? 0 : 1);
        QCOMPARE(changed.size(), changes);
        if (counts.isEmpty())
            return;
        QCOMPARE(confirmation.seenText(), QStringLiteral("Found 2 Discord ID(s) to import.\n\nThe server will skip any "
                                                         "that are already authorized.\nProceed with bulk import?"));
        QCOMPARE(body(bulk.first()),
                 (QJsonObject{{"discord_ids", QJsonArray{"111111111111111111", "222222222222222222"}},
                              {"notes", "Bulk import"}}));
    }
};

QTEST_MAIN(TestAuthorizationDialog)
#include "tst_authorization_dialog.moc"
