#pragma once

#include "QuorixSdkExport.h"

#include <QObject>
#include <QSettings>
#include <QVariant>

namespace Quorix {

// The host's settings: one INI file, "quorix_settings.ini" in the working directory the process started in.
// Application values live in the group "Application", plugin values in "Plugins/<plugin>".
class QUORIX_SDK_EXPORT SettingsManager : public QObject
{
    Q_OBJECT

public:
    static SettingsManager *instance();

    QVariant value(const QString &key, const QVariant &defaultValue = {}) const;
    void setValue(const QString &key, const QVariant &value);
    QVariant getPluginValue(const QString &plugin, const QString &key, const QVariant &defaultValue = {}) const;
    void setPluginValue(const QString &plugin, const QString &key, const QVariant &value);

    QString fileName() const;

Q_SIGNALS:
    void valueChanged(const QString &key);

private:
    explicit SettingsManager(const QString &fileName);

    static QString applicationKey(const QString &key);
    static QString pluginKey(const QString &plugin, const QString &key);

    mutable QSettings settings;
};

} // namespace Quorix
