#include "RecordingHttpServer.h"
#include "TemporaryHome.h"
#include "TestFiles.h"
#include "api/OnlineResourcesAPI.h"

#include <QCryptographicHash>
#include <QDirIterator>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTest>

#include <functional>
#include <memory>

using namespace Quorix;
using namespace Quorix::Testing;

using ApiOperation = std::function<void(OnlineResourcesAPI &)>;
Q_DECLARE_METATYPE(ApiOperation)
Q_DECLARE_METATYPE(ScriptedResponse)

namespace {

const QString droppedMessage = QStringLiteral("Connection was dropped - file may exceed server upload limit");

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

// The form-data parts of a body in order, each as its header lines run together, then "=" and its body.
QByteArrayList multipartParts(const RecordedRequest &request)
{
    const QByteArray contentType = request.header("Content-Type");
    const QByteArray delimiter = "\r\n--" + contentType.mid(contentType.indexOf("boundary=") + 9).replace('"', "");
    QByteArrayList parts;
    const QByteArray body = "\r\n" + request.body;
    for (qsizetype at = body.indexOf(delimiter); at >= 0 && body.mid(at + delimiter.size(), 2) != "--";) {
        const qsizetype start = at + delimiter.size() + 2;
        at = body.indexOf(delimiter, start);
        const QByteArray section = body.mid(start, at - start);
        const qsizetype headerEnd = section.indexOf("\r\n\r\n");
        parts.append(section.left(headerEnd).replace("\r\n", "") + "=" + section.mid(headerEnd + 4));
    }
    return parts;
}

QByteArray json(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Indented);
}

QJsonObject object(const char *json)
{
    return QJsonDocument::fromJson(json).object();
}

// Every file below directory, relative to it.
QStringList files(const QString &directory)
{
    QStringList found;
    for (QDirIterator it(directory, QDir::Files | QDir::Hidden | QDir::System, QDirIterator::Subdirectories);
         it.hasNext();)
        found << it.next().mid(directory.size() + 1);
    return found;
}

// Bytes that differ from one position to the next, so a chunk written twice or out of order shows.
QByteArray patternedBytes(qsizetype size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (qsizetype i = 0; i < size; ++i)
        bytes[i] = char((i * 7 + i / 251) & 0xff);
    return bytes;
}

ScriptedResponse file(const QByteArray &body, const QByteArray &fileName = {})
{
    const ScriptedResponse response = ScriptedResponse::bytes(body);
    return fileName.isEmpty() ? response
                              : response.withHeader("Content-Disposition", "attachment; filename=" + fileName);
}

} // namespace

// The client against a recording server of its own: what goes on the wire, how answers and failures reach the
// signals, and where downloads land.
class TestApi : public QObject
{
    Q_OBJECT

    TemporaryHome home;
    RecordingHttpServer server;
    std::unique_ptr<OnlineResourcesAPI> api;
    QString directory; // empty, for this case's downloads

    RecordedRequest record(const ApiOperation &operation)
    {
        operation(*api);
        return server.waitForRequests(1) ? server.lastRequest() : RecordedRequest();
    }

private slots:
    // The client reads the server origin once per process, so it is set before the first client exists.
    void initTestCase()
    {
        QVERIFY(server.listen());
        qputenv("QUORIX_SERVER_URL", server.origin().toUtf8());
    }

    void init()
    {
        api.reset();
        server.reset();
        server.setDefaultResponse(ScriptedResponse::json({{"success", true}}));
        api = std::make_unique<OnlineResourcesAPI>();
        directory = home.filePath(QStringLiteral("downloads/%1-%2")
                                          .arg(QTest::currentTestFunction(),
                                               QByteArray(QTest::currentDataTag()).toHex()));
        QVERIFY(QDir().mkpath(directory));
    }

    void operationsPutTheirRequestsOnTheWire_data();
    void operationsPutTheirRequestsOnTheWire();
    void credentialsTravelOnlyWithAToken_data();
    void credentialsTravelOnlyWithAToken();
    void queriesCarryOnlyMeaningfulKeys_data();
    void queriesCarryOnlyMeaningfulKeys();
    void uploadsSendTheirPartsInOrder_data();
    void uploadsSendTheirPartsInOrder();
    void banWithoutTokenSendsNothing();
    void repliesReachTheirSignals_data();
    void repliesReachTheirSignals();
    void failuresBecomeOneMessageRoutedByOperation_data();
    void failuresBecomeOneMessageRoutedByOperation();
    void refusedConnectionReportsADroppedUpload();
    void claimRefusedByServerStaysSilent();
    void weightsRequestsAreCancelledButOthersStillArrive();
    void credentialsFollowRedirectsOnlyWithinTheOrigin();
    void filesAreNamedInsideTheirDirectory_data();
    void filesAreNamedInsideTheirDirectory();
    void weightsAreNamedAfterTheirUuid_data();
    void weightsAreNamedAfterTheirUuid();
    void failedDownloadsKeepTheOlderFile_data();
    void failedDownloadsKeepTheOlderFile();
    void largeDownloadArrivesWholeWithProgress();
    void stalledDownloadTimesOutWithoutAFile();
};

void TestApi::operationsPutTheirRequestsOnTheWire_data()
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
    row("environment details", "GET /api/scripts/qenv/details/e-1", listing, {},
        [](auto &a) { a.loadEnvironmentDetails("e-1"); });
    row("weights details", "GET /api/scripts/onnx/details/w-1", listing, {},
        [](auto &a) { a.fetchWeightsDetails("w-1"); });
    row("script download", "GET /api/scripts/download/s-1", bare, {}, [](auto &a) { a.downloadScript("s-1", "/tmp"); });
    row("script like", "POST /api/scripts/like/s-1", action, {}, [](auto &a) { a.toggleLike("s-1"); });
    row("environment like", "POST /api/scripts/qenv/like/e-1", action, {},
        [](auto &a) { a.toggleEnvironmentLike("e-1"); });
    row("weights like", "POST /api/scripts/onnx/like/w-1", action, {}, [](auto &a) { a.toggleWeightsLike("w-1"); });
    row("check existing", "POST /api/scripts/check-existing", action, json({{"name", "Aim"}, {"script_type", "gpc3"}}),
        [](auto &a) { a.checkExistingScript("Aim", "gpc3"); });
    row("access list", "GET /api/scripts/authorizations/s-1?offset=0&limit=50&search=bob", {accept, version}, {},
        [](auto &a) { a.fetchScriptAuthorizations("s-1", 0, 50, "bob"); });
    row("bulk grant with notes", "POST /api/scripts/bulk-authorize/s-1", access,
        json({{"discord_ids", QJsonArray{"222", "111"}}, {"notes", "team"}}),
        [](auto &a) { a.bulkGrantAuthorizations("s-1", {"222", "111"}, "team"); });
    row("bulk grant without notes", "POST /api/scripts/bulk-authorize/s-1", access,
        json({{"discord_ids", QJsonArray{"333"}}}),
        [](auto &a) { a.bulkGrantAuthorizations("s-1", {"333"}, QString()); });
    row("revoke", "POST /api/scripts/revoke/s-1", access, json({{"discord_id", "123"}, {"reason", "left"}}),
        [](auto &a) { a.revokeAuthorization("s-1", {{"discord_id", "123"}, {"reason", "left"}}); });
    row("environment delete", "POST /api/scripts/qenv/e-1?_method=DELETE", deletion, "_method=DELETE",
        [](auto &a) { a.deleteEnvironment("e-1"); });
    row("weights delete", "POST /api/scripts/onnx/w-1?_method=DELETE", deletion, "_method=DELETE",
        [](auto &a) { a.deleteWeights("w-1"); });
}

void TestApi::operationsPutTheirRequestsOnTheWire()
{
    QFETCH(ApiOperation, operation);
    QFETCH(QByteArray, requestLine);
    QFETCH(QByteArrayList, headers);
    QFETCH(QByteArray, body);
    const RecordedRequest request = record(operation);
    QCOMPARE(request.requestLine, requestLine);
    QCOMPARE(clientHeaders(request), headers);
    QCOMPARE(request.body, body);
    // Plain HTTP/1.1 on the wire: no upgrade offer to HTTP/2 rides along.
    QVERIFY(!request.hasHeader("Upgrade") && !request.hasHeader("HTTP2-Settings"));
}

void TestApi::credentialsTravelOnlyWithAToken_data()
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
    QTest::newRow("no token") << QStringList{"", "bob", "Bob", "abc"} << QByteArrayList();
}

void TestApi::credentialsTravelOnlyWithAToken()
{
    QFETCH(QStringList, identity);
    QFETCH(QByteArrayList, credentials);
    api->authToken = identity.at(0);
    api->discordUsername = identity.at(1);
    api->discordGlobalName = identity.at(2);
    api->discordAvatar = identity.at(3);
    QCOMPARE(clientHeaders(record([](auto &a) { a.toggleLike("s-1"); })),
             QByteArrayList({"Content-Type: application/json", "X-Quorix-API-Version: 4"}) + credentials);
}

void TestApi::queriesCarryOnlyMeaningfulKeys_data()
{
    QTest::addColumn<ApiOperation>("operation");
    QTest::addColumn<QByteArray>("target");
    static const QJsonObject full{{"page", 3}, {"limit", 24}, {"type", "gpc3"}, {"sort", "popular"}, {"search", "a b"}};
    const auto row = [](const char *tag, const QByteArray &target, ApiOperation operation) {
        QTest::newRow(tag) << operation << "/api/scripts/" + target;
    };
    row("scripts, every key", "?page=3&limit=24&type=gpc3&sort=popular&search=a%20b",
        [](auto &a) { a.fetchScripts(full); });
    row("scripts, all types and empty search", "?page=1",
        [](auto &a) { a.fetchScripts({{"page", 1}, {"type", "all"}, {"search", ""}}); });
    row("environments never carry a type", "qenv/list?page=3&limit=24&sort=popular&search=a%20b",
        [](auto &a) { a.loadEnvironments(full); });
    row("weights never carry a type", "onnx/list?page=3&limit=24&sort=popular&search=a%20b",
        [](auto &a) { a.fetchWeights(full); });
    row("access list, limit zero", "authorizations/s", [](auto &a) { a.fetchScriptAuthorizations("s", 0, 0, {}); });
    row("access list, negative offset", "authorizations/s?search=ann",
        [](auto &a) { a.fetchScriptAuthorizations("s", -1, 20, "ann"); });
}

void TestApi::queriesCarryOnlyMeaningfulKeys()
{
    QFETCH(ApiOperation, operation);
    QFETCH(QByteArray, target);
    QCOMPARE(record(operation).target, target);
}

void TestApi::uploadsSendTheirPartsInOrder_data()
{
    QTest::addColumn<QJsonObject>("form");
    QTest::addColumn<QByteArrayList>("parts");
    const QString script = home.filePath("aim assist.gpc3"), image = home.filePath("header.png"),
                  model = home.filePath("model.onnx");
    const QByteArray png = QByteArray::fromHex("89504e470d0a1a0a") + QByteArray(8, '\0'), onnx("\x08\x07onnx", 6);
    TestFiles::write(script, "main { }\n");
    TestFiles::write(image, png);
    TestFiles::write(model, onnx);
    const auto text = [](const QByteArray &name, const QByteArray &value) {
        return "Content-Disposition: form-data; name=\"" + name + "\"=" + value;
    };
    const auto file = [](const QByteArray &name, const QByteArray &fileName, const QByteArray &type,
                         const QByteArray &content) {
        return "Content-Type: " + type + "Content-Disposition: form-data; name=\"" + name + "\"; filename=\"" + fileName
               + "\"=" + content;
    };
    QTest::newRow("every script field")
            << QJsonObject{{"name", "Aim Assist"}, {"description", "Helps ✓"}, {"instructions", "Hold L2"},
                           {"tags", "fps,aim"}, {"existing_uuid", "u-9"}, {"version", 1.25},
                           {"visibility_type", "private"}, {"script_file", script}, {"image_file", image}}
            << QByteArrayList{text("name", "Aim Assist"), text("description", QString("Helps ✓").toUtf8()),
                              text("instructions", "Hold L2"), text("tags", "fps,aim"), text("existing_uuid", "u-9"),
                              text("version", "1.25"), text("visibility_type", "private"),
                              file("script_file", "aim assist.gpc3", "application/octet-stream", "main { }\n"),
                              file("header_image", "header.png", "image/png", png)};
    QTest::newRow("empty optional parts and unreadable file left out")
            << QJsonObject{{"name", "A"}, {"description", ""}, {"instructions", ""}, {"tags", ""},
                           {"existing_uuid", ""}, {"image_file", ""}, {"script_file", script + ".missing"}}
            << QByteArrayList{text("name", "A"), text("description", "")};
    for (const auto &[version, sent] : {std::pair{QJsonValue(1.0), "1"}, {3.14159265, "3.14159"}, {"2.5", "2.5"}})
        QTest::addRow("version %s", sent) << QJsonObject{{"name", "A"}, {"version", version}}
                                          << QByteArrayList{text("name", "A"), text("description", ""),
                                                            text("version", sent)};
    const QByteArrayList weights{text("name", "W"), text("description", ""), text("version", "2"),
                                 text("visibility_type", "public")};
    const QByteArray onnxPart = file("onnx_file", "model.onnx", "application/octet-stream", onnx);
    const QJsonObject form{{"name", "W"}, {"version", 2}, {"visibility_type", "public"}, {"onnx_file", model}};
    for (const bool encrypted : {true, false}) {
        QJsonObject flagged = form;
        flagged.insert("encrypted", encrypted);
        QTest::addRow("weights, encrypted %d", encrypted)
                << flagged << weights + QByteArrayList{text("encrypted", encrypted ? "1" : "0"), onnxPart};
    }
    QTest::newRow("weights, encryption unspecified") << form << weights + QByteArrayList{onnxPart};
}

void TestApi::uploadsSendTheirPartsInOrder()
{
    QFETCH(QJsonObject, form);
    QFETCH(QByteArrayList, parts);
    api->authToken = "tok";
    const RecordedRequest request
            = record([&form](auto &a) { form.contains("onnx_file") ? a.uploadWeights(form) : a.uploadScript(form); });
    QVERIFY(request.requestLine.startsWith("POST /api/scripts/"));
    QVERIFY(request.header("Content-Type").startsWith("multipart/form-data; boundary="));
    const QByteArray origin = server.origin().toUtf8();
    QByteArrayList headers = clientHeaders(request);
    QVERIFY(headers.removeOne("Content-Type: " + request.header("Content-Type")));
    QCOMPARE(headers, QByteArrayList({"User-Agent: Quorix/2.0 (Windows; compatible)",
                                      "Accept: application/json, text/plain, */*", "Accept-Language: en-US,en;q=0.9",
                                      "Cache-Control: no-cache", "Origin: " + origin, "Referer: " + origin + "/",
                                      "X-Quorix-API-Version: 4", "Authorization: Bearer tok"}));
    QCOMPARE(multipartParts(request), parts);
}

void TestApi::banWithoutTokenSendsNothing()
{
    QSignalSpy errors(api.get(), &OnlineResourcesAPI::errorOccurred);
    api->discordUsername = "mod";
    api->banUser("123", "spam");
    QCOMPARE(errors.size(), 1);
    QCOMPARE(errors.first().first().toString(), QString("Authentication required"));
    QVERIFY(!server.waitForRequests(1, 300));

    api->authToken = "tok";
    const RecordedRequest withReason = record([](auto &a) { a.banUser("123", "spam"); });
    QCOMPARE(withReason.requestLine, QByteArray("POST /api/scripts/ban/123 HTTP/1.1"));
    QCOMPARE(clientHeaders(withReason),
             QByteArrayList({"Content-Type: application/json", "Accept: application/json", "X-Quorix-API-Version: 4",
                             "Authorization: Bearer tok", "X-Discord-Username: mod"}));
    QCOMPARE(withReason.body, json({{"reason", "spam"}}));
    api->banUser("123", QString());
    QVERIFY(server.waitForRequests(2));
    QCOMPARE(server.lastRequest().body, QByteArray("{\n}\n"));
}

void TestApi::repliesReachTheirSignals_data()
{
    QTest::addColumn<ApiOperation>("operation");
    QTest::addColumn<ScriptedResponse>("response");
    QTest::addColumn<QByteArray>("signal");
    QTest::addColumn<QVariantList>("arguments"); // empty: an unreadable list, delivered as a failed list

    const auto row = [](const char *tag, ApiOperation operation, const ScriptedResponse &response, const char *signal,
                        const QVariantList &arguments) {
        QTest::newRow(tag) << operation << response << QByteArray(signal) << arguments;
    };
    const auto json = [](const QByteArray &text) { return ScriptedResponse::rawJson(text); };
    const QJsonObject page = object(R"({"success":true,"scripts":[{"id":"s-1"}],"pagination":{"total_pages":3}})");
    const QJsonObject refusal = object(R"({"success":false,"error":"Bad sort"})");
    const QJsonObject record = object(R"({"id":"s-1","name":"Aim"})");
    const ScriptedResponse found = ScriptedResponse::json({{"success", true}, {"data", record}});
    const ScriptedResponse created = json(R"({"success":true,"data":{"id":"x-1"}})");
    const ScriptedResponse liked = json(R"({"success":true,"data":{"liked":true,"like_count":12}})");
    const ScriptedResponse refused = ScriptedResponse::json(refusal);
    const char *error = SIGNAL(errorOccurred(QString));
    const ApiOperation scripts = [](auto &a) { a.fetchScripts({}); }, weights = [](auto &a) { a.fetchWeights({}); };
    const ApiOperation scriptDetails = [](auto &a) { a.fetchScriptDetails("s-1"); };
    const ApiOperation environmentDetails = [](auto &a) { a.loadEnvironmentDetails("e"); };
    const ApiOperation weightsDetails = [](auto &a) { a.fetchWeightsDetails("w"); };
    const ApiOperation uploadScript = [](auto &a) { a.uploadScript({{"name", "A"}}); };
    const ApiOperation uploadWeights = [](auto &a) { a.uploadWeights({{"name", "W"}}); };
    const ApiOperation likedList = [](auto &a) { a.fetchUserLikedScripts(); };

    row("script list", scripts, ScriptedResponse::json(page), SIGNAL(scriptsLoaded(QJsonObject)), {page});
    row("script list refused, still a list", scripts, refused, SIGNAL(scriptsLoaded(QJsonObject)), {refusal});
    row("script list of megabytes that never closes", scripts,
        json("{\"success\":true,\"scripts\":[" + QByteArray(6 * 1024 * 1024, 'x')), SIGNAL(scriptsLoaded(QJsonObject)),
        {});
    row("weights list that is an array", weights, json("[]"), SIGNAL(weightsLoaded(QJsonObject)), {});
    row("environment details", environmentDetails, found, SIGNAL(environmentDetailsLoaded(QJsonObject)), {record});
    row("weights details", weightsDetails, found, SIGNAL(weightsDetailsLoaded(QJsonObject)), {record});
    row("details refused", scriptDetails, json(R"({"success":false,"error":"Gone"})"), error, {"details_error: Gone"});
    row("details refused without a reason", environmentDetails, json(R"({"success":"true"})"), error,
        {"envDetails_error: Unknown error loading details"});
    row("details with an empty body", weightsDetails, json(""), error,
        {"weightsDetails_error: Failed to parse response"});
    row("details that are not an object", scriptDetails, json("[1]"), error,
        {"details_error: Failed to parse response"});
    row("script upload refused", uploadScript, refused, error, {"Upload failed: Bad sort"});
    row("upload answered with data of the wrong type", uploadScript, json(R"({"success":true,"data":"id"})"),
        SIGNAL(scriptUploaded(QString)), {QString()});
    row("weights upload refused", uploadWeights, refused, error, {"Weights upload failed: Bad sort"});
    row("environment delete", [](auto &a) { a.deleteEnvironment("x-1"); }, created,
        SIGNAL(environmentDeleted(QString)), {"x-1"});
    row("weights delete", [](auto &a) { a.deleteWeights("x-1"); }, created, SIGNAL(weightsDeleted(QString)), {"x-1"});
    row("delete refused without a reason", [](auto &a) { a.deleteScript("x-1"); }, json(R"({"success":false})"), error,
        {"Delete failed: Unknown error occurred"});
    row("delete refused", [](auto &a) { a.deleteWeights("x-1"); }, json(R"({"success":false,"error":"Not yours"})"),
        error, {"Delete failed: Not yours"});
    row("delete answered with HTML", [](auto &a) { a.deleteEnvironment("x-1"); },
        ScriptedResponse::bytes("<html>", "text/html"), error, {"Invalid server response"});
    row("script like names the ID from the address", [](auto &a) { a.toggleLike("s 7"); }, liked,
        SIGNAL(scriptLikeToggled(QString, bool, int)), {"s 7", true, 12});
    row("environment like", [](auto &a) { a.toggleEnvironmentLike("e-2"); }, liked,
        SIGNAL(environmentLikeToggled(QString, bool, int)), {"e-2", true, 12});
    row("weights like", [](auto &a) { a.toggleWeightsLike("w-3"); }, liked,
        SIGNAL(weightsLikeToggled(QString, bool, int)), {"w-3", true, 12});
    row("like refused", [](auto &a) { a.toggleLike("s-1"); }, json(R"({"success":false,"error":"Sign in"})"), error,
        {"Like toggle failed: Sign in"});
    row("liked list unreadable", likedList, json("{oops"), SIGNAL(userLikedScriptsLoaded(QStringList)),
        {QStringList()});
    row("liked list refused", likedList, refused, error, {"Failed to get liked scripts: Bad sort"});
    row("grant as received, even refused", [](auto &a) { a.grantAuthorization("s", {}); }, refused,
        SIGNAL(authorizationGranted(QJsonObject)), {refusal});
    row("ban refused", [](auto &a) { a.banUser("42", {}); }, json(R"({"success":false,"error":"Already banned"})"),
        error, {"Ban failed: Already banned"});
}

void TestApi::repliesReachTheirSignals()
{
    QFETCH(ApiOperation, operation);
    QFETCH(ScriptedResponse, response);
    QFETCH(QByteArray, signal);
    QFETCH(QVariantList, arguments);
    api->authToken = "tok";
    server.setDefaultResponse(response);
    QSignalSpy spy(api.get(), signal.constData());
    QSignalSpy errors(api.get(), &OnlineResourcesAPI::errorOccurred);
    operation(*api);
    QVERIFY(spy.wait(10000));
    QTest::qWait(50);
    QCOMPARE(spy.size(), 1);
    if (arguments.isEmpty()) {
        const QJsonObject received = spy.first().first().toJsonObject();
        QCOMPARE(received.value("success"), QJsonValue(false));
        QVERIFY(received.value("error").toString().startsWith("Invalid JSON response: "));
    } else {
        QCOMPARE(spy.first(), arguments);
    }
    if (signal != SIGNAL(errorOccurred(QString)))
        QCOMPARE(errors.size(), 0);
}

void TestApi::failuresBecomeOneMessageRoutedByOperation_data()
{
    QTest::addColumn<ApiOperation>("operation");
    QTest::addColumn<ScriptedResponse>("response");
    QTest::addColumn<QString>("message"); // ending in "HTTP <code>: ": followed by the network library's wording
    QTest::addColumn<bool>("asScriptList");

    const auto row = [](const char *tag, ApiOperation operation, const ScriptedResponse &response,
                        const QString &message, bool asScriptList = false) {
        QTest::newRow(tag) << operation << response << message << asScriptList;
    };
    const ScriptedResponse tooLarge = ScriptedResponse::bytes("Payload Too Large", "text/plain", 413);
    const ScriptedResponse serverError = ScriptedResponse::json({{"success", false}}, 500);
    const ScriptedResponse cutShort = ScriptedResponse::json({{"success", true}}).droppingAfter(5);
    const ApiOperation uploadWeights = [](auto &a) { a.uploadWeights({{"name", "W"}}); };
    const ApiOperation scripts = [](auto &a) { a.fetchScripts({}); };
    row("upload too large", [](auto &a) { a.uploadScript({{"name", "A"}}); }, tooLarge,
        "Upload failed - File too large - exceeds server upload limit");
    row("weights upload too large", uploadWeights, tooLarge,
        "Weights upload failed: File too large - exceeds server upload limit");
    row("weights upload dropped", uploadWeights, ScriptedResponse::dropped(),
        "Weights upload failed: " + droppedMessage);
    row("script list, server error", scripts, serverError, "HTTP 500: ", true);
    row("script list dropped mid-reply", scripts, cutShort, droppedMessage, true);
    row("environment list dropped mid-reply", [](auto &a) { a.loadEnvironments({}); }, cutShort, droppedMessage);
    row("weights list answered with garbage", [](auto &a) { a.fetchWeights({}); },
        ScriptedResponse::rawBytes("HTTP/1.1 2x0 Maybe\r\n\r\n"), droppedMessage);
    row("script details, server error", [](auto &a) { a.fetchScriptDetails("s"); }, serverError,
        "details_error: HTTP 500: ");
    row("environment details dropped", [](auto &a) { a.loadEnvironmentDetails("e"); }, ScriptedResponse::dropped(),
        "envDetails_error: " + droppedMessage);
    row("weights details dropped, without prefix", [](auto &a) { a.fetchWeightsDetails("w"); },
        ScriptedResponse::dropped(), droppedMessage);
    row("like, not found", [](auto &a) { a.toggleLike("s"); }, ScriptedResponse::bytes("no", "text/plain", 404),
        "HTTP 404: ");
}

void TestApi::failuresBecomeOneMessageRoutedByOperation()
{
    QFETCH(ApiOperation, operation);
    QFETCH(ScriptedResponse, response);
    QFETCH(QString, message);
    QFETCH(bool, asScriptList);
    api->authToken = "tok";
    server.setDefaultResponse(response);
    QSignalSpy lists(api.get(), &OnlineResourcesAPI::scriptsLoaded);
    QSignalSpy otherLists(api.get(), &OnlineResourcesAPI::environmentsLoaded);
    QSignalSpy errors(api.get(), &OnlineResourcesAPI::errorOccurred);
    operation(*api);
    QVERIFY((asScriptList ? lists : errors).wait(10000));
    QTest::qWait(50);
    QCOMPARE(lists.size() + otherLists.size() + errors.size(), 1);
    const QJsonObject list = asScriptList ? lists.first().first().toJsonObject() : QJsonObject();
    const QString received = asScriptList ? list.value("error").toString() : errors.first().first().toString();
    if (asScriptList)
        QCOMPARE(list.value("success"), QJsonValue(false));
    if (message.startsWith("HTTP ") || message.endsWith("HTTP 500: "))
        QVERIFY2(received.startsWith(message) && received.size() > message.size(), qPrintable(received));
    else
        QCOMPARE(received, message);
}

void TestApi::refusedConnectionReportsADroppedUpload()
{
    const quint16 port = server.port();
    server.close();
    QSignalSpy errors(api.get(), &OnlineResourcesAPI::errorOccurred);
    QSignalSpy liked(api.get(), &OnlineResourcesAPI::userLikedScriptsLoaded);
    api->uploadScript({{"name", "A"}});
    api->fetchUserLikedScripts();
    QTRY_COMPARE_WITH_TIMEOUT(errors.size() + liked.size(), 2, 10000);
    QCOMPARE(errors.first().first().toString(), "Upload failed - " + droppedMessage);
    QCOMPARE(liked.first().first().toStringList(), QStringList());
    QVERIFY(server.listen(port));
}

void TestApi::claimRefusedByServerStaysSilent()
{
    server.setDefaultResponse(ScriptedResponse::json(object(R"({"success":false,"error":"none pending"})")));
    QSignalSpy claimed(api.get(), &OnlineResourcesAPI::pendingAuthorizationsClaimed);
    QSignalSpy errors(api.get(), &OnlineResourcesAPI::errorOccurred);
    api->claimPendingAuthorizations();
    QVERIFY(server.waitForRequests(1));
    QTest::qWait(300);
    QCOMPARE(claimed.size() + errors.size(), 0);
}

void TestApi::weightsRequestsAreCancelledButOthersStillArrive()
{
    server.setDefaultResponse(ScriptedResponse::json({{"success", true}}).withDelay(400));
    QSignalSpy scripts(api.get(), &OnlineResourcesAPI::scriptsLoaded);
    QSignalSpy environments(api.get(), &OnlineResourcesAPI::environmentsLoaded);
    QSignalSpy weights(api.get(), &OnlineResourcesAPI::weightsLoaded);
    QSignalSpy weightsDetails(api.get(), &OnlineResourcesAPI::weightsDetailsLoaded);
    QSignalSpy errors(api.get(), &OnlineResourcesAPI::errorOccurred);
    api->fetchScripts({});
    api->fetchWeights({});
    api->fetchWeightsDetails("w-1");
    api->loadEnvironments({});
    QVERIFY(server.waitForRequests(4));
    api->cancelPendingRequests();
    QTRY_COMPARE_WITH_TIMEOUT(scripts.size() + environments.size(), 2, 5000);
    QTest::qWait(600);
    QCOMPARE(weights.size() + weightsDetails.size() + errors.size(), 0);
}

void TestApi::credentialsFollowRedirectsOnlyWithinTheOrigin()
{
    RecordingHttpServer elsewhere;
    QVERIFY(elsewhere.listen());
    elsewhere.setDefaultResponse(ScriptedResponse::json(object(R"({"success":true,"data":{"id":"stolen"}})")));
    server.setRule("/api/scripts/details/away", ScriptedResponse::redirect(elsewhere.url("/api/scripts/details/s-1")));
    server.setRule("/api/scripts/details/old", ScriptedResponse::redirect(server.url("/api/scripts/details/new")));
    server.setRule("/api/scripts/details/new",
                   ScriptedResponse::json(object(R"({"success":true,"data":{"id":"new"}})")));
    api->authToken = "tok";
    api->discordUsername = "bob";
    QSignalSpy details(api.get(), &OnlineResourcesAPI::scriptDetailsLoaded);
    QSignalSpy errors(api.get(), &OnlineResourcesAPI::errorOccurred);
    api->fetchScriptDetails("away");
    QVERIFY(errors.wait(10000));
    QVERIFY(errors.first().first().toString().startsWith("details_error: "));
    for (const RecordedRequest &request : elsewhere.requests())
        QVERIFY(!request.hasHeader("Authorization") && !request.hasHeader("X-Discord-Username"));

    api->fetchScriptDetails("old");
    QVERIFY(details.wait(10000));
    QCOMPARE(details.size(), 1);
    QCOMPARE(details.first().first().toJsonObject().value("id"), QJsonValue("new"));
    // Qt 6.4 now and then sends the redirected GET a second time on the same connection before it follows the
    // redirect, so only the follow-up is counted: it must go out once, with the session.
    QList<RecordedRequest> followUps = server.requests();
    followUps.removeIf([](const RecordedRequest &request) { return request.path() != "/api/scripts/details/new"; });
    QCOMPARE(followUps.size(), 1);
    QCOMPARE(followUps.first().header("Authorization"), QByteArray("Bearer tok"));
}

void TestApi::filesAreNamedInsideTheirDirectory_data()
{
    QTest::addColumn<bool>("environment");
    QTest::addColumn<QByteArray>("fileName");
    QTest::addColumn<QString>("savedAs");
    QTest::newRow("quoted name") << false << QByteArray("\"aim assist v2.gpc3\"") << "aim assist v2.gpc3";
    QTest::newRow("script without a name") << false << QByteArray() << "script.gpc3";
    QTest::newRow("environment without a name") << true << QByteArray() << "environment.qenv";
    QTest::newRow("parent climb") << false << QByteArray("\"../../x.gpc3\"") << "x.gpc3";
    QTest::newRow("backslash climb") << true << QByteArray("\"..\\\\x.qenv\"") << "x.qenv";
    QTest::newRow("absolute path") << false << QByteArray("/etc/x") << "x";
    QTest::newRow("parent only") << false << QByteArray("\"..\"") << "script.gpc3";
    QTest::newRow("drive letter") << false << QByteArray("\"C:x.gpc3\"") << "x.gpc3";
    QTest::newRow("drive and root") << false << QByteArray("\"C:\\\\x.gpc3\"") << "x.gpc3";
}

void TestApi::filesAreNamedInsideTheirDirectory()
{
    QFETCH(bool, environment);
    QFETCH(QByteArray, fileName);
    QFETCH(QString, savedAs);
    const QString inner = directory + "/a/b";
    QVERIFY(QDir().mkpath(inner));
    server.setDefaultResponse(file("evil", fileName));
    QSignalSpy downloaded(api.get(), environment ? &OnlineResourcesAPI::environmentDownloaded
                                                 : &OnlineResourcesAPI::scriptDownloaded);
    if (environment)
        api->downloadEnvironment("e-1", inner);
    else
        api->downloadScript("s-1", inner);
    QVERIFY(downloaded.wait());
    QCOMPARE(downloaded.first().first().toString(), inner + "/" + savedAs);
    QCOMPARE(TestFiles::read(inner + "/" + savedAs), QByteArray("evil"));
    QCOMPARE(files(directory), QStringList{"a/b/" + savedAs});
    QVERIFY(!QFile::exists("/etc/x"));
}

void TestApi::weightsAreNamedAfterTheirUuid_data()
{
    QTest::addColumn<QString>("uuid");
    QTest::addColumn<QByteArray>("fileName");
    QTest::addColumn<QString>("extension"); // empty: refused, nothing saved
    QTest::newRow("encrypted") << "0b7c-1" << QByteArray("\"Detector v1.ennx\"") << "ennx";
    QTest::newRow("no header") << "0b7c-3" << QByteArray() << "onnx";
    QTest::newRow("extension with a path") << "0b7c-5" << QByteArray("\"a.b/../../evil\"") << "onnx";
    QTest::newRow("extension too long") << "0b7c-6" << QByteArray("\"m.abcdefghijklmnopq\"") << "onnx";
    QTest::newRow("extension not plain") << "0b7c-7" << QByteArray("\"m.on nx\"") << "onnx";
    QTest::newRow("uuid that is a path") << ".." << QByteArray("\"m.onnx\"") << "";
}

void TestApi::weightsAreNamedAfterTheirUuid()
{
    QFETCH(QString, uuid);
    QFETCH(QByteArray, fileName);
    QFETCH(QString, extension);
    const QString weights = OnlineResourcesAPI::weightsDirectory();
    QVERIFY(weights.startsWith(QStandardPaths::writableLocation(QStandardPaths::AppLocalDataLocation)));
    server.setDefaultResponse(file("weights", fileName));
    QSignalSpy downloaded(api.get(), &OnlineResourcesAPI::weightsDownloaded);
    QSignalSpy errors(api.get(), &OnlineResourcesAPI::errorOccurred);
    api->downloadWeights(uuid);
    QVERIFY((extension.isEmpty() ? errors : downloaded).wait());
    const QString path = weights + "/" + uuid + "." + extension;
    if (extension.isEmpty()) {
        QCOMPARE(errors.first().first().toString(), QString("Failed to save downloaded weights file"));
        QCOMPARE(downloaded.size(), 0);
        QVERIFY(!QFile::exists(QFileInfo(weights).path() + "/..onnx"));
    } else {
        QCOMPARE(downloaded.first(), QVariantList({uuid, path}));
        QCOMPARE(TestFiles::read(path), QByteArray("weights"));
        QVERIFY(QFile::remove(path));
    }
    QCOMPARE(files(weights), QStringList());
}

void TestApi::failedDownloadsKeepTheOlderFile_data()
{
    QTest::addColumn<ScriptedResponse>("response");
    QTest::addColumn<QString>("message");
    const QString unexpected = "Download failed: Download failed - server returned unexpected response";
    const QString damaged = "Download failed: the file was damaged in transit";
    const QByteArray body = patternedBytes(3 * 1024 * 1024 + 5);
    const auto digest = [&body](const QByteArray &value) { return file(body).withHeader("Repr-Digest", value); };
    const QByteArray right = QCryptographicHash::hash(body, QCryptographicHash::Sha256).toBase64();
    const QByteArray wrong = QCryptographicHash::hash("other", QCryptographicHash::Sha256).toBase64();
    QTest::newRow("refusal with a reason") << ScriptedResponse::rawJson(R"({"success":false,"error":"Access denied"})")
                                           << "Download failed: Access denied";
    QTest::newRow("refusal without a reason") << ScriptedResponse::rawJson(R"({"success":false})") << unexpected;
    QTest::newRow("JSON that is not JSON") << ScriptedResponse::rawJson("<html>") << unexpected;
    QTest::newRow("refusal of megabytes") << ScriptedResponse::rawJson(QByteArray(9 * 1024 * 1024, ' ')) << unexpected;
    QTest::newRow("dropped") << file(patternedBytes(4 * 1024 * 1024)).droppingAfter(2 * 1024 * 1024) << droppedMessage;
    QTest::newRow("mismatching digest") << digest("sha-256=:" + wrong + ':') << damaged;
    QTest::newRow("digest not base64") << digest("sha-256=:!!!!:") << damaged;
    QTest::newRow("matching among other digests") << digest("sha-512=:AAAA:, sha-256=:" + right + ':') << "";
    QTest::newRow("only digests we do not check") << digest("sha-512=:AAAA:") << "";
}

void TestApi::failedDownloadsKeepTheOlderFile()
{
    QFETCH(ScriptedResponse, response);
    QFETCH(QString, message);
    QVERIFY(TestFiles::write(directory + "/tool.gpc3", "older"));
    server.setDefaultResponse(response.withHeader("Content-Disposition", "attachment; filename=tool.gpc3"));
    QSignalSpy downloaded(api.get(), &OnlineResourcesAPI::scriptDownloaded);
    QSignalSpy failed(api.get(), &OnlineResourcesAPI::downloadFailed);
    QSignalSpy errors(api.get(), &OnlineResourcesAPI::errorOccurred);
    api->downloadScript("s-1", directory);
    QTRY_COMPARE_WITH_TIMEOUT(downloaded.size() + failed.size(), 1, 15000);
    QCOMPARE(files(directory), QStringList{"tool.gpc3"});
    QCOMPARE(TestFiles::read(directory + "/tool.gpc3"), message.isEmpty() ? response.body : QByteArray("older"));
    if (!message.isEmpty()) {
        QCOMPARE(failed.first(), QVariantList({"download:" + directory, message}));
        QCOMPARE(errors.first().first().toString(), message);
    }
}

void TestApi::largeDownloadArrivesWholeWithProgress()
{
    const QByteArray body = patternedBytes(12 * 1024 * 1024 + 17);
    server.setDefaultResponse(file(body, "big.gpc3"));
    QSignalSpy downloaded(api.get(), &OnlineResourcesAPI::scriptDownloaded);
    QSignalSpy progress(api.get(), &OnlineResourcesAPI::downloadProgress);
    api->downloadScript("s-1", directory);
    QVERIFY(downloaded.wait(30000));
    QVERIFY(TestFiles::read(directory + "/big.gpc3") == body);
    QCOMPARE(progress.last(), QVariantList({qint64(body.size()), qint64(body.size())}));

    // A directory below a regular file cannot exist, whoever asks, root included.
    QSignalSpy errors(api.get(), &OnlineResourcesAPI::errorOccurred);
    api->downloadEnvironment("e-1", directory + "/big.gpc3/inside");
    QVERIFY(errors.wait());
    api->downloadScript("s-1", directory + "/big.gpc3/inside");
    QVERIFY(errors.wait());
    QTest::qWait(100);
    QCOMPARE(errors, (QList<QVariantList>{{"Failed to save downloaded environment file"},
                                           {"Failed to save downloaded file"}}));
    QCOMPARE(files(directory), QStringList{"big.gpc3"});
}

void TestApi::stalledDownloadTimesOutWithoutAFile()
{
    QVERIFY(TestFiles::write(directory + "/slow.gpc3", "older"));
    server.setDefaultResponse(file(patternedBytes(256 * 1024), "slow.gpc3").stallingAfter(64 * 1024));
    QSignalSpy downloaded(api.get(), &OnlineResourcesAPI::scriptDownloaded);
    api->downloadScript("s-1", directory);
    QVERIFY(server.waitForRequests(1));
    // The client gives up by closing its connection once no byte has moved for the transfer timeout.
    QTRY_COMPARE_WITH_TIMEOUT(server.openConnectionCount(), 0, 15000);
    QTest::qWait(200);
    QCOMPARE(downloaded.size(), 0);
    QCOMPARE(TestFiles::read(directory + "/slow.gpc3"), QByteArray("older"));
    QCOMPARE(files(directory), QStringList{"slow.gpc3"});
}

QTEST_GUILESS_MAIN(TestApi)
#include "tst_api.moc"
