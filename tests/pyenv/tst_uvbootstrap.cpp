#include "LocalHttpServer.h"
#include "PyenvTestBed.h"
#include "TemporaryHome.h"
#include "pyenv/ArchiveExtractor.h"
#include "pyenv/PythonEnvironmentManager.h"

#include <QtTest>

using Quorix::ArchiveExtractor;
using Quorix::PlatformProfile;
using Quorix::PythonEnvironmentManager;
using Quorix::Testing::LocalHttpServer;
using Quorix::Testing::PyenvTestBed;

class UvBootstrapTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void subFolderArchiveInstallsAndSecondCallSendsNothing();
    void zipWithProgramAtRootInstalls();
    void programTwoLevelsDownIsNotFound();
    void httpFailureFallsBackToCurl();
    void curlFailureReportsWhatCurlSaid();
    void brokenArchiveLeavesNothingBehind();
    void hostileArchiveIsRefused_data();
    void hostileArchiveIsRefused();
    void missingToolGivesWayToTheNextMethod();

private:
    QByteArray archive(const QString &kind, const QString &memberPath);
    QList<QVariant> download();
    void verifyNoLeftovers();

    Quorix::Testing::TemporaryHome home;
    QTemporaryDir work;
    LocalHttpServer server;
    PythonEnvironmentManager *manager = nullptr;
};

void UvBootstrapTest::initTestCase()
{
    QVERIFY2(!PyenvTestBed::uvProgram().isEmpty(), "uv must be on PATH (scripts/setup-python-tools)");
    QDir().mkpath(work.filePath("tmp"));
    qputenv("TMPDIR", work.filePath("tmp").toUtf8());
    qputenv("QUORIX_UV_DOWNLOAD_URL", server.url("/uv-x86_64-unknown-linux-gnu.tar.gz").toUtf8());
    manager = PythonEnvironmentManager::instance();
}

void UvBootstrapTest::init()
{
    QDir(manager->baseFolder()).removeRecursively();
    server.setFailures({});
}

// Packs the installed uv the way a release does: kind "tar" for a tar.gz, "zip" for a zip; memberPath is where the
// program sits inside.
QByteArray UvBootstrapTest::archive(const QString &kind, const QString &memberPath)
{
    const QString staging = work.filePath("staging");
    QDir(staging).removeRecursively();
    const QString member = staging + "/" + memberPath;
    QDir().mkpath(QFileInfo(member).path());
    QFile::copy(PyenvTestBed::uvProgram(), member);
    const QString out = work.filePath("release." + kind);
    QFile::remove(out);
    const PyenvTestBed::Outcome packed
            = kind == "zip" ? PyenvTestBed::run("bash", {"-c", "cd \"$1\" && zip -qr \"$2\" .", "zip", staging, out})
                            : PyenvTestBed::run("tar", {"-czf", out, "-C", staging, "."});
    if (packed.exitCode != 0)
        qWarning() << packed.output;
    QFile file(out);
    file.open(QIODevice::ReadOnly);
    return file.readAll();
}

QList<QVariant> UvBootstrapTest::download()
{
    QSignalSpy finished(manager, &PythonEnvironmentManager::uvDownloadFinished);
    manager->downloadUv();
    if (finished.isEmpty() && !finished.wait(60000))
        return {};
    return finished.count() == 1 ? finished.takeFirst() : QList<QVariant>();
}

void UvBootstrapTest::verifyNoLeftovers()
{
    const QStringList left = QDir(QDir::tempPath()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
    QVERIFY2(left.isEmpty(), qPrintable(left.join(", ")));
}

void UvBootstrapTest::subFolderArchiveInstallsAndSecondCallSendsNothing()
{
    server.setBody(archive("tar", "uv-x86_64-unknown-linux-gnu/uv"));
    const int requestsBefore = server.requests().size();
    QSignalSpy progress(manager, &PythonEnvironmentManager::uvDownloadProgress);
    QCOMPARE(download(), QList<QVariant>({true, QString()}));
    QVERIFY(manager->isUvInstalled());
    QVERIFY(PyenvTestBed::run(manager->uvPath(), {"--version"}).output.startsWith("uv "));
    QVERIFY(!progress.isEmpty());
    QCOMPARE(progress.last().at(0).toLongLong(), progress.last().at(1).toLongLong());
    QCOMPARE(server.requests().size(), requestsBefore + 1);
    verifyNoLeftovers();

    QSignalSpy finished(manager, &PythonEnvironmentManager::uvDownloadFinished);
    manager->downloadUv();
    QCOMPARE(finished.count(), 1);
    QCOMPARE(finished.first(), QList<QVariant>({true, QString()}));
    QTest::qWait(200);
    QCOMPARE(server.requests().size(), requestsBefore + 1);
}

void UvBootstrapTest::zipWithProgramAtRootInstalls()
{
    server.setBody(archive("zip", "uv"));
    QCOMPARE(download(), QList<QVariant>({true, QString()}));
    QVERIFY(PyenvTestBed::run(manager->uvPath(), {"--version"}).output.startsWith("uv "));
    verifyNoLeftovers();
}

void UvBootstrapTest::programTwoLevelsDownIsNotFound()
{
    server.setBody(archive("tar", "release/bin/uv"));
    QCOMPARE(download(), QList<QVariant>({false, QString("Could not find uv in extracted archive")}));
    QVERIFY(!manager->isUvInstalled());
    verifyNoLeftovers();
}

void UvBootstrapTest::httpFailureFallsBackToCurl()
{
    server.setBody(archive("tar", "uv-x86_64-unknown-linux-gnu/uv"));
    server.setFailures({503});
    const int requestsBefore = server.requests().size();
    QCOMPARE(download(), QList<QVariant>({true, QString()}));
    QVERIFY(manager->isUvInstalled());
    const QStringList requests = server.requests().mid(requestsBefore);
    QCOMPARE(requests.size(), 2);
    QCOMPARE(requests.at(1), QStringLiteral("GET /uv-x86_64-unknown-linux-gnu.tar.gz HTTP/1.1"));
    verifyNoLeftovers();
}

void UvBootstrapTest::curlFailureReportsWhatCurlSaid()
{
    server.setBody(archive("tar", "uv-x86_64-unknown-linux-gnu/uv"));
    server.setFailures({503, 503});
    const QList<QVariant> result = download();
    QCOMPARE(result.value(0).toBool(), false);
    const QString error = result.value(1).toString();
    QVERIFY2(error.startsWith("Download failed. Qt network error, and curl fallback also failed.\n\ncurl: "),
             qPrintable(error));
    QVERIFY2(error.contains("503"), qPrintable(error));
    QVERIFY(!manager->isUvInstalled());
    verifyNoLeftovers();
}

void UvBootstrapTest::brokenArchiveLeavesNothingBehind()
{
    const QByteArray whole = archive("tar", "uv-x86_64-unknown-linux-gnu/uv");
    server.setBody(whole.left(whole.size() / 2));
    QCOMPARE(download(),
             QList<QVariant>({false, QString("Failed to extract UV archive.\n\nThe archive could not be unpacked.\n\n"
                                             "You can manually extract uv from the downloaded archive to:\n")
                                             + manager->uvPath()}));
    QVERIFY(!manager->isUvInstalled());
    verifyNoLeftovers();
}

void UvBootstrapTest::hostileArchiveIsRefused_data()
{
    QTest::addColumn<QString>("script");
    // Each archive also carries a valid program, so only the vetting stands between it and an install.
    const QString common = "import io, sys, tarfile\n"
                           "t = tarfile.open(sys.argv[1], 'w:gz')\n"
                           "def add(name, data=b'x', kind=tarfile.REGTYPE, link=''):\n"
                           "    i = tarfile.TarInfo(name); i.type = kind; i.linkname = link; i.size = len(data) if "
                           "kind == tarfile.REGTYPE else 0\n"
                           "    t.addfile(i, io.BytesIO(data) if kind == tarfile.REGTYPE else None)\n"
                           "add('uv-x86_64-unknown-linux-gnu/uv', open(sys.argv[3], 'rb').read())\n";
    QTest::newRow("parent step") << common + "add('uv-x86_64-unknown-linux-gnu/../../planted.txt')\nt.close()\n";
    QTest::newRow("link out")
            << common
                       + "add('uv-x86_64-unknown-linux-gnu/out', kind=tarfile.SYMTYPE, link=sys.argv[2])\n"
                         "add('uv-x86_64-unknown-linux-gnu/out/planted.txt')\nt.close()\n";
    QTest::newRow("relative link out")
            << common
                       + "add('escape', kind=tarfile.SYMTYPE, link='../../..' + sys.argv[2])\n"
                         "add('escape/planted.txt')\nt.close()\n";
}

void UvBootstrapTest::hostileArchiveIsRefused()
{
    QFETCH(QString, script);
    const QString outside = work.filePath("outside");
    QDir().mkpath(outside);
    const QString out = work.filePath("hostile.tar.gz");
    const PyenvTestBed::Outcome made
            = PyenvTestBed::run("python3", {"-c", script, out, outside, PyenvTestBed::uvProgram()});
    QVERIFY2(made.exitCode == 0, qPrintable(made.output));
    QFile file(out);
    QVERIFY(file.open(QIODevice::ReadOnly));
    server.setBody(file.readAll());

    const QList<QVariant> result = download();
    QCOMPARE(result.value(0).toBool(), false);
    QVERIFY2(result.value(1).toString().startsWith("Failed to extract UV archive.\n\nThe archive holds entries"),
             qPrintable(result.value(1).toString()));
    QVERIFY(!manager->isUvInstalled());
    QVERIFY(!QFileInfo::exists(outside + "/planted.txt"));
    QVERIFY(!QFileInfo::exists(work.filePath("planted.txt")));
    verifyNoLeftovers();
}

void UvBootstrapTest::missingToolGivesWayToTheNextMethod()
{
    // The Windows order on this machine: a first tool that cannot even list the archive must not stop the second.
    const QByteArray packed = archive("tar", "uv-x86_64-unknown-linux-gnu/uv");
    const QString file = work.filePath("ordered.tar.gz");
    QFile out(file);
    QVERIFY(out.open(QIODevice::WriteOnly) && out.write(packed) == packed.size());
    out.close();
    const QString folder = work.filePath("ordered");
    const PlatformProfile::ExtractionMethod tar
            = PlatformProfile::linuxGnu().extractionMethods(file, folder, false).constFirst();
    const PlatformProfile::ExtractionMethod missing{
            {"quorix-no-such-tool", {"-l", file}}, {}, {"quorix-no-such-tool", {file}}};
    QCOMPARE(ArchiveExtractor::extract({missing, tar}, folder, 120000), ArchiveExtractor::Verdict::Extracted);
    QVERIFY(QFileInfo(folder + "/uv-x86_64-unknown-linux-gnu/uv").isExecutable());
    QCOMPARE(ArchiveExtractor::extract({missing}, folder, 120000), ArchiveExtractor::Verdict::Failed);
    QVERIFY(!QFileInfo::exists(folder));
}

QTEST_GUILESS_MAIN(UvBootstrapTest)
#include "tst_uvbootstrap.moc"
