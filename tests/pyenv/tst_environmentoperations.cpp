#include "OperationRecorder.h"
#include "PyenvTestBed.h"
#include "TemporaryHome.h"
#include "TestFiles.h"
#include "pyenv/PythonEnvironmentManager.h"

#include <QtTest>

#include <functional>
#include <memory>

using Quorix::PythonEnvironmentManager;
using Quorix::Testing::OperationRecorder;
using Quorix::Testing::PyenvTestBed;
using Quorix::Testing::TestFiles;

// The manager driving the real uv against local package indexes: creating, importing, changing and removing.
class EnvironmentOperationsTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void createInstallsTheListAndReportsEachStep_data();
    void createInstallsTheListAndReportsEachStep();
    void verificationRetriesOnceAfterTwoSecondPauses_data();
    void verificationRetriesOnceAfterTwoSecondPauses();
    void packageOperationsChangeWhatTheListingReports();
    void deleteAndReplaceRunOnAWorker();
    void refusedCallsTouchNothing();
    void environmentListShowsOnlyEnvironments();
    void qenvBuildsAnEnvironmentWithItsFiles();
    void rejectedQenvWritesNothing_data();
    void rejectedQenvWritesNothing();
    void qenvImportKeepsAnExistingEnvironment();
    void qenvWithUnavailablePythonLeavesNothing();

private:
    // Starts the call and waits for the end of the operation it began.
    std::unique_ptr<OperationRecorder> run(const std::function<void()> &call, int limitMs = 240000)
    {
        auto recorder = std::make_unique<OperationRecorder>(manager);
        call();
        recorder->waitFinished(limitMs);
        return recorder;
    }
    std::unique_ptr<OperationRecorder> importQenv(const QByteArray &qenv, int limitMs = 240000)
    {
        return run([&] { manager->createFromQenv(bed.writeFile("package.qenv", qenv)); }, limitMs);
    }
    QString listing(const QString &env)
    {
        QStringList packages;
        for (const PythonEnvironmentManager::Package &package : manager->listPackages(env))
            packages << package.name + " " + package.version;
        return packages.join('|');
    }
    void create(const QString &env, const QByteArray &requirements)
    {
        const auto recorder
                = run([&] { manager->createEnvironment(env, "3.11", bed.writeFile("r.txt", requirements)); });
        QVERIFY2(recorder->succeeded(), qPrintable(recorder->error()));
    }
    QStringList entries(const QString &folder)
    {
        return QDir(folder).entryList(QDir::AllEntries | QDir::NoDotAndDotDot);
    }

    Quorix::Testing::TemporaryHome home;
    PyenvTestBed bed;
    PythonEnvironmentManager *manager = nullptr;
};

void EnvironmentOperationsTest::initTestCase()
{
    QVERIFY2(bed.isReady(), qPrintable(bed.problem()));
    QVERIFY2(!PyenvTestBed::uvProgram().isEmpty(), "uv must be on PATH (scripts/setup-python-tools)");
    manager = PythonEnvironmentManager::instance();
}

void EnvironmentOperationsTest::init()
{
    bed.prepareBaseFolder(*manager, true);
    qputenv("QUORIX_CV2_MARKER", bed.scratchPath("cv2-ready").toUtf8());
    QFile::remove(bed.scratchPath("cv2-ready"));
}

void EnvironmentOperationsTest::createInstallsTheListAndReportsEachStep_data()
{
    QTest::addColumn<QString>("python");
    QTest::addColumn<QByteArray>("requirements"); // empty: the default list
    QTest::addColumn<QString>("error"); // the start of the message
    // The local index has none of the default packages, so uv's refusal comes back through the message.
    QTest::newRow("own list") << "3.11" << QByteArray("quorix-cv2\nquorix-alpha==1.0\n") << "";
    QTest::newRow("default list") << "3.11" << QByteArray() << "Package installation failed.\n\n";
    QTest::newRow("python that is not there") << "3.7" << QByteArray("quorix-cv2\n")
                                              << "Failed to create virtual environment.\n\n";
}

void EnvironmentOperationsTest::createInstallsTheListAndReportsEachStep()
{
    QFETCH(QString, python);
    QFETCH(QByteArray, requirements);
    QFETCH(QString, error);

    QSignalSpy loaded(manager, &PythonEnvironmentManager::packagesLoaded);
    const auto recorder = run([&] {
        manager->createEnvironment("env1", python,
                                   requirements.isEmpty() ? QString() : bed.writeFile("r.txt", requirements));
    });
    QCOMPARE(recorder->finishedCount(), 1);
    QCOMPARE(recorder->error().left(error.size()), error);
    QCOMPARE(recorder->succeeded(), error.isEmpty());
    const QString folder = manager->environmentPath("env1");
    if (python == "3.7") {
        QVERIFY(recorder->error().contains("3.7") && !QFileInfo::exists(folder));
        QVERIFY(recorder->events("created").isEmpty());
        return;
    }
    QCOMPARE(recorder->events("started"),
             QStringList({"Creating environment 'env1' with Python 3.11...", "Installing packages for 'env1'..."}));
    QCOMPARE(recorder->events("created"), QStringList({"env1"}));
    QCOMPARE(TestFiles::read(folder + "/requirements.txt"),
             requirements.isEmpty() ? QByteArray("# Quorix Default Python Environment\n\nnumpy\nscipy\nopencv-python\n"
                                                 "pillow\nimutils\nrequests\nmss\ncryptography\n")
                                    : requirements);
    if (!error.isEmpty()) {
        QVERIFY2(recorder->error().contains("numpy"), qPrintable(recorder->error()));
        return;
    }
    QVERIFY(recorder->events("progress").contains("Verifying critical imports..."));
    QCOMPARE(recorder->events("changed"), QStringList({"env1"}));
    QCOMPARE(listing("env1"), "quorix-alpha 1.0|quorix-cv2 1.0");
    QCOMPARE(loaded.count(), 1);
}

void EnvironmentOperationsTest::verificationRetriesOnceAfterTwoSecondPauses_data()
{
    QTest::addColumn<bool>("becomesReady");
    QTest::newRow("module ready a second later") << true;
    QTest::newRow("module never ready") << false;
}

void EnvironmentOperationsTest::verificationRetriesOnceAfterTwoSecondPauses()
{
    QFETCH(bool, becomesReady);
    // The stand-in cv2 refuses to import until this file appears, as a module still being written would.
    QObject context;
    connect(manager, &PythonEnvironmentManager::operationProgress, &context, [this, becomesReady](const QString &text) {
        if (becomesReady && text == "Verifying critical imports...")
            QTimer::singleShot(1000, [this] { bed.writeFile("cv2-ready", "ready"); });
    });
    QElapsedTimer clock;
    clock.start();
    const QString requirements = bed.writeFile("r.txt", "quorix-flaky-cv2\n");
    const auto recorder = run([&] { manager->createEnvironment("slow", "3.11", requirements); });
    QCOMPARE(recorder->finishedCount(), 1);
    QCOMPARE(recorder->events("changed"), QStringList({"slow"}));
    const QStringList progress = recorder->events("progress");
    if (becomesReady) {
        QVERIFY2(recorder->succeeded(), qPrintable(recorder->all().join('\n')));
        QVERIFY(clock.elapsed() >= 2000 && !progress.contains("Retrying package installation..."));
        return;
    }
    QCOMPARE(recorder->error(), "Critical imports failed after retry: cv2\n\nTry reinstalling the environment.");
    QCOMPARE(progress.count("Import verification failed for: cv2. Retrying installation..."), 1);
    QCOMPARE(progress.count("Retrying package installation..."), 1);
    QCOMPARE(progress.count("Verifying critical imports..."), 2);
    QCOMPARE(recorder->events("started"),
             QStringList({"Creating environment 'slow' with Python 3.11...", "Installing packages for 'slow'..."}));
    // Three runs 2 s apart, twice.
    QVERIFY(clock.elapsed() >= 8000);
}

void EnvironmentOperationsTest::packageOperationsChangeWhatTheListingReports()
{
    create("pkgs", "quorix-cv2\nquorix-alpha==1.0\n");
    const QString folder = manager->environmentPath("pkgs");
    const QJsonArray urls{bed.extraIndexUrl(), 42, bed.secondExtraIndexUrl()};
    TestFiles::write(folder + "/index_urls.json", QJsonDocument(QJsonObject{{"extra_index_urls", urls}}).toJson());
    QCOMPARE(manager->extraIndexUrls(folder), QStringList({bed.extraIndexUrl(), bed.secondExtraIndexUrl()}));

    const QString extras = "|quorix-extra 1.0|quorix-extra-two 1.0";
    const QStringList two{"quorix-extra", "quorix-extra-two"};
    const QList<std::tuple<std::function<void()>, QString, QString>> steps = {
            {[&] { manager->installPackage("pkgs", "quorix-beta"); }, "Installing quorix-beta...",
             "quorix-alpha 1.0|quorix-beta 1.0|quorix-cv2 1.0"},
            {[&] { manager->installPackages("pkgs", two); }, "Installing 2 packages...",
             "quorix-alpha 1.0|quorix-beta 1.0|quorix-cv2 1.0" + extras},
            {[&] { manager->updatePackage("pkgs", "quorix-alpha"); }, "Updating quorix-alpha...",
             "quorix-alpha 1.1|quorix-beta 1.0|quorix-cv2 1.0" + extras},
            {[&] { manager->uninstallPackage("pkgs", "quorix-beta"); }, "Uninstalling quorix-beta...",
             "quorix-alpha 1.1|quorix-cv2 1.0" + extras},
            {[&] { manager->uninstallPackages("pkgs", two); }, "Uninstalling 2 packages...",
             "quorix-alpha 1.1|quorix-cv2 1.0"},
    };
    for (const auto &[call, started, after] : steps) {
        const auto recorder = run(call);
        QCOMPARE(recorder->finishedCount(), 1);
        QVERIFY2(recorder->succeeded(), qPrintable(recorder->error()));
        QCOMPARE(recorder->events("started"), QStringList({started}));
        QCOMPARE(recorder->events("changed"), QStringList({"pkgs"}));
        QCOMPARE(listing("pkgs"), after);
    }
    const auto failing = run([&] { manager->installPackage("pkgs", "quorix-nowhere"); });
    QVERIFY2(failing->error().startsWith("Operation failed.\n\n"), qPrintable(failing->error()));
    QVERIFY(failing->error().contains("quorix-nowhere") && failing->events("changed").isEmpty());
    QCOMPARE(listing("pkgs"), "quorix-alpha 1.1|quorix-cv2 1.0");
}

void EnvironmentOperationsTest::deleteAndReplaceRunOnAWorker()
{
    create("swap", "quorix-cv2\nquorix-alpha==1.0\n");
    const QString folder = manager->environmentPath("swap");
    TestFiles::write(folder + "/stale.txt", "stale");
    TestFiles::write(folder + "/requirements.txt", "quorix-cv2\nquorix-beta\n");
    OperationRecorder replacing(manager);
    // The new list lives in the folder being replaced, so it has to be read before the removal.
    manager->replaceEnvironmentAsync("swap", "3.11", folder + "/requirements.txt");
    QCOMPARE(replacing.all(), QStringList({"started: Replacing environment 'swap'...", "deleteStarted: swap"}));
    QVERIFY(replacing.waitFinished());
    QVERIFY2(replacing.succeeded(), qPrintable(replacing.all().join('\n')));
    QCOMPARE(replacing.events("started"),
             QStringList({"Replacing environment 'swap'...", "Creating environment 'swap' with Python 3.11...",
                          "Installing packages for 'swap'..."}));
    QCOMPARE(replacing.events("deleteFinished"), QStringList({"swap ok"}));
    QVERIFY(!QFileInfo::exists(folder + "/stale.txt"));
    QCOMPARE(listing("swap"), "quorix-beta 1.0|quorix-cv2 1.0");

    // Links to the outside are removed, never followed.
    const QString outside = bed.scratchPath("keep");
    QDir().mkpath(outside);
    bed.writeFile("keep/precious.txt", "mine");
    QVERIFY(QFile::link(outside, folder + "/.qenv/lib/linked"));
    QVERIFY(QFile::link(outside + "/precious.txt", folder + "/file-link"));
    OperationRecorder deleting(manager);
    manager->deleteEnvironmentAsync("swap");
    // The removal is reported by a queued call, so nothing has finished when the call returns.
    QCOMPARE(deleting.all(), QStringList({"started: Deleting environment 'swap'...", "deleteStarted: swap"}));
    QVERIFY(deleting.waitFinished());
    QCOMPARE(deleting.all().mid(2), QStringList({"deleteFinished: swap ok", "deleted: swap", "finished: "}));
    QVERIFY(!QFileInfo::exists(folder));
    QCOMPARE(TestFiles::read(outside + "/precious.txt"), QByteArray("mine"));
}

void EnvironmentOperationsTest::refusedCallsTouchNothing()
{
    for (const QString &name : {QString("absent"), QString(), QString(".."), QString("../python")})
        QCOMPARE(run([&] { manager->deleteEnvironmentAsync(name); }, 2000)->all(),
                 QStringList({"finished: Environment not found"}));
    QCOMPARE(run([&] { manager->createFromQenv(bed.scratchPath("no-such.qenv")); }, 2000)->all(),
             QStringList({"finished: Failed to open .qenv file"}));
    QVERIFY(manager->isUvInstalled());

    bed.prepareBaseFolder(*manager, false);
    const QList<std::function<void()>> calls = {
            [this] { manager->createEnvironment("x", "3.11", QString()); },
            [this] { manager->replaceEnvironmentAsync("x", "3.11", QString()); },
            [this] { manager->syncEnvironment("x"); },
            [this] { manager->installPackage("x", "quorix-alpha"); },
            [this] { manager->updatePackage("x", "quorix-alpha"); },
            [this] { manager->uninstallPackages("x", {"quorix-alpha"}); },
    };
    for (const std::function<void()> &call : calls)
        QCOMPARE(run(call, 2000)->all(), QStringList({"finished: UV is not installed"}));
    QCOMPARE(entries(manager->baseFolder()), QStringList());
}

void EnvironmentOperationsTest::environmentListShowsOnlyEnvironments()
{
    create("listed", "quorix-cv2\n");
    QDir().mkpath(manager->baseFolder() + "/not-an-env");
    QDir().mkpath(manager->baseFolder() + "/" + manager->profile().uvFileName().toUpper() + "/.qenv");
    const QList<PythonEnvironmentManager::Environment> environments = manager->environments();
    QCOMPARE(environments.size(), 1);
    const PythonEnvironmentManager::Environment &listed = environments.first();
    QCOMPARE(listed.name + '|' + listed.path + '|' + listed.pythonPath,
             "listed|" + manager->baseFolder() + "/listed|" + manager->baseFolder() + "/listed/.qenv/bin/python");
    QVERIFY(listed.pythonExists);
    QVERIFY2(listed.pythonVersion.startsWith("3.11."), qPrintable(listed.pythonVersion));
    QCOMPARE(manager->pythonVersion(bed.scratchPath("no-such-python")), QString());
}

void EnvironmentOperationsTest::qenvBuildsAnEnvironmentWithItsFiles()
{
    const QJsonArray extras{bed.extraIndexUrl(), bed.secondExtraIndexUrl()};
    const auto recorder = importQenv(QJsonDocument(QJsonObject{
            {"name", "vision"},
            {"packages", QJsonArray{"quorix-cv2", 7, "quorix-extra==1.0", QJsonObject{}, "quorix-extra-two"}},
            {"extra_index_urls", extras},
            {"description", "ignored"}}).toJson());
    const QString folder = manager->environmentPath("vision");
    QCOMPARE(recorder->finishedCount(), 1);
    QVERIFY2(recorder->succeeded(), qPrintable(recorder->all().join('\n')));
    QCOMPARE(recorder->events("started"), QStringList({"Creating environment 'vision' from .qenv with Python 3.11...",
                                                       "Installing packages for 'vision'..."}));
    QCOMPARE(recorder->events("created"), QStringList({"vision"}));
    QCOMPARE(recorder->events("changed"), QStringList({"vision"}));
    QCOMPARE(TestFiles::read(folder + "/requirements.txt"),
             QByteArray("quorix-cv2\n\nquorix-extra==1.0\n\nquorix-extra-two\n"));
    const QByteArray indexes = TestFiles::read(folder + "/index_urls.json");
    QCOMPARE(QJsonDocument::fromJson(indexes).object(), QJsonObject({{"extra_index_urls", extras}}));
    QVERIFY(indexes.contains("\n    \"extra_index_urls\""));
    QVERIFY(!QFileInfo::exists(QDir::tempPath() + "/qenv_requirements.txt"));
    QVERIFY(manager->pythonVersion(manager->pythonPath("vision")).startsWith("3.11."));
    QCOMPARE(manager->listPackages("vision").size(), 3);

    // With nothing to install the import ends right after creation, without verifying imports or an index file.
    const auto empty = importQenv(R"({"name": "plain", "packages": [], "extra_index_urls": []})");
    const QString plain = manager->environmentPath("plain");
    QVERIFY2(empty->succeeded(), qPrintable(empty->error()));
    QCOMPARE(empty->events("started"), QStringList({"Creating environment 'plain' from .qenv with Python 3.11..."}));
    QCOMPARE(empty->events("created"), QStringList({"plain"}));
    QVERIFY(!empty->events("progress").contains("Verifying critical imports..."));
    QVERIFY(QFileInfo(plain + "/.qenv").isDir() && !QFileInfo::exists(plain + "/index_urls.json"));
    QCOMPARE(TestFiles::read(plain + "/requirements.txt"), QByteArray());
}

void EnvironmentOperationsTest::rejectedQenvWritesNothing_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("error");
    QTest::newRow("not json") << QByteArray("{\"name\": ") << "Invalid .qenv file format";
    QTest::newRow("array") << QByteArray("[\"name\"]") << "Invalid .qenv file format";
    QTest::newRow("no name") << QByteArray("{\"python\": \"3.11\"}") << ".qenv file missing environment name";
    QTest::newRow("empty name") << QByteArray("{\"name\": \"\"}") << ".qenv file missing environment name";
    QTest::newRow("python 2.7") << QByteArray(R"({"name": "old", "python": "2.7"})") << "Invalid Python version: 2.7";
    QTest::newRow("bare 3") << QByteArray(R"({"name": "old", "python": "3"})") << "Invalid Python version: 3";
    for (const char *name : {"../x", "a/b", "..", "NUL", "c:x"})
        QTest::newRow(name) << "{\"name\": \"" + QByteArray(name) + "\"}"
                            << ".qenv file has an invalid environment name";
}

void EnvironmentOperationsTest::rejectedQenvWritesNothing()
{
    QFETCH(QByteArray, content);
    QFETCH(QString, error);
    const QStringList tempBefore = entries(QDir::tempPath());
    QCOMPARE(importQenv(content, 2000)->all(), QStringList({"finished: " + error}));
    QCOMPARE(entries(manager->baseFolder()), QStringList{"uv"});
    QCOMPARE(entries(QDir::tempPath()), tempBefore);
    QVERIFY(!QFileInfo::exists(QFileInfo(manager->baseFolder()).path() + "/x"));
}

void EnvironmentOperationsTest::qenvImportKeepsAnExistingEnvironment()
{
    const QByteArray qenv = R"({"name": "twice", "python": "3.11", "packages": ["quorix-cv2", "quorix-alpha==1.0"]})";
    const auto first = importQenv(qenv);
    QVERIFY2(first->succeeded(), qPrintable(first->error()));
    QCOMPARE(importQenv(qenv, 2000)->all(), QStringList({"finished: Environment 'twice' already exists"}));
    QCOMPARE(TestFiles::read(manager->environmentPath("twice") + "/requirements.txt"),
             QByteArray("quorix-cv2\nquorix-alpha==1.0\n"));
    QCOMPARE(manager->listPackages("twice").size(), 2);
}

void EnvironmentOperationsTest::qenvWithUnavailablePythonLeavesNothing()
{
    const auto recorder = importQenv(R"({"name": "future", "python": "3.99", "packages": ["quorix-cv2"],
                                       "extra_index_urls": ["http://127.0.0.1:9/simple"]})");
    QCOMPARE(recorder->finishedCount(), 1);
    QVERIFY2(recorder->error().startsWith("Failed to create virtual environment.\n\n"), qPrintable(recorder->error()));
    QVERIFY(!QFileInfo::exists(manager->environmentPath("future")));
    QVERIFY(!QFileInfo::exists(QDir::tempPath() + "/qenv_requirements.txt"));
    QVERIFY(recorder->events("created").isEmpty());
}

QTEST_GUILESS_MAIN(EnvironmentOperationsTest)
#include "tst_environmentoperations.moc"
