#include "BrowserTestData.h"
#include "ModalAnswerer.h"
#include "RecordingFilePlugin.h"
#include "RecordingHttpServer.h"
#include "TemporaryHome.h"
#include "TestFiles.h"
#include "api/OnlineResourcesAPI.h"
#include "browser/CardGridModel.h"
#include "browser/DownloadProgressDialog.h"
#include "browser/OnlineResourcesWidget.h"
#include "browser/ScriptsDirectory.h"
#include "browser/WeightsLibrary.h"

#include <PluginHost.h>
#include <SettingsManager.h>

#include <QApplication>
#include <QComboBox>
#include <QCryptographicHash>
#include <QDir>
#include <QJsonDocument>
#include <QSignalSpy>
#include <QTest>

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

// Saving downloads: a script's progress, folder, the question when its name is taken and its viewer; weights into the
// library with their manifest, the question before replacing, and failures that keep what was there.
class DownloadFlowsTest : public QObject
{
    Q_OBJECT

    TemporaryHome home;
    RecordingHttpServer server;
    PluginHost host;
    RecordingFilePlugin gpcPlugin, pythonPlugin;
    std::unique_ptr<OnlineResourcesWidget> page;
    std::unique_ptr<WeightsLibrary> library;
    QString scripts;

    void setExplorerFolder(const QString &folder)
    {
        SettingsManager::instance()->setPluginValue("FileExplorer", "lastWorkingDirectory", folder);
    }

    // Every file of the scripts folder as "name=content", sorted by name.
    QStringList scriptsFolder() const
    {
        QStringList contents;
        for (const QString &name : QDir(scripts).entryList(QDir::Files | QDir::Hidden, QDir::Name))
            contents << name + '=' + QString::fromUtf8(TestFiles::read(scripts + '/' + name));
        return contents;
    }

    // Downloads a file named fileName with the content "new"; false unless the temporary file is gone afterwards.
    bool download(const QString &fileName)
    {
        server.setRule("/api/scripts/download/s-1",
                       ScriptedResponse::bytes("new").withHeader("Content-Disposition",
                                                                 "attachment; filename=\"" + fileName.toUtf8() + '"'));
        QSignalSpy arrived(page->api(), &OnlineResourcesAPI::scriptDownloaded);
        QMetaObject::invokeMethod(page.get(), "onCardDownloadClicked", Q_ARG(QString, "s-1"));
        if (!arrived.wait(10000))
            return false;
        const QString temporary = arrived.first().first().toString();
        return QTest::qWaitFor([&temporary] { return !QFile::exists(temporary); }, 10000);
    }

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
    QStringList downloadWeights(const QString &id, const QList<QMessageBox::StandardButton> &answers)
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

    // Shows the weights list; the page is never shown, so it makes no cards.
    bool openWeights()
    {
        page->findChild<QComboBox *>("typeFilter")->setCurrentIndex(4);
        // The first script list may end the loading state before the weights list is in.
        return QTest::qWaitFor([this] { return page->findChild<CardGridModel *>()->count() == 2; });
    }

private slots:
    void initTestCase()
    {
        QVERIFY(server.listen());
        qputenv("QUORIX_SERVER_URL", server.origin().toUtf8());
        host.registerPlugin("gpc3", "GPC 3", &gpcPlugin);
        host.registerPlugin("cv_python", "CV Python", &pythonPlugin);
    }

    void init()
    {
        server.reset();
        server.setDefaultResponse(ScriptedResponse::json({{"success", false}}));
        gpcPlugin.opened.clear();
        pythonPlugin.opened.clear();
        // A folder per case, so that no case sees another's files.
        scripts = home.filePath(QString("scripts-%1-%2")
                                        .arg(QString::fromLatin1(QTest::currentTestFunction()),
                                             QString::fromLatin1(QByteArray(QTest::currentDataTag()).toHex())));
        QVERIFY(QDir().mkpath(scripts));
        setExplorerFolder(scripts);
        server.setRule("/api/scripts/onnx/list",
                       ScriptedResponse::json(BrowserTestData::weightsPage(
                               {BrowserTestData::weights("w-a"), BrowserTestData::weights("w-b", true)}, 1, 1, 2)));
        // An empty weights library, before the page reads it.
        const QString folder = WeightsLibrary().folder();
        QFile::remove(folder);
        QDir(folder).removeRecursively();
        library = std::make_unique<WeightsLibrary>();
        page = std::make_unique<OnlineResourcesWidget>(nullptr);
        page->setPluginHost(&host);
        page->setSettingsManager(SettingsManager::instance());
    }

    void cleanup() { page.reset(); }

    void progressLabelTakesTheUnitOfTheTotal_data()
    {
        QTest::addColumn<qint64>("received");
        QTest::addColumn<qint64>("total");
        QTest::addColumn<QString>("label");
        QTest::addColumn<int>("value");
        QTest::newRow("unknown length") << qint64(4096) << qint64(0) << "Downloading..." << -1;
        QTest::newRow("bytes") << qint64(512) << qint64(1023) << "Downloading... 512 B / 1023 B" << 50;
        QTest::newRow("KB, also below 1024") << qint64(1000) << qint64(2048) << "Downloading... 1 KB / 2 KB" << 48;
        QTest::newRow("MB") << qint64(1572864) << qint64(3145728) << "Downloading... 1.5 MB / 3.0 MB" << 50;
    }

    void progressLabelTakesTheUnitOfTheTotal()
    {
        QFETCH(qint64, received);
        QFETCH(qint64, total);
        QFETCH(QString, label);
        QFETCH(int, value);
        server.setRule("/api/scripts/download/s-1", ScriptedResponse::bytes("x").stallingAfter(0));
        QMetaObject::invokeMethod(page.get(), "onCardDownloadClicked", Q_ARG(QString, "s-1"));
        auto *dialog = page->findChild<DownloadProgressDialog *>("downloadProgressDialog");
        QVERIFY(dialog && dialog->isVisible());
        QCOMPARE(dialog->labelText(), "Downloading...");
        QCOMPARE(dialog->windowModality(), Qt::WindowModal);
        QMetaObject::invokeMethod(page.get(), "onDownloadProgress", Q_ARG(qint64, received), Q_ARG(qint64, total));
        QCOMPARE(dialog->labelText(), label);
        QCOMPARE(dialog->maximum(), value < 0 ? 0 : 100);
        if (value >= 0)
            QCOMPARE(dialog->value(), value);
    }

    void scriptsDirectoryFollowsTheExplorerElseTheApplication_data()
    {
        QTest::addColumn<QString>("explorerFolder");
        QTest::addColumn<QString>("applicationFolder");
        QTest::addColumn<QString>("expected");
        for (const auto &[tag, explorer, application, expected] :
             {std::tuple{"explorer folder", "work", "app/lib", "work"},
              std::tuple{"explorer folder gone, lib", "gone", "app/lib", "app/scripts"},
              std::tuple{"no explorer folder, bin", "", "app/bin", "app/bin/scripts"},
              std::tuple{"library-like name is not lib", "", "app/libs", "app/libs/scripts"}})
            QTest::newRow(tag) << QString(explorer) << QString(application) << QString(expected);
    }

    void scriptsDirectoryFollowsTheExplorerElseTheApplication()
    {
        QFETCH(QString, explorerFolder);
        QFETCH(QString, applicationFolder);
        QFETCH(QString, expected);
        QVERIFY(QDir().mkpath(scripts + "/work") && QDir().mkpath(scripts + "/" + applicationFolder));
        setExplorerFolder(explorerFolder.isEmpty() ? QString() : scripts + "/" + explorerFolder);
        const QString resolved
                = ScriptsDirectory::resolve(SettingsManager::instance(), scripts + "/" + applicationFolder);
        QCOMPARE(resolved, scripts + "/" + expected);
        QVERIFY(QFileInfo(resolved).isDir());
    }

    void existingFileIsReplacedCopiedOrKept_data()
    {
        QTest::addColumn<QStringList>("present");
        QTest::addColumn<QString>("button");
        QTest::addColumn<QString>("offered");
        QTest::addColumn<QStringList>("after");
        QTest::addColumn<QString>("saved");
        const struct
        {
            const char *tag;
            QStringList present;
            const char *button, *offered;
            QStringList after;
            const char *saved;
        } rows[] = {
                {"no conflict", {}, "", "", {"abc.gpc3=new"}, "abc.gpc3"},
                {"cancel keeps the old file", {"abc.gpc3"}, "Cancel", "abc_0", {"abc.gpc3=old"}, ""},
                {"replace", {"abc.gpc3"}, "Replace", "abc_0", {"abc.gpc3=new"}, "abc.gpc3"},
                {"first copy is numbered 0", {"abc.gpc3"}, "Save as abc_0", "abc_0", {"abc.gpc3=old", "abc_0.gpc3=new"},
                 "abc_0.gpc3"},
                {"only abc_5 present proposes abc_1", {"abc.gpc3", "abc_5.gpc3"}, "Save as abc_1", "abc_1",
                 {"abc.gpc3=old", "abc_1.gpc3=new", "abc_5.gpc3=old"}, "abc_1.gpc3"},
                {"taken proposal ends silently", {"abc.gpc3", "abc_1.gpc3"}, "Save as abc_1", "abc_1",
                 {"abc.gpc3=old", "abc_1.gpc3=old"}, ""},
                {"copies of another suffix do not count", {"abc.gpc3", "abc_0.py"}, "Save as abc_0", "abc_0",
                 {"abc.gpc3=old", "abc_0.gpc3=new", "abc_0.py=old"}, "abc_0.gpc3"},
        };
        for (const auto &row : rows)
            QTest::newRow(row.tag) << row.present << QString(row.button) << QString(row.offered) << row.after
                                   << QString(row.saved);
    }

    void existingFileIsReplacedCopiedOrKept()
    {
        QFETCH(QStringList, present);
        QFETCH(QString, button);
        QFETCH(QString, offered);
        QFETCH(QStringList, after);
        QFETCH(QString, saved);
        for (const QString &name : present)
            QVERIFY(TestFiles::write(scripts + "/" + name, "old"));
        ModalAnswerer answerer;
        if (!button.isEmpty())
            answerer.pressButton(button);
        QSignalSpy savedSpy(page.get(), &OnlineResourcesWidget::scriptDownloaded);

        QVERIFY(download("abc.gpc3"));
        QCOMPARE(answerer.answered(), !button.isEmpty());
        if (!button.isEmpty()) {
            QCOMPARE((QStringList{answerer.seenTitle(), answerer.seenText(), answerer.seenInformativeText()}),
                     (QStringList{"File Already Exists", "The script 'abc.gpc3' already exists in " + scripts + ".",
                                  "What would you like to do?"}));
            QCOMPARE(answerer.seenButtons(), (QStringList{"Replace", "Save as " + offered, "Cancel"}));
        }
        QCOMPARE(scriptsFolder(), after);
        QCOMPARE(savedSpy.size(), saved.isEmpty() ? 0 : 1);
        if (!saved.isEmpty())
            QCOMPARE(savedSpy.first().first().toString(), scripts + "/" + saved);
    }

    void savedScriptReachesItsViewerPlugin_data()
    {
        QTest::addColumn<QString>("fileName");
        QTest::addColumn<int>("viewer"); // 1 GPC, 2 Python, 0 none
        for (const auto &[fileName, viewer] : {std::pair{"aim.gpc3", 1}, std::pair{"aim.GBC3", 1},
                                               std::pair{"reader.py", 2}, std::pair{"notes.txt", 0}})
            QTest::newRow(fileName) << QString(fileName) << viewer;
    }

    void savedScriptReachesItsViewerPlugin()
    {
        QFETCH(QString, fileName);
        QFETCH(int, viewer);
        QVERIFY(download(fileName));
        const QString target = scripts + "/" + fileName;
        QCOMPARE(TestFiles::read(target), QByteArray("new"));
        QCOMPARE(gpcPlugin.opened, viewer == 1 ? QStringList{target} : QStringList());
        QCOMPARE(pythonPlugin.opened, viewer == 2 ? QStringList{target} : QStringList());
    }

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
        QVERIFY(openWeights());
        QFETCH(QByteArray, stored);
        QFETCH(QStringList, keys);
        if (!stored.isEmpty())
            QVERIFY(TestFiles::write(library->manifestPath(), stored));
        const QDateTime before = QDateTime::currentDateTimeUtc().addSecs(-1);
        serve("w-a", "AAAA", "detector.onnx", "AAAA");
        serve("w-b", "BBBBBB", "detector.ennx", "BBBBBB");
        for (const char *id : {"w-a", "w-b"})
            QCOMPARE(downloadWeights(id, {QMessageBox::Ok}).mid(0, 2),
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
        QVERIFY(openWeights());
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
                = downloadWeights("w-a", replace ? QList{QMessageBox::Ok} : QList<QMessageBox::StandardButton>{});
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
        QVERIFY(openWeights());
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
        QCOMPARE(downloadWeights(id, answers).mid(0, 2), (QStringList{"Download Failed", message}));
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

QTEST_MAIN(DownloadFlowsTest)
#include "tst_download_flows.moc"
