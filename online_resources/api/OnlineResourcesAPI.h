#pragma once

#include <QByteArray>
#include <QHash>
#include <QJsonObject>
#include <QNetworkRequest>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QUrlQuery>

#include <functional>

class QHttpMultiPart;
class QNetworkAccessManager;
class QNetworkReply;

namespace Quorix {

class DownloadSink;
class SettingsManager;

// The plugin's only client of the catalogue server. Every operation sends one request and returns at once; the
// answer arrives later as one of the signals below or as errorOccurred().
class OnlineResourcesAPI : public QObject
{
    Q_OBJECT

public:
    explicit OnlineResourcesAPI(QObject *parent = nullptr);
    ~OnlineResourcesAPI() override;

    void setSettings(SettingsManager *settingsManager);

    void fetchScripts(const QJsonObject &params);
    void fetchScriptDetails(const QString &scriptId);
    void downloadScript(const QString &scriptId, const QString &directory);
    void uploadScript(const QJsonObject &form);
    void deleteScript(const QString &scriptId);
    void toggleLike(const QString &scriptId);
    void fetchUserLikedScripts();
    void checkExistingScript(const QString &name, const QString &scriptType);

    void fetchScriptAuthorizations(const QString &scriptId, int offset, int limit, const QString &search);
    void grantAuthorization(const QString &scriptId, const QJsonObject &body);
    void bulkGrantAuthorizations(const QString &scriptId, const QStringList &discordIds, const QString &notes);
    void revokeAuthorization(const QString &scriptId, const QJsonObject &body);
    void claimPendingAuthorizations();
    void banUser(const QString &discordId, const QString &reason);

    void loadEnvironments(const QJsonObject &params);
    void loadEnvironmentDetails(const QString &envId);
    void downloadEnvironment(const QString &envId, const QString &directory);
    void toggleEnvironmentLike(const QString &envId);
    void deleteEnvironment(const QString &envId);

    void fetchWeights(const QJsonObject &params);
    void fetchWeightsDetails(const QString &uuid);
    void downloadWeights(const QString &uuid);
    void uploadWeights(const QJsonObject &form);
    void toggleWeightsLike(const QString &uuid);
    void deleteWeights(const QString &uuid);

    // Where downloaded weights live, one file per UUID; created on first use.
    static QString weightsDirectory();

    void cancelPendingRequests();

    // Credentials copied from the host by the page; empty token means anonymous requests.
    QString authToken;
    QString discordUsername;
    QString discordGlobalName;
    QString discordAvatar;

signals:
    void scriptsLoaded(QJsonObject response);
    void scriptDetailsLoaded(QJsonObject details);
    void scriptDownloaded(QString filePath);
    void scriptUploaded(QString scriptId);
    void scriptDeleted(QString scriptId);
    void scriptLikeToggled(QString scriptId, bool liked, int likeCount);
    void userLikedScriptsLoaded(QStringList scriptIds);
    void existingScriptChecked(QJsonObject response);
    void scriptAuthorizationsLoaded(QJsonObject response);
    void authorizationGranted(QJsonObject response);
    void bulkAuthorizationsGranted(QJsonObject response);
    void authorizationRevoked(QJsonObject response);
    void visibilityUpdated(QJsonObject response);
    void pendingAuthorizationsClaimed(int claimedCount);
    void userBanned(QString discordId);
    void userUnbanned(QString discordId);
    void errorOccurred(QString error);
    void uploadProgress(qint64 bytesSent, qint64 bytesTotal);
    void downloadProgress(qint64 bytesReceived, qint64 bytesTotal);
    void environmentsLoaded(QJsonObject response);
    void environmentDetailsLoaded(QJsonObject details);
    void environmentDownloaded(QString filePath);
    void environmentDeleted(QString envId);
    void environmentLikeToggled(QString envId, bool liked, int likeCount);
    void weightsLoaded(QJsonObject response);
    void weightsDetailsLoaded(QJsonObject details);
    void weightsDownloaded(QString uuid, QString filePath);
    void weightsUploaded(QString weightsId);
    void weightsDeleted(QString weightsId);
    void weightsLikeToggled(QString weightsId, bool liked, int likeCount);
    // A file download ended without a file, told with its operation tag ("download:", "downloadEnv:" or
    // "downloadWeights:" and its value) so the flow that started it can end; errorOccurred carries the same message.
    void downloadFailed(QString tag, QString error);

private slots:
    void onNetworkReply();
    void onUploadProgress(qint64 bytesSent, qint64 bytesTotal);
    void onDownloadProgress(qint64 bytesReceived, qint64 bytesTotal);

private:
    enum class HeaderSet {
        Listing,
        FileDownload,
        JsonAction,
        JsonActionWithAccept,
        LikedList,
        AccessWrite,
        AccessList,
        FormDelete,
        MultipartUpload
    };

    QNetworkRequest buildRequest(const QString &path, HeaderSet headerSet, const QUrlQuery &query = {}) const;
    QNetworkReply *sendGet(const QNetworkRequest &request, const QString &tag);
    QNetworkReply *sendPost(const QNetworkRequest &request, const QByteArray &body, const QString &tag);
    QNetworkReply *sendMultipart(const QString &path, QHttpMultiPart *multiPart, const QString &tag);
    void track(QNetworkReply *reply, const QString &tag);
    void startDownload(const QString &path, const QString &tag,
                       std::function<QString(const QByteArray &contentDisposition)> targetPath);
    void sendDelete(const QString &path, const QString &tag);
    QHttpMultiPart *buildUploadBody(const QJsonObject &form, const QString &fileKey, const QString &filePartName,
                                    bool withEncryptedFlag) const;

    void dispatchSuccess(QNetworkReply *reply, const QString &tag, const QByteArray &body);
    void dispatchFailure(const QString &tag, const QString &message);
    QString classifyFailure(QNetworkReply *reply) const;
    static QString droppedConnectionMessage();
    static bool endedBeforeItsLength(QNetworkReply *reply, const QByteArray &body);

    void handleList(const QByteArray &body, void (OnlineResourcesAPI::*signal)(QJsonObject));
    void handleDetails(const QByteArray &body, const QString &prefix, void (OnlineResourcesAPI::*signal)(QJsonObject));
    void handleDownload(QNetworkReply *reply, const QString &tag);
    void reportDownloadFailure(const QString &tag, const QString &message);
    void handleUpload(const QByteArray &body, const QString &failurePrefix,
                      void (OnlineResourcesAPI::*signal)(QString));
    void handleDelete(const QByteArray &body, void (OnlineResourcesAPI::*signal)(QString));
    void handleLike(QNetworkReply *reply, const QByteArray &body,
                    void (OnlineResourcesAPI::*signal)(QString, bool, int));
    void handleLikedScripts(const QByteArray &body);
    void handleUnchanged(const QByteArray &body, void (OnlineResourcesAPI::*signal)(QJsonObject));
    void handleClaim(const QByteArray &body);
    void handleBanOutcome(const QByteArray &body, const QString &discordId, bool ban);

    QNetworkAccessManager *networkManager = nullptr;
    SettingsManager *settings = nullptr;
    QString baseUrl;
    QHash<QNetworkReply *, QString> pendingRequests;
};

} // namespace Quorix
