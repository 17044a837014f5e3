#pragma once

#include <QByteArray>
#include <QHash>
#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QPair>
#include <QQueue>
#include <QString>
#include <QTcpServer>
#include <QUrl>
#include <QUrlQuery>

class QTcpSocket;

namespace Quorix::Testing {

using HttpHeaders = QList<QPair<QByteArray, QByteArray>>;

// One request exactly as it came off the wire; the body is de-chunked when it was sent chunked.
struct RecordedRequest
{
    QByteArray requestLine; // "POST /api/scripts/upload HTTP/1.1"
    QByteArray method;
    QByteArray target; // path and query, still percent-encoded
    HttpHeaders headers; // in the order received, names as sent
    QByteArray body;

    QString path() const; // decoded, without the query
    QUrlQuery query() const;
    bool hasHeader(const QByteArray &name) const; // names compare case-insensitively
    QByteArray header(const QByteArray &name) const; // first value, empty when absent
};

// One scripted answer, e.g. ScriptedResponse::json({{"success", true}}).withDelay(200).
struct ScriptedResponse
{
    enum class Ending {
        Complete, // everything is sent and the connection stays open for the next request
        Stall, // the first cutAfter bytes are sent, then nothing, with the connection left open
        Drop, // the first cutAfter bytes are sent, then the connection is closed
    };

    int status = 200;
    HttpHeaders headers;
    QByteArray body;
    int delayMs = 0;
    Ending ending = Ending::Complete;
    qsizetype cutAfter = 0; // bytes of the serialised response sent before the end
    QByteArray raw; // when set, sent instead of status, headers and body: for answers that are not HTTP at all

    static ScriptedResponse json(const QJsonObject &object, int status = 200);
    static ScriptedResponse rawJson(const QByteArray &text, int status = 200);
    static ScriptedResponse bytes(const QByteArray &body, const QByteArray &contentType = "application/octet-stream",
                                  int status = 200);
    static ScriptedResponse redirect(const QUrl &location, int status = 302);
    // Closes the connection without a byte of answer. A client may retry such a request, so give drops as a rule.
    static ScriptedResponse dropped();
    // Exactly these bytes, then the connection is closed.
    static ScriptedResponse rawBytes(const QByteArray &bytes);

    ScriptedResponse withHeader(const QByteArray &name, const QByteArray &value) const;
    ScriptedResponse withDelay(int milliseconds) const;
    // The headers and the first bodyBytes of the body go out, then the connection goes silent or is closed.
    ScriptedResponse stallingAfter(qsizetype bodyBytes) const;
    ScriptedResponse droppingAfter(qsizetype bodyBytes) const;

    // Status line, headers (Content-Length added unless given) and body, as they go on the wire.
    QByteArray serialised() const;
    qsizetype headerSize() const;
};

// An HTTP/1.1 server on 127.0.0.1 that records every request and answers from a script: a rule for a path wins,
// then the queue (first in, first out), then the default response (404 unless set). It lives on the test's
// thread, so the test must spin the event loop while the client talks to it.
class RecordingHttpServer : public QObject
{
    Q_OBJECT

public:
    explicit RecordingHttpServer(QObject *parent = nullptr);
    ~RecordingHttpServer() override;

    // Port 0 picks a free port; listening again on the previous port after close() makes a known address refuse
    // and then accept connections again.
    bool listen(quint16 port = 0);
    // Stops accepting and closes every open connection.
    void close();
    quint16 port() const { return lastPort; }
    QString origin() const; // "http://127.0.0.1:<port>"
    QUrl url(const QString &pathAndQuery = QStringLiteral("/")) const { return QUrl(origin() + pathAndQuery); }

    void enqueue(const ScriptedResponse &response) { queue.enqueue(response); }
    // Answers every request whose decoded path equals path.
    void setRule(const QString &path, const ScriptedResponse &response) { rules.insert(path, response); }
    void setDefaultResponse(const ScriptedResponse &response) { defaultResponse = response; }
    // Forgets requests, queue, rules and the default, and closes open connections.
    void reset();

    // Client connections still open; a client that gives up on a stalled answer shows here by closing its own.
    int openConnectionCount() const { return int(connections.size()); }

    QList<RecordedRequest> requests() const { return recorded; }
    int requestCount() const { return int(recorded.size()); }
    RecordedRequest lastRequest() const { return recorded.value(recorded.size() - 1); }
    // Spins the event loop until at least count requests have arrived or timeoutMs has passed.
    bool waitForRequests(int count, int timeoutMs = 5000) const;

private:
    void onNewConnection();
    void onSocketReadyRead(QTcpSocket *socket);
    void answer(QTcpSocket *socket, const ScriptedResponse &response);

    QTcpServer server;
    quint16 lastPort = 0;
    QHash<QTcpSocket *, QByteArray> connections; // what each connection sent that is not a whole request yet
    QList<RecordedRequest> recorded;
    QQueue<ScriptedResponse> queue;
    QHash<QString, ScriptedResponse> rules;
    ScriptedResponse defaultResponse;
};

} // namespace Quorix::Testing
