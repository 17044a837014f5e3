#include <CatalogueServerFixture.h>

#include <QDir>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QtTest>

using Quorix::Testing::CatalogueServerFixture;

static const QString authorId = "111111111111111111";

// Listing, searching, likes, uploads and downloads as a client sees them on the wire.
class CatalogueServerCatalogueTest : public QObject
{
    Q_OBJECT

    CatalogueServerFixture server;
    QString author;
    QString fan;
    QStringList ids;

    CatalogueServerFixture::Reply check(const QString &name, const QString &type, const QString &token)
    {
        return server.postJson("check-existing", {{"name", name}, {"script_type", type}}, token);
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(server.start(), qPrintable(server.error()));
        author = server.signIn(authorId, "author", "The Author");
        fan = server.signIn("222222222222222222", "fan");
        QVERIFY(!author.isEmpty() && !fan.isEmpty());
        for (const QString file : {"alpha.gpc3", "bravo.gbc3", "charlie.py", "delta.gpc3", "echo.py"}) {
            const auto reply = server.uploadScript(author, file, "content of " + file.toUtf8());
            QCOMPARE(reply.status, 200);
            ids.append(reply.text("data/id"));
        }
    }

    void listPagesCarryPaginationAndRecordKeys()
    {
        const auto first = server.get("?page=1&limit=2&sort=oldest");
        QCOMPARE(first.texts({"success", "pagination/current_page", "pagination/total_pages",
                              "pagination/total_scripts"}),
                 "true 1 3 5");
        QCOMPARE(first.column("scripts", "id"), ids.mid(0, 2));
        const QString r = "scripts/0/";
        QCOMPARE(first.texts({r + "type", r + "version", r + "visibility_type", r + "can_download",
                              r + "author/discord_id", r + "author/username", r + "author/name"}),
                 "gpc3 1 public true " + authorId + " author The Author");
        QCOMPARE(first.at(r + "tags").toArray(), QJsonArray({"test", "upload"}));
        QVERIFY(QDateTime::fromString(first.text(r + "created"), Qt::ISODate).isValid());

        const auto last = server.get("?page=3&limit=2&sort=oldest");
        QCOMPARE(last.column("scripts", "id"), ids.mid(4));
        QCOMPARE(last.text("pagination/current_page"), "3");
    }

    void listsFilterAndSearch_data()
    {
        QTest::addColumn<QString>("query");
        QTest::addColumn<QStringList>("names");
        const QString a = "Script alpha.gpc3", b = "Script bravo.gbc3", c = "Script charlie.py";
        const QString d = "Script delta.gpc3", e = "Script echo.py";
        QTest::newRow("all") << "type=all" << QStringList{a, b, c, d, e};
        QTest::newRow("gpc3 covers gbc3") << "type=gpc3" << QStringList{a, b, d};
        QTest::newRow("py") << "type=py" << QStringList{c, e};
        QTest::newRow("name in any case") << "search=CHARLIE" << QStringList{c};
        QTest::newRow("description") << "search=uploaded%20by" << QStringList{a, b, c, d, e};
        QTest::newRow("tags") << "search=upload" << QStringList{a, b, c, d, e};
        // LIKE wildcards in the search text are literal characters.
        QTest::newRow("wildcard") << "search=%25" << QStringList();
        QTest::newRow("nothing") << "search=nothing-matches" << QStringList();
    }

    void listsFilterAndSearch()
    {
        QFETCH(QString, query);
        QFETCH(QStringList, names);
        const auto reply = server.get("?sort=oldest&" + query);
        QCOMPARE(reply.column("scripts", "name"), names);
        QCOMPARE(reply.text("pagination/total_scripts"), QString::number(names.size()));
    }

    void detailsCountViewsAndDownloadsReturnTheBytes()
    {
        const QString target = ids.at(1);
        const auto details = server.get("details/" + target);
        QCOMPARE(details.text("data/views"), "1");
        const auto download = server.get("download/" + target);
        QCOMPARE(download.body, "content of bravo.gbc3");
        QCOMPARE(download.header("content-disposition"), "attachment; filename=\"bravo.gbc3\"");
        QCOMPARE(download.header("repr-digest"), server.reprDigest(download.body));
        QVERIFY(!download.header("content-type").contains("application/json"));
        const auto after = server.get("details/" + target);
        QCOMPARE(after.texts({"data/downloads", "data/views"}), "1 2");
    }

    void checkExistingFindsOwnFileAndUpdateKeepsTheId()
    {
        const auto own = check("echo.py", "py", author);
        QCOMPARE(own.texts({"success", "exists", "data/id"}), "true true " + ids.at(4));
        QCOMPARE(check("echo.py", "gpc3", author).text("exists"), "false");

        // An update replaces the record and its file instead of adding new ones.
        const auto update = server.uploadScript(author, "echo.py", "print('v2')\n", "public", ids.at(4));
        QCOMPARE(update.text("data/id"), ids.at(4));
        QCOMPARE(server.get("?limit=100").text("pagination/total_scripts"), "5");
        QCOMPARE(QDir(server.dataDirectory() + "/files").entryList(QDir::Files).size(), 5);

        const auto stolen = server.uploadScript(fan, "alpha.gpc3", "stolen", "public", ids.first());
        QCOMPARE(stolen.status, 403);
        QCOMPARE(server.get("download/" + ids.first()).body, "content of alpha.gpc3");
    }

    void environmentsAndWeightsHaveTheirOwnRoutes()
    {
        const auto environment = server.upload("upload", author, {{"name", "GPU"}, {"description", "Torch and CUDA"}},
                                               {{"script_file", "gpu.qenv", R"({"name": "gpu", "python": "3.11"})"}});
        QCOMPARE(server.get("qenv/list").column("environments", "id"), QStringList{environment.text("data/id")});
        QCOMPARE(check("gpu.qenv", "qenv", author).text("data/id"), environment.text("data/id"));

        const QByteArray model(300000, '\x07');
        const QString id = server.upload("onnx/upload", author,
                                         {{"name", "Detector"}, {"description", "Finds things"}, {"encrypted", "1"}},
                                         {{"onnx_file", "detector.onnx", model}})
                                   .text("data/id");
        QCOMPARE(server.get("onnx/details/" + id).text("data/is_encrypted"), "true");
        const auto download = server.get("onnx/download/" + id);
        QCOMPARE(download.header("content-disposition"), "attachment; filename=\"detector.ennx\"");
        QCOMPARE(download.header("repr-digest"), server.reprDigest(model));
    }

    void headerImagesAreServedByIdWithThumbnails()
    {
        const QByteArray picture = server.png(1100, 560);
        const auto upload = [&](const QByteArray &image) {
            return server.upload("upload", author, {{"name", "Pictured"}, {"description", "A script with an image"}},
                                 {{"script_file", "pictured.gpc3", "main {}"}, {"header_image", "header.png", image}});
        };
        const auto reply = upload(picture);
        const QString header = reply.text("data/images/header/url");
        QVERIFY2(header.startsWith(server.origin() + "/images/" + reply.text("data/id") + "/header?key="),
                 qPrintable(header));
        QCOMPARE(server.send("GET", header, {}, {}, {}).body, picture);
        const QImage small = QImage::fromData(server.send("GET", reply.text("data/thumbnail"), {}, {}, {}).body);
        QVERIFY(!small.isNull() && small.width() <= 600);
        QCOMPARE(upload("hello").status, 400);
    }

    void demoSeedFillsAnEmptyCatalogueOnce()
    {
        CatalogueServerFixture seeded(true);
        QVERIFY2(seeded.start(), qPrintable(seeded.error()));
        const auto scripts = seeded.get("?limit=100");
        QVERIFY(scripts.at("pagination/total_scripts").toInt() >= 24);
        const QStringList types = scripts.column("scripts", "type");
        QCOMPARE(QSet<QString>(types.begin(), types.end()), (QSet<QString>{"gpc3", "gbc3", "python"}));
        const auto environments = seeded.get("qenv/list");
        QVERIFY(environments.at("environments").toArray().size() >= 3);
        const QJsonObject qenv
                = QJsonDocument::fromJson(seeded.get("qenv/download/" + environments.text("environments/0/id")).body)
                          .object();
        QVERIFY(qenv.contains("python"));
        // The name becomes a folder on the user's machine.
        QVERIFY(QRegularExpression("^[a-z0-9-]+$").match(qenv.value("name").toString()).hasMatch());
        QVERIFY(!qenv.value("packages").toArray().isEmpty());
        QVERIFY(seeded.get("onnx/list").at("weights").toArray().size() >= 3);
        const QString thumbnail = environments.text("environments/0/thumbnail");
        QVERIFY(!QImage::fromData(seeded.send("GET", thumbnail, {}, {}, {}).body).isNull());
    }

    void schemaIsVersionedAndNewerCataloguesAreRefused()
    {
        QTemporaryDir directory;
        Quorix::CatalogueServer::Options options;
        options.dataDirectory = directory.path();
        options.port = 0;
        QString error;
        QVERIFY2(Quorix::CatalogueServer(options).start(&error), qPrintable(error));
        {
            QSqlDatabase db = QSqlDatabase::addDatabase("QSQLITE", "inspect");
            db.setDatabaseName(directory.filePath("catalogue.sqlite"));
            QVERIFY(db.open());
            QSqlQuery query(db);
            QVERIFY(query.exec("PRAGMA user_version") && query.next());
            QVERIFY(query.value(0).toInt() >= 2);
            QVERIFY(query.exec("PRAGMA user_version = 999"));
            db.close();
        }
        QSqlDatabase::removeDatabase("inspect");
        QVERIFY(!Quorix::CatalogueServer(options).start(&error));
        QVERIFY(error.contains("newer"));
    }
};

QTEST_MAIN(CatalogueServerCatalogueTest)
#include "tst_catalogue_server_catalogue.moc"
