#include "CardThumbnail.h"

#include <QGuiApplication>
#include <QImage>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPainter>
#include <QPainterPath>
#include <QPixmap>
#include <QScreen>
#include <QUrl>

namespace Quorix {

namespace {

const QString pageGlyph = QStringLiteral("\U0001F4C4");
const QString hourglassGlyph = QStringLiteral("\u23F3");
constexpr qreal cornerRadius = 15;

qreal primaryScreenRatio()
{
    const QScreen *screen = QGuiApplication::primaryScreen();
    return screen ? screen->devicePixelRatio() : 1.0;
}

} // namespace

CardThumbnail::CardThumbnail(const QString &address, const QSize &size, QWidget *card)
    : QLabel(card)
{
    setObjectName(QStringLiteral("cardThumbnail"));
    setFixedSize(size);
    setAlignment(Qt::AlignCenter);
    QFont glyphFont = font();
    glyphFont.setPointSize(36);
    setFont(glyphFont);

    if (address.isEmpty()) {
        showPlaceholder();
        return;
    }
    setText(hourglassGlyph);
    auto *network = new QNetworkAccessManager(card);
    QNetworkReply *reply = network->get(QNetworkRequest(QUrl(address)));
    connect(reply, &QNetworkReply::finished, this, [this, reply] {
        reply->deleteLater();
        if (reply->error() == QNetworkReply::NoError)
            showImage(reply->readAll());
        else
            showPlaceholder();
    });
}

void CardThumbnail::showImage(const QByteArray &bytes)
{
    QImage image;
    if (!image.loadFromData(bytes)) {
        showPlaceholder();
        return;
    }
    const qreal ratio = primaryScreenRatio();
    const QSize target(int(width() * ratio), int(height() * ratio));
    QImage scaled = image.scaled(target, Qt::KeepAspectRatioByExpanding, Qt::SmoothTransformation);
    if (scaled.width() > target.width() || scaled.height() > target.height())
        scaled = scaled.copy((scaled.width() - target.width()) / 2, (scaled.height() - target.height()) / 2,
                             target.width(), target.height());
    // The image gets the same rounded corners as the coloured placeholder area it replaces.
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
    setPixmap(pixmap);
}

void CardThumbnail::showPlaceholder()
{
    setText(pageGlyph);
}

} // namespace Quorix
