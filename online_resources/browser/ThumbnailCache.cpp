#include "ThumbnailCache.h"

#include <QCoreApplication>
#include <QImage>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPainter>
#include <QPainterPath>
#include <QPointer>
#include <QUrl>

namespace Quorix {

namespace {

constexpr qreal cornerRadius = 15;

QString keyOf(const QString &address, const QSize &size, qreal ratio)
{
    return QStringLiteral("%1x%2@%3 %4").arg(size.width()).arg(size.height()).arg(ratio).arg(address);
}

// Centre-cropped to the card's picture area, with the same rounded corners as the coloured area it replaces.
QPixmap cardPicture(const QImage &image, const QSize &size, qreal ratio)
{
    const QSize target(int(size.width() * ratio), int(size.height() * ratio));
    QImage scaled = image.scaled(target, Qt::KeepAspectRatioByExpanding, Qt::SmoothTransformation);
    if (scaled.width() > target.width() || scaled.height() > target.height())
        scaled = scaled.copy((scaled.width() - target.width()) / 2, (scaled.height() - target.height()) / 2,
                             target.width(), target.height());
    QPixmap pixmap(target);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);
    QPainterPath corners;
    corners.addRoundedRect(QRectF(QPointF(0, 0), QSizeF(target)), cornerRadius * ratio, cornerRadius * ratio);
    painter.setClipPath(corners);
    painter.drawImage(0, 0, scaled);
    painter.end();
    pixmap.setDevicePixelRatio(ratio);
    return pixmap;
}

} // namespace

ThumbnailCache::ThumbnailCache(QObject *parent)
    : QObject(parent)
    , network(new QNetworkAccessManager(this))
{
    pixmaps.setMaxCost(defaultBudget);
}

ThumbnailCache *ThumbnailCache::instance()
{
    // Owned by the application, so its network access manager goes before Qt's networking does.
    static QPointer<ThumbnailCache> shared;
    if (!shared)
        shared = new ThumbnailCache(QCoreApplication::instance());
    return shared;
}

QPixmap ThumbnailCache::find(const QString &address, const QSize &size, qreal ratio) const
{
    const QPixmap *pixmap = pixmaps.object(keyOf(address, size, ratio));
    return pixmap ? *pixmap : QPixmap();
}

void ThumbnailCache::request(const QString &address, const QSize &size, qreal ratio)
{
    const QString key = keyOf(address, size, ratio);
    if (pixmaps.contains(key) || inFlight.contains(key))
        return;
    inFlight.insert(key);
    QNetworkReply *reply = network->get(QNetworkRequest(QUrl(address)));
    connect(reply, &QNetworkReply::finished, this, [this, reply, address, size, ratio, key] {
        reply->deleteLater();
        inFlight.remove(key);
        if (reply->error() == QNetworkReply::NoError)
            keep(address, size, ratio, reply->readAll());
        else
            emit failed(address);
    });
}

void ThumbnailCache::setBudget(qint64 bytes)
{
    pixmaps.setMaxCost(bytes);
}

void ThumbnailCache::keep(const QString &address, const QSize &size, qreal ratio, const QByteArray &bytes)
{
    QImage image;
    if (!image.loadFromData(bytes)) {
        emit failed(address);
        return;
    }
    auto *pixmap = new QPixmap(cardPicture(image, size, ratio));
    const qint64 cost = qint64(pixmap->width()) * pixmap->height() * pixmap->depth() / 8;
    pixmaps.insert(keyOf(address, size, ratio), pixmap, cost);
    emit arrived(address);
}

} // namespace Quorix
