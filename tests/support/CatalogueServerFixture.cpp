#include "CatalogueServerFixture.h"

#include <QBuffer>
#include <QCryptographicHash>
#include <QDeadlineTimer>
#include <QImage>
#include <QEventLoop>
#include <QJsonDocument>
#include <QNetworkProxy>
#include <QNetworkReply>
#include <QRegularExpression>
#include <QTcpSocket>
#include <QTimer>

namespace Quorix::Testing {

namespace {

constexpr int replyTimeoutMilliseconds = 60000;

} // namespace

QJsonValue CatalogueServerFixture::Reply::at(const QString &path) const
{
    QJsonValue value = json;
    for (const QString &key : path.split(QLatin1Char('/'), Qt::SkipEmptyParts)) {
        bool index = false;
        const int position = key.toInt(&index);
        value = index ? value.toArray().at(position) : value.toObject().value(key);
    }
    return value;
}

QString CatalogueServerFixture::Reply::texts(const QStringList &paths) const
{
    QStringList values;
    for (const QString &path : paths)
        values.append(text(path));
    return values.join(QLatin1Char(' '));
}

QStringList CatalogueServerFixture::Reply::column(const QString &arrayPath, const QString &key) const
{
    QStringList values;
    for (const QJsonValue &record : at(arrayPath).toArray())
        values.append(record.toObject().value(key).toVariant().toString());
    return values;
}

CatalogueServerFixture::CatalogueServerFixture(bool seedDemo, const QStringList &administratorIds)
{
    options.dataDirectory = directory.path();
    options.bindAddress = QHostAddress::LocalHost;
    options.port = 0;
    options.seedDemo = seedDemo;
    options.devLogin = true;
    options.administratorIds = administratorIds;
    network.setProxy(QNetworkProxy::NoProxy);
}

CatalogueServerFixture::~CatalogueServerFixture() = default;

bool CatalogueServerFixture::start()
{
    server = std::make_unique<CatalogueServer>(options);
    return server->start(&startError);
}

bool CatalogueServerFixture::startProcess(const QStringList &arguments,
                                          const QList<QPair<QString, QString>> &environment)
{
    process.reset(); // QProcess kills and reaps a running program on destruction.
    process = std::make_unique<QProcess>();
    output.clear();
    process->setProcessChannelMode(QProcess::MergedChannels);
    QProcessEnvironment variables = QProcessEnvironment::systemEnvironment();
    for (const auto &variable : environment)
        variables.insert(variable.first, variable.second);
    process->setProcessEnvironment(variables);
    process->start(qEnvironmentVariable("QUORIX_BINARY_DIR") + "/bin/catalogue-server",
                   QStringList{"--data-dir", directory.path(), "--port", "0", "--dev-login"} + arguments);
    static const QRegularExpression listening(QStringLiteral("listening on http://127\\.0\\.0\\.1:(\\d+)"));
    QDeadlineTimer deadline(30000);
    while (!deadline.hasExpired() && process->state() != QProcess::NotRunning) {
        process->waitForReadyRead(100);
        output += process->readAll();
        const QRegularExpressionMatch match = listening.match(QString::fromUtf8(output));
        if (match.hasMatch()) {
            processPort = quint16(match.captured(1).toUInt());
            return true;
        }
    }
    startError = "catalogue-server did not start: " + QString::fromUtf8(output);
    return false;
}

bool CatalogueServerFixture::waitForProcessEnd()
{
    const bool ended = process && (process->state() == QProcess::NotRunning || process->waitForFinished(30000));
    if (process)
        output += process->readAll();
    return ended;
}

QByteArray CatalogueServerFixture::processOutput()
{
    if (process)
        output += process->readAll();
    return output;
}

QByteArray CatalogueServerFixture::exchange(const QByteArray &raw, int waitMilliseconds)
{
    QTcpSocket socket;
    socket.connectToHost(QHostAddress::LocalHost, port());
    if (!socket.waitForConnected(5000))
        return {};
    socket.write(raw);
    QByteArray received;
    QDeadlineTimer deadline(waitMilliseconds);
    while (!deadline.hasExpired()) {
        if (socket.bytesAvailable() == 0 && !socket.waitForReadyRead(int(qMax<qint64>(1, deadline.remainingTime()))))
            break;
        received += socket.readAll();
        const qsizetype headerEnd = received.indexOf("\r\n\r\n");
        static const QRegularExpression length(QStringLiteral("(?i)\r\ncontent-length:\\s*(\\d+)"));
        const QRegularExpressionMatch match = length.match(QString::fromLatin1(received.left(headerEnd)));
        if (headerEnd >= 0 && !received.startsWith("HTTP/1.1 100") && match.hasMatch()
            && received.size() >= headerEnd + 4 + match.captured(1).toLongLong())
            break;
    }
    return received + socket.readAll();
}

QByteArray CatalogueServerFixture::png(int width, int height)
{
    QImage image(width, height, QImage::Format_RGB32);
    image.fill(Qt::darkCyan);
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG");
    return bytes;
}

QByteArray CatalogueServerFixture::reprDigest(const QByteArray &bytes)
{
    return "sha-256=:" + QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toBase64() + ':';
}

quint16 CatalogueServerFixture::port() const
{
    return server ? server->port() : processPort;
}

QString CatalogueServerFixture::origin() const
{
    return QStringLiteral("http://127.0.0.1:%1").arg(port());
}

QString CatalogueServerFixture::apiUrl(const QString &path) const
{
    return origin() + "/api/scripts/" + path;
}

QString CatalogueServerFixture::signIn(const QString &discordId, const QString &username, const QString &globalName)
{
    const QJsonObject body{{"discord_id", discordId}, {"username", username}, {"global_name", globalName}};
    return send("POST", origin() + "/api/auth/dev-login", QJsonDocument(body).toJson(),
                {{"Content-Type", "application/json"}}, QString())
            .text("token");
}

CatalogueServerFixture::Reply CatalogueServerFixture::get(const QString &path, const QString &token)
{
    return send("GET", apiUrl(path), {}, {}, token);
}

CatalogueServerFixture::Reply CatalogueServerFixture::post(const QString &path, const QByteArray &body,
                                                           const QString &token,
                                                           const QList<QPair<QByteArray, QByteArray>> &headers)
{
    return send("POST", apiUrl(path), body, headers, token);
}

CatalogueServerFixture::Reply CatalogueServerFixture::postJson(const QString &path, const QJsonObject &body,
                                                               const QString &token)
{
    return post(path, QJsonDocument(body).toJson(QJsonDocument::Indented), token,
                {{"Content-Type", "application/json"}});
}

CatalogueServerFixture::Reply CatalogueServerFixture::remove(const QString &path, const QString &token)
{
    return post(path + "?_method=DELETE", "_method=DELETE", token,
                {{"Content-Type", "application/x-www-form-urlencoded"}, {"X-HTTP-Method-Override", "DELETE"}});
}

CatalogueServerFixture::Reply CatalogueServerFixture::upload(const QString &path, const QString &token,
                                                             const QList<QPair<QString, QString>> &fields,
                                                             const QList<UploadFile> &files)
{
    const QByteArray boundary = "----quorixTestBoundary7MA4YWxk";
    QByteArray body;
    for (const auto &field : fields) {
        body += "--" + boundary + "\r\nContent-Disposition: form-data; name=\"" + field.first.toUtf8() + "\"\r\n\r\n"
                + field.second.toUtf8() + "\r\n";
    }
    for (const auto &file : files) {
        body += "--" + boundary + "\r\nContent-Disposition: form-data; name=\"" + file.part.toUtf8() + "\"; filename=\""
                + file.fileName.toUtf8() + "\"\r\nContent-Type: application/octet-stream\r\n\r\n" + file.content
                + "\r\n";
    }
    body += "--" + boundary + "--\r\n";
    return post(path, body, token,
                {{"Content-Type", "multipart/form-data; boundary=" + boundary}});
}

CatalogueServerFixture::Reply CatalogueServerFixture::uploadScript(const QString &token, const QString &fileName,
                                                                   const QByteArray &content, const QString &visibility,
                                                                   const QString &existingId)
{
    QList<QPair<QString, QString>> fields{
            {"name", "Script " + fileName}, {"description", "A script uploaded by a test"}, {"tags", "test,upload"}};
    if (!existingId.isEmpty())
        fields.append({"existing_uuid", existingId});
    fields += {{"version", "1"}, {"visibility_type", visibility}};
    return upload("upload", token, fields, {{"script_file", fileName, content}});
}

CatalogueServerFixture::Reply CatalogueServerFixture::send(const QByteArray &method, const QString &url,
                                                           const QByteArray &body,
                                                           const QList<QPair<QByteArray, QByteArray>> &headers,
                                                           const QString &token)
{
    QNetworkRequest request{QUrl(url)};
    for (const auto &header : headers)
        request.setRawHeader(header.first, header.second);
    if (!token.isEmpty())
        request.setRawHeader("Authorization", "Bearer " + token.toUtf8());
    QNetworkReply *reply = network.sendCustomRequest(request, method, body);
    QEventLoop loop;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    QTimer::singleShot(replyTimeoutMilliseconds, &loop, &QEventLoop::quit);
    loop.exec();
    Reply result;
    reply->deleteLater();
    if (!reply->isFinished()) {
        reply->abort();
        return result;
    }
    result.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    result.body = reply->readAll();
    for (const auto &pair : reply->rawHeaderPairs())
        result.headers.insert(pair.first.toLower(), pair.second);
    result.json = QJsonDocument::fromJson(result.body).object();
    return result;
}

} // namespace Quorix::Testing
