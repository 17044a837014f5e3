#include "ApiTestBench.h"
#include "TestFiles.h"

#include <QJsonArray>
#include <QJsonDocument>

using namespace Quorix;
using namespace Quorix::Testing;

namespace {

// The form-data parts of a body, split on the boundary its Content-Type announces.
struct Part
{
    HttpHeaders headers;
    QByteArray body;
};

QList<Part> multipartParts(const RecordedRequest &request)
{
    const QByteArray contentType = request.header("Content-Type");
    const QByteArray delimiter = "\r\n--" + contentType.mid(contentType.indexOf("boundary=") + 9).replace('"', "");
    const QByteArray body = "\r\n" + request.body;
    QList<Part> parts;
    qsizetype at = body.indexOf(delimiter);
    while (at >= 0 && body.mid(at + delimiter.size(), 2) != "--") {
        const qsizetype start = at + delimiter.size() + 2;
        at = body.indexOf(delimiter, start);
        const QByteArray section = body.mid(start, at - start);
        const qsizetype headerEnd = section.indexOf("\r\n\r\n");
        Part part;
        for (const QByteArray &line : section.left(headerEnd).split('\n')) {
            const qsizetype colon = line.indexOf(':');
            part.headers.append({line.left(colon).trimmed(), line.mid(colon + 1).trimmed()});
        }
        part.body = section.mid(headerEnd + 4);
        parts.append(part);
    }
    return parts;
}

// The headers this client chooses, as "Name: value" lines in wire order; what the network stack adds by itself
// (connection management, compression, its own defaults for headers the client leaves unset) is left out.
QByteArrayList clientHeaders(const RecordedRequest &request)
{
    static const QByteArrayList transport{"host", "connection", "accept-encoding", "content-length", "mime-version"};
    QByteArrayList lines;
    for (const auto &[name, value] : request.headers) {
        if (transport.contains(name.toLower()) || (name.toLower() == "user-agent" && value == "Mozilla/5.0")
            || (name.toLower() == "accept-language" && value.endsWith(",*")))
            continue;
        lines.append(name + ": " + value);
    }
    return lines;
}

QByteArray json(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Indented);
}

} // namespace

class TestApiRequests : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { QVERIFY(bench.start()); }
    void init() { bench.renew(ScriptedResponse::json({{"success", true}})); }

    void operationsPutTheirRequestsOnTheWire_data();
    void operationsPutTheirRequestsOnTheWire();
    void credentialsTravelOnlyWithAToken_data();
    void credentialsTravelOnlyWithAToken();
    void queriesCarryOnlyMeaningfulKeys_data();
    void queriesCarryOnlyMeaningfulKeys();
    void uploadsSendTheirPartsInOrder_data();
    void uploadsSendTheirPartsInOrder();
    void banWithoutTokenSendsNothing();

private:
    ApiTestBench bench;
};

void TestApiRequests::operationsPutTheirRequestsOnTheWire_data()
{
    QTest::addColumn<ApiOperation>("operation");
    QTest::addColumn<QByteArray>("requestLine");
    QTest::addColumn<QByteArrayList>("headers");
    QTest::addColumn<QByteArray>("body");

    const QByteArray version = "X-Quorix-API-Version: 4", jsonType = "Content-Type: application/json",
                     accept = "Accept: application/json";
    const QByteArrayList listing{jsonType, accept, "User-Agent: Quorix/2.0", version}, action{jsonType, version},
            access{jsonType, accept, version}, bare{version},
            deletion{"Content-Type: application/x-www-form-urlencoded", "X-HTTP-Method-Override: DELETE", version};
    const auto row = [](const char *tag, const QByteArray &line, const QByteArrayList &headers, const QByteArray &body,
                        ApiOperation operation) {
        QTest::newRow(tag) << operation << "" + line + " HTTP/1.1" << headers << body;
    };
    row("script list", "GET /api/scripts/?page=2", listing, {}, [](auto &a) { a.fetchScripts({{"page", 2}}); });
    row("script details", "GET /api/scripts/details/s-1", listing, {}, [](auto &a) { a.fetchScriptDetails("s-1"); });
    row("environment list", "GET /api/scripts/qenv/list", listing, {}, [](auto &a) { a.loadEnvironments({}); });
    row("environment details", "GET /api/scripts/qenv/details/e-1", listing, {},
        [](auto &a) { a.loadEnvironmentDetails("e-1"); });
    row("weights list", "GET /api/scripts/onnx/list", listing, {}, [](auto &a) { a.fetchWeights({}); });
    row("weights details", "GET /api/scripts/onnx/details/w-1", listing, {},
        [](auto &a) { a.fetchWeightsDetails("w-1"); });
    row("script download", "GET /api/scripts/download/s-1", bare, {}, [](auto &a) { a.downloadScript("s-1", "/tmp"); });
    row("environment download", "GET /api/scripts/qenv/download/e-1", bare, {},
        [](auto &a) { a.downloadEnvironment("e-1", "/tmp"); });
    row("weights download", "GET /api/scripts/onnx/download/w-1", bare, {}, [](auto &a) { a.downloadWeights("w-1"); });
    row("script like", "POST /api/scripts/like/s-1", action, {}, [](auto &a) { a.toggleLike("s-1"); });
    row("environment like", "POST /api/scripts/qenv/like/e-1", action, {},
        [](auto &a) { a.toggleEnvironmentLike("e-1"); });
    row("weights like", "POST /api/scripts/onnx/like/w-1", action, {}, [](auto &a) { a.toggleWeightsLike("w-1"); });
    row("liked list", "GET /api/scripts/liked", bare, {}, [](auto &a) { a.fetchUserLikedScripts(); });
    row("check existing", "POST /api/scripts/check-existing", action, json({{"name", "Aim"}, {"script_type", "gpc3"}}),
        [](auto &a) { a.checkExistingScript("Aim", "gpc3"); });
    row("access list", "GET /api/scripts/authorizations/s-1?offset=0&limit=50&search=bob", {accept, version}, {},
        [](auto &a) { a.fetchScriptAuthorizations("s-1", 0, 50, "bob"); });
    row("grant", "POST /api/scripts/authorize/s-1", access, json({{"discord_id", "1"}, {"notes", "friend"}}),
        [](auto &a) { a.grantAuthorization("s-1", {{"discord_id", "1"}, {"notes", "friend"}}); });
    row("bulk grant with notes", "POST /api/scripts/bulk-authorize/s-1", access,
        json({{"discord_ids", QJsonArray{"222", "111"}}, {"notes", "team"}}), [](auto &a) {
            a.bulkGrantAuthorizations("s-1", {"222", "111"}, "team");
        });
    row("bulk grant without notes", "POST /api/scripts/bulk-authorize/s-1", access,
        json({{"discord_ids", QJsonArray{"333"}}}),
        [](auto &a) { a.bulkGrantAuthorizations("s-1", {"333"}, QString()); });
    row("revoke", "POST /api/scripts/revoke/s-1", access, json({{"discord_id", "123"}, {"reason", "left"}}),
        [](auto &a) { a.revokeAuthorization("s-1", {{"discord_id", "123"}, {"reason", "left"}}); });
    row("claim", "POST /api/scripts/claim-authorizations", {jsonType, accept, version}, {},
        [](auto &a) { a.claimPendingAuthorizations(); });
    row("script delete", "POST /api/scripts/s-1?_method=DELETE", deletion, "_method=DELETE",
        [](auto &a) { a.deleteScript("s-1"); });
    row("environment delete", "POST /api/scripts/qenv/e-1?_method=DELETE", deletion, "_method=DELETE",
        [](auto &a) { a.deleteEnvironment("e-1"); });
    row("weights delete", "POST /api/scripts/onnx/w-1?_method=DELETE", deletion, "_method=DELETE",
        [](auto &a) { a.deleteWeights("w-1"); });
}

void TestApiRequests::operationsPutTheirRequestsOnTheWire()
{
    QFETCH(ApiOperation, operation);
    QFETCH(QByteArray, requestLine);
    QFETCH(QByteArrayList, headers);
    QFETCH(QByteArray, body);

    const RecordedRequest request = bench.record(operation);
    QCOMPARE(request.requestLine, requestLine);
    QCOMPARE(clientHeaders(request), headers);
    QCOMPARE(request.body, body);
    // Plain HTTP/1.1 on the wire: no upgrade offer to HTTP/2 rides along.
    QVERIFY(!request.hasHeader("Upgrade") && !request.hasHeader("HTTP2-Settings"));
}

void TestApiRequests::credentialsTravelOnlyWithAToken_data()
{
    QTest::addColumn<QStringList>("identity"); // token, username, global name, avatar
    QTest::addColumn<QByteArrayList>("credentials");

    const QByteArray bearer = "Authorization: Bearer tok";
    QTest::newRow("all fields") << QStringList{"tok", "bob", "Bob É", "abc"}
                                << QByteArrayList{bearer, "X-Discord-Username: bob",
                                                  "X-Discord-GlobalName: " + QString("Bob É").toUtf8(),
                                                  "X-Discord-Avatar: abc"};
    QTest::newRow("empty global name") << QStringList{"tok", "bob", "", "abc"}
                                       << QByteArrayList{bearer, "X-Discord-Username: bob", "X-Discord-Avatar: abc"};
    QTest::newRow("token only") << QStringList{"tok", "", "", ""} << QByteArrayList{bearer};
    QTest::newRow("no token") << QStringList{"", "bob", "Bob", "abc"} << QByteArrayList();
}

void TestApiRequests::credentialsTravelOnlyWithAToken()
{
    QFETCH(QStringList, identity);
    QFETCH(QByteArrayList, credentials);

    bench.api->authToken = identity.at(0);
    bench.api->discordUsername = identity.at(1);
    bench.api->discordGlobalName = identity.at(2);
    bench.api->discordAvatar = identity.at(3);
    QCOMPARE(clientHeaders(bench.record([](auto &a) { a.toggleLike("s-1"); })),
             QByteArrayList({"Content-Type: application/json", "X-Quorix-API-Version: 4"}) + credentials);
}

void TestApiRequests::queriesCarryOnlyMeaningfulKeys_data()
{
    QTest::addColumn<ApiOperation>("operation");
    QTest::addColumn<QByteArray>("target");

    static const QJsonObject full{{"page", 3}, {"limit", 24}, {"type", "gpc3"}, {"sort", "popular"}, {"search", "a b"}};
    const auto row = [](const char *tag, const QByteArray &target, ApiOperation operation) {
        QTest::newRow(tag) << operation << "/api/scripts/" + target;
    };
    row("scripts, every key", "?page=3&limit=24&type=gpc3&sort=popular&search=a%20b",
        [](auto &a) { a.fetchScripts(full); });
    row("scripts, all types and empty search", "?page=1", [](auto &a) {
        a.fetchScripts({{"page", 1}, {"type", "all"}, {"search", ""}});
    });
    row("environments never carry a type", "qenv/list?page=3&limit=24&sort=popular&search=a%20b",
        [](auto &a) { a.loadEnvironments(full); });
    row("weights never carry a type", "onnx/list?page=3&limit=24&sort=popular&search=a%20b",
        [](auto &a) { a.fetchWeights(full); });
    row("access list, limit zero", "authorizations/s", [](auto &a) { a.fetchScriptAuthorizations("s", 0, 0, {}); });
    row("access list, negative offset", "authorizations/s?search=ann",
        [](auto &a) { a.fetchScriptAuthorizations("s", -1, 20, "ann"); });
}

void TestApiRequests::queriesCarryOnlyMeaningfulKeys()
{
    QFETCH(ApiOperation, operation);
    QFETCH(QByteArray, target);
    QCOMPARE(bench.record(operation).target, target);
}

void TestApiRequests::uploadsSendTheirPartsInOrder_data()
{
    QTest::addColumn<ApiOperation>("operation");
    QTest::addColumn<QByteArrayList>("parts"); // each part as its headers, then "=" and its body

    const QString script = bench.home.filePath("aim assist.gpc3"), image = bench.home.filePath("header.png"),
                  model = bench.home.filePath("model.onnx");
    const QByteArray png = QByteArray::fromHex("89504e470d0a1a0a") + QByteArray(8, '\0');
    TestFiles::write(script, "main { }\n");
    TestFiles::write(image, png);
    TestFiles::write(model, QByteArray("\x08\x07onnx", 6));
    const auto text = [](const QByteArray &name, const QByteArray &value) {
        return "Content-Disposition: form-data; name=\"" + name + "\"=" + value;
    };
    const auto file = [](const QByteArray &name, const QByteArray &fileName, const QByteArray &type,
                         const QByteArray &content) {
        return "Content-Type: " + type + "Content-Disposition: form-data; name=\"" + name + "\"; filename=\"" + fileName
               + "\"=" + content;
    };
    const auto row = [](const char *tag, const QJsonObject &form, const QByteArrayList &parts) {
        QTest::newRow(tag) << ApiOperation([form](auto &a) { form.contains("onnx_file") ? a.uploadWeights(form) : a.uploadScript(form); }) << parts;
    };
    row("every script field",
        {{"name", "Aim Assist"},
         {"description", "Helps ✓"},
         {"instructions", "Hold L2"},
         {"tags", "fps,aim"},
         {"existing_uuid", "u-9"},
         {"version", 1.25},
         {"visibility_type", "private"},
         {"script_file", script},
         {"image_file", image}},
        {text("name", "Aim Assist"), text("description", QString("Helps ✓").toUtf8()), text("instructions", "Hold L2"),
         text("tags", "fps,aim"), text("existing_uuid", "u-9"), text("version", "1.25"),
         text("visibility_type", "private"),
         file("script_file", "aim assist.gpc3", "application/octet-stream", "main { }\n"),
         file("header_image", "header.png", "image/png", png)});
    row("empty optional parts and unreadable file left out",
        {{"name", "A"},
         {"description", ""},
         {"instructions", ""},
         {"tags", ""},
         {"existing_uuid", ""},
         {"image_file", ""},
         {"script_file", script + ".missing"}},
        {text("name", "A"), text("description", "")});
    row("whole version", {{"name", "A"}, {"version", 1.0}},
        {text("name", "A"), text("description", ""), text("version", "1")});
    row("six significant digits", {{"name", "A"}, {"version", 3.14159265}},
        {text("name", "A"), text("description", ""), text("version", "3.14159")});
    row("version as text", {{"name", "A"}, {"version", "2.5"}},
        {text("name", "A"), text("description", ""), text("version", "2.5")});
    const QByteArrayList weights{text("name", "W"), text("description", ""), text("version", "2"),
                                 text("visibility_type", "public")};
    const QByteArray onnx = file("onnx_file", "model.onnx", "application/octet-stream", QByteArray("\x08\x07onnx", 6));
    const QJsonObject form{{"name", "W"}, {"version", 2}, {"visibility_type", "public"}, {"onnx_file", model}};
    const auto encrypted = [form](bool flag) {
        QJsonObject copy = form;
        copy.insert("encrypted", flag);
        return copy;
    };
    row("encrypted weights", encrypted(true), weights + QByteArrayList{text("encrypted", "1"), onnx});
    row("plain weights", encrypted(false), weights + QByteArrayList{text("encrypted", "0"), onnx});
    row("weights, encryption unspecified", form, weights + QByteArrayList{onnx});
}

void TestApiRequests::uploadsSendTheirPartsInOrder()
{
    QFETCH(ApiOperation, operation);
    QFETCH(QByteArrayList, parts);

    bench.api->authToken = "tok";
    const RecordedRequest request = bench.record(operation);
    QVERIFY(request.requestLine.startsWith("POST /api/scripts/"));
    QVERIFY(request.header("Content-Type").startsWith("multipart/form-data; boundary="));
    const QByteArray origin = bench.server.origin().toUtf8();
    QByteArrayList headers = clientHeaders(request);
    QVERIFY(headers.removeOne("Content-Type: " + request.header("Content-Type")));
    QCOMPARE(headers, QByteArrayList({"User-Agent: Quorix/2.0 (Windows; compatible)",
                                      "Accept: application/json, text/plain, */*", "Accept-Language: en-US,en;q=0.9",
                                      "Cache-Control: no-cache", "Origin: " + origin, "Referer: " + origin + "/",
                                      "X-Quorix-API-Version: 4", "Authorization: Bearer tok"}));
    QByteArrayList sent;
    for (const Part &part : multipartParts(request)) {
        QByteArray line;
        for (const auto &[name, value] : part.headers)
            line += name + ": " + value;
        sent.append(line + "=" + part.body);
    }
    QCOMPARE(sent, parts);
}

void TestApiRequests::banWithoutTokenSendsNothing()
{
    QSignalSpy errors(bench.api.get(), &OnlineResourcesAPI::errorOccurred);
    bench.api->discordUsername = "mod";
    bench.api->banUser("123", "spam");
    QCOMPARE(errors.size(), 1);
    QCOMPARE(errors.first().first().toString(), QString("Authentication required"));
    QVERIFY(!bench.server.waitForRequests(1, 300));

    bench.api->authToken = "tok";
    const RecordedRequest withReason = bench.record([](auto &a) { a.banUser("123", "spam"); });
    QCOMPARE(withReason.requestLine, QByteArray("POST /api/scripts/ban/123 HTTP/1.1"));
    QCOMPARE(clientHeaders(withReason),
             QByteArrayList({"Content-Type: application/json", "Accept: application/json", "X-Quorix-API-Version: 4",
                             "Authorization: Bearer tok", "X-Discord-Username: mod"}));
    QCOMPARE(withReason.body, json({{"reason", "spam"}}));

    bench.api->banUser("123", QString());
    QVERIFY(bench.server.waitForRequests(2));
    QCOMPARE(bench.server.lastRequest().body, QByteArray("{\n}\n"));
}

QTEST_GUILESS_MAIN(TestApiRequests)
#include "tst_api_requests.moc"
