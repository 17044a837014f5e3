#include "RecordingHttpServer.h"
#include "TemporaryHome.h"
#include "api/OnlineResourcesAPI.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSignalSpy>
#include <QTest>

#include <functional>
#include <memory>

using namespace Quorix;
using namespace Quorix::Testing;

namespace {

using Operation = std::function<void(OnlineResourcesAPI &)>;

struct MultipartPart
{
    HttpHeaders headers;
    QByteArray body;

    QByteArray header(const QByteArray &name) const
    {
        for (const auto &header : headers) {
            if (header.first.compare(name, Qt::CaseInsensitive) == 0)
                return header.second;
        }
        return {};
    }
};

// Splits a form-data body on the boundary announced in its Content-Type.
QList<MultipartPart> multipartParts(const RecordedRequest &request)
{
    const QByteArray contentType = request.header("Content-Type");
    const qsizetype boundaryAt = contentType.indexOf("boundary=");
    if (boundaryAt < 0)
        return {};
    QByteArray boundary = contentType.mid(boundaryAt + 9);
    if (boundary.startsWith('"'))
        boundary = boundary.mid(1, boundary.size() - 2);
    const QByteArray delimiter = "--" + boundary;

    QList<MultipartPart> parts;
    qsizetype position = request.body.indexOf(delimiter);
    while (position >= 0) {
        position += delimiter.size();
        if (request.body.mid(position, 2) == "--")
            break;
        position += 2; // CRLF after the delimiter
        const qsizetype next = request.body.indexOf("\r\n" + delimiter, position);
        if (next < 0)
            break;
        const QByteArray section = request.body.mid(position, next - position);
        const qsizetype headerEnd = section.indexOf("\r\n\r\n");
        MultipartPart part;
        for (const QByteArray &line : section.left(headerEnd).split('\n')) {
            const qsizetype colon = line.indexOf(':');
            if (colon > 0)
                part.headers.append({line.left(colon).trimmed(), line.mid(colon + 1).trimmed()});
        }
        part.body = section.mid(headerEnd + 4);
        parts.append(part);
        position = next + 2;
    }
    return parts;
}

QByteArrayList partNames(const QList<MultipartPart> &parts)
{
    QByteArrayList names;
    for (const MultipartPart &part : parts) {
        const QByteArray disposition = part.header("Content-Disposition");
        const qsizetype start = disposition.indexOf("name=\"") + 6;
        names.append(disposition.mid(start, disposition.indexOf('"', start) - start));
    }
    return names;
}

const MultipartPart *findPart(const QList<MultipartPart> &parts, const QByteArray &name)
{
    for (const MultipartPart &part : parts) {
        if (part.header("Content-Disposition").contains("name=\"" + name + "\""))
            return &part;
    }
    return nullptr;
}

// The headers this client chooses, as "Name: value" lines in wire order. What the network stack adds by itself
// (connection management, compression, its own defaults for headers the client leaves unset) is left out.
QByteArrayList clientHeaders(const RecordedRequest &request)
{
    static const QByteArrayList transport{"host", "connection", "accept-encoding", "content-length", "mime-version"};
    QByteArrayList lines;
    for (const auto &header : request.headers) {
        const QByteArray name = header.first.toLower();
        if (transport.contains(name))
            continue;
        if (name == "user-agent" && header.second == "Mozilla/5.0")
            continue;
        if (name == "accept-language" && header.second.endsWith(",*"))
            continue;
        lines.append(header.first + ": " + header.second);
    }
    return lines;
}

} // namespace

Q_DECLARE_METATYPE(Operation)

class TestApiRequests : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void operationsPutTheirRequestsOnTheWire_data();
    void operationsPutTheirRequestsOnTheWire();
    void credentialsTravelOnlyWithAToken_data();
    void credentialsTravelOnlyWithAToken();
    void listQueriesCarryOnlyMeaningfulKeys_data();
    void listQueriesCarryOnlyMeaningfulKeys();
    void accessListPagingNeedsBothBounds_data();
    void accessListPagingNeedsBothBounds();
    void scriptUploadSendsPartsInOrder();
    void uploadLeavesOutEmptyOptionalParts();
    void uploadWritesVersionsInShortNotation_data();
    void uploadWritesVersionsInShortNotation();
    void uploadWithoutReadableScriptStillReachesServer();
    void weightsUploadSendsEncryptedFlagWhenGiven_data();
    void weightsUploadSendsEncryptedFlagWhenGiven();
    void deletionsArePostsWithThreeMarkers_data();
    void deletionsArePostsWithThreeMarkers();
    void banWithoutTokenSendsNothing();

private:
    RecordedRequest record(const Operation &operation);

    std::unique_ptr<TemporaryHome> home;
    RecordingHttpServer server;
    std::unique_ptr<OnlineResourcesAPI> api;
};

void TestApiRequests::initTestCase()
{
    home = std::make_unique<TemporaryHome>();
    QVERIFY(server.listen());
    qputenv("QUORIX_SERVER_URL", server.origin().toUtf8());
}

void TestApiRequests::init()
{
    server.reset();
    server.setDefaultResponse(ScriptedResponse::json({{"success", true}}));
    api = std::make_unique<OnlineResourcesAPI>();
}

void TestApiRequests::cleanup()
{
    api.reset();
}

RecordedRequest TestApiRequests::record(const Operation &operation)
{
    operation(*api);
    if (!server.waitForRequests(1))
        return {};
    return server.lastRequest();
}

void TestApiRequests::operationsPutTheirRequestsOnTheWire_data()
{
    QTest::addColumn<Operation>("operation");
    QTest::addColumn<QByteArray>("requestLine");
    QTest::addColumn<QByteArrayList>("headers");
    QTest::addColumn<QByteArray>("body");

    const QByteArrayList listing{"Content-Type: application/json", "Accept: application/json", "User-Agent: Quorix/2.0",
                                 "X-Quorix-API-Version: 4"};
    const QByteArrayList jsonAction{"Content-Type: application/json", "X-Quorix-API-Version: 4"};
    const QByteArrayList jsonActionWithAccept{"Content-Type: application/json", "Accept: application/json",
                                              "X-Quorix-API-Version: 4"};
    const QByteArrayList accessWrite{"Content-Type: application/json", "Accept: application/json",
                                     "X-Quorix-API-Version: 4"};
    const QByteArrayList versionOnly{"X-Quorix-API-Version: 4"};

    QTest::newRow("script list") << Operation([](OnlineResourcesAPI &a) {
        a.fetchScripts({{"page", 2}});
    }) << QByteArray("GET /api/scripts/?page=2 HTTP/1.1")
                                 << listing << QByteArray();
    QTest::newRow("script details") << Operation([](OnlineResourcesAPI &a) { a.fetchScriptDetails("s-1"); })
                                    << QByteArray("GET /api/scripts/details/s-1 HTTP/1.1") << listing << QByteArray();
    QTest::newRow("environment list") << Operation([](OnlineResourcesAPI &a) { a.loadEnvironments({}); })
                                      << QByteArray("GET /api/scripts/qenv/list HTTP/1.1") << listing << QByteArray();
    QTest::newRow("environment details") << Operation([](OnlineResourcesAPI &a) { a.loadEnvironmentDetails("e-1"); })
                                         << QByteArray("GET /api/scripts/qenv/details/e-1 HTTP/1.1") << listing
                                         << QByteArray();
    QTest::newRow("weights list") << Operation([](OnlineResourcesAPI &a) { a.fetchWeights({}); })
                                  << QByteArray("GET /api/scripts/onnx/list HTTP/1.1") << listing << QByteArray();
    QTest::newRow("weights details") << Operation([](OnlineResourcesAPI &a) { a.fetchWeightsDetails("w-1"); })
                                     << QByteArray("GET /api/scripts/onnx/details/w-1 HTTP/1.1") << listing
                                     << QByteArray();
    QTest::newRow("script download") << Operation([](OnlineResourcesAPI &a) { a.downloadScript("s-1", "/tmp"); })
                                     << QByteArray("GET /api/scripts/download/s-1 HTTP/1.1") << versionOnly
                                     << QByteArray();
    QTest::newRow("environment download")
            << Operation([](OnlineResourcesAPI &a) { a.downloadEnvironment("e-1", "/tmp"); })
            << QByteArray("GET /api/scripts/qenv/download/e-1 HTTP/1.1") << versionOnly << QByteArray();
    QTest::newRow("weights download") << Operation([](OnlineResourcesAPI &a) { a.downloadWeights("w-1"); })
                                      << QByteArray("GET /api/scripts/onnx/download/w-1 HTTP/1.1") << versionOnly
                                      << QByteArray();
    QTest::newRow("script like") << Operation([](OnlineResourcesAPI &a) { a.toggleLike("s-1"); })
                                 << QByteArray("POST /api/scripts/like/s-1 HTTP/1.1") << jsonAction << QByteArray();
    QTest::newRow("environment like") << Operation([](OnlineResourcesAPI &a) { a.toggleEnvironmentLike("e-1"); })
                                      << QByteArray("POST /api/scripts/qenv/like/e-1 HTTP/1.1") << jsonAction
                                      << QByteArray();
    QTest::newRow("weights like") << Operation([](OnlineResourcesAPI &a) { a.toggleWeightsLike("w-1"); })
                                  << QByteArray("POST /api/scripts/onnx/like/w-1 HTTP/1.1") << jsonAction
                                  << QByteArray();
    QTest::newRow("liked list") << Operation([](OnlineResourcesAPI &a) { a.fetchUserLikedScripts(); })
                                << QByteArray("GET /api/scripts/liked HTTP/1.1") << versionOnly << QByteArray();
    QTest::newRow("check existing")
            << Operation([](OnlineResourcesAPI &a) { a.checkExistingScript("Aim", "gpc3"); })
            << QByteArray("POST /api/scripts/check-existing HTTP/1.1") << jsonAction
            << QJsonDocument(QJsonObject{{"name", "Aim"}, {"script_type", "gpc3"}}).toJson(QJsonDocument::Indented);
    QTest::newRow("access list") << Operation([](OnlineResourcesAPI &a) {
        a.fetchScriptAuthorizations("s-1", 0, 50, "bob");
    }) << QByteArray("GET /api/scripts/authorizations/s-1?offset=0&limit=50&search=bob HTTP/1.1")
                                 << QByteArrayList{"Accept: application/json", "X-Quorix-API-Version: 4"}
                                 << QByteArray();
    const QJsonObject grant{{"discord_id", "123456789012345678"}, {"notes", "friend"}};
    QTest::newRow("grant") << Operation([grant](OnlineResourcesAPI &a) { a.grantAuthorization("s-1", grant); })
                           << QByteArray("POST /api/scripts/authorize/s-1 HTTP/1.1") << accessWrite
                           << QJsonDocument(grant).toJson(QJsonDocument::Indented);
    QTest::newRow("bulk grant with notes")
            << Operation([](OnlineResourcesAPI &a) {
                   a.bulkGrantAuthorizations("s-1", {"222", "111"}, "team");
               })
            << QByteArray("POST /api/scripts/bulk-authorize/s-1 HTTP/1.1") << accessWrite
            << QJsonDocument(QJsonObject{{"discord_ids", QJsonArray{"222", "111"}}, {"notes", "team"}})
                       .toJson(QJsonDocument::Indented);
    QTest::newRow("bulk grant without notes")
            << Operation([](OnlineResourcesAPI &a) { a.bulkGrantAuthorizations("s-1", {"333"}, QString()); })
            << QByteArray("POST /api/scripts/bulk-authorize/s-1 HTTP/1.1") << accessWrite
            << QJsonDocument(QJsonObject{{"discord_ids", QJsonArray{"333"}}}).toJson(QJsonDocument::Indented);
    const QJsonObject revoke{{"discord_id", "123"}, {"reason", "left"}};
    QTest::newRow("revoke") << Operation([revoke](OnlineResourcesAPI &a) { a.revokeAuthorization("s-1", revoke); })
                            << QByteArray("POST /api/scripts/revoke/s-1 HTTP/1.1") << accessWrite
                            << QJsonDocument(revoke).toJson(QJsonDocument::Indented);
    QTest::newRow("claim") << Operation([](OnlineResourcesAPI &a) { a.claimPendingAuthorizations(); })
                           << QByteArray("POST /api/scripts/claim-authorizations HTTP/1.1") << jsonActionWithAccept
                           << QByteArray();
}

void TestApiRequests::operationsPutTheirRequestsOnTheWire()
{
    QFETCH(Operation, operation);
    QFETCH(QByteArray, requestLine);
    QFETCH(QByteArrayList, headers);
    QFETCH(QByteArray, body);

    const RecordedRequest request = record(operation);
    QCOMPARE(request.requestLine, requestLine);
    QCOMPARE(clientHeaders(request), headers);
    QCOMPARE(request.body, body);
    // Plain HTTP/1.1 on the wire: no upgrade offer to HTTP/2 rides along.
    QVERIFY(!request.hasHeader("Upgrade"));
    QVERIFY(!request.hasHeader("HTTP2-Settings"));
}

void TestApiRequests::credentialsTravelOnlyWithAToken_data()
{
    QTest::addColumn<QString>("token");
    QTest::addColumn<QString>("username");
    QTest::addColumn<QString>("globalName");
    QTest::addColumn<QString>("avatar");
    QTest::addColumn<QByteArrayList>("credentials");

    QTest::newRow("all fields") << "tok"
                                << "bob"
                                << "Bob É"
                                << "abc123"
                                << QByteArrayList{"Authorization: Bearer tok", "X-Discord-Username: bob",
                                                  "X-Discord-GlobalName: " + QString("Bob É").toUtf8(),
                                                  "X-Discord-Avatar: abc123"};
    QTest::newRow("empty global name") << "tok"
                                       << "bob"
                                       << ""
                                       << "abc123"
                                       << QByteArrayList{"Authorization: Bearer tok", "X-Discord-Username: bob",
                                                         "X-Discord-Avatar: abc123"};
    QTest::newRow("token only") << "tok"
                                << ""
                                << ""
                                << "" << QByteArrayList{"Authorization: Bearer tok"};
    QTest::newRow("no token") << ""
                              << "bob"
                              << "Bob"
                              << "abc123" << QByteArrayList();
}

void TestApiRequests::credentialsTravelOnlyWithAToken()
{
    QFETCH(QString, token);
    QFETCH(QString, username);
    QFETCH(QString, globalName);
    QFETCH(QString, avatar);
    QFETCH(QByteArrayList, credentials);

    api->authToken = token;
    api->discordUsername = username;
    api->discordGlobalName = globalName;
    api->discordAvatar = avatar;
    const RecordedRequest request = record([](OnlineResourcesAPI &a) { a.toggleLike("s-1"); });
    QCOMPARE(clientHeaders(request),
             QByteArrayList({"Content-Type: application/json", "X-Quorix-API-Version: 4"}) + credentials);
}

void TestApiRequests::listQueriesCarryOnlyMeaningfulKeys_data()
{
    QTest::addColumn<Operation>("operation");
    QTest::addColumn<QByteArray>("target");

    const QJsonObject full{{"page", 3}, {"limit", 24}, {"type", "gpc3"}, {"sort", "popular"}, {"search", "aim bot"}};
    QTest::newRow("scripts, every key") << Operation([full](OnlineResourcesAPI &a) {
        a.fetchScripts(full);
    }) << QByteArray("/api/scripts/?page=3&limit=24&type=gpc3&sort=popular&search=aim%20bot");
    QTest::newRow("scripts, all types and empty search") << Operation([](OnlineResourcesAPI &a) {
        a.fetchScripts({{"page", 1}, {"type", "all"}, {"search", ""}});
    }) << QByteArray("/api/scripts/?page=1");
    QTest::newRow("scripts, nothing") << Operation([](OnlineResourcesAPI &a) { a.fetchScripts({}); })
                                      << QByteArray("/api/scripts/");
    QTest::newRow("environments never carry a type")
            << Operation([full](OnlineResourcesAPI &a) { a.loadEnvironments(full); })
            << QByteArray("/api/scripts/qenv/list?page=3&limit=24&sort=popular&search=aim%20bot");
    QTest::newRow("weights never carry a type")
            << Operation([full](OnlineResourcesAPI &a) { a.fetchWeights(full); })
            << QByteArray("/api/scripts/onnx/list?page=3&limit=24&sort=popular&search=aim%20bot");
}

void TestApiRequests::listQueriesCarryOnlyMeaningfulKeys()
{
    QFETCH(Operation, operation);
    QFETCH(QByteArray, target);
    QCOMPARE(record(operation).target, target);
}

void TestApiRequests::accessListPagingNeedsBothBounds_data()
{
    QTest::addColumn<int>("offset");
    QTest::addColumn<int>("limit");
    QTest::addColumn<QString>("search");
    QTest::addColumn<QByteArray>("target");

    QTest::newRow("first page") << 0 << 500 << "" << QByteArray("/api/scripts/authorizations/s-1?offset=0&limit=500");
    QTest::newRow("limit zero") << 0 << 0 << "" << QByteArray("/api/scripts/authorizations/s-1");
    QTest::newRow("negative offset") << -1 << 20 << "ann" << QByteArray("/api/scripts/authorizations/s-1?search=ann");
}

void TestApiRequests::accessListPagingNeedsBothBounds()
{
    QFETCH(int, offset);
    QFETCH(int, limit);
    QFETCH(QString, search);
    QFETCH(QByteArray, target);
    QCOMPARE(record([&](OnlineResourcesAPI &a) { a.fetchScriptAuthorizations("s-1", offset, limit, search); }).target,
             target);
}

void TestApiRequests::scriptUploadSendsPartsInOrder()
{
    const QString scriptPath = home->filePath("aim assist.gpc3");
    const QString imagePath = home->filePath("header.png");
    QFile script(scriptPath);
    QVERIFY(script.open(QIODevice::WriteOnly));
    script.write("main { }\n");
    script.close();
    QFile image(imagePath);
    QVERIFY(image.open(QIODevice::WriteOnly));
    image.write(QByteArray::fromHex("89504e470d0a1a0a") + QByteArray(32, '\0'));
    image.close();

    api->authToken = "tok";
    const RecordedRequest request = record([&](OnlineResourcesAPI &a) {
        a.uploadScript({{"name", "Aim Assist"},
                        {"description", "Helps ✓"},
                        {"instructions", "Hold L2"},
                        {"tags", "fps,aim"},
                        {"existing_uuid", "u-9"},
                        {"version", 1.25},
                        {"visibility_type", "private"},
                        {"script_file", scriptPath},
                        {"image_file", imagePath}});
    });

    QCOMPARE(request.requestLine, QByteArray("POST /api/scripts/upload HTTP/1.1"));
    const QByteArray origin = server.origin().toUtf8();
    QVERIFY(request.header("Content-Type").startsWith("multipart/form-data; boundary="));
    QByteArrayList headers = clientHeaders(request);
    QVERIFY(headers.removeOne("Content-Type: " + request.header("Content-Type")));
    QCOMPARE(headers, QByteArrayList({"User-Agent: Quorix/2.0 (Windows; compatible)",
                                      "Accept: application/json, text/plain, */*", "Accept-Language: en-US,en;q=0.9",
                                      "Cache-Control: no-cache", "Origin: " + origin, "Referer: " + origin + "/",
                                      "X-Quorix-API-Version: 4", "Authorization: Bearer tok"}));

    const QList<MultipartPart> parts = multipartParts(request);
    QCOMPARE(partNames(parts), QByteArrayList({"name", "description", "instructions", "tags", "existing_uuid",
                                               "version", "visibility_type", "script_file", "header_image"}));
    QCOMPARE(parts.at(0).headers, HttpHeaders({{"Content-Disposition", "form-data; name=\"name\""}}));
    QCOMPARE(parts.at(0).body, QByteArray("Aim Assist"));
    QCOMPARE(parts.at(1).body, QString("Helps ✓").toUtf8());
    QCOMPARE(parts.at(5).body, QByteArray("1.25"));
    QCOMPARE(parts.at(6).body, QByteArray("private"));
    QCOMPARE(parts.at(7).header("Content-Type"), QByteArray("application/octet-stream"));
    QCOMPARE(parts.at(7).header("Content-Disposition"),
             QByteArray("form-data; name=\"script_file\"; filename=\"aim assist.gpc3\""));
    QCOMPARE(parts.at(7).body, QByteArray("main { }\n"));
    QCOMPARE(parts.at(8).header("Content-Type"), QByteArray("image/png"));
    QCOMPARE(parts.at(8).header("Content-Disposition"),
             QByteArray("form-data; name=\"header_image\"; filename=\"header.png\""));
}

void TestApiRequests::uploadLeavesOutEmptyOptionalParts()
{
    const RecordedRequest request = record([](OnlineResourcesAPI &a) {
        a.uploadScript({{"name", "A"},
                        {"description", ""},
                        {"instructions", ""},
                        {"tags", ""},
                        {"existing_uuid", ""},
                        {"image_file", ""}});
    });
    QCOMPARE(partNames(multipartParts(request)), QByteArrayList({"name", "description"}));
}

void TestApiRequests::uploadWritesVersionsInShortNotation_data()
{
    QTest::addColumn<QJsonValue>("version");
    QTest::addColumn<QByteArray>("sent");

    QTest::newRow("whole") << QJsonValue(2) << QByteArray("2");
    QTest::newRow("whole as double") << QJsonValue(1.0) << QByteArray("1");
    QTest::newRow("fraction") << QJsonValue(1.25) << QByteArray("1.25");
    QTest::newRow("six significant digits") << QJsonValue(3.14159265) << QByteArray("3.14159");
    QTest::newRow("text holding a number") << QJsonValue("2.5") << QByteArray("2.5");
}

void TestApiRequests::uploadWritesVersionsInShortNotation()
{
    QFETCH(QJsonValue, version);
    QFETCH(QByteArray, sent);
    const RecordedRequest request = record([&](OnlineResourcesAPI &a) {
        a.uploadScript({{"name", "A"}, {"description", "d"}, {"version", version}});
    });
    const QList<MultipartPart> parts = multipartParts(request);
    const MultipartPart *part = findPart(parts, "version");
    QVERIFY(part);
    QCOMPARE(part->body, sent);
}

void TestApiRequests::uploadWithoutReadableScriptStillReachesServer()
{
    server.setDefaultResponse(ScriptedResponse::json({{"success", false}, {"error", "No file"}}));
    QSignalSpy errors(api.get(), &OnlineResourcesAPI::errorOccurred);
    const RecordedRequest request = record([&](OnlineResourcesAPI &a) {
        a.uploadScript({{"name", "A"}, {"description", "d"}, {"script_file", home->filePath("missing.gpc3")}});
    });
    QCOMPARE(partNames(multipartParts(request)), QByteArrayList({"name", "description"}));
    QVERIFY(errors.wait());
    QCOMPARE(errors.first().first().toString(), QString("Upload failed: No file"));
}

void TestApiRequests::weightsUploadSendsEncryptedFlagWhenGiven_data()
{
    QTest::addColumn<QJsonObject>("extra");
    QTest::addColumn<QByteArrayList>("names");
    QTest::addColumn<QByteArray>("encrypted");

    const QByteArrayList withFlag{"name", "description", "version", "visibility_type", "encrypted", "onnx_file"};
    const QByteArrayList withoutFlag{"name", "description", "version", "visibility_type", "onnx_file"};
    QTest::newRow("encrypted") << QJsonObject{{"encrypted", true}} << withFlag << QByteArray("1");
    QTest::newRow("plain") << QJsonObject{{"encrypted", false}} << withFlag << QByteArray("0");
    QTest::newRow("unspecified") << QJsonObject() << withoutFlag << QByteArray();
}

void TestApiRequests::weightsUploadSendsEncryptedFlagWhenGiven()
{
    QFETCH(QJsonObject, extra);
    QFETCH(QByteArrayList, names);
    QFETCH(QByteArray, encrypted);

    const QString modelPath = home->filePath("model.onnx");
    QFile model(modelPath);
    QVERIFY(model.open(QIODevice::WriteOnly));
    model.write(QByteArray("\x08\x07onnx", 6));
    model.close();

    QJsonObject form{{"name", "Detector"},
                     {"description", "d"},
                     {"version", 2},
                     {"visibility_type", "public"},
                     {"onnx_file", modelPath}};
    for (auto it = extra.begin(); it != extra.end(); ++it)
        form.insert(it.key(), it.value());
    const RecordedRequest request = record([&](OnlineResourcesAPI &a) { a.uploadWeights(form); });

    QCOMPARE(request.requestLine, QByteArray("POST /api/scripts/onnx/upload HTTP/1.1"));
    const QList<MultipartPart> parts = multipartParts(request);
    QCOMPARE(partNames(parts), names);
    if (!encrypted.isEmpty())
        QCOMPARE(findPart(parts, "encrypted")->body, encrypted);
    QCOMPARE(findPart(parts, "version")->body, QByteArray("2"));
    QCOMPARE(findPart(parts, "onnx_file")->header("Content-Disposition"),
             QByteArray("form-data; name=\"onnx_file\"; filename=\"model.onnx\""));
    QCOMPARE(findPart(parts, "onnx_file")->body, QByteArray("\x08\x07onnx", 6));
}

void TestApiRequests::deletionsArePostsWithThreeMarkers_data()
{
    QTest::addColumn<Operation>("operation");
    QTest::addColumn<QByteArray>("requestLine");

    QTest::newRow("script") << Operation([](OnlineResourcesAPI &a) { a.deleteScript("s-1"); })
                            << QByteArray("POST /api/scripts/s-1?_method=DELETE HTTP/1.1");
    QTest::newRow("environment") << Operation([](OnlineResourcesAPI &a) { a.deleteEnvironment("e-1"); })
                                 << QByteArray("POST /api/scripts/qenv/e-1?_method=DELETE HTTP/1.1");
    QTest::newRow("weights") << Operation([](OnlineResourcesAPI &a) { a.deleteWeights("w-1"); })
                             << QByteArray("POST /api/scripts/onnx/w-1?_method=DELETE HTTP/1.1");
}

void TestApiRequests::deletionsArePostsWithThreeMarkers()
{
    QFETCH(Operation, operation);
    QFETCH(QByteArray, requestLine);

    api->authToken = "tok";
    const RecordedRequest request = record(operation);
    QCOMPARE(request.requestLine, requestLine);
    QCOMPARE(clientHeaders(request),
             QByteArrayList({"Content-Type: application/x-www-form-urlencoded", "X-HTTP-Method-Override: DELETE",
                             "X-Quorix-API-Version: 4", "Authorization: Bearer tok"}));
    QCOMPARE(request.body, QByteArray("_method=DELETE"));
}

void TestApiRequests::banWithoutTokenSendsNothing()
{
    QSignalSpy errors(api.get(), &OnlineResourcesAPI::errorOccurred);
    api->discordUsername = "mod";
    api->banUser("123456789012345678", "spam");
    QCOMPARE(errors.size(), 1);
    QCOMPARE(errors.first().first().toString(), QString("Authentication required"));
    QVERIFY(!server.waitForRequests(1, 300));

    api->authToken = "tok";
    const RecordedRequest withReason = record([](OnlineResourcesAPI &a) { a.banUser("123456789012345678", "spam"); });
    QCOMPARE(withReason.requestLine, QByteArray("POST /api/scripts/ban/123456789012345678 HTTP/1.1"));
    QCOMPARE(clientHeaders(withReason),
             QByteArrayList({"Content-Type: application/json", "Accept: application/json", "X-Quorix-API-Version: 4",
                             "Authorization: Bearer tok", "X-Discord-Username: mod"}));
    QCOMPARE(withReason.body, QJsonDocument(QJsonObject{{"reason", "spam"}}).toJson(QJsonDocument::Indented));

    api->banUser("123456789012345678", QString());
    QVERIFY(server.waitForRequests(2));
    QCOMPARE(server.lastRequest().body, QByteArray("{\n}\n"));
}

QTEST_GUILESS_MAIN(TestApiRequests)
#include "tst_api_requests.moc"
