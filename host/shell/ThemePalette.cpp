#include "ThemePalette.h"

#include <QApplication>
#include <QStyleFactory>

namespace Quorix {

QPalette ThemePalette::light()
{
    QPalette palette;
    palette.setColor(QPalette::Window, QColor(0xf2, 0xf3, 0xf5));
    palette.setColor(QPalette::WindowText, QColor(0x20, 0x22, 0x25));
    palette.setColor(QPalette::Base, Qt::white);
    palette.setColor(QPalette::AlternateBase, QColor(0xeb, 0xed, 0xef));
    palette.setColor(QPalette::Text, QColor(0x20, 0x22, 0x25));
    palette.setColor(QPalette::Button, QColor(0xe3, 0xe5, 0xe8));
    palette.setColor(QPalette::ButtonText, QColor(0x20, 0x22, 0x25));
    palette.setColor(QPalette::Light, Qt::white);
    palette.setColor(QPalette::Midlight, QColor(0xe9, 0xea, 0xec));
    palette.setColor(QPalette::Dark, QColor(0xd4, 0xd7, 0xdc));
    palette.setColor(QPalette::Mid, QColor(0xb9, 0xbb, 0xbe));
    palette.setColor(QPalette::Shadow, QColor(0x80, 0x84, 0x8e));
    palette.setColor(QPalette::Highlight, QColor(0x58, 0x65, 0xf2));
    palette.setColor(QPalette::HighlightedText, Qt::white);
    palette.setColor(QPalette::ToolTipBase, QColor(0x20, 0x22, 0x25));
    palette.setColor(QPalette::ToolTipText, Qt::white);
    palette.setColor(QPalette::PlaceholderText, QColor(0x80, 0x84, 0x8e));
    palette.setColor(QPalette::Link, QColor(0x00, 0x68, 0xe0));
    palette.setColor(QPalette::Disabled, QPalette::Text, QColor(0xa0, 0xa3, 0xa8));
    palette.setColor(QPalette::Disabled, QPalette::WindowText, QColor(0xa0, 0xa3, 0xa8));
    palette.setColor(QPalette::Disabled, QPalette::ButtonText, QColor(0xa0, 0xa3, 0xa8));
    return palette;
}

QPalette ThemePalette::dark()
{
    QPalette palette;
    palette.setColor(QPalette::Window, QColor(0x31, 0x33, 0x38));
    palette.setColor(QPalette::WindowText, QColor(0xf2, 0xf3, 0xf5));
    palette.setColor(QPalette::Base, QColor(0x1e, 0x1f, 0x22));
    palette.setColor(QPalette::AlternateBase, QColor(0x2b, 0x2d, 0x31));
    palette.setColor(QPalette::Text, QColor(0xf2, 0xf3, 0xf5));
    palette.setColor(QPalette::Button, QColor(0x40, 0x42, 0x49));
    palette.setColor(QPalette::ButtonText, QColor(0xf2, 0xf3, 0xf5));
    palette.setColor(QPalette::Light, QColor(0x4e, 0x50, 0x58));
    palette.setColor(QPalette::Midlight, QColor(0x40, 0x42, 0x49));
    palette.setColor(QPalette::Dark, QColor(0x23, 0x24, 0x28));
    palette.setColor(QPalette::Mid, QColor(0x2b, 0x2d, 0x31));
    palette.setColor(QPalette::Shadow, QColor(0x11, 0x12, 0x14));
    palette.setColor(QPalette::Highlight, QColor(0x58, 0x65, 0xf2));
    palette.setColor(QPalette::HighlightedText, Qt::white);
    palette.setColor(QPalette::ToolTipBase, QColor(0x11, 0x12, 0x14));
    palette.setColor(QPalette::ToolTipText, QColor(0xf2, 0xf3, 0xf5));
    palette.setColor(QPalette::PlaceholderText, QColor(0x94, 0x9b, 0xa4));
    palette.setColor(QPalette::Link, QColor(0x00, 0xa8, 0xfc));
    palette.setColor(QPalette::Disabled, QPalette::Text, QColor(0x6d, 0x6f, 0x78));
    palette.setColor(QPalette::Disabled, QPalette::WindowText, QColor(0x6d, 0x6f, 0x78));
    palette.setColor(QPalette::Disabled, QPalette::ButtonText, QColor(0x6d, 0x6f, 0x78));
    return palette;
}

void ThemePalette::apply(const QString &theme)
{
    QApplication::setStyle(QStyleFactory::create(QStringLiteral("Fusion")));
    QApplication::setPalette(theme == QLatin1String("dark") ? dark() : light());
}

} // namespace Quorix
