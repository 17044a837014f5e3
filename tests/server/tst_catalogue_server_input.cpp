#include <CatalogueServerFixture.h>

#include <QDir>
#include <QTcpSocket>
#include <QtTest>

using Quorix::Testing::CatalogueServerFixture;

namespace {

const QString administratorId = "999999999999999999";
const QString authorId = "111111111111111111";

} // namespace

// Whatever arrives, the server answers with a 4xx JSON error and keeps serving; who a request speaks for comes from
// its session alone: stored names, expiring and revocable sessions, and bans that stop every write.
class CatalogueServerInputTest : public QObject
{
    Q_OBJECT

    CatalogueServerFixture server{false, {administratorId}};
    QString token;
    QString existingId;
    QString adminToken;
    int storedBefore = 0;
    int bannedUsers = 0;

    int storedFiles() const { return QDir(server.dataDirectory() + "/files").entryList(QDir::Files).size(); }
    // A script form with valid text fields, and the files given.
    CatalogueServerFixture::Reply upload(const QString &path, const QList<QPair<QString, QString>> &fields,
                                         const QList<CatalogueServerFixture::UploadFile> &files)
    {
        return server.upload(path, token,
                             QList<QPair<QString, QString>>{{"name", "Valid name"},
                                                            {"description", "A valid description text"}}
                                     + fields,
                             files);
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(server.start(), qPrintable(server.error()));
        token = server.signIn(authorId, "author", "Alice");
        adminToken = server.signIn(administratorId, "admin");
        QVERIFY(!token.isEmpty() && !adminToken.isEmpty());
        existingId = server.uploadScript(token, "existing.gpc3", "main {}\n").text("data/id");
        QVERIFY(!existingId.isEmpty());
    }

    void init() { storedBefore = storedFiles(); }

    void badJsonBodiesAreRefused_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("error"); // empty: any message
        const auto row = [](const char *tag, const char *path, const char *body, const char *error = "") {
            QTest::newRow(tag) << path << QByteArray(body) << error;
        };
        const char *invalid = "Invalid JSON body";
        row("check-existing not json", "check-existing", "{name: x", invalid);
        row("check-existing array", "check-existing", "[1,2]", invalid);
        row("authorize truncated", "authorize/%1", "{\"discord_id\": \"1", invalid);
        row("revoke plain text", "revoke/%1", "user_id=3", invalid);
        row("bulk number", "bulk-authorize/%1", "42", invalid);
        row("name as number", "check-existing", R"({"name": 12, "script_type": "gpc3"})");
        row("unknown script type", "check-existing", R"({"name": "a.exe", "script_type": "exe"})");
        row("discord id as number", "authorize/%1", R"({"discord_id": 222222222222222222})");
        row("discord id too short", "authorize/%1", R"({"discord_id": "1234"})");
        row("expiry not a date", "authorize/%1", R"({"discord_id": "222222222222222222", "expires_at": "soon"})");
        row("expiry in the past", "authorize/%1",
            R"({"discord_id": "222222222222222222", "expires_at": "2001-01-01T00:00:00Z"})");
        row("bulk ids not an array", "bulk-authorize/%1", R"({"discord_ids": "222222222222222222"})");
        row("revoke user id fraction", "revoke/%1", R"({"user_id": 1.5})");
        row("revoke user id negative", "revoke/%1", R"({"user_id": -3})");
        row("visibility unknown", "visibility/%1", R"({"visibility_type": "secret"})");
    }

    void badJsonBodiesAreRefused()
    {
        QFETCH(QString, path);
        QFETCH(QByteArray, body);
        QFETCH(QString, error);
        const auto reply = server.post(path.contains("%1") ? path.arg(existingId) : path, body, token,
                                       {{"Content-Type", "application/json"}});
        QCOMPARE(reply.status, 400);
        QCOMPARE(reply.text("success"), "false");
        QVERIFY(!reply.text("error").isEmpty());
        if (!error.isEmpty())
            QCOMPARE(reply.text("error"), error);
    }

    void listParametersAreBounded_data()
    {
        QTest::addColumn<QString>("query");
        QTest::newRow("page zero") << "?page=0";
        QTest::newRow("page negative") << "?page=-4";
        QTest::newRow("page text") << "?page=two";
        QTest::newRow("limit zero") << "?limit=0";
        QTest::newRow("limit huge") << "?limit=100000";
        QTest::newRow("sort unknown") << "?sort=random";
        QTest::newRow("type unknown") << "?type=exe";
        QTest::newRow("search too long") << "?search=" + QString(101, 'a');
    }

    void listParametersAreBounded()
    {
        QFETCH(QString, query);
        QCOMPARE(server.get(query).status, 400);
    }

    void unknownAndPathLikeIdsAreRefused_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<int>("status");
        QTest::newRow("unknown id") << "details/00000000-0000-4000-8000-000000000000" << 404;
        QTest::newRow("unknown download") << "download/00000000-0000-4000-8000-000000000000" << 404;
        QTest::newRow("dot dot") << "download/..%2F..%2Fcatalogue.sqlite" << 404;
        QTest::newRow("encoded slash") << "details/%2Fetc%2Fpasswd" << 404;
        QTest::newRow("upper-case id") << "details/" + existingId.toUpper() << 400;
        QTest::newRow("image path") << "../../images/..%2Fcatalogue.sqlite/header" << 404;
        QTest::newRow("image id not an id") << "../../images/catalogue.sqlite/header" << 400;
        QTest::newRow("unknown route") << "nothing/here/at/all" << 404;
        QTest::newRow("qenv path for a script") << "qenv/details/" + existingId << 404;
    }

    void unknownAndPathLikeIdsAreRefused()
    {
        QFETCH(QString, path);
        QFETCH(int, status);
        const auto reply = server.get(path, token);
        QCOMPARE(reply.status, status);
        QCOMPARE(reply.header("content-type"), "application/json");
        QVERIFY(!reply.body.contains("SQLite format"));
    }

    void missingOrForgedTokensAreAnonymous_data()
    {
        QTest::addColumn<QByteArray>("authorization");
        QTest::newRow("none") << QByteArray();
        QTest::newRow("forged") << "Bearer " + QByteArray(64, 'a');
        QTest::newRow("not hex") << QByteArray("Bearer <script>alert(1)</script>");
        QTest::newRow("basic") << QByteArray("Basic dXNlcjpwYXNz");
    }

    void missingOrForgedTokensAreAnonymous()
    {
        QFETCH(QByteArray, authorization);
        QList<QPair<QByteArray, QByteArray>> headers{{"Content-Type", "application/json"}};
        if (!authorization.isEmpty())
            headers.append({"Authorization", authorization});
        const auto like = server.send("POST", server.apiUrl("like/" + existingId), {}, headers, {});
        QCOMPARE(like.status, 401);
        QCOMPARE(like.text("error"), "Authentication required");
        QCOMPARE(server.send("GET", server.apiUrl("liked"), {}, headers, {}).status, 401);
        QCOMPARE(server.send("GET", server.apiUrl(QString()), {}, headers, {}).status, 200);
    }

    void oversizeBodiesAreRefusedWith413()
    {
        const auto json = server.post("check-existing", QByteArray(2 * 1024 * 1024, ' '), token,
                                      {{"Content-Type", "application/json"}});
        QCOMPARE(json.status, 413);
        const auto image = upload("upload", {},
                                  {{"script_file", "pic.gpc3", "main {}"},
                                   {"header_image", "big.png", QByteArray(4 * 1024 * 1024 + 1, 0)}});
        QCOMPARE(image.status, 413);
        QCOMPARE(storedFiles(), storedBefore);
    }

    void malformedUploadsLeaveNothingBehind_data()
    {
        QTest::addColumn<QByteArray>("contentType");
        QTest::addColumn<QByteArray>("body");
        QTest::newRow("not multipart") << QByteArray("application/json") << QByteArray("{}");
        QTest::newRow("no boundary") << QByteArray("multipart/form-data") << QByteArray("--x\r\n");
        QTest::newRow("unterminated part")
                << QByteArray("multipart/form-data; boundary=b")
                << QByteArray("--b\r\nContent-Disposition: form-data; name=\"name\"\r\n\r\nabc");
        QTest::newRow("headers never end") << QByteArray("multipart/form-data; boundary=b")
                                           << QByteArray("--b\r\nContent-Disposition: form-data; name=\"name\"");
    }

    void malformedUploadsLeaveNothingBehind()
    {
        QFETCH(QByteArray, contentType);
        QFETCH(QByteArray, body);
        QCOMPARE(server.post("upload", body, token, {{"Content-Type", contentType}}).status, 400);
        QCOMPARE(storedFiles(), storedBefore);
    }

    void invalidUploadsAreRefused_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("field");
        QTest::addColumn<QString>("value");
        QTest::addColumn<QString>("part");
        QTest::addColumn<QString>("fileName");
        const auto row = [](const char *tag, const QString &field, const QString &value,
                            const QString &fileName = "a.gpc3") {
            QTest::newRow(tag) << "upload" << field << value << "script_file" << fileName;
        };
        row("short name", "name", "ab");
        row("short description", "description", "short");
        row("version text", "version", "one");
        row("version too big", "version", "100");
        row("visibility unknown", "visibility_type", "friends");
        row("tag too long", "tags", QString(65, 't'));
        row("existing id malformed", "existing_uuid", "../../x");
        row("executable file", "tags", "x", "a.exe");
        row("weights through script upload", "tags", "x", "model.onnx");
        row("broken environment", "tags", "x", "broken.qenv");
        row("name with NUL", "name", QString("Bad") + QChar(0) + "name");
        row("name with direction override", "name", "Tool \u202Eexe.gpc3");
        row("version not a number", "version", "nan");
        row("version infinite", "version", "-inf");
        row("file name with a bell", "tags", "x", "a\u0007b.gpc3");
        QTest::newRow("script through environments") << "qenv/upload" << "tags" << "x" << "script_file" << "a.gpc3";
        QTest::newRow("script through weights") << "onnx/upload" << "tags" << "x" << "onnx_file" << "a.gpc3";
        QTest::newRow("weights part through scripts") << "upload" << "tags" << "x" << "onnx_file" << "m.onnx";
    }

    void invalidUploadsAreRefused()
    {
        QFETCH(QString, path);
        QFETCH(QString, field);
        QFETCH(QString, value);
        QFETCH(QString, part);
        QFETCH(QString, fileName);
        QList<QPair<QString, QString>> fields{{"name", "Valid name"}, {"description", "A valid description text"}};
        for (auto &pair : fields) {
            if (pair.first == field)
                pair.second = value;
        }
        if (field != "name" && field != "description")
            fields.append({field, value});
        const auto reply = server.upload(path, token, fields, {{part, fileName, "{ not json or a script }"}});
        QCOMPARE(reply.status, 400);
        QCOMPARE(storedFiles(), storedBefore);
    }

    void unsupportedMethodsGet405()
    {
        QCOMPARE(server.send("PUT", server.apiUrl("upload"), "x", {}, token).status, 405);
        QCOMPARE(server.get("like/" + existingId, token).status, 405);
        // A POST on a resource that does not say it is a deletion is not one.
        QCOMPARE(server.post(existingId, {}, token).status, 405);
        QCOMPARE(server.get("details/" + existingId).status, 200);
    }

    void garbageOnTheSocketDoesNotStopTheServer()
    {
        server.exchange("\x16\x03\x01 not http\r\n\r\nGET /api/scripts/ HTTP/9.9\r\nContent-Length: -5\r\n\r\n", 2000);
        QCOMPARE(server.get(QString()).status, 200);
    }

    void headersNeverChangeTheStoredName()
    {
        const auto details = server.send(
                "GET", server.apiUrl("details/" + existingId), {},
                {{"X-Discord-Username", "mallory"}, {"X-Discord-GlobalName", "Mallory"}, {"X-Discord-Avatar", "x"}},
                token);
        QCOMPARE(details.texts({"data/author/username", "data/author/global_name"}), "author Alice");
    }

    void signingOutEndsOnlyThatSession()
    {
        const QString first = server.signIn("222222222222222222", "bob");
        const QString second = server.signIn("222222222222222222", "bob");
        QCOMPARE(server.post("../auth/sign-out", {}, first).status, 200);
        QCOMPARE(server.get("liked", first).status, 401);
        QCOMPARE(server.post("../auth/sign-out", {}, first).status, 401);
        QCOMPARE(server.get("liked", second).status, 200);
    }

    void sessionsExpire()
    {
        CatalogueServerFixture shortLived;
        shortLived.setSessionLifetime(2);
        QVERIFY2(shortLived.start(), qPrintable(shortLived.error()));
        const QString session = shortLived.signIn("222222222222222222", "bob");
        QCOMPARE(shortLived.get("liked", session).status, 200);
        QTRY_COMPARE_WITH_TIMEOUT(shortLived.get("liked", session).status, 401, 10000);
    }

    void bannedUsersCannotWrite_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QByteArray>("body");
        QTest::newRow("like") << "like/%1" << QByteArray();
        QTest::newRow("delete") << "%1?_method=DELETE" << QByteArray("_method=DELETE");
        QTest::newRow("grant") << "authorize/%1" << QByteArray(R"({"discord_id":"333333333333333333"})");
        QTest::newRow("bulk grant") << "bulk-authorize/%1" << QByteArray(R"({"discord_ids":["333333333333333333"]})");
        QTest::newRow("revoke") << "revoke/%1" << QByteArray(R"({"user_id":"333333333333333333"})");
        QTest::newRow("visibility") << "visibility/%1" << QByteArray(R"({"visibility_type":"private"})");
        QTest::newRow("claim") << "claim-authorizations" << QByteArray();
    }

    void bannedUsersCannotWrite()
    {
        QFETCH(QString, path);
        QFETCH(QByteArray, body);
        // A fresh user per row, since a ban outlives the row.
        const QString bannedId = QString("4444444444444444%1").arg(++bannedUsers, 2, 10, QLatin1Char('0'));
        const QString banned = server.signIn(bannedId, "banned");
        const QString id = server.uploadScript(banned, "mine.gpc3", "main {}").text("data/id");
        QVERIFY(!id.isEmpty());
        QCOMPARE(server.postJson("ban/" + bannedId, {}, adminToken).status, 200);
        const auto refused = server.post(path.arg(id), body, banned, {{"Content-Type", "application/json"}});
        QCOMPARE(refused.status, 403);
        QCOMPARE(refused.text("error"), "Your account has been banned");
        QCOMPARE(server.uploadScript(banned, "again.gpc3", "main {}").status, 403);
    }

    void imagesFollowTheirResource_data()
    {
        QTest::addColumn<QString>("visibility");
        QTest::addColumn<bool>("asAuthor");
        QTest::addColumn<QString>("key");
        QTest::addColumn<int>("status");
        const QString none, sent = "sent", forged = "AAAAAAAAAAAAAAAAAAAAAA";
        QTest::newRow("public to anyone") << "public" << false << none << 200;
        QTest::newRow("locked to anyone") << "purchasable" << false << none << 200;
        QTest::newRow("private to anyone") << "private" << false << none << 404;
        QTest::newRow("private to its author") << "private" << true << none << 200;
        QTest::newRow("private by the address sent to its author") << "private" << false << sent << 200;
        QTest::newRow("private by a forged address") << "private" << false << forged << 404;
    }

    void imagesFollowTheirResource()
    {
        QFETCH(QString, visibility);
        QFETCH(bool, asAuthor);
        QFETCH(QString, key);
        QFETCH(int, status);
        const QString id = upload("upload", {{"visibility_type", visibility}},
                                  {{"script_file", "p.gpc3", "main {}"}, {"header_image", "p.png", server.png(80, 40)}})
                                   .text("data/id");
        QVERIFY(!id.isEmpty());
        // The author's client shows the pictures by the addresses in the record, without its token.
        const auto details = server.get("details/" + id, token);
        for (const QString which : {"header", "thumbnail"}) {
            const QString sentAddress = details.text("data/images/" + which + "/url");
            QVERIFY2(sentAddress.contains("?key="), qPrintable(sentAddress));
            const QString plain = server.origin() + "/images/" + id + '/' + which;
            const QString address = key.isEmpty() ? plain : key == "sent" ? sentAddress : plain + "?key=" + key;
            QCOMPARE(server.send("GET", address, {}, {}, asAuthor ? token : QString()).status, status);
        }
    }
};

QTEST_MAIN(CatalogueServerInputTest)
#include "tst_catalogue_server_input.moc"
