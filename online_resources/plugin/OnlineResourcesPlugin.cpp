#include "OnlineResourcesPlugin.h"

#include "browser/OnlineResourcesWidget.h"

#include <PluginHost.h>
#include <SettingsManager.h>

#include <QFile>
#include <QJsonDocument>

namespace Quorix {

namespace {

QJsonObject readMetadataResource()
{
    QFile file(QStringLiteral(":/online_resources.json"));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QJsonDocument::fromJson(file.readAll()).object();
}

} // namespace

OnlineResourcesPlugin::OnlineResourcesPlugin(QObject *parent)
    : QObject(parent)
    , pluginMetadata(readMetadataResource())
{
}

OnlineResourcesPlugin::~OnlineResourcesPlugin() = default;

void OnlineResourcesPlugin::retranslateUi()
{
    if (widget)
        widget->retranslateUi();
}

QString OnlineResourcesPlugin::pluginId() const
{
    return QStringLiteral("online_resources");
}

QString OnlineResourcesPlugin::displayName() const
{
    return pluginMetadata.value(QLatin1String("name")).toString(QStringLiteral("Online Resources"));
}

QString OnlineResourcesPlugin::version() const
{
    return pluginMetadata.value(QLatin1String("version")).toString(QStringLiteral("1.0.0"));
}

QJsonObject OnlineResourcesPlugin::metadata() const
{
    return pluginMetadata;
}

PluginHost *OnlineResourcesPlugin::host() const
{
    return qobject_cast<PluginHost *>(parent());
}

void OnlineResourcesPlugin::initialize() { }

void OnlineResourcesPlugin::shutdown() { }

bool OnlineResourcesPlugin::hasSettings() const
{
    return false;
}

void OnlineResourcesPlugin::applySettings() { }

QWidget *OnlineResourcesPlugin::page()
{
    if (widget)
        return widget;

    widget = new OnlineResourcesWidget(this);
    if (!pluginHost)
        pluginHost = host();
    if (!settings)
        settings = SettingsManager::instance();

    widget->setPluginHost(pluginHost);
    widget->setSettingsManager(settings);
    if (pluginHost && settings)
        widget->checkAuthentication();
    return widget;
}

bool OnlineResourcesPlugin::showsInNavigation() const
{
    return true;
}

void OnlineResourcesPlugin::activated() { }

void OnlineResourcesPlugin::deactivated() { }

void OnlineResourcesPlugin::publishScript(const QString &filePath)
{
    page();
    widget->startPublishing(filePath);
}

void OnlineResourcesPlugin::onPreferencesChanged()
{
    if (widget)
        widget->refreshUserControls();
}

} // namespace Quorix
