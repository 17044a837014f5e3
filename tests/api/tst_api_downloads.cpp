#include "TestFiles.h"
#include "RecordingHttpServer.h"
#include "TemporaryHome.h"
#include "api/OnlineResourcesAPI.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QJsonObject>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTest>

#include <memory>

using namespace Quorix;
using namespace Quorix::Testing;

namespace {

QStringList entries(const QString &directory)
{
    return QDir(directory).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
}

// Bytes that differ from one position to the next, so a chunk written twice or out of order shows.
QByteArray patternedBytes(qsizetype size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (qsizetype i = 0; i < size; ++i)
        bytes[i] = char((i * 7 + i / 251) & 0xff);
    return bytes;
}

ScriptedResponse file(const QByteArray &body, const QByteArray &disposition = {})
{
    ScriptedResponse response = ScriptedResponse::bytes(body);
    return disposition.isEmpty() ? response : response.withHeader("Content-Disposition", disposition);
}

const QString droppedMessage = QStringLiteral("Connection was dropped - file may exceed server upload limit");

} // namespace

class TestApiDownloads : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void scriptKeepsTheServersQuotedName();
    void defaultNamesWithoutDisposition();
    void jsonRefusalWritesNothing_data();
    void jsonRefusalWritesNothing();
    void hostileNamesStayInTheDirectory_data();
    void hostileNamesStayInTheDirectory();
    void weightsAreNamedAfterTheirUuid_data();
    void weightsAreNamedAfterTheirUuid();
    void weightsUuidThatIsAPathIsRefused();
    void largeDownloadArrivesWholeWithProgress();
    void droppedDownloadLeavesOlderFileIntact();
    void unwritableDirectoryReportsSaveFailure_data();
    void unwritableDirectoryReportsSaveFailure();
    void stalledDownloadTimesOutWithoutAFile();
    void claimedDigestDecidesWhetherTheFileIsKept_data();
    void claimedDigestDecidesWhetherTheFileIsKept();

private:
    std::unique_ptr<TemporaryHome> home;
    RecordingHttpServer server;
    std::unique_ptr<OnlineResourcesAPI> api;
    QString directory;
};

void TestApiDownloads::initTestCase()
{
    home = std::make_unique<TemporaryHome>();
    QVERIFY(server.listen());
    qputenv("QUORIX_SERVER_URL", server.origin().toUtf8());
}

void TestApiDownloads::init()
{
    server.reset();
    api = std::make_unique<OnlineResourcesAPI>();
    directory = home->filePath(QStringLiteral("downloads/%1").arg(QTest::currentTestFunction()));
    if (QTest::currentDataTag())
        directory += QStringLiteral("-%1").arg(QString::fromUtf8(QTest::currentDataTag()).toUtf8().toHex());
    QVERIFY(QDir().mkpath(directory));
}

void TestApiDownloads::cleanup()
{
    api.reset();
}

void TestApiDownloads::scriptKeepsTheServersQuotedName()
{
    server.setDefaultResponse(file("main { }", "attachment; filename=\"aim assist v2.gpc3\""));
    QSignalSpy downloaded(api.get(), &OnlineResourcesAPI::scriptDownloaded);
    api->downloadScript("s-1", directory);
    QVERIFY(downloaded.wait());
    const QString path = directory + "/aim assist v2.gpc3";
    QCOMPARE(downloaded.first().first().toString(), path);
    QCOMPARE(TestFiles::read(path), QByteArray("main { }"));
    QCOMPARE(entries(directory), QStringList{"aim assist v2.gpc3"});
}

void TestApiDownloads::defaultNamesWithoutDisposition()
{
    server.setDefaultResponse(file("payload"));
    QSignalSpy scripts(api.get(), &OnlineResourcesAPI::scriptDownloaded);
    QSignalSpy environments(api.get(), &OnlineResourcesAPI::environmentDownloaded);
    api->downloadScript("s-1", directory);
    api->downloadEnvironment("e-1", directory);
    QVERIFY(scripts.wait());
    QTRY_COMPARE(environments.size(), 1);
    QCOMPARE(scripts.first().first().toString(), directory + "/script.gpc3");
    QCOMPARE(environments.first().first().toString(), directory + "/environment.qenv");
    QCOMPARE(TestFiles::read(directory + "/environment.qenv"), QByteArray("payload"));
}

void TestApiDownloads::jsonRefusalWritesNothing_data()
{
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QString>("message");

    QTest::newRow("with a reason") << QByteArray(R"({"success":false,"error":"Access denied"})")
                                   << "Download failed: Access denied";
    QTest::newRow("without a reason") << QByteArray(R"({"success":false})")
                                      << "Download failed: Download failed - server returned unexpected response";
    QTest::newRow("not JSON at all") << QByteArray("<html>")
                                     << "Download failed: Download failed - server returned unexpected response";
    QTest::newRow("several megabytes") << QByteArray(9 * 1024 * 1024, ' ')
                                       << "Download failed: Download failed - server returned unexpected response";
}

void TestApiDownloads::jsonRefusalWritesNothing()
{
    QFETCH(QByteArray, body);
    QFETCH(QString, message);

    QVERIFY(TestFiles::write(directory + "/script.gpc3", "older"));
    server.setDefaultResponse(
            ScriptedResponse::rawJson(body).withHeader("Content-Disposition", "attachment; filename=\"script.gpc3\""));
    QSignalSpy downloaded(api.get(), &OnlineResourcesAPI::scriptDownloaded);
    QSignalSpy errors(api.get(), &OnlineResourcesAPI::errorOccurred);
    api->downloadScript("s-1", directory);
    QVERIFY(errors.wait(10000));
    QCOMPARE(errors.first().first().toString(), message);
    QCOMPARE(downloaded.size(), 0);
    QCOMPARE(entries(directory), QStringList{"script.gpc3"});
    QCOMPARE(TestFiles::read(directory + "/script.gpc3"), QByteArray("older"));
}

void TestApiDownloads::hostileNamesStayInTheDirectory_data()
{
    QTest::addColumn<QByteArray>("disposition");
    QTest::addColumn<QString>("savedAs");

    QTest::newRow("parent climb") << QByteArray("attachment; filename=\"../../x.gpc3\"") << "x.gpc3";
    QTest::newRow("backslash climb") << QByteArray("attachment; filename=\"..\\\\x.gpc3\"") << "x.gpc3";
    QTest::newRow("absolute path") << QByteArray("attachment; filename=/etc/x") << "x";
    QTest::newRow("parent only") << QByteArray("attachment; filename=\"..\"") << "script.gpc3";
    QTest::newRow("directory only") << QByteArray("attachment; filename=\"sub/\"") << "script.gpc3";
    QTest::newRow("drive letter") << QByteArray("attachment; filename=\"C:x.gpc3\"") << "x.gpc3";
    QTest::newRow("drive and root") << QByteArray("attachment; filename=\"C:\\\\x.gpc3\"") << "x.gpc3";
    QTest::newRow("empty") << QByteArray("attachment; filename=\"\"") << "script.gpc3";
}

void TestApiDownloads::hostileNamesStayInTheDirectory()
{
    QFETCH(QByteArray, disposition);
    QFETCH(QString, savedAs);

    const QString inner = directory + "/a/b";
    QVERIFY(QDir().mkpath(inner));
    server.setDefaultResponse(file("evil", disposition));
    QSignalSpy downloaded(api.get(), &OnlineResourcesAPI::scriptDownloaded);
    api->downloadScript("s-1", inner);
    QVERIFY(downloaded.wait());
    QCOMPARE(downloaded.first().first().toString(), inner + "/" + savedAs);
    QCOMPARE(entries(inner), QStringList{savedAs});
    QCOMPARE(entries(directory + "/a"), QStringList{"b"});
    QCOMPARE(entries(directory), QStringList{"a"});
    QVERIFY(!QFile::exists("/etc/x"));
}

void TestApiDownloads::weightsAreNamedAfterTheirUuid_data()
{
    QTest::addColumn<QByteArray>("disposition");
    QTest::addColumn<QString>("extension");

    QTest::newRow("encrypted") << QByteArray("attachment; filename=\"Detector v1.ennx\"") << "ennx";
    QTest::newRow("plain") << QByteArray("attachment; filename=\"detector.onnx\"") << "onnx";
    QTest::newRow("no header") << QByteArray() << "onnx";
    QTest::newRow("no extension") << QByteArray("attachment; filename=\"detector\"") << "onnx";
    QTest::newRow("extension with a path") << QByteArray("attachment; filename=\"a.b/../../evil\"") << "onnx";
    QTest::newRow("extension too long") << QByteArray("attachment; filename=\"m.abcdefghijklmnopq\"") << "onnx";
    QTest::newRow("extension not plain") << QByteArray("attachment; filename=\"m.on nx\"") << "onnx";
}

void TestApiDownloads::weightsAreNamedAfterTheirUuid()
{
    QFETCH(QByteArray, disposition);
    QFETCH(QString, extension);

    const QString weights = OnlineResourcesAPI::weightsDirectory();
    QVERIFY(weights.startsWith(QStandardPaths::writableLocation(QStandardPaths::AppLocalDataLocation)));
    QVERIFY(QStandardPaths::isTestModeEnabled());
    QVERIFY(QFileInfo(weights).isDir());

    const QString uuid = QStringLiteral("0b7c6d1e-%1").arg(QString::fromUtf8(QTest::currentDataTag()).size());
    server.setDefaultResponse(file("weights", disposition));
    QSignalSpy downloaded(api.get(), &OnlineResourcesAPI::weightsDownloaded);
    api->downloadWeights(uuid);
    QVERIFY(downloaded.wait());
    const QString path = weights + "/" + uuid + "." + extension;
    QCOMPARE(downloaded.first(), QVariantList({uuid, path}));
    QCOMPARE(TestFiles::read(path), QByteArray("weights"));
    QVERIFY(QFile::remove(path));
    QCOMPARE(entries(weights), QStringList());
}

void TestApiDownloads::weightsUuidThatIsAPathIsRefused()
{
    const QString weights = OnlineResourcesAPI::weightsDirectory();
    server.setDefaultResponse(file("weights", "attachment; filename=\"m.onnx\""));
    QSignalSpy downloaded(api.get(), &OnlineResourcesAPI::weightsDownloaded);
    QSignalSpy errors(api.get(), &OnlineResourcesAPI::errorOccurred);
    api->downloadWeights("..");
    QVERIFY(errors.wait());
    QCOMPARE(errors.first().first().toString(), QString("Failed to save downloaded weights file"));
    QCOMPARE(downloaded.size(), 0);
    QCOMPARE(entries(weights), QStringList());
    QVERIFY(!QFile::exists(weights + "/...onnx"));
    QVERIFY(!QFile::exists(QFileInfo(weights).path() + "/..onnx"));
}

void TestApiDownloads::largeDownloadArrivesWholeWithProgress()
{
    const QByteArray body = patternedBytes(12 * 1024 * 1024 + 17);
    server.setDefaultResponse(file(body, "attachment; filename=\"big.gpc3\""));
    QSignalSpy downloaded(api.get(), &OnlineResourcesAPI::scriptDownloaded);
    QSignalSpy progress(api.get(), &OnlineResourcesAPI::downloadProgress);
    api->downloadScript("s-1", directory);
    QVERIFY(downloaded.wait(30000));
    QVERIFY(TestFiles::read(directory + "/big.gpc3") == body);
    QVERIFY(!progress.isEmpty());
    QCOMPARE(progress.last(), QVariantList({qint64(body.size()), qint64(body.size())}));
}

void TestApiDownloads::droppedDownloadLeavesOlderFileIntact()
{
    QVERIFY(TestFiles::write(directory + "/tool.gpc3", "older"));
    server.setDefaultResponse(
            file(patternedBytes(4 * 1024 * 1024), "attachment; filename=\"tool.gpc3\"").droppingAfter(2 * 1024 * 1024));
    QSignalSpy downloaded(api.get(), &OnlineResourcesAPI::scriptDownloaded);
    QSignalSpy errors(api.get(), &OnlineResourcesAPI::errorOccurred);
    api->downloadScript("s-1", directory);
    QVERIFY(errors.wait(10000));
    QCOMPARE(errors.first().first().toString(), droppedMessage);
    QCOMPARE(downloaded.size(), 0);
    QCOMPARE(entries(directory), QStringList{"tool.gpc3"});
    QCOMPARE(TestFiles::read(directory + "/tool.gpc3"), QByteArray("older"));
}

void TestApiDownloads::unwritableDirectoryReportsSaveFailure_data()
{
    QTest::addColumn<bool>("environment");
    QTest::newRow("script") << false;
    QTest::newRow("environment") << true;
}

void TestApiDownloads::unwritableDirectoryReportsSaveFailure()
{
    QFETCH(bool, environment);

    // A directory below a regular file cannot exist, whoever asks, root included.
    QVERIFY(TestFiles::write(directory + "/plain-file", "not a directory"));
    const QString impossible = directory + "/plain-file/inside";
    server.setDefaultResponse(file(patternedBytes(64 * 1024)));
    QSignalSpy errors(api.get(), &OnlineResourcesAPI::errorOccurred);
    QSignalSpy scripts(api.get(), &OnlineResourcesAPI::scriptDownloaded);
    QSignalSpy environments(api.get(), &OnlineResourcesAPI::environmentDownloaded);
    if (environment)
        api->downloadEnvironment("e-1", impossible);
    else
        api->downloadScript("s-1", impossible);
    QVERIFY(errors.wait());
    QTest::qWait(100);
    QCOMPARE(errors.size(), 1);
    QCOMPARE(errors.first().first().toString(), environment ? QString("Failed to save downloaded environment file")
                                                            : QString("Failed to save downloaded file"));
    QCOMPARE(scripts.size() + environments.size(), 0);
    QCOMPARE(entries(directory), QStringList{"plain-file"});
}

void TestApiDownloads::stalledDownloadTimesOutWithoutAFile()
{
    QVERIFY(TestFiles::write(directory + "/slow.gpc3", "older"));
    server.setDefaultResponse(
            file(patternedBytes(256 * 1024), "attachment; filename=\"slow.gpc3\"").stallingAfter(64 * 1024));
    QSignalSpy downloaded(api.get(), &OnlineResourcesAPI::scriptDownloaded);
    api->downloadScript("s-1", directory);

    QVERIFY(server.waitForRequests(1));
    // The client gives up by closing its connection once no byte has moved for the transfer timeout.
    QTRY_COMPARE_WITH_TIMEOUT(server.openConnectionCount(), 0, 15000);
    QTest::qWait(200);
    QCOMPARE(downloaded.size(), 0);
    QCOMPARE(entries(directory), QStringList{"slow.gpc3"});
    QCOMPARE(TestFiles::read(directory + "/slow.gpc3"), QByteArray("older"));
}

void TestApiDownloads::claimedDigestDecidesWhetherTheFileIsKept_data()
{
    QTest::addColumn<QByteArray>("reprDigest");
    QTest::addColumn<bool>("kept");

    const QByteArray body = patternedBytes(3 * 1024 * 1024 + 5);
    const QByteArray right = QCryptographicHash::hash(body, QCryptographicHash::Sha256).toBase64();
    const QByteArray wrong = QCryptographicHash::hash("other", QCryptographicHash::Sha256).toBase64();
    QTest::newRow("matching") << "sha-256=:" + right + ':' << true;
    QTest::newRow("matching among other algorithms") << "sha-512=:AAAA:, sha-256=:" + right + ':' << true;
    QTest::newRow("no header") << QByteArray() << true;
    QTest::newRow("only algorithms we do not check") << QByteArray("sha-512=:AAAA:") << true;
    QTest::newRow("mismatching") << "sha-256=:" + wrong + ':' << false;
    QTest::newRow("truncated value") << "sha-256=:" + right.left(20) + ':' << false;
    QTest::newRow("not base64") << QByteArray("sha-256=:!!!!:") << false;
}

void TestApiDownloads::claimedDigestDecidesWhetherTheFileIsKept()
{
    QFETCH(QByteArray, reprDigest);
    QFETCH(bool, kept);

    const QByteArray body = patternedBytes(3 * 1024 * 1024 + 5);
    QVERIFY(TestFiles::write(directory + "/model.gpc3", "older"));
    ScriptedResponse response = file(body, "attachment; filename=\"model.gpc3\"");
    if (!reprDigest.isEmpty())
        response = response.withHeader("Repr-Digest", reprDigest);
    server.setDefaultResponse(response);
    QSignalSpy downloaded(api.get(), &OnlineResourcesAPI::scriptDownloaded);
    QSignalSpy failed(api.get(), &OnlineResourcesAPI::downloadFailed);
    api->downloadScript("s-1", directory);
    QTRY_COMPARE_WITH_TIMEOUT(downloaded.size() + failed.size(), 1, 15000);

    QCOMPARE(entries(directory), QStringList{"model.gpc3"});
    QCOMPARE(TestFiles::read(directory + "/model.gpc3") == body, kept);
    if (!kept) {
        QCOMPARE(TestFiles::read(directory + "/model.gpc3"), QByteArray("older"));
        QCOMPARE(failed.first(),
                 QVariantList({"download:" + directory, QString("Download failed: the file was damaged in transit")}));
    }
}

QTEST_GUILESS_MAIN(TestApiDownloads)
#include "tst_api_downloads.moc"
