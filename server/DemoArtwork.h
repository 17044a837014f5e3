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
    struct Pictures
    {
        QByteArray header;
        QByteArray thumbnail;
    };

    // The header and thumbnail PNGs of one demo resource. They are drawn once per machine and read back from the
    // cache folder afterwards, so that a demo catalogue is ready without waiting for the drawing.
    static Pictures pictures(const QString &title, const QString &kind, quint32 seed);

    static QImage header(const QString &title, const QString &kind, quint32 seed);
    static QByteArray png(const QImage &image);
};

} // namespace Quorix
