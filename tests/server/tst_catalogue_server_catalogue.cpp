#include <CatalogueServerFixture.h>

#include <QCryptographicHash>
#include <QDir>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QtTest>

using Quorix::Testing::CatalogueServerFixture;

namespace {

const QString authorId = QStringLiteral("111111111111111111");
const QString fanId = QStringLiteral("222222222222222222");

QString idOf(const CatalogueServerFixture::Reply &reply)
{
    return reply.json.value(QStringLiteral("data")).toObject().value(QStringLiteral("id")).toString();
}

QStringList namesOf(const QJsonArray &records)
{
    QStringList names;
    for (const QJsonValue &record : records)
        names.append(record.toObject().value(QStringLiteral("name")).toString());
    return names;
}

QByteArray pngBytes(int width, int height)
{
    QImage image(width, height, QImage::Format_RGB32);
    image.fill(Qt::darkCyan);
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG");
    return bytes;
}

} // namespace

// Listing, searching, likes, uploads and downloads as a client sees them on the wire.
class CatalogueServerCatalogueTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(server.start(), qPrintable(server.error()));
        author = server.signIn(authorId, QStringLiteral("author"), QStringLiteral("The Author"));
        fan = server.signIn(fanId, QStringLiteral("fan"));
        QVERIFY(!author.isEmpty() && !fan.isEmpty());
        const QStringList files{QStringLiteral("alpha.gpc3"), QStringLiteral("bravo.gbc3"),
                                QStringLiteral("charlie.py"), QStringLiteral("delta.gpc3"), QStringLiteral("echo.py")};
        for (const QString &file : files) {
            const auto reply = server.uploadScript(author, file, "content of " + file.toUtf8());
            QCOMPARE(reply.status, 200);
            ids.append(idOf(reply));
        }
    }

    void listPagesCarryPaginationAndRecordKeys()
    {
        const auto first = server.get(QStringLiteral("?page=1&limit=2&sort=oldest"));
        QCOMPARE(first.status, 200);
        QCOMPARE(first.json.value(QStringLiteral("success")).toBool(), true);
        const QJsonObject pagination = first.json.value(QStringLiteral("pagination")).toObject();
        QCOMPARE(pagination.value(QStringLiteral("current_page")).toInt(), 1);
        QCOMPARE(pagination.value(QStringLiteral("total_pages")).toInt(), 3);
        QCOMPARE(pagination.value(QStringLiteral("total_scripts")).toInt(), 5);
        const QJsonArray scripts = first.json.value(QStringLiteral("scripts")).toArray();
        QCOMPARE(scripts.size(), 2);
        const QJsonObject record = scripts.first().toObject();
        QCOMPARE(record.value(QStringLiteral("id")).toString(), ids.first());
        QCOMPARE(record.value(QStringLiteral("type")).toString(), QStringLiteral("gpc3"));
        QCOMPARE(record.value(QStringLiteral("tags")).toArray(),
                 QJsonArray({QStringLiteral("test"), QStringLiteral("upload")}));
        QCOMPARE(record.value(QStringLiteral("version")).toDouble(), 1.0);
        QCOMPARE(record.value(QStringLiteral("visibility_type")).toString(), QStringLiteral("public"));
        QCOMPARE(record.value(QStringLiteral("can_download")).toBool(), true);
        QVERIFY(QDateTime::fromString(record.value(QStringLiteral("created")).toString(), Qt::ISODate).isValid());
        const QJsonObject authorRecord = record.value(QStringLiteral("author")).toObject();
        QCOMPARE(authorRecord.value(QStringLiteral("discord_id")).toString(), authorId);
        QCOMPARE(authorRecord.value(QStringLiteral("username")).toString(), QStringLiteral("author"));
        QCOMPARE(authorRecord.value(QStringLiteral("name")).toString(), QStringLiteral("The Author"));

        const auto last = server.get(QStringLiteral("?page=3&limit=2&sort=oldest"));
        QCOMPARE(last.json.value(QStringLiteral("scripts")).toArray().size(), 1);
        QCOMPARE(last.json.value(QStringLiteral("pagination")).toObject().value(QStringLiteral("current_page")).toInt(),
                 3);
    }

    void typeFilterSelectsSubtypes_data()
    {
        QTest::addColumn<QString>("type");
        QTest::addColumn<QStringList>("names");
        QTest::newRow("all") << QStringLiteral("all")
                             << QStringList{QStringLiteral("Script alpha.gpc3"), QStringLiteral("Script bravo.gbc3"),
                                            QStringLiteral("Script charlie.py"), QStringLiteral("Script delta.gpc3"),
                                            QStringLiteral("Script echo.py")};
        QTest::newRow("gpc3 covers gbc3")
                << QStringLiteral("gpc3")
                << QStringList{QStringLiteral("Script alpha.gpc3"), QStringLiteral("Script bravo.gbc3"),
                               QStringLiteral("Script delta.gpc3")};
        QTest::newRow("py") << QStringLiteral("py")
                            << QStringList{QStringLiteral("Script charlie.py"), QStringLiteral("Script echo.py")};
    }

    void typeFilterSelectsSubtypes()
    {
        QFETCH(QString, type);
        QFETCH(QStringList, names);
        const auto reply = server.get(QStringLiteral("?sort=oldest&type=") + type);
        QCOMPARE(namesOf(reply.json.value(QStringLiteral("scripts")).toArray()), names);
    }

    void searchMatchesNameDescriptionAndTags()
    {
        QCOMPARE(namesOf(server.get(QStringLiteral("?search=CHARLIE")).json.value(QStringLiteral("scripts")).toArray()),
                 QStringList{QStringLiteral("Script charlie.py")});
        QCOMPARE(server.get(QStringLiteral("?search=uploaded%20by"))
                         .json.value(QStringLiteral("pagination"))
                         .toObject()
                         .value(QStringLiteral("total_scripts"))
                         .toInt(),
                 5);
        QCOMPARE(server.get(QStringLiteral("?search=upload")).json.value(QStringLiteral("scripts")).toArray().size(),
                 5);
        // LIKE wildcards in the search text are literal characters.
        QCOMPARE(server.get(QStringLiteral("?search=%25")).json.value(QStringLiteral("scripts")).toArray().size(), 0);
        QCOMPARE(server.get(QStringLiteral("?search=nothing-matches"))
                         .json.value(QStringLiteral("pagination"))
                         .toObject()
                         .value(QStringLiteral("total_scripts"))
                         .toInt(),
                 0);
    }

    void likesToggleAndOrderPopularAndMyLiked()
    {
        const QString target = ids.at(3);
        auto like = server.post(QStringLiteral("like/") + target, {}, fan, {{"Content-Type", "application/json"}});
        QCOMPARE(like.status, 200);
        QCOMPARE(like.json.value(QStringLiteral("data")).toObject().value(QStringLiteral("liked")).toBool(), true);
        QCOMPARE(like.json.value(QStringLiteral("data")).toObject().value(QStringLiteral("like_count")).toInt(), 1);
        like = server.post(QStringLiteral("like/") + target, {}, author, {{"Content-Type", "application/json"}});
        QCOMPARE(like.json.value(QStringLiteral("data")).toObject().value(QStringLiteral("like_count")).toInt(), 2);

        const auto popular = server.get(QStringLiteral("?sort=popular"));
        const QJsonObject top = popular.json.value(QStringLiteral("scripts")).toArray().first().toObject();
        QCOMPARE(top.value(QStringLiteral("id")).toString(), target);
        QCOMPARE(top.value(QStringLiteral("likes")).toInt(), 2);

        QCOMPARE(server.get(QStringLiteral("liked"), fan).json.value(QStringLiteral("data")).toArray(),
                 QJsonArray{target});
        QCOMPARE(namesOf(server.get(QStringLiteral("?sort=my_liked"), fan)
                                 .json.value(QStringLiteral("scripts"))
                                 .toArray()),
                 QStringList{QStringLiteral("Script delta.gpc3")});
        QCOMPARE(server.get(QStringLiteral("?sort=my_liked")).json.value(QStringLiteral("scripts")).toArray().size(),
                 0);

        like = server.post(QStringLiteral("like/") + target, {}, fan, {{"Content-Type", "application/json"}});
        QCOMPARE(like.json.value(QStringLiteral("data")).toObject().value(QStringLiteral("liked")).toBool(), false);
        QCOMPARE(like.json.value(QStringLiteral("data")).toObject().value(QStringLiteral("like_count")).toInt(), 1);
        QCOMPARE(server.get(QStringLiteral("liked"), fan).json.value(QStringLiteral("data")).toArray(), QJsonArray());
    }

    void detailsCountViewsAndDownloadsReturnTheBytes()
    {
        const QString target = ids.at(1);
        const auto details = server.get(QStringLiteral("details/") + target);
        QCOMPARE(details.status, 200);
        QCOMPARE(details.json.value(QStringLiteral("data")).toObject().value(QStringLiteral("views")).toInt(), 1);
        const auto download = server.get(QStringLiteral("download/") + target);
        QCOMPARE(download.status, 200);
        QCOMPARE(download.body, QByteArray("content of bravo.gbc3"));
        QCOMPARE(download.header("content-disposition"), QByteArray("attachment; filename=\"bravo.gbc3\""));
        QCOMPARE(download.header("repr-digest"),
                 "sha-256=:" + QCryptographicHash::hash(download.body, QCryptographicHash::Sha256).toBase64() + ':');
        QVERIFY(!download.header("content-type").contains("application/json"));
        const QJsonObject after
                = server.get(QStringLiteral("details/") + target).json.value(QStringLiteral("data")).toObject();
        QCOMPARE(after.value(QStringLiteral("downloads")).toInt(), 1);
        QCOMPARE(after.value(QStringLiteral("views")).toInt(), 2);
    }

    void checkExistingFindsOwnFileAndUpdateKeepsTheId()
    {
        auto check = server.postJson(QStringLiteral("check-existing"),
                                     {{QStringLiteral("name"), QStringLiteral("echo.py")},
                                      {QStringLiteral("script_type"), QStringLiteral("py")}},
                                     author);
        QCOMPARE(check.json.value(QStringLiteral("success")).toBool(), true);
        QCOMPARE(check.json.value(QStringLiteral("exists")).toBool(), true);
        QCOMPARE(check.json.value(QStringLiteral("data")).toObject().value(QStringLiteral("id")).toString(), ids.at(4));
        check = server.postJson(QStringLiteral("check-existing"),
                                {{QStringLiteral("name"), QStringLiteral("echo.py")},
                                 {QStringLiteral("script_type"), QStringLiteral("py")}},
                                fan);
        QCOMPARE(check.json.value(QStringLiteral("exists")).toBool(), false);
        check = server.postJson(QStringLiteral("check-existing"),
                                {{QStringLiteral("name"), QStringLiteral("echo.py")},
                                 {QStringLiteral("script_type"), QStringLiteral("gpc3")}},
                                author);
        QCOMPARE(check.json.value(QStringLiteral("exists")).toBool(), false);

        const auto update
                = server.upload(QStringLiteral("upload"), author,
                                {{QStringLiteral("name"), QStringLiteral("Echo Two")},
                                 {QStringLiteral("description"), QStringLiteral("The second version of echo")},
                                 {QStringLiteral("existing_uuid"), ids.at(4)},
                                 {QStringLiteral("version"), QStringLiteral("2.5")},
                                 {QStringLiteral("visibility_type"), QStringLiteral("public")}},
                                {{QStringLiteral("script_file"), QStringLiteral("echo.py"), "print('v2')\n"}});
        QCOMPARE(update.status, 200);
        QCOMPARE(idOf(update), ids.at(4));
        const QJsonObject record
                = server.get(QStringLiteral("details/") + ids.at(4)).json.value(QStringLiteral("data")).toObject();
        QCOMPARE(record.value(QStringLiteral("name")).toString(), QStringLiteral("Echo Two"));
        QCOMPARE(record.value(QStringLiteral("version")).toDouble(), 2.5);
        QCOMPARE(server.get(QStringLiteral("download/") + ids.at(4)).body, QByteArray("print('v2')\n"));
        QCOMPARE(server.get(QStringLiteral("?limit=100"))
                         .json.value(QStringLiteral("pagination"))
                         .toObject()
                         .value(QStringLiteral("total_scripts"))
                         .toInt(),
                 5);
        QCOMPARE(QDir(server.dataDirectory() + QStringLiteral("/files")).entryList(QDir::Files).size(), 5);
    }

    void updatingSomeoneElsesResourceIsRefused()
    {
        const auto reply = server.uploadScript(fan, QStringLiteral("alpha.gpc3"), "stolen", QStringLiteral("public"),
                                               ids.first());
        QCOMPARE(reply.status, 403);
        QCOMPARE(server.get(QStringLiteral("download/") + ids.first()).body, QByteArray("content of alpha.gpc3"));
    }

    void environmentsUploadThroughTheScriptUpload()
    {
        const QByteArray qenv = R"({"name": "GPU", "python": "3.11", "packages": ["torch==2.2.1", "numpy"],
            "extra_index_urls": ["https://download.pytorch.org/whl/cu121"]})";
        const auto reply = server.upload(QStringLiteral("upload"), author,
                                         {{QStringLiteral("name"), QStringLiteral("GPU environment")},
                                          {QStringLiteral("description"), QStringLiteral("Torch with CUDA wheels")}},
                                         {{QStringLiteral("script_file"), QStringLiteral("gpu.qenv"), qenv}});
        QCOMPARE(reply.status, 200);
        const QString id = idOf(reply);
        QCOMPARE(server.get(QString())
                         .json.value(QStringLiteral("pagination"))
                         .toObject()
                         .value(QStringLiteral("total_scripts"))
                         .toInt(),
                 5);
        const auto list = server.get(QStringLiteral("qenv/list"));
        QCOMPARE(list.json.value(QStringLiteral("pagination"))
                         .toObject()
                         .value(QStringLiteral("total_environments"))
                         .toInt(),
                 1);
        const QJsonObject record = list.json.value(QStringLiteral("environments")).toArray().first().toObject();
        QCOMPARE(record.value(QStringLiteral("id")).toString(), id);
        const QJsonObject metadata = record.value(QStringLiteral("qenv_metadata")).toObject();
        QCOMPARE(metadata.value(QStringLiteral("python")).toString(), QStringLiteral("3.11"));
        QCOMPARE(metadata.value(QStringLiteral("package_count")).toInt(), 2);
        QCOMPARE(metadata.value(QStringLiteral("cuda")).toString(), QStringLiteral("12.1"));
        QCOMPARE(server.get(QStringLiteral("qenv/download/") + id).body, qenv);
        const auto check = server.postJson(QStringLiteral("check-existing"),
                                           {{QStringLiteral("name"), QStringLiteral("gpu.qenv")},
                                            {QStringLiteral("script_type"), QStringLiteral("qenv")}},
                                           author);
        QCOMPARE(check.json.value(QStringLiteral("data")).toObject().value(QStringLiteral("id")).toString(), id);
    }

    void encryptedWeightsDownloadAsEnnx()
    {
        const QByteArray model(300000, '\x07');
        const auto reply = server.upload(QStringLiteral("onnx/upload"), author,
                                         {{QStringLiteral("name"), QStringLiteral("Detector")},
                                          {QStringLiteral("description"), QStringLiteral("Finds things in frames")},
                                          {QStringLiteral("encrypted"), QStringLiteral("1")}},
                                         {{QStringLiteral("onnx_file"), QStringLiteral("detector.onnx"), model}});
        QCOMPARE(reply.status, 200);
        const QString id = idOf(reply);
        const QJsonObject record
                = server.get(QStringLiteral("onnx/details/") + id).json.value(QStringLiteral("data")).toObject();
        QCOMPARE(record.value(QStringLiteral("is_encrypted")).toBool(), true);
        QCOMPARE(record.value(QStringLiteral("size")).toInteger(), model.size());
        const auto download = server.get(QStringLiteral("onnx/download/") + id);
        QCOMPARE(download.header("content-disposition"), QByteArray("attachment; filename=\"detector.ennx\""));
        QCOMPARE(download.body, model);
        QCOMPARE(download.header("repr-digest"),
                 "sha-256=:" + QCryptographicHash::hash(model, QCryptographicHash::Sha256).toBase64() + ':');
        QCOMPARE(server.get(QStringLiteral("onnx/list")).json.value(QStringLiteral("weights")).toArray().size(), 1);
    }

    void headerImagesAreServedByIdWithThumbnails()
    {
        const QByteArray picture = pngBytes(1100, 560);
        const auto reply
                = server.upload(QStringLiteral("upload"), author,
                                {{QStringLiteral("name"), QStringLiteral("Pictured")},
                                 {QStringLiteral("description"), QStringLiteral("A script with a header image")}},
                                {{QStringLiteral("script_file"), QStringLiteral("pictured.gpc3"), "main {}"},
                                 {QStringLiteral("header_image"), QStringLiteral("header.png"), picture}});
        QCOMPARE(reply.status, 200);
        const QJsonObject record = reply.json.value(QStringLiteral("data")).toObject();
        const QString header = record.value(QStringLiteral("images"))
                                       .toObject()
                                       .value(QStringLiteral("header"))
                                       .toObject()
                                       .value(QStringLiteral("url"))
                                       .toString();
        const QString thumbnail = record.value(QStringLiteral("thumbnail")).toString();
        QVERIFY2(header.startsWith(server.origin() + QStringLiteral("/images/%1/header?key=").arg(idOf(reply))),
                 qPrintable(header));
        QCOMPARE(server.send("GET", header, {}, {}, {}).body, picture);
        const QImage small = QImage::fromData(server.send("GET", thumbnail, {}, {}, {}).body);
        QVERIFY(!small.isNull());
        QVERIFY(small.width() <= 600);

        const auto notAnImage
                = server.upload(QStringLiteral("upload"), author,
                                {{QStringLiteral("name"), QStringLiteral("Fake picture")},
                                 {QStringLiteral("description"), QStringLiteral("The picture is a text file")}},
                                {{QStringLiteral("script_file"), QStringLiteral("fake.gpc3"), "main {}"},
                                 {QStringLiteral("header_image"), QStringLiteral("header.png"), "hello"}});
        QCOMPARE(notAnImage.status, 400);
    }

    void deletedResourcesLeaveNoFiles()
    {
        const auto created = server.uploadScript(author, QStringLiteral("short-lived.gpc3"), "bye");
        const QString id = idOf(created);
        QVERIFY(QFile::exists(server.dataDirectory() + QStringLiteral("/files/") + id));
        const auto reply = server.remove(id, author);
        QCOMPARE(reply.status, 200);
        QCOMPARE(reply.json.value(QStringLiteral("data")).toObject().value(QStringLiteral("id")).toString(), id);
        QVERIFY(!QFile::exists(server.dataDirectory() + QStringLiteral("/files/") + id));
        QCOMPARE(server.get(QStringLiteral("details/") + id).status, 404);
    }

    void demoSeedFillsAnEmptyCatalogueOnce()
    {
        CatalogueServerFixture seeded(true);
        QVERIFY2(seeded.start(), qPrintable(seeded.error()));
        const auto scripts = seeded.get(QStringLiteral("?limit=100"));
        QVERIFY(scripts.json.value(QStringLiteral("pagination"))
                        .toObject()
                        .value(QStringLiteral("total_scripts"))
                        .toInt()
                >= 24);
        QSet<QString> subtypes;
        for (const QJsonValue &record : scripts.json.value(QStringLiteral("scripts")).toArray())
            subtypes.insert(record.toObject().value(QStringLiteral("type")).toString());
        QCOMPARE(subtypes, (QSet<QString>{QStringLiteral("gpc3"), QStringLiteral("gbc3"), QStringLiteral("python")}));
        const QJsonArray environments
                = seeded.get(QStringLiteral("qenv/list")).json.value(QStringLiteral("environments")).toArray();
        QVERIFY(environments.size() >= 3);
        const QString envId = environments.first().toObject().value(QStringLiteral("id")).toString();
        const QJsonObject qenv
                = QJsonDocument::fromJson(seeded.get(QStringLiteral("qenv/download/") + envId).body).object();
        QVERIFY(qenv.contains(QStringLiteral("python")));
        // The name becomes a folder on the user's machine.
        QVERIFY(QRegularExpression(QStringLiteral("^[a-z0-9-]+$"))
                        .match(qenv.value(QStringLiteral("name")).toString())
                        .hasMatch());
        QVERIFY(!qenv.value(QStringLiteral("packages")).toArray().isEmpty());
        QVERIFY(seeded.get(QStringLiteral("onnx/list")).json.value(QStringLiteral("weights")).toArray().size() >= 3);
        const QString thumbnail = environments.first().toObject().value(QStringLiteral("thumbnail")).toString();
        QVERIFY(!QImage::fromData(seeded.send("GET", thumbnail, {}, {}, {}).body).isNull());
    }

    void schemaIsVersionedAndNewerCataloguesAreRefused()
    {
        QTemporaryDir directory;
        Quorix::CatalogueServer::Options options;
        options.dataDirectory = directory.path();
        options.port = 0;
        QString error;
        {
            Quorix::CatalogueServer first(options);
            QVERIFY2(first.start(&error), qPrintable(error));
        }
        {
            QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), QStringLiteral("inspect"));
            db.setDatabaseName(directory.filePath(QStringLiteral("catalogue.sqlite")));
            QVERIFY(db.open());
            QSqlQuery query(db);
            QVERIFY(query.exec(QStringLiteral("PRAGMA user_version")) && query.next());
            QVERIFY(query.value(0).toInt() >= 2);
            QVERIFY(query.exec(QStringLiteral("PRAGMA user_version = 999")));
            db.close();
        }
        QSqlDatabase::removeDatabase(QStringLiteral("inspect"));
        Quorix::CatalogueServer second(options);
        QVERIFY(!second.start(&error));
        QVERIFY(error.contains(QLatin1String("newer")));
    }

private:
    CatalogueServerFixture server;
    QString author;
    QString fan;
    QStringList ids;
};

QTEST_MAIN(CatalogueServerCatalogueTest)
#include "tst_catalogue_server_catalogue.moc"
