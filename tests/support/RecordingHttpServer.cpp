#include "RecordingHttpServer.h"

#include <algorithm>

#include <QJsonDocument>
#include <QPointer>
#include <QTcpSocket>
#include <QTest>
#include <QTimer>

namespace Quorix::Testing {

namespace {

QByteArray headerValue(const HttpHeaders &headers, const QByteArray &name)
{
    for (const auto &header : headers) {
        if (header.first.compare(name, Qt::CaseInsensitive) == 0)
            return header.second;
    }
    return {};
}

// Decodes a chunked body starting at position; false while the last chunk has not arrived.
bool takeChunkedBody(const QByteArray &buffer, qsizetype position, QByteArray &body, qsizetype &end)
{
    QByteArray decoded;
    for (;;) {
        const qsizetype lineEnd = buffer.indexOf("\r\n", position);
        bool ok = false;
        const qsizetype size = buffer.mid(position, lineEnd - position).split(';').first().toLongLong(&ok, 16);
        if (lineEnd < 0 || !ok || size < 0)
            return false;
        position = lineEnd + 2;
        if (size == 0) {
            // Optional trailers, then the empty line that closes the message.
            end = buffer.mid(position, 2) == "\r\n" ? position + 2 : buffer.indexOf("\r\n\r\n", position) + 4;
            body = decoded;
            return end >= 4;
        }
        if (buffer.size() < position + size + 2)
            return false;
        decoded.append(buffer.mid(position, size));
        position += size + 2;
    }
}

// Takes one complete request off the front of buffer; false while it is incomplete.
bool takeRequest(QByteArray &buffer, RecordedRequest &request)
{
    const qsizetype headerEnd = buffer.indexOf("\r\n\r\n");
    if (headerEnd < 0)
        return false;
    RecordedRequest parsed;
    const QList<QByteArray> lines = buffer.left(headerEnd).split('\n');
    parsed.requestLine = lines.first().trimmed();
    parsed.method = parsed.requestLine.split(' ').value(0);
    parsed.target = parsed.requestLine.split(' ').value(1);
    for (const QByteArray &line : lines.mid(1)) {
        const qsizetype colon = line.indexOf(':');
        if (colon > 0)
            parsed.headers.append({line.left(colon).trimmed(), line.mid(colon + 1).trimmed()});
    }
    qsizetype end = headerEnd + 4 + parsed.header("Content-Length").toLongLong();
    if (parsed.header("Transfer-Encoding").toLower().contains("chunked")) {
        if (!takeChunkedBody(buffer, headerEnd + 4, parsed.body, end))
            return false;
    } else if (buffer.size() < end) {
        return false;
    } else {
        parsed.body = buffer.mid(headerEnd + 4, end - headerEnd - 4);
    }
    buffer.remove(0, end);
    request = parsed;
    return true;
}

} // namespace

QString RecordedRequest::path() const
{
    return QUrl::fromEncoded(target, QUrl::TolerantMode).path(QUrl::FullyDecoded);
}

QUrlQuery RecordedRequest::query() const
{
    return QUrlQuery(QUrl::fromEncoded(target, QUrl::TolerantMode));
}

bool RecordedRequest::hasHeader(const QByteArray &name) const
{
    return std::any_of(headers.cbegin(), headers.cend(),
                       [&name](const auto &header) { return header.first.compare(name, Qt::CaseInsensitive) == 0; });
}

QByteArray RecordedRequest::header(const QByteArray &name) const
{
    return headerValue(headers, name);
}

ScriptedResponse ScriptedResponse::json(const QJsonObject &object, int status)
{
    return rawJson(QJsonDocument(object).toJson(QJsonDocument::Compact), status);
}

ScriptedResponse ScriptedResponse::rawJson(const QByteArray &text, int status)
{
    return bytes(text, "application/json", status);
}

ScriptedResponse ScriptedResponse::bytes(const QByteArray &body, const QByteArray &contentType, int status)
{
    ScriptedResponse response;
    response.status = status;
    response.body = body;
    return contentType.isEmpty() ? response : response.withHeader("Content-Type", contentType);
}

ScriptedResponse ScriptedResponse::redirect(const QUrl &location, int status)
{
    return bytes(QByteArray(), QByteArray(), status).withHeader("Location", location.toEncoded());
}

ScriptedResponse ScriptedResponse::dropped()
{
    ScriptedResponse response;
    response.ending = Ending::Drop;
    return response;
}

ScriptedResponse ScriptedResponse::rawBytes(const QByteArray &bytes)
{
    ScriptedResponse response;
    response.raw = bytes;
    response.ending = Ending::Drop;
    response.cutAfter = bytes.size();
    return response;
}

ScriptedResponse ScriptedResponse::withHeader(const QByteArray &name, const QByteArray &value) const
{
    ScriptedResponse copy = *this;
    copy.headers.append({name, value});
    return copy;
}

ScriptedResponse ScriptedResponse::withDelay(int milliseconds) const
{
    ScriptedResponse copy = *this;
    copy.delayMs = milliseconds;
    return copy;
}

ScriptedResponse ScriptedResponse::stallingAfter(qsizetype bodyBytes) const
{
    ScriptedResponse copy = *this;
    copy.ending = Ending::Stall;
    copy.cutAfter = headerSize() + bodyBytes;
    return copy;
}

ScriptedResponse ScriptedResponse::droppingAfter(qsizetype bodyBytes) const
{
    ScriptedResponse copy = stallingAfter(bodyBytes);
    copy.ending = Ending::Drop;
    return copy;
}

QByteArray ScriptedResponse::serialised() const
{
    if (!raw.isEmpty())
        return raw;
    // Clients read the status code only, so one reason phrase per class of status does.
    const QByteArray reason = status < 300 ? "OK" : status < 400 ? "Redirect" : "Error";
    QByteArray bytes = "HTTP/1.1 " + QByteArray::number(status) + ' ' + reason + "\r\n";
    for (const auto &header : headers)
        bytes += header.first + ": " + header.second + "\r\n";
    if (headerValue(headers, "Content-Length").isEmpty())
        bytes += "Content-Length: " + QByteArray::number(body.size()) + "\r\n";
    return bytes + "\r\n" + body;
}

qsizetype ScriptedResponse::headerSize() const
{
    return serialised().size() - body.size();
}

RecordingHttpServer::RecordingHttpServer(QObject *parent)
    : QObject(parent)
{
    reset();
    connect(&server, &QTcpServer::newConnection, this, &RecordingHttpServer::onNewConnection);
}

RecordingHttpServer::~RecordingHttpServer()
{
    close();
}

bool RecordingHttpServer::listen(quint16 port)
{
    if (!server.listen(QHostAddress::LocalHost, port))
        return false;
    lastPort = server.serverPort();
    return true;
}

void RecordingHttpServer::close()
{
    server.close();
    const QList<QTcpSocket *> sockets = connections.keys();
    connections.clear();
    for (QTcpSocket *socket : sockets) {
        socket->disconnect(this);
        socket->abort();
        socket->deleteLater();
    }
}

QString RecordingHttpServer::origin() const
{
    return QStringLiteral("http://127.0.0.1:%1").arg(lastPort);
}

void RecordingHttpServer::reset()
{
    const bool wasListening = server.isListening();
    close();
    recorded.clear();
    queue.clear();
    rules.clear();
    defaultResponse = ScriptedResponse::bytes("no scripted response", "text/plain", 404);
    if (wasListening)
        listen(lastPort);
}

bool RecordingHttpServer::waitForRequests(int count, int timeoutMs) const
{
    return QTest::qWaitFor([this, count] { return recorded.size() >= count; }, timeoutMs);
}

void RecordingHttpServer::onNewConnection()
{
    while (QTcpSocket *socket = server.nextPendingConnection()) {
        connections.insert(socket, QByteArray());
        connect(socket, &QTcpSocket::readyRead, this, [this, socket] { onSocketReadyRead(socket); });
        connect(socket, &QTcpSocket::disconnected, this, [this, socket] {
            connections.remove(socket);
            socket->deleteLater();
        });
    }
}

void RecordingHttpServer::onSocketReadyRead(QTcpSocket *socket)
{
    RecordedRequest request;
    // A Drop answer can close the connection between two requests of one read.
    while (connections.contains(socket)) {
        QByteArray &buffer = connections[socket];
        buffer.append(socket->readAll());
        if (!takeRequest(buffer, request))
            return;
        recorded.append(request);
        const auto rule = rules.constFind(request.path());
        answer(socket, rule != rules.cend() ? rule.value() : !queue.isEmpty() ? queue.dequeue() : defaultResponse);
    }
}

void RecordingHttpServer::answer(QTcpSocket *socket, const ScriptedResponse &response)
{
    QPointer<QTcpSocket> guarded(socket);
    auto send = [this, guarded, response] {
        if (!guarded || !connections.contains(guarded))
            return;
        const QByteArray bytes = response.serialised();
        guarded->write(response.ending == ScriptedResponse::Ending::Complete ? bytes : bytes.left(response.cutAfter));
        // A graceful close, so the bytes written so far still reach the client before the end of stream.
        if (response.ending == ScriptedResponse::Ending::Drop)
            guarded->disconnectFromHost();
    };
    if (response.delayMs > 0)
        QTimer::singleShot(response.delayMs, this, send);
    else
        send();
}

} // namespace Quorix::Testing
