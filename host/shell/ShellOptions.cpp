#include "ShellOptions.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>

namespace Quorix {

ShellOptions ShellOptions::parse(const QStringList &arguments)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QCoreApplication::translate("main", "Quorix development host"));
    parser.addHelpOption();
    const QCommandLineOption listOption(QStringLiteral("list-plugins"),
            QCoreApplication::translate("main", "Print ID, name and version of every loaded plugin, then exit."));
    const QCommandLineOption screenshotOption(QStringLiteral("screenshot"),
            QCoreApplication::translate("main", "Render the main window to a PNG file once settled, then exit."),
            QStringLiteral("file"));
    const QCommandLineOption pluginDirOption(QStringLiteral("plugin-dir"),
            QCoreApplication::translate("main", "Folder to load plugin modules from."), QStringLiteral("dir"));
    const QCommandLineOption themeOption(QStringLiteral("theme"),
            QCoreApplication::translate("main", "Use the light or dark theme for this run."), QStringLiteral("theme"));
    const QCommandLineOption setOption(QStringLiteral("set"),
            QCoreApplication::translate("main", "Set a property of a named widget once shown, e.g. typeFilter.currentIndex=3."),
            QStringLiteral("object.property=value"));
    const QCommandLineOption settleOption(QStringLiteral("settle-ms"),
            QCoreApplication::translate("main", "Milliseconds to wait before a screenshot."), QStringLiteral("ms"));
    const QCommandLineOption demoOption(QStringLiteral("demo"),
            QCoreApplication::translate("main",
                    "Run on a seeded catalogue server started in this process, signed in as a demo user."));
    const QCommandLineOption openOption(QStringLiteral("open"),
            QCoreApplication::translate("main",
                    "Ask the plugin pages to open a dialog, e.g. script-details:NAME; a screenshot then shows it."),
            QStringLiteral("target"));
    parser.addOptions({listOption, screenshotOption, pluginDirOption, themeOption, settleOption, demoOption, setOption,
                       openOption});
    parser.process(arguments);

    ShellOptions options;
    options.listPlugins = parser.isSet(listOption);
    options.demo = parser.isSet(demoOption);
    options.screenshotFile = parser.value(screenshotOption);
    options.theme = parser.value(themeOption);
    options.propertyAssignments = parser.values(setOption);
    options.openTarget = parser.value(openOption);
    if (parser.isSet(settleOption))
        options.settleMilliseconds = qMax(0, parser.value(settleOption).toInt());

    options.pluginDirectory = parser.value(pluginDirOption);
    if (options.pluginDirectory.isEmpty())
        options.pluginDirectory = qEnvironmentVariable("QUORIX_PLUGIN_DIR");
    if (options.pluginDirectory.isEmpty())
        options.pluginDirectory = QDir(QCoreApplication::applicationDirPath()).absoluteFilePath(QStringLiteral("../plugins"));
    return options;
}

} // namespace Quorix
