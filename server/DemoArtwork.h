#pragma once

#include <QByteArray>
#include <QImage>
#include <QString>

namespace Quorix {

// Header pictures for the demo catalogue, drawn rather than shipped: a gradient, a few shapes that hint at the
// resource kind, and the title.
class DemoArtwork
{
public:
    static QImage header(const QString &title, const QString &kind, quint32 seed);
    static QByteArray png(const QImage &image);
};

} // namespace Quorix
