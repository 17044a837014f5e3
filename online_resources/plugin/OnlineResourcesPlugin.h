#pragma once

#include <IUIPlugin.h>

#include <QJsonObject>
#include <QObject>
#include <QPointer>

namespace Quorix {

class OnlineResourcesWidget;
class SettingsManager;

// The object the host loads from the plugin module: identity, metadata, and the "Online Resources" page.
class OnlineResourcesPlugin : public QObject, public IUIPlugin
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "com.quorix.IUIPlugin" FILE "online_resources.json")
    Q_INTERFACES(Quorix::IUIPlugin Quorix::IPlugin Quorix::ITranslatablePlugin)

public:
    explicit OnlineResourcesPlugin(QObject *parent = nullptr);
    ~OnlineResourcesPlugin() override;

    void retranslateUi() override;
    QString pluginId() const override;
    QString displayName() const override;
    QString version() const override;
    QJsonObject metadata() const override;
    PluginHost *host() const override;
    void initialize() override;
    void shutdown() override;
    bool hasSettings() const override;
    void applySettings() override;
    QWidget *page() override;
    bool showsInNavigation() const override;
    void activated() override;
    void deactivated() override;

public Q_SLOTS:
    // Lets another plugin hand over a script for publishing.
    void publishScript(const QString &filePath);
    void onPreferencesChanged();

private:
    // The page is parented by whoever embeds it, so it may be deleted under us.
    QPointer<OnlineResourcesWidget> widget;
    PluginHost *pluginHost = nullptr;
    SettingsManager *settings = nullptr;
    QJsonObject pluginMetadata;
};

} // namespace Quorix
