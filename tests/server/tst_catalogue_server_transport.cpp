#include <CatalogueServerFixture.h>
#include <MultipartForm.h>

#include <QCryptographicHash>
#include <QDir>
#include <QJsonDocument>
#include <QRandomGenerator>
#include <QStandardPaths>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QtTest>

using Quorix::MultipartForm;
using Quorix::Testing::CatalogueServerFixture;

namespace {

QByteArray request(const QByteArray &method, const QByteArray &path, const QByteArray &headers,
                   const QByteArray &body = {})
{
    return method + " /api/scripts/" + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + headers + "\r\n" + body;
}

QByteArray statusLine(const QByteArray &response)
{
    return response.left(response.indexOf("\r\n"));
}

QByteArray headerValue(const QByteArray &response, const QByteArray &name)
{
    for (const QByteArray &line : response.left(response.indexOf("\r\n\r\n")).split('\n')) {
        if (line.toLower().startsWith(name.toLower() + ':'))
            return line.mid(name.size() + 1).trimmed();
    }
    return {};
}

// What curl, a client that shares no code with ours, prints for these arguments.
QByteArray curl(const QStringList &arguments)
{
    QProcess process;
    process.start("curl", QStringList{"-sS", "--max-time", "30", "--noproxy", "*"} + arguments);
    return process.waitForFinished(40000) ? process.readAllStandardOutput() : QByteArray();
}

} // namespace

// The real catalogue-server program: under hostile and unusual HTTP limits hold before bodies are read, files leave in
// ranges and with their digest, idle and surplus connections are turned away; killed at each named point of an
// upload, an update and a delete it restarts with complete old or new bytes and nothing staged or orphaned.
class CatalogueServerTransportTest : public QObject
{
    Q_OBJECT

    CatalogueServerFixture server;
    QString token;
    QByteArray id;
    QByteArray content;

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(server.startProcess({"--header-timeout", "1", "--keep-alive-timeout", "1", "--body-timeout", "2"}),
                 qPrintable(server.error()));
        token = server.signIn("111111111111111111", "author");
        QVERIFY(!token.isEmpty());
        for (int i = 0; i < 1000; ++i)
            content.append(char('a' + i % 23));
        const auto reply = server.uploadScript(token, "ranges.gpc3", content);
        QCOMPARE(reply.status, 200);
        id = reply.text("data/id").toLatin1();
    }

    void limitsAnswerBeforeTheBody_data()
    {
        QTest::addColumn<QByteArray>("raw");
        QTest::addColumn<QByteArray>("status");
        const auto row = [](const char *tag, const QByteArray &path, const QByteArray &headers, const char *status,
                            const QByteArray &body = {}) {
            QTest::newRow(tag) << request(path.isEmpty() ? "GET" : "POST", path, headers, body) << QByteArray(status);
        };
        const QByteArray json = "Content-Type: application/json\r\n", expect = json + "Expect: 100-continue\r\n";
        const char *tooLarge = "413 Payload Too Large", *bad = "400 Bad Request";
        row("headers over 16 KiB", "", "X-Fill: " + QByteArray(16 * 1024, 'f') + "\r\n",
            "431 Request Header Fields Too Large");
        row("headers under 16 KiB", "", "X-Fill: " + QByteArray(15 * 1024, 'f') + "\r\n", "200 OK");
        row("json length over 1 MiB", "check-existing", json + "Content-Length: 1048577\r\n", tooLarge);
        row("script upload length over its limit", "upload", "Content-Length: 15728641\r\n", tooLarge);
        row("weights upload length over its limit", "onnx/upload", "Content-Length: 529530881\r\n", tooLarge);
        row("chunked json growing past 1 MiB", "check-existing", json + "Transfer-Encoding: chunked\r\n", tooLarge,
            "100001\r\n" + QByteArray(0x100001, ' ') + "\r\n0\r\n\r\n");
        row("length beside chunked", "check-existing", "Content-Length: 5\r\nTransfer-Encoding: chunked\r\n", bad,
            "0\r\n\r\n");
        row("two different lengths", "check-existing", "Content-Length: 5\r\nContent-Length: 6\r\n", bad, "{}");
        row("continue for an acceptable body", "check-existing", expect + "Content-Length: 2\r\n", "100 Continue");
        row("no continue for a body over the limit", "check-existing", expect + "Content-Length: 2000000\r\n",
            tooLarge);
        row("anonymous upload refused unread", "upload",
            "Content-Type: multipart/form-data; boundary=b\r\nExpect: 100-continue\r\nContent-Length: 4000\r\n",
            "401 Unauthorized");
    }

    void limitsAnswerBeforeTheBody()
    {
        QFETCH(QByteArray, raw);
        QFETCH(QByteArray, status);
        QCOMPARE(statusLine(server.exchange(raw, 3000)), "HTTP/1.1 " + status);
    }

    void downloadsHonourHeadAndRange_data()
    {
        QTest::addColumn<QByteArray>("method");
        QTest::addColumn<QByteArray>("range");
        QTest::addColumn<QByteArray>("status");
        QTest::addColumn<QByteArray>("contentRange");
        QTest::addColumn<QByteArray>("body");
        const QByteArray get = "GET", ok = "HTTP/1.1 200 OK", partial = "HTTP/1.1 206 Partial Content", none;
        QTest::newRow("whole") << get << none << ok << none << content;
        QTest::newRow("head") << QByteArray("HEAD") << none << ok << none << none;
        QTest::newRow("first ten") << get << QByteArray("bytes=0-9") << partial << QByteArray("bytes 0-9/1000")
                                   << content.left(10);
        QTest::newRow("resume from 990") << get << QByteArray("bytes=990-") << partial
                                         << QByteArray("bytes 990-999/1000") << content.mid(990);
        QTest::newRow("last five") << get << QByteArray("bytes=-5") << partial << QByteArray("bytes 995-999/1000")
                                   << content.right(5);
        QTest::newRow("past the end") << get << QByteArray("bytes=1000-")
                                      << QByteArray("HTTP/1.1 416 Range Not Satisfiable") << QByteArray("bytes */1000")
                                      << none;
        QTest::newRow("several ranges get everything") << get << QByteArray("bytes=0-1,5-6") << ok << none << content;
    }

    void downloadsHonourHeadAndRange()
    {
        QFETCH(QByteArray, method);
        QFETCH(QByteArray, range);
        QFETCH(QByteArray, status);
        QFETCH(QByteArray, contentRange);
        QFETCH(QByteArray, body);
        const QByteArray response = server.exchange(
                request(method, "download/" + id, range.isEmpty() ? QByteArray() : "Range: " + range + "\r\n"), 3000);
        QCOMPARE(statusLine(response), status);
        QCOMPARE(headerValue(response, "Content-Range"), contentRange);
        QCOMPARE(response.mid(response.indexOf("\r\n\r\n") + 4), body);
        if (status.contains("416"))
            return;
        QCOMPARE(headerValue(response, "Repr-Digest"), server.reprDigest(content));
        QCOMPARE(headerValue(response, "Content-Length").toInt(), method == "HEAD" ? 1000 : body.size());
    }

    void nonAsciiFileNamesTravelAsFilenameStar()
    {
        const QByteArray named = server.uploadScript(token, "Café ünï.gpc3", "main {}").text("data/id").toLatin1();
        const QByteArray response = server.exchange(request("HEAD", "download/" + named, {}), 3000);
        QCOMPARE(headerValue(response, "Content-Disposition"),
                 "attachment; filename=\"Caf_ _n_.gpc3\"; filename*=UTF-8''Caf%C3%A9%20%C3%BCn%C3%AF.gpc3");
    }

    void refusedUploadsLeaveNoStagingFiles()
    {
        const auto reply = server.upload("upload", token,
                                         {{"name", "Too big"}, {"description", "A script over its limit"}},
                                         {{"script_file", "big.gpc3", QByteArray(10 * 1024 * 1024 + 1, 'x')}});
        QCOMPARE(reply.status, 413);
        QCOMPARE(reply.text("error"), "File too large (max 10MB)");
        QTRY_COMPARE_WITH_TIMEOUT(QDir(server.dataDirectory() + "/staging").entryList(QDir::Files), QStringList(),
                                  5000);
    }

    void stalledClientsAreDisconnected_data()
    {
        QTest::addColumn<QByteArray>("raw");
        QTest::newRow("headers never finish") << QByteArray("GET /api/scripts/ HTTP/1.1\r\nHost: 1");
        QTest::newRow("body never comes") << request("POST", "check-existing", "Content-Length: 20\r\n", "{");
        QTest::newRow("idle after an answer") << request("GET", "?limit=1", {});
    }

    void stalledClientsAreDisconnected()
    {
        QFETCH(QByteArray, raw);
        QTcpSocket socket;
        socket.connectToHost(QHostAddress::LocalHost, server.port());
        QVERIFY(socket.waitForConnected(5000));
        socket.write(raw);
        // The timeouts are one and two seconds here.
        QDeadlineTimer deadline(10000);
        while (socket.state() == QAbstractSocket::ConnectedState && !deadline.hasExpired()) {
            socket.waitForReadyRead(100);
            socket.readAll();
        }
        QCOMPARE(socket.state(), QAbstractSocket::UnconnectedState);
    }

    void connectionsBeyondTheCapGet503()
    {
        // A server of its own, whose answered connections stay open long enough to be counted for certain.
        CatalogueServerFixture capped;
        QVERIFY2(capped.startProcess({"--keep-alive-timeout", "60", "--max-connections", "2"}),
                 qPrintable(capped.error()));
        QList<QTcpSocket *> held;
        for (int i = 0; i < 2; ++i) {
            held.append(new QTcpSocket(this));
            held.last()->connectToHost(QHostAddress::LocalHost, capped.port());
            QVERIFY(held.last()->waitForConnected(5000));
            held.last()->write(request("GET", "?limit=1", {}));
            QVERIFY(held.last()->waitForReadyRead(5000));
        }
        QCOMPARE(statusLine(capped.exchange(request("GET", "", {}), 3000)), "HTTP/1.1 503 Service Unavailable");
        qDeleteAll(held);
        QTRY_COMPARE_WITH_TIMEOUT(statusLine(capped.exchange(request("GET", "", {}), 3000)), "HTTP/1.1 200 OK", 10000);
    }

    void formsReadTheSameInAnyPieces_data()
    {
        QTest::addColumn<int>("pieceSize");
        QTest::newRow("byte by byte") << 1;
        QTest::newRow("odd pieces") << 7;
        QTest::newRow("delimiter-sized pieces") << 13;
        QTest::newRow("large pieces") << 65536;
    }

    void formsReadTheSameInAnyPieces()
    {
        QFETCH(int, pieceSize);
        // Content that almost contains the delimiter must come through untouched.
        const QByteArray file = "start\r\n--boundar\r\n--boundarx" + QByteArray(3000, '\0') + "\r\n-end";
        const QByteArray body
                = "preamble\r\n--boundary\r\nContent-Disposition: form-data; name=\"name\"\r\n\r\nCaf\xc3\xa9"
                  "\r\n--boundary\r\nContent-Disposition: form-data; name=\"script_file\"; "
                  "filename=\"a.gpc3\"\r\nContent-Type: application/octet-stream\r\n\r\n"
                  + file + "\r\n--boundary--\r\nepilogue";
        QTemporaryDir staging;
        MultipartForm::Limits limits;
        limits.files = {{"script_file", 10000, "too large"}};
        MultipartForm form("multipart/form-data; boundary=boundary", limits, staging.path());
        for (qsizetype at = 0; at < body.size(); at += pieceSize)
            QVERIFY(form.feed(body.constData() + at, qMin<qsizetype>(pieceSize, body.size() - at)));
        QVERIFY(form.finish());
        QCOMPARE(form.text("name"), "Café");
        const MultipartForm::Part *part = form.part("script_file");
        QVERIFY(part);
        QCOMPARE(form.contents(*part), file);
        QCOMPARE(part->size, file.size());
        QCOMPARE(part->sha256, QCryptographicHash::hash(file, QCryptographicHash::Sha256));
    }

    void aCrashLeavesOldOrNewBytes_data()
    {
        QTest::addColumn<QString>("point");
        QTest::addColumn<QString>("action");
        QTest::addColumn<QString>("expected");
        QTest::addColumn<QByteArray>("logged");
        const QByteArray rolledBack = "rolled back", finished = "finished the file";
        QTest::newRow("new upload before commit") << "before-commit" << "upload" << "absent" << rolledBack;
        QTest::newRow("new upload after commit") << "after-commit" << "upload" << "new" << finished;
        QTest::newRow("update before commit") << "before-commit" << "update" << "old" << rolledBack;
        QTest::newRow("update after commit") << "after-commit" << "update" << "new" << finished;
        QTest::newRow("update between renames") << "during-publish" << "update" << "new" << finished;
        QTest::newRow("delete after commit") << "after-delete-commit" << "delete" << "absent"
                                             << QByteArray("no resource owns");
    }

    void aCrashLeavesOldOrNewBytes()
    {
        QFETCH(QString, point);
        QFETCH(QString, action);
        QFETCH(QString, expected);
        QFETCH(QByteArray, logged);
        CatalogueServerFixture crashing;
        QVERIFY2(crashing.startProcess(), qPrintable(crashing.error()));
        const QString author = crashing.signIn("111111111111111111", "author");
        const QByteArray oldBytes(300000, 'o'), newBytes(400000, 'n');
        const QString kept = action == "upload" ? QString()
                                                : crashing.uploadScript(author, "kept.gpc3", oldBytes).text("data/id");
        QVERIFY(action == "upload" || !kept.isEmpty());

        QVERIFY2(crashing.startProcess({}, {{"QUORIX_SERVER_CRASH_AT", point}}), qPrintable(crashing.error()));
        if (action == "delete") {
            crashing.remove(kept, author);
        } else {
            QList<QPair<QString, QString>> fields{{"name", "Crash test"}, {"description", "Killed on purpose"}};
            if (!kept.isEmpty())
                fields.append({"existing_uuid", kept});
            crashing.upload("upload", author, fields,
                            {{"script_file", "kept.gpc3", newBytes}, {"header_image", "h.png", crashing.png(64, 32)}});
        }
        QVERIFY2(crashing.waitForProcessEnd(), crashing.processOutput().constData());

        QVERIFY2(crashing.startProcess(), qPrintable(crashing.error()));
        QVERIFY2(crashing.processOutput().contains(logged), crashing.processOutput().constData());
        const QStringList listed = crashing.get("?limit=100").column("scripts", "id");
        QCOMPARE(listed.size(), expected == "absent" ? 0 : 1);
        for (const QString &listedId : listed) {
            const auto download = crashing.get("download/" + listedId);
            QCOMPARE(download.body, expected == "new" ? newBytes : oldBytes);
            QCOMPARE(download.header("repr-digest"), crashing.reprDigest(download.body));
        }
        for (const QString folder : {"staging", "files", "images"}) {
            const QStringList left = QDir(crashing.dataDirectory() + '/' + folder).entryList(QDir::Files);
            QVERIFY2(left.filter(".new").isEmpty() && (folder != "staging" || left.isEmpty()),
                     qPrintable(left.join(' ')));
            if (expected == "absent")
                QCOMPARE(left, QStringList());
        }
    }

    void helpDescribesTheOptions()
    {
        QProcess process;
        process.start(qEnvironmentVariable("QUORIX_BINARY_DIR") + "/bin/catalogue-server", {"--help"});
        QVERIFY(process.waitForFinished(10000));
        const QString help = QString::fromUtf8(process.readAllStandardOutput());
        for (const char *option : {"--data-dir", "--port", "--bind", "--seed-demo", "--dev-login", "--admin-ids"})
            QVERIFY2(help.contains(option), option);
    }

    void unusableDataFoldersStopTheStart_data()
    {
        QTest::addColumn<QString>("directory");
        QTest::addColumn<QString>("message");
        // The tests may run as root, whom permissions do not stop; /proc refuses new files to everyone.
        QTest::newRow("not writable") << "/proc/self" << "is not writable";
        QTest::newRow("under a file") << "/proc/self/status/data" << "Cannot use the data directory";
    }

    void unusableDataFoldersStopTheStart()
    {
        QFETCH(QString, directory);
        QFETCH(QString, message);
        QProcess process;
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.start(qEnvironmentVariable("QUORIX_BINARY_DIR") + "/bin/catalogue-server",
                      {"--data-dir", directory, "--port", "0"});
        QVERIFY(process.waitForFinished(10000));
        QCOMPARE(process.exitCode(), 1);
        QVERIFY2(process.readAll().contains(message.toUtf8()), qPrintable(message));
    }

    void curlUploadsAndDownloadsTheSameBytes()
    {
        if (QStandardPaths::findExecutable("curl").isEmpty())
            QSKIP("curl is not installed");
        const QString login = R"({"discord_id":"123456789012345678","username":"curl"})";
        const QString session
                = QJsonDocument::fromJson(curl({"-X", "POST", "-d", login, server.origin() + "/api/auth/dev-login"}))
                          .object()
                          .value("token")
                          .toString();
        QVERIFY(!session.isEmpty());

        QTemporaryDir files;
        QByteArray bytes(200000, Qt::Uninitialized);
        QRandomGenerator(7).fillRange(reinterpret_cast<quint32 *>(bytes.data()), bytes.size() / 4);
        const QString scriptPath = files.filePath("binary script.gpc3");
        QFile script(scriptPath);
        QVERIFY(script.open(QIODevice::WriteOnly) && script.write(bytes) == bytes.size());
        script.close();

        const QJsonObject uploaded
                = QJsonDocument::fromJson(curl({"-H", "Authorization: Bearer " + session, "-H", "Expect:", "-F",
                                                "name=Curl upload", "-F", "description=Uploaded by curl in a test",
                                                "-F", "tags=curl,test", "-F", "script_file=@" + scriptPath,
                                                server.apiUrl("upload")}))
                          .object();
        QCOMPARE(uploaded.value("success").toBool(), true);
        const QString downloaded = files.filePath("downloaded");
        const QByteArray headers = curl({"-D", "-", "-o", downloaded,
                                         server.apiUrl("download/" + uploaded.value("data")["id"].toString())});
        QVERIFY2(headers.contains("Content-Disposition: attachment; filename=\"binary script.gpc3\""),
                 headers.constData());
        QFile result(downloaded);
        QVERIFY(result.open(QIODevice::ReadOnly));
        QCOMPARE(result.readAll(), bytes);
    }
};

QTEST_MAIN(CatalogueServerTransportTest)
#include "tst_catalogue_server_transport.moc"
