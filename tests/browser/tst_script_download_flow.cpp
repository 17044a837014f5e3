#include "ModalAnswerer.h"
#include "RecordingFilePlugin.h"
#include "RecordingHttpServer.h"
#include "TemporaryHome.h"
#include "TestFiles.h"
#include "api/OnlineResourcesAPI.h"
#include "browser/DownloadProgressDialog.h"
#include "browser/OnlineResourcesWidget.h"
#include "browser/ScriptsDirectory.h"

#include <PluginHost.h>
#include <SettingsManager.h>

#include <QDir>
#include <QSignalSpy>
#include <QTest>

#include <memory>

using namespace Quorix;
using namespace Quorix::Testing;

// Saving a downloaded script: progress, the folder it goes to, the question when the name is taken, the viewer.
class ScriptDownloadFlowTest : public QObject
{
    Q_OBJECT

    TemporaryHome home;
    RecordingHttpServer server;
    PluginHost host;
    RecordingFilePlugin gpcPlugin, pythonPlugin;
    std::unique_ptr<OnlineResourcesWidget> page;
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
        scripts = home.filePath(
                QString("scripts-%1-%2").arg(QString::fromLatin1(QTest::currentTestFunction()), QString::fromLatin1(QByteArray(QTest::currentDataTag()).toHex())));
        QVERIFY(QDir().mkpath(scripts));
        setExplorerFolder(scripts);
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
};

QTEST_MAIN(ScriptDownloadFlowTest)
#include "tst_script_download_flow.moc"
