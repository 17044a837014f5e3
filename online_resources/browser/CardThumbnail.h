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
    CardThumbnail(const QSize &size, QWidget *card);

    // Shows the picture at `address` (an empty address has none), fetched through the process's thumbnail cache.
    void showPicture(const QString &address);

private:
    void showCached();
    void showPlaceholder();

    QString address;
};

} // namespace Quorix
