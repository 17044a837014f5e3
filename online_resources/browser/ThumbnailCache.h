#pragma once

#include <QCache>
#include <QObject>
#include <QPixmap>
#include <QSet>
#include <QSize>
#include <QString>

class QNetworkAccessManager;

namespace Quorix {

// Card pictures of the whole process, fetched once and kept ready to show, up to a budget in bytes: cards come and
// go as the grid scrolls, and a card that comes back shows its picture without asking the server again.
class ThumbnailCache : public QObject
{
    Q_OBJECT

public:
    static constexpr qint64 defaultBudget = 16 * 1024 * 1024;

    static ThumbnailCache *instance();

    // The picture of `address` cropped to `size` at `ratio` device pixels per pixel, or a null pixmap while it is
    // not here.
    QPixmap find(const QString &address, const QSize &size, qreal ratio) const;
    // Fetches `address` unless it is here or already on its way; arrived() or failed() follows.
    void request(const QString &address, const QSize &size, qreal ratio);
    void setBudget(qint64 bytes);

Q_SIGNALS:
    void arrived(const QString &address);
    void failed(const QString &address);

private:
    explicit ThumbnailCache(QObject *parent);
    void keep(const QString &address, const QSize &size, qreal ratio, const QByteArray &bytes);

    QNetworkAccessManager *network = nullptr;
    QCache<QString, QPixmap> pixmaps;
    QSet<QString> inFlight;
};

} // namespace Quorix
