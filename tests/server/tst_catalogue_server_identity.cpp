#include <CatalogueServerFixture.h>

#include <QtTest>

using Quorix::Testing::CatalogueServerFixture;

namespace {

const QString administratorId = QStringLiteral("999999999999999999");
const QString authorId = QStringLiteral("111111111111111111");
const QString otherId = QStringLiteral("222222222222222222");

} // namespace

// Who a request speaks for comes from its session alone: stored names, expiring and revocable sessions, and bans
// that stop every write.
class CatalogueServerIdentityTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(server.start(), qPrintable(server.error()));
        adminToken = server.signIn(administratorId, QStringLiteral("admin"));
        QVERIFY(!adminToken.isEmpty());
    }

    void headersNeverChangeTheStoredName()
    {
        const QString token = server.signIn(authorId, QStringLiteral("alice"), QStringLiteral("Alice"));
        const auto uploaded = server.uploadScript(token, QStringLiteral("named.gpc3"), "main {}");
        const QString id
                = uploaded.json.value(QStringLiteral("data")).toObject().value(QStringLiteral("id")).toString();
        const auto details = server.send(
                "GET", server.apiUrl(QStringLiteral("details/") + id), {},
                {{"X-Discord-Username", "mallory"}, {"X-Discord-GlobalName", "Mallory"}, {"X-Discord-Avatar", "x"}},
                token);
        const QJsonObject author
                = details.json.value(QStringLiteral("data")).toObject().value(QStringLiteral("author")).toObject();
        QCOMPARE(author.value(QStringLiteral("username")).toString(), QStringLiteral("alice"));
        QCOMPARE(author.value(QStringLiteral("global_name")).toString(), QStringLiteral("Alice"));
    }

    void signingOutEndsOnlyThatSession()
    {
        const QString first = server.signIn(otherId, QStringLiteral("bob"));
        const QString second = server.signIn(otherId, QStringLiteral("bob"));
        QCOMPARE(server.post(QStringLiteral("../auth/sign-out"), {}, first).status, 200);
        QCOMPARE(server.get(QStringLiteral("liked"), first).status, 401);
        QCOMPARE(server.post(QStringLiteral("../auth/sign-out"), {}, first).status, 401);
        QCOMPARE(server.get(QStringLiteral("liked"), second).status, 200);
    }

    void sessionsExpire()
    {
        CatalogueServerFixture shortLived;
        shortLived.setSessionLifetime(2);
        QVERIFY2(shortLived.start(), qPrintable(shortLived.error()));
        const QString token = shortLived.signIn(otherId, QStringLiteral("bob"));
        QCOMPARE(shortLived.get(QStringLiteral("liked"), token).status, 200);
        QTRY_COMPARE_WITH_TIMEOUT(shortLived.get(QStringLiteral("liked"), token).status, 401, 10000);
    }

    void bannedUsersCannotWrite_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QByteArray>("body");
        QTest::newRow("like") << QStringLiteral("like/%1") << QByteArray();
        QTest::newRow("delete") << QStringLiteral("%1?_method=DELETE") << QByteArray("_method=DELETE");
        QTest::newRow("grant") << QStringLiteral("authorize/%1")
                               << QByteArray(R"({"discord_id":"333333333333333333"})");
        QTest::newRow("bulk grant") << QStringLiteral("bulk-authorize/%1")
                                    << QByteArray(R"({"discord_ids":["333333333333333333"]})");
        QTest::newRow("revoke") << QStringLiteral("revoke/%1") << QByteArray(R"({"user_id":"333333333333333333"})");
        QTest::newRow("visibility") << QStringLiteral("visibility/%1")
                                    << QByteArray(R"({"visibility_type":"private"})");
        QTest::newRow("claim") << QStringLiteral("claim-authorizations") << QByteArray();
    }

    void bannedUsersCannotWrite()
    {
        QFETCH(QString, path);
        QFETCH(QByteArray, body);
        // A fresh user per row, since a ban outlives the row.
        const QString bannedId = QStringLiteral("4444444444444444%1").arg(++bannedUsers, 2, 10, QLatin1Char('0'));
        const QString token = server.signIn(bannedId, QStringLiteral("banned"));
        const auto uploaded = server.uploadScript(token, QStringLiteral("mine.gpc3"), "main {}");
        const QString id
                = uploaded.json.value(QStringLiteral("data")).toObject().value(QStringLiteral("id")).toString();
        QVERIFY(!id.isEmpty());
        QCOMPARE(server.postJson(QStringLiteral("ban/") + bannedId, {}, adminToken).status, 200);
        const auto refused = server.post(path.arg(id), body, token, {{"Content-Type", "application/json"}});
        QCOMPARE(refused.status, 403);
        QCOMPARE(refused.json.value(QStringLiteral("error")).toString(),
                 QStringLiteral("Your account has been banned"));
        const auto upload = server.uploadScript(token, QStringLiteral("again.gpc3"), "main {}");
        QCOMPARE(upload.status, 403);
    }

    void imagesFollowTheirResource_data()
    {
        QTest::addColumn<QString>("visibility");
        QTest::addColumn<bool>("asAuthor");
        QTest::addColumn<QString>("key");
        QTest::addColumn<int>("status");
        const QString none, sent = QStringLiteral("sent"), forged = QStringLiteral("AAAAAAAAAAAAAAAAAAAAAA");
        QTest::newRow("public to anyone") << QStringLiteral("public") << false << none << 200;
        QTest::newRow("locked to anyone") << QStringLiteral("purchasable") << false << none << 200;
        QTest::newRow("private to anyone") << QStringLiteral("private") << false << none << 404;
        QTest::newRow("private to its author") << QStringLiteral("private") << true << none << 200;
        QTest::newRow("private by the address sent to its author") << QStringLiteral("private") << false << sent << 200;
        QTest::newRow("private by a forged address") << QStringLiteral("private") << false << forged << 404;
    }

    void imagesFollowTheirResource()
    {
        QFETCH(QString, visibility);
        QFETCH(bool, asAuthor);
        QFETCH(QString, key);
        QFETCH(int, status);
        const QString token = server.signIn(authorId, QStringLiteral("alice"));
        QImage picture(80, 40, QImage::Format_RGB32);
        picture.fill(Qt::darkGreen);
        QByteArray png;
        QBuffer buffer(&png);
        buffer.open(QIODevice::WriteOnly);
        picture.save(&buffer, "PNG");
        const auto uploaded = server.upload(QStringLiteral("upload"), token,
                                            {{QStringLiteral("name"), QStringLiteral("Pictured")},
                                             {QStringLiteral("description"), QStringLiteral("Has a header picture")},
                                             {QStringLiteral("visibility_type"), visibility}},
                                            {{QStringLiteral("script_file"), QStringLiteral("p.gpc3"), "main {}"},
                                             {QStringLiteral("header_image"), QStringLiteral("p.png"), png}});
        const QString id
                = uploaded.json.value(QStringLiteral("data")).toObject().value(QStringLiteral("id")).toString();
        QVERIFY(!id.isEmpty());
        // The author's client shows the pictures by the addresses in the record, without its token.
        const QJsonObject images = server.get(QStringLiteral("details/") + id, token)
                                           .json.value(QStringLiteral("data"))
                                           .toObject()
                                           .value(QStringLiteral("images"))
                                           .toObject();
        for (const QString &which : {QStringLiteral("header"), QStringLiteral("thumbnail")}) {
            const QString sentAddress = images.value(which).toObject().value(QStringLiteral("url")).toString();
            QVERIFY2(sentAddress.contains(QStringLiteral("?key=")), qPrintable(sentAddress));
            const QString plain = server.origin() + QStringLiteral("/images/%1/%2").arg(id, which);
            const QString address = key.isEmpty() ? plain
                                    : key == QLatin1String("sent") ? sentAddress
                                                                   : plain + QStringLiteral("?key=") + key;
            const auto image = server.send("GET", address, {}, {}, asAuthor ? token : QString());
            QCOMPARE(image.status, status);
        }
    }

private:
    CatalogueServerFixture server{false, {administratorId}};
    QString adminToken;
    int bannedUsers = 0;
};

QTEST_MAIN(CatalogueServerIdentityTest)
#include "tst_catalogue_server_identity.moc"
