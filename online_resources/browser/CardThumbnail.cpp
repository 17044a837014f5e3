#include "CardThumbnail.h"

#include "ThumbnailCache.h"

#include <QGuiApplication>
#include <QScreen>

namespace Quorix {

namespace {

const QString pageGlyph = QStringLiteral("\U0001F4C4");
const QString hourglassGlyph = QStringLiteral("\u23F3");

qreal primaryScreenRatio()
{
    const QScreen *screen = QGuiApplication::primaryScreen();
    return screen ? screen->devicePixelRatio() : 1.0;
}

} // namespace

CardThumbnail::CardThumbnail(const QSize &size, QWidget *card)
    : QLabel(card)
{
    setObjectName(QStringLiteral("cardThumbnail"));
    setFixedSize(size);
    setAlignment(Qt::AlignCenter);
    QFont glyphFont = font();
    glyphFont.setPointSize(36);
    setFont(glyphFont);
    const ThumbnailCache *cache = ThumbnailCache::instance();
    connect(cache, &ThumbnailCache::arrived, this, [this](const QString &arrived) {
        if (arrived == address)
            showCached();
    });
    connect(cache, &ThumbnailCache::failed, this, [this](const QString &failed) {
        if (failed == address)
            showPlaceholder();
    });
}

void CardThumbnail::showPicture(const QString &pictureAddress)
{
    address = pictureAddress;
    if (address.isEmpty()) {
        showPlaceholder();
        return;
    }
    ThumbnailCache *cache = ThumbnailCache::instance();
    if (!cache->find(address, size(), primaryScreenRatio()).isNull()) {
        showCached();
        return;
    }
    setText(hourglassGlyph);
    cache->request(address, size(), primaryScreenRatio());
}

void CardThumbnail::showCached()
{
    setPixmap(ThumbnailCache::instance()->find(address, size(), primaryScreenRatio()));
}

void CardThumbnail::showPlaceholder()
{
    setText(pageGlyph);
}

} // namespace Quorix
