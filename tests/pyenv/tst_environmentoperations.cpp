#include "OperationRecorder.h"
#include "PyenvTestBed.h"
#include "TemporaryHome.h"
#include "TestFiles.h"
#include "pyenv/PythonEnvironmentManager.h"

#include <QtTest>

using Quorix::PythonEnvironmentManager;
using Quorix::Testing::OperationRecorder;
using Quorix::Testing::PyenvTestBed;
using Quorix::Testing::TestFiles;

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

private:
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
    manager->createEnvironment(env, "3.11", bed.writeFile(env + "-requirements.txt", requirements));
    QVERIFY(recorder.waitFinished());
    QVERIFY2(recorder.succeeded(), qPrintable(recorder.error()));
}

void EnvironmentOperationsTest::createInstallsTheListAndReportsEachStep_data()
{
    QTest::addColumn<QString>("python");
    QTest::addColumn<QByteArray>("requirements"); // empty: the default list
    QTest::addColumn<QString>("error"); // ending in a blank line: the start of the message
    QTest::addColumn<QStringList>("packages");

    QTest::newRow("own list") << "3.11" << QByteArray("quorix-cv2\nquorix-alpha==1.0\n") << ""
                              << QStringList{"quorix-alpha 1.0", "quorix-cv2 1.0"};
    // The local index has none of the default packages, so uv's refusal comes back through the message.
    QTest::newRow("default list") << "3.11" << QByteArray() << "Package installation failed.\n\n" << QStringList();
    QTest::newRow("python that is not there")
            << "3.7" << QByteArray("quorix-cv2\n") << "Failed to create virtual environment.\n\n"
            << QStringList();
}

void EnvironmentOperationsTest::createInstallsTheListAndReportsEachStep()
{
    QFETCH(QString, python);
    QFETCH(QByteArray, requirements);
    QFETCH(QString, error);
    QFETCH(QStringList, packages);

    OperationRecorder recorder(manager);
    QSignalSpy loaded(manager, &PythonEnvironmentManager::packagesLoaded);
    manager->createEnvironment("env1", python,
                               requirements.isEmpty() ? QString() : bed.writeFile("r.txt", requirements));
    QVERIFY(recorder.waitFinished());
    QCOMPARE(recorder.finishedCount(), 1);
    QCOMPARE(recorder.error().left(error.size()), error);
    QCOMPARE(recorder.succeeded(), error.isEmpty());
    const QString folder = manager->environmentPath("env1");
    if (python == "3.7") {
        QVERIFY(recorder.error().contains("3.7"));
        QVERIFY(!QFileInfo::exists(folder));
        QVERIFY(recorder.events("created").isEmpty());
        return;
    }
    QCOMPARE(recorder.events("started"),
             QStringList({"Creating environment 'env1' with Python 3.11...", "Installing packages for 'env1'..."}));
    QCOMPARE(recorder.events("created"), QStringList({"env1"}));
    QCOMPARE(TestFiles::read(folder + "/requirements.txt"),
             requirements.isEmpty() ? QByteArray("# Quorix Default Python Environment\n\nnumpy\nscipy\nopencv-python\n"
                                                 "pillow\nimutils\nrequests\nmss\ncryptography\n")
                                    : requirements);
    if (!error.isEmpty()) {
        QVERIFY2(recorder.error().contains("numpy"), qPrintable(recorder.error()));
        return;
    }
    QVERIFY(recorder.events("progress").contains("Verifying critical imports..."));
    QCOMPARE(recorder.events("changed"), QStringList({"env1"}));
    QCOMPARE(listing("env1"), packages);
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

    OperationRecorder recorder(manager);
    // The stand-in cv2 refuses to import until this file appears, as a module still being written would.
    connect(manager, &PythonEnvironmentManager::operationProgress, &recorder,
            [this, becomesReady](const QString &text) {
                if (becomesReady && text == "Verifying critical imports...")
                    QTimer::singleShot(1000, [this] { bed.writeFile("cv2-ready", "ready"); });
            });
    QElapsedTimer clock;
    clock.start();
    manager->createEnvironment("slow", "3.11", bed.writeFile("r.txt", "quorix-flaky-cv2\n"));
    QVERIFY(recorder.waitFinished(90000));
    QCOMPARE(recorder.finishedCount(), 1);
    QCOMPARE(recorder.events("changed"), QStringList({"slow"}));
    const QStringList progress = recorder.events("progress");
    if (becomesReady) {
        QVERIFY2(recorder.succeeded(), qPrintable(recorder.all().join('\n')));
        QVERIFY(clock.elapsed() >= 2000);
        QVERIFY(!progress.contains("Retrying package installation..."));
        return;
    }
    QCOMPARE(recorder.error(), "Critical imports failed after retry: cv2\n\nTry reinstalling the environment.");
    QCOMPARE(progress.count("Import verification failed for: cv2. Retrying installation..."), 1);
    QCOMPARE(progress.count("Retrying package installation..."), 1);
    QCOMPARE(progress.count("Verifying critical imports..."), 2);
    QCOMPARE(recorder.events("started"),
             QStringList({"Creating environment 'slow' with Python 3.11...", "Installing packages for 'slow'..."}));
    // Three runs 2 s apart, twice.
    QVERIFY(clock.elapsed() >= 8000);
}

void EnvironmentOperationsTest::packageOperationsChangeWhatTheListingReports()
{
    create("pkgs", "quorix-cv2\nquorix-alpha==1.0\n");
    const QString folder = manager->environmentPath("pkgs");
    TestFiles::write(folder + "/index_urls.json",
                     QJsonDocument(QJsonObject{{"extra_index_urls",
                                                QJsonArray{bed.extraIndexUrl(), 42, bed.secondExtraIndexUrl()}}})
                             .toJson());
    QCOMPARE(manager->extraIndexUrls(folder), QStringList({bed.extraIndexUrl(), bed.secondExtraIndexUrl()}));

    const QList<std::pair<std::function<void()>, QString>> steps = {
            {[this] { manager->installPackage("pkgs", "quorix-beta"); }, "Installing quorix-beta..."},
            {[this] {
                 manager->installPackages("pkgs", {"quorix-extra", "quorix-extra-two"});
             },
             "Installing 2 packages..."},
            {[this] { manager->updatePackage("pkgs", "quorix-alpha"); }, "Updating quorix-alpha..."},
            {[this] { manager->uninstallPackage("pkgs", "quorix-beta"); }, "Uninstalling quorix-beta..."},
            {[this] {
                 manager->uninstallPackages("pkgs", {"quorix-extra", "quorix-extra-two"});
             },
             "Uninstalling 2 packages..."},
    };
    const QString extras = "quorix-extra 1.0|quorix-extra-two 1.0";
    const QStringList expected = {"quorix-alpha 1.0|quorix-beta 1.0|quorix-cv2 1.0",
                                  "quorix-alpha 1.0|quorix-beta 1.0|quorix-cv2 1.0|" + extras,
                                  "quorix-alpha 1.1|quorix-beta 1.0|quorix-cv2 1.0|" + extras,
                                  "quorix-alpha 1.1|quorix-cv2 1.0|" + extras, "quorix-alpha 1.1|quorix-cv2 1.0"};
    for (qsizetype i = 0; i < steps.size(); ++i) {
        OperationRecorder recorder(manager);
        steps.at(i).first();
        QVERIFY(recorder.waitFinished());
        QCOMPARE(recorder.finishedCount(), 1);
        QVERIFY2(recorder.succeeded(), qPrintable(recorder.error()));
        QCOMPARE(recorder.events("started"), QStringList({steps.at(i).second}));
        QCOMPARE(recorder.events("changed"), QStringList({"pkgs"}));
        QCOMPARE(listing("pkgs").join('|'), expected.at(i));
    }

    OperationRecorder failing(manager);
    manager->installPackage("pkgs", "quorix-nowhere");
    QVERIFY(failing.waitFinished());
    QVERIFY2(failing.error().startsWith("Operation failed.\n\n"), qPrintable(failing.error()));
    QVERIFY(failing.error().contains("quorix-nowhere") && failing.events("changed").isEmpty());
    QCOMPARE(listing("pkgs").join('|'), expected.last());
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
    QCOMPARE(listing("swap"), QStringList({"quorix-beta 1.0", "quorix-cv2 1.0"}));

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
    for (const QString &name : {QString("absent"), QString(), QString(".."), QString("../python")}) {
        OperationRecorder recorder(manager);
        manager->deleteEnvironmentAsync(name);
        QVERIFY(recorder.waitFinished(2000));
        QCOMPARE(recorder.all(), QStringList({"finished: Environment not found"}));
    }
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
    for (const std::function<void()> &call : calls) {
        OperationRecorder recorder(manager);
        call();
        QVERIFY(recorder.waitFinished(2000));
        QCOMPARE(recorder.all(), QStringList({"finished: UV is not installed"}));
    }
    QCOMPARE(QDir(manager->baseFolder()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot), QStringList());
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

QTEST_GUILESS_MAIN(EnvironmentOperationsTest)
#include "tst_environmentoperations.moc"
