#include "E2eCatalogue.h"
#include "TemporaryHome.h"
#include "TestFiles.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTest>

using namespace Quorix;
using namespace Quorix::Testing;

namespace {

const QString administratorId = QStringLiteral("399000000000000001");

QString text(const QJsonObject &object, const char *key)
{
    return object.value(QLatin1String(key)).toVariant().toString();
}

} // namespace

// The client against the reference server: browsing, publishing, access rules and moderation as users meet them.
class TestE2eCatalogue : public QObject
{
    Q_OBJECT

private:
    TemporaryHome home;
    E2eCatalogue catalogue{{administratorId}};
    std::unique_ptr<OnlineResourcesAPI> fan;
    QHash<QString, QString> browsedIds; // name -> ID of the scripts the browsing table looks for

    std::unique_ptr<OnlineResourcesAPI> user(const char *name)
    {
        return catalogue.signIn(E2eCatalogue::newDiscordId(), QString::fromLatin1(name));
    }

    QString upload(OnlineResourcesAPI *api, const QString &name, const QString &fileName = "guarded.gpc3",
                   const QJsonObject &extra = {}, QString *error = nullptr)
    {
        return catalogue.upload(api, name, fileName, name.toUtf8(), extra, error);
    }

    // The names a script list shows, in order.
    static QStringList names(OnlineResourcesAPI *api, const QJsonObject &params)
    {
        QStringList found;
        for (const QJsonValue &record : E2eCatalogue::listScripts(api, params).value("scripts").toArray())
            found.append(text(record.toObject(), "name"));
        return found;
    }

    // The downloaded bytes, or the error text the client reported.
    QString download(OnlineResourcesAPI *api, const QString &id)
    {
        const QString directory = catalogue.newDirectory();
        const auto outcome = E2eCatalogue::await(api, &OnlineResourcesAPI::scriptDownloaded,
                                                 [&] { api->downloadScript(id, directory); });
        if (outcome.arguments.isEmpty())
            return outcome.answered() ? outcome.error : QStringLiteral("no answer");
        return QString::fromUtf8(TestFiles::read(outcome.arguments.first().toString()));
    }

    QJsonObject grant(OnlineResourcesAPI *api, const QString &id, const QString &discordId)
    {
        return E2eCatalogue::await(api, &OnlineResourcesAPI::authorizationGranted,
                                   [&] {
                                       api->grantAuthorization(id, {{"discord_id", discordId}, {"notes", "tester"}});
                                   })
                .arguments.value(0)
                .toJsonObject();
    }

private slots:
    void initTestCase();
    void browsingFindsPagesSearchesTypesAndOrders_data();
    void browsingFindsPagesSearchesTypesAndOrders();
    void likesToggleAndFeedTheLikedList();
    void publishingUpdatesOnlyOwnScriptsAndDownloadsTheLatest();
    void environmentsAndWeightsTravelAsTheirOwnKinds();
    void visibilityRulesPerCaller_data();
    void visibilityRulesPerCaller();
    void grantsAreClaimedCountedAndRevoked();
    void moderationDeletesAndBans();
};

void TestE2eCatalogue::initTestCase()
{
    QVERIFY2(catalogue.start(), qPrintable(catalogue.error()));
    // Three scripts found by "quasar" through name, tag and description; downloads and a like set their popularity.
    auto author = user("browser-author");
    browsedIds["Quasar one"] = upload(author.get(), "Quasar one", "one.gpc3");
    browsedIds["Nebula two"] = upload(author.get(), "Nebula two", "two.gbc3", {{"tags", "quasar,fps"}});
    browsedIds["Comet three"]
            = upload(author.get(), "Comet three", "three.py", {{"description", "For the Quasar pad"}});
    upload(author.get(), "Unrelated four", "four.gpc3");
    fan = user("fan");
    for (const auto &[name, times] : QList<QPair<QString, int>>{{"Quasar one", 3}, {"Comet three", 11}}) {
        for (int i = 0; i < times; ++i)
            QCOMPARE(download(fan.get(), browsedIds[name]), name);
    }
    QVERIFY(!E2eCatalogue::await(fan.get(), &OnlineResourcesAPI::scriptLikeToggled, [&] {
                 fan->toggleLike(browsedIds["Nebula two"]);
             }).arguments.isEmpty());
}

void TestE2eCatalogue::browsingFindsPagesSearchesTypesAndOrders_data()
{
    QTest::addColumn<QJsonObject>("params");
    QTest::addColumn<bool>("signedIn");
    QTest::addColumn<QStringList>("expected");

    const QStringList oldest{"Quasar one", "Nebula two", "Comet three"};
    const auto query = [](const char *sort, const QJsonObject &extra = {}) {
        QJsonObject params{{"search", "QUASAR"}, {"sort", sort}, {"type", "all"}, {"page", 1}, {"limit", 24}};
        for (auto it = extra.begin(); it != extra.end(); ++it)
            params.insert(it.key(), it.value());
        return params;
    };
    QTest::newRow("oldest") << query("oldest") << false << oldest;
    QTest::newRow("newest") << query("newest") << false << QStringList{"Comet three", "Nebula two", "Quasar one"};
    // A like weighs ten downloads: 11 downloads > 1 like > 3 downloads.
    QTest::newRow("popular") << query("popular") << false << QStringList{"Comet three", "Nebula two", "Quasar one"};
    QTest::newRow("second page") << query("oldest", {{"page", 2}, {"limit", 2}}) << false << QStringList{"Comet three"};
    QTest::newRow("gpc3 covers gbc3") << query("oldest", {{"type", "gpc3"}}) << false << oldest.mid(0, 2);
    QTest::newRow("gbc3 alone") << query("oldest", {{"type", "gbc3"}}) << false << QStringList{"Nebula two"};
    QTest::newRow("python") << query("oldest", {{"type", "py"}}) << false << QStringList{"Comet three"};
    QTest::newRow("search by name only") << query("oldest", {{"search", "nebula"}}) << false
                                         << QStringList{"Nebula two"};
    QTest::newRow("liked by the fan") << query("my_liked") << true << QStringList{"Nebula two"};
    QTest::newRow("liked when signed out") << query("my_liked") << false << QStringList();
}

void TestE2eCatalogue::browsingFindsPagesSearchesTypesAndOrders()
{
    QFETCH(QJsonObject, params);
    QFETCH(bool, signedIn);
    QFETCH(QStringList, expected);

    auto visitor = catalogue.anonymous();
    const QJsonObject reply = E2eCatalogue::listScripts(signedIn ? fan.get() : visitor.get(), params);
    QVERIFY(reply.value("success").toBool());
    QStringList found;
    for (const QJsonValue &record : reply.value("scripts").toArray())
        found.append(text(record.toObject(), "name"));
    QCOMPARE(found, expected);
    if (params.value("limit").toInt() == 2) {
        const QJsonObject pagination = reply.value("pagination").toObject();
        QCOMPARE(pagination.value("current_page").toInt(), 2);
        QCOMPARE(pagination.value("total_pages").toInt(), 2);
        QCOMPARE(pagination.value("total_scripts").toInt(), 3);
    }
}

void TestE2eCatalogue::likesToggleAndFeedTheLikedList()
{
    auto author = user("liked-author");
    const QString id = upload(author.get(), "Likeable");
    auto first = user("first-fan");
    auto second = user("second-fan");
    const auto toggle = [&id](OnlineResourcesAPI *api) {
        return E2eCatalogue::await(api, &OnlineResourcesAPI::scriptLikeToggled, [&] { api->toggleLike(id); });
    };
    QCOMPARE(toggle(first.get()).arguments, (QVariantList{id, true, 1}));
    QCOMPARE(toggle(second.get()).arguments, (QVariantList{id, true, 2}));
    QCOMPARE(toggle(first.get()).arguments, (QVariantList{id, false, 1}));
    const auto likedBy = [](OnlineResourcesAPI *api) {
        return E2eCatalogue::await(api, &OnlineResourcesAPI::userLikedScriptsLoaded,
                                   [&] { api->fetchUserLikedScripts(); })
                .arguments.value(0, "no answer")
                .toStringList();
    };
    QCOMPARE(likedBy(first.get()), QStringList());
    QCOMPARE(likedBy(second.get()), QStringList{id});
    auto visitor = catalogue.anonymous();
    QVERIFY(!toggle(visitor.get()).error.isEmpty());
}

void TestE2eCatalogue::publishingUpdatesOnlyOwnScriptsAndDownloadsTheLatest()
{
    auto author = user("publisher");
    const QString id = upload(author.get(), "Trigger boost", "trigger_boost.gpc3");
    const auto check = [](OnlineResourcesAPI *api) {
        return E2eCatalogue::await(api, &OnlineResourcesAPI::existingScriptChecked,
                                   [&] { api->checkExistingScript("trigger_boost.gpc3", "gpc3"); })
                .arguments.value(0)
                .toJsonObject();
    };
    QCOMPARE(text(check(author.get()).value("data").toObject(), "id"), id);
    auto intruder = user("intruder");
    QCOMPARE(check(intruder.get()).value("exists").toBool(true), false);

    QString error;
    QVERIFY(catalogue.upload(intruder.get(), "Hijacked", "trigger_boost.gpc3", "evil", {{"existing_uuid", id}}, &error)
                    .isEmpty());
    QCOMPARE(error, QStringLiteral("Upload failed: You can only update your own resources"));
    QCOMPARE(catalogue.upload(author.get(), "Trigger boost tuned", "trigger_boost.gpc3", "tuned",
                              {{"existing_uuid", id}, {"version", 2.5}}, &error),
             id);

    auto visitor = catalogue.anonymous();
    const auto details = E2eCatalogue::await(visitor.get(), &OnlineResourcesAPI::scriptDetailsLoaded,
                                             [&] { visitor->fetchScriptDetails(id); });
    const QJsonObject record = details.arguments.value(0).toJsonObject();
    QCOMPARE(text(record, "name") + ' ' + text(record, "version") + ' ' + text(record, "type") + ' '
                     + text(record.value("author").toObject(), "username"),
             QStringLiteral("Trigger boost tuned 2.5 gpc3 publisher"));
    const QString directory = catalogue.newDirectory();
    const auto saved = E2eCatalogue::await(visitor.get(), &OnlineResourcesAPI::scriptDownloaded,
                                           [&] { visitor->downloadScript(id, directory); });
    QCOMPARE(saved.arguments.value(0).toString(), directory + "/trigger_boost.gpc3");
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
    const QString environmentId = catalogue.upload(author.get(), "Vision stack", "vision.qenv", package);
    auto visitor = catalogue.anonymous();
    const auto environments = E2eCatalogue::await(visitor.get(), &OnlineResourcesAPI::environmentsLoaded, [&] {
        visitor->loadEnvironments({{"search", "Vision stack"}, {"type", "gpc3"}});
    });
    const QJsonArray listed = environments.arguments.value(0).toJsonObject().value("environments").toArray();
    QCOMPARE(listed.size(), 1);
    const QJsonObject metadata = listed.first().toObject().value("qenv_metadata").toObject();
    QCOMPARE(text(metadata, "python") + ' ' + text(metadata, "package_count") + ' ' + text(metadata, "cuda"),
             QStringLiteral("3.11 2 12.1"));
    QCOMPARE(names(visitor.get(), {{"search", "Vision stack"}}), QStringList());
    const QString directory = catalogue.newDirectory();
    const auto saved = E2eCatalogue::await(visitor.get(), &OnlineResourcesAPI::environmentDownloaded,
                                           [&] { visitor->downloadEnvironment(environmentId, directory); });
    QCOMPARE(TestFiles::read(saved.arguments.value(0).toString()), package);

    const QByteArray model = "ONNX" + QByteArray(4096, '\7');
    const auto uploaded = E2eCatalogue::await(author.get(), &OnlineResourcesAPI::weightsUploaded, [&] {
        author->uploadWeights({{"name", "Detector"},
                               {"description", "Weights of the end-to-end tests"},
                               {"version", 1},
                               {"visibility_type", "public"},
                               {"encrypted", true},
                               {"onnx_file", catalogue.writeFile("detector.onnx", model)}});
    });
    const QString uuid = uploaded.arguments.value(0).toString();
    QVERIFY2(!uuid.isEmpty(), qPrintable(uploaded.error));
    const auto weights = E2eCatalogue::await(visitor.get(), &OnlineResourcesAPI::weightsLoaded, [&] {
        visitor->fetchWeights({{"search", "Detector"}});
    });
    const QJsonObject record = weights.arguments.value(0).toJsonObject().value("weights").toArray().first().toObject();
    QCOMPARE(record.value("is_encrypted").toBool() ? record.value("size").toInteger() : -1, model.size());
    const auto fetched = E2eCatalogue::await(visitor.get(), &OnlineResourcesAPI::weightsDownloaded,
                                             [&] { visitor->downloadWeights(uuid); });
    const QString path = OnlineResourcesAPI::weightsDirectory() + '/' + uuid + ".ennx";
    QCOMPARE(fetched.arguments, (QVariantList{uuid, path}));
    QCOMPARE(TestFiles::read(path), model);
}

void TestE2eCatalogue::visibilityRulesPerCaller_data()
{
    QTest::addColumn<QString>("who");
    QTest::addColumn<QStringList>("downloads"); // what the caller gets for the public, private and locked script

    const QString notFound = "Download failed: Resource not found";
    QTest::newRow("anonymous") << "anonymous"
                               << QStringList{"public", notFound, "Download failed: Authentication required"};
    QTest::newRow("author") << "author" << QStringList{"public", "private", "locked"};
    QTest::newRow("authorized") << "authorized" << QStringList{"public", "private", "locked"};
    QTest::newRow("other") << "other"
                           << QStringList{"public", notFound,
                                          "Download failed: You are not authorized to download this resource"};
}

void TestE2eCatalogue::visibilityRulesPerCaller()
{
    QFETCH(QString, who);
    QFETCH(QStringList, downloads);

    const QString friendId = E2eCatalogue::newDiscordId();
    auto owner = user("gatekeeper");
    auto authorized = catalogue.signIn(friendId, "friend");
    std::unique_ptr<OnlineResourcesAPI> other = who == "other"       ? user("outsider")
                                                : who == "anonymous" ? catalogue.anonymous()
                                                                     : nullptr;
    OnlineResourcesAPI *publisher = owner.get(), *caller = other             ? other.get()
                                                           : who == "author" ? owner.get()
                                                                             : authorized.get();
    const QString word = who + "guarded";
    const QStringList ids{upload(publisher, word + " public"),
                          upload(publisher, word + " private", "guarded.gpc3", {{"visibility_type", "private"}}),
                          upload(publisher, word + " locked", "guarded.gpc3", {{"visibility_type", "purchasable"}})};
    QCOMPARE(grant(publisher, ids.at(1), friendId).value("success").toBool(), true);
    QCOMPARE(grant(publisher, ids.at(2), friendId).value("pending").toBool(true), false);

    const bool seesPrivate = downloads.at(1) == "private";
    const QJsonArray records
            = E2eCatalogue::listScripts(caller, {{"search", word}, {"sort", "oldest"}}).value("scripts").toArray();
    QCOMPARE(records.size(), seesPrivate ? 3 : 2);
    QCOMPARE(records.last().toObject().value("can_download").toBool(), downloads.at(2) == "locked");
    QCOMPARE(records.first().toObject().value("can_download").toBool(), true);
    for (int i = 0; i < 3; ++i) {
        const QString expected
                = downloads.at(i).startsWith("Download") ? downloads.at(i) : word + ' ' + downloads.at(i);
        QCOMPARE(download(caller, ids.at(i)), expected);
    }
    if (!seesPrivate) {
        const auto details = E2eCatalogue::await(caller, &OnlineResourcesAPI::scriptDetailsLoaded,
                                                 [&] { caller->fetchScriptDetails(ids.at(1)); });
        QCOMPARE(details.error, QStringLiteral("details_error: Resource not found"));
    }
}

void TestE2eCatalogue::grantsAreClaimedCountedAndRevoked()
{
    auto author = user("grant-author");
    const QString hidden = upload(author.get(), "Pending private", "guarded.gpc3", {{"visibility_type", "private"}});
    const QString latecomerId = E2eCatalogue::newDiscordId();
    const QJsonObject pending = grant(author.get(), hidden, latecomerId);
    QVERIFY(pending.value("pending").toBool() && !text(pending, "authorization_code").isEmpty());
    auto latecomer = catalogue.signIn(latecomerId, "latecomer");
    QCOMPARE(download(latecomer.get(), hidden), QStringLiteral("Download failed: Resource not found"));
    const auto claim = [&] {
        return E2eCatalogue::await(latecomer.get(), &OnlineResourcesAPI::pendingAuthorizationsClaimed,
                                   [&] { latecomer->claimPendingAuthorizations(); })
                .arguments;
    };
    QCOMPARE(claim(), QVariantList{1});
    QCOMPARE(download(latecomer.get(), hidden), QStringLiteral("Pending private"));
    QCOMPARE(claim(), QVariantList{0});
    const auto list = E2eCatalogue::await(author.get(), &OnlineResourcesAPI::scriptAuthorizationsLoaded,
                                          [&] { author->fetchScriptAuthorizations(hidden, 0, 500, QString()); });
    const QJsonArray entries
            = list.arguments.value(0).toJsonObject().value("data").toObject().value("authorizations").toArray();
    QCOMPARE(entries.size(), 1);
    const QJsonObject entry = entries.first().toObject();
    QCOMPARE(text(entry, "status") + ' ' + text(entry, "username") + ' ' + text(entry, "download_count"),
             QStringLiteral("active latecomer 1"));

    const QString locked = upload(author.get(), "Bulk locked", "guarded.gpc3", {{"visibility_type", "purchasable"}});
    const QString alreadyId = E2eCatalogue::newDiscordId(), freshId = E2eCatalogue::newDiscordId();
    auto already = catalogue.signIn(alreadyId, "regular");
    auto fresh = catalogue.signIn(freshId, "newcomer");
    grant(author.get(), locked, alreadyId);
    const auto bulk = E2eCatalogue::await(author.get(), &OnlineResourcesAPI::bulkAuthorizationsGranted, [&] {
        author->bulkGrantAuthorizations(locked, {alreadyId, freshId, E2eCatalogue::newDiscordId(), "not-an-id"}, "x");
    });
    const QJsonObject counts = bulk.arguments.value(0).toJsonObject().value("data").toObject();
    QCOMPARE(text(counts, "granted") + ' ' + text(counts, "already_authorized") + ' ' + text(counts, "not_found") + ' '
                     + QString::number(counts.value("errors").toArray().size()),
             QStringLiteral("1 1 1 1"));
    QCOMPARE(download(fresh.get(), locked), QStringLiteral("Bulk locked"));
    E2eCatalogue::await(author.get(), &OnlineResourcesAPI::authorizationRevoked, [&] {
        author->revokeAuthorization(locked, {{"user_id", freshId}, {"reason", "refunded"}});
    });
    QCOMPARE(download(fresh.get(), locked),
             QStringLiteral("Download failed: You are not authorized to download this resource"));
    QCOMPARE(download(already.get(), locked), QStringLiteral("Bulk locked"));
}

void TestE2eCatalogue::moderationDeletesAndBans()
{
    const QString troublemakerId = E2eCatalogue::newDiscordId();
    auto author = catalogue.signIn(troublemakerId, "troublemaker");
    auto bystander = user("bystander");
    auto administrator = catalogue.signIn(administratorId, "moderator");
    const QString byAuthor = upload(author.get(), "Moderated one"),
                  byAdministrator = upload(author.get(), "Moderated two");
    const QString banned = upload(author.get(), "Moderated three");
    upload(bystander.get(), "Moderated four");
    const auto remove = [](OnlineResourcesAPI *api, const QString &id) {
        return E2eCatalogue::await(api, &OnlineResourcesAPI::scriptDeleted, [&] { api->deleteScript(id); });
    };
    QCOMPARE(remove(bystander.get(), banned).error,
             QStringLiteral("Delete failed: Only the author or an administrator can delete this resource"));
    QCOMPARE(remove(author.get(), byAuthor).arguments, QVariantList{byAuthor});
    QCOMPARE(remove(administrator.get(), byAdministrator).arguments, QVariantList{byAdministrator});

    const auto ban = [&](OnlineResourcesAPI *api) {
        return E2eCatalogue::await(api, &OnlineResourcesAPI::userBanned, [&] { api->banUser(troublemakerId, "x"); });
    };
    QCOMPARE(ban(bystander.get()).error, QStringLiteral("Ban failed: Administrator rights required"));
    QCOMPARE(ban(administrator.get()).arguments, QVariantList{troublemakerId});
    auto visitor = catalogue.anonymous();
    QCOMPARE(names(visitor.get(), {{"search", "Moderated"}}), QStringList{"Moderated four"});
    QCOMPARE(download(visitor.get(), banned), QStringLiteral("Download failed: Resource not found"));
    QString error;
    QVERIFY(upload(author.get(), "Moderated again", "again.gpc3", {}, &error).isEmpty());
    QCOMPARE(error, QStringLiteral("Upload failed: Your account has been banned from uploading"));
}

QTEST_MAIN(TestE2eCatalogue)
#include "tst_e2e_catalogue.moc"
