#pragma once

#include <QPalette>
#include <QString>

namespace Quorix {

// The host's two themes, applied to the whole application.
class ThemePalette
{
public:
    static QPalette light();
    static QPalette dark();
    // "dark" selects the dark palette, anything else the light one.
    static void apply(const QString &theme);
};

} // namespace Quorix
