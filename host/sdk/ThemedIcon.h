#pragma once

#include "QuorixSdkExport.h"

#include <QColor>
#include <QIcon>
#include <QString>

namespace Quorix {

// Monochrome SVG icons drawn in the palette's text colour, so one icon set serves light and dark themes.
class QUORIX_SDK_EXPORT ThemedIcon
{
public:
    // Tinted with the application palette's text colour at the time of painting.
    static QIcon create(const QString &svgPath);
    // Tinted with a fixed colour, for widgets that follow their own palette.
    static QIcon create(const QString &svgPath, const QColor &colour);
};

} // namespace Quorix
