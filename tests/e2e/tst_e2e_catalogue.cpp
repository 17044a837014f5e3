#include "CatalogueServerFixture.h"
#include "TemporaryHome.h"
#include "TestFiles.h"
#include "api/OnlineResourcesAPI.h"
#include "core/Configuration.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QSignalSpy>
#include <QTest>

#include <atomic>
#include <functional>
#include <memory>

using namespace Quorix;
using namespace Quorix::Testing;

namespace {

const QString administratorId = QStringLiteral("399000000000000001");
using Api = std::unique_ptr<OnlineResourcesAPI>;

QString text(const QJsonObject &object, const char *key)
{
    return object.value(QLatin1String(key)).toVariant().toString();
}

QString newDiscordId()
{
    static std::atomic<qint64> next{0};
    return QString::number(310000000000000000LL + ++next);
}

// What one client call produced: the arguments of its own signal, else the text of errorOccurred.
struct Outcome
{
    QVariantList arguments;
    QString error;
    QVariant first() const { return arguments.value(0); }
};

template<typename Signal>
Outcome await(OnlineResourcesAPI *api, Signal signal, const std::function<void()> &call)
{
    QSignalSpy answered(api, signal), failed(api, &OnlineResourcesAPI::errorOccurred);
    call();
    if (!QTest::qWaitFor([&] { return !answered.isEmpty() || !failed.isEmpty(); }, 10000))
        return {{}, QStringLiteral("no answer")};
    return {answered.value(0), failed.isEmpty() ? QString() : failed.first().first().toString()};
}

} // namespace

// The client against the reference server: each kind of call reaches it and each answer comes back as the signal
// the browser listens to. The server's own rules are tested with the server; here only what the client must carry.
class TestE2eCatalogue : public QObject
{
    Q_OBJECT

private:
    TemporaryHome home;
    CatalogueServerFixture server{false, {administratorId}};
    QTemporaryDir files;
    int fileCounter = 0;
    Api fan;
    QHash<QString, QString> browsedIds; // name -> ID of the scripts the browsing table looks for

    Api signIn(const QString &discordId, const QString &username)
    {
        auto api = std::make_unique<OnlineResourcesAPI>();
        api->authToken = server.signIn(discordId, username);
        api->discordUsername = username;
        api->discordGlobalName = username.toUpper();
        return api;
    }
    Api user(const char *name) { return signIn(newDiscordId(), name); }
    QString newDirectory()
    {
        const QString path = files.filePath(QString::number(++fileCounter));
        QDir().mkpath(path);
        return path;
    }
    QString writeFile(const QString &fileName, const QByteArray &content)
    {
        const QString path = newDirectory() + '/' + fileName;
        return TestFiles::write(path, content) ? path : QString();
    }
    // Uploads a script holding content (its name unless given) and returns the new ID, or "" with the error.
    QString upload(OnlineResourcesAPI *api, const QString &name, const QString &fileName = "guarded.gpc3",
                   const QJsonObject &extra = {}, QString *error = nullptr, const QByteArray &content = {})
    {
        QJsonObject form{{"name", name}, {"description", "Published by the end-to-end tests"}, {"tags", "e2e"},
                         {"version", 1}, {"visibility_type", "public"},
                         {"script_file", writeFile(fileName, content.isEmpty() ? name.toUtf8() : content)}};
        for (auto it = extra.begin(); it != extra.end(); ++it)
            form.insert(it.key(), it.value());
        const Outcome outcome = await(api, &OnlineResourcesAPI::scriptUploaded, [&] { api->uploadScript(form); });
        if (error)
            *error = outcome.error;
        return outcome.first().toString();
    }
    static QJsonObject list(OnlineResourcesAPI *api, const QJsonObject &params)
    {
        return await(api, &OnlineResourcesAPI::scriptsLoaded, [&] { api->fetchScripts(params); }).first().toJsonObject();
    }
    static QStringList names(OnlineResourcesAPI *api, const QJsonObject &params)
    {
        QStringList found;
        for (const QJsonValue &record : list(api, params).value("scripts").toArray())
            found.append(text(record.toObject(), "name"));
        return found;
    }
    // The downloaded bytes, or the error text the client reported.
    QString download(OnlineResourcesAPI *api, const QString &id)
    {
        const QString directory = newDirectory();
        const Outcome outcome
                = await(api, &OnlineResourcesAPI::scriptDownloaded, [&] { api->downloadScript(id, directory); });
        return outcome.arguments.isEmpty() ? outcome.error : QString(TestFiles::read(outcome.first().toString()));
    }
    static QJsonObject grant(OnlineResourcesAPI *api, const QString &id, const QString &discordId)
    {
        return await(api, &OnlineResourcesAPI::authorizationGranted, [&] {
                   api->grantAuthorization(id, {{"discord_id", discordId}, {"notes", "tester"}});
               }).first().toJsonObject();
    }

private slots:
    void initTestCase();
    void browsingSearchesTypesAndOrders_data();
    void browsingSearchesTypesAndOrders();
    void likesToggleAndFeedTheLikedList();
    void publishingUpdatesOnlyOwnScriptsAndDownloadsTheLatest();
    void environmentsAndWeightsTravelAsTheirOwnKinds();
    void hiddenScriptsAnswerEachCallerInTheirWords();
    void grantsAreClaimedCountedAndRevoked();
    void moderationDeletesAndBans();
};

void TestE2eCatalogue::initTestCase()
{
    QVERIFY2(server.start(), qPrintable(server.error()));
    qputenv("QUORIX_SERVER_URL", server.origin().toUtf8());
    // The client fixes the origin at its first reading, so no client may exist before this.
    QCOMPARE(Configuration::serverOrigin(), server.origin());
    // Three scripts found by "quasar" through name, tag and description; downloads and a like set their popularity.
    auto author = user("browser-author");
    browsedIds["Quasar one"] = upload(author.get(), "Quasar one", "one.gpc3");
    browsedIds["Nebula two"] = upload(author.get(), "Nebula two", "two.gbc3", {{"tags", "quasar,fps"}});
    browsedIds["Comet three"] = upload(author.get(), "Comet three", "three.py", {{"description", "For the Quasar pad"}});
    upload(author.get(), "Unrelated four", "four.gpc3");
    fan = user("fan");
    for (const auto &[name, times] : QList<QPair<QString, int>>{{"Quasar one", 3}, {"Comet three", 11}}) {
        for (int i = 0; i < times; ++i)
            QCOMPARE(download(fan.get(), browsedIds[name]), name);
    }
    const QString liked = browsedIds["Nebula two"];
    QVERIFY(!await(fan.get(), &OnlineResourcesAPI::scriptLikeToggled, [&] { fan->toggleLike(liked); }).arguments.isEmpty());
}

void TestE2eCatalogue::browsingSearchesTypesAndOrders_data()
{
    QTest::addColumn<QJsonObject>("params");
    QTest::addColumn<bool>("signedIn");
    QTest::addColumn<QStringList>("expected");

    const auto query = [](const char *sort, const QJsonObject &extra = {}) {
        QJsonObject params{{"search", "QUASAR"}, {"sort", sort}, {"type", "all"}, {"page", 1}, {"limit", 24}};
        for (auto it = extra.begin(); it != extra.end(); ++it)
            params.insert(it.key(), it.value());
        return params;
    };
    QTest::newRow("oldest") << query("oldest") << false << QStringList{"Quasar one", "Nebula two", "Comet three"};
    // A like weighs ten downloads: 11 downloads > 1 like > 3 downloads.
    QTest::newRow("popular") << query("popular") << false << QStringList{"Comet three", "Nebula two", "Quasar one"};
    QTest::newRow("second page") << query("oldest", {{"page", 2}, {"limit", 2}}) << false << QStringList{"Comet three"};
    QTest::newRow("gpc3 covers gbc3") << query("oldest", {{"type", "gpc3"}}) << false
                                      << QStringList{"Quasar one", "Nebula two"};
    QTest::newRow("python") << query("oldest", {{"type", "py"}}) << false << QStringList{"Comet three"};
    QTest::newRow("liked by the fan") << query("my_liked") << true << QStringList{"Nebula two"};
    QTest::newRow("liked when signed out") << query("my_liked") << false << QStringList();
}

void TestE2eCatalogue::browsingSearchesTypesAndOrders()
{
    QFETCH(QJsonObject, params);
    QFETCH(bool, signedIn);
    QFETCH(QStringList, expected);
    OnlineResourcesAPI visitor;
    QCOMPARE(names(signedIn ? fan.get() : &visitor, params), expected);
}

void TestE2eCatalogue::likesToggleAndFeedTheLikedList()
{
    auto author = user("liked-author"), first = user("first-fan"), second = user("second-fan");
    const QString id = upload(author.get(), "Likeable");
    const auto toggle = [&id](OnlineResourcesAPI *api) {
        return await(api, &OnlineResourcesAPI::scriptLikeToggled, [&] { api->toggleLike(id); });
    };
    QCOMPARE(toggle(first.get()).arguments, (QVariantList{id, true, 1}));
    QCOMPARE(toggle(second.get()).arguments, (QVariantList{id, true, 2}));
    QCOMPARE(toggle(first.get()).arguments, (QVariantList{id, false, 1}));
    const auto likedBy = [](OnlineResourcesAPI *api) {
        return await(api, &OnlineResourcesAPI::userLikedScriptsLoaded, [&] { api->fetchUserLikedScripts(); })
                .arguments.value(0, "no answer").toStringList();
    };
    QCOMPARE(likedBy(first.get()), QStringList());
    QCOMPARE(likedBy(second.get()), QStringList{id});
    OnlineResourcesAPI visitor;
    QVERIFY(!toggle(&visitor).error.isEmpty());
    const Outcome details
            = await(&visitor, &OnlineResourcesAPI::scriptDetailsLoaded, [&] { visitor.fetchScriptDetails(id); });
    QCOMPARE(text(details.first().toJsonObject(), "likes"), QStringLiteral("1"));
}

void TestE2eCatalogue::publishingUpdatesOnlyOwnScriptsAndDownloadsTheLatest()
{
    auto author = user("publisher"), intruder = user("intruder");
    const QString id = upload(author.get(), "Trigger boost", "trigger_boost.gpc3");
    const auto check = [](OnlineResourcesAPI *api) {
        return await(api, &OnlineResourcesAPI::existingScriptChecked, [&] {
                   api->checkExistingScript("trigger_boost.gpc3", "gpc3");
               }).first().toJsonObject();
    };
    QCOMPARE(text(check(author.get()).value("data").toObject(), "id"), id);
    QCOMPARE(check(intruder.get()).value("exists").toBool(true), false);

    QString error;
    QVERIFY(upload(intruder.get(), "Hijacked", "trigger_boost.gpc3", {{"existing_uuid", id}}, &error).isEmpty());
    QCOMPARE(error, QStringLiteral("Upload failed: You can only update your own resources"));
    QCOMPARE(upload(author.get(), "Trigger boost tuned", "trigger_boost.gpc3", {{"existing_uuid", id}, {"version", 2.5}},
                    nullptr, "tuned"),
             id);

    OnlineResourcesAPI visitor;
    const QJsonObject record = await(&visitor, &OnlineResourcesAPI::scriptDetailsLoaded, [&] {
                                   visitor.fetchScriptDetails(id);
                               }).first().toJsonObject();
    QCOMPARE(text(record, "name") + ' ' + text(record, "version") + ' ' + text(record, "type") + ' '
                     + text(record.value("author").toObject(), "username"),
             QStringLiteral("Trigger boost tuned 2.5 gpc3 publisher"));
    const QString directory = newDirectory();
    const Outcome saved
            = await(&visitor, &OnlineResourcesAPI::scriptDownloaded, [&] { visitor.downloadScript(id, directory); });
    QCOMPARE(saved.first().toString(), directory + "/trigger_boost.gpc3");
    QCOMPARE(TestFiles::read(directory + "/trigger_boost.gpc3"), QByteArray("tuned"));
}

void TestE2eCatalogue::environmentsAndWeightsTravelAsTheirOwnKinds()
{
    auto author = user("packager");
    const QByteArray package = QJsonDocument(QJsonObject{{"name", "vision"},
                                                         {"python", "3.11"},
                                                         {"packages", QJsonArray{"numpy==1.26.4", "opencv-python"}},
                                                         {"extra_index_urls", QJsonArray{"https://x/whl/cu121"}}})
                                       .toJson();
    const QString environmentId = upload(author.get(), "Vision stack", "vision.qenv", {}, nullptr, package);
    QVERIFY(!environmentId.isEmpty());
    OnlineResourcesAPI visitor;
    const QJsonArray listed = await(&visitor, &OnlineResourcesAPI::environmentsLoaded, [&] {
                                  visitor.loadEnvironments({{"search", "Vision stack"}, {"type", "gpc3"}});
                              }).first().toJsonObject().value("environments").toArray();
    QCOMPARE(listed.size(), 1);
    const QJsonObject metadata = listed.first().toObject().value("qenv_metadata").toObject();
    QCOMPARE(text(metadata, "python") + ' ' + text(metadata, "package_count") + ' ' + text(metadata, "cuda"),
             QStringLiteral("3.11 2 12.1"));
    QCOMPARE(names(&visitor, {{"search", "Vision stack"}}), QStringList());
    const QString directory = newDirectory();
    const Outcome saved = await(&visitor, &OnlineResourcesAPI::environmentDownloaded,
                                [&] { visitor.downloadEnvironment(environmentId, directory); });
    QCOMPARE(TestFiles::read(saved.first().toString()), package);

    const QByteArray model = "ONNX" + QByteArray(4096, '\7');
    const Outcome uploaded = await(author.get(), &OnlineResourcesAPI::weightsUploaded, [&] {
        author->uploadWeights({{"name", "Detector"}, {"description", "Weights of the end-to-end tests"}, {"version", 1},
                               {"visibility_type", "public"}, {"encrypted", true},
                               {"onnx_file", writeFile("detector.onnx", model)}});
    });
    const QString uuid = uploaded.first().toString();
    QVERIFY2(!uuid.isEmpty(), qPrintable(uploaded.error));
    const QJsonObject record = await(&visitor, &OnlineResourcesAPI::weightsLoaded, [&] {
                                   visitor.fetchWeights({{"search", "Detector"}});
                               }).first().toJsonObject().value("weights").toArray().first().toObject();
    QCOMPARE(record.value("is_encrypted").toBool() ? record.value("size").toInteger() : -1, model.size());
    const Outcome fetched
            = await(&visitor, &OnlineResourcesAPI::weightsDownloaded, [&] { visitor.downloadWeights(uuid); });
    const QString path = OnlineResourcesAPI::weightsDirectory() + '/' + uuid + ".ennx";
    QCOMPARE(fetched.arguments, (QVariantList{uuid, path}));
    QCOMPARE(TestFiles::read(path), model);
}

void TestE2eCatalogue::hiddenScriptsAnswerEachCallerInTheirWords()
{
    const QString friendId = newDiscordId();
    auto owner = user("gatekeeper"), outsider = user("outsider"), authorized = signIn(friendId, "friend");
    OnlineResourcesAPI visitor;
    const QString hidden = upload(owner.get(), "Hidden", "guarded.gpc3", {{"visibility_type", "private"}});
    const QString locked = upload(owner.get(), "Locked", "guarded.gpc3", {{"visibility_type", "purchasable"}});
    QCOMPARE(grant(owner.get(), hidden, friendId).value("success").toBool(), true);
    QCOMPARE(grant(owner.get(), locked, friendId).value("pending").toBool(true), false);

    const QString notFound = "Download failed: Resource not found";
    QCOMPARE(download(&visitor, hidden), notFound);
    QCOMPARE(download(&visitor, locked), QStringLiteral("Download failed: Authentication required"));
    QCOMPARE(download(outsider.get(), hidden), notFound);
    QCOMPARE(download(outsider.get(), locked),
             QStringLiteral("Download failed: You are not authorized to download this resource"));
    QCOMPARE(download(authorized.get(), hidden) + download(owner.get(), locked), QStringLiteral("HiddenLocked"));
    const QJsonArray seen = list(outsider.get(), {{"search", "Locked"}}).value("scripts").toArray();
    QCOMPARE(seen.size(), 1);
    QCOMPARE(seen.first().toObject().value("can_download").toBool(true), false);
    QCOMPARE(await(&visitor, &OnlineResourcesAPI::scriptDetailsLoaded, [&] { visitor.fetchScriptDetails(hidden); }).error,
             QStringLiteral("details_error: Resource not found"));
}

void TestE2eCatalogue::grantsAreClaimedCountedAndRevoked()
{
    auto author = user("grant-author");
    const QString hidden = upload(author.get(), "Pending private", "guarded.gpc3", {{"visibility_type", "private"}});
    const QString latecomerId = newDiscordId();
    const QJsonObject pending = grant(author.get(), hidden, latecomerId);
    QVERIFY(pending.value("pending").toBool() && !text(pending, "authorization_code").isEmpty());
    auto latecomer = signIn(latecomerId, "latecomer");
    const auto claim = [&] {
        return await(latecomer.get(), &OnlineResourcesAPI::pendingAuthorizationsClaimed,
                     [&] { latecomer->claimPendingAuthorizations(); }).arguments;
    };
    QCOMPARE(claim(), QVariantList{1});
    QCOMPARE(download(latecomer.get(), hidden), QStringLiteral("Pending private"));
    QCOMPARE(claim(), QVariantList{0});
    const QJsonArray entries = await(author.get(), &OnlineResourcesAPI::scriptAuthorizationsLoaded, [&] {
                                   author->fetchScriptAuthorizations(hidden, 0, 500, QString());
                               }).first().toJsonObject().value("data").toObject().value("authorizations").toArray();
    QCOMPARE(entries.size(), 1);
    const QJsonObject entry = entries.first().toObject();
    QCOMPARE(text(entry, "status") + ' ' + text(entry, "username") + ' ' + text(entry, "download_count"),
             QStringLiteral("active latecomer 1"));

    const QString locked = upload(author.get(), "Bulk locked", "guarded.gpc3", {{"visibility_type", "purchasable"}});
    const QString alreadyId = newDiscordId(), freshId = newDiscordId();
    auto already = signIn(alreadyId, "regular"), fresh = signIn(freshId, "newcomer");
    grant(author.get(), locked, alreadyId);
    const QJsonObject counts = await(author.get(), &OnlineResourcesAPI::bulkAuthorizationsGranted, [&] {
                                   author->bulkGrantAuthorizations(locked, {alreadyId, freshId, newDiscordId(), "not-an-id"},
                                                                  "x");
                               }).first().toJsonObject().value("data").toObject();
    QCOMPARE(text(counts, "granted") + ' ' + text(counts, "already_authorized") + ' ' + text(counts, "not_found") + ' '
                     + QString::number(counts.value("errors").toArray().size()),
             QStringLiteral("1 1 1 1"));
    QCOMPARE(download(fresh.get(), locked), QStringLiteral("Bulk locked"));
    await(author.get(), &OnlineResourcesAPI::authorizationRevoked, [&] {
        author->revokeAuthorization(locked, {{"user_id", freshId}, {"reason", "refunded"}});
    });
    QCOMPARE(download(fresh.get(), locked),
             QStringLiteral("Download failed: You are not authorized to download this resource"));
    QCOMPARE(download(already.get(), locked), QStringLiteral("Bulk locked"));
}

void TestE2eCatalogue::moderationDeletesAndBans()
{
    const QString troublemakerId = newDiscordId();
    auto author = signIn(troublemakerId, "troublemaker"), bystander = user("bystander"),
         administrator = signIn(administratorId, "moderator");
    const QString byAuthor = upload(author.get(), "Moderated one"), byAdministrator = upload(author.get(), "Moderated two"),
                  banned = upload(author.get(), "Moderated three");
    upload(bystander.get(), "Moderated four");
    const auto remove = [](OnlineResourcesAPI *api, const QString &id) {
        return await(api, &OnlineResourcesAPI::scriptDeleted, [&] { api->deleteScript(id); });
    };
    QCOMPARE(remove(bystander.get(), banned).error,
             QStringLiteral("Delete failed: Only the author or an administrator can delete this resource"));
    QCOMPARE(remove(author.get(), byAuthor).arguments, QVariantList{byAuthor});
    QCOMPARE(remove(administrator.get(), byAdministrator).arguments, QVariantList{byAdministrator});

    const auto ban = [&](OnlineResourcesAPI *api) {
        return await(api, &OnlineResourcesAPI::userBanned, [&] { api->banUser(troublemakerId, "x"); });
    };
    QCOMPARE(ban(bystander.get()).error, QStringLiteral("Ban failed: Administrator rights required"));
    QCOMPARE(ban(administrator.get()).arguments, QVariantList{troublemakerId});
    OnlineResourcesAPI visitor;
    QCOMPARE(names(&visitor, {{"search", "Moderated"}}), QStringList{"Moderated four"});
    QCOMPARE(download(&visitor, banned), QStringLiteral("Download failed: Resource not found"));
    QString error;
    QVERIFY(upload(author.get(), "Moderated again", "again.gpc3", {}, &error).isEmpty());
    QCOMPARE(error, QStringLiteral("Upload failed: Your account has been banned from uploading"));
}

QTEST_MAIN(TestE2eCatalogue)
#include "tst_e2e_catalogue.moc"
