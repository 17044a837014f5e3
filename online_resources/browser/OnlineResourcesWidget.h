#pragma once

#include <QPointer>
#include <QWidget>

class QLabel;

namespace Quorix {

class OnlineResourcesAPI;
class OnlineResourcesPlugin;
class PluginHost;
class SettingsManager;

// The plugin's page. Owns the one API client for its whole life.
class OnlineResourcesWidget : public QWidget
{
    Q_OBJECT

public:
    explicit OnlineResourcesWidget(OnlineResourcesPlugin *plugin, QWidget *parent = nullptr);

    OnlineResourcesAPI *api() const;

    // Replaces the host whose login changes this page follows.
    void setPluginHost(PluginHost *host);
    void setSettingsManager(SettingsManager *settingsManager);

    // Re-reads the host's login state and copies the credentials into the API client.
    void checkAuthentication();
    // Re-applies the controls that depend on the user and the preferences.
    void refreshUserControls();
    void retranslateUi();
    void startPublishing(const QString &filePath);

private:
    OnlineResourcesAPI *apiClient = nullptr;
    QPointer<PluginHost> pluginHost;
    SettingsManager *settings = nullptr;
    QLabel *statusLabel = nullptr;
};

} // namespace Quorix
