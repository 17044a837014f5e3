#include "OnlineResourcesAPI.h"

#include "plugin/Configuration.h"

#include <QNetworkAccessManager>
#include <QNetworkProxy>

namespace Quorix {

OnlineResourcesAPI::OnlineResourcesAPI(QObject *parent)
    : QObject(parent)
    , networkManager(new QNetworkAccessManager(this))
    , baseUrl(Configuration::serverOrigin() + QStringLiteral("/api/scripts/"))
{
    // The catalogue is reached directly; a system proxy must not see the session token.
    networkManager->setProxy(QNetworkProxy(QNetworkProxy::NoProxy));
    networkManager->setTransferTimeout(10000);
}

OnlineResourcesAPI::~OnlineResourcesAPI() = default;

void OnlineResourcesAPI::setSettings(SettingsManager *settingsManager)
{
    settings = settingsManager;
}

} // namespace Quorix
