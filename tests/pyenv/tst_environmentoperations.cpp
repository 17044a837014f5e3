#include "OperationRecorder.h"
#include "PyenvTestBed.h"
#include "TemporaryHome.h"
#include "pyenv/PythonEnvironmentManager.h"

#include <QtTest>

using Quorix::PythonEnvironmentManager;
using Quorix::Testing::OperationRecorder;
using Quorix::Testing::PyenvTestBed;

class EnvironmentOperationsTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void createWithRequirementsFileInstallsExactlyThatList();
    void createWithoutRequirementsWritesTheDefaultList();
    void failedVenvRemovesTheHalfMadeFolder();
    void verificationPassingTwoSecondsLaterDoesNotReinstall();
    void verificationThatKeepsFailingReinstallsOnce();
    void packageOperationsChangeWhatTheListingReports();
    void extraIndexesFromTheEnvironmentReachUv();
    void deleteRunsOnAWorkerAndKeepsLinkedFilesOutside();
    void deletingAnythingButAnEnvironmentIsRefused();
    void replaceRemovesTheOldFolderBeforeCreating();
    void environmentListShowsOnlyEnvironments();
    void missingUvStopsEveryOperation();

private:
    QString writeFile(const QString &name, const QByteArray &content);
    QStringList listing(const QString &env);
    void create(const QString &env, const QByteArray &requirements);

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

QString EnvironmentOperationsTest::writeFile(const QString &name, const QByteArray &content)
{
    const QString path = bed.scratchPath(name);
    QFile file(path);
    file.open(QIODevice::WriteOnly | QIODevice::Truncate);
    file.write(content);
    return path;
}

QStringList EnvironmentOperationsTest::listing(const QString &env)
{
    QStringList packages;
    for (const PythonEnvironmentManager::Package &package : manager->listPackages(env))
        packages << package.name + " " + package.version;
    return packages;
}

void EnvironmentOperationsTest::create(const QString &env, const QByteArray &requirements)
{
    OperationRecorder recorder(manager);
    manager->createEnvironment(env, "3.11", writeFile(env + "-requirements.txt", requirements));
    QVERIFY(recorder.waitFinished());
    QVERIFY2(recorder.succeeded(), qPrintable(recorder.error()));
}

void EnvironmentOperationsTest::createWithRequirementsFileInstallsExactlyThatList()
{
    const QByteArray requirements = "quorix-cv2\nquorix-alpha==1.0\n";
    OperationRecorder recorder(manager);
    QSignalSpy loaded(manager, &PythonEnvironmentManager::packagesLoaded);
    manager->createEnvironment("env1", "3.11", writeFile("requirements.txt", requirements));
    QVERIFY(recorder.waitFinished());
    QCOMPARE(recorder.finishedCount(), 1);
    QVERIFY2(recorder.succeeded(), qPrintable(recorder.all().join('\n')));
    QCOMPARE(recorder.events("started"),
             QStringList({"Creating environment 'env1' with Python 3.11...", "Installing packages for 'env1'..."}));
    QVERIFY(recorder.events("progress").contains("Verifying critical imports..."));
    QCOMPARE(recorder.events("created"), QStringList({"env1"}));
    QCOMPARE(recorder.events("changed"), QStringList({"env1"}));

    QFile written(manager->environmentPath("env1") + "/requirements.txt");
    QVERIFY(written.open(QIODevice::ReadOnly));
    QCOMPARE(written.readAll(), requirements);
    QCOMPARE(listing("env1"), QStringList({"quorix-alpha 1.0", "quorix-cv2 1.0"}));
    QCOMPARE(loaded.count(), 1);
    QCOMPARE(loaded.first().at(0).value<QList<PythonEnvironmentManager::Package>>().size(), 2);
}

void EnvironmentOperationsTest::createWithoutRequirementsWritesTheDefaultList()
{
    OperationRecorder recorder(manager);
    manager->createEnvironment("defaults", "3.11", QString());
    QVERIFY(recorder.waitFinished());
    QFile written(manager->environmentPath("defaults") + "/requirements.txt");
    QVERIFY(written.open(QIODevice::ReadOnly));
    QCOMPARE(written.readAll(), QByteArray("# Quorix Default Python Environment\n\nnumpy\nscipy\nopencv-python\n"
                                           "pillow\nimutils\nrequests\nmss\ncryptography\n"));
    // The local index has none of these, so uv's refusal comes back through the installation message.
    QCOMPARE(recorder.finishedCount(), 1);
    QVERIFY(!recorder.succeeded());
    QVERIFY2(recorder.error().startsWith("Package installation failed.\n\n"), qPrintable(recorder.error()));
    QVERIFY2(recorder.error().contains("numpy"), qPrintable(recorder.error()));
    QCOMPARE(recorder.events("created"), QStringList({"defaults"}));
}

void EnvironmentOperationsTest::failedVenvRemovesTheHalfMadeFolder()
{
    OperationRecorder recorder(manager);
    manager->createEnvironment("old-python", "3.7", writeFile("r.txt", "quorix-cv2\n"));
    QVERIFY(recorder.waitFinished());
    QCOMPARE(recorder.finishedCount(), 1);
    QVERIFY2(recorder.error().startsWith("Failed to create virtual environment.\n\n"), qPrintable(recorder.error()));
    QVERIFY(recorder.error().contains("3.7"));
    QVERIFY(!QFileInfo::exists(manager->environmentPath("old-python")));
    QVERIFY(recorder.events("created").isEmpty());
}

void EnvironmentOperationsTest::verificationPassingTwoSecondsLaterDoesNotReinstall()
{
    OperationRecorder recorder(manager);
    // The stand-in cv2 refuses to import until this file appears, as a module still being written would.
    connect(manager, &PythonEnvironmentManager::operationProgress, &recorder, [this](const QString &text) {
        if (text == "Verifying critical imports...")
            QTimer::singleShot(1000, [this] { writeFile("cv2-ready", "ready"); });
    });
    QElapsedTimer clock;
    clock.start();
    manager->createEnvironment("slow", "3.11", writeFile("r.txt", "quorix-flaky-cv2\n"));
    QVERIFY(recorder.waitFinished());
    QCOMPARE(recorder.finishedCount(), 1);
    QVERIFY2(recorder.succeeded(), qPrintable(recorder.all().join('\n')));
    QVERIFY(clock.elapsed() >= 2000);
    QVERIFY(!recorder.events("progress").contains("Retrying package installation..."));
    QCOMPARE(recorder.events("changed"), QStringList({"slow"}));
}

void EnvironmentOperationsTest::verificationThatKeepsFailingReinstallsOnce()
{
    OperationRecorder recorder(manager);
    QElapsedTimer clock;
    clock.start();
    manager->createEnvironment("broken", "3.11", writeFile("r.txt", "quorix-flaky-cv2\n"));
    QVERIFY(recorder.waitFinished(90000));
    QCOMPARE(recorder.finishedCount(), 1);
    QCOMPARE(recorder.error(), QStringLiteral("Critical imports failed after retry: cv2\n\nTry reinstalling the "
                                              "environment."));
    const QStringList progress = recorder.events("progress");
    QCOMPARE(progress.count("Import verification failed for: cv2. Retrying installation..."), 1);
    QCOMPARE(progress.count("Retrying package installation..."), 1);
    QCOMPARE(progress.count("Verifying critical imports..."), 2);
    QCOMPARE(recorder.events("started"),
             QStringList({"Creating environment 'broken' with Python 3.11...", "Installing packages for 'broken'..."}));
    QCOMPARE(recorder.events("changed"), QStringList({"broken"}));
    // Three runs 2 s apart, twice.
    QVERIFY(clock.elapsed() >= 8000);
}

void EnvironmentOperationsTest::packageOperationsChangeWhatTheListingReports()
{
    create("pkgs", "quorix-cv2\nquorix-alpha==1.0\n");

    struct Step
    {
        std::function<void()> call;
        QString started;
    };
    const QList<Step> steps = {
            {[this] { manager->installPackage("pkgs", "quorix-beta"); }, "Installing quorix-beta..."},
            {[this] {
                 manager->installPackages("pkgs", {"quorix-gamma", "quorix-delta==1.0"});
             },
             "Installing 2 packages..."},
            {[this] { manager->updatePackage("pkgs", "quorix-alpha"); }, "Updating quorix-alpha..."},
            {[this] { manager->uninstallPackage("pkgs", "quorix-beta"); }, "Uninstalling quorix-beta..."},
            {[this] {
                 manager->uninstallPackages("pkgs", {"quorix-gamma", "quorix-delta"});
             },
             "Uninstalling 2 packages..."},
    };
    const QList<QStringList> expected = {
            {"quorix-alpha 1.0", "quorix-beta 1.0", "quorix-cv2 1.0"},
            {"quorix-alpha 1.0", "quorix-beta 1.0", "quorix-cv2 1.0", "quorix-delta 1.0", "quorix-gamma 1.0"},
            {"quorix-alpha 1.1", "quorix-beta 1.0", "quorix-cv2 1.0", "quorix-delta 1.0", "quorix-gamma 1.0"},
            {"quorix-alpha 1.1", "quorix-cv2 1.0", "quorix-delta 1.0", "quorix-gamma 1.0"},
            {"quorix-alpha 1.1", "quorix-cv2 1.0"},
    };
    for (qsizetype i = 0; i < steps.size(); ++i) {
        OperationRecorder recorder(manager);
        steps.at(i).call();
        QVERIFY(recorder.waitFinished());
        QCOMPARE(recorder.finishedCount(), 1);
        QVERIFY2(recorder.succeeded(), qPrintable(recorder.error()));
        QCOMPARE(recorder.events("started"), QStringList({steps.at(i).started}));
        QCOMPARE(recorder.events("changed"), QStringList({"pkgs"}));
        QCOMPARE(listing("pkgs"), expected.at(i));
    }

    OperationRecorder failing(manager);
    manager->installPackage("pkgs", "quorix-nowhere");
    QVERIFY(failing.waitFinished());
    QVERIFY2(failing.error().startsWith("Operation failed.\n\n"), qPrintable(failing.error()));
    QVERIFY(failing.error().contains("quorix-nowhere"));
    QVERIFY(failing.events("changed").isEmpty());
    QCOMPARE(listing("pkgs"), expected.last());
}

void EnvironmentOperationsTest::extraIndexesFromTheEnvironmentReachUv()
{
    create("indexed", "quorix-cv2\n");
    const QString folder = manager->environmentPath("indexed");
    QFile index(folder + "/index_urls.json");
    QVERIFY(index.open(QIODevice::WriteOnly));
    index.write(QJsonDocument(QJsonObject{{"extra_index_urls",
                                           QJsonArray{bed.extraIndexUrl(), 42, bed.secondExtraIndexUrl()}}})
                        .toJson());
    index.close();
    QCOMPARE(manager->extraIndexUrls(folder), QStringList({bed.extraIndexUrl(), bed.secondExtraIndexUrl()}));

    OperationRecorder recorder(manager);
    manager->installPackages("indexed", {"quorix-extra", "quorix-extra-two"});
    QVERIFY(recorder.waitFinished());
    QVERIFY2(recorder.succeeded(), qPrintable(recorder.error()));
    QCOMPARE(listing("indexed"), QStringList({"quorix-cv2 1.0", "quorix-extra 1.0", "quorix-extra-two 1.0"}));
}

void EnvironmentOperationsTest::deleteRunsOnAWorkerAndKeepsLinkedFilesOutside()
{
    const QString folder = manager->environmentPath("doomed");
    QDir().mkpath(folder + "/.qenv/lib");
    const QString outside = bed.scratchPath("keep");
    QDir().mkpath(outside);
    writeFile("keep/precious.txt", "mine");
    QVERIFY(QFile::link(outside, folder + "/.qenv/lib/linked"));
    QVERIFY(QFile::link(outside + "/precious.txt", folder + "/file-link"));

    OperationRecorder recorder(manager);
    manager->deleteEnvironmentAsync("doomed");
    // The removal is reported by a queued call, so nothing has finished when the call returns.
    QCOMPARE(recorder.all(), QStringList({"started: Deleting environment 'doomed'...", "deleteStarted: doomed"}));
    QVERIFY(recorder.waitFinished());
    QCOMPARE(recorder.all(), QStringList({"started: Deleting environment 'doomed'...", "deleteStarted: doomed",
                                          "deleteFinished: doomed ok", "deleted: doomed", "finished: "}));
    QVERIFY(!QFileInfo::exists(folder));
    QFile precious(outside + "/precious.txt");
    QVERIFY(precious.open(QIODevice::ReadOnly));
    QCOMPARE(precious.readAll(), QByteArray("mine"));
}

void EnvironmentOperationsTest::deletingAnythingButAnEnvironmentIsRefused()
{
    for (const QString &name : {QString("absent"), QString(), QString(".."), QString("../python")}) {
        OperationRecorder recorder(manager);
        manager->deleteEnvironmentAsync(name);
        QVERIFY(recorder.waitFinished(2000));
        QCOMPARE(recorder.all(), QStringList({"finished: Environment not found"}));
    }
    QVERIFY(manager->isUvInstalled());
}

void EnvironmentOperationsTest::replaceRemovesTheOldFolderBeforeCreating()
{
    create("swap", "quorix-cv2\nquorix-alpha==1.0\n");
    const QString folder = manager->environmentPath("swap");
    QFile stale(folder + "/stale.txt");
    QVERIFY(stale.open(QIODevice::WriteOnly));
    stale.close();
    QFile requirements(folder + "/requirements.txt");
    QVERIFY(requirements.open(QIODevice::WriteOnly | QIODevice::Truncate));
    requirements.write("quorix-cv2\nquorix-beta\n");
    requirements.close();

    OperationRecorder recorder(manager);
    // The new list lives in the folder being replaced, so it has to be read before the removal.
    manager->replaceEnvironmentAsync("swap", "3.11", folder + "/requirements.txt");
    QCOMPARE(recorder.all(), QStringList({"started: Replacing environment 'swap'...", "deleteStarted: swap"}));
    QVERIFY(recorder.waitFinished());
    QCOMPARE(recorder.finishedCount(), 1);
    QVERIFY2(recorder.succeeded(), qPrintable(recorder.all().join('\n')));
    QCOMPARE(recorder.events("started"),
             QStringList({"Replacing environment 'swap'...", "Creating environment 'swap' with Python 3.11...",
                          "Installing packages for 'swap'..."}));
    QCOMPARE(recorder.events("deleteFinished"), QStringList({"swap ok"}));
    QVERIFY(!QFileInfo::exists(folder + "/stale.txt"));
    QCOMPARE(listing("swap"), QStringList({"quorix-beta 1.0", "quorix-cv2 1.0"}));
}

void EnvironmentOperationsTest::environmentListShowsOnlyEnvironments()
{
    create("listed", "quorix-cv2\n");
    QDir().mkpath(manager->baseFolder() + "/not-an-env");
    QDir().mkpath(manager->baseFolder() + "/" + manager->profile().uvFileName().toUpper() + "/.qenv");
    const QList<PythonEnvironmentManager::Environment> environments = manager->environments();
    QCOMPARE(environments.size(), 1);
    const PythonEnvironmentManager::Environment &listed = environments.first();
    QCOMPARE(listed.name, QStringLiteral("listed"));
    QCOMPARE(listed.path, manager->baseFolder() + "/listed");
    QCOMPARE(listed.pythonPath, manager->baseFolder() + "/listed/.qenv/bin/python");
    QVERIFY(listed.pythonExists);
    QVERIFY2(listed.pythonVersion.startsWith("3.11."), qPrintable(listed.pythonVersion));
    QCOMPARE(manager->pythonVersion(bed.scratchPath("no-such-python")), QString());
}

void EnvironmentOperationsTest::missingUvStopsEveryOperation()
{
    bed.prepareBaseFolder(*manager, false);
    const QList<std::function<void()>> calls = {
            [this] { manager->createEnvironment("x", "3.11", QString()); },
            [this] { manager->replaceEnvironmentAsync("x", "3.11", QString()); },
            [this] { manager->syncEnvironment("x"); },
            [this] { manager->installPackage("x", "quorix-alpha"); },
            [this] { manager->updatePackage("x", "quorix-alpha"); },
            [this] { manager->uninstallPackages("x", {"quorix-alpha"}); },
    };
    for (const std::function<void()> &call : calls) {
        OperationRecorder recorder(manager);
        call();
        QVERIFY(recorder.waitFinished(2000));
        QCOMPARE(recorder.all(), QStringList({"finished: UV is not installed"}));
    }
    QCOMPARE(QDir(manager->baseFolder()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot), QStringList());
}

QTEST_GUILESS_MAIN(EnvironmentOperationsTest)
#include "tst_environmentoperations.moc"
