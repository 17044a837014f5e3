#include "TestFiles.h"
#include "ModalAnswerer.h"
#include "RecordingFilePlugin.h"
#include "RecordingHttpServer.h"
#include "TemporaryHome.h"
#include "api/OnlineResourcesAPI.h"
#include "browser/DownloadProgressDialog.h"
#include "browser/OnlineResourcesWidget.h"
#include "browser/ScriptsDirectory.h"

#include <PluginHost.h>
#include <SettingsManager.h>

#include <QDir>
#include <QFile>
#include <QSignalSpy>
#include <QTest>

#include <memory>

using namespace Quorix;
using namespace Quorix::Testing;

namespace {

// Every file of a folder with its content, "name=content", sorted by name.
QStringList folderContents(const QString &directory)
{
    QStringList contents;
    QStringList names = QDir(directory).entryList(QDir::Files | QDir::Hidden);
    names.sort();
    for (const QString &name : names)
        contents << name + QLatin1Char('=') + QString::fromUtf8(TestFiles::read(directory + QLatin1Char('/') + name));
    return contents;
}

} // namespace

class ScriptDownloadFlowTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void progressLabelTakesTheUnitOfTheTotal_data();
    void progressLabelTakesTheUnitOfTheTotal();
    void scriptsDirectoryFollowsTheExplorerElseTheApplication_data();
    void scriptsDirectoryFollowsTheExplorerElseTheApplication();
    void existingFileIsReplacedCopiedOrKept_data();
    void existingFileIsReplacedCopiedOrKept();
    void savedScriptReachesItsViewerPlugin_data();
    void savedScriptReachesItsViewerPlugin();

private:
    // Downloads one file named fileName with the content "new" through the page; returns the API's temporary path.
    QString downloadThroughPage(const QString &fileName);

    std::unique_ptr<TemporaryHome> home;
    RecordingHttpServer server;
    PluginHost host;
    RecordingFilePlugin gpcPlugin;
    RecordingFilePlugin pythonPlugin;
    std::unique_ptr<OnlineResourcesWidget> page;
    QString scripts;
};

void ScriptDownloadFlowTest::initTestCase()
{
    home = std::make_unique<TemporaryHome>();
    QVERIFY(server.listen());
    qputenv("QUORIX_SERVER_URL", server.origin().toUtf8());
    host.registerPlugin(QStringLiteral("gpc3"), QStringLiteral("GPC 3"), &gpcPlugin);
    host.registerPlugin(QStringLiteral("cv_python"), QStringLiteral("CV Python"), &pythonPlugin);
}

void ScriptDownloadFlowTest::init()
{
    server.reset();
    server.setDefaultResponse(ScriptedResponse::json({{QStringLiteral("success"), false}}));
    gpcPlugin.opened.clear();
    pythonPlugin.opened.clear();
    scripts = home->filePath(QStringLiteral("scripts-%1-%2")
                                     .arg(QTest::currentTestFunction())
                                     .arg(QString::fromUtf8(QByteArray(QTest::currentDataTag()).toHex())));
    QVERIFY(QDir().mkpath(scripts));
    SettingsManager::instance()->setPluginValue(QStringLiteral("FileExplorer"), QStringLiteral("lastWorkingDirectory"),
                                                scripts);
    page = std::make_unique<OnlineResourcesWidget>(nullptr);
    page->setPluginHost(&host);
    page->setSettingsManager(SettingsManager::instance());
}

void ScriptDownloadFlowTest::cleanup()
{
    page.reset();
}

QString ScriptDownloadFlowTest::downloadThroughPage(const QString &fileName)
{
    server.setRule(
            QStringLiteral("/api/scripts/download/s-1"),
            ScriptedResponse::bytes("new").withHeader(
                    "Content-Disposition", QStringLiteral("attachment; filename=\"%1\"").arg(fileName).toUtf8()));
    QSignalSpy arrived(page->api(), &OnlineResourcesAPI::scriptDownloaded);
    QMetaObject::invokeMethod(page.get(), "onCardDownloadClicked", Q_ARG(QString, QStringLiteral("s-1")));
    if (!arrived.wait(10000))
        return {};
    // Moved, copied or thrown away, the temporary file is gone once the flow has run.
    const QString temporary = arrived.first().first().toString();
    return QTest::qWaitFor([&temporary] { return !QFile::exists(temporary); }, 10000) ? temporary : QString();
}

void ScriptDownloadFlowTest::progressLabelTakesTheUnitOfTheTotal_data()
{
    QTest::addColumn<qint64>("received");
    QTest::addColumn<qint64>("total");
    QTest::addColumn<QString>("label");
    QTest::addColumn<int>("maximum");
    QTest::addColumn<int>("value");

    QTest::newRow("unknown length") << qint64(4096) << qint64(0) << "Downloading..." << 0 << 0;
    QTest::newRow("negative length") << qint64(10) << qint64(-1) << "Downloading..." << 0 << 0;
    QTest::newRow("1023 bytes in bytes") << qint64(512) << qint64(1023) << "Downloading... 512 B / 1023 B" << 100 << 50;
    QTest::newRow("2048 bytes in KB, also below 1024")
            << qint64(1000) << qint64(2048) << "Downloading... 1 KB / 2 KB" << 100 << 48;
    QTest::newRow("megabytes with a decimal")
            << qint64(1572864) << qint64(3145728) << "Downloading... 1.5 MB / 3.0 MB" << 100 << 50;
}

void ScriptDownloadFlowTest::progressLabelTakesTheUnitOfTheTotal()
{
    QFETCH(qint64, received);
    QFETCH(qint64, total);
    QFETCH(QString, label);
    QFETCH(int, maximum);
    QFETCH(int, value);

    server.setRule(QStringLiteral("/api/scripts/download/s-1"), ScriptedResponse::bytes("x").stallingAfter(0));
    QMetaObject::invokeMethod(page.get(), "onCardDownloadClicked", Q_ARG(QString, QStringLiteral("s-1")));
    auto *dialog = page->findChild<DownloadProgressDialog *>(QStringLiteral("downloadProgressDialog"));
    QVERIFY(dialog);
    QVERIFY(dialog->isVisible());
    QCOMPARE(dialog->labelText(), QStringLiteral("Downloading..."));
    QCOMPARE(dialog->windowModality(), Qt::WindowModal);

    QMetaObject::invokeMethod(page.get(), "onDownloadProgress", Q_ARG(qint64, received), Q_ARG(qint64, total));
    QCOMPARE(dialog->labelText(), label);
    QCOMPARE(dialog->maximum(), maximum);
    if (maximum > 0)
        QCOMPARE(dialog->value(), value);
}

void ScriptDownloadFlowTest::scriptsDirectoryFollowsTheExplorerElseTheApplication_data()
{
    QTest::addColumn<QString>("explorerFolder");
    QTest::addColumn<QString>("applicationFolder");
    QTest::addColumn<QString>("expected");

    QTest::newRow("explorer folder") << "work"
                                     << "app/lib"
                                     << "work";
    QTest::newRow("explorer folder gone, lib") << "gone"
                                               << "app/lib"
                                               << "app/scripts";
    QTest::newRow("no explorer folder, lib") << ""
                                             << "app/lib"
                                             << "app/scripts";
    QTest::newRow("no explorer folder, bin") << ""
                                             << "app/bin"
                                             << "app/bin/scripts";
    QTest::newRow("library-like name is not lib") << ""
                                                  << "app/libs"
                                                  << "app/libs/scripts";
}

void ScriptDownloadFlowTest::scriptsDirectoryFollowsTheExplorerElseTheApplication()
{
    QFETCH(QString, explorerFolder);
    QFETCH(QString, applicationFolder);
    QFETCH(QString, expected);

    const QString root = scripts;
    QVERIFY(QDir().mkpath(root + "/work"));
    QVERIFY(QDir().mkpath(root + "/" + applicationFolder));
    SettingsManager::instance()->setPluginValue(QStringLiteral("FileExplorer"), QStringLiteral("lastWorkingDirectory"),
                                                explorerFolder.isEmpty() ? QString() : root + "/" + explorerFolder);
    const QString resolved = ScriptsDirectory::resolve(SettingsManager::instance(), root + "/" + applicationFolder);
    QCOMPARE(resolved, root + "/" + expected);
    QVERIFY(QFileInfo(resolved).isDir());
}

void ScriptDownloadFlowTest::existingFileIsReplacedCopiedOrKept_data()
{
    QTest::addColumn<QStringList>("present");
    QTest::addColumn<QString>("button");
    QTest::addColumn<QStringList>("offered");
    QTest::addColumn<QStringList>("after");
    QTest::addColumn<QString>("saved");

    const QStringList plainOffer{"Replace", "Save as abc_0", "Cancel"};
    QTest::newRow("no conflict") << QStringList() << QString() << QStringList() << QStringList{"abc.gpc3=new"}
                                 << "abc.gpc3";
    QTest::newRow("cancel keeps the old file")
            << QStringList{"abc.gpc3"} << "Cancel" << plainOffer << QStringList{"abc.gpc3=old"} << QString();
    QTest::newRow("replace") << QStringList{"abc.gpc3"} << "Replace" << plainOffer << QStringList{"abc.gpc3=new"}
                             << "abc.gpc3";
    QTest::newRow("first copy is numbered 0") << QStringList{"abc.gpc3"} << "Save as abc_0" << plainOffer
                                              << QStringList{"abc.gpc3=old", "abc_0.gpc3=new"} << "abc_0.gpc3";
    QTest::newRow("abc_0 present proposes abc_1")
            << QStringList{"abc.gpc3", "abc_0.gpc3"} << "Save as abc_1"
            << QStringList{"Replace", "Save as abc_1", "Cancel"}
            << QStringList{"abc.gpc3=old", "abc_0.gpc3=old", "abc_1.gpc3=new"} << "abc_1.gpc3";
    QTest::newRow("only abc_5 present proposes abc_1")
            << QStringList{"abc.gpc3", "abc_5.gpc3"} << "Save as abc_1"
            << QStringList{"Replace", "Save as abc_1", "Cancel"}
            << QStringList{"abc.gpc3=old", "abc_1.gpc3=new", "abc_5.gpc3=old"} << "abc_1.gpc3";
    QTest::newRow("taken proposal ends silently") << QStringList{"abc.gpc3", "abc_1.gpc3"} << "Save as abc_1"
                                                  << QStringList{"Replace", "Save as abc_1", "Cancel"}
                                                  << QStringList{"abc.gpc3=old", "abc_1.gpc3=old"} << QString();
    QTest::newRow("copies of another suffix do not count")
            << QStringList{"abc.gpc3", "abc_0.py"} << "Save as abc_0" << plainOffer
            << QStringList{"abc.gpc3=old", "abc_0.gpc3=new", "abc_0.py=old"} << "abc_0.gpc3";
}

void ScriptDownloadFlowTest::existingFileIsReplacedCopiedOrKept()
{
    QFETCH(QStringList, present);
    QFETCH(QString, button);
    QFETCH(QStringList, offered);
    QFETCH(QStringList, after);
    QFETCH(QString, saved);

    for (const QString &name : present)
        QVERIFY(TestFiles::write(scripts + "/" + name, "old"));
    ModalAnswerer answerer;
    if (!button.isEmpty())
        answerer.pressButton(button);
    QSignalSpy savedSpy(page.get(), &OnlineResourcesWidget::scriptDownloaded);

    const QString temporary = downloadThroughPage("abc.gpc3");
    QVERIFY(!temporary.isEmpty());
    QCOMPARE(answerer.answered(), !button.isEmpty());
    if (!button.isEmpty()) {
        QCOMPARE(answerer.seenTitle(), QStringLiteral("File Already Exists"));
        QCOMPARE(answerer.seenText(), QStringLiteral("The script 'abc.gpc3' already exists in %1.").arg(scripts));
        QCOMPARE(answerer.seenInformativeText(), QStringLiteral("What would you like to do?"));
        QCOMPARE(answerer.seenButtons(), offered);
    }
    QCOMPARE(folderContents(scripts), after);
    QVERIFY(!QFile::exists(temporary));
    QCOMPARE(savedSpy.size(), saved.isEmpty() ? 0 : 1);
    if (!saved.isEmpty())
        QCOMPARE(savedSpy.first().first().toString(), scripts + "/" + saved);
}

void ScriptDownloadFlowTest::savedScriptReachesItsViewerPlugin_data()
{
    QTest::addColumn<QString>("fileName");
    QTest::addColumn<bool>("toGpc");
    QTest::addColumn<bool>("toPython");

    QTest::newRow("gpc3") << "aim.gpc3" << true << false;
    QTest::newRow("gbc3 in capitals") << "aim.GBC3" << true << false;
    QTest::newRow("python") << "reader.py" << false << true;
    QTest::newRow("other suffix") << "notes.txt" << false << false;
    QTest::newRow("no suffix") << "README" << false << false;
}

void ScriptDownloadFlowTest::savedScriptReachesItsViewerPlugin()
{
    QFETCH(QString, fileName);
    QFETCH(bool, toGpc);
    QFETCH(bool, toPython);

    QSignalSpy savedSpy(page.get(), &OnlineResourcesWidget::scriptDownloaded);
    QVERIFY(!downloadThroughPage(fileName).isEmpty());
    const QString target = scripts + "/" + fileName;
    QCOMPARE(savedSpy.size(), 1);
    QCOMPARE(TestFiles::read(target), QByteArray("new"));
    QCOMPARE(gpcPlugin.opened, toGpc ? QStringList{target} : QStringList());
    QCOMPARE(pythonPlugin.opened, toPython ? QStringList{target} : QStringList());
}

QTEST_MAIN(ScriptDownloadFlowTest)
#include "tst_script_download_flow.moc"
