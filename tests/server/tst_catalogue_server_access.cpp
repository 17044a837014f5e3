#include <CatalogueServerFixture.h>

#include <QJsonArray>
#include <QtTest>

using Quorix::Testing::CatalogueServerFixture;

namespace {

const QString authorId = QStringLiteral("111111111111111111");
const QString friendId = QStringLiteral("333333333333333333");
const QString strangerId = QStringLiteral("444444444444444444");
const QString adminId = QStringLiteral("999999999999999999");
const QString latecomerId = QStringLiteral("55555555555555555555");

QString idOf(const CatalogueServerFixture::Reply &reply)
{
    return reply.json.value(QStringLiteral("data")).toObject().value(QStringLiteral("id")).toString();
}

QStringList listedIds(const CatalogueServerFixture::Reply &reply)
{
    QStringList ids;
    for (const QJsonValue &record : reply.json.value(QStringLiteral("scripts")).toArray())
        ids.append(record.toObject().value(QStringLiteral("id")).toString());
    return ids;
}

} // namespace

// Who sees and downloads what: visibility, access lists, pending grants, bans and deletions.
class CatalogueServerAccessTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        server = std::make_unique<CatalogueServerFixture>(false, QStringList{adminId});
        QVERIFY2(server->start(), qPrintable(server->error()));
        author = server->signIn(authorId, QStringLiteral("author"));
        friendToken = server->signIn(friendId, QStringLiteral("friend"), QStringLiteral("Good Friend"));
        stranger = server->signIn(strangerId, QStringLiteral("stranger"));
        admin = server->signIn(adminId, QStringLiteral("admin"));
        publicId = idOf(server->uploadScript(author, QStringLiteral("public.gpc3"), "public bytes"));
        privateId = idOf(server->uploadScript(author, QStringLiteral("private.gpc3"), "private bytes",
                                              QStringLiteral("private")));
        lockedId = idOf(server->uploadScript(author, QStringLiteral("locked.gpc3"), "locked bytes",
                                             QStringLiteral("purchasable")));
        QVERIFY(!publicId.isEmpty() && !privateId.isEmpty() && !lockedId.isEmpty());
    }

    void visibilityDecidesListingAndDownload_data()
    {
        QTest::addColumn<QString>("who");
        QTest::addColumn<bool>("seesPrivate");
        QTest::addColumn<bool>("downloadsLocked");
        QTest::newRow("anonymous") << QString() << false << false;
        QTest::newRow("stranger") << QStringLiteral("stranger") << false << false;
        QTest::newRow("author") << QStringLiteral("author") << true << true;
        QTest::newRow("authorized") << QStringLiteral("friend") << true << true;
        QTest::newRow("administrator") << QStringLiteral("admin") << true << true;
    }

    void visibilityDecidesListingAndDownload()
    {
        QFETCH(QString, who);
        QFETCH(bool, seesPrivate);
        QFETCH(bool, downloadsLocked);
        for (const QString &id : {privateId, lockedId}) {
            const auto grant = server->postJson(
                    QStringLiteral("authorize/") + id,
                    {{QStringLiteral("discord_id"), friendId}, {QStringLiteral("notes"), QStringLiteral("tester")}},
                    author);
            QCOMPARE(grant.json.value(QStringLiteral("pending")).toBool(true), false);
        }
        const QString token = tokenOf(who);
        const QStringList listed = listedIds(server->get(QStringLiteral("?limit=50"), token));
        QVERIFY(listed.contains(publicId));
        QVERIFY(listed.contains(lockedId));
        QCOMPARE(listed.contains(privateId), seesPrivate);
        QCOMPARE(server->get(QStringLiteral("details/") + privateId, token).status, seesPrivate ? 200 : 404);

        QCOMPARE(server->get(QStringLiteral("download/") + publicId, token).body, QByteArray("public bytes"));
        const auto locked = server->get(QStringLiteral("download/") + lockedId, token);
        if (downloadsLocked) {
            QCOMPARE(locked.body, QByteArray("locked bytes"));
        } else {
            QCOMPARE(locked.status, token.isEmpty() ? 401 : 403);
            QVERIFY(locked.header("content-type").contains("application/json"));
        }
        const QJsonObject record = server->get(QStringLiteral("details/") + lockedId, token)
                                           .json.value(QStringLiteral("data"))
                                           .toObject();
        QCOMPARE(record.value(QStringLiteral("can_download")).toBool(), downloadsLocked);
        QCOMPARE(record.value(QStringLiteral("visibility_type")).toString(), QStringLiteral("purchasable"));
    }

    void authorizationPagesCarryRecordsAndPagination()
    {
        server->postJson(
                QStringLiteral("authorize/") + privateId,
                {{QStringLiteral("discord_id"), friendId},
                 {QStringLiteral("notes"), QStringLiteral("early access")},
                 {QStringLiteral("expires_at"), QDateTime::currentDateTimeUtc().addDays(30).toString(Qt::ISODate)}},
                author);
        server->postJson(QStringLiteral("authorize/") + privateId, {{QStringLiteral("discord_id"), strangerId}},
                         author);
        const auto page = server->send(
                "GET",
                server->apiUrl(QStringLiteral("authorizations/") + privateId + QStringLiteral("?offset=0&limit=1")), {},
                {{"Accept", "application/json"}}, author);
        QCOMPARE(page.status, 200);
        const QJsonObject data = page.json.value(QStringLiteral("data")).toObject();
        const QJsonObject pagination = data.value(QStringLiteral("pagination")).toObject();
        QCOMPARE(pagination.value(QStringLiteral("offset")).toInt(), 0);
        QCOMPARE(pagination.value(QStringLiteral("total")).toInt(), 2);
        QCOMPARE(pagination.value(QStringLiteral("has_more")).toBool(), true);
        QCOMPARE(data.value(QStringLiteral("authorizations")).toArray().size(), 1);

        const auto search
                = server->get(QStringLiteral("authorizations/") + privateId + QStringLiteral("?search=good"), author);
        const QJsonArray found = search.json.value(QStringLiteral("data"))
                                         .toObject()
                                         .value(QStringLiteral("authorizations"))
                                         .toArray();
        QCOMPARE(found.size(), 1);
        const QJsonObject record = found.first().toObject();
        QCOMPARE(record.value(QStringLiteral("discord_id")).toString(), friendId);
        QCOMPARE(record.value(QStringLiteral("username")).toString(), QStringLiteral("friend"));
        QCOMPARE(record.value(QStringLiteral("global_name")).toString(), QStringLiteral("Good Friend"));
        QCOMPARE(record.value(QStringLiteral("status")).toString(), QStringLiteral("active"));
        QCOMPARE(record.value(QStringLiteral("authorization_notes")).toString(), QStringLiteral("early access"));
        QVERIFY(QDateTime::fromString(record.value(QStringLiteral("expires_at")).toString(), Qt::ISODate).isValid());
        QCOMPARE(record.value(QStringLiteral("download_count")).toInt(), 0);
        QVERIFY(record.value(QStringLiteral("user_id")).toInteger() >= 1);

        QCOMPARE(server->get(QStringLiteral("authorizations/") + privateId, friendToken).status, 403);
        QCOMPARE(server->get(QStringLiteral("authorizations/") + privateId, admin).status, 200);
        const auto duplicate = server->postJson(QStringLiteral("authorize/") + privateId,
                                                {{QStringLiteral("discord_id"), friendId}}, author);
        QCOMPARE(duplicate.json.value(QStringLiteral("success")).toBool(true), false);
        QCOMPARE(server->postJson(QStringLiteral("authorize/") + privateId, {{QStringLiteral("discord_id"), adminId}},
                                  stranger)
                         .status,
                 403);
    }

    void pendingGrantBecomesActiveWhenClaimed()
    {
        const auto grant = server->postJson(QStringLiteral("authorize/") + privateId,
                                            {{QStringLiteral("discord_id"), latecomerId}}, author);
        QCOMPARE(grant.json.value(QStringLiteral("success")).toBool(), true);
        QCOMPARE(grant.json.value(QStringLiteral("pending")).toBool(), true);
        QVERIFY(!grant.json.value(QStringLiteral("authorization_code")).toString().isEmpty());
        QVERIFY(!grant.json.value(QStringLiteral("message")).toString().isEmpty());
        const QJsonObject pending = server->get(QStringLiteral("authorizations/") + privateId, author)
                                            .json.value(QStringLiteral("data"))
                                            .toObject()
                                            .value(QStringLiteral("authorizations"))
                                            .toArray()
                                            .first()
                                            .toObject();
        QCOMPARE(pending.value(QStringLiteral("status")).toString(), QStringLiteral("pending"));

        const QString latecomer = server->signIn(latecomerId, QStringLiteral("latecomer"));
        QCOMPARE(server->get(QStringLiteral("details/") + privateId, latecomer).status, 404);
        const auto claim = server->post(QStringLiteral("claim-authorizations"), {}, latecomer,
                                        {{"Content-Type", "application/json"}});
        QCOMPARE(claim.json.value(QStringLiteral("success")).toBool(), true);
        QCOMPARE(claim.json.value(QStringLiteral("claimed")).toInt(), 1);
        QCOMPARE(server->get(QStringLiteral("download/") + privateId, latecomer).body, QByteArray("private bytes"));
        QCOMPARE(server->post(QStringLiteral("claim-authorizations"), {}, latecomer)
                         .json.value(QStringLiteral("claimed"))
                         .toInt(),
                 0);
        QCOMPARE(server->post(QStringLiteral("claim-authorizations"), {}).status, 401);
        const QJsonObject active = server->get(QStringLiteral("authorizations/") + privateId, author)
                                           .json.value(QStringLiteral("data"))
                                           .toObject()
                                           .value(QStringLiteral("authorizations"))
                                           .toArray()
                                           .first()
                                           .toObject();
        QCOMPARE(active.value(QStringLiteral("status")).toString(), QStringLiteral("active"));
        QCOMPARE(active.value(QStringLiteral("download_count")).toInt(), 1);
    }

    void bulkGrantsCountEachOutcome()
    {
        server->postJson(QStringLiteral("authorize/") + lockedId, {{QStringLiteral("discord_id"), friendId}}, author);
        const auto reply
                = server->postJson(QStringLiteral("bulk-authorize/") + lockedId,
                                   {{QStringLiteral("discord_ids"), QJsonArray{friendId, strangerId, latecomerId,
                                                                               QStringLiteral("12ab"), 42, strangerId}},
                                    {QStringLiteral("notes"), QStringLiteral("Bulk import")}},
                                   author);
        QCOMPARE(reply.status, 200);
        const QJsonObject data = reply.json.value(QStringLiteral("data")).toObject();
        QCOMPARE(data.value(QStringLiteral("granted")).toInt(), 1);
        QCOMPARE(data.value(QStringLiteral("already_authorized")).toInt(), 2);
        QCOMPARE(data.value(QStringLiteral("not_found")).toInt(), 1);
        QCOMPARE(data.value(QStringLiteral("errors")).toArray().size(), 2);
        QCOMPARE(server->get(QStringLiteral("download/") + lockedId, stranger).body, QByteArray("locked bytes"));
    }

    void revokeByUserNumberOrDiscordId()
    {
        server->postJson(QStringLiteral("authorize/") + privateId, {{QStringLiteral("discord_id"), friendId}}, author);
        server->postJson(QStringLiteral("authorize/") + privateId, {{QStringLiteral("discord_id"), latecomerId}},
                         author);
        const QJsonArray records = server->get(QStringLiteral("authorizations/") + privateId, author)
                                           .json.value(QStringLiteral("data"))
                                           .toObject()
                                           .value(QStringLiteral("authorizations"))
                                           .toArray();
        qint64 friendUserId = 0;
        for (const QJsonValue &record : records) {
            if (record.toObject().value(QStringLiteral("discord_id")).toString() == friendId)
                friendUserId = record.toObject().value(QStringLiteral("user_id")).toInteger();
        }
        QVERIFY(friendUserId >= 1);
        QCOMPARE(server->postJson(QStringLiteral("revoke/") + privateId, {{QStringLiteral("user_id"), friendUserId}},
                                  stranger)
                         .status,
                 403);
        auto revoked = server->postJson(QStringLiteral("revoke/") + privateId,
                                        {{QStringLiteral("user_id"), friendUserId},
                                         {QStringLiteral("reason"), QStringLiteral("Revoked by script author")}},
                                        author);
        QCOMPARE(revoked.json.value(QStringLiteral("success")).toBool(), true);
        QCOMPARE(server->get(QStringLiteral("details/") + privateId, friendToken).status, 404);
        revoked = server->postJson(QStringLiteral("revoke/") + privateId, {{QStringLiteral("user_id"), latecomerId}},
                                   author);
        QCOMPARE(revoked.json.value(QStringLiteral("success")).toBool(), true);
        QCOMPARE(server->get(QStringLiteral("authorizations/") + privateId, author)
                         .json.value(QStringLiteral("data"))
                         .toObject()
                         .value(QStringLiteral("pagination"))
                         .toObject()
                         .value(QStringLiteral("total"))
                         .toInt(),
                 0);
        QCOMPARE(server->postJson(QStringLiteral("revoke/") + privateId, {{QStringLiteral("user_id"), friendUserId}},
                                  author)
                         .status,
                 404);
    }

    void banHidesResourcesAndBlocksUploads()
    {
        QCOMPARE(server->postJson(QStringLiteral("ban/") + authorId,
                                  {{QStringLiteral("reason"), QStringLiteral("spam")}}, stranger)
                         .status,
                 403);
        QCOMPARE(server->postJson(QStringLiteral("ban/") + adminId, {}, admin).status, 400);
        const auto ban
                = server->post(QStringLiteral("ban/") + authorId, "{}", admin, {{"Content-Type", "application/json"}});
        QCOMPARE(ban.json.value(QStringLiteral("success")).toBool(), true);
        QCOMPARE(ban.json.value(QStringLiteral("data")).toObject().value(QStringLiteral("id")).toString(), authorId);
        QCOMPARE(listedIds(server->get(QStringLiteral("?limit=50"), stranger)), QStringList());
        QCOMPARE(listedIds(server->get(QStringLiteral("?limit=50"), author)), QStringList());
        QCOMPARE(server->get(QStringLiteral("details/") + publicId).status, 404);
        QCOMPARE(server->get(QStringLiteral("download/") + publicId).status, 404);
        const auto upload = server->uploadScript(author, QStringLiteral("after-ban.gpc3"), "nope");
        QCOMPARE(upload.status, 403);
        QCOMPARE(upload.json.value(QStringLiteral("success")).toBool(true), false);

        QCOMPARE(server->postJson(QStringLiteral("unban/") + authorId, {}, admin).status, 200);
        QVERIFY(listedIds(server->get(QString())).contains(publicId));
    }

    void deletesAreForAuthorsAndAdministrators()
    {
        const auto refused = server->remove(publicId, stranger);
        QCOMPARE(refused.status, 403);
        QCOMPARE(refused.json.value(QStringLiteral("success")).toBool(true), false);
        QCOMPARE(server->remove(publicId, QString()).status, 401);
        QCOMPARE(server->get(QStringLiteral("details/") + publicId).status, 200);

        QCOMPARE(idOf(server->remove(publicId, author)), publicId);
        QCOMPARE(server->get(QStringLiteral("details/") + publicId).status, 404);
        QCOMPARE(idOf(server->remove(lockedId, admin)), lockedId);
        QCOMPARE(server->remove(lockedId, admin).status, 404);
        QCOMPARE(server->remove(QStringLiteral("qenv/") + privateId, author).status, 404);
    }

    void expiredGrantsGiveNoAccess()
    {
        server->postJson(
                QStringLiteral("authorize/") + privateId,
                {{QStringLiteral("discord_id"), friendId},
                 {QStringLiteral("expires_at"), QDateTime::currentDateTimeUtc().addSecs(2).toString(Qt::ISODate)}},
                author);
        QCOMPARE(server->get(QStringLiteral("details/") + privateId, friendToken).status, 200);
        QTest::qWait(3000);
        QCOMPARE(server->get(QStringLiteral("details/") + privateId, friendToken).status, 404);
    }

private:
    QString tokenOf(const QString &who) const
    {
        if (who == QLatin1String("author"))
            return author;
        if (who == QLatin1String("friend"))
            return friendToken;
        if (who == QLatin1String("stranger"))
            return stranger;
        if (who == QLatin1String("admin"))
            return admin;
        return QString();
    }

    std::unique_ptr<CatalogueServerFixture> server;
    QString author;
    QString friendToken;
    QString stranger;
    QString admin;
    QString publicId;
    QString privateId;
    QString lockedId;
};

QTEST_MAIN(CatalogueServerAccessTest)
#include "tst_catalogue_server_access.moc"
