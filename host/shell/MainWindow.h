#pragma once

#include <QList>
#include <QMainWindow>

class QListWidget;
class QStackedWidget;

namespace Quorix {

class PluginHost;
class SettingsManager;
struct LoadedPlugin;

// The development host's window: a side list of plugin pages, the pages, and the account and preferences menus.
class MainWindow : public QMainWindow
{
    Q_OBJECT

public:
    MainWindow(PluginHost *host, SettingsManager *settings, const QList<LoadedPlugin> &plugins,
               QWidget *parent = nullptr);

private:
    void addPluginPages(const QList<LoadedPlugin> &plugins);
    void buildMenus();
    void onSignInRequested();
    void onSignOutRequested();
    void onPreferencesRequested();
    void onUserChanged();

    PluginHost *host;
    SettingsManager *settings;
    QList<QObject *> pluginObjects;
    QListWidget *pageList;
    QStackedWidget *pages;
};

} // namespace Quorix
