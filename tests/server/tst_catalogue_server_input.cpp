#include <CatalogueServerFixture.h>

#include <QDir>
#include <QJsonArray>
#include <QTcpSocket>
#include <QtTest>

using Quorix::Testing::CatalogueServerFixture;

namespace {

const QString authorId = QStringLiteral("111111111111111111");

} // namespace

// Whatever arrives, the server answers with a 4xx JSON error and keeps serving.
class CatalogueServerInputTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(server.start(), qPrintable(server.error()));
        token = server.signIn(authorId, QStringLiteral("author"));
        QVERIFY(!token.isEmpty());
        const CatalogueServerFixture::Reply reply
                = server.uploadScript(token, QStringLiteral("existing.gpc3"), "main {}\n");
        QCOMPARE(reply.status, 200);
        existingId = reply.json.value(QStringLiteral("data")).toObject().value(QStringLiteral("id")).toString();
    }

    void malformedJsonBodiesAreRefused_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QByteArray>("body");
        QTest::newRow("check-existing not json") << QStringLiteral("check-existing") << QByteArray("{name: x");
        QTest::newRow("check-existing array") << QStringLiteral("check-existing") << QByteArray("[1,2]");
        QTest::newRow("authorize truncated") << QStringLiteral("authorize/%1") << QByteArray("{\"discord_id\": \"1");
        QTest::newRow("revoke plain text") << QStringLiteral("revoke/%1") << QByteArray("user_id=3");
        QTest::newRow("bulk number") << QStringLiteral("bulk-authorize/%1") << QByteArray("42");
    }

    void malformedJsonBodiesAreRefused()
    {
        QFETCH(QString, path);
        QFETCH(QByteArray, body);
        const auto reply = server.post(path.contains(QLatin1String("%1")) ? path.arg(existingId) : path, body, token,
                                       {{"Content-Type", "application/json"}});
        QCOMPARE(reply.status, 400);
        QCOMPARE(reply.json.value(QStringLiteral("success")).toBool(true), false);
        QCOMPARE(reply.json.value(QStringLiteral("error")).toString(), QStringLiteral("Invalid JSON body"));
    }

    void wrongTypesAreRefused_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QByteArray>("body");
        QTest::newRow("name as number") << QStringLiteral("check-existing")
                                        << QByteArray(R"({"name": 12, "script_type": "gpc3"})");
        QTest::newRow("unknown script type")
                << QStringLiteral("check-existing") << QByteArray(R"({"name": "a.exe", "script_type": "exe"})");
        QTest::newRow("discord id as number")
                << QStringLiteral("authorize/%1") << QByteArray(R"({"discord_id": 222222222222222222})");
        QTest::newRow("discord id too short")
                << QStringLiteral("authorize/%1") << QByteArray(R"({"discord_id": "1234"})");
        QTest::newRow("expiry not a date")
                << QStringLiteral("authorize/%1")
                << QByteArray(R"({"discord_id": "222222222222222222", "expires_at": "soon"})");
        QTest::newRow("expiry in the past")
                << QStringLiteral("authorize/%1")
                << QByteArray(R"({"discord_id": "222222222222222222", "expires_at": "2001-01-01T00:00:00Z"})");
        QTest::newRow("bulk ids not an array")
                << QStringLiteral("bulk-authorize/%1") << QByteArray(R"({"discord_ids": "222222222222222222"})");
        QTest::newRow("revoke user id fraction") << QStringLiteral("revoke/%1") << QByteArray(R"({"user_id": 1.5})");
        QTest::newRow("revoke user id negative") << QStringLiteral("revoke/%1") << QByteArray(R"({"user_id": -3})");
        QTest::newRow("visibility unknown")
                << QStringLiteral("visibility/%1") << QByteArray(R"({"visibility_type": "secret"})");
    }

    void wrongTypesAreRefused()
    {
        QFETCH(QString, path);
        QFETCH(QByteArray, body);
        const auto reply = server.post(path.contains(QLatin1String("%1")) ? path.arg(existingId) : path, body, token,
                                       {{"Content-Type", "application/json"}});
        QCOMPARE(reply.status, 400);
        QVERIFY(!reply.json.value(QStringLiteral("error")).toString().isEmpty());
    }

    void listParametersAreBounded_data()
    {
        QTest::addColumn<QString>("query");
        QTest::newRow("page zero") << QStringLiteral("?page=0");
        QTest::newRow("page negative") << QStringLiteral("?page=-4");
        QTest::newRow("page text") << QStringLiteral("?page=two");
        QTest::newRow("limit zero") << QStringLiteral("?limit=0");
        QTest::newRow("limit huge") << QStringLiteral("?limit=100000");
        QTest::newRow("sort unknown") << QStringLiteral("?sort=random");
        QTest::newRow("type unknown") << QStringLiteral("?type=exe");
        QTest::newRow("search too long") << QStringLiteral("?search=") + QString(101, QLatin1Char('a'));
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
        QTest::newRow("unknown id") << QStringLiteral("details/00000000-0000-4000-8000-000000000000") << 404;
        QTest::newRow("unknown download") << QStringLiteral("download/00000000-0000-4000-8000-000000000000") << 404;
        QTest::newRow("dot dot") << QStringLiteral("download/..%2F..%2Fcatalogue.sqlite") << 404;
        QTest::newRow("encoded slash") << QStringLiteral("details/%2Fetc%2Fpasswd") << 404;
        QTest::newRow("upper-case id") << QStringLiteral("details/") + existingIdUpper() << 400;
        QTest::newRow("image path") << QStringLiteral("../../images/..%2Fcatalogue.sqlite/header") << 404;
        QTest::newRow("image id not an id") << QStringLiteral("../../images/catalogue.sqlite/header") << 400;
        QTest::newRow("unknown route") << QStringLiteral("nothing/here/at/all") << 404;
        QTest::newRow("qenv path for a script") << QStringLiteral("qenv/details/") + existingId << 404;
    }

    void unknownAndPathLikeIdsAreRefused()
    {
        QFETCH(QString, path);
        QFETCH(int, status);
        const auto reply = server.send("GET", server.apiUrl(path), {}, {}, token);
        QCOMPARE(reply.status, status);
        QCOMPARE(reply.header("content-type"), QByteArray("application/json"));
        QVERIFY(!reply.body.contains("SQLite format"));
    }

    void missingOrForgedTokensAreAnonymous_data()
    {
        QTest::addColumn<QByteArray>("authorization");
        QTest::newRow("none") << QByteArray();
        QTest::newRow("forged") << QByteArray("Bearer ") + QByteArray(64, 'a');
        QTest::newRow("not hex") << QByteArray("Bearer <script>alert(1)</script>");
        QTest::newRow("basic") << QByteArray("Basic dXNlcjpwYXNz");
    }

    void missingOrForgedTokensAreAnonymous()
    {
        QFETCH(QByteArray, authorization);
        QList<QPair<QByteArray, QByteArray>> headers{{"Content-Type", "application/json"}};
        if (!authorization.isEmpty())
            headers.append({"Authorization", authorization});
        const auto like = server.send("POST", server.apiUrl(QStringLiteral("like/") + existingId), {}, headers, {});
        QCOMPARE(like.status, 401);
        QCOMPARE(like.json.value(QStringLiteral("error")).toString(), QStringLiteral("Authentication required"));
        const auto liked = server.send("GET", server.apiUrl(QStringLiteral("liked")), {}, headers, {});
        QCOMPARE(liked.status, 401);
        const auto list = server.send("GET", server.apiUrl(QString()), {}, headers, {});
        QCOMPARE(list.status, 200);
    }

    void oversizeBodiesAreRefusedWith413()
    {
        const auto json = server.post(QStringLiteral("check-existing"), QByteArray(2 * 1024 * 1024, ' '), token,
                                      {{"Content-Type", "application/json"}});
        QCOMPARE(json.status, 413);

        const auto script
                = server.uploadScript(token, QStringLiteral("huge.gpc3"), QByteArray(10 * 1024 * 1024 + 1, 'x'));
        QCOMPARE(script.status, 413);
        const auto image = server.upload(
                QStringLiteral("upload"), token,
                {{QStringLiteral("name"), QStringLiteral("With picture")},
                 {QStringLiteral("description"), QStringLiteral("Has a very large picture")}},
                {{QStringLiteral("script_file"), QStringLiteral("pic.gpc3"), "main {}"},
                 {QStringLiteral("header_image"), QStringLiteral("big.png"), QByteArray(4 * 1024 * 1024 + 1, 0)}});
        QCOMPARE(image.status, 413);
        QVERIFY(QDir(server.dataDirectory() + QStringLiteral("/files")).entryList(QDir::Files).size() == 1);
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
        const auto reply = server.post(QStringLiteral("upload"), body, token, {{"Content-Type", contentType}});
        QCOMPARE(reply.status, 400);
        QCOMPARE(QDir(server.dataDirectory() + QStringLiteral("/files")).entryList(QDir::Files).size(), 1);
    }

    void invalidUploadFieldsAreRefused_data()
    {
        QTest::addColumn<QString>("field");
        QTest::addColumn<QString>("value");
        QTest::addColumn<QString>("fileName");
        QTest::newRow("short name") << QStringLiteral("name") << QStringLiteral("ab") << QStringLiteral("a.gpc3");
        QTest::newRow("short description")
                << QStringLiteral("description") << QStringLiteral("short") << QStringLiteral("a.gpc3");
        QTest::newRow("version text") << QStringLiteral("version") << QStringLiteral("one") << QStringLiteral("a.gpc3");
        QTest::newRow("version too big") << QStringLiteral("version") << QStringLiteral("100")
                                         << QStringLiteral("a.gpc3");
        QTest::newRow("visibility unknown")
                << QStringLiteral("visibility_type") << QStringLiteral("friends") << QStringLiteral("a.gpc3");
        QTest::newRow("tag too long") << QStringLiteral("tags") << QString(65, QLatin1Char('t'))
                                      << QStringLiteral("a.gpc3");
        QTest::newRow("existing id malformed")
                << QStringLiteral("existing_uuid") << QStringLiteral("../../x") << QStringLiteral("a.gpc3");
        QTest::newRow("executable file") << QStringLiteral("tags") << QStringLiteral("x") << QStringLiteral("a.exe");
        QTest::newRow("weights through script upload")
                << QStringLiteral("tags") << QStringLiteral("x") << QStringLiteral("model.onnx");
        QTest::newRow("broken environment")
                << QStringLiteral("tags") << QStringLiteral("x") << QStringLiteral("broken.qenv");
        QTest::newRow("name with NUL") << QStringLiteral("name")
                                       << QStringLiteral("Bad") + QChar(0) + QStringLiteral("name")
                                       << QStringLiteral("a.gpc3");
        QTest::newRow("name with direction override")
                << QStringLiteral("name") << QStringLiteral("Tool \u202Eexe.gpc3") << QStringLiteral("a.gpc3");
        QTest::newRow("version not a number")
                << QStringLiteral("version") << QStringLiteral("nan") << QStringLiteral("a.gpc3");
        QTest::newRow("version infinite")
                << QStringLiteral("version") << QStringLiteral("-inf") << QStringLiteral("a.gpc3");
        QTest::newRow("file name with a bell")
                << QStringLiteral("tags") << QStringLiteral("x") << QStringLiteral("a\u0007b.gpc3");
    }

    void invalidUploadFieldsAreRefused()
    {
        QFETCH(QString, field);
        QFETCH(QString, value);
        QFETCH(QString, fileName);
        QList<QPair<QString, QString>> fields{
                {QStringLiteral("name"), QStringLiteral("Valid name")},
                {QStringLiteral("description"), QStringLiteral("A valid description text")}};
        for (auto &pair : fields) {
            if (pair.first == field)
                pair.second = value;
        }
        if (field != QLatin1String("name") && field != QLatin1String("description"))
            fields.append({field, value});
        const auto reply = server.upload(QStringLiteral("upload"), token, fields,
                                         {{QStringLiteral("script_file"), fileName, "{ not json or a script }"}});
        QCOMPARE(reply.status, 400);
        QCOMPARE(QDir(server.dataDirectory() + QStringLiteral("/files")).entryList(QDir::Files).size(), 1);
    }

    void eachUploadRouteTakesOnlyItsKind_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("part");
        QTest::addColumn<QString>("fileName");
        QTest::newRow("script through environments")
                << QStringLiteral("qenv/upload") << QStringLiteral("script_file") << QStringLiteral("a.gpc3");
        QTest::newRow("script through weights")
                << QStringLiteral("onnx/upload") << QStringLiteral("onnx_file") << QStringLiteral("a.gpc3");
        QTest::newRow("weights part through scripts")
                << QStringLiteral("upload") << QStringLiteral("onnx_file") << QStringLiteral("m.onnx");
    }

    void eachUploadRouteTakesOnlyItsKind()
    {
        QFETCH(QString, path);
        QFETCH(QString, part);
        QFETCH(QString, fileName);
        const auto reply = server.upload(path, token,
                                         {{QStringLiteral("name"), QStringLiteral("Valid name")},
                                          {QStringLiteral("description"), QStringLiteral("A valid description text")}},
                                         {{part, fileName, "main {}"}});
        QCOMPARE(reply.status, 400);
        QCOMPARE(QDir(server.dataDirectory() + QStringLiteral("/files")).entryList(QDir::Files).size(), 1);
    }

    void unsupportedMethodsGet405()
    {
        QCOMPARE(server.send("PUT", server.apiUrl(QStringLiteral("upload")), "x", {}, token).status, 405);
        QCOMPARE(server.send("GET", server.apiUrl(QStringLiteral("like/") + existingId), {}, {}, token).status, 405);
        // A POST on a resource that does not say it is a deletion is not one.
        QCOMPARE(server.post(existingId, {}, token).status, 405);
        QCOMPARE(server.get(QStringLiteral("details/") + existingId).status, 200);
    }

    void garbageOnTheSocketDoesNotStopTheServer()
    {
        QTcpSocket socket;
        socket.connectToHost(QHostAddress::LocalHost, server.port());
        QVERIFY(socket.waitForConnected(5000));
        socket.write(
                "\x16\x03\x01 definitely not http\r\n\r\nGET /api/scripts/ HTTP/9.9\r\nContent-Length: -5\r\n\r\n");
        socket.waitForBytesWritten(5000);
        socket.waitForReadyRead(2000);
        socket.close();
        QCOMPARE(server.get(QString()).status, 200);
    }

private:
    QString existingIdUpper() const { return existingId.toUpper(); }

    CatalogueServerFixture server;
    QString token;
    QString existingId;
};

QTEST_MAIN(CatalogueServerInputTest)
#include "tst_catalogue_server_input.moc"
