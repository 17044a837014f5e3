#pragma once

#include <QLabel>
#include <QString>

namespace Quorix {

// The picture area of a catalogue card: a placeholder glyph until the image address has been fetched, then the
// image centre-cropped to the label at the primary screen's pixel density.
class CardThumbnail : public QLabel
{
    Q_OBJECT

public:
    // The fetch goes through a network access manager owned by `card`, so it dies with the card.
    CardThumbnail(const QString &address, const QSize &size, QWidget *card);

private:
    void showImage(const QByteArray &bytes);
    void showPlaceholder();
};

} // namespace Quorix
