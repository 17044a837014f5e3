#include "ModalAnswerer.h"
#include "RecordingHttpServer.h"
#include "TemporaryHome.h"
#include "TestFiles.h"
#include "access/AuthorizationFileFormats.h"
#include "access/AuthorizationManagementDialog.h"
#include "api/OnlineResourcesAPI.h"

#include <QCheckBox>
#include <QDate>
#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPointer>
#include <QPushButton>
#include <QRandomGenerator>
#include <QSignalSpy>
#include <QTest>

#include <functional>
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

QJsonObject record(const QString &discordId, const QString &username, const QString &notes)
{
    return {{"discord_id", discordId}, {"username", username},         {"global_name", username},
            {"status", "active"},      {"authorization_notes", notes}, {"expires_at", QString()}};
}

QByteArray lines(int count, const std::function<QByteArray(int)> &line)
{
    QByteArray text;
    for (int i = 0; i < count; ++i)
        text += line(i) + '\n';
    return text;
}

} // namespace

// The access list window against a scripted server (what it asks for, shows and tells the user), and the import
// and export files behind it.
class TestAccess : public QObject
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

    void importFilesYieldTheirIds_data()
    {
        QTest::addColumn<QString>("fileName");
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QStringList>("expected");
        const QString id18 = "123456789012345678";
        const QJsonArray exported{record("111111111111111111", "a,b", QString()),
                                  record("22222222222222222222", "c", "first, second\nthird")};
        QTest::newRow("exported csv re-imports") << "list.CSV" << AuthorizationFileFormats::exportCsv(exported)
                                                 << QStringList{"111111111111111111", "22222222222222222222"};
        QTest::newRow("text id among words, once")
                << "ids.txt" << QByteArray("please add 123456789012345678 to it\n\n  123456789012345678  \nnone\n")
                << QStringList{id18};
        QTest::newRow("numeric json ids yield none")
                << "ids.json" << QByteArray("{\"authorizations\":[{\"discord_id\":123456789012345678}]}")
                << QStringList();
        QTest::newRow("16 digits are too short") << "ids.txt" << QByteArray("1234567890123456\n") << QStringList();
        QTest::newRow("17 digits are enough")
                << "ids.txt" << QByteArray("12345678901234567\n") << QStringList{"12345678901234567"};
        QTest::newRow("21 digits give their first 20 in text")
                << "ids.txt" << QByteArray("123456789012345678901\n") << QStringList{"12345678901234567890"};
        QTest::newRow("21 digits stay whole in json")
                << "ids.json" << QByteArray("{\"authorizations\":[{\"discord_id\":\"123456789012345678901\"}]}")
                << QStringList{"123456789012345678901"};
        QTest::newRow("json nested 10000 deep")
                << "deep.json"
                << "{\"authorizations\":[{\"discord_id\":\"" + id18.toUtf8() + "\"}],\"x\":" + QByteArray(10000, '[')
                           + QByteArray(10000, ']') + '}'
                << QStringList();
        QByteArray garbage(4 * 1024 * 1024, Qt::Uninitialized);
        QRandomGenerator(7).fillRange(reinterpret_cast<quint32 *>(garbage.data()), garbage.size() / 4);
        QTest::newRow("binary garbage") << "garbage.txt" << garbage << QStringList();
        QStringList thousand;
        for (int i = 0; i < 1000; ++i)
            thousand.append(QString::number(500000000000000000LL + i));
        QTest::newRow("csv of 100000 lines")
                << "big.csv"
                << "discord_id,username\n"
                           + lines(100000,
                                   [](int i) { return QByteArray::number(500000000000000000LL + i % 1000) + ",u"; })
                << thousand;
        QTest::newRow("50 MB text") << "huge.txt"
                                    << "777777777777777777\n"
                                               + lines(50 * 1024 * 1024 / 64, [](int) { return QByteArray(63, 'x'); })
                                               + "888888888888888888\n"
                                    << QStringList{"777777777777777777", "888888888888888888"};
    }

    void importFilesYieldTheirIds()
    {
        QFETCH(QString, fileName);
        QFETCH(QByteArray, content);
        QFETCH(QStringList, expected);
        QVERIFY(TestFiles::write(home.filePath(fileName), content));
        const auto result = AuthorizationFileFormats::readImportFile(home.filePath(fileName));
        QCOMPARE(result.openError, QString());
        QCOMPARE(result.discordIds, expected);
    }

    void csvExportKeepsEveryRecordOnOneLine()
    {
        QCOMPARE(AuthorizationFileFormats::exportCsv(
                         {record("111111111111111111", "smith, j", "paid, twice\r\nsee mail\nok")}),
                 QByteArray("discord_id,username,global_name,status,notes,expires_at\n"
                            "111111111111111111,smith; j,smith; j,active,paid; twice see mail ok,\n"));
    }

    void unwritableTargetsLeaveNoFile()
    {
        QTemporaryDir folder;
        QVERIFY(QDir(folder.path()).mkdir("taken"));
        for (const char *target : {"missing/list.json", "taken"}) {
            QVERIFY(!AuthorizationFileFormats::writeFile(folder.filePath(target), "{}").isEmpty());
            QCOMPARE(QDir(folder.path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden),
                     QStringList{"taken"});
            QVERIFY(QFileInfo(folder.filePath("taken")).isDir());
        }
    }
};

QTEST_MAIN(TestAccess)
#include "tst_access.moc"
