#include "ThemedToolButton.h"

#include "ThemedIcon.h"

#include <QEvent>

namespace Quorix {

ThemedToolButton::ThemedToolButton(QWidget *parent)
    : QToolButton(parent)
{
    setAutoRaise(true);
}

ThemedToolButton::ThemedToolButton(const QString &svgPath, QWidget *parent)
    : ThemedToolButton(parent)
{
    setThemedIcon(svgPath);
}

void ThemedToolButton::setThemedIcon(const QString &svgPath)
{
    iconPath = svgPath;
    applyIcon();
}

QString ThemedToolButton::themedIconPath() const
{
    return iconPath;
}

void ThemedToolButton::changeEvent(QEvent *event)
{
    QToolButton::changeEvent(event);
    if (event->type() == QEvent::PaletteChange)
        applyIcon();
}

void ThemedToolButton::applyIcon()
{
    if (!iconPath.isEmpty())
        setIcon(ThemedIcon::create(iconPath, palette().color(QPalette::ButtonText)));
}

} // namespace Quorix
