#include "ApiTestBench.h"

#include <QJsonDocument>

using namespace Quorix;
using namespace Quorix::Testing;

namespace {

const QString droppedMessage = QStringLiteral("Connection was dropped - file may exceed server upload limit");

QJsonObject object(const char *json)
{
    return QJsonDocument::fromJson(json).object();
}

} // namespace

class TestApiReplies : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { QVERIFY(bench.start()); }
    void init() { bench.renew(ScriptedResponse::json({{"success", true}}), "tok"); }

    void repliesReachTheirSignals_data();
    void repliesReachTheirSignals();
    void failuresBecomeOneMessageRoutedByOperation_data();
    void failuresBecomeOneMessageRoutedByOperation();
    void refusedConnectionReportsADroppedUpload();
    void claimRefusedByServerStaysSilent();
    void weightsRequestsAreCancelledButOthersStillArrive();
    void credentialsDoNotFollowRedirectsToAnotherOrigin();
    void sameOriginRedirectKeepsCredentials();

private:
    ApiTestBench bench;
};

void TestApiReplies::repliesReachTheirSignals_data()
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
    const QJsonObject entries = object(R"({"success":true,"authorizations":[{"discord_id":"1"}],"total":1})");
    const ScriptedResponse found = ScriptedResponse::json({{"success", true}, {"data", record}});
    const ScriptedResponse created = json(R"({"success":true,"data":{"id":"x-1"}})");
    const ScriptedResponse liked = json(R"({"success":true,"data":{"liked":true,"like_count":12}})");
    const ScriptedResponse refused = ScriptedResponse::json(refusal), all = ScriptedResponse::json(entries);
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
    row("environment list", [](auto &a) { a.loadEnvironments({}); }, ScriptedResponse::json(page),
        SIGNAL(environmentsLoaded(QJsonObject)), {page});
    row("weights list", weights, ScriptedResponse::json(page), SIGNAL(weightsLoaded(QJsonObject)), {page});
    row("script list of megabytes that never closes", scripts,
        json("{\"success\":true,\"scripts\":[" + QByteArray(6 * 1024 * 1024, 'x')), SIGNAL(scriptsLoaded(QJsonObject)),
        {});
    row("weights list that is an array", weights, json("[]"), SIGNAL(weightsLoaded(QJsonObject)), {});
    row("script details", scriptDetails, found, SIGNAL(scriptDetailsLoaded(QJsonObject)), {record});
    row("environment details", environmentDetails, found, SIGNAL(environmentDetailsLoaded(QJsonObject)), {record});
    row("weights details", weightsDetails, found, SIGNAL(weightsDetailsLoaded(QJsonObject)), {record});
    row("details refused", scriptDetails, json(R"({"success":false,"error":"Gone"})"), error, {"details_error: Gone"});
    row("details refused without a reason", environmentDetails, json(R"({"success":false})"), error,
        {"envDetails_error: Unknown error loading details"});
    row("details with an empty body", weightsDetails, json(""), error,
        {"weightsDetails_error: Failed to parse response"});
    row("details that are not an object", scriptDetails, json("[1]"), error,
        {"details_error: Failed to parse response"});
    row("details with success as text", scriptDetails, json(R"({"success":"true"})"), error,
        {"details_error: Unknown error loading details"});
    row("script upload", uploadScript, created, SIGNAL(scriptUploaded(QString)), {"x-1"});
    row("script upload refused", uploadScript, refused, error, {"Upload failed: Bad sort"});
    row("upload answered with data of the wrong type", uploadScript, json(R"({"success":true,"data":"id"})"),
        SIGNAL(scriptUploaded(QString)), {QString()});
    row("weights upload", uploadWeights, created, SIGNAL(weightsUploaded(QString)), {"x-1"});
    row("weights upload refused", uploadWeights, refused, error, {"Weights upload failed: Bad sort"});
    row("script delete", [](auto &a) { a.deleteScript("x-1"); }, created, SIGNAL(scriptDeleted(QString)), {"x-1"});
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
    row("liked list in order", likedList, json(R"({"success":true,"data":["b",7]})"),
        SIGNAL(userLikedScriptsLoaded(QStringList)), {QStringList{"b", "7"}});
    row("liked list unreadable", likedList, json("{oops"), SIGNAL(userLikedScriptsLoaded(QStringList)),
        {QStringList()});
    row("liked list refused", likedList, refused, error, {"Failed to get liked scripts: Bad sort"});
    row("existing check as received", [](auto &a) { a.checkExistingScript("A", "py"); }, all,
        SIGNAL(existingScriptChecked(QJsonObject)), {entries});
    row("access list as received", [](auto &a) { a.fetchScriptAuthorizations("s", 0, 10, {}); }, all,
        SIGNAL(scriptAuthorizationsLoaded(QJsonObject)), {entries});
    row("grant as received, even refused", [](auto &a) { a.grantAuthorization("s", {}); }, refused,
        SIGNAL(authorizationGranted(QJsonObject)), {refusal});
    row("bulk grant as received", [](auto &a) { a.bulkGrantAuthorizations("s", {"1"}, {}); }, all,
        SIGNAL(bulkAuthorizationsGranted(QJsonObject)), {entries});
    row("revoke as received", [](auto &a) { a.revokeAuthorization("s", {}); }, all,
        SIGNAL(authorizationRevoked(QJsonObject)), {entries});
    row("claim", [](auto &a) { a.claimPendingAuthorizations(); }, json(R"({"success":true,"claimed":3})"),
        SIGNAL(pendingAuthorizationsClaimed(int)), {3});
    row("ban", [](auto &a) { a.banUser("42", "spam"); }, ScriptedResponse::json({{"success", true}}),
        SIGNAL(userBanned(QString)), {"42"});
    row("ban refused", [](auto &a) { a.banUser("42", {}); }, json(R"({"success":false,"error":"Already banned"})"),
        error, {"Ban failed: Already banned"});
}

void TestApiReplies::repliesReachTheirSignals()
{
    QFETCH(ApiOperation, operation);
    QFETCH(ScriptedResponse, response);
    QFETCH(QByteArray, signal);
    QFETCH(QVariantList, arguments);

    bench.server.setDefaultResponse(response);
    QSignalSpy spy(bench.api.get(), signal.constData());
    QSignalSpy errors(bench.api.get(), &OnlineResourcesAPI::errorOccurred);
    operation(*bench.api);
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

void TestApiReplies::failuresBecomeOneMessageRoutedByOperation_data()
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
    row("weights upload dropped", uploadWeights, ScriptedResponse::dropped(), "Weights upload failed: " + droppedMessage);
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

void TestApiReplies::failuresBecomeOneMessageRoutedByOperation()
{
    QFETCH(ApiOperation, operation);
    QFETCH(ScriptedResponse, response);
    QFETCH(QString, message);
    QFETCH(bool, asScriptList);

    bench.server.setDefaultResponse(response);
    QSignalSpy lists(bench.api.get(), &OnlineResourcesAPI::scriptsLoaded);
    QSignalSpy otherLists(bench.api.get(), &OnlineResourcesAPI::environmentsLoaded);
    QSignalSpy errors(bench.api.get(), &OnlineResourcesAPI::errorOccurred);
    operation(*bench.api);
    QVERIFY((asScriptList ? lists : errors).wait(10000));
    QTest::qWait(50);
    QCOMPARE(lists.size() + otherLists.size() + errors.size(), 1);
    const QString received = asScriptList ? lists.first().first().toJsonObject().value("error").toString()
                                          : errors.first().first().toString();
    if (asScriptList)
        QCOMPARE(lists.first().first().toJsonObject().value("success"), QJsonValue(false));
    if (message.endsWith("HTTP 500: ") || message.endsWith("HTTP 404: "))
        QVERIFY2(received.startsWith(message) && received.size() > message.size(), qPrintable(received));
    else
        QCOMPARE(received, message);
}

void TestApiReplies::refusedConnectionReportsADroppedUpload()
{
    const quint16 port = bench.server.port();
    bench.server.close();
    QSignalSpy errors(bench.api.get(), &OnlineResourcesAPI::errorOccurred);
    QSignalSpy liked(bench.api.get(), &OnlineResourcesAPI::userLikedScriptsLoaded);
    bench.api->uploadScript({{"name", "A"}});
    bench.api->fetchUserLikedScripts();
    QTRY_COMPARE_WITH_TIMEOUT(errors.size() + liked.size(), 2, 10000);
    QCOMPARE(errors.first().first().toString(), "Upload failed - " + droppedMessage);
    QCOMPARE(liked.first().first().toStringList(), QStringList());
    QVERIFY(bench.server.listen(port));
}

void TestApiReplies::claimRefusedByServerStaysSilent()
{
    bench.server.setDefaultResponse(ScriptedResponse::json(object(R"({"success":false,"error":"none pending"})")));
    QSignalSpy claimed(bench.api.get(), &OnlineResourcesAPI::pendingAuthorizationsClaimed);
    QSignalSpy errors(bench.api.get(), &OnlineResourcesAPI::errorOccurred);
    bench.api->claimPendingAuthorizations();
    QVERIFY(bench.server.waitForRequests(1));
    QTest::qWait(300);
    QCOMPARE(claimed.size() + errors.size(), 0);
}

void TestApiReplies::weightsRequestsAreCancelledButOthersStillArrive()
{
    bench.server.setDefaultResponse(ScriptedResponse::json({{"success", true}}).withDelay(400));
    QSignalSpy scripts(bench.api.get(), &OnlineResourcesAPI::scriptsLoaded);
    QSignalSpy environments(bench.api.get(), &OnlineResourcesAPI::environmentsLoaded);
    QSignalSpy weights(bench.api.get(), &OnlineResourcesAPI::weightsLoaded);
    QSignalSpy weightsDetails(bench.api.get(), &OnlineResourcesAPI::weightsDetailsLoaded);
    QSignalSpy errors(bench.api.get(), &OnlineResourcesAPI::errorOccurred);
    bench.api->fetchScripts({});
    bench.api->fetchWeights({});
    bench.api->fetchWeightsDetails("w-1");
    bench.api->loadEnvironments({});
    QVERIFY(bench.server.waitForRequests(4));

    bench.api->cancelPendingRequests();
    QTRY_COMPARE_WITH_TIMEOUT(scripts.size() + environments.size(), 2, 5000);
    QTest::qWait(600);
    QCOMPARE(weights.size() + weightsDetails.size() + errors.size(), 0);
}

void TestApiReplies::credentialsDoNotFollowRedirectsToAnotherOrigin()
{
    RecordingHttpServer elsewhere;
    QVERIFY(elsewhere.listen());
    elsewhere.setDefaultResponse(ScriptedResponse::json(object(R"({"success":true,"data":{"id":"stolen"}})")));
    bench.server.setDefaultResponse(ScriptedResponse::redirect(elsewhere.url("/api/scripts/details/s-1")));
    bench.api->discordUsername = "bob";

    QSignalSpy details(bench.api.get(), &OnlineResourcesAPI::scriptDetailsLoaded);
    QSignalSpy errors(bench.api.get(), &OnlineResourcesAPI::errorOccurred);
    bench.api->fetchScriptDetails("s-1");
    QVERIFY(errors.wait(10000));
    QVERIFY(errors.first().first().toString().startsWith("details_error: "));
    QTest::qWait(100);
    QCOMPARE(details.size(), 0);
    for (const RecordedRequest &request : elsewhere.requests())
        QVERIFY(!request.hasHeader("Authorization") && !request.hasHeader("X-Discord-Username"));
}

void TestApiReplies::sameOriginRedirectKeepsCredentials()
{
    bench.server.setRule("/api/scripts/details/old",
                         ScriptedResponse::redirect(bench.server.url("/api/scripts/details/new")));
    bench.server.setRule("/api/scripts/details/new",
                         ScriptedResponse::json(object(R"({"success":true,"data":{"id":"new"}})")));
    QSignalSpy details(bench.api.get(), &OnlineResourcesAPI::scriptDetailsLoaded);
    bench.api->fetchScriptDetails("old");
    QVERIFY(details.wait(10000));
    QCOMPARE(details.first().first().toJsonObject().value("id"), QJsonValue("new"));
    // Qt 6.4 now and then sends the redirected GET a second time on the same connection before it follows the
    // redirect, so only the follow-up is counted: it must go out once, with the session.
    QList<RecordedRequest> followUps;
    for (const RecordedRequest &request : bench.server.requests()) {
        if (request.path() == "/api/scripts/details/new")
            followUps.append(request);
    }
    QCOMPARE(followUps.size(), 1);
    QCOMPARE(followUps.first().header("Authorization"), QByteArray("Bearer tok"));
}

QTEST_GUILESS_MAIN(TestApiReplies)
#include "tst_api_replies.moc"
