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

class QenvImportTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init() { bed.prepareBaseFolder(*manager, true); }
    void packageBuildsAnEnvironmentWithItsFiles();
    void rejectedFilesWriteNothing_data();
    void rejectedFilesWriteNothing();
    void importingTheSameFileTwiceKeepsTheFirstEnvironment();
    void unavailablePythonRemovesTheFolderAndTheTemporaryList();

private:
    QString importQenv(const QByteArray &qenv, OperationRecorder &recorder, int limitMs = 60000);

    Quorix::Testing::TemporaryHome home;
    PyenvTestBed bed;
    PythonEnvironmentManager *manager = nullptr;
};

void QenvImportTest::initTestCase()
{
    QVERIFY2(bed.isReady(), qPrintable(bed.problem()));
    manager = PythonEnvironmentManager::instance();
}

// Imports the package text and returns the folder of the environment it names.
QString QenvImportTest::importQenv(const QByteArray &qenv, OperationRecorder &recorder, int limitMs)
{
    manager->createFromQenv(bed.writeFile("package.qenv", qenv));
    recorder.waitFinished(limitMs);
    return manager->environmentPath(QJsonDocument::fromJson(qenv).object().value("name").toString());
}

void QenvImportTest::packageBuildsAnEnvironmentWithItsFiles()
{
    const QJsonArray extras{bed.extraIndexUrl(), bed.secondExtraIndexUrl()};
    const QJsonObject qenv{
            {"name", "vision"},
            {"packages", QJsonArray{"quorix-cv2", 7, "quorix-extra==1.0", QJsonObject{}, "quorix-extra-two"}},
            {"extra_index_urls", extras},
            {"description", "ignored"}};
    OperationRecorder recorder(manager);
    const QString folder = importQenv(QJsonDocument(qenv).toJson(), recorder);
    QCOMPARE(recorder.finishedCount(), 1);
    QVERIFY2(recorder.succeeded(), qPrintable(recorder.all().join('\n')));
    QCOMPARE(recorder.events("started"), QStringList({"Creating environment 'vision' from .qenv with Python 3.11...",
                                                      "Installing packages for 'vision'..."}));
    QCOMPARE(recorder.events("created"), QStringList({"vision"}));
    QCOMPARE(recorder.events("changed"), QStringList({"vision"}));
    QCOMPARE(TestFiles::read(folder + "/requirements.txt"),
             QByteArray("quorix-cv2\n\nquorix-extra==1.0\n\nquorix-extra-two\n"));
    const QByteArray indexes = TestFiles::read(folder + "/index_urls.json");
    QCOMPARE(QJsonDocument::fromJson(indexes).object(), QJsonObject({{"extra_index_urls", extras}}));
    QVERIFY(indexes.contains("\n    \"extra_index_urls\""));
    QVERIFY(!QFileInfo::exists(QDir::tempPath() + "/qenv_requirements.txt"));
    QVERIFY(manager->pythonVersion(manager->pythonPath("vision")).startsWith("3.11."));
    QCOMPARE(manager->listPackages("vision").size(), 3);

    // With nothing to install the import ends right after creation, without verifying imports or an index file.
    OperationRecorder empty(manager);
    const QString plain = importQenv(R"({"name": "plain", "packages": [], "extra_index_urls": []})", empty);
    QVERIFY2(empty.succeeded(), qPrintable(empty.error()));
    QCOMPARE(empty.events("started"), QStringList({"Creating environment 'plain' from .qenv with Python 3.11..."}));
    QCOMPARE(empty.events("created"), QStringList({"plain"}));
    QVERIFY(!empty.events("progress").contains("Verifying critical imports..."));
    QVERIFY(QFileInfo(plain + "/.qenv").isDir() && !QFileInfo::exists(plain + "/index_urls.json"));
    QCOMPARE(TestFiles::read(plain + "/requirements.txt"), QByteArray());
}

void QenvImportTest::rejectedFilesWriteNothing_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("error");
    const QString invalidName = ".qenv file has an invalid environment name";
    QTest::newRow("not json") << QByteArray("{\"name\": ") << "Invalid .qenv file format";
    QTest::newRow("array") << QByteArray("[\"name\"]") << "Invalid .qenv file format";
    QTest::newRow("no name") << QByteArray("{\"python\": \"3.11\"}") << ".qenv file missing environment name";
    QTest::newRow("empty name") << QByteArray("{\"name\": \"\"}") << ".qenv file missing environment name";
    QTest::newRow("python 2.7") << QByteArray("{\"name\": \"old\", \"python\": \"2.7\"}")
                                << "Invalid Python version: 2.7";
    QTest::newRow("bare 3") << QByteArray("{\"name\": \"old\", \"python\": \"3\"}") << "Invalid Python version: 3";
    for (const char *name : {"../x", "a/b", "..", "NUL", "c:x"})
        QTest::newRow(name) << "{\"name\": \"" + QByteArray(name) + "\"}" << invalidName;
}

void QenvImportTest::rejectedFilesWriteNothing()
{
    QFETCH(QByteArray, content);
    QFETCH(QString, error);
    const QStringList tempBefore = QDir(QDir::tempPath()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot);
    OperationRecorder recorder(manager);
    importQenv(content, recorder, 2000);
    QCOMPARE(recorder.all(), QStringList({"finished: " + error}));
    QCOMPARE(QDir(manager->baseFolder()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot), QStringList{"uv"});
    QCOMPARE(QDir(QDir::tempPath()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot), tempBefore);
    QVERIFY(!QFileInfo::exists(QFileInfo(manager->baseFolder()).path() + "/x"));

    OperationRecorder missing(manager);
    manager->createFromQenv(bed.scratchPath("no-such.qenv"));
    QVERIFY(missing.waitFinished(2000));
    QCOMPARE(missing.all(), QStringList({"finished: Failed to open .qenv file"}));
}

void QenvImportTest::importingTheSameFileTwiceKeepsTheFirstEnvironment()
{
    const QByteArray qenv = R"({"name": "twice", "python": "3.11", "packages": ["quorix-cv2", "quorix-alpha==1.0"]})";
    OperationRecorder first(manager);
    const QString folder = importQenv(qenv, first);
    QVERIFY2(first.succeeded(), qPrintable(first.error()));
    QCOMPARE(TestFiles::read(folder + "/requirements.txt"), QByteArray("quorix-cv2\nquorix-alpha==1.0\n"));

    OperationRecorder second(manager);
    importQenv(qenv, second, 2000);
    QCOMPARE(second.all(), QStringList({"finished: Environment 'twice' already exists"}));
    QCOMPARE(TestFiles::read(folder + "/requirements.txt"), QByteArray("quorix-cv2\nquorix-alpha==1.0\n"));
    QCOMPARE(manager->listPackages("twice").size(), 2);
}

void QenvImportTest::unavailablePythonRemovesTheFolderAndTheTemporaryList()
{
    OperationRecorder recorder(manager);
    const QString folder = importQenv(R"({"name": "future", "python": "3.99", "packages": ["quorix-cv2"],
                                      "extra_index_urls": ["http://127.0.0.1:9/simple"]})",
                                      recorder);
    QCOMPARE(recorder.finishedCount(), 1);
    QVERIFY2(recorder.error().startsWith("Failed to create virtual environment.\n\n"), qPrintable(recorder.error()));
    QVERIFY(!QFileInfo::exists(folder) && !QFileInfo::exists(QDir::tempPath() + "/qenv_requirements.txt"));
    QVERIFY(recorder.events("created").isEmpty());
}

QTEST_GUILESS_MAIN(QenvImportTest)
#include "tst_qenvimport.moc"
