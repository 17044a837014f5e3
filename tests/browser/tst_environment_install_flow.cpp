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
#include <QJsonArray>
#include <QTest>
#include <QUrl>

#include <memory>

using namespace Quorix;
using namespace Quorix::Testing;

namespace {

constexpr int installLimitMs = 180000;
const QString demoEnvironment = QStringLiteral("cv-base-cpu");

} // namespace

// Installing an environment from the catalogue with the real uv, replacing it only when asked, refusing bad packages.
class EnvironmentInstallFlowTest : public QObject
{
    Q_OBJECT

    TemporaryHome home;
    PyenvTestBed bed;
    CatalogueServerFixture catalogue{true};
    PythonEnvironmentManager *manager = nullptr;
    PluginHost host;
    std::unique_ptr<OnlineResourcesWidget> page;
    QString demoId;
    QString uvArchive;

    QStringList baseEntries() const
    {
        return QDir(manager->baseFolder()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
    }

    QStringList environmentsWithPython() const
    {
        QStringList names;
        for (const PythonEnvironmentManager::Environment &environment : manager->environments()) {
            if (environment.pythonExists)
                names << environment.name;
        }
        return names;
    }

    // Clicks Install and answers one box; returns its title and text.
    QStringList install(const QString &envId, QMessageBox::StandardButton answer, int timeoutMs)
    {
        ModalAnswerer answerer;
        answerer.pressButton(answer, timeoutMs);
        QMetaObject::invokeMethod(page.get(), "onQenvInstallClicked", Q_ARG(QString, envId));
        answerer.waitForAnswer(timeoutMs);
        return {answerer.seenTitle(), answerer.seenText()};
    }

private slots:
    void initTestCase()
    {
        QVERIFY2(bed.isReady(), qPrintable(bed.problem()));
        QVERIFY2(catalogue.start(), qPrintable(catalogue.error()));
        qputenv("QUORIX_SERVER_URL", catalogue.origin().toUtf8());
        // uv installs the demo environment's packages from stand-ins of the same names and versions.
        qputenv("UV_DEFAULT_INDEX", bed.demoIndexUrl().toUtf8());
        uvArchive = bed.scratchPath("uv-x86_64-unknown-linux-gnu.tar.gz");
        qputenv("QUORIX_UV_DOWNLOAD_URL", QUrl::fromLocalFile(uvArchive).toString().toUtf8());
        manager = PythonEnvironmentManager::instance();
        const QJsonArray found = catalogue.get("qenv/list?search=CV%20Base").json.value("environments").toArray();
        QCOMPARE(found.size(), 1);
        demoId = found.first().toObject().value("id").toString();
        // Signed in as its author, who may download it whatever its visibility.
        const QString authorId = found.first().toObject().value("author").toObject().value("discord_id").toString();
        const QString token = catalogue.signIn(authorId, "author");
        QVERIFY(!token.isEmpty());
        host.signIn({authorId, "author", QString(), QString(), token});
    }

    void init()
    {
        bed.prepareBaseFolder(*manager, true);
        page = std::make_unique<OnlineResourcesWidget>(nullptr);
        page->setPluginHost(&host);
    }

    void cleanup() { page.reset(); }

    void demoEnvironmentInstallsThenIsReplacedOnlyWhenConfirmed()
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
        const QStringList installed{"Environment Installed",
                                    QString("The environment '%1' has been installed.").arg(demoEnvironment)};
        QCOMPARE(install(demoId, QMessageBox::Ok, installLimitMs), installed);
        QCOMPARE(environmentsWithPython(), QStringList{demoEnvironment});
        QCOMPARE(TestFiles::read(manager->environmentPath(demoEnvironment) + "/requirements.txt"),
                 QByteArray("numpy==1.26.4\nopencv-python==4.9.0.80\npillow==10.2.0\n"));
        QVERIFY2(
                !labels.isEmpty()
                        && labels.first().startsWith(QString("Creating environment '%1' from .qenv with Python 3.11...")
                                                             .arg(demoEnvironment)),
                qPrintable(labels.join(" | ")));

        const QString marker = manager->environmentPath(demoEnvironment) + "/marker.txt";
        QVERIFY(TestFiles::write(marker, "mine"));
        QCOMPARE(install(demoId, QMessageBox::No, 30000),
                 (QStringList{"Replace Environment",
                              QString("An environment named '%1' already exists.\n\nDo you want to replace it?")
                                      .arg(demoEnvironment)}));
        QTest::qWait(200);
        QVERIFY(QFile::exists(marker));

        ModalAnswerer replaced;
        replaced.pressButton(QMessageBox::Ok, installLimitMs);
        QCOMPARE(install(demoId, QMessageBox::Yes, 30000).first(), "Replace Environment");
        QVERIFY(replaced.waitForAnswer(installLimitMs));
        QCOMPARE((QStringList{replaced.seenTitle(), replaced.seenText()}), installed);
        QVERIFY(!QFile::exists(marker));
        QCOMPARE(environmentsWithPython(), QStringList{demoEnvironment});
    }

    void unusablePackagesAreRefusedBeforeTheManagerRuns_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QString>("message");
        QTest::newRow("over 10 MB") << "{\"name\": \"big\"}" + QByteArray(10 * 1024 * 1024, ' ')
                                    << "Failed to read environment file.";
        QTest::newRow("not JSON") << QByteArray("name = vision") << "Invalid environment file format.";
        QTest::newRow("JSON array") << QByteArray("[\"vision\"]") << "Invalid environment file format.";
        QTest::newRow("name that is a path")
                << QByteArray(R"({"name": "../escape"})") << "Invalid environment file format.";
        QTest::newRow("reserved device name") << QByteArray(R"({"name": "NUL"})") << "Invalid environment file format.";
        QTest::newRow("no name") << QByteArray(R"({"python": "3.11"})") << "Environment file missing name.";
    }

    void unusablePackagesAreRefusedBeforeTheManagerRuns()
    {
        QFETCH(QByteArray, content);
        QFETCH(QString, message);
        const QString package = bed.scratchPath("downloaded.qenv");
        QVERIFY(TestFiles::write(package, content));
        const QStringList before = baseEntries();
        ModalAnswerer refused;
        refused.pressButton(QMessageBox::Ok);
        QMetaObject::invokeMethod(page.get(), "onEnvironmentDownloaded", Q_ARG(QString, package));
        QVERIFY(refused.waitForAnswer());
        QCOMPARE((QStringList{refused.seenTitle(), refused.seenText()}), (QStringList{"Error", message}));
        QTest::qWait(100);
        QVERIFY(!QApplication::activeModalWidget());
        QCOMPARE(baseEntries(), before);
    }

    void failedDownloadSaysSo()
    {
        QCOMPARE(install("no-such-environment", QMessageBox::Ok, 10000),
                 (QStringList{"Download Failed", "Failed to download environment file."}));
        QVERIFY(!page->findChild<DownloadProgressDialog *>("downloadProgressDialog")->isVisible());
    }

    void missingUvIsFetchedBeforeTheImport_data()
    {
        QTest::addColumn<bool>("usableArchive");
        QTest::addColumn<QString>("title");
        QTest::addColumn<QString>("textStart");
        QTest::newRow("release archive") << true << "Environment Installed"
                                         << "The environment '" + demoEnvironment;
        QTest::newRow("broken archive") << false << "Installation Failed"
                                        << "Failed to install UV: ";
    }

    void missingUvIsFetchedBeforeTheImport()
    {
        QFETCH(bool, usableArchive);
        QFETCH(QString, title);
        QFETCH(QString, textStart);
        bed.prepareBaseFolder(*manager, false);
        QFile::remove(uvArchive);
        const QString packing = usableArchive ? "d=$(mktemp -d) && mkdir \"$d/uv-release\" && "
                                                "cp \"$1\" \"$d/uv-release/uv\" && "
                                                "tar -czf \"$2\" -C \"$d\" uv-release && rm -rf \"$d\""
                                              : "head -c 4096 /dev/urandom > \"$2\"";
        QCOMPARE(PyenvTestBed::run("bash", {"-c", packing, "pack", PyenvTestBed::uvProgram(), uvArchive}).exitCode, 0);
        const QStringList outcome = install(demoId, QMessageBox::Ok, installLimitMs);
        QCOMPARE(outcome.first(), title);
        QVERIFY2(outcome.last().startsWith(textStart), qPrintable(outcome.last()));
        QCOMPARE(manager->isUvInstalled(), usableArchive);
        QCOMPARE(environmentsWithPython(), usableArchive ? QStringList{demoEnvironment} : QStringList{});
    }
};

QTEST_MAIN(EnvironmentInstallFlowTest)
#include "tst_environment_install_flow.moc"
