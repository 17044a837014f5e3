#pragma once

#include "ITranslatablePlugin.h"

#include <QJsonObject>
#include <QString>
#include <QtPlugin>

namespace Quorix {

class PluginHost;

// What the host asks of every plugin module. The host parents the plugin object to its PluginHost
// before calling initialize().
class IPlugin : public ITranslatablePlugin
{
public:
    virtual QString pluginId() const = 0;
    virtual QString displayName() const = 0;
    virtual QString version() const = 0;
    virtual QJsonObject metadata() const = 0;
    virtual PluginHost *host() const = 0;
    virtual void initialize() = 0;
    virtual void shutdown() = 0;
    virtual bool hasSettings() const = 0;
    virtual void applySettings() = 0;
};

} // namespace Quorix

#define QuorixIPlugin_iid "com.quorix.IPlugin"
Q_DECLARE_INTERFACE(Quorix::IPlugin, QuorixIPlugin_iid)
