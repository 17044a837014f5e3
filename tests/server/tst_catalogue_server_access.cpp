#include <CatalogueServerFixture.h>

#include <QtTest>

using Quorix::Testing::CatalogueServerFixture;

namespace {

const QString authorId = "111111111111111111";
const QString friendId = "333333333333333333";
const QString strangerId = "444444444444444444";
const QString adminId = "999999999999999999";
const QString latecomerId = "55555555555555555555";

} // namespace

// Who sees and downloads what: visibility, access lists, pending grants, bans and deletions.
class CatalogueServerAccessTest : public QObject
{
    Q_OBJECT

    std::unique_ptr<CatalogueServerFixture> server;
    QHash<QString, QString> tokens; // by role; "" for anonymous
    QString publicId;
    QString privateId;
    QString lockedId;

    CatalogueServerFixture::Reply grant(const QString &id, const QString &discordId, const QJsonObject &extra = {},
                                        const QString &as = "author")
    {
        QJsonObject body = extra;
        body.insert("discord_id", discordId);
        return server->postJson("authorize/" + id, body, tokens[as]);
    }
    CatalogueServerFixture::Reply grants(const QString &id, const QString &query = {})
    {
        return server->get("authorizations/" + id + query, tokens["author"]);
    }
    CatalogueServerFixture::Reply revoke(const QString &id, const QJsonValue &user, const QString &as = "author")
    {
        return server->postJson("revoke/" + id, {{"user_id", user}, {"reason", "Revoked by script author"}},
                                tokens[as]);
    }
    int status(const QString &path, const QString &as) { return server->get(path, tokens[as]).status; }

private Q_SLOTS:
    void init()
    {
        server = std::make_unique<CatalogueServerFixture>(false, QStringList{adminId});
        QVERIFY2(server->start(), qPrintable(server->error()));
        tokens = {{"author", server->signIn(authorId, "author")},
                  {"friend", server->signIn(friendId, "friend", "Good Friend")},
                  {"stranger", server->signIn(strangerId, "stranger")},
                  {"admin", server->signIn(adminId, "admin")}};
        const QString author = tokens["author"];
        publicId = server->uploadScript(author, "public.gpc3", "public bytes").text("data/id");
        privateId = server->uploadScript(author, "private.gpc3", "private bytes", "private").text("data/id");
        lockedId = server->uploadScript(author, "locked.gpc3", "locked bytes", "purchasable").text("data/id");
        QVERIFY(!publicId.isEmpty() && !privateId.isEmpty() && !lockedId.isEmpty());
    }

    void visibilityDecidesListingAndDownload_data()
    {
        QTest::addColumn<QString>("who");
        QTest::addColumn<bool>("entitled");
        QTest::newRow("anonymous") << QString() << false;
        QTest::newRow("stranger") << "stranger" << false;
        QTest::newRow("author") << "author" << true;
        QTest::newRow("authorized") << "friend" << true;
        QTest::newRow("administrator") << "admin" << true;
    }

    void visibilityDecidesListingAndDownload()
    {
        QFETCH(QString, who);
        QFETCH(bool, entitled);
        QCOMPARE(grant(privateId, friendId, {{"notes", "tester"}}).text("pending"), "false");
        QCOMPARE(grant(lockedId, friendId, {{"notes", "tester"}}).text("pending"), "false");
        const QStringList listed = server->get("?limit=50", tokens[who]).column("scripts", "id");
        QVERIFY(listed.contains(publicId) && listed.contains(lockedId));
        QCOMPARE(listed.contains(privateId), entitled);
        QCOMPARE(status("details/" + privateId, who), entitled ? 200 : 404);

        QCOMPARE(server->get("download/" + publicId, tokens[who]).body, "public bytes");
        const auto locked = server->get("download/" + lockedId, tokens[who]);
        if (entitled) {
            QCOMPARE(locked.body, "locked bytes");
        } else {
            QCOMPARE(locked.status, who.isEmpty() ? 401 : 403);
            QVERIFY(locked.header("content-type").contains("application/json"));
        }
        const auto record = server->get("details/" + lockedId, tokens[who]);
        QCOMPARE(record.at("data/can_download").toBool(), entitled);
        QCOMPARE(record.text("data/visibility_type"), "purchasable");
    }

    void authorizationPagesCarryRecordsAndPagination()
    {
        const QString expiry = QDateTime::currentDateTimeUtc().addDays(30).toString(Qt::ISODate);
        grant(privateId, friendId, {{"notes", "early access"}, {"expires_at", expiry}});
        grant(privateId, strangerId);
        const auto page = server->send("GET", server->apiUrl("authorizations/" + privateId + "?offset=0&limit=1"), {},
                                       {{"Accept", "application/json"}}, tokens["author"]);
        QCOMPARE(page.texts({"data/pagination/offset", "data/pagination/total", "data/pagination/has_more"}),
                 "0 2 true");
        QCOMPARE(page.at("data/authorizations").toArray().size(), 1);

        const auto found = grants(privateId, "?search=good");
        QCOMPARE(found.at("data/authorizations").toArray().size(), 1);
        const QJsonObject record = found.at("data/authorizations/0").toObject();
        QCOMPARE((QStringList{record.value("discord_id").toString(), record.value("username").toString(),
                              record.value("global_name").toString(), record.value("status").toString(),
                              record.value("authorization_notes").toString()}),
                 (QStringList{friendId, "friend", "Good Friend", "active", "early access"}));
        QVERIFY(QDateTime::fromString(record.value("expires_at").toString(), Qt::ISODate).isValid());
        QCOMPARE(record.value("download_count").toInt(), 0);
        QVERIFY(record.value("user_id").toInteger() >= 1);

        QCOMPARE(status("authorizations/" + privateId, "friend"), 403);
        QCOMPARE(status("authorizations/" + privateId, "admin"), 200);
        QCOMPARE(grant(privateId, friendId).text("success"), "false");
        QCOMPARE(grant(privateId, adminId, {}, "stranger").status, 403);
    }

    void pendingGrantBecomesActiveWhenClaimed()
    {
        const auto pending = grant(privateId, latecomerId);
        QCOMPARE(pending.texts({"success", "pending"}), "true true");
        QVERIFY(!pending.text("authorization_code").isEmpty() && !pending.text("message").isEmpty());
        QCOMPARE(grants(privateId).text("data/authorizations/0/status"), "pending");

        const QString latecomer = server->signIn(latecomerId, "latecomer");
        QCOMPARE(server->get("details/" + privateId, latecomer).status, 404);
        const auto claim = server->post("claim-authorizations", {}, latecomer, {{"Content-Type", "application/json"}});
        QCOMPARE(claim.texts({"success", "claimed"}), "true 1");
        QCOMPARE(server->post("claim-authorizations", {}).status, 401);
    }

    void bulkGrantsCountEachOutcome()
    {
        grant(lockedId, friendId);
        const QJsonArray ids{friendId, strangerId, latecomerId, "12ab", 42, strangerId};
        const auto reply = server->postJson("bulk-authorize/" + lockedId, {{"discord_ids", ids}, {"notes", "Bulk"}},
                                            tokens["author"]);
        QCOMPARE(reply.texts({"data/granted", "data/already_authorized", "data/not_found"}), "1 2 1");
        QCOMPARE(reply.at("data/errors").toArray().size(), 2);
        QCOMPARE(server->get("download/" + lockedId, tokens["stranger"]).body, "locked bytes");
    }

    void revokeByUserNumberOrDiscordId()
    {
        grant(privateId, friendId);
        grant(privateId, latecomerId);
        // The friend is the only one whose names contain "good".
        const qint64 friendUserId = grants(privateId, "?search=good").at("data/authorizations/0/user_id").toInteger();
        QVERIFY(friendUserId >= 1);
        QCOMPARE(revoke(privateId, friendUserId, "stranger").status, 403);
        QCOMPARE(revoke(privateId, friendUserId).text("success"), "true");
        QCOMPARE(status("details/" + privateId, "friend"), 404);
        QCOMPARE(revoke(privateId, latecomerId).text("success"), "true");
        QCOMPARE(grants(privateId).text("data/pagination/total"), "0");
        QCOMPARE(revoke(privateId, friendUserId).status, 404);
    }

    void banHidesResourcesAndBlocksUploads()
    {
        QCOMPARE(server->postJson("ban/" + adminId, {}, tokens["admin"]).status, 400);
        const auto ban = server->post("ban/" + authorId, "{}", tokens["admin"], {{"Content-Type", "application/json"}});
        QCOMPARE(ban.texts({"success", "data/id"}), "true " + authorId);
        QCOMPARE(server->get("?limit=50", tokens["author"]).column("scripts", "id"), QStringList());
        QCOMPARE(status("details/" + publicId, {}), 404);

        QCOMPARE(server->postJson("unban/" + authorId, {}, tokens["admin"]).status, 200);
        QVERIFY(server->get(QString()).column("scripts", "id").contains(publicId));
    }

    void deletesAreForAuthorsAndAdministrators()
    {
        const auto refused = server->remove(publicId, tokens["stranger"]);
        QCOMPARE(refused.status, 403);
        QCOMPARE(refused.text("success"), "false");
        QCOMPARE(server->remove(publicId, QString()).status, 401);
        QCOMPARE(status("details/" + publicId, {}), 200);

        const QString file = server->dataDirectory() + "/files/" + publicId;
        QVERIFY(QFile::exists(file));
        QCOMPARE(server->remove(publicId, tokens["author"]).text("data/id"), publicId);
        QVERIFY(!QFile::exists(file));
        QCOMPARE(status("details/" + publicId, {}), 404);
        QCOMPARE(server->remove(lockedId, tokens["admin"]).text("data/id"), lockedId);
        QCOMPARE(server->remove(lockedId, tokens["admin"]).status, 404);
        QCOMPARE(server->remove("qenv/" + privateId, tokens["author"]).status, 404);
    }

    void expiredGrantsGiveNoAccess()
    {
        grant(privateId, friendId, {{"expires_at", QDateTime::currentDateTimeUtc().addSecs(2).toString(Qt::ISODate)}});
        QCOMPARE(status("details/" + privateId, "friend"), 200);
        QTRY_COMPARE_WITH_TIMEOUT(status("details/" + privateId, "friend"), 404, 10000);
    }
};

QTEST_MAIN(CatalogueServerAccessTest)
#include "tst_catalogue_server_access.moc"
