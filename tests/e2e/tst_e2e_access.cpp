#include "TestFiles.h"
#include "E2eCatalogue.h"
#include "TemporaryHome.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QTest>

#include <memory>

using namespace Quorix;
using namespace Quorix::Testing;

namespace {

const QString administratorId = QStringLiteral("398000000000000001");

} // namespace

// Who sees and downloads what, through the client: visibility, access lists, pending grants, revocation and bans.
class TestE2eAccess : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<TemporaryHome> home;
    std::unique_ptr<E2eCatalogue> catalogue;

    QList<QJsonObject> records(OnlineResourcesAPI *api, const QString &search)
    {
        const QJsonObject reply = E2eCatalogue::listScripts(
                api, {{QStringLiteral("search"), search}, {QStringLiteral("sort"), QStringLiteral("oldest")}});
        QList<QJsonObject> result;
        for (const QJsonValue &record : reply.value(QStringLiteral("scripts")).toArray())
            result.append(record.toObject());
        return result;
    }

    // The downloaded bytes, or the error text the client reported.
    QString download(OnlineResourcesAPI *api, const QString &id)
    {
        const QString directory = catalogue->newDirectory();
        const auto outcome = E2eCatalogue::await(api, &OnlineResourcesAPI::scriptDownloaded,
                                                 [&] { api->downloadScript(id, directory); });
        if (outcome.arguments.isEmpty())
            return outcome.error.isEmpty() ? QStringLiteral("no answer") : outcome.error;
        if (!QDir(directory).entryList(QDir::Files | QDir::Hidden).contains(QStringLiteral("guarded.gpc3")))
            return QStringLiteral("file missing");
        return QString::fromUtf8(TestFiles::read(outcome.arguments.first().toString()));
    }

    QJsonObject grant(OnlineResourcesAPI *api, const QString &id, const QString &discordId)
    {
        const auto outcome = E2eCatalogue::await(api, &OnlineResourcesAPI::authorizationGranted, [&] {
            api->grantAuthorization(id, {{QStringLiteral("discord_id"), discordId},
                                         {QStringLiteral("notes"), QStringLiteral("tester")}});
        });
        return outcome.arguments.isEmpty() ? QJsonObject() : outcome.arguments.first().toJsonObject();
    }

private slots:
    void initTestCase()
    {
        home = std::make_unique<TemporaryHome>();
        catalogue = std::make_unique<E2eCatalogue>(QStringList{administratorId});
        QVERIFY2(catalogue->start(), qPrintable(catalogue->error()));
    }

    void cleanupTestCase()
    {
        catalogue.reset();
        home.reset();
    }

    void privateAndLockedRulesPerCaller_data()
    {
        QTest::addColumn<QString>("who");
        QTest::addColumn<bool>("seesPrivate");
        QTest::addColumn<bool>("downloadsLocked");
        QTest::addColumn<QString>("lockedRefusal");
        QTest::newRow("anonymous") << QStringLiteral("anonymous") << false << false
                                   << QStringLiteral("Download failed: Authentication required");
        QTest::newRow("author") << QStringLiteral("author") << true << true << QString();
        QTest::newRow("authorized") << QStringLiteral("authorized") << true << true << QString();
        QTest::newRow("other") << QStringLiteral("other") << false << false
                               << QStringLiteral("Download failed: You are not authorized to download this resource");
    }

    void privateAndLockedRulesPerCaller()
    {
        QFETCH(QString, who);
        QFETCH(bool, seesPrivate);
        QFETCH(bool, downloadsLocked);
        QFETCH(QString, lockedRefusal);
        const QString friendId = E2eCatalogue::newDiscordId();
        auto author = catalogue->signIn(E2eCatalogue::newDiscordId(), QStringLiteral("gatekeeper"));
        auto authorized = catalogue->signIn(friendId, QStringLiteral("friend"));
        auto other = catalogue->signIn(E2eCatalogue::newDiscordId(), QStringLiteral("outsider"));
        auto anonymous = catalogue->anonymous();
        const QString word = QStringLiteral("guarded%1").arg(QTest::currentDataTag());
        const QString publicId = catalogue->upload(author.get(), word + QStringLiteral(" public"),
                                                   QStringLiteral("guarded.gpc3"), "public bytes");
        const QString privateId
                = catalogue->upload(author.get(), word + QStringLiteral(" private"), QStringLiteral("guarded.gpc3"),
                                    "private bytes", {{QStringLiteral("visibility_type"), QStringLiteral("private")}});
        const QString lockedId = catalogue->upload(
                author.get(), word + QStringLiteral(" locked"), QStringLiteral("guarded.gpc3"), "locked bytes",
                {{QStringLiteral("visibility_type"), QStringLiteral("purchasable")}});
        QCOMPARE(grant(author.get(), privateId, friendId).value(QStringLiteral("success")).toBool(), true);
        QCOMPARE(grant(author.get(), lockedId, friendId).value(QStringLiteral("pending")).toBool(true), false);

        OnlineResourcesAPI *caller = who == QLatin1String("author")       ? author.get()
                                     : who == QLatin1String("authorized") ? authorized.get()
                                     : who == QLatin1String("other")      ? other.get()
                                                                          : anonymous.get();
        const QList<QJsonObject> seen = records(caller, word);
        QStringList ids;
        for (const QJsonObject &record : seen)
            ids.append(record.value(QStringLiteral("id")).toString());
        QCOMPARE(ids, seesPrivate ? (QStringList{publicId, privateId, lockedId}) : (QStringList{publicId, lockedId}));
        const QJsonObject locked = seen.last();
        QCOMPARE(locked.value(QStringLiteral("visibility_type")).toString(), QStringLiteral("purchasable"));
        QCOMPARE(locked.value(QStringLiteral("can_download")).toBool(), downloadsLocked);
        QCOMPARE(seen.first().value(QStringLiteral("can_download")).toBool(), true);

        QCOMPARE(download(caller, publicId), QStringLiteral("public bytes"));
        QCOMPARE(download(caller, lockedId), downloadsLocked ? QStringLiteral("locked bytes") : lockedRefusal);
        if (seesPrivate) {
            QCOMPARE(download(caller, privateId), QStringLiteral("private bytes"));
        } else {
            QCOMPARE(download(caller, privateId), QStringLiteral("Download failed: Resource not found"));
            const auto details = E2eCatalogue::await(caller, &OnlineResourcesAPI::scriptDetailsLoaded,
                                                     [&] { caller->fetchScriptDetails(privateId); });
            QCOMPARE(details.error, QStringLiteral("details_error: Resource not found"));
        }
    }

    void pendingGrantIsClaimedAtSignIn()
    {
        auto author = catalogue->signIn(E2eCatalogue::newDiscordId(), QStringLiteral("early-author"));
        const QString id
                = catalogue->upload(author.get(), QStringLiteral("Pending private"), QStringLiteral("guarded.gpc3"),
                                    "pending bytes", {{QStringLiteral("visibility_type"), QStringLiteral("private")}});
        const QString latecomerId = E2eCatalogue::newDiscordId();
        const QJsonObject reply = grant(author.get(), id, latecomerId);
        QCOMPARE(reply.value(QStringLiteral("success")).toBool(), true);
        QCOMPARE(reply.value(QStringLiteral("pending")).toBool(), true);
        QVERIFY(!reply.value(QStringLiteral("authorization_code")).toString().isEmpty());

        auto latecomer = catalogue->signIn(latecomerId, QStringLiteral("latecomer"));
        QCOMPARE(download(latecomer.get(), id), QStringLiteral("Download failed: Resource not found"));
        const auto claimed = E2eCatalogue::await(latecomer.get(), &OnlineResourcesAPI::pendingAuthorizationsClaimed,
                                                 [&] { latecomer->claimPendingAuthorizations(); });
        QCOMPARE(claimed.arguments, QList<QVariant>{1});
        QCOMPARE(download(latecomer.get(), id), QStringLiteral("pending bytes"));
        const auto again = E2eCatalogue::await(latecomer.get(), &OnlineResourcesAPI::pendingAuthorizationsClaimed,
                                               [&] { latecomer->claimPendingAuthorizations(); });
        QCOMPARE(again.arguments, QList<QVariant>{0});

        const auto list = E2eCatalogue::await(author.get(), &OnlineResourcesAPI::scriptAuthorizationsLoaded,
                                              [&] { author->fetchScriptAuthorizations(id, 0, 500, QString()); });
        const QJsonArray entries = list.arguments.value(0)
                                           .toJsonObject()
                                           .value(QStringLiteral("data"))
                                           .toObject()
                                           .value(QStringLiteral("authorizations"))
                                           .toArray();
        QCOMPARE(entries.size(), 1);
        QCOMPARE(entries.first().toObject().value(QStringLiteral("status")).toString(), QStringLiteral("active"));
        QCOMPARE(entries.first().toObject().value(QStringLiteral("username")).toString(), QStringLiteral("latecomer"));
        QCOMPARE(entries.first().toObject().value(QStringLiteral("download_count")).toInt(), 1);
    }

    void bulkGrantsCountAndRevokeRemovesAccess()
    {
        auto author = catalogue->signIn(E2eCatalogue::newDiscordId(), QStringLiteral("bulk-author"));
        const QString id
                = catalogue->upload(author.get(), QStringLiteral("Bulk locked"), QStringLiteral("guarded.gpc3"),
                                    "bulk bytes", {{QStringLiteral("visibility_type"), QStringLiteral("purchasable")}});
        const QString alreadyId = E2eCatalogue::newDiscordId();
        const QString freshId = E2eCatalogue::newDiscordId();
        const QString unknownId = E2eCatalogue::newDiscordId();
        auto already = catalogue->signIn(alreadyId, QStringLiteral("regular"));
        auto fresh = catalogue->signIn(freshId, QStringLiteral("newcomer"));
        QCOMPARE(grant(author.get(), id, alreadyId).value(QStringLiteral("pending")).toBool(true), false);

        const auto bulk = E2eCatalogue::await(author.get(), &OnlineResourcesAPI::bulkAuthorizationsGranted, [&] {
            author->bulkGrantAuthorizations(id, {alreadyId, freshId, unknownId, QStringLiteral("not-an-id")},
                                            QStringLiteral("imported"));
        });
        QVERIFY2(!bulk.arguments.isEmpty(), qPrintable(bulk.error));
        const QJsonObject counts = bulk.arguments.first().toJsonObject().value(QStringLiteral("data")).toObject();
        QCOMPARE(counts.value(QStringLiteral("granted")).toInt(), 1);
        QCOMPARE(counts.value(QStringLiteral("already_authorized")).toInt(), 1);
        QCOMPARE(counts.value(QStringLiteral("not_found")).toInt(), 1);
        QCOMPARE(counts.value(QStringLiteral("errors")).toArray().size(), 1);
        QCOMPARE(download(fresh.get(), id), QStringLiteral("bulk bytes"));

        const auto revoked = E2eCatalogue::await(author.get(), &OnlineResourcesAPI::authorizationRevoked, [&] {
            author->revokeAuthorization(
                    id, {{QStringLiteral("user_id"), freshId}, {QStringLiteral("reason"), QStringLiteral("refunded")}});
        });
        QCOMPARE(revoked.arguments.value(0).toJsonObject().value(QStringLiteral("success")).toBool(), true);
        QCOMPARE(download(fresh.get(), id),
                 QStringLiteral("Download failed: You are not authorized to download this resource"));
        QCOMPARE(download(already.get(), id), QStringLiteral("bulk bytes"));
    }

    void bannedAuthorsDisappearAndCannotUpload()
    {
        const QString authorId = E2eCatalogue::newDiscordId();
        auto author = catalogue->signIn(authorId, QStringLiteral("troublemaker"));
        auto bystander = catalogue->signIn(E2eCatalogue::newDiscordId(), QStringLiteral("bystander"));
        const QString id = catalogue->upload(author.get(), QStringLiteral("Bannable cheat"),
                                             QStringLiteral("guarded.gpc3"), "cheat");
        const QString kept = catalogue->upload(bystander.get(), QStringLiteral("Bannable neighbour"),
                                               QStringLiteral("guarded.gpc3"), "fine");
        auto visitor = catalogue->anonymous();
        QCOMPARE(records(visitor.get(), QStringLiteral("Bannable")).size(), 2);

        const auto refused = E2eCatalogue::await(bystander.get(), &OnlineResourcesAPI::userBanned,
                                                 [&] { bystander->banUser(authorId, QStringLiteral("cheating")); });
        QCOMPARE(refused.error, QStringLiteral("Ban failed: Administrator rights required"));

        auto administrator = catalogue->signIn(administratorId, QStringLiteral("moderator"));
        const auto banned = E2eCatalogue::await(administrator.get(), &OnlineResourcesAPI::userBanned,
                                                [&] { administrator->banUser(authorId, QStringLiteral("cheating")); });
        QCOMPARE(banned.arguments, QList<QVariant>{authorId});

        const QList<QJsonObject> remaining = records(visitor.get(), QStringLiteral("Bannable"));
        QCOMPARE(remaining.size(), 1);
        QCOMPARE(remaining.first().value(QStringLiteral("id")).toString(), kept);
        QCOMPARE(download(visitor.get(), id), QStringLiteral("Download failed: Resource not found"));
        QString error;
        QVERIFY(catalogue
                        ->upload(author.get(), QStringLiteral("Bannable again"), QStringLiteral("again.gpc3"), "again",
                                 {}, &error)
                        .isEmpty());
        QCOMPARE(error, QStringLiteral("Upload failed: Your account has been banned from uploading"));
    }
};

QTEST_MAIN(TestE2eAccess)
#include "tst_e2e_access.moc"
