#include "OnlineResourcesWidget.h"

#include "api/OnlineResourcesAPI.h"

#include <PluginHost.h>
#include <SettingsManager.h>

#include <QLabel>
#include <QVBoxLayout>

namespace Quorix {

OnlineResourcesWidget::OnlineResourcesWidget(OnlineResourcesPlugin *, QWidget *parent)
    : QWidget(parent)
    , apiClient(new OnlineResourcesAPI(this))
    , statusLabel(new QLabel(this))
{
    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(10, 10, 10, 10);
    auto *title = new QLabel(tr("Online Resources"), this);
    title->setStyleSheet(QStringLiteral("QLabel { font-size: 18px; font-weight: bold; }"));
    layout->addWidget(title);
    statusLabel->setAlignment(Qt::AlignCenter);
    layout->addWidget(statusLabel, 1);
    refreshUserControls();
}

OnlineResourcesAPI *OnlineResourcesWidget::api() const
{
    return apiClient;
}

void OnlineResourcesWidget::setPluginHost(PluginHost *host)
{
    if (pluginHost)
        disconnect(pluginHost, nullptr, this, nullptr);
    pluginHost = host;
    if (pluginHost) {
        connect(pluginHost, &PluginHost::authenticationChanged, this, &OnlineResourcesWidget::checkAuthentication);
        connect(pluginHost, &PluginHost::userChanged, this, &OnlineResourcesWidget::checkAuthentication);
    }
    checkAuthentication();
}

void OnlineResourcesWidget::setSettingsManager(SettingsManager *settingsManager)
{
    settings = settingsManager;
    apiClient->setSettings(settingsManager);
}

void OnlineResourcesWidget::checkAuthentication()
{
    if (pluginHost && pluginHost->isUserAuthenticated()) {
        const QString token = pluginHost->getAuthSessionToken();
        if (!token.isEmpty()) {
            apiClient->authToken = token;
            apiClient->discordUsername = pluginHost->getAuthenticatedUsername();
            apiClient->discordGlobalName = pluginHost->getAuthenticatedGlobalName();
            apiClient->discordAvatar = pluginHost->getAuthenticatedAvatarHash();
        }
    }
    refreshUserControls();
}

void OnlineResourcesWidget::refreshUserControls()
{
    const bool signedIn = pluginHost && pluginHost->isUserAuthenticated();
    statusLabel->setText(signedIn ? tr("Signed in as %1").arg(pluginHost->getAuthenticatedUsername())
                                  : tr("Not signed in"));
}

void OnlineResourcesWidget::retranslateUi() { }

void OnlineResourcesWidget::startPublishing(const QString &) { }

} // namespace Quorix
