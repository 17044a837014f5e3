#include "MainWindow.h"

#include "PluginLoader.h"
#include "PreferencesDialog.h"
#include "SignInDialog.h"
#include "ThemePalette.h"

#include <IUIPlugin.h>
#include <PluginHost.h>
#include <SettingsManager.h>

#include <QAction>
#include <QHBoxLayout>
#include <QLabel>
#include <QListWidget>
#include <QMenuBar>
#include <QStackedWidget>
#include <QStatusBar>

namespace Quorix {

MainWindow::MainWindow(PluginHost *host, SettingsManager *settings, const QList<LoadedPlugin> &plugins,
                       QWidget *parent)
    : QMainWindow(parent)
    , host(host)
    , settings(settings)
    , pageList(new QListWidget(this))
    , pages(new QStackedWidget(this))
{
    setWindowTitle(tr("Quorix"));
    resize(1280, 820);

    auto *central = new QWidget(this);
    auto *layout = new QHBoxLayout(central);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    pageList->setFixedWidth(200);
    pageList->setFrameShape(QFrame::NoFrame);
    pageList->setStyleSheet(QStringLiteral("QListWidget { background: palette(alternate-base); padding-top: 8px; }"
                                           "QListWidget::item { padding: 9px 14px; border-radius: 6px; margin: 2px 8px; }"
                                           "QListWidget::item:selected { background: palette(highlight);"
                                           " color: palette(highlighted-text); }"));
    layout->addWidget(pageList);
    layout->addWidget(pages, 1);
    setCentralWidget(central);

    addPluginPages(plugins);
    buildMenus();
    connect(pageList, &QListWidget::currentRowChanged, pages, &QStackedWidget::setCurrentIndex);
    connect(host, &PluginHost::userChanged, this, &MainWindow::onUserChanged);
    connect(host, &PluginHost::authenticationChanged, this, &MainWindow::onUserChanged);
    onUserChanged();
}

void MainWindow::addPluginPages(const QList<LoadedPlugin> &plugins)
{
    for (const LoadedPlugin &loaded : plugins) {
        pluginObjects.append(loaded.object);
        if (!loaded.uiPlugin || !loaded.uiPlugin->showsInNavigation())
            continue;
        QWidget *page = loaded.uiPlugin->page();
        if (!page)
            continue;
        pages->addWidget(page);
        pageList->addItem(loaded.plugin->displayName());
    }
    if (pages->count() == 0)
        pages->addWidget(new QLabel(tr("No plugin pages were loaded."), pages));
    pageList->setCurrentRow(0);
}

void MainWindow::buildMenus()
{
    QMenu *fileMenu = menuBar()->addMenu(tr("&File"));
    fileMenu->addAction(tr("&Preferences..."), this, &MainWindow::onPreferencesRequested);
    fileMenu->addSeparator();
    fileMenu->addAction(tr("&Quit"), QKeySequence::Quit, this, &QWidget::close);

    QMenu *accountMenu = menuBar()->addMenu(tr("&Account"));
    accountMenu->addAction(tr("&Sign In..."), this, &MainWindow::onSignInRequested);
    accountMenu->addAction(tr("Sign &Out"), this, &MainWindow::onSignOutRequested);
}

void MainWindow::onSignInRequested()
{
    UserIdentity current;
    current.discordId = host->getAuthenticatedDiscordId();
    current.username = host->getAuthenticatedUsername();
    current.globalName = host->getAuthenticatedGlobalName();
    current.avatarHash = host->getAuthenticatedAvatarHash();
    current.sessionToken = host->getAuthSessionToken();
    SignInDialog dialog(current, this);
    if (dialog.exec() == QDialog::Accepted)
        host->signIn(dialog.identity());
}

void MainWindow::onSignOutRequested()
{
    host->signOut();
}

void MainWindow::onPreferencesRequested()
{
    PreferencesDialog dialog(settings, this);
    if (dialog.exec() != QDialog::Accepted)
        return;
    dialog.save();
    ThemePalette::apply(settings->value(QStringLiteral("appearance/theme")).toString());
    for (QObject *plugin : std::as_const(pluginObjects))
        QMetaObject::invokeMethod(plugin, "onPreferencesChanged");
}

void MainWindow::onUserChanged()
{
    if (host->isUserAuthenticated()) {
        const QString name = host->getAuthenticatedGlobalName().isEmpty() ? host->getAuthenticatedUsername()
                                                                          : host->getAuthenticatedGlobalName();
        statusBar()->showMessage(tr("Signed in as %1").arg(name));
    } else {
        statusBar()->showMessage(tr("Not signed in"));
    }
}

} // namespace Quorix
