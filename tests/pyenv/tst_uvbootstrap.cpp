#include "PyenvTestBed.h"
#include "RecordingHttpServer.h"
#include "TemporaryHome.h"
#include "TestFiles.h"
#include "pyenv/ArchiveExtractor.h"
#include "pyenv/PythonEnvironmentManager.h"

#include <QtTest>

using namespace Quorix;
using namespace Quorix::Testing;

class UvBootstrapTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void releaseArchivesInstallOrExplain_data();
    void releaseArchivesInstallOrExplain();
    void hostileArchiveIsRefused_data();
    void hostileArchiveIsRefused();
    void missingToolGivesWayToTheNextMethod();

private:
    QByteArray archive(const QString &kind, const QString &memberPath);
    QVariantList download();
    void verifyNoLeftovers();

    TemporaryHome home;
    QTemporaryDir work;
    RecordingHttpServer server;
    PythonEnvironmentManager *manager = nullptr;
};

void UvBootstrapTest::initTestCase()
{
    QVERIFY2(!PyenvTestBed::uvProgram().isEmpty(), "uv must be on PATH (scripts/setup-python-tools)");
    QVERIFY(server.listen());
    QDir().mkpath(work.filePath("tmp"));
    qputenv("TMPDIR", work.filePath("tmp").toUtf8());
    qputenv("QUORIX_UV_DOWNLOAD_URL", server.url("/uv-x86_64-unknown-linux-gnu.tar.gz").toString().toUtf8());
    manager = PythonEnvironmentManager::instance();
}

void UvBootstrapTest::init()
{
    QDir(manager->baseFolder()).removeRecursively();
    server.reset();
}

// Packs the installed uv the way a release does, as a "tar" (tar.gz) or a "zip", with the program at memberPath.
QByteArray UvBootstrapTest::archive(const QString &kind, const QString &memberPath)
{
    const QString staging = work.filePath("staging"), out = work.filePath("release." + kind);
    QDir(staging).removeRecursively();
    QFile::remove(out);
    QDir().mkpath(QFileInfo(staging + "/" + memberPath).path());
    QFile::copy(PyenvTestBed::uvProgram(), staging + "/" + memberPath);
    const PyenvTestBed::Outcome packed
            = kind == "zip" ? PyenvTestBed::run("bash", {"-c", "cd \"$1\" && zip -qr \"$2\" .", "zip", staging, out})
                            : PyenvTestBed::run("tar", {"-czf", out, "-C", staging, "."});
    if (packed.exitCode != 0)
        qWarning() << packed.output;
    return TestFiles::read(out);
}

QVariantList UvBootstrapTest::download()
{
    QSignalSpy finished(manager, &PythonEnvironmentManager::uvDownloadFinished);
    manager->downloadUv();
    if (finished.isEmpty() && !finished.wait(60000))
        return {};
    return finished.count() == 1 ? finished.takeFirst() : QVariantList();
}

void UvBootstrapTest::verifyNoLeftovers()
{
    const QStringList left = QDir(QDir::tempPath()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
    QVERIFY2(left.isEmpty(), qPrintable(left.join(", ")));
}

void UvBootstrapTest::releaseArchivesInstallOrExplain_data()
{
    QTest::addColumn<QString>("kind"); // "tar", "zip", or "half" for a tar.gz cut in the middle
    QTest::addColumn<QString>("memberPath");
    QTest::addColumn<int>("failures"); // answers of 503 before the archive is served
    QTest::addColumn<QString>("error"); // empty: installed; ending in a blank line: the start of the message

    const QString subFolder = "uv-x86_64-unknown-linux-gnu/uv";
    QTest::newRow("tar.gz with a sub folder") << "tar" << subFolder << 0 << "";
    QTest::newRow("zip with the program at its root") << "zip" << "uv" << 0 << "";
    QTest::newRow("program two levels down")
            << "tar" << "release/bin/uv" << 0 << "Could not find uv in extracted archive";
    QTest::newRow("failed request falls back to curl") << "tar" << subFolder << 1 << "";
    QTest::newRow("curl fails as well") << "tar" << subFolder << 2
                                        << "Download failed. Qt network error, and curl fallback also failed.\n\n";
    QTest::newRow("broken archive") << "half" << subFolder << 0
                                    << "Failed to extract UV archive.\n\nThe archive could not be unpacked.\n\nYou can "
                                       "manually extract uv from the downloaded archive to:\n";
}

void UvBootstrapTest::releaseArchivesInstallOrExplain()
{
    QFETCH(QString, kind);
    QFETCH(QString, memberPath);
    QFETCH(int, failures);
    QFETCH(QString, error);

    const QByteArray packed = archive(kind == "half" ? "tar" : kind, memberPath);
    server.setDefaultResponse(ScriptedResponse::bytes(kind == "half" ? packed.left(packed.size() / 2) : packed));
    for (int i = 0; i < failures; ++i)
        server.enqueue(ScriptedResponse::bytes("busy", "text/plain", 503));
    QSignalSpy progress(manager, &PythonEnvironmentManager::uvDownloadProgress);
    const QVariantList result = download();
    QCOMPARE(result.size(), 2);
    QCOMPARE(manager->isUvInstalled(), error.isEmpty());
    verifyNoLeftovers();
    QCOMPARE(server.requestCount(), qMin(failures + 1, 2));
    QCOMPARE(server.lastRequest().requestLine, QByteArray("GET /uv-x86_64-unknown-linux-gnu.tar.gz HTTP/1.1"));
    if (!error.isEmpty()) {
        const QString message = result.at(1).toString();
        QVERIFY2(error.endsWith("\n") ? message.startsWith(error) : message == error, qPrintable(message));
        if (failures == 2)
            QVERIFY2(message.contains("curl: ") && message.contains("503"), qPrintable(message));
        if (kind == "half")
            QCOMPARE(message, error + manager->uvPath());
        return;
    }
    QCOMPARE(result, QVariantList({true, QString()}));
    QVERIFY(PyenvTestBed::run(manager->uvPath(), {"--version"}).output.startsWith("uv "));
    if (failures == 0)
        QCOMPARE(progress.last().at(0).toLongLong(), qint64(packed.size()));
    // Once installed, asking again answers at once without a request.
    QCOMPARE(download(), QVariantList({true, QString()}));
    QTest::qWait(200);
    QCOMPARE(server.requestCount(), failures + 1);
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
    const QString outside = work.filePath("outside"), out = work.filePath("hostile.tar.gz");
    QDir().mkpath(outside);
    const PyenvTestBed::Outcome made
            = PyenvTestBed::run("python3", {"-c", script, out, outside, PyenvTestBed::uvProgram()});
    QVERIFY2(made.exitCode == 0, qPrintable(made.output));
    server.setDefaultResponse(ScriptedResponse::bytes(TestFiles::read(out)));

    const QVariantList result = download();
    QCOMPARE(result.value(0).toBool(), false);
    QVERIFY2(result.value(1).toString().startsWith("Failed to extract UV archive.\n\nThe archive holds entries"),
             qPrintable(result.value(1).toString()));
    QVERIFY(!manager->isUvInstalled());
    QVERIFY(!QFileInfo::exists(outside + "/planted.txt") && !QFileInfo::exists(work.filePath("planted.txt")));
    verifyNoLeftovers();
}

void UvBootstrapTest::missingToolGivesWayToTheNextMethod()
{
    // The Windows order on this machine: a first tool that cannot even list the archive must not stop the second.
    const QString file = work.filePath("ordered.tar.gz"), folder = work.filePath("ordered");
    QVERIFY(TestFiles::write(file, archive("tar", "uv-x86_64-unknown-linux-gnu/uv")));
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
