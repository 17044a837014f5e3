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

    const auto row = [](const char *tag, const ScriptedResponse &response, const char *signal,
                        const QVariantList &arguments, ApiOperation operation) {
        QTest::newRow(tag) << operation << response << QByteArray(signal) << arguments;
    };
    const auto json = [](const QByteArray &text) {
        return ScriptedResponse::rawJson(text);
    };
    const QJsonObject page = object(R"({"success":true,"scripts":[{"id":"s-1"}],"pagination":{"total_pages":3}})");
    const QJsonObject refusal = object(R"({"success":false,"error":"Bad sort"})");
    const QJsonObject record = object(R"({"id":"s-1","name":"Aim"})");
    const QJsonObject entries = object(R"({"success":true,"authorizations":[{"discord_id":"1"}],"total":1})");
    const ScriptedResponse found = ScriptedResponse::json({{"success", true}, {"data", record}});
    const ScriptedResponse created = json(R"({"success":true,"data":{"id":"x-1"}})");
    const ScriptedResponse liked = json(R"({"success":true,"data":{"liked":true,"like_count":12}})");
    const char *error = SIGNAL(errorOccurred(QString));

    row("script list", ScriptedResponse::json(page), SIGNAL(scriptsLoaded(QJsonObject)), {page},
        [](auto &a) { a.fetchScripts({}); });
    row("script list refused, still a list", ScriptedResponse::json(refusal), SIGNAL(scriptsLoaded(QJsonObject)),
        {refusal}, [](auto &a) { a.fetchScripts({}); });
    row("environment list", ScriptedResponse::json(page), SIGNAL(environmentsLoaded(QJsonObject)), {page},
        [](auto &a) { a.loadEnvironments({}); });
    row("weights list", ScriptedResponse::json(page), SIGNAL(weightsLoaded(QJsonObject)), {page},
        [](auto &a) { a.fetchWeights({}); });
    row("script list of megabytes that never closes",
        json("{\"success\":true,\"scripts\":[" + QByteArray(6 * 1024 * 1024, 'x')), SIGNAL(scriptsLoaded(QJsonObject)),
        {}, [](auto &a) { a.fetchScripts({}); });
    row("weights list that is an array", json("[]"), SIGNAL(weightsLoaded(QJsonObject)), {},
        [](auto &a) { a.fetchWeights({}); });
    row("script details", found, SIGNAL(scriptDetailsLoaded(QJsonObject)), {record},
        [](auto &a) { a.fetchScriptDetails("s-1"); });
    row("environment details", found, SIGNAL(environmentDetailsLoaded(QJsonObject)), {record},
        [](auto &a) { a.loadEnvironmentDetails("e"); });
    row("weights details", found, SIGNAL(weightsDetailsLoaded(QJsonObject)), {record},
        [](auto &a) { a.fetchWeightsDetails("w"); });
    row("details refused", json(R"({"success":false,"error":"Gone"})"), error, {"details_error: Gone"},
        [](auto &a) { a.fetchScriptDetails("s-1"); });
    row("details refused without a reason", json(R"({"success":false})"), error,
        {"envDetails_error: Unknown error loading details"}, [](auto &a) { a.loadEnvironmentDetails("e"); });
    row("details with an empty body", json(""), error, {"weightsDetails_error: Failed to parse response"},
        [](auto &a) { a.fetchWeightsDetails("w"); });
    row("details that are not an object", json("[1]"), error, {"details_error: Failed to parse response"},
        [](auto &a) { a.fetchScriptDetails("s"); });
    row("details with success as text", json(R"({"success":"true"})"), error,
        {"details_error: Unknown error loading details"}, [](auto &a) { a.fetchScriptDetails("s"); });
    row("script upload", created, SIGNAL(scriptUploaded(QString)), {"x-1"}, [](auto &a) {
        a.uploadScript({{"name", "A"}});
    });
    row("script upload refused", ScriptedResponse::json(refusal), error, {"Upload failed: Bad sort"}, [](auto &a) {
        a.uploadScript({{"name", "A"}});
    });
    row("upload answered with data of the wrong type", json(R"({"success":true,"data":"id"})"),
        SIGNAL(scriptUploaded(QString)), {QString()}, [](auto &a) {
            a.uploadScript({{"name", "A"}});
        });
    row("weights upload", created, SIGNAL(weightsUploaded(QString)), {"x-1"}, [](auto &a) {
        a.uploadWeights({{"name", "W"}});
    });
    row("weights upload refused", ScriptedResponse::json(refusal), error, {"Weights upload failed: Bad sort"},
        [](auto &a) {
            a.uploadWeights({{"name", "W"}});
        });
    row("script delete", created, SIGNAL(scriptDeleted(QString)), {"x-1"}, [](auto &a) { a.deleteScript("x-1"); });
    row("environment delete", created, SIGNAL(environmentDeleted(QString)), {"x-1"},
        [](auto &a) { a.deleteEnvironment("x-1"); });
    row("weights delete", created, SIGNAL(weightsDeleted(QString)), {"x-1"}, [](auto &a) { a.deleteWeights("x-1"); });
    row("delete refused without a reason", json(R"({"success":false})"), error,
        {"Delete failed: Unknown error occurred"}, [](auto &a) { a.deleteScript("x-1"); });
    row("delete refused", json(R"({"success":false,"error":"Not yours"})"), error, {"Delete failed: Not yours"},
        [](auto &a) { a.deleteWeights("x-1"); });
    row("delete answered with HTML", ScriptedResponse::bytes("<html>", "text/html"), error, {"Invalid server response"},
        [](auto &a) { a.deleteEnvironment("x-1"); });
    row("script like names the ID from the address", liked, SIGNAL(scriptLikeToggled(QString, bool, int)),
        {"s 7", true, 12}, [](auto &a) { a.toggleLike("s 7"); });
    row("environment like", liked, SIGNAL(environmentLikeToggled(QString, bool, int)), {"e-2", true, 12},
        [](auto &a) { a.toggleEnvironmentLike("e-2"); });
    row("weights like", liked, SIGNAL(weightsLikeToggled(QString, bool, int)), {"w-3", true, 12},
        [](auto &a) { a.toggleWeightsLike("w-3"); });
    row("like refused", json(R"({"success":false,"error":"Sign in"})"), error, {"Like toggle failed: Sign in"},
        [](auto &a) { a.toggleLike("s-1"); });
    row("liked list in order", json(R"({"success":true,"data":["b",7]})"), SIGNAL(userLikedScriptsLoaded(QStringList)),
        {QStringList{"b", "7"}}, [](auto &a) { a.fetchUserLikedScripts(); });
    row("liked list unreadable", json("{oops"), SIGNAL(userLikedScriptsLoaded(QStringList)), {QStringList()},
        [](auto &a) { a.fetchUserLikedScripts(); });
    row("liked list refused", ScriptedResponse::json(refusal), error, {"Failed to get liked scripts: Bad sort"},
        [](auto &a) { a.fetchUserLikedScripts(); });
    row("existing check as received", ScriptedResponse::json(entries), SIGNAL(existingScriptChecked(QJsonObject)),
        {entries}, [](auto &a) { a.checkExistingScript("A", "py"); });
    row("access list as received", ScriptedResponse::json(entries), SIGNAL(scriptAuthorizationsLoaded(QJsonObject)),
        {entries}, [](auto &a) { a.fetchScriptAuthorizations("s", 0, 10, {}); });
    row("grant as received, even refused", ScriptedResponse::json(refusal), SIGNAL(authorizationGranted(QJsonObject)),
        {refusal}, [](auto &a) { a.grantAuthorization("s", {}); });
    row("bulk grant as received", ScriptedResponse::json(entries), SIGNAL(bulkAuthorizationsGranted(QJsonObject)),
        {entries}, [](auto &a) { a.bulkGrantAuthorizations("s", {"1"}, {}); });
    row("revoke as received", ScriptedResponse::json(entries), SIGNAL(authorizationRevoked(QJsonObject)), {entries},
        [](auto &a) { a.revokeAuthorization("s", {}); });
    row("claim", json(R"({"success":true,"claimed":3})"), SIGNAL(pendingAuthorizationsClaimed(int)), {3},
        [](auto &a) { a.claimPendingAuthorizations(); });
    row("ban", ScriptedResponse::json({{"success", true}}), SIGNAL(userBanned(QString)), {"42"},
        [](auto &a) { a.banUser("42", "spam"); });
    row("ban refused", json(R"({"success":false,"error":"Already banned"})"), error, {"Ban failed: Already banned"},
        [](auto &a) { a.banUser("42", {}); });
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

    const auto row = [](const char *tag, const ScriptedResponse &response, const QString &message, bool asScriptList,
                        ApiOperation operation) {
        QTest::newRow(tag) << operation << response << message << asScriptList;
    };
    const ScriptedResponse tooLarge = ScriptedResponse::bytes("Payload Too Large", "text/plain", 413);
    const ScriptedResponse serverError = ScriptedResponse::json({{"success", false}}, 500);
    const ScriptedResponse cutShort = ScriptedResponse::json({{"success", true}}).droppingAfter(5);
    row("upload too large", tooLarge, "Upload failed - File too large - exceeds server upload limit", false,
        [](auto &a) {
            a.uploadScript({{"name", "A"}});
        });
    row("weights upload too large", tooLarge, "Weights upload failed: File too large - exceeds server upload limit",
        false, [](auto &a) {
            a.uploadWeights({{"name", "W"}});
        });
    row("weights upload dropped", ScriptedResponse::dropped(), "Weights upload failed: " + droppedMessage, false,
        [](auto &a) {
            a.uploadWeights({{"name", "W"}});
        });
    row("script list, server error", serverError, "HTTP 500: ", true, [](auto &a) { a.fetchScripts({}); });
    row("script list dropped mid-reply", cutShort, droppedMessage, true, [](auto &a) { a.fetchScripts({}); });
    row("environment list dropped mid-reply", cutShort, droppedMessage, false, [](auto &a) { a.loadEnvironments({}); });
    row("weights list answered with garbage", ScriptedResponse::rawBytes("HTTP/1.1 2x0 Maybe\r\n\r\n"), droppedMessage,
        false, [](auto &a) { a.fetchWeights({}); });
    row("script details, server error", serverError, "details_error: HTTP 500: ", false,
        [](auto &a) { a.fetchScriptDetails("s"); });
    row("environment details dropped", ScriptedResponse::dropped(), "envDetails_error: " + droppedMessage, false,
        [](auto &a) { a.loadEnvironmentDetails("e"); });
    row("weights details dropped, without prefix", ScriptedResponse::dropped(), droppedMessage, false,
        [](auto &a) { a.fetchWeightsDetails("w"); });
    row("like, not found", ScriptedResponse::bytes("no", "text/plain", 404), "HTTP 404: ", false,
        [](auto &a) { a.toggleLike("s"); });
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
