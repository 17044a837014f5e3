#include "ApiTestBench.h"
#include "TestFiles.h"

#include <QCryptographicHash>
#include <QDir>
#include <QStandardPaths>

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

ScriptedResponse file(const QByteArray &body, const QByteArray &fileName = {})
{
    const ScriptedResponse response = ScriptedResponse::bytes(body);
    return fileName.isEmpty() ? response
                              : response.withHeader("Content-Disposition", "attachment; filename=" + fileName);
}

} // namespace

class TestApiDownloads : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { QVERIFY(bench.start()); }
    void init();

    void filesAreNamedInsideTheirDirectory_data();
    void filesAreNamedInsideTheirDirectory();
    void weightsAreNamedAfterTheirUuid_data();
    void weightsAreNamedAfterTheirUuid();
    void failedDownloadsKeepTheOlderFile_data();
    void failedDownloadsKeepTheOlderFile();
    void largeDownloadArrivesWholeWithProgress();
    void stalledDownloadTimesOutWithoutAFile();

private:
    ApiTestBench bench;
    QString directory;
};

void TestApiDownloads::init()
{
    bench.renew(ScriptedResponse::bytes("payload"));
    directory = bench.home.filePath(QStringLiteral("downloads/%1").arg(QTest::currentTestFunction()));
    if (QTest::currentDataTag())
        directory += '-' + QString::fromLatin1(QByteArray(QTest::currentDataTag()).toHex());
    QVERIFY(QDir().mkpath(directory));
}

void TestApiDownloads::filesAreNamedInsideTheirDirectory_data()
{
    QTest::addColumn<bool>("environment");
    QTest::addColumn<QByteArray>("fileName");
    QTest::addColumn<QString>("savedAs");

    QTest::newRow("quoted name") << false << QByteArray("\"aim assist v2.gpc3\"") << "aim assist v2.gpc3";
    QTest::newRow("script without a name") << false << QByteArray() << "script.gpc3";
    QTest::newRow("environment without a name") << true << QByteArray() << "environment.qenv";
    QTest::newRow("parent climb") << false << QByteArray("\"../../x.gpc3\"") << "x.gpc3";
    QTest::newRow("backslash climb") << true << QByteArray("\"..\\\\x.qenv\"") << "x.qenv";
    QTest::newRow("absolute path") << false << QByteArray("/etc/x") << "x";
    QTest::newRow("parent only") << false << QByteArray("\"..\"") << "script.gpc3";
    QTest::newRow("directory only") << true << QByteArray("\"sub/\"") << "environment.qenv";
    QTest::newRow("drive letter") << false << QByteArray("\"C:x.gpc3\"") << "x.gpc3";
    QTest::newRow("drive and root") << false << QByteArray("\"C:\\\\x.gpc3\"") << "x.gpc3";
    QTest::newRow("empty") << false << QByteArray("\"\"") << "script.gpc3";
}

void TestApiDownloads::filesAreNamedInsideTheirDirectory()
{
    QFETCH(bool, environment);
    QFETCH(QByteArray, fileName);
    QFETCH(QString, savedAs);

    const QString inner = directory + "/a/b";
    QVERIFY(QDir().mkpath(inner));
    bench.server.setDefaultResponse(file("evil", fileName));
    QSignalSpy downloaded(bench.api.get(), environment ? &OnlineResourcesAPI::environmentDownloaded
                                                       : &OnlineResourcesAPI::scriptDownloaded);
    if (environment)
        bench.api->downloadEnvironment("e-1", inner);
    else
        bench.api->downloadScript("s-1", inner);
    QVERIFY(downloaded.wait());
    QCOMPARE(downloaded.first().first().toString(), inner + "/" + savedAs);
    QCOMPARE(TestFiles::read(inner + "/" + savedAs), QByteArray("evil"));
    QCOMPARE(entries(inner), QStringList{savedAs});
    QCOMPARE(entries(directory + "/a"), QStringList{"b"});
    QCOMPARE(entries(directory), QStringList{"a"});
    QVERIFY(!QFile::exists("/etc/x"));
}

void TestApiDownloads::weightsAreNamedAfterTheirUuid_data()
{
    QTest::addColumn<QString>("uuid");
    QTest::addColumn<QByteArray>("fileName");
    QTest::addColumn<QString>("extension"); // empty: refused, nothing saved

    QTest::newRow("encrypted") << "0b7c-1" << QByteArray("\"Detector v1.ennx\"") << "ennx";
    QTest::newRow("plain") << "0b7c-2" << QByteArray("\"detector.onnx\"") << "onnx";
    QTest::newRow("no header") << "0b7c-3" << QByteArray() << "onnx";
    QTest::newRow("no extension") << "0b7c-4" << QByteArray("\"detector\"") << "onnx";
    QTest::newRow("extension with a path") << "0b7c-5" << QByteArray("\"a.b/../../evil\"") << "onnx";
    QTest::newRow("extension too long") << "0b7c-6" << QByteArray("\"m.abcdefghijklmnopq\"") << "onnx";
    QTest::newRow("extension not plain") << "0b7c-7" << QByteArray("\"m.on nx\"") << "onnx";
    QTest::newRow("uuid that is a path") << ".." << QByteArray("\"m.onnx\"") << "";
}

void TestApiDownloads::weightsAreNamedAfterTheirUuid()
{
    QFETCH(QString, uuid);
    QFETCH(QByteArray, fileName);
    QFETCH(QString, extension);

    const QString weights = OnlineResourcesAPI::weightsDirectory();
    QVERIFY(weights.startsWith(QStandardPaths::writableLocation(QStandardPaths::AppLocalDataLocation)));
    bench.server.setDefaultResponse(file("weights", fileName));
    QSignalSpy downloaded(bench.api.get(), &OnlineResourcesAPI::weightsDownloaded);
    QSignalSpy errors(bench.api.get(), &OnlineResourcesAPI::errorOccurred);
    bench.api->downloadWeights(uuid);
    QVERIFY((extension.isEmpty() ? errors : downloaded).wait());
    if (extension.isEmpty()) {
        QCOMPARE(errors.first().first().toString(), QString("Failed to save downloaded weights file"));
        QCOMPARE(downloaded.size(), 0);
        QVERIFY(!QFile::exists(QFileInfo(weights).path() + "/..onnx"));
    } else {
        const QString path = weights + "/" + uuid + "." + extension;
        QCOMPARE(downloaded.first(), QVariantList({uuid, path}));
        QCOMPARE(TestFiles::read(path), QByteArray("weights"));
        QVERIFY(QFile::remove(path));
    }
    QCOMPARE(entries(weights), QStringList());
}

void TestApiDownloads::failedDownloadsKeepTheOlderFile_data()
{
    QTest::addColumn<ScriptedResponse>("response");
    QTest::addColumn<QString>("message");

    const QString unexpected = "Download failed: Download failed - server returned unexpected response";
    const QByteArray body = patternedBytes(3 * 1024 * 1024 + 5);
    const auto digest = [&body](const QByteArray &value) {
        return file(body).withHeader("Repr-Digest", value);
    };
    const QByteArray right = QCryptographicHash::hash(body, QCryptographicHash::Sha256).toBase64();
    const QByteArray wrong = QCryptographicHash::hash("other", QCryptographicHash::Sha256).toBase64();
    const QString damaged = "Download failed: the file was damaged in transit";

    QTest::newRow("refusal with a reason") << ScriptedResponse::rawJson(R"({"success":false,"error":"Access denied"})")
                                           << "Download failed: Access denied";
    QTest::newRow("refusal without a reason") << ScriptedResponse::rawJson(R"({"success":false})") << unexpected;
    QTest::newRow("JSON that is not JSON") << ScriptedResponse::rawJson("<html>") << unexpected;
    QTest::newRow("refusal of megabytes") << ScriptedResponse::rawJson(QByteArray(9 * 1024 * 1024, ' ')) << unexpected;
    QTest::newRow("dropped") << file(patternedBytes(4 * 1024 * 1024)).droppingAfter(2 * 1024 * 1024)
                             << "Connection was dropped - file may exceed server upload limit";
    QTest::newRow("mismatching digest") << digest("sha-256=:" + wrong + ':') << damaged;
    QTest::newRow("truncated digest") << digest("sha-256=:" + right.left(20) + ':') << damaged;
    QTest::newRow("digest not base64") << digest("sha-256=:!!!!:") << damaged;
    QTest::newRow("matching digest") << digest("sha-256=:" + right + ':') << "";
    QTest::newRow("matching among other digests") << digest("sha-512=:AAAA:, sha-256=:" + right + ':') << "";
    QTest::newRow("only digests we do not check") << digest("sha-512=:AAAA:") << "";
}

void TestApiDownloads::failedDownloadsKeepTheOlderFile()
{
    QFETCH(ScriptedResponse, response);
    QFETCH(QString, message);

    QVERIFY(TestFiles::write(directory + "/tool.gpc3", "older"));
    bench.server.setDefaultResponse(response.withHeader("Content-Disposition", "attachment; filename=tool.gpc3"));
    QSignalSpy downloaded(bench.api.get(), &OnlineResourcesAPI::scriptDownloaded);
    QSignalSpy failed(bench.api.get(), &OnlineResourcesAPI::downloadFailed);
    QSignalSpy errors(bench.api.get(), &OnlineResourcesAPI::errorOccurred);
    bench.api->downloadScript("s-1", directory);
    QTRY_COMPARE_WITH_TIMEOUT(downloaded.size() + failed.size(), 1, 15000);
    QCOMPARE(entries(directory), QStringList{"tool.gpc3"});
    if (message.isEmpty()) {
        QCOMPARE(TestFiles::read(directory + "/tool.gpc3"), response.body);
        return;
    }
    QCOMPARE(failed.first(), QVariantList({"download:" + directory, message}));
    QCOMPARE(errors.first().first().toString(), message);
    QCOMPARE(TestFiles::read(directory + "/tool.gpc3"), QByteArray("older"));
}

void TestApiDownloads::largeDownloadArrivesWholeWithProgress()
{
    const QByteArray body = patternedBytes(12 * 1024 * 1024 + 17);
    bench.server.setDefaultResponse(file(body, "big.gpc3"));
    QSignalSpy downloaded(bench.api.get(), &OnlineResourcesAPI::scriptDownloaded);
    QSignalSpy progress(bench.api.get(), &OnlineResourcesAPI::downloadProgress);
    bench.api->downloadScript("s-1", directory);
    QVERIFY(downloaded.wait(30000));
    QVERIFY(TestFiles::read(directory + "/big.gpc3") == body);
    QCOMPARE(progress.last(), QVariantList({qint64(body.size()), qint64(body.size())}));

    // A directory below a regular file cannot exist, whoever asks, root included.
    QSignalSpy errors(bench.api.get(), &OnlineResourcesAPI::errorOccurred);
    bench.api->downloadEnvironment("e-1", directory + "/big.gpc3/inside");
    QVERIFY(errors.wait());
    QCOMPARE(errors.first().first().toString(), QString("Failed to save downloaded environment file"));
    bench.api->downloadScript("s-1", directory + "/big.gpc3/inside");
    QVERIFY(errors.wait());
    QCOMPARE(errors.last().first().toString(), QString("Failed to save downloaded file"));
    QTest::qWait(100);
    QCOMPARE(errors.size(), 2);
    QCOMPARE(entries(directory), QStringList{"big.gpc3"});
}

void TestApiDownloads::stalledDownloadTimesOutWithoutAFile()
{
    QVERIFY(TestFiles::write(directory + "/slow.gpc3", "older"));
    bench.server.setDefaultResponse(file(patternedBytes(256 * 1024), "slow.gpc3").stallingAfter(64 * 1024));
    QSignalSpy downloaded(bench.api.get(), &OnlineResourcesAPI::scriptDownloaded);
    bench.api->downloadScript("s-1", directory);
    QVERIFY(bench.server.waitForRequests(1));
    // The client gives up by closing its connection once no byte has moved for the transfer timeout.
    QTRY_COMPARE_WITH_TIMEOUT(bench.server.openConnectionCount(), 0, 15000);
    QTest::qWait(200);
    QCOMPARE(downloaded.size(), 0);
    QCOMPARE(TestFiles::read(directory + "/slow.gpc3"), QByteArray("older"));
    QCOMPARE(entries(directory), QStringList{"slow.gpc3"});
}

QTEST_GUILESS_MAIN(TestApiDownloads)
#include "tst_api_downloads.moc"
