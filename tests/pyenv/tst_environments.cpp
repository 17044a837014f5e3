#include "ModalAnswerer.h"
#include "OperationRecorder.h"
#include "PyenvTestBed.h"
#include "TemporaryHome.h"
#include "TestFiles.h"
#include "pyenv/PythonEnvironmentManager.h"
#include "pyenv/dialogs/CreateEnvironmentDialog.h"
#include "pyenv/dialogs/InstallPackageDialog.h"
#include "pyenv/dialogs/PythonEnvironmentDialog.h"

#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QRadioButton>
#include <QSettings>
#include <QTableWidget>
#include <QtTest>

#include <functional>
#include <memory>

using namespace Quorix;
using namespace Quorix::Testing;

namespace {

template<typename T = QWidget>
T *child(QWidget *parent, const char *name)
{
    T *found = parent->findChild<T *>(QString::fromLatin1(name));
    if (!found)
        qWarning("no child named %s", name);
    return found;
}

void typeInto(QWidget *dialog, const char *name, const QString &text)
{
    QLineEdit *edit = child<QLineEdit>(dialog, name);
    edit->clear();
    QTest::keyClicks(edit, text);
}

void click(QWidget *dialog, const char *name)
{
    child<QAbstractButton>(dialog, name)->click();
}

QStringList entries(const QString &folder)
{
    return QDir(folder).entryList(QDir::AllEntries | QDir::NoDotAndDotDot);
}

const QString noEnvironments = QStringLiteral("No environments found. Click 'New' to create one.");

} // namespace

// The manager and its windows driving the real uv against local package indexes: creating, importing, changing and
// removing environments, directly and through the windows.
class EnvironmentsTest : public QObject
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
    void qenvBuildsAnEnvironmentWithItsFiles();
    void rejectedQenvWritesNothing_data();
    void rejectedQenvWritesNothing();
    void qenvWithUnavailablePythonLeavesNothing();
    void packageSpecification_data();
    void packageSpecification();
    void createValidation_data();
    void createValidation();
    void createOffersPythonVersionsAndTheDefaultList();
    void createInstallUninstallUpdateFromTheWindow();
    void badPackageInputEndsInTheManagersMessage();
    void importSyncAndDeleteFromTheWindow();

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
                = run([&] { manager->createEnvironment(env, "3.11", bed.writeFile(env + ".txt", requirements)); });
        QVERIFY2(recorder->succeeded(), qPrintable(recorder->error()));
    }
    // Runs act on the next modal window with this title, from inside its event loop.
    void whenModal(const QString &title, const std::function<void(QWidget *)> &act);
    QStringList tableRows(PythonEnvironmentDialog &dialog);
    void installThroughDialog(PythonEnvironmentDialog &dialog, const QString &name, const char *option,
                              const char *field = nullptr, const QString &value = QString());

    TemporaryHome home;
    PyenvTestBed bed;
    PythonEnvironmentManager *manager = nullptr;
};

void EnvironmentsTest::initTestCase()
{
    QVERIFY2(bed.isReady(), qPrintable(bed.problem()));
    QVERIFY2(!PyenvTestBed::uvProgram().isEmpty(), "uv must be on PATH (scripts/setup-python-tools)");
    manager = PythonEnvironmentManager::instance();
}

void EnvironmentsTest::init()
{
    bed.prepareBaseFolder(*manager, true);
    qputenv("QUORIX_CV2_MARKER", bed.scratchPath("cv2-ready").toUtf8());
    QFile::remove(bed.scratchPath("cv2-ready"));
    QFile::remove(home.filePath("quorix_settings.ini"));
}

void EnvironmentsTest::whenModal(const QString &title, const std::function<void(QWidget *)> &act)
{
    auto *poll = new QTimer(this);
    poll->setInterval(20);
    connect(poll, &QTimer::timeout, this, [poll, title, act] {
        QWidget *window = QApplication::activeModalWidget();
        if (!window || !window->isVisible() || window->windowTitle() != title)
            return;
        poll->stop();
        poll->deleteLater();
        act(window);
    });
    poll->start();
    QTimer::singleShot(60000, poll, &QObject::deleteLater);
}

QStringList EnvironmentsTest::tableRows(PythonEnvironmentDialog &dialog)
{
    QStringList rows;
    QTableWidget *table = child<QTableWidget>(&dialog, "packageTable");
    for (int row = 0; row < table->rowCount(); ++row) {
        const QTableWidgetItem *name = table->item(row, 0);
        const QTableWidgetItem *version = table->item(row, 1);
        rows << (name ? name->text() : QString()) + (version ? " " + version->text() : QString());
    }
    return rows;
}

void EnvironmentsTest::installThroughDialog(PythonEnvironmentDialog &dialog, const QString &name, const char *option,
                                            const char *field, const QString &value)
{
    whenModal("Install Package", [=](QWidget *install) {
        typeInto(install, "packageEdit", name);
        click(install, option);
        if (field)
            typeInto(install, field, value);
        click(install, "installButton");
    });
    click(&dialog, "installButton");
}

void EnvironmentsTest::createInstallsTheListAndReportsEachStep_data()
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

void EnvironmentsTest::createInstallsTheListAndReportsEachStep()
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

void EnvironmentsTest::verificationRetriesOnceAfterTwoSecondPauses_data()
{
    QTest::addColumn<bool>("becomesReady");
    QTest::newRow("module ready a second later") << true;
    QTest::newRow("module never ready") << false;
}

void EnvironmentsTest::verificationRetriesOnceAfterTwoSecondPauses()
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

void EnvironmentsTest::packageOperationsChangeWhatTheListingReports()
{
    create("pkgs", "quorix-cv2\nquorix-alpha==1.0\n");
    const QString folder = manager->environmentPath("pkgs");
    // Only folders with an interpreter are environments, and uv's own never is.
    QDir().mkpath(manager->baseFolder() + "/not-an-env");
    QDir().mkpath(manager->baseFolder() + "/" + manager->profile().uvFileName().toUpper() + "/.qenv");
    const QList<PythonEnvironmentManager::Environment> environments = manager->environments();
    QCOMPARE(environments.size(), 1);
    const PythonEnvironmentManager::Environment &listed = environments.first();
    QCOMPARE(listed.name + '|' + listed.path + '|' + listed.pythonPath,
             "pkgs|" + folder + "|" + folder + "/.qenv/bin/python");
    QVERIFY2(listed.pythonExists && listed.pythonVersion.startsWith("3.11."), qPrintable(listed.pythonVersion));
    QCOMPARE(manager->pythonVersion(bed.scratchPath("no-such-python")), QString());

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
            {[&] { manager->uninstallPackage("pkgs", "quorix-beta"); }, "Uninstalling quorix-beta...",
             "quorix-alpha 1.0|quorix-cv2 1.0" + extras},
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
    QCOMPARE(listing("pkgs"), "quorix-alpha 1.0|quorix-cv2 1.0" + extras);
}

void EnvironmentsTest::deleteAndReplaceRunOnAWorker()
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

void EnvironmentsTest::refusedCallsTouchNothing()
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

void EnvironmentsTest::qenvBuildsAnEnvironmentWithItsFiles()
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
    // A second import of the name keeps the environment as it is.
    QCOMPARE(importQenv(R"({"name": "vision", "packages": ["quorix-alpha"]})", 2000)->all(),
             QStringList({"finished: Environment 'vision' already exists"}));
    QCOMPARE(TestFiles::read(folder + "/requirements.txt"),
             QByteArray("quorix-cv2\n\nquorix-extra==1.0\n\nquorix-extra-two\n"));

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

void EnvironmentsTest::rejectedQenvWritesNothing_data()
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

void EnvironmentsTest::rejectedQenvWritesNothing()
{
    QFETCH(QByteArray, content);
    QFETCH(QString, error);
    const QStringList tempBefore = entries(QDir::tempPath());
    QCOMPARE(importQenv(content, 2000)->all(), QStringList({"finished: " + error}));
    QCOMPARE(entries(manager->baseFolder()), QStringList{"uv"});
    QCOMPARE(entries(QDir::tempPath()), tempBefore);
    QVERIFY(!QFileInfo::exists(QFileInfo(manager->baseFolder()).path() + "/x"));
}

void EnvironmentsTest::qenvWithUnavailablePythonLeavesNothing()
{
    const auto recorder = importQenv(R"({"name": "future", "python": "3.99", "packages": ["quorix-cv2"],
                                       "extra_index_urls": ["http://127.0.0.1:9/simple"]})");
    QCOMPARE(recorder->finishedCount(), 1);
    QVERIFY2(recorder->error().startsWith("Failed to create virtual environment.\n\n"), qPrintable(recorder->error()));
    QVERIFY(!QFileInfo::exists(manager->environmentPath("future")));
    QVERIFY(!QFileInfo::exists(QDir::tempPath() + "/qenv_requirements.txt"));
    QVERIFY(recorder->events("created").isEmpty());
}

void EnvironmentsTest::packageSpecification_data()
{
    QTest::addColumn<QStringList>("typed"); // name, option, version, constraint
    QTest::addColumn<QString>("spec");
    QTest::addColumn<bool>("installEnabled");
    QTest::newRow("latest") << QStringList{" numpy ", "latestRadio", "", ""} << "numpy" << true;
    QTest::newRow("latest ignores other fields")
            << QStringList{"numpy", "latestRadio", "1.0", ">=2"} << "numpy" << true;
    QTest::newRow("specific") << QStringList{"numpy", "specificRadio", " 1.26.0 ", ""} << "numpy==1.26.0" << true;
    QTest::newRow("constraint") << QStringList{"numpy", "constraintRadio", "", " >=1.20,<2.0"} << "numpy>=1.20,<2.0"
                                << true;
    QTest::newRow("no name") << QStringList{"  ", "latestRadio", "", ""} << "" << false;
    QTest::newRow("specific without version")
            << QStringList{"numpy", "specificRadio", "  ", ">=1"} << "numpy==" << false;
    QTest::newRow("constraint without text") << QStringList{"numpy", "constraintRadio", "1.0", ""} << "numpy" << false;
    QTest::newRow("version without name") << QStringList{"", "specificRadio", "1.0", ""} << "==1.0" << false;
}

void EnvironmentsTest::packageSpecification()
{
    QFETCH(QStringList, typed);
    QFETCH(QString, spec);
    QFETCH(bool, installEnabled);
    InstallPackageDialog dialog;
    typeInto(&dialog, "packageEdit", typed.at(0));
    typeInto(&dialog, "specificVersionEdit", typed.at(2));
    typeInto(&dialog, "constraintEdit", typed.at(3));
    child<QRadioButton>(&dialog, qPrintable(typed.at(1)))->click();
    QCOMPARE(dialog.packageSpec(), spec);
    QCOMPARE(child<QPushButton>(&dialog, "installButton")->isEnabled(), installEnabled);
}

void EnvironmentsTest::createValidation_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("requirements"); // "default", a file name in the scratch folder, or empty
    QTest::addColumn<QString>("message");
    const QString characters = "Error: Name can only contain letters, numbers, hyphens, and underscores";
    const QString noFile = "Error: Please select a valid requirements file";
    QTest::newRow("empty") << "  " << "default" << "Error: Environment name is required";
    QTest::newRow("space") << "my env" << "default" << characters;
    QTest::newRow("dot") << "cuda-12.1" << "default" << characters;
    QTest::newRow("no file") << "vision" << "" << noFile;
    QTest::newRow("missing file") << "vision" << "missing.txt" << noFile;
    QTest::newRow("default list") << "vision_2" << "default" << "";
    QTest::newRow("file") << "vision-2" << "present.txt" << "";
    QTest::newRow("existing") << "existing" << "default"
                              << "Warning: An environment with this name already exists. It will be replaced.";
}

void EnvironmentsTest::createValidation()
{
    QFETCH(QString, name);
    QFETCH(QString, requirements);
    QFETCH(QString, message);
    QDir().mkpath(manager->environmentPath("existing"));
    bed.writeFile("present.txt", "quorix-alpha\n");
    const QString path = requirements.isEmpty() ? QString() : bed.scratchPath(requirements);

    CreateEnvironmentDialog dialog;
    dialog.setEnvironmentsFolder(manager->baseFolder());
    typeInto(&dialog, "nameEdit", name);
    if (requirements != "default") {
        click(&dialog, "fileRequirementsRadio");
        typeInto(&dialog, "requirementsPathEdit", path);
    }
    click(&dialog, "createButton");
    QCOMPARE(child<QLabel>(&dialog, "messageLabel")->text(), message);
    const bool accepted = message.isEmpty() || message.startsWith("Warning");
    QCOMPARE(dialog.result() == QDialog::Accepted, accepted);
    if (accepted) {
        QCOMPARE(dialog.environmentName(), name);
        QCOMPARE(dialog.requirementsPath(), requirements == "default" ? QString() : path);
    }
}

void EnvironmentsTest::createOffersPythonVersionsAndTheDefaultList()
{
    CreateEnvironmentDialog dialog;
    QComboBox *versions = child<QComboBox>(&dialog, "pythonVersionCombo");
    QStringList entries;
    for (int i = 0; i < versions->count(); ++i)
        entries << versions->itemText(i);
    QCOMPARE(entries, QStringList({"3.14", "3.13", "3.12", "3.11", "3.10", "3.9", "3.8"}));
    QCOMPARE(dialog.pythonVersion(), QStringLiteral("3.14"));
    QRadioButton *defaults = child<QRadioButton>(&dialog, "defaultRequirementsRadio");
    QVERIFY(defaults->isChecked());
    QCOMPARE(defaults->text(), QStringLiteral("Use default (numpy, scipy, opencv, pillow)"));
    dialog.setPlatformProfile(PlatformProfile::windows());
    QCOMPARE(defaults->text(), QStringLiteral("Use default (numpy, scipy, opencv, pillow, pywin32)"));
}

void EnvironmentsTest::createInstallUninstallUpdateFromTheWindow()
{
    PythonEnvironmentDialog dialog(manager);
    dialog.show();
    QListWidget *list = child<QListWidget>(&dialog, "environmentList");
    QTRY_COMPARE(list->count(), 1);
    QCOMPARE(list->item(0)->text(), noEnvironments);
    QCOMPARE(child<QLabel>(&dialog, "detailsLabel")->text(), QStringLiteral("Select an environment to view details"));

    const QString requirements = bed.writeFile("vision.txt", "quorix-cv2\nquorix-alpha==1.0\n");
    whenModal("Create New Environment", [=](QWidget *create) {
        typeInto(create, "nameEdit", "vision");
        child<QComboBox>(create, "pythonVersionCombo")->setCurrentText("3.11");
        click(create, "fileRequirementsRadio");
        typeInto(create, "requirementsPathEdit", requirements);
        click(create, "createButton");
    });
    ModalAnswerer setCurrent;
    setCurrent.pressButton(QMessageBox::Yes, 120000);
    click(&dialog, "newButton");
    QVERIFY(!child<QPushButton>(&dialog, "newButton")->isEnabled());
    QVERIFY(setCurrent.waitForAnswer(120000));
    QCOMPARE(setCurrent.seenText(), QStringLiteral("Environment 'vision' was created successfully.\n\nWould you like "
                                                   "to set it as your current Python environment?"));
    QSettings settings(home.filePath("quorix_settings.ini"), QSettings::IniFormat);
    QCOMPARE(settings.value("Application/pythonPath").toString(), manager->pythonPath("vision"));
    QTRY_COMPARE(tableRows(dialog), QStringList({"quorix-alpha 1.0", "quorix-cv2 1.0"}));
    QVERIFY(child<QLabel>(&dialog, "detailsLabel")->text().endsWith("Status: Ready"));

    // While an install runs nothing else may start on the environment, nor may it be chosen as the host's Python.
    OperationRecorder install(manager);
    installThroughDialog(dialog, "quorix-beta", "latestRadio");
    for (const char *name : {"newButton", "deleteButton", "installButton", "syncButton", "importButton",
                             "setCurrentButton", "selectButton"})
        QVERIFY2(!child<QPushButton>(&dialog, name)->isEnabled(), name);
    QVERIFY(install.waitFinished());
    QVERIFY2(install.succeeded(), qPrintable(install.error()));
    QTRY_COMPARE(tableRows(dialog), QStringList({"quorix-alpha 1.0", "quorix-beta 1.0", "quorix-cv2 1.0"}));
    QVERIFY(child<QPushButton>(&dialog, "syncButton")->isEnabled());

    QTableWidget *table = child<QTableWidget>(&dialog, "packageTable");
    table->selectRow(0);
    OperationRecorder update(manager);
    click(&dialog, "updateButton");
    QVERIFY(update.waitFinished());
    QCOMPARE(update.events("started"), QStringList({"Updating quorix-alpha..."}));
    QTRY_COMPARE(tableRows(dialog), QStringList({"quorix-alpha 1.1", "quorix-beta 1.0", "quorix-cv2 1.0"}));

    table->setSelectionMode(QAbstractItemView::MultiSelection);
    table->selectRow(0);
    table->selectRow(1);
    OperationRecorder uninstall(manager);
    ModalAnswerer confirm;
    confirm.pressButton(QMessageBox::Yes);
    click(&dialog, "uninstallButton");
    QCOMPARE(confirm.seenTitle(), QStringLiteral("Uninstall Packages"));
    QCOMPARE(confirm.seenText(), QStringLiteral("Uninstall 2 package(s)?"));
    QVERIFY(uninstall.waitFinished());
    QCOMPARE(uninstall.events("started"), QStringList({"Uninstalling 2 packages..."}));
    QTRY_COMPARE(tableRows(dialog), QStringList({"quorix-cv2 1.0"}));

    QFile::remove(home.filePath("quorix_settings.ini"));
    click(&dialog, "selectButton");
    QCOMPARE(dialog.result(), int(QDialog::Accepted));
    QSettings selected(home.filePath("quorix_settings.ini"), QSettings::IniFormat);
    QCOMPARE(selected.value("Application/pythonPath").toString(), manager->pythonPath("vision"));
}

void EnvironmentsTest::badPackageInputEndsInTheManagersMessage()
{
    create("plain", "quorix-cv2\n");
    PythonEnvironmentDialog dialog(manager);
    dialog.show();
    QTRY_COMPARE(tableRows(dialog), QStringList({"quorix-cv2 1.0"}));
    // The name, a constraint, and the detail of the message (empty: whatever uv says).
    const QString option = "--index-url=http://127.0.0.1:1/evil";
    for (const QStringList &input : QList<QStringList>{{"quorix-beta; rm -rf ~", "", ""},
                                                       {option, "", "'" + option + "' is not a package specification"},
                                                       {"quorix-beta", ">=9", ""}}) {
        OperationRecorder recorder(manager);
        ModalAnswerer failure;
        failure.pressButton(QMessageBox::Ok, 60000);
        if (input.at(1).isEmpty())
            installThroughDialog(dialog, input.at(0), "latestRadio");
        else
            installThroughDialog(dialog, input.at(0), "constraintRadio", "constraintEdit", input.at(1));
        QVERIFY(failure.waitForAnswer(60000));
        QVERIFY(recorder.waitFinished());
        const QString error = recorder.error();
        QCOMPARE(failure.seenText(), "Operation failed: " + error);
        QVERIFY2(input.at(2).isEmpty() ? error.startsWith("Operation failed.\n\n")
                                       : error == "Operation failed.\n\n" + input.at(2),
                 qPrintable(error));
        QTRY_COMPARE(tableRows(dialog), QStringList({"quorix-cv2 1.0"}));
        QVERIFY(child<QPushButton>(&dialog, "installButton")->isEnabled());
    }
}

void EnvironmentsTest::importSyncAndDeleteFromTheWindow()
{
    create("work", "quorix-cv2\n");
    PythonEnvironmentDialog dialog(manager);
    dialog.show();
    QTRY_COMPARE(tableRows(dialog), QStringList({"quorix-cv2 1.0"}));

    // The list is placed the way Import... leaves it; the file dialog itself is not driven here.
    const QString good = bed.writeFile("good.txt", "quorix-cv2\nquorix-gamma\n");
    const QString target = manager->environmentPath("work") + "/requirements.txt";
    QVERIFY(QFile::remove(target) && QFile::copy(good, target));
    OperationRecorder sync(manager);
    click(&dialog, "syncButton");
    QVERIFY(sync.waitFinished());
    QVERIFY2(sync.succeeded(), qPrintable(sync.error()));
    QTRY_COMPARE(tableRows(dialog), QStringList({"quorix-cv2 1.0", "quorix-gamma 1.0"}));

    bed.writeFile("good.txt", "quorix-cv2\nthis is not a requirement ===\n");
    QVERIFY(QFile::remove(target) && QFile::copy(good, target));
    OperationRecorder broken(manager);
    ModalAnswerer failure;
    failure.pressButton(QMessageBox::Ok, 60000);
    click(&dialog, "syncButton");
    QVERIFY(failure.waitForAnswer(60000));
    QVERIFY(broken.waitFinished());
    QVERIFY2(broken.error().startsWith("Package installation failed.\n\n"), qPrintable(broken.error()));
    QCOMPARE(failure.seenText(), "Operation failed: " + broken.error());

    OperationRecorder removal(manager);
    ModalAnswerer confirm;
    confirm.pressButton(QMessageBox::Yes);
    click(&dialog, "deleteButton");
    QCOMPARE(confirm.seenTitle(), QStringLiteral("Delete Environment"));
    QCOMPARE(confirm.seenText(), QStringLiteral("Are you sure you want to delete 'work'?\n\nThis will remove all "
                                                "packages and files in the environment."));
    QCOMPARE(confirm.seenButtons(), QStringList({"&Yes", "&No"}).replaceInStrings("&", ""));
    QVERIFY(removal.waitFinished());
    QVERIFY(!QFileInfo::exists(manager->environmentPath("work")));
    QListWidget *list = child<QListWidget>(&dialog, "environmentList");
    QTRY_COMPARE(list->item(0)->text(), noEnvironments);
    QVERIFY(!child<QPushButton>(&dialog, "deleteButton")->isEnabled());
}

QTEST_MAIN(EnvironmentsTest)
#include "tst_environments.moc"
