#include "RecordingHttpServer.h"

#include <algorithm>

#include <QHash>
#include <QJsonDocument>
#include <QPointer>
#include <QTcpSocket>
#include <QTest>
#include <QTimer>

namespace Quorix::Testing {

namespace {

QByteArray reasonPhrase(int status)
{
    static const QHash<int, QByteArray> phrases{{200, "OK"},
                                                {201, "Created"},
                                                {204, "No Content"},
                                                {301, "Moved Permanently"},
                                                {302, "Found"},
                                                {307, "Temporary Redirect"},
                                                {400, "Bad Request"},
                                                {401, "Unauthorized"},
                                                {403, "Forbidden"},
                                                {404, "Not Found"},
                                                {413, "Payload Too Large"},
                                                {500, "Internal Server Error"},
                                                {503, "Service Unavailable"}};
    return phrases.value(status, "Status");
}

bool sameName(const QByteArray &left, const QByteArray &right)
{
    return left.compare(right, Qt::CaseInsensitive) == 0;
}

QByteArray headerValue(const HttpHeaders &headers, const QByteArray &name)
{
    for (const auto &header : headers) {
        if (sameName(header.first, name))
            return header.second;
    }
    return {};
}

// Decodes a chunked body starting at offset; false while the last chunk has not arrived.
bool takeChunkedBody(const QByteArray &buffer, qsizetype offset, QByteArray &body, qsizetype &end)
{
    QByteArray decoded;
    qsizetype position = offset;
    for (;;) {
        const qsizetype lineEnd = buffer.indexOf("\r\n", position);
        if (lineEnd < 0)
            return false;
        const QByteArray sizeField = buffer.mid(position, lineEnd - position).split(';').first().trimmed();
        bool ok = false;
        const qsizetype size = sizeField.toLongLong(&ok, 16);
        if (!ok || size < 0)
            return false;
        position = lineEnd + 2;
        if (size == 0) {
            // Optional trailers, then the empty line that closes the message.
            if (buffer.mid(position, 2) == "\r\n") {
                end = position + 2;
            } else {
                const qsizetype trailersEnd = buffer.indexOf("\r\n\r\n", position);
                if (trailersEnd < 0)
                    return false;
                end = trailersEnd + 4;
            }
            body = decoded;
            return true;
        }
        if (buffer.size() < position + size + 2)
            return false;
        decoded.append(buffer.mid(position, size));
        position += size + 2;
    }
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
                       [&name](const auto &header) { return sameName(header.first, name); });
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
    if (!contentType.isEmpty())
        response.headers.append({"Content-Type", contentType});
    return response;
}

ScriptedResponse ScriptedResponse::redirect(const QUrl &location, int status)
{
    return bytes(QByteArray(), QByteArray(), status).withHeader("Location", location.toEncoded());
}

ScriptedResponse ScriptedResponse::dropped()
{
    ScriptedResponse response;
    response.ending = Ending::Drop;
    response.cutAfter = 0;
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
    ScriptedResponse copy = *this;
    copy.ending = Ending::Drop;
    copy.cutAfter = headerSize() + bodyBytes;
    return copy;
}

QByteArray ScriptedResponse::serialised() const
{
    if (!raw.isEmpty())
        return raw;
    QByteArray bytes = "HTTP/1.1 " + QByteArray::number(status) + ' ' + reasonPhrase(status) + "\r\n";
    for (const auto &header : headers)
        bytes += header.first + ": " + header.second + "\r\n";
    if (headerValue(headers, "Content-Length").isEmpty())
        bytes += "Content-Length: " + QByteArray::number(body.size()) + "\r\n";
    bytes += "\r\n";
    return bytes + body;
}

qsizetype ScriptedResponse::headerSize() const
{
    return serialised().size() - body.size();
}

RecordingHttpServer::RecordingHttpServer(QObject *parent)
    : QObject(parent)
{
    defaultResponse = ScriptedResponse::bytes("no scripted response", "text/plain", 404);
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

quint16 RecordingHttpServer::port() const
{
    return lastPort;
}

QString RecordingHttpServer::origin() const
{
    return QStringLiteral("http://127.0.0.1:%1").arg(lastPort);
}

QUrl RecordingHttpServer::url(const QString &pathAndQuery) const
{
    return QUrl(origin() + pathAndQuery);
}

void RecordingHttpServer::enqueue(const ScriptedResponse &response)
{
    queue.enqueue(response);
}

void RecordingHttpServer::setRule(const QString &path, const ScriptedResponse &response)
{
    rules.insert(path, response);
}

void RecordingHttpServer::setDefaultResponse(const ScriptedResponse &response)
{
    defaultResponse = response;
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

int RecordingHttpServer::openConnectionCount() const
{
    return int(connections.size());
}

QList<RecordedRequest> RecordingHttpServer::requests() const
{
    return recorded;
}

int RecordingHttpServer::requestCount() const
{
    return int(recorded.size());
}

RecordedRequest RecordingHttpServer::lastRequest() const
{
    return recorded.isEmpty() ? RecordedRequest() : recorded.last();
}

bool RecordingHttpServer::waitForRequests(int count, int timeoutMs) const
{
    return QTest::qWaitFor([this, count] { return recorded.size() >= count; }, timeoutMs);
}

void RecordingHttpServer::onNewConnection()
{
    while (QTcpSocket *socket = server.nextPendingConnection()) {
        connections.insert(socket, Connection());
        connect(socket, &QTcpSocket::readyRead, this, [this, socket] { onSocketReadyRead(socket); });
        connect(socket, &QTcpSocket::disconnected, this, [this, socket] {
            connections.remove(socket);
            socket->deleteLater();
        });
    }
}

void RecordingHttpServer::onSocketReadyRead(QTcpSocket *socket)
{
    auto connection = connections.find(socket);
    if (connection == connections.end())
        return;
    connection->buffer.append(socket->readAll());

    RecordedRequest request;
    while (takeRequest(connection->buffer, request)) {
        recorded.append(request);
        const ScriptedResponse response = responseFor(request);
        answer(socket, response);
        connection = connections.find(socket);
        if (connection == connections.end())
            return;
    }
}

bool RecordingHttpServer::takeRequest(QByteArray &buffer, RecordedRequest &request)
{
    const qsizetype headerEnd = buffer.indexOf("\r\n\r\n");
    if (headerEnd < 0)
        return false;

    RecordedRequest parsed;
    const QList<QByteArray> lines = buffer.left(headerEnd).split('\n');
    parsed.requestLine = lines.first().trimmed();
    const QList<QByteArray> requestParts = parsed.requestLine.split(' ');
    parsed.method = requestParts.value(0);
    parsed.target = requestParts.value(1);
    for (qsizetype i = 1; i < lines.size(); ++i) {
        const QByteArray line = lines.at(i).trimmed();
        const qsizetype colon = line.indexOf(':');
        if (colon > 0)
            parsed.headers.append({line.left(colon).trimmed(), line.mid(colon + 1).trimmed()});
    }

    const qsizetype bodyStart = headerEnd + 4;
    qsizetype end = bodyStart;
    if (parsed.header("Transfer-Encoding").toLower().contains("chunked")) {
        if (!takeChunkedBody(buffer, bodyStart, parsed.body, end))
            return false;
    } else {
        const qsizetype length = parsed.header("Content-Length").toLongLong();
        if (buffer.size() < bodyStart + length)
            return false;
        parsed.body = buffer.mid(bodyStart, length);
        end = bodyStart + length;
    }
    buffer.remove(0, end);
    request = parsed;
    return true;
}

ScriptedResponse RecordingHttpServer::responseFor(const RecordedRequest &request)
{
    const auto rule = rules.constFind(request.path());
    if (rule != rules.cend())
        return rule.value();
    if (!queue.isEmpty())
        return queue.dequeue();
    return defaultResponse;
}

void RecordingHttpServer::answer(QTcpSocket *socket, const ScriptedResponse &response)
{
    QPointer<QTcpSocket> guarded(socket);
    auto send = [this, guarded, response] {
        if (!guarded || !connections.contains(guarded))
            return;
        const QByteArray bytes = response.serialised();
        switch (response.ending) {
        case ScriptedResponse::Ending::Complete:
            guarded->write(bytes);
            break;
        case ScriptedResponse::Ending::Stall:
            guarded->write(bytes.left(response.cutAfter));
            break;
        case ScriptedResponse::Ending::Drop:
            if (response.cutAfter > 0)
                guarded->write(bytes.left(response.cutAfter));
            // A graceful close, so the bytes written so far still reach the client before the end of stream.
            guarded->disconnectFromHost();
            break;
        }
    };
    if (response.delayMs > 0)
        QTimer::singleShot(response.delayMs, this, send);
    else
        send();
}

} // namespace Quorix::Testing
