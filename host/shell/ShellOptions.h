#pragma once

#include <QString>
#include <QStringList>

namespace Quorix {

// What quorix-shell was asked to do on its command line.
struct ShellOptions
{
    bool listPlugins = false;
    bool demo = false;
    QString screenshotFile;
    QString pluginDirectory;
    QString theme;
    int settleMilliseconds = 2500;
    // "objectName.property=value" assignments applied to the window's widgets once shown (scripted screenshots).
    QStringList propertyAssignments;
    // "kind:argument" handed to the plugin pages to open a dialog in a given state (scripted screenshots).
    QString openTarget;

    // Parses the application's arguments; exits the process on --help or a malformed option.
    static ShellOptions parse(const QStringList &arguments);
};

} // namespace Quorix
