#include <CatalogueServerFixture.h>
#include <MultipartForm.h>

#include <QCryptographicHash>
#include <QDir>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QtTest>

using Quorix::MultipartForm;
using Quorix::Testing::CatalogueServerFixture;

namespace {

constexpr int connectionCap = 6;

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

QByteArray bodyOf(const QByteArray &response)
{
    return response.mid(response.indexOf("\r\n\r\n") + 4);
}

} // namespace

// The real program under hostile and unusual HTTP: limits hold before bodies are read, files leave in ranges and
// with their digest, idle and surplus connections are turned away.
class CatalogueServerTransportTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(server.startProcess({QStringLiteral("--header-timeout"), QStringLiteral("1"),
                                      QStringLiteral("--keep-alive-timeout"), QStringLiteral("1"),
                                      QStringLiteral("--body-timeout"), QStringLiteral("2"),
                                      QStringLiteral("--max-connections"), QString::number(connectionCap)}),
                 qPrintable(server.error()));
        token = server.signIn(QStringLiteral("111111111111111111"), QStringLiteral("author"));
        QVERIFY(!token.isEmpty());
        for (int i = 0; i < 1000; ++i)
            content.append(char('a' + i % 23));
        const auto reply = server.uploadScript(token, QStringLiteral("ranges.gpc3"), content);
        QCOMPARE(reply.status, 200);
        id = reply.json.value(QStringLiteral("data")).toObject().value(QStringLiteral("id")).toString().toLatin1();
    }

    void limitsAnswerBeforeTheBody_data()
    {
        QTest::addColumn<QByteArray>("raw");
        QTest::addColumn<QByteArray>("status");
        const QByteArray json = "Content-Type: application/json\r\n";
        QTest::newRow("headers over 16 KiB") << request("GET", "", "X-Fill: " + QByteArray(16 * 1024, 'f') + "\r\n")
                                             << QByteArray("HTTP/1.1 431 Request Header Fields Too Large");
        QTest::newRow("headers under 16 KiB") << request("GET", "", "X-Fill: " + QByteArray(15 * 1024, 'f') + "\r\n")
                                              << QByteArray("HTTP/1.1 200 OK");
        QTest::newRow("json length over 1 MiB")
                << request("POST", "check-existing", json + "Content-Length: 1048577\r\n")
                << QByteArray("HTTP/1.1 413 Payload Too Large");
        QTest::newRow("script upload length over its limit")
                << request("POST", "upload", "Content-Length: 15728641\r\n")
                << QByteArray("HTTP/1.1 413 Payload Too Large");
        QTest::newRow("weights upload length over its limit")
                << request("POST", "onnx/upload", "Content-Length: 529530881\r\n")
                << QByteArray("HTTP/1.1 413 Payload Too Large");
        QTest::newRow("chunked json growing past 1 MiB")
                << request("POST", "check-existing", json + "Transfer-Encoding: chunked\r\n",
                           "100001\r\n" + QByteArray(0x100001, ' ') + "\r\n0\r\n\r\n")
                << QByteArray("HTTP/1.1 413 Payload Too Large");
        QTest::newRow("length beside chunked")
                << request("POST", "check-existing", "Content-Length: 5\r\nTransfer-Encoding: chunked\r\n", "0\r\n\r\n")
                << QByteArray("HTTP/1.1 400 Bad Request");
        QTest::newRow("two different lengths")
                << request("POST", "check-existing", "Content-Length: 5\r\nContent-Length: 6\r\n", "{}")
                << QByteArray("HTTP/1.1 400 Bad Request");
        QTest::newRow("continue for an acceptable body")
                << request("POST", "check-existing", json + "Expect: 100-continue\r\nContent-Length: 2\r\n")
                << QByteArray("HTTP/1.1 100 Continue");
        QTest::newRow("no continue for a body over the limit")
                << request("POST", "check-existing", json + "Expect: 100-continue\r\nContent-Length: 2000000\r\n")
                << QByteArray("HTTP/1.1 413 Payload Too Large");
        QTest::newRow("anonymous upload refused unread")
                << request("POST", "upload",
                           "Content-Type: multipart/form-data; boundary=b\r\nExpect: 100-continue\r\n"
                           "Content-Length: 4000\r\n")
                << QByteArray("HTTP/1.1 401 Unauthorized");
    }

    void limitsAnswerBeforeTheBody()
    {
        QFETCH(QByteArray, raw);
        QFETCH(QByteArray, status);
        QCOMPARE(statusLine(server.exchange(raw, 3000)), status);
    }

    void downloadsHonourHeadAndRange_data()
    {
        QTest::addColumn<QByteArray>("method");
        QTest::addColumn<QByteArray>("range");
        QTest::addColumn<QByteArray>("status");
        QTest::addColumn<QByteArray>("contentRange");
        QTest::addColumn<QByteArray>("body");
        QTest::newRow("whole") << QByteArray("GET") << QByteArray() << QByteArray("HTTP/1.1 200 OK") << QByteArray()
                               << content;
        QTest::newRow("head") << QByteArray("HEAD") << QByteArray() << QByteArray("HTTP/1.1 200 OK") << QByteArray()
                              << QByteArray();
        QTest::newRow("first ten") << QByteArray("GET") << QByteArray("bytes=0-9")
                                   << QByteArray("HTTP/1.1 206 Partial Content") << QByteArray("bytes 0-9/1000")
                                   << content.left(10);
        QTest::newRow("resume from 990") << QByteArray("GET") << QByteArray("bytes=990-")
                                         << QByteArray("HTTP/1.1 206 Partial Content")
                                         << QByteArray("bytes 990-999/1000") << content.mid(990);
        QTest::newRow("last five") << QByteArray("GET") << QByteArray("bytes=-5")
                                   << QByteArray("HTTP/1.1 206 Partial Content") << QByteArray("bytes 995-999/1000")
                                   << content.right(5);
        QTest::newRow("past the end") << QByteArray("GET") << QByteArray("bytes=1000-")
                                      << QByteArray("HTTP/1.1 416 Range Not Satisfiable") << QByteArray("bytes */1000")
                                      << QByteArray();
        QTest::newRow("several ranges get everything") << QByteArray("GET") << QByteArray("bytes=0-1,5-6")
                                                       << QByteArray("HTTP/1.1 200 OK") << QByteArray() << content;
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
        QCOMPARE(bodyOf(response), body);
        if (status.contains("416"))
            return;
        const QByteArray digest = QCryptographicHash::hash(content, QCryptographicHash::Sha256).toBase64();
        QCOMPARE(headerValue(response, "Repr-Digest"), "sha-256=:" + digest + ':');
        QCOMPARE(headerValue(response, "Content-Length").toInt(), method == "HEAD" ? 1000 : body.size());
    }

    void nonAsciiFileNamesTravelAsFilenameStar()
    {
        const auto uploaded = server.uploadScript(token, QStringLiteral("Café ünï.gpc3"), "main {}");
        const QByteArray named = uploaded.json.value(QStringLiteral("data"))
                                         .toObject()
                                         .value(QStringLiteral("id"))
                                         .toString()
                                         .toLatin1();
        const QByteArray response = server.exchange(request("HEAD", "download/" + named, {}), 3000);
        QCOMPARE(headerValue(response, "Content-Disposition"),
                 QByteArray("attachment; filename=\"Caf_ _n_.gpc3\"; filename*=UTF-8''Caf%C3%A9%20%C3%BCn%C3%AF.gpc3"));
    }

    void refusedUploadsLeaveNoStagingFiles()
    {
        const auto reply = server.upload(
                QStringLiteral("upload"), token,
                {{QStringLiteral("name"), QStringLiteral("Too big")},
                 {QStringLiteral("description"), QStringLiteral("A script over its limit")}},
                {{QStringLiteral("script_file"), QStringLiteral("big.gpc3"), QByteArray(10 * 1024 * 1024 + 1, 'x')}});
        QCOMPARE(reply.status, 413);
        QCOMPARE(reply.json.value(QStringLiteral("error")).toString(), QStringLiteral("File too large (max 10MB)"));
        QTRY_COMPARE_WITH_TIMEOUT(QDir(server.dataDirectory() + QStringLiteral("/staging")).entryList(QDir::Files),
                                  QStringList(), 5000);
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
        QList<QTcpSocket *> idle;
        for (int i = 0; i < connectionCap; ++i) {
            idle.append(new QTcpSocket(this));
            idle.last()->connectToHost(QHostAddress::LocalHost, server.port());
            QVERIFY(idle.last()->waitForConnected(5000));
        }
        // A socket is connected as soon as the kernel queues it; the server counts it only once it has accepted it.
        QTRY_COMPARE_WITH_TIMEOUT(statusLine(server.exchange(request("GET", "", {}), 3000)),
                                  QByteArray("HTTP/1.1 503 Service Unavailable"), 10000);
        qDeleteAll(idle);
        QTRY_COMPARE_WITH_TIMEOUT(statusLine(server.exchange(request("GET", "", {}), 3000)),
                                  QByteArray("HTTP/1.1 200 OK"), 10000);
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
        limits.files = {{QStringLiteral("script_file"), 10000, QStringLiteral("too large")}};
        MultipartForm form("multipart/form-data; boundary=boundary", limits, staging.path());
        for (qsizetype at = 0; at < body.size(); at += pieceSize)
            QVERIFY(form.feed(body.constData() + at, qMin<qsizetype>(pieceSize, body.size() - at)));
        QVERIFY(form.finish());
        QCOMPARE(form.text(QStringLiteral("name")), QStringLiteral("Café"));
        const MultipartForm::Part *part = form.part(QStringLiteral("script_file"));
        QVERIFY(part);
        QCOMPARE(form.contents(*part), file);
        QCOMPARE(part->size, file.size());
        QCOMPARE(part->sha256, QCryptographicHash::hash(file, QCryptographicHash::Sha256));
    }

private:
    CatalogueServerFixture server;
    QString token;
    QByteArray id;
    QByteArray content;
};

QTEST_MAIN(CatalogueServerTransportTest)
#include "tst_catalogue_server_transport.moc"
