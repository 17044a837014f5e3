#include "OperationRecorder.h"
#include "PyenvTestBed.h"
#include "TemporaryHome.h"
#include "pyenv/PythonEnvironmentManager.h"

#include <QtTest>

using Quorix::PythonEnvironmentManager;
using Quorix::Testing::OperationRecorder;
using Quorix::Testing::PyenvTestBed;

class QenvImportTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void packageWithoutPythonBuildsA311EnvironmentWithItsFiles();
    void rejectedFilesWriteNothing_data();
    void rejectedFilesWriteNothing();
    void importingTheSameFileTwiceKeepsTheFirstEnvironment();
    void emptyExtraIndexListWritesNoIndexFile();
    void unavailablePythonRemovesTheFolderAndTheTemporaryList();

private:
    QString writeQenv(const QByteArray &content);
    QString readFile(const QString &path);
    QStringList baseEntries();

    Quorix::Testing::TemporaryHome home;
    PyenvTestBed bed;
    PythonEnvironmentManager *manager = nullptr;
};

void QenvImportTest::initTestCase()
{
    QVERIFY2(bed.isReady(), qPrintable(bed.problem()));
    manager = PythonEnvironmentManager::instance();
}

void QenvImportTest::init()
{
    bed.prepareBaseFolder(*manager, true);
}

QString QenvImportTest::writeQenv(const QByteArray &content)
{
    const QString path = bed.scratchPath("package.qenv");
    QFile file(path);
    file.open(QIODevice::WriteOnly | QIODevice::Truncate);
    file.write(content);
    return path;
}

QString QenvImportTest::readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString("<missing>");
}

QStringList QenvImportTest::baseEntries()
{
    return QDir(manager->baseFolder()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
}

void QenvImportTest::packageWithoutPythonBuildsA311EnvironmentWithItsFiles()
{
    const QJsonArray extras{bed.extraIndexUrl(), bed.secondExtraIndexUrl()};
    const QJsonObject qenv{
            {"name", "vision"},
            {"packages", QJsonArray{"quorix-cv2", 7, "quorix-extra==1.0", QJsonObject{}, "quorix-extra-two"}},
            {"extra_index_urls", extras},
            {"description", "ignored"}};
    OperationRecorder recorder(manager);
    manager->createFromQenv(writeQenv(QJsonDocument(qenv).toJson()));
    QVERIFY(recorder.waitFinished());
    QCOMPARE(recorder.finishedCount(), 1);
    QVERIFY2(recorder.succeeded(), qPrintable(recorder.all().join('\n')));
    QCOMPARE(recorder.events("started"), QStringList({"Creating environment 'vision' from .qenv with Python 3.11...",
                                                      "Installing packages for 'vision'..."}));
    QCOMPARE(recorder.events("created"), QStringList({"vision"}));
    QCOMPARE(recorder.events("changed"), QStringList({"vision"}));

    const QString folder = manager->environmentPath("vision");
    QCOMPARE(readFile(folder + "/requirements.txt"),
             QStringLiteral("quorix-cv2\n\nquorix-extra==1.0\n\nquorix-extra-two\n"));
    QCOMPARE(QJsonDocument::fromJson(readFile(folder + "/index_urls.json").toUtf8()).object(),
             QJsonObject({{"extra_index_urls", extras}}));
    QVERIFY(readFile(folder + "/index_urls.json").contains("\n    \"extra_index_urls\""));
    QVERIFY(!QFileInfo::exists(QDir::tempPath() + "/qenv_requirements.txt"));
    QVERIFY2(manager->pythonVersion(manager->pythonPath("vision")).startsWith("3.11."),
             qPrintable(manager->pythonVersion(manager->pythonPath("vision"))));
    QStringList names;
    for (const PythonEnvironmentManager::Package &package : manager->listPackages("vision"))
        names << package.name;
    QCOMPARE(names, QStringList({"quorix-cv2", "quorix-extra", "quorix-extra-two"}));
}

void QenvImportTest::rejectedFilesWriteNothing_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("error");
    QTest::newRow("not json") << QByteArray("{\"name\": ") << "Invalid .qenv file format";
    QTest::newRow("array") << QByteArray("[\"name\"]") << "Invalid .qenv file format";
    QTest::newRow("no name") << QByteArray("{\"python\": \"3.11\"}") << ".qenv file missing environment name";
    QTest::newRow("empty name") << QByteArray("{\"name\": \"\"}") << ".qenv file missing environment name";
    QTest::newRow("python 2.7") << QByteArray("{\"name\": \"old\", \"python\": \"2.7\"}")
                                << "Invalid Python version: 2.7";
    QTest::newRow("bare 3") << QByteArray("{\"name\": \"old\", \"python\": \"3\"}") << "Invalid Python version: 3";
    QTest::newRow("parent path") << QByteArray("{\"name\": \"../x\"}") << ".qenv file has an invalid environment name";
    QTest::newRow("sub folder") << QByteArray("{\"name\": \"a/b\"}") << ".qenv file has an invalid environment name";
    QTest::newRow("dots") << QByteArray("{\"name\": \"..\"}") << ".qenv file has an invalid environment name";
    QTest::newRow("device") << QByteArray("{\"name\": \"NUL\"}") << ".qenv file has an invalid environment name";
    QTest::newRow("drive") << QByteArray("{\"name\": \"c:x\"}") << ".qenv file has an invalid environment name";
}

void QenvImportTest::rejectedFilesWriteNothing()
{
    QFETCH(QByteArray, content);
    QFETCH(QString, error);
    const QStringList before = baseEntries();
    const QStringList tempBefore = QDir(QDir::tempPath()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot);
    OperationRecorder recorder(manager);
    manager->createFromQenv(writeQenv(content));
    QVERIFY(recorder.waitFinished(2000));
    QCOMPARE(recorder.all(), QStringList({"finished: " + error}));
    QCOMPARE(baseEntries(), before);
    QCOMPARE(QDir(QDir::tempPath()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot), tempBefore);
    QVERIFY(!QFileInfo::exists(manager->baseFolder() + "/x"));
    QVERIFY(!QFileInfo::exists(QFileInfo(manager->baseFolder()).path() + "/x"));

    OperationRecorder missing(manager);
    manager->createFromQenv(bed.scratchPath("no-such.qenv"));
    QVERIFY(missing.waitFinished(2000));
    QCOMPARE(missing.all(), QStringList({"finished: Failed to open .qenv file"}));
}

void QenvImportTest::importingTheSameFileTwiceKeepsTheFirstEnvironment()
{
    const QString path
            = writeQenv(R"({"name": "twice", "python": "3.11", "packages": ["quorix-cv2", "quorix-alpha==1.0"]})");
    OperationRecorder first(manager);
    manager->createFromQenv(path);
    QVERIFY(first.waitFinished());
    QVERIFY2(first.succeeded(), qPrintable(first.error()));
    const QString requirements = readFile(manager->environmentPath("twice") + "/requirements.txt");
    QCOMPARE(requirements, QStringLiteral("quorix-cv2\nquorix-alpha==1.0\n"));

    OperationRecorder second(manager);
    manager->createFromQenv(path);
    QVERIFY(second.waitFinished(2000));
    QCOMPARE(second.all(), QStringList({"finished: Environment 'twice' already exists"}));
    QCOMPARE(readFile(manager->environmentPath("twice") + "/requirements.txt"), requirements);
    QCOMPARE(manager->listPackages("twice").size(), 2);
}

void QenvImportTest::emptyExtraIndexListWritesNoIndexFile()
{
    OperationRecorder recorder(manager);
    manager->createFromQenv(writeQenv(R"({"name": "plain", "packages": [], "extra_index_urls": []})"));
    QVERIFY(recorder.waitFinished());
    QCOMPARE(recorder.finishedCount(), 1);
    QVERIFY2(recorder.succeeded(), qPrintable(recorder.error()));
    // With nothing to install the import ends right after creation, without verifying imports.
    QCOMPARE(recorder.events("started"), QStringList({"Creating environment 'plain' from .qenv with Python 3.11..."}));
    QVERIFY(!recorder.events("progress").contains("Verifying critical imports..."));
    const QString folder = manager->environmentPath("plain");
    QVERIFY(QFileInfo(folder + "/.qenv").isDir());
    QVERIFY(!QFileInfo::exists(folder + "/index_urls.json"));
    QCOMPARE(readFile(folder + "/requirements.txt"), QString());
}

void QenvImportTest::unavailablePythonRemovesTheFolderAndTheTemporaryList()
{
    OperationRecorder recorder(manager);
    manager->createFromQenv(writeQenv(R"({"name": "future", "python": "3.99", "packages": ["quorix-cv2"],
                                         "extra_index_urls": ["http://127.0.0.1:9/simple"]})"));
    QVERIFY(recorder.waitFinished());
    QCOMPARE(recorder.finishedCount(), 1);
    QVERIFY2(recorder.error().startsWith("Failed to create virtual environment.\n\n"), qPrintable(recorder.error()));
    QVERIFY(!QFileInfo::exists(manager->environmentPath("future")));
    QVERIFY(!QFileInfo::exists(QDir::tempPath() + "/qenv_requirements.txt"));
    QVERIFY(recorder.events("created").isEmpty());
}

QTEST_GUILESS_MAIN(QenvImportTest)
#include "tst_qenvimport.moc"
