#include "OnlineResourcesAPI.h"

#include "api/DownloadSink.h"
#include "core/Configuration.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHttpMultiPart>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonParseError>
#include <QMimeDatabase>
#include <QNetworkAccessManager>
#include <QNetworkProxy>
#include <QNetworkReply>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QUrl>

#include <optional>

namespace Quorix {

namespace {

constexpr int transferTimeoutMs = 10000;
constexpr int deleteTransferTimeoutMs = 30000;
// Bounds what a download may hold in memory before it reaches the disk.
constexpr qint64 downloadBufferSize = 1024 * 1024;

const QString defaultScriptName = QStringLiteral("script.gpc3");
const QString defaultEnvironmentName = QStringLiteral("environment.qenv");
const QString defaultWeightsExtension = QStringLiteral("onnx");

// The top-level object of a body, or nothing when the body is not a JSON object; errorText says why.
std::optional<QJsonObject> parseObject(const QByteArray &body, QString *errorText = nullptr)
{
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(body, &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        if (errorText)
            *errorText = parseError.errorString();
        return std::nullopt;
    }
    if (!document.isObject()) {
        if (errorText)
            *errorText = QStringLiteral("not a JSON object");
        return std::nullopt;
    }
    return document.object();
}

QString dispositionFileName(const QByteArray &contentDisposition)
{
    if (contentDisposition.isEmpty())
        return {};
    static const QRegularExpression pattern(QStringLiteral("filename=\"?([^\"]+)\"?"));
    const QRegularExpressionMatch match = pattern.match(QString::fromUtf8(contentDisposition));
    return match.hasMatch() ? match.captured(1) : QString();
}

// The server names the file, but only inside the directory we chose: any directory part it sends is dropped.
QString safeFileName(const QString &serverName, const QString &fallback)
{
    QString name = serverName;
    name.replace(QLatin1Char('\\'), QLatin1Char('/'));
    name = name.section(QLatin1Char('/'), -1);
    // "C:name" is relative to another drive's current folder on Windows.
    static const QRegularExpression drivePrefix(QStringLiteral("^[A-Za-z]:"));
    name.remove(drivePrefix);
    if (name.isEmpty() || name == QLatin1String(".") || name == QLatin1String(".."))
        return fallback;
    return name;
}

QString weightsExtension(const QByteArray &contentDisposition)
{
    const QString serverName = dispositionFileName(contentDisposition);
    if (serverName.isEmpty())
        return defaultWeightsExtension;
    const QString name = safeFileName(serverName, QString());
    const qsizetype dot = name.lastIndexOf(QLatin1Char('.'));
    const QString suffix = dot < 0 ? QString() : name.mid(dot + 1);
    static const QRegularExpression plainExtension(QStringLiteral("^[A-Za-z0-9]{1,16}$"));
    return plainExtension.match(suffix).hasMatch() ? suffix : defaultWeightsExtension;
}

bool isPlainName(const QString &name)
{
    return !name.isEmpty() && name != QLatin1String(".") && name != QLatin1String("..")
           && !name.contains(QLatin1Char('/')) && !name.contains(QLatin1Char('\\'));
}

QHttpPart textPart(const QString &name, const QByteArray &value)
{
    QHttpPart part;
    part.setHeader(QNetworkRequest::ContentDispositionHeader, QStringLiteral("form-data; name=\"%1\"").arg(name));
    part.setBody(value);
    return part;
}

// A file part streamed from disk; the multipart body owns the opened file. Nothing when the file cannot be read.
std::optional<QHttpPart> filePart(const QString &name, const QString &path, const QString &contentType,
                                  QHttpMultiPart *owner)
{
    if (path.isEmpty())
        return std::nullopt;
    auto *file = new QFile(path, owner);
    if (!file->open(QIODevice::ReadOnly)) {
        delete file;
        return std::nullopt;
    }
    QHttpPart part;
    part.setHeader(QNetworkRequest::ContentTypeHeader, contentType);
    part.setHeader(QNetworkRequest::ContentDispositionHeader,
                   QStringLiteral("form-data; name=\"%1\"; filename=\"%2\"").arg(name, QFileInfo(path).fileName()));
    part.setBodyDevice(file);
    return part;
}

QUrlQuery listQuery(const QJsonObject &params, bool withType)
{
    QUrlQuery query;
    if (params.contains(QLatin1String("page")))
        query.addQueryItem(QStringLiteral("page"), QString::number(params.value(QLatin1String("page")).toInt()));
    if (params.contains(QLatin1String("limit")))
        query.addQueryItem(QStringLiteral("limit"), QString::number(params.value(QLatin1String("limit")).toInt()));
    if (withType && params.contains(QLatin1String("type"))) {
        const QString type = params.value(QLatin1String("type")).toString();
        if (type != QLatin1String("all"))
            query.addQueryItem(QStringLiteral("type"), type);
    }
    if (params.contains(QLatin1String("sort")))
        query.addQueryItem(QStringLiteral("sort"), params.value(QLatin1String("sort")).toString());
    const QString search = params.value(QLatin1String("search")).toString();
    if (!search.isEmpty())
        query.addQueryItem(QStringLiteral("search"), search);
    return query;
}

QString saveFailureMessage(const QString &downloadTag)
{
    if (downloadTag.startsWith(QLatin1String("downloadEnv:")))
        return QStringLiteral("Failed to save downloaded environment file");
    if (downloadTag.startsWith(QLatin1String("downloadWeights:")))
        return QStringLiteral("Failed to save downloaded weights file");
    return QStringLiteral("Failed to save downloaded file");
}

bool isDownloadTag(const QString &tag)
{
    return tag.startsWith(QLatin1String("download:")) || tag.startsWith(QLatin1String("downloadEnv:"))
           || tag.startsWith(QLatin1String("downloadWeights:"));
}

QByteArray indentedJson(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Indented);
}

} // namespace

OnlineResourcesAPI::OnlineResourcesAPI(QObject *parent)
    : QObject(parent)
    , networkManager(new QNetworkAccessManager(this))
    , baseUrl(Configuration::serverOrigin() + QStringLiteral("/api/scripts/"))
{
    // The catalogue is reached directly; a system proxy must not see the session token.
    networkManager->setProxy(QNetworkProxy(QNetworkProxy::NoProxy));
    networkManager->setTransferTimeout(transferTimeoutMs);
}

OnlineResourcesAPI::~OnlineResourcesAPI() = default;

void OnlineResourcesAPI::setSettings(SettingsManager *settingsManager)
{
    settings = settingsManager;
}

QString OnlineResourcesAPI::weightsDirectory()
{
    const QString directory
            = QStandardPaths::writableLocation(QStandardPaths::AppLocalDataLocation) + QStringLiteral("/weights");
    QDir().mkpath(directory);
    return directory;
}

QNetworkRequest OnlineResourcesAPI::buildRequest(const QString &path, HeaderSet headerSet, const QUrlQuery &query) const
{
    QUrl url(baseUrl + path, QUrl::TolerantMode);
    if (!query.isEmpty())
        url.setQuery(query);
    QNetworkRequest request(url);

    switch (headerSet) {
    case HeaderSet::Listing:
        request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
        request.setRawHeader("Accept", "application/json");
        request.setRawHeader("User-Agent", "Quorix/2.0");
        break;
    case HeaderSet::FileDownload:
    case HeaderSet::LikedList:
        break;
    case HeaderSet::JsonAction:
        request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
        break;
    case HeaderSet::JsonActionWithAccept:
        request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
        request.setRawHeader("Accept", "application/json");
        break;
    case HeaderSet::AccessWrite:
        request.setRawHeader("Content-Type", "application/json");
        request.setRawHeader("Accept", "application/json");
        break;
    case HeaderSet::AccessList:
        request.setRawHeader("Accept", "application/json");
        break;
    case HeaderSet::FormDelete:
        request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/x-www-form-urlencoded"));
        request.setRawHeader("X-HTTP-Method-Override", "DELETE");
        request.setTransferTimeout(deleteTransferTimeoutMs);
        break;
    case HeaderSet::MultipartUpload: {
        const QByteArray origin = Configuration::serverOrigin().toUtf8();
        request.setRawHeader("User-Agent", "Quorix/2.0 (Windows; compatible)");
        request.setRawHeader("Accept", "application/json, text/plain, */*");
        request.setRawHeader("Accept-Language", "en-US,en;q=0.9");
        request.setRawHeader("Cache-Control", "no-cache");
        request.setRawHeader("Origin", origin);
        request.setRawHeader("Referer", origin + '/');
        break;
    }
    }

    request.setRawHeader("X-Quorix-API-Version", "4");
    request.setAttribute(QNetworkRequest::Http2AllowedAttribute, false);

    if (!authToken.isEmpty()) {
        request.setRawHeader("Authorization", QStringLiteral("Bearer %1").arg(authToken).toUtf8());
        if (!discordUsername.isEmpty())
            request.setRawHeader("X-Discord-Username", discordUsername.toUtf8());
        if (!discordGlobalName.isEmpty())
            request.setRawHeader("X-Discord-GlobalName", discordGlobalName.toUtf8());
        if (!discordAvatar.isEmpty())
            request.setRawHeader("X-Discord-Avatar", discordAvatar.toUtf8());
        // The session token is for the catalogue alone, not for wherever a redirect points.
        request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::SameOriginRedirectPolicy);
    }
    return request;
}

void OnlineResourcesAPI::track(QNetworkReply *reply, const QString &tag)
{
    pendingRequests.insert(reply, tag);
    connect(reply, &QNetworkReply::finished, this, &OnlineResourcesAPI::onNetworkReply);
}

QNetworkReply *OnlineResourcesAPI::sendGet(const QNetworkRequest &request, const QString &tag)
{
    QNetworkReply *reply = networkManager->get(request);
    track(reply, tag);
    return reply;
}

QNetworkReply *OnlineResourcesAPI::sendPost(const QNetworkRequest &request, const QByteArray &body, const QString &tag)
{
    QNetworkReply *reply = networkManager->post(request, body);
    track(reply, tag);
    return reply;
}

QNetworkReply *OnlineResourcesAPI::sendMultipart(const QString &path, QHttpMultiPart *multiPart, const QString &tag)
{
    QNetworkReply *reply = networkManager->post(buildRequest(path, HeaderSet::MultipartUpload), multiPart);
    multiPart->setParent(reply);
    track(reply, tag);
    connect(reply, &QNetworkReply::uploadProgress, this, &OnlineResourcesAPI::onUploadProgress);
    return reply;
}

void OnlineResourcesAPI::startDownload(const QString &path, const QString &tag,
                                       std::function<QString(const QByteArray &)> targetPath)
{
    QNetworkReply *reply = sendGet(buildRequest(path, HeaderSet::FileDownload), tag);
    reply->setReadBufferSize(downloadBufferSize);
    connect(reply, &QNetworkReply::downloadProgress, this, &OnlineResourcesAPI::onDownloadProgress);
    auto *sink = new DownloadSink(reply, std::move(targetPath));
    connect(sink, &DownloadSink::saveFailed, this, [this, reply, tag] {
        // Nothing more can be kept, so the rest of the transfer is not worth waiting for. The reply goes before
        // anyone hears of it, since a listener may open a dialog and run the event loop while this slot is active.
        const QString failedTag = tag;
        pendingRequests.remove(reply);
        reply->abort();
        reportDownloadFailure(failedTag, saveFailureMessage(failedTag));
    });
}

void OnlineResourcesAPI::sendDelete(const QString &path, const QString &tag)
{
    QUrlQuery query;
    query.addQueryItem(QStringLiteral("_method"), QStringLiteral("DELETE"));
    sendPost(buildRequest(path, HeaderSet::FormDelete, query), QByteArrayLiteral("_method=DELETE"), tag);
}

QHttpMultiPart *OnlineResourcesAPI::buildUploadBody(const QJsonObject &form, const QString &fileKey,
                                                    const QString &filePartName, bool withEncryptedFlag) const
{
    auto *multiPart = new QHttpMultiPart(QHttpMultiPart::FormDataType);
    auto text = [&form](const char *key) {
        return form.value(QLatin1String(key)).toString();
    };

    multiPart->append(textPart(QStringLiteral("name"), text("name").toUtf8()));
    multiPart->append(textPart(QStringLiteral("description"), text("description").toUtf8()));
    if (!text("instructions").isEmpty())
        multiPart->append(textPart(QStringLiteral("instructions"), text("instructions").toUtf8()));
    if (!text("tags").isEmpty())
        multiPart->append(textPart(QStringLiteral("tags"), text("tags").toUtf8()));
    if (!text("existing_uuid").isEmpty())
        multiPart->append(textPart(QStringLiteral("existing_uuid"), text("existing_uuid").toUtf8()));
    if (form.contains(QLatin1String("version"))) {
        const double version = form.value(QLatin1String("version")).toVariant().toDouble();
        multiPart->append(textPart(QStringLiteral("version"), QString::number(version, 'g', 6).toUtf8()));
    }
    if (form.contains(QLatin1String("visibility_type")))
        multiPart->append(textPart(QStringLiteral("visibility_type"), text("visibility_type").toUtf8()));
    if (withEncryptedFlag && form.contains(QLatin1String("encrypted"))) {
        const bool encrypted = form.value(QLatin1String("encrypted")).toBool();
        multiPart->append(textPart(QStringLiteral("encrypted"), encrypted ? "1" : "0"));
    }
    if (auto part
        = filePart(filePartName, form.value(fileKey).toString(), QStringLiteral("application/octet-stream"), multiPart))
        multiPart->append(*part);
    const QString imagePath = text("image_file");
    if (!imagePath.isEmpty()) {
        const QString mimeType = QMimeDatabase().mimeTypeForFile(imagePath).name();
        if (auto part = filePart(QStringLiteral("header_image"), imagePath, mimeType, multiPart))
            multiPart->append(*part);
    }
    return multiPart;
}

void OnlineResourcesAPI::fetchScripts(const QJsonObject &params)
{
    sendGet(buildRequest(QString(), HeaderSet::Listing, listQuery(params, true)), QStringLiteral("list"));
}

void OnlineResourcesAPI::fetchScriptDetails(const QString &scriptId)
{
    sendGet(buildRequest(QStringLiteral("details/") + scriptId, HeaderSet::Listing), QStringLiteral("details"));
}

void OnlineResourcesAPI::downloadScript(const QString &scriptId, const QString &directory)
{
    startDownload(QStringLiteral("download/") + scriptId, QStringLiteral("download:") + directory,
                  [directory](const QByteArray &disposition) {
                      return directory + QLatin1Char('/')
                             + safeFileName(dispositionFileName(disposition), defaultScriptName);
                  });
}

void OnlineResourcesAPI::uploadScript(const QJsonObject &form)
{
    sendMultipart(QStringLiteral("upload"),
                  buildUploadBody(form, QStringLiteral("script_file"), QStringLiteral("script_file"), false),
                  QStringLiteral("upload"));
}

void OnlineResourcesAPI::deleteScript(const QString &scriptId)
{
    sendDelete(scriptId, QStringLiteral("delete"));
}

void OnlineResourcesAPI::toggleLike(const QString &scriptId)
{
    sendPost(buildRequest(QStringLiteral("like/") + scriptId, HeaderSet::JsonAction), QByteArray(),
             QStringLiteral("toggleLike"));
}

void OnlineResourcesAPI::fetchUserLikedScripts()
{
    sendGet(buildRequest(QStringLiteral("liked"), HeaderSet::LikedList), QStringLiteral("likedScripts"));
}

void OnlineResourcesAPI::checkExistingScript(const QString &name, const QString &scriptType)
{
    const QJsonObject body{{QStringLiteral("name"), name}, {QStringLiteral("script_type"), scriptType}};
    sendPost(buildRequest(QStringLiteral("check-existing"), HeaderSet::JsonAction), indentedJson(body),
             QStringLiteral("checkExistingScript"));
}

void OnlineResourcesAPI::fetchScriptAuthorizations(const QString &scriptId, int offset, int limit,
                                                   const QString &search)
{
    QUrlQuery query;
    if (offset >= 0 && limit >= 1) {
        query.addQueryItem(QStringLiteral("offset"), QString::number(offset));
        query.addQueryItem(QStringLiteral("limit"), QString::number(limit));
    }
    if (!search.isEmpty())
        query.addQueryItem(QStringLiteral("search"), search);
    sendGet(buildRequest(QStringLiteral("authorizations/") + scriptId, HeaderSet::AccessList, query),
            QStringLiteral("scriptAuthorizations"));
}

void OnlineResourcesAPI::grantAuthorization(const QString &scriptId, const QJsonObject &body)
{
    sendPost(buildRequest(QStringLiteral("authorize/") + scriptId, HeaderSet::AccessWrite), indentedJson(body),
             QStringLiteral("grantAuthorization"));
}

void OnlineResourcesAPI::bulkGrantAuthorizations(const QString &scriptId, const QStringList &discordIds,
                                                 const QString &notes)
{
    QJsonObject body{{QStringLiteral("discord_ids"), QJsonArray::fromStringList(discordIds)}};
    if (!notes.isEmpty())
        body.insert(QStringLiteral("notes"), notes);
    sendPost(buildRequest(QStringLiteral("bulk-authorize/") + scriptId, HeaderSet::AccessWrite), indentedJson(body),
             QStringLiteral("bulkGrantAuthorization"));
}

void OnlineResourcesAPI::revokeAuthorization(const QString &scriptId, const QJsonObject &body)
{
    sendPost(buildRequest(QStringLiteral("revoke/") + scriptId, HeaderSet::AccessWrite), indentedJson(body),
             QStringLiteral("revokeAuthorization"));
}

void OnlineResourcesAPI::claimPendingAuthorizations()
{
    sendPost(buildRequest(QStringLiteral("claim-authorizations"), HeaderSet::JsonActionWithAccept), QByteArray(),
             QStringLiteral("claimAuthorizations"));
}

void OnlineResourcesAPI::banUser(const QString &discordId, const QString &reason)
{
    if (authToken.isEmpty()) {
        emit errorOccurred(tr("Authentication required"));
        return;
    }
    QJsonObject body;
    if (!reason.isEmpty())
        body.insert(QStringLiteral("reason"), reason);
    sendPost(buildRequest(QStringLiteral("ban/") + discordId, HeaderSet::JsonActionWithAccept), indentedJson(body),
             QStringLiteral("banUser:") + discordId);
}

void OnlineResourcesAPI::loadEnvironments(const QJsonObject &params)
{
    sendGet(buildRequest(QStringLiteral("qenv/list"), HeaderSet::Listing, listQuery(params, false)),
            QStringLiteral("listEnv"));
}

void OnlineResourcesAPI::loadEnvironmentDetails(const QString &envId)
{
    sendGet(buildRequest(QStringLiteral("qenv/details/") + envId, HeaderSet::Listing), QStringLiteral("envDetails"));
}

void OnlineResourcesAPI::downloadEnvironment(const QString &envId, const QString &directory)
{
    startDownload(QStringLiteral("qenv/download/") + envId, QStringLiteral("downloadEnv:") + directory,
                  [directory](const QByteArray &disposition) {
                      return directory + QLatin1Char('/')
                             + safeFileName(dispositionFileName(disposition), defaultEnvironmentName);
                  });
}

void OnlineResourcesAPI::toggleEnvironmentLike(const QString &envId)
{
    sendPost(buildRequest(QStringLiteral("qenv/like/") + envId, HeaderSet::JsonAction), QByteArray(),
             QStringLiteral("toggleEnvLike"));
}

void OnlineResourcesAPI::deleteEnvironment(const QString &envId)
{
    sendDelete(QStringLiteral("qenv/") + envId, QStringLiteral("deleteEnv"));
}

void OnlineResourcesAPI::fetchWeights(const QJsonObject &params)
{
    sendGet(buildRequest(QStringLiteral("onnx/list"), HeaderSet::Listing, listQuery(params, false)),
            QStringLiteral("listWeights"));
}

void OnlineResourcesAPI::fetchWeightsDetails(const QString &uuid)
{
    sendGet(buildRequest(QStringLiteral("onnx/details/") + uuid, HeaderSet::Listing), QStringLiteral("weightsDetails"));
}

void OnlineResourcesAPI::downloadWeights(const QString &uuid)
{
    const QString tag = QStringLiteral("downloadWeights:") + uuid;
    // The UUID names the file; one that is not a plain name has no safe place to go, so nothing is asked for.
    if (!isPlainName(uuid)) {
        QMetaObject::invokeMethod(
                this, [this, tag] { reportDownloadFailure(tag, saveFailureMessage(tag)); }, Qt::QueuedConnection);
        return;
    }
    startDownload(QStringLiteral("onnx/download/") + uuid, tag, [uuid](const QByteArray &disposition) {
        return weightsDirectory() + QLatin1Char('/') + uuid + QLatin1Char('.') + weightsExtension(disposition);
    });
}

void OnlineResourcesAPI::uploadWeights(const QJsonObject &form)
{
    sendMultipart(QStringLiteral("onnx/upload"),
                  buildUploadBody(form, QStringLiteral("onnx_file"), QStringLiteral("onnx_file"), true),
                  QStringLiteral("uploadWeights"));
}

void OnlineResourcesAPI::toggleWeightsLike(const QString &uuid)
{
    sendPost(buildRequest(QStringLiteral("onnx/like/") + uuid, HeaderSet::JsonAction), QByteArray(),
             QStringLiteral("toggleWeightsLike"));
}

void OnlineResourcesAPI::deleteWeights(const QString &uuid)
{
    sendDelete(QStringLiteral("onnx/") + uuid, QStringLiteral("deleteWeights"));
}

void OnlineResourcesAPI::cancelPendingRequests()
{
    // Only the weights names match real tags, so script and environment replies always arrive.
    static const QStringList cancellableTags{QStringLiteral("listScripts"),        QStringLiteral("listEnvironments"),
                                             QStringLiteral("listWeights"),        QStringLiteral("scriptDetails"),
                                             QStringLiteral("environmentDetails"), QStringLiteral("weightsDetails")};
    QList<QNetworkReply *> cancelled;
    for (auto it = pendingRequests.cbegin(); it != pendingRequests.cend(); ++it) {
        if (cancellableTags.contains(it.value()))
            cancelled.append(it.key());
    }
    for (QNetworkReply *reply : cancelled) {
        pendingRequests.remove(reply);
        reply->abort();
        reply->deleteLater();
    }
}

void OnlineResourcesAPI::onUploadProgress(qint64 bytesSent, qint64 bytesTotal)
{
    emit uploadProgress(bytesSent, bytesTotal);
}

void OnlineResourcesAPI::onDownloadProgress(qint64 bytesReceived, qint64 bytesTotal)
{
    emit downloadProgress(bytesReceived, bytesTotal);
}

void OnlineResourcesAPI::onNetworkReply()
{
    auto *reply = qobject_cast<QNetworkReply *>(sender());
    if (!reply)
        return;
    reply->deleteLater();

    const auto pending = pendingRequests.constFind(reply);
    if (pending == pendingRequests.cend())
        return;
    const QString tag = pending.value();
    pendingRequests.erase(pending);

    if (reply->error() == QNetworkReply::NoError) {
        const QByteArray body = reply->readAll();
        if (endedBeforeItsLength(reply, body))
            dispatchFailure(tag, droppedConnectionMessage());
        else
            dispatchSuccess(reply, tag, body);
        return;
    }
    if (auto *sink = reply->findChild<DownloadSink *>())
        sink->discard();
    if (reply->error() != QNetworkReply::OperationCanceledError)
        dispatchFailure(tag, classifyFailure(reply));
}

bool OnlineResourcesAPI::endedBeforeItsLength(QNetworkReply *reply, const QByteArray &body)
{
    // Qt 6.4 now and then finishes a reply whose connection closed mid-body as if it were complete. Downloads
    // stream into their sink, which keeps its own account; a compressed body's length is not the decoded one.
    const QVariant length = reply->header(QNetworkRequest::ContentLengthHeader);
    return length.isValid() && !reply->hasRawHeader("Content-Encoding") && !reply->findChild<DownloadSink *>()
           && body.size() < length.toLongLong();
}

QString OnlineResourcesAPI::droppedConnectionMessage()
{
    return tr("Connection was dropped - file may exceed server upload limit");
}

QString OnlineResourcesAPI::classifyFailure(QNetworkReply *reply) const
{
    switch (reply->error()) {
    case QNetworkReply::SslHandshakeFailedError:
        return tr("Secure connection failed. Check your system clock and network.");
    case QNetworkReply::ConnectionRefusedError:
    case QNetworkReply::RemoteHostClosedError:
    case QNetworkReply::UnknownNetworkError:
        return droppedConnectionMessage();
    default:
        break;
    }
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (status == 413)
        return tr("File too large - exceeds server upload limit");
    if (status != 0)
        return QStringLiteral("HTTP %1: %2").arg(status).arg(reply->errorString());
    return tr("Connection failed - no response from server");
}

void OnlineResourcesAPI::dispatchFailure(const QString &tag, const QString &message)
{
    if (tag == QLatin1String("list")) {
        emit scriptsLoaded(QJsonObject{{QStringLiteral("success"), false}, {QStringLiteral("error"), message}});
    } else if (tag == QLatin1String("likedScripts")) {
        emit userLikedScriptsLoaded(QStringList());
    } else if (tag == QLatin1String("upload")) {
        emit errorOccurred(QStringLiteral("Upload failed - %1").arg(message));
    } else if (tag == QLatin1String("uploadWeights")) {
        emit errorOccurred(QStringLiteral("Weights upload failed: %1").arg(message));
    } else if (tag == QLatin1String("details")) {
        emit errorOccurred(QStringLiteral("details_error: %1").arg(message));
    } else if (tag == QLatin1String("envDetails")) {
        emit errorOccurred(QStringLiteral("envDetails_error: %1").arg(message));
    } else if (isDownloadTag(tag)) {
        reportDownloadFailure(tag, message);
    } else {
        emit errorOccurred(message);
    }
}

void OnlineResourcesAPI::dispatchSuccess(QNetworkReply *reply, const QString &tag, const QByteArray &body)
{
    if (tag == QLatin1String("list"))
        handleList(body, &OnlineResourcesAPI::scriptsLoaded);
    else if (tag == QLatin1String("details"))
        handleDetails(body, QStringLiteral("details_error: "), &OnlineResourcesAPI::scriptDetailsLoaded);
    else if (tag.startsWith(QLatin1String("download:")))
        handleDownload(reply, tag);
    else if (tag == QLatin1String("upload"))
        handleUpload(body, QStringLiteral("Upload failed: "), &OnlineResourcesAPI::scriptUploaded);
    else if (tag == QLatin1String("delete"))
        handleDelete(body, &OnlineResourcesAPI::scriptDeleted);
    else if (tag == QLatin1String("toggleLike"))
        handleLike(reply, body, &OnlineResourcesAPI::scriptLikeToggled);
    else if (tag == QLatin1String("checkExistingScript"))
        handleUnchanged(body, &OnlineResourcesAPI::existingScriptChecked);
    else if (tag == QLatin1String("likedScripts"))
        handleLikedScripts(body);
    else if (tag == QLatin1String("scriptAuthorizations"))
        handleUnchanged(body, &OnlineResourcesAPI::scriptAuthorizationsLoaded);
    else if (tag == QLatin1String("grantAuthorization"))
        handleUnchanged(body, &OnlineResourcesAPI::authorizationGranted);
    else if (tag == QLatin1String("bulkGrantAuthorization"))
        handleUnchanged(body, &OnlineResourcesAPI::bulkAuthorizationsGranted);
    else if (tag == QLatin1String("revokeAuthorization"))
        handleUnchanged(body, &OnlineResourcesAPI::authorizationRevoked);
    else if (tag == QLatin1String("updateVisibility"))
        handleUnchanged(body, &OnlineResourcesAPI::visibilityUpdated);
    else if (tag == QLatin1String("claimAuthorizations"))
        handleClaim(body);
    else if (tag.startsWith(QLatin1String("banUser:")))
        handleBanOutcome(body, tag.mid(8), true);
    else if (tag.startsWith(QLatin1String("unbanUser:")))
        handleBanOutcome(body, tag.mid(10), false);
    else if (tag == QLatin1String("listEnv"))
        handleList(body, &OnlineResourcesAPI::environmentsLoaded);
    else if (tag == QLatin1String("envDetails"))
        handleDetails(body, QStringLiteral("envDetails_error: "), &OnlineResourcesAPI::environmentDetailsLoaded);
    else if (tag.startsWith(QLatin1String("downloadEnv:")))
        handleDownload(reply, tag);
    else if (tag == QLatin1String("toggleEnvLike"))
        handleLike(reply, body, &OnlineResourcesAPI::environmentLikeToggled);
    else if (tag == QLatin1String("deleteEnv"))
        handleDelete(body, &OnlineResourcesAPI::environmentDeleted);
    else if (tag == QLatin1String("listWeights"))
        handleList(body, &OnlineResourcesAPI::weightsLoaded);
    else if (tag == QLatin1String("weightsDetails"))
        handleDetails(body, QStringLiteral("weightsDetails_error: "), &OnlineResourcesAPI::weightsDetailsLoaded);
    else if (tag.startsWith(QLatin1String("downloadWeights:")))
        handleDownload(reply, tag);
    else if (tag == QLatin1String("uploadWeights"))
        handleUpload(body, QStringLiteral("Weights upload failed: "), &OnlineResourcesAPI::weightsUploaded);
    else if (tag == QLatin1String("toggleWeightsLike"))
        handleLike(reply, body, &OnlineResourcesAPI::weightsLikeToggled);
    else if (tag == QLatin1String("deleteWeights"))
        handleDelete(body, &OnlineResourcesAPI::weightsDeleted);
}

void OnlineResourcesAPI::handleList(const QByteArray &body, void (OnlineResourcesAPI::*signal)(QJsonObject))
{
    QString parseError;
    const std::optional<QJsonObject> response = parseObject(body, &parseError);
    if (!response) {
        emit(this->*signal)(
                QJsonObject{{QStringLiteral("success"), false},
                            {QStringLiteral("error"), QStringLiteral("Invalid JSON response: %1").arg(parseError)}});
        return;
    }
    emit(this->*signal)(*response);
}

void OnlineResourcesAPI::handleDetails(const QByteArray &body, const QString &prefix,
                                       void (OnlineResourcesAPI::*signal)(QJsonObject))
{
    const std::optional<QJsonObject> response = body.isEmpty() ? std::nullopt : parseObject(body);
    if (!response) {
        emit errorOccurred(prefix + QStringLiteral("Failed to parse response"));
        return;
    }
    if (response->value(QLatin1String("success")).toBool()) {
        emit(this->*signal)(response->value(QLatin1String("data")).toObject());
        return;
    }
    const QString error = response->value(QLatin1String("error")).toString();
    emit errorOccurred(prefix + (error.isEmpty() ? QStringLiteral("Unknown error loading details") : error));
}

void OnlineResourcesAPI::handleDownload(QNetworkReply *reply, const QString &tag)
{
    auto *sink = reply->findChild<DownloadSink *>();
    if (!sink)
        return;

    switch (sink->finish()) {
    case DownloadSink::Outcome::Refusal: {
        const std::optional<QJsonObject> refusal = parseObject(sink->refusalBody());
        QString error = refusal ? refusal->value(QLatin1String("error")).toString() : QString();
        if (error.isEmpty())
            error = QStringLiteral("Download failed - server returned unexpected response");
        reportDownloadFailure(tag, QStringLiteral("Download failed: ") + error);
        return;
    }
    case DownloadSink::Outcome::Damaged:
        reportDownloadFailure(tag, tr("Download failed: the file was damaged in transit"));
        return;
    case DownloadSink::Outcome::Failed:
        reportDownloadFailure(tag, saveFailureMessage(tag));
        return;
    case DownloadSink::Outcome::Ready:
        break;
    }
    const QString path = sink->filePath();
    sink->commitInBackground(this, [this, tag, path](bool saved) {
        if (!saved)
            reportDownloadFailure(tag, saveFailureMessage(tag));
        else if (tag.startsWith(QLatin1String("download:")))
            emit scriptDownloaded(path);
        else if (tag.startsWith(QLatin1String("downloadEnv:")))
            emit environmentDownloaded(path);
        else
            emit weightsDownloaded(tag.mid(16), path);
    });
}

void OnlineResourcesAPI::reportDownloadFailure(const QString &tag, const QString &message)
{
    emit errorOccurred(message);
    emit downloadFailed(tag, message);
}

void OnlineResourcesAPI::handleUpload(const QByteArray &body, const QString &failurePrefix,
                                      void (OnlineResourcesAPI::*signal)(QString))
{
    const QJsonObject response = parseObject(body).value_or(QJsonObject());
    if (response.value(QLatin1String("success")).toBool()) {
        emit(this->*signal)(
                response.value(QLatin1String("data")).toObject().value(QLatin1String("id")).toVariant().toString());
        return;
    }
    emit errorOccurred(failurePrefix + response.value(QLatin1String("error")).toString());
}

void OnlineResourcesAPI::handleDelete(const QByteArray &body, void (OnlineResourcesAPI::*signal)(QString))
{
    const std::optional<QJsonObject> response = parseObject(body);
    if (!response) {
        emit errorOccurred(QStringLiteral("Invalid server response"));
        return;
    }
    if (response->value(QLatin1String("success")).toBool()) {
        emit(this->*signal)(
                response->value(QLatin1String("data")).toObject().value(QLatin1String("id")).toVariant().toString());
        return;
    }
    const QString error = response->value(QLatin1String("error")).toString();
    emit errorOccurred(QStringLiteral("Delete failed: ")
                       + (error.isEmpty() ? QStringLiteral("Unknown error occurred") : error));
}

void OnlineResourcesAPI::handleLike(QNetworkReply *reply, const QByteArray &body,
                                    void (OnlineResourcesAPI::*signal)(QString, bool, int))
{
    const QJsonObject response = parseObject(body).value_or(QJsonObject());
    if (response.value(QLatin1String("success")).toBool()) {
        const QJsonObject data = response.value(QLatin1String("data")).toObject();
        const QString id = reply->url().path(QUrl::FullyDecoded).section(QLatin1Char('/'), -1);
        emit(this->*signal)(id, data.value(QLatin1String("liked")).toBool(),
                            data.value(QLatin1String("like_count")).toInt());
        return;
    }
    emit errorOccurred(QStringLiteral("Like toggle failed: ") + response.value(QLatin1String("error")).toString());
}

void OnlineResourcesAPI::handleLikedScripts(const QByteArray &body)
{
    const std::optional<QJsonObject> response = parseObject(body);
    if (!response) {
        emit userLikedScriptsLoaded(QStringList());
        return;
    }
    if (response->value(QLatin1String("success")).toBool()) {
        QStringList ids;
        const QJsonArray data = response->value(QLatin1String("data")).toArray();
        for (const QJsonValue &value : data)
            ids.append(value.toVariant().toString());
        emit userLikedScriptsLoaded(ids);
        return;
    }
    emit errorOccurred(QStringLiteral("Failed to get liked scripts: ")
                       + response->value(QLatin1String("error")).toString());
}

void OnlineResourcesAPI::handleUnchanged(const QByteArray &body, void (OnlineResourcesAPI::*signal)(QJsonObject))
{
    emit(this->*signal)(parseObject(body).value_or(QJsonObject()));
}

void OnlineResourcesAPI::handleClaim(const QByteArray &body)
{
    const QJsonObject response = parseObject(body).value_or(QJsonObject());
    if (response.value(QLatin1String("success")).toBool())
        emit pendingAuthorizationsClaimed(response.value(QLatin1String("claimed")).toInt());
}

void OnlineResourcesAPI::handleBanOutcome(const QByteArray &body, const QString &discordId, bool ban)
{
    const QJsonObject response = parseObject(body).value_or(QJsonObject());
    const QString error = response.value(QLatin1String("error")).toString();
    if (response.value(QLatin1String("success")).toBool()) {
        if (ban)
            emit userBanned(discordId);
        else
            emit userUnbanned(discordId);
        return;
    }
    emit errorOccurred(ban ? tr("Ban failed: %1").arg(error) : tr("Unban failed: %1").arg(error));
}

} // namespace Quorix
