#include "SettingsManager.h"

#include <QCoreApplication>
#include <QDir>

namespace Quorix {

SettingsManager::SettingsManager(const QString &fileName)
    : settings(fileName, QSettings::IniFormat)
{
}

SettingsManager *SettingsManager::instance()
{
    // Lives for the whole process, like the host's other services; plugins keep plain pointers to it.
    static SettingsManager *const manager
            = new SettingsManager(QDir::current().absoluteFilePath(QStringLiteral("quorix_settings.ini")));
    return manager;
}

QVariant SettingsManager::value(const QString &key, const QVariant &defaultValue) const
{
    return settings.value(applicationKey(key), defaultValue);
}

void SettingsManager::setValue(const QString &key, const QVariant &value)
{
    settings.setValue(applicationKey(key), value);
    settings.sync();
    Q_EMIT valueChanged(key);
}

QVariant SettingsManager::getPluginValue(const QString &plugin, const QString &key, const QVariant &defaultValue) const
{
    return settings.value(pluginKey(plugin, key), defaultValue);
}

void SettingsManager::setPluginValue(const QString &plugin, const QString &key, const QVariant &value)
{
    settings.setValue(pluginKey(plugin, key), value);
    settings.sync();
    Q_EMIT valueChanged(pluginKey(plugin, key));
}

QString SettingsManager::fileName() const
{
    return settings.fileName();
}

QString SettingsManager::applicationKey(const QString &key)
{
    return QStringLiteral("Application/") + key;
}

QString SettingsManager::pluginKey(const QString &plugin, const QString &key)
{
    return QStringLiteral("Plugins/%1/%2").arg(plugin, key);
}

} // namespace Quorix
