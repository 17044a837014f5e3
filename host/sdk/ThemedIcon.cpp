#include "ThemedIcon.h"

#include <QGuiApplication>
#include <QIconEngine>
#include <QPainter>
#include <QPalette>
#include <QPixmapCache>
#include <QSvgRenderer>

namespace Quorix {

namespace {

class TintedSvgEngine : public QIconEngine
{
public:
    TintedSvgEngine(const QString &path, const QColor &fixedColour)
        : path(path)
        , fixedColour(fixedColour)
    {
    }

    void paint(QPainter *painter, const QRect &rect, QIcon::Mode mode, QIcon::State state) override
    {
        const qreal ratio = painter->device() ? painter->device()->devicePixelRatioF() : 1.0;
        QPixmap image = pixmap(rect.size() * ratio, mode, state);
        image.setDevicePixelRatio(ratio);
        painter->drawPixmap(rect, image);
    }

    QPixmap pixmap(const QSize &size, QIcon::Mode mode, QIcon::State) override
    {
        const QColor colour = tint(mode);
        const QString key = QStringLiteral("quorix-icon:%1:%2x%3:%4")
                                    .arg(path)
                                    .arg(size.width())
                                    .arg(size.height())
                                    .arg(colour.name(QColor::HexArgb));
        QPixmap cached;
        if (QPixmapCache::find(key, &cached))
            return cached;

        QPixmap result(size);
        result.fill(Qt::transparent);
        QSvgRenderer renderer(path);
        if (renderer.isValid()) {
            QPainter painter(&result);
            renderer.render(&painter, QRectF(QPointF(0, 0), QSizeF(size)));
            painter.setCompositionMode(QPainter::CompositionMode_SourceIn);
            painter.fillRect(result.rect(), colour);
        }
        QPixmapCache::insert(key, result);
        return result;
    }

    QIconEngine *clone() const override { return new TintedSvgEngine(path, fixedColour); }

private:
    QColor tint(QIcon::Mode mode) const
    {
        const QPalette palette = QGuiApplication::palette();
        if (mode == QIcon::Disabled)
            return palette.color(QPalette::Disabled, QPalette::Text);
        return fixedColour.isValid() ? fixedColour : palette.color(QPalette::Active, QPalette::Text);
    }

    QString path;
    QColor fixedColour;
};

} // namespace

QIcon ThemedIcon::create(const QString &svgPath)
{
    return QIcon(new TintedSvgEngine(svgPath, QColor()));
}

QIcon ThemedIcon::create(const QString &svgPath, const QColor &colour)
{
    return QIcon(new TintedSvgEngine(svgPath, colour));
}

} // namespace Quorix
