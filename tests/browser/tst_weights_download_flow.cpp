#include "TestFiles.h"
#include "BrowserTestData.h"
#include "ModalAnswerer.h"
#include "RecordingHttpServer.h"
#include "TemporaryHome.h"
#include "browser/OnlineResourcesWidget.h"
#include "browser/WeightsLibrary.h"

#include <PluginHost.h>
#include <SettingsManager.h>

#include <QApplication>
#include <QComboBox>
#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QSignalSpy>
#include <QTest>
#include <QToolButton>

#include <memory>

using namespace Quorix;
using namespace Quorix::Testing;

namespace {

QJsonObject manifest(const WeightsLibrary &library)
{
    return QJsonDocument::fromJson(TestFiles::read(library.manifestPath())).object();
}

QByteArray sha256Digest(const QByteArray &body)
{
    return "sha-256=:" + QCryptographicHash::hash(body, QCryptographicHash::Sha256).toBase64() + ':';
}

// What the manifest holds for BrowserTestData::weights(id) saved with the given size.
QJsonObject expectedEntry(const QString &id, bool encrypted, qint64 size)
{
    return {{"name", "Item " + id},
            {"author", "ada"},
            {"author_id", "111111111111111111"},
            {"visibility", "public"},
            {"version", 1},
            {"is_encrypted", encrypted},
            {"size", size}};
}

QJsonObject withoutTime(QJsonObject entry)
{
    entry.remove("downloaded_at");
    return entry;
}

} // namespace

class WeightsDownloadFlowTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void manifestDescribesEveryDownload();
    void downloadingAgainAsksFirst_data();
    void downloadingAgainAsksFirst();
    void damagedManifestKeepsItsGoodEntries_data();
    void damagedManifestKeepsItsGoodEntries();
    void failureLeavesOlderWeightsAndNoTemporaryFile_data();
    void failureLeavesOlderWeightsAndNoTemporaryFile();

private:
    void serveWeights(const QString &id, const QByteArray &body, const QByteArray &fileName);
    void clickDownload(const QString &id);

    std::unique_ptr<TemporaryHome> home;
    RecordingHttpServer server;
    PluginHost host;
    std::unique_ptr<OnlineResourcesWidget> page;
    std::unique_ptr<WeightsLibrary> library;
};

void WeightsDownloadFlowTest::initTestCase()
{
    home = std::make_unique<TemporaryHome>();
    QVERIFY(server.listen());
    qputenv("QUORIX_SERVER_URL", server.origin().toUtf8());
}

void WeightsDownloadFlowTest::init()
{
    server.reset();
    server.setDefaultResponse(ScriptedResponse::json({{"success", false}}));
    server.setRule("/api/scripts/onnx/list",
                   ScriptedResponse::json(BrowserTestData::weightsPage(
                           {BrowserTestData::weights("w-a"), BrowserTestData::weights("w-b", true)}, 1, 1, 2)));
    const QString folder = WeightsLibrary().folder();
    QFile::remove(folder);
    QDir(folder).removeRecursively();
    library = std::make_unique<WeightsLibrary>();

    page = std::make_unique<OnlineResourcesWidget>(nullptr);
    page->setPluginHost(&host);
    page->setSettingsManager(SettingsManager::instance());
    page->findChild<QComboBox *>("typeFilter")->setCurrentIndex(4);
    // The page is never shown, so it makes no cards; the list has arrived once loading has ended.
    QTRY_VERIFY(page->findChild<QToolButton *>("refreshButton")->isEnabled());
}

void WeightsDownloadFlowTest::cleanup()
{
    page.reset();
}

void WeightsDownloadFlowTest::serveWeights(const QString &id, const QByteArray &body, const QByteArray &fileName)
{
    server.setRule("/api/scripts/onnx/download/" + id,
                   ScriptedResponse::bytes(body)
                           .withHeader("Content-Disposition", "attachment; filename=\"" + fileName + '"')
                           .withHeader("Repr-Digest", sha256Digest(body)));
}

void WeightsDownloadFlowTest::clickDownload(const QString &id)
{
    QMetaObject::invokeMethod(page.get(), "onOnnxDownloadClicked", Q_ARG(QString, id));
}

void WeightsDownloadFlowTest::manifestDescribesEveryDownload()
{
    const QDateTime before = QDateTime::currentDateTimeUtc().addSecs(-1);
    serveWeights("w-a", "AAAA", "detector.onnx");
    serveWeights("w-b", "BBBBBB", "detector.ennx");
    for (const QString id : {"w-a", "w-b"}) {
        ModalAnswerer done;
        done.pressButton(QMessageBox::Ok, 10000);
        clickDownload(id);
        QVERIFY(done.waitForAnswer(10000));
        QCOMPARE(done.seenTitle(), QStringLiteral("Download Complete"));
        QCOMPARE(done.seenText(), QStringLiteral("ONNX weights saved"));
    }

    QCOMPARE(TestFiles::read(library->folder() + "/w-a.onnx"), QByteArray("AAAA"));
    QCOMPARE(TestFiles::read(library->folder() + "/w-b.ennx"), QByteArray("BBBBBB"));
    const QJsonObject stored = manifest(*library);
    QCOMPARE(stored.keys(), QStringList({"w-a", "w-b"}));
    QCOMPARE(withoutTime(stored.value("w-a").toObject()), expectedEntry("w-a", false, 4));
    QCOMPARE(withoutTime(stored.value("w-b").toObject()), expectedEntry("w-b", true, 6));
    const QDateTime downloadedAt
            = QDateTime::fromString(stored.value("w-b").toObject().value("downloaded_at").toString(), Qt::ISODate);
    QVERIFY(downloadedAt >= before && downloadedAt <= QDateTime::currentDateTimeUtc());
}

void WeightsDownloadFlowTest::downloadingAgainAsksFirst_data()
{
    QTest::addColumn<qint64>("existingSize");
    QTest::addColumn<QString>("sizeText");
    QTest::addColumn<bool>("replace");

    QTest::newRow("kilobytes, answered No") << qint64(2048) << "2.0 KB" << false;
    QTest::newRow("megabytes, answered Yes") << qint64(3 * 1024 * 1024) << "3.0 MB" << true;
    QTest::newRow("gigabytes, answered No") << qint64(1536) * 1024 * 1024 << "1.5 GB" << false;
}

void WeightsDownloadFlowTest::downloadingAgainAsksFirst()
{
    QFETCH(qint64, existingSize);
    QFETCH(QString, sizeText);
    QFETCH(bool, replace);

    const QString existing = library->folder() + "/w-a.onnx";
    QFile file(existing);
    QVERIFY(file.open(QIODevice::WriteOnly));
    QVERIFY(file.resize(existingSize));
    file.close();
    serveWeights("w-a", "fresh", "detector.ennx");

    ModalAnswerer question;
    question.pressButton(replace ? QMessageBox::Yes : QMessageBox::No);
    ModalAnswerer done;
    if (replace)
        done.pressButton(QMessageBox::Ok, 10000);
    clickDownload("w-a");
    QVERIFY(question.waitForAnswer());
    QCOMPARE(question.seenTitle(), QStringLiteral("File Already Exists"));
    QCOMPARE(question.seenText(), QStringLiteral("These weights already exist locally:\n%1\n\nSize: %2")
                                          .arg(QDir::toNativeSeparators(existing), sizeText));
    QCOMPARE(question.seenInformativeText(), QStringLiteral("Would you like to download again and replace it?"));

    if (replace) {
        QVERIFY(done.waitForAnswer(10000));
        // The encrypted copy takes the place of the plain one: one file per UUID.
        QVERIFY(!QFile::exists(existing));
        QCOMPARE(TestFiles::read(library->folder() + "/w-a.ennx"), QByteArray("fresh"));
        QCOMPARE(withoutTime(manifest(*library).value("w-a").toObject()), expectedEntry("w-a", false, 5));
    } else {
        QTest::qWait(200);
        const QList<RecordedRequest> requests = server.requests();
        for (const RecordedRequest &request : requests)
            QVERIFY(!request.path().contains("download"));
        QCOMPARE(QFileInfo(existing).size(), existingSize);
        QVERIFY(!QFile::exists(library->manifestPath()));
    }
}

void WeightsDownloadFlowTest::damagedManifestKeepsItsGoodEntries_data()
{
    QTest::addColumn<QByteArray>("stored");
    QTest::addColumn<QStringList>("kept");

    const QJsonObject good = expectedEntry("w-old", false, 10);
    QJsonObject goodWithTime = good;
    goodWithTime.insert("downloaded_at", "2026-01-02T03:04:05Z");
    QJsonObject wrongType = goodWithTime;
    wrongType.insert("size", "big");
    QJsonObject badTime = goodWithTime;
    badTime.insert("downloaded_at", "yesterday");
    QJsonObject missingKey = goodWithTime;
    missingKey.remove("author_id");
    const QJsonObject mixed{{"w-old", goodWithTime},   {"w-type", wrongType},       {"w-time", badTime},
                            {"w-missing", missingKey}, {"../escape", goodWithTime}, {"w-text", "just text"}};

    QTest::newRow("not JSON") << QByteArray("{\"w-old\": {\"name\": ") << QStringList{"w-a"};
    QTest::newRow("empty file") << QByteArray() << QStringList{"w-a"};
    QTest::newRow("an array") << QByteArray("[1, 2, 3]") << QStringList{"w-a"};
    QTest::newRow("good among bad") << QJsonDocument(mixed).toJson() << QStringList{"w-a", "w-old"};
    QTest::newRow("older entry of the same weights")
            << QJsonDocument(QJsonObject{{"w-a", goodWithTime}}).toJson() << QStringList{"w-a"};
}

void WeightsDownloadFlowTest::damagedManifestKeepsItsGoodEntries()
{
    QFETCH(QByteArray, stored);
    QFETCH(QStringList, kept);

    QVERIFY(TestFiles::write(library->manifestPath(), stored));
    serveWeights("w-a", "AAAA", "detector.onnx");
    ModalAnswerer done;
    done.pressButton(QMessageBox::Ok, 10000);
    clickDownload("w-a");
    QVERIFY(done.waitForAnswer(10000));
    QCOMPARE(done.seenTitle(), QStringLiteral("Download Complete"));

    const QJsonObject rewritten = manifest(*library);
    QCOMPARE(rewritten.keys(), kept);
    QCOMPARE(withoutTime(rewritten.value("w-a").toObject()), expectedEntry("w-a", false, 4));
    if (kept.contains("w-old"))
        QCOMPARE(rewritten.value("w-old").toObject().value("downloaded_at").toString(),
                 QStringLiteral("2026-01-02T03:04:05Z"));
    QCOMPARE(QDir(library->folder()).entryList(QDir::Files | QDir::Hidden, QDir::Name),
             QStringList({"manifest.json", "w-a.onnx"}));
}

void WeightsDownloadFlowTest::failureLeavesOlderWeightsAndNoTemporaryFile_data()
{
    QTest::addColumn<QString>("failure");
    QTest::addColumn<QString>("id");
    QTest::addColumn<QString>("message");

    QTest::newRow("damaged in transit") << "damaged"
                                        << "w-a"
                                        << "Download failed: the file was damaged in transit";
    QTest::newRow("refused by the server") << "refused"
                                           << "w-a"
                                           << "Download failed: Access denied";
    QTest::newRow("connection dropped") << "dropped"
                                        << "w-a"
                                        << "Connection was dropped - file may exceed server upload limit";
    QTest::newRow("ID with path characters") << "none"
                                             << "../w-a"
                                             << "Failed to save downloaded weights file";
    QTest::newRow("library folder cannot exist") << "no folder"
                                                 << "w-b"
                                                 << "Failed to save downloaded weights file";
}

void WeightsDownloadFlowTest::failureLeavesOlderWeightsAndNoTemporaryFile()
{
    QFETCH(QString, failure);
    QFETCH(QString, id);
    QFETCH(QString, message);

    const QString older = library->folder() + "/w-a.onnx";
    QVERIFY(TestFiles::write(older, "older"));
    const QByteArray body(300 * 1024, 'n');
    if (failure == "damaged")
        server.setRule("/api/scripts/onnx/download/w-a",
                       ScriptedResponse::bytes(body).withHeader("Repr-Digest", sha256Digest("something else")));
    else if (failure == "refused")
        server.setRule("/api/scripts/onnx/download/w-a",
                       ScriptedResponse::json({{"success", false}, {"error", "Access denied"}}));
    else if (failure == "dropped")
        server.setRule("/api/scripts/onnx/download/w-a", ScriptedResponse::bytes(body).droppingAfter(1000));
    const QString libraryFolder = library->folder();
    if (failure == "no folder") {
        QDir(libraryFolder).removeRecursively();
        QVERIFY(TestFiles::write(libraryFolder, "a file where the folder should be"));
        serveWeights("w-b", body, "detector.onnx");
    }

    ModalAnswerer question;
    if (id == "w-a")
        question.pressButton(QMessageBox::Yes);
    ModalAnswerer failed;
    failed.pressButton(QMessageBox::Ok, 15000);
    clickDownload(id);
    QVERIFY(failed.waitForAnswer(15000));
    QCOMPARE(failed.seenTitle(), QStringLiteral("Download Failed"));
    QCOMPARE(failed.seenText(), message);
    QTest::qWait(100);
    QVERIFY(!QApplication::activeModalWidget());

    if (failure == "no folder") {
        QCOMPARE(TestFiles::read(libraryFolder), QByteArray("a file where the folder should be"));
        return;
    }
    QCOMPARE(QDir(libraryFolder).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
             QStringList{"w-a.onnx"});
    QCOMPARE(TestFiles::read(older), QByteArray("older"));
    QCOMPARE(QDir(QFileInfo(libraryFolder).path()).entryList({"*w-a*"}), QStringList());
}

QTEST_MAIN(WeightsDownloadFlowTest)
#include "tst_weights_download_flow.moc"
