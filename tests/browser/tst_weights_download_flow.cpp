#include "BrowserTestData.h"
#include "ModalAnswerer.h"
#include "RecordingHttpServer.h"
#include "TemporaryHome.h"
#include "TestFiles.h"
#include "browser/OnlineResourcesWidget.h"
#include "browser/WeightsLibrary.h"

#include <PluginHost.h>
#include <SettingsManager.h>

#include <QApplication>
#include <QComboBox>
#include <QCryptographicHash>
#include <QDir>
#include <QJsonDocument>
#include <QTest>
#include <QToolButton>

#include <memory>

using namespace Quorix;
using namespace Quorix::Testing;

namespace {

// What the manifest holds for BrowserTestData::weights(id) saved with the given size, without the time of the
// download.
QJsonObject entry(const QString &id, bool encrypted, qint64 size)
{
    return {{"name", "Item " + id},
            {"author", "ada"},
            {"author_id", "111111111111111111"},
            {"visibility", "public"},
            {"version", 1},
            {"is_encrypted", encrypted},
            {"size", size}};
}

QJsonObject withoutTime(QJsonObject stored)
{
    stored.remove("downloaded_at");
    return stored;
}

} // namespace

// Saving weights into the library: the manifest, the question before replacing, and failures that keep what was there.
class WeightsDownloadFlowTest : public QObject
{
    Q_OBJECT

    TemporaryHome home;
    RecordingHttpServer server;
    PluginHost host;
    std::unique_ptr<OnlineResourcesWidget> page;
    std::unique_ptr<WeightsLibrary> library;

    QJsonObject manifest() const { return QJsonDocument::fromJson(TestFiles::read(library->manifestPath())).object(); }

    void serve(const QString &id, const QByteArray &body, const QByteArray &fileName, const QByteArray &digested)
    {
        const QByteArray digest = QCryptographicHash::hash(digested, QCryptographicHash::Sha256).toBase64();
        server.setRule("/api/scripts/onnx/download/" + id,
                       ScriptedResponse::bytes(body)
                               .withHeader("Content-Disposition", "attachment; filename=\"" + fileName + '"')
                               .withHeader("Repr-Digest", "sha-256=:" + digest + ':'));
    }

    // Clicks Download and answers the boxes that follow in order; returns the last box's title and text.
    QStringList download(const QString &id, const QList<QMessageBox::StandardButton> &answers)
    {
        std::vector<std::unique_ptr<ModalAnswerer>> answerers;
        for (QMessageBox::StandardButton answer : answers) {
            answerers.push_back(std::make_unique<ModalAnswerer>());
            answerers.back()->pressButton(answer, 15000);
        }
        QMetaObject::invokeMethod(page.get(), "onOnnxDownloadClicked", Q_ARG(QString, id));
        QStringList seen;
        for (const auto &answerer : answerers) {
            answerer->waitForAnswer(15000);
            seen = QStringList{answerer->seenTitle(), answerer->seenText(), answerer->seenInformativeText()};
        }
        return seen;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(server.listen());
        qputenv("QUORIX_SERVER_URL", server.origin().toUtf8());
    }

    void init()
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

    void cleanup() { page.reset(); }

    void downloadsAreRecordedInTheManifest_data()
    {
        QTest::addColumn<QByteArray>("stored");
        QTest::addColumn<QStringList>("keys");
        QJsonObject old = entry("w-old", false, 10);
        old.insert("downloaded_at", "2026-01-02T03:04:05Z");
        QJsonObject wrongType = old, badTime = old, missingKey = old;
        wrongType.insert("size", "big");
        badTime.insert("downloaded_at", "yesterday");
        missingKey.remove("author_id");
        const QJsonObject mixed{{"w-old", old},      {"w-type", wrongType},
                                {"w-time", badTime}, {"w-missing", missingKey},
                                {"../escape", old},  {"w-text", "just text"}};
        QTest::newRow("no manifest") << QByteArray() << QStringList{"w-a", "w-b"};
        QTest::newRow("not JSON") << QByteArray("{\"w-old\": {\"name\": ") << QStringList{"w-a", "w-b"};
        QTest::newRow("good among bad") << QJsonDocument(mixed).toJson() << QStringList{"w-a", "w-b", "w-old"};
        QTest::newRow("older entry of the same weights")
                << QJsonDocument(QJsonObject{{"w-a", old}}).toJson() << QStringList{"w-a", "w-b"};
    }

    void downloadsAreRecordedInTheManifest()
    {
        QFETCH(QByteArray, stored);
        QFETCH(QStringList, keys);
        if (!stored.isEmpty())
            QVERIFY(TestFiles::write(library->manifestPath(), stored));
        const QDateTime before = QDateTime::currentDateTimeUtc().addSecs(-1);
        serve("w-a", "AAAA", "detector.onnx", "AAAA");
        serve("w-b", "BBBBBB", "detector.ennx", "BBBBBB");
        for (const char *id : {"w-a", "w-b"})
            QCOMPARE(download(id, {QMessageBox::Ok}).mid(0, 2),
                     (QStringList{"Download Complete", "ONNX weights saved"}));

        QCOMPARE(TestFiles::read(library->folder() + "/w-a.onnx"), QByteArray("AAAA"));
        QCOMPARE(TestFiles::read(library->folder() + "/w-b.ennx"), QByteArray("BBBBBB"));
        const QJsonObject written = manifest();
        QCOMPARE(written.keys(), keys);
        QCOMPARE(withoutTime(written.value("w-a").toObject()), entry("w-a", false, 4));
        QCOMPARE(withoutTime(written.value("w-b").toObject()), entry("w-b", true, 6));
        const QDateTime at
                = QDateTime::fromString(written.value("w-b").toObject().value("downloaded_at").toString(), Qt::ISODate);
        QVERIFY(at >= before && at <= QDateTime::currentDateTimeUtc());
        if (keys.contains("w-old"))
            QCOMPARE(written.value("w-old").toObject().value("downloaded_at").toString(), "2026-01-02T03:04:05Z");
    }

    void downloadingAgainAsksFirst_data()
    {
        QTest::addColumn<qint64>("existingSize");
        QTest::addColumn<QString>("sizeText");
        QTest::addColumn<bool>("replace");
        QTest::newRow("kilobytes, answered No") << qint64(2048) << "2.0 KB" << false;
        QTest::newRow("megabytes, answered Yes") << qint64(3 * 1024 * 1024) << "3.0 MB" << true;
    }

    void downloadingAgainAsksFirst()
    {
        QFETCH(qint64, existingSize);
        QFETCH(QString, sizeText);
        QFETCH(bool, replace);
        const QString existing = library->folder() + "/w-a.onnx";
        QFile file(existing);
        QVERIFY(file.open(QIODevice::WriteOnly) && file.resize(existingSize));
        file.close();
        serve("w-a", "fresh", "detector.ennx", "fresh");

        ModalAnswerer question;
        question.pressButton(replace ? QMessageBox::Yes : QMessageBox::No);
        const QStringList done
                = download("w-a", replace ? QList{QMessageBox::Ok} : QList<QMessageBox::StandardButton>{});
        QVERIFY(question.waitForAnswer());
        QCOMPARE((QStringList{question.seenTitle(), question.seenText(), question.seenInformativeText()}),
                 (QStringList{"File Already Exists",
                              QString("These weights already exist locally:\n%1\n\nSize: %2")
                                      .arg(QDir::toNativeSeparators(existing), sizeText),
                              "Would you like to download again and replace it?"}));
        if (!replace) {
            QTest::qWait(200);
            for (const RecordedRequest &request : server.requests())
                QVERIFY(!request.path().contains("download"));
            QCOMPARE(QFileInfo(existing).size(), existingSize);
            QVERIFY(!QFile::exists(library->manifestPath()));
            return;
        }
        QCOMPARE(done.first(), "Download Complete");
        // The encrypted copy takes the place of the plain one: one file per UUID.
        QVERIFY(!QFile::exists(existing));
        QCOMPARE(TestFiles::read(library->folder() + "/w-a.ennx"), QByteArray("fresh"));
        QCOMPARE(withoutTime(manifest().value("w-a").toObject()), entry("w-a", false, 5));
    }

    void failureLeavesOlderWeightsAndNoTemporaryFile_data()
    {
        QTest::addColumn<QString>("failure");
        QTest::addColumn<QString>("id");
        QTest::addColumn<QString>("message");
        const char *notSaved = "Failed to save downloaded weights file";
        for (const auto &[tag, failure, id, message] :
             {std::tuple{"damaged in transit", "damaged", "w-a", "Download failed: the file was damaged in transit"},
              std::tuple{"refused", "refused", "w-a", "Download failed: Access denied"},
              std::tuple{"connection dropped", "dropped", "w-a",
                         "Connection was dropped - file may exceed server upload limit"},
              std::tuple{"ID with path characters", "none", "../w-a", notSaved},
              std::tuple{"library folder cannot exist", "no folder", "w-b", notSaved}})
            QTest::newRow(tag) << QString(failure) << QString(id) << QString(message);
    }

    void failureLeavesOlderWeightsAndNoTemporaryFile()
    {
        QFETCH(QString, failure);
        QFETCH(QString, id);
        QFETCH(QString, message);
        const QString folder = library->folder();
        QVERIFY(TestFiles::write(folder + "/w-a.onnx", "older"));
        const QByteArray body(300 * 1024, 'n');
        if (failure == "damaged")
            serve("w-a", body, "w.onnx", "something else");
        else if (failure == "refused")
            server.setRule("/api/scripts/onnx/download/w-a",
                           ScriptedResponse::json({{"success", false}, {"error", "Access denied"}}));
        else if (failure == "dropped")
            server.setRule("/api/scripts/onnx/download/w-a", ScriptedResponse::bytes(body).droppingAfter(1000));
        if (failure == "no folder") {
            QDir(folder).removeRecursively();
            QVERIFY(TestFiles::write(folder, "a file where the folder should be"));
            serve("w-b", body, "detector.onnx", body);
        }

        QList<QMessageBox::StandardButton> answers{QMessageBox::Ok};
        if (id == "w-a")
            answers.prepend(QMessageBox::Yes);
        QCOMPARE(download(id, answers).mid(0, 2), (QStringList{"Download Failed", message}));
        QTest::qWait(100);
        QVERIFY(!QApplication::activeModalWidget());
        if (failure == "no folder") {
            QCOMPARE(TestFiles::read(folder), QByteArray("a file where the folder should be"));
            return;
        }
        QCOMPARE(QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
                 QStringList{"w-a.onnx"});
        QCOMPARE(TestFiles::read(folder + "/w-a.onnx"), QByteArray("older"));
        QCOMPARE(QDir(QFileInfo(folder).path()).entryList({"*w-a*"}), QStringList());
    }
};

QTEST_MAIN(WeightsDownloadFlowTest)
#include "tst_weights_download_flow.moc"
