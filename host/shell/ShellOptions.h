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

    // Parses the application's arguments; exits the process on --help or a malformed option.
    static ShellOptions parse(const QStringList &arguments);
};

} // namespace Quorix
