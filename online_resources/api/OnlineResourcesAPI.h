#pragma once

#include <QHash>
#include <QObject>
#include <QString>

class QNetworkAccessManager;
class QNetworkReply;

namespace Quorix {

class SettingsManager;

// The plugin's only client of the catalogue server.
class OnlineResourcesAPI : public QObject
{
    Q_OBJECT

public:
    explicit OnlineResourcesAPI(QObject *parent = nullptr);
    ~OnlineResourcesAPI() override;

    void setSettings(SettingsManager *settingsManager);

    // Credentials copied from the host by the page; empty token means anonymous requests.
    QString authToken;
    QString discordUsername;
    QString discordGlobalName;
    QString discordAvatar;

private:
    QNetworkAccessManager *networkManager = nullptr;
    SettingsManager *settings = nullptr;
    QString baseUrl;
    QHash<QNetworkReply *, QString> pendingRequests;
};

} // namespace Quorix
