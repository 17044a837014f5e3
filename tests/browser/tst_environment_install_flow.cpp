#include "CatalogueServerFixture.h"
#include "ModalAnswerer.h"
#include "PyenvTestBed.h"
#include "TemporaryHome.h"
#include "TestFiles.h"
#include "browser/DownloadProgressDialog.h"
#include "browser/OnlineResourcesWidget.h"
#include "pyenv/PythonEnvironmentManager.h"

#include <PluginHost.h>

#include <QApplication>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTest>
#include <QUrl>

#include <memory>

using namespace Quorix;
using namespace Quorix::Testing;

namespace {

constexpr int installLimitMs = 180000;
const QString demoEnvironment = QStringLiteral("cv-base-cpu");

} // namespace

class EnvironmentInstallFlowTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void demoEnvironmentInstallsThenIsReplacedOnlyWhenConfirmed();
    void unusablePackagesAreRefusedBeforeTheManagerRuns_data();
    void unusablePackagesAreRefusedBeforeTheManagerRuns();
    void failedDownloadSaysSo();
    void missingUvIsFetchedBeforeTheImport_data();
    void missingUvIsFetchedBeforeTheImport();

private:
    QStringList environmentNames() const;
    QStringList baseEntries() const;
    void install(const QString &envId);

    TemporaryHome home;
    PyenvTestBed bed;
    CatalogueServerFixture catalogue{true};
    PythonEnvironmentManager *manager = nullptr;
    PluginHost host;
    std::unique_ptr<OnlineResourcesWidget> page;
    QString demoId;
    QString uvArchive;
};

void EnvironmentInstallFlowTest::initTestCase()
{
    QVERIFY2(bed.isReady(), qPrintable(bed.problem()));
    QVERIFY2(catalogue.start(), qPrintable(catalogue.error()));
    qputenv("QUORIX_SERVER_URL", catalogue.origin().toUtf8());
    // uv installs the demo environment's packages from stand-ins of the same names and versions.
    qputenv("UV_DEFAULT_INDEX", bed.demoIndexUrl().toUtf8());
    uvArchive = bed.scratchPath("uv-x86_64-unknown-linux-gnu.tar.gz");
    qputenv("QUORIX_UV_DOWNLOAD_URL", QUrl::fromLocalFile(uvArchive).toString().toUtf8());
    manager = PythonEnvironmentManager::instance();

    const CatalogueServerFixture::Reply list = catalogue.get(QStringLiteral("qenv/list?search=CV%20Base"));
    const QJsonArray environments = list.json.value("environments").toArray();
    QCOMPARE(environments.size(), 1);
    const QJsonObject record = environments.first().toObject();
    demoId = record.value("id").toString();
    // Signed in as its author, who may download it whatever its visibility.
    const QString authorId = record.value("author").toObject().value("discord_id").toString();
    const QString token = catalogue.signIn(authorId, QStringLiteral("author"));
    QVERIFY(!token.isEmpty());
    host.signIn({authorId, QStringLiteral("author"), QString(), QString(), token});
}

void EnvironmentInstallFlowTest::init()
{
    bed.prepareBaseFolder(*manager, true);
    page = std::make_unique<OnlineResourcesWidget>(nullptr);
    page->setPluginHost(&host);
}

void EnvironmentInstallFlowTest::cleanup()
{
    page.reset();
}

QStringList EnvironmentInstallFlowTest::environmentNames() const
{
    QStringList names;
    const QList<PythonEnvironmentManager::Environment> environments = manager->environments();
    for (const PythonEnvironmentManager::Environment &environment : environments) {
        if (environment.pythonExists)
            names << environment.name;
    }
    return names;
}

QStringList EnvironmentInstallFlowTest::baseEntries() const
{
    return QDir(manager->baseFolder()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
}

void EnvironmentInstallFlowTest::install(const QString &envId)
{
    QMetaObject::invokeMethod(page.get(), "onQenvInstallClicked", Q_ARG(QString, envId));
}

void EnvironmentInstallFlowTest::demoEnvironmentInstallsThenIsReplacedOnlyWhenConfirmed()
{
    QStringList labels;
    QObject labelsInScope;
    connect(
            manager, &PythonEnvironmentManager::operationStarted, &labelsInScope,
            [this, &labels] {
                const auto *dialog = page->findChild<DownloadProgressDialog *>("downloadProgressDialog");
                labels << (dialog && dialog->isVisible() ? dialog->labelText() : QStringLiteral("<hidden>"));
            },
            Qt::QueuedConnection);

    ModalAnswerer installed;
    installed.pressButton(QMessageBox::Ok, installLimitMs);
    install(demoId);
    QVERIFY(installed.waitForAnswer(installLimitMs));
    QCOMPARE(installed.seenTitle(), QStringLiteral("Environment Installed"));
    QCOMPARE(installed.seenText(), QStringLiteral("The environment '%1' has been installed.").arg(demoEnvironment));
    QCOMPARE(environmentNames(), QStringList{demoEnvironment});
    QCOMPARE(TestFiles::read(manager->environmentPath(demoEnvironment) + "/requirements.txt"),
             QByteArray("numpy==1.26.4\nopencv-python==4.9.0.80\npillow==10.2.0\n"));
    QVERIFY(!labels.isEmpty());
    QVERIFY2(labels.first().startsWith(
                     QStringLiteral("Creating environment '%1' from .qenv with Python 3.11...").arg(demoEnvironment)),
             qPrintable(labels.join(" | ")));

    const QString marker = manager->environmentPath(demoEnvironment) + "/marker.txt";
    QVERIFY(QFile(marker).open(QIODevice::WriteOnly));

    ModalAnswerer keep;
    keep.pressButton(QMessageBox::No, 30000);
    install(demoId);
    QVERIFY(keep.waitForAnswer(30000));
    QCOMPARE(keep.seenTitle(), QStringLiteral("Replace Environment"));
    QCOMPARE(keep.seenText(), QStringLiteral("An environment named '%1' already exists.\n\nDo you want to replace it?")
                                      .arg(demoEnvironment));
    QTest::qWait(200);
    QVERIFY(QFile::exists(marker));

    ModalAnswerer replace;
    replace.pressButton(QMessageBox::Yes, 30000);
    ModalAnswerer replaced;
    replaced.pressButton(QMessageBox::Ok, installLimitMs);
    install(demoId);
    QVERIFY(replace.waitForAnswer(30000));
    QVERIFY(replaced.waitForAnswer(installLimitMs));
    QCOMPARE(replaced.seenTitle(), QStringLiteral("Environment Installed"));
    QVERIFY(!QFile::exists(marker));
    QCOMPARE(environmentNames(), QStringList{demoEnvironment});
}

void EnvironmentInstallFlowTest::unusablePackagesAreRefusedBeforeTheManagerRuns_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("message");

    const QByteArray padding(10 * 1024 * 1024, ' ');
    QTest::newRow("over 10 MB") << QByteArray("{\"name\": \"big\"}" + padding) << "Failed to read environment file.";
    QTest::newRow("not JSON") << QByteArray("name = vision") << "Invalid environment file format.";
    QTest::newRow("JSON array") << QByteArray("[\"vision\"]") << "Invalid environment file format.";
    QTest::newRow("name that is a path") << QByteArray(R"({"name": "../escape"})")
                                         << "Invalid environment file format.";
    QTest::newRow("reserved device name") << QByteArray(R"({"name": "NUL"})") << "Invalid environment file format.";
    QTest::newRow("no name") << QByteArray(R"({"python": "3.11"})") << "Environment file missing name.";
    QTest::newRow("empty name") << QByteArray(R"({"name": ""})") << "Environment file missing name.";
}

void EnvironmentInstallFlowTest::unusablePackagesAreRefusedBeforeTheManagerRuns()
{
    QFETCH(QByteArray, content);
    QFETCH(QString, message);

    const QString package = bed.scratchPath("downloaded.qenv");
    QFile file(package);
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(content);
    file.close();
    const QStringList before = baseEntries();

    ModalAnswerer refused;
    refused.pressButton(QMessageBox::Ok);
    QMetaObject::invokeMethod(page.get(), "onEnvironmentDownloaded", Q_ARG(QString, package));
    QVERIFY(refused.waitForAnswer());
    QCOMPARE(refused.seenTitle(), QStringLiteral("Error"));
    QCOMPARE(refused.seenText(), message);
    QTest::qWait(100);
    QVERIFY(!QApplication::activeModalWidget());
    QCOMPARE(baseEntries(), before);
}

void EnvironmentInstallFlowTest::failedDownloadSaysSo()
{
    ModalAnswerer failed;
    failed.pressButton(QMessageBox::Ok, 10000);
    install(QStringLiteral("no-such-environment"));
    QVERIFY(failed.waitForAnswer(10000));
    QCOMPARE(failed.seenTitle(), QStringLiteral("Download Failed"));
    QCOMPARE(failed.seenText(), QStringLiteral("Failed to download environment file."));
    const auto *dialog = page->findChild<DownloadProgressDialog *>("downloadProgressDialog");
    QVERIFY(dialog && !dialog->isVisible());
}

void EnvironmentInstallFlowTest::missingUvIsFetchedBeforeTheImport_data()
{
    QTest::addColumn<bool>("usableArchive");
    QTest::addColumn<QString>("title");
    QTest::addColumn<QString>("textStart");

    QTest::newRow("release archive") << true << "Environment Installed"
                                     << "The environment '" + demoEnvironment;
    QTest::newRow("broken archive") << false << "Installation Failed"
                                    << "Failed to install UV: ";
}

void EnvironmentInstallFlowTest::missingUvIsFetchedBeforeTheImport()
{
    QFETCH(bool, usableArchive);
    QFETCH(QString, title);
    QFETCH(QString, textStart);

    bed.prepareBaseFolder(*manager, false);
    QFile::remove(uvArchive);
    const QString packing = usableArchive
                                    ? "d=$(mktemp -d) && mkdir \"$d/uv-release\" && cp \"$1\" \"$d/uv-release/uv\" && "
                                      "tar -czf \"$2\" -C \"$d\" uv-release && rm -rf \"$d\""
                                    : "head -c 4096 /dev/urandom > \"$2\"";
    QCOMPARE(PyenvTestBed::run("bash", {"-c", packing, "pack", PyenvTestBed::uvProgram(), uvArchive}).exitCode, 0);

    ModalAnswerer outcome;
    outcome.pressButton(QMessageBox::Ok, installLimitMs);
    install(demoId);
    QVERIFY(outcome.waitForAnswer(installLimitMs));
    QCOMPARE(outcome.seenTitle(), title);
    QVERIFY2(outcome.seenText().startsWith(textStart), qPrintable(outcome.seenText()));
    QCOMPARE(manager->isUvInstalled(), usableArchive);
    QCOMPARE(environmentNames(), usableArchive ? QStringList{demoEnvironment} : QStringList{});
}

QTEST_MAIN(EnvironmentInstallFlowTest)
#include "tst_environment_install_flow.moc"
