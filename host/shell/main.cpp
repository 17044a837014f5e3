#include "DemoSession.h"
#include "MainWindow.h"
#include "PluginLoader.h"
#include "ShellOptions.h"
#include "ThemePalette.h"

#include <IUIPlugin.h>
#include <PluginHost.h>
#include <SettingsManager.h>

#include <QApplication>
#include <QDialog>
#include <QTextStream>
#include <QTimer>
#include <QWidget>

using namespace Quorix;

namespace {

int listPlugins(const QList<LoadedPlugin> &plugins)
{
    QTextStream out(stdout);
    for (const LoadedPlugin &loaded : plugins)
        out << loaded.plugin->pluginId() << '\t' << loaded.plugin->displayName() << '\t' << loaded.plugin->version()
            << '\n';
    return 0;
}

// The window a person would be looking at: an open dialog in front of the main window, else the main window.
QWidget *frontWindow(QWidget *mainWindow)
{
    if (QWidget *modal = QApplication::activeModalWidget())
        return modal;
    const QList<QWidget *> windows = QApplication::topLevelWidgets();
    for (auto it = windows.crbegin(); it != windows.crend(); ++it) {
        if (*it != mainWindow && (*it)->isVisible() && qobject_cast<QDialog *>(*it))
            return *it;
    }
    return mainWindow;
}

void scheduleScreenshot(MainWindow *window, const QString &file, int settleMilliseconds)
{
    QTimer::singleShot(settleMilliseconds, window, [window, file] {
        const bool saved = frontWindow(window)->grab().save(file, "PNG");
        if (!saved)
            QTextStream(stderr) << "quorix-shell: cannot write " << file << '\n';
        QCoreApplication::exit(saved ? 0 : 1);
    });
}

// Lets scripts put a page into a given state before a screenshot without the host knowing the page's internals.
void applyPropertyAssignments(QWidget *window, const QStringList &assignments)
{
    for (const QString &assignment : assignments) {
        const qsizetype dot = assignment.indexOf(QLatin1Char('.'));
        const qsizetype equals = assignment.indexOf(QLatin1Char('='), dot + 1);
        QObject *target = dot > 0 ? window->findChild<QObject *>(assignment.left(dot)) : nullptr;
        if (!target || equals < 0
            || !target->setProperty(assignment.mid(dot + 1, equals - dot - 1).toUtf8().constData(),
                                    assignment.mid(equals + 1))) {
            QTextStream(stderr) << "quorix-shell: cannot apply " << assignment << '\n';
        }
    }
}

// Pages that can open dialogs for scripted screenshots offer the invokable openTarget(QString) -> bool.
bool openTarget(const QList<LoadedPlugin> &plugins, const QString &target)
{
    for (const LoadedPlugin &loaded : plugins) {
        QWidget *page = loaded.uiPlugin ? loaded.uiPlugin->page() : nullptr;
        bool opened = false;
        if (page && page->metaObject()->indexOfMethod("openTarget(QString)") >= 0
            && QMetaObject::invokeMethod(page, "openTarget", Qt::DirectConnection, Q_RETURN_ARG(bool, opened),
                                         Q_ARG(QString, target))
            && opened) {
            return true;
        }
    }
    return false;
}

} // namespace

int main(int argc, char *argv[])
{
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Quorix"));
    QApplication::setOrganizationName(QStringLiteral("Quorix"));
    const ShellOptions options = ShellOptions::parse(app.arguments());

    SettingsManager *settings = SettingsManager::instance();
    ThemePalette::apply(options.theme.isEmpty() ? settings->value(QStringLiteral("appearance/theme")).toString()
                                                : options.theme);

    DemoSession demo;
    if (options.demo) {
        QString error;
        if (!demo.start(&error)) {
            QTextStream(stderr) << "quorix-shell: demo: " << error << '\n';
            return 1;
        }
    }

    PluginHost host;
    QStringList errors;
    const QList<LoadedPlugin> plugins = PluginLoader::loadAll(options.pluginDirectory, &host, &errors);
    for (const QString &error : std::as_const(errors))
        QTextStream(stderr) << "quorix-shell: " << error << '\n';
    if (options.listPlugins)
        return listPlugins(plugins);
    if (options.demo)
        host.signIn(demo.identity());

    MainWindow window(&host, settings, plugins);
    window.show();
    QTimer::singleShot(0, &window, [&window, &options, &plugins] {
        applyPropertyAssignments(&window, options.propertyAssignments);
        if (!options.openTarget.isEmpty() && !openTarget(plugins, options.openTarget)) {
            QTextStream(stderr) << "quorix-shell: no page can open " << options.openTarget << '\n';
            QCoreApplication::exit(1);
        }
    });
    if (!options.screenshotFile.isEmpty())
        scheduleScreenshot(&window, options.screenshotFile, options.settleMilliseconds);
    const int status = app.exec();
    for (const LoadedPlugin &loaded : plugins)
        loaded.plugin->shutdown();
    return status;
}
