#include "TestFiles.h"
#include "E2eCatalogue.h"
#include "TemporaryHome.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTest>

#include <memory>

using namespace Quorix;
using namespace Quorix::Testing;

namespace {

const QString administratorId = QStringLiteral("399000000000000001");

} // namespace

// Publishing through the client: uploads and updates, details, downloads of every kind, and who may delete.
class TestE2ePublishing : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<TemporaryHome> home;
    std::unique_ptr<E2eCatalogue> catalogue;

    QStringList listed(OnlineResourcesAPI *api, const QString &search)
    {
        return E2eCatalogue::idsOf(E2eCatalogue::listScripts(
                api, {{QStringLiteral("search"), search}, {QStringLiteral("sort"), QStringLiteral("newest")}}));
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

    void uploadCheckUpdateDetailsAndDownload()
    {
        auto author = catalogue->signIn(E2eCatalogue::newDiscordId(), QStringLiteral("publisher"));
        const QByteArray first = "main { set_val(XB1_RT, 100); }\n";
        const QString id = catalogue->upload(author.get(), QStringLiteral("Trigger boost"),
                                             QStringLiteral("trigger_boost.gpc3"), first);
        QVERIFY(!id.isEmpty());

        const auto check = E2eCatalogue::await(author.get(), &OnlineResourcesAPI::existingScriptChecked, [&] {
            author->checkExistingScript(QStringLiteral("trigger_boost.gpc3"), QStringLiteral("gpc3"));
        });
        QVERIFY2(!check.arguments.isEmpty(), qPrintable(check.error));
        const QJsonObject existing = check.arguments.first().toJsonObject();
        QCOMPARE(existing.value(QStringLiteral("exists")).toBool(), true);
        QCOMPARE(existing.value(QStringLiteral("data")).toObject().value(QStringLiteral("id")).toString(), id);

        auto someoneElse = catalogue->signIn(E2eCatalogue::newDiscordId(), QStringLiteral("namesake"));
        const auto otherCheck = E2eCatalogue::await(someoneElse.get(), &OnlineResourcesAPI::existingScriptChecked, [&] {
            someoneElse->checkExistingScript(QStringLiteral("trigger_boost.gpc3"), QStringLiteral("gpc3"));
        });
        QVERIFY(!otherCheck.arguments.isEmpty());
        QCOMPARE(otherCheck.arguments.first().toJsonObject().value(QStringLiteral("exists")).toBool(true), false);

        const QByteArray second = "main { set_val(XB1_RT, 80); }\n// tuned\n";
        QString error;
        const QString updated = catalogue->upload(
                author.get(), QStringLiteral("Trigger boost tuned"), QStringLiteral("trigger_boost.gpc3"), second,
                {{QStringLiteral("existing_uuid"), id}, {QStringLiteral("version"), 2.5}}, &error);
        QCOMPARE(updated, id);
        QVERIFY(error.isEmpty());

        auto visitor = catalogue->anonymous();
        const auto details = E2eCatalogue::await(visitor.get(), &OnlineResourcesAPI::scriptDetailsLoaded,
                                                 [&] { visitor->fetchScriptDetails(id); });
        QVERIFY2(!details.arguments.isEmpty(), qPrintable(details.error));
        const QJsonObject record = details.arguments.first().toJsonObject();
        QCOMPARE(record.value(QStringLiteral("name")).toString(), QStringLiteral("Trigger boost tuned"));
        QCOMPARE(record.value(QStringLiteral("version")).toDouble(), 2.5);
        QCOMPARE(record.value(QStringLiteral("type")).toString(), QStringLiteral("gpc3"));
        QCOMPARE(record.value(QStringLiteral("author")).toObject().value(QStringLiteral("username")).toString(),
                 QStringLiteral("publisher"));
        QCOMPARE(listed(visitor.get(), QStringLiteral("Trigger boost")), QStringList{id});

        const QString directory = catalogue->newDirectory();
        const auto download = E2eCatalogue::await(visitor.get(), &OnlineResourcesAPI::scriptDownloaded,
                                                  [&] { visitor->downloadScript(id, directory); });
        QVERIFY2(!download.arguments.isEmpty(), qPrintable(download.error));
        const QString path = download.arguments.first().toString();
        QCOMPARE(path, directory + QStringLiteral("/trigger_boost.gpc3"));
        QCOMPARE(TestFiles::read(path), second);
        QCOMPARE(QDir(directory).entryList(QDir::Files), QStringList{QStringLiteral("trigger_boost.gpc3")});
    }

    void updatingSomeoneElsesScriptKeepsIt()
    {
        auto author = catalogue->signIn(E2eCatalogue::newDiscordId(), QStringLiteral("owner"));
        const QString id = catalogue->upload(author.get(), QStringLiteral("Owned script"), QStringLiteral("owned.gpc3"),
                                             "original");
        auto intruder = catalogue->signIn(E2eCatalogue::newDiscordId(), QStringLiteral("intruder"));
        QString error;
        QVERIFY(catalogue
                        ->upload(intruder.get(), QStringLiteral("Hijacked"), QStringLiteral("owned.gpc3"), "evil",
                                 {{QStringLiteral("existing_uuid"), id}}, &error)
                        .isEmpty());
        QCOMPARE(error, QStringLiteral("Upload failed: You can only update your own resources"));
        const QString directory = catalogue->newDirectory();
        const auto download = E2eCatalogue::await(author.get(), &OnlineResourcesAPI::scriptDownloaded,
                                                  [&] { author->downloadScript(id, directory); });
        QVERIFY(!download.arguments.isEmpty());
        QCOMPARE(TestFiles::read(download.arguments.first().toString()), QByteArray("original"));
    }

    void environmentPackagesTravelThroughTheScriptUpload()
    {
        auto author = catalogue->signIn(E2eCatalogue::newDiscordId(), QStringLiteral("packager"));
        const QByteArray package
                = QJsonDocument(QJsonObject{{QStringLiteral("name"), QStringLiteral("vision")},
                                            {QStringLiteral("python"), QStringLiteral("3.11")},
                                            {QStringLiteral("packages"), QJsonArray{QStringLiteral("numpy==1.26.4"),
                                                                                    QStringLiteral("opencv-python")}},
                                            {QStringLiteral("extra_index_urls"),
                                             QJsonArray{QStringLiteral("https://download.pytorch.org/whl/cu121")}}})
                          .toJson();
        const QString id = catalogue->upload(author.get(), QStringLiteral("Vision stack"),
                                             QStringLiteral("vision.qenv"), package);
        QVERIFY(!id.isEmpty());

        auto visitor = catalogue->anonymous();
        const auto loaded = E2eCatalogue::await(visitor.get(), &OnlineResourcesAPI::environmentsLoaded, [&] {
            visitor->loadEnvironments({{QStringLiteral("search"), QStringLiteral("Vision stack")},
                                       {QStringLiteral("type"), QStringLiteral("gpc3")}});
        });
        QVERIFY2(!loaded.arguments.isEmpty(), qPrintable(loaded.error));
        const QJsonObject reply = loaded.arguments.first().toJsonObject();
        QCOMPARE(E2eCatalogue::idsOf(reply, QStringLiteral("environments")), QStringList{id});
        QCOMPARE(reply.value(QStringLiteral("pagination"))
                         .toObject()
                         .value(QStringLiteral("total_environments"))
                         .toInt(),
                 1);
        const QJsonObject metadata = reply.value(QStringLiteral("environments"))
                                             .toArray()
                                             .first()
                                             .toObject()
                                             .value(QStringLiteral("qenv_metadata"))
                                             .toObject();
        QCOMPARE(metadata.value(QStringLiteral("python")).toString(), QStringLiteral("3.11"));
        QCOMPARE(metadata.value(QStringLiteral("package_count")).toInt(), 2);
        QCOMPARE(metadata.value(QStringLiteral("cuda")).toString(), QStringLiteral("12.1"));
        QVERIFY(!listed(visitor.get(), QStringLiteral("Vision stack")).contains(id));

        const QString directory = catalogue->newDirectory();
        const auto download = E2eCatalogue::await(visitor.get(), &OnlineResourcesAPI::environmentDownloaded,
                                                  [&] { visitor->downloadEnvironment(id, directory); });
        QVERIFY2(!download.arguments.isEmpty(), qPrintable(download.error));
        QCOMPARE(download.arguments.first().toString(), directory + QStringLiteral("/vision.qenv"));
        QCOMPARE(TestFiles::read(download.arguments.first().toString()), package);
    }

    void weightsAreSavedUnderTheirIdWithTheRightExtension_data()
    {
        QTest::addColumn<bool>("encrypted");
        QTest::addColumn<QString>("extension");
        QTest::newRow("encrypted") << true << QStringLiteral("ennx");
        QTest::newRow("plain") << false << QStringLiteral("onnx");
    }

    void weightsAreSavedUnderTheirIdWithTheRightExtension()
    {
        QFETCH(bool, encrypted);
        QFETCH(QString, extension);
        auto author = catalogue->signIn(E2eCatalogue::newDiscordId(), QStringLiteral("trainer"));
        QByteArray model("ONNX");
        for (int i = 0; i < 4096; ++i)
            model.append(char(i * 7 % 251));
        const QString name = QStringLiteral("Detector %1").arg(QTest::currentDataTag());
        const QJsonObject form{
                {QStringLiteral("name"), name},
                {QStringLiteral("description"), QStringLiteral("Weights from the end-to-end tests")},
                {QStringLiteral("version"), 1},
                {QStringLiteral("visibility_type"), QStringLiteral("public")},
                {QStringLiteral("encrypted"), encrypted},
                {QStringLiteral("onnx_file"), catalogue->writeFile(QStringLiteral("detector.onnx"), model)}};
        const auto uploaded = E2eCatalogue::await(author.get(), &OnlineResourcesAPI::weightsUploaded,
                                                  [&] { author->uploadWeights(form); });
        QVERIFY2(!uploaded.arguments.isEmpty(), qPrintable(uploaded.error));
        const QString uuid = uploaded.arguments.first().toString();

        auto visitor = catalogue->anonymous();
        const auto loaded = E2eCatalogue::await(visitor.get(), &OnlineResourcesAPI::weightsLoaded, [&] {
            visitor->fetchWeights({{QStringLiteral("search"), name}});
        });
        QVERIFY(!loaded.arguments.isEmpty());
        const QJsonArray records = loaded.arguments.first().toJsonObject().value(QStringLiteral("weights")).toArray();
        QCOMPARE(records.size(), 1);
        QCOMPARE(records.first().toObject().value(QStringLiteral("is_encrypted")).toBool(), encrypted);
        QCOMPARE(records.first().toObject().value(QStringLiteral("size")).toInteger(), model.size());

        const auto download = E2eCatalogue::await(visitor.get(), &OnlineResourcesAPI::weightsDownloaded,
                                                  [&] { visitor->downloadWeights(uuid); });
        QVERIFY2(!download.arguments.isEmpty(), qPrintable(download.error));
        const QString expected
                = OnlineResourcesAPI::weightsDirectory() + QLatin1Char('/') + uuid + QLatin1Char('.') + extension;
        QCOMPARE(download.arguments, (QList<QVariant>{uuid, expected}));
        QCOMPARE(TestFiles::read(expected), model);
        QVERIFY(QFile::remove(expected));
    }

    void deletesBelongToTheAuthorAndAdministrators()
    {
        auto author = catalogue->signIn(E2eCatalogue::newDiscordId(), QStringLiteral("deleter"));
        const QString byAuthor
                = catalogue->upload(author.get(), QStringLiteral("Erasable one"), QStringLiteral("one.gpc3"), "one");
        const QString byAdministrator
                = catalogue->upload(author.get(), QStringLiteral("Erasable two"), QStringLiteral("two.gpc3"), "two");
        const QString kept = catalogue->upload(author.get(), QStringLiteral("Erasable three"),
                                               QStringLiteral("three.gpc3"), "three");

        auto stranger = catalogue->signIn(E2eCatalogue::newDiscordId(), QStringLiteral("vandal"));
        const auto refused = E2eCatalogue::await(stranger.get(), &OnlineResourcesAPI::scriptDeleted,
                                                 [&] { stranger->deleteScript(kept); });
        QVERIFY(refused.arguments.isEmpty());
        QCOMPARE(refused.error,
                 QStringLiteral("Delete failed: Only the author or an administrator can delete this resource"));

        const auto own = E2eCatalogue::await(author.get(), &OnlineResourcesAPI::scriptDeleted,
                                             [&] { author->deleteScript(byAuthor); });
        QCOMPARE(own.arguments, QList<QVariant>{byAuthor});
        auto administrator = catalogue->signIn(administratorId, QStringLiteral("moderator"));
        const auto moderated = E2eCatalogue::await(administrator.get(), &OnlineResourcesAPI::scriptDeleted,
                                                   [&] { administrator->deleteScript(byAdministrator); });
        QCOMPARE(moderated.arguments, QList<QVariant>{byAdministrator});

        auto visitor = catalogue->anonymous();
        QCOMPARE(listed(visitor.get(), QStringLiteral("Erasable")), QStringList{kept});
        const auto gone = E2eCatalogue::await(visitor.get(), &OnlineResourcesAPI::scriptDetailsLoaded,
                                              [&] { visitor->fetchScriptDetails(byAuthor); });
        QVERIFY(gone.arguments.isEmpty());
        QVERIFY2(gone.error.startsWith(QStringLiteral("details_error: ")), qPrintable(gone.error));
    }
};

QTEST_MAIN(TestE2ePublishing)
#include "tst_e2e_publishing.moc"
