#include "DownloadMessageBox.h"

#include <QGridLayout>
#include <QSpacerItem>

namespace Quorix {

namespace {

constexpr int minimumTextWidth = 540;

} // namespace

DownloadMessageBox::DownloadMessageBox(Icon icon, const QString &title, const QString &text, StandardButtons buttons,
                                       QWidget *page, const QString &objectName)
    : QMessageBox(icon, title, text, buttons, page)
{
    setObjectName(objectName);
}

void DownloadMessageBox::showEvent(QShowEvent *event)
{
    // A box sizes itself to its words, and rebuilds its layout whenever a text or button is set; a spacer across the
    // bottom row of the final layout is the one width it honours.
    auto *grid = qobject_cast<QGridLayout *>(layout());
    if (grid && grid != widenedLayout) {
        grid->addItem(new QSpacerItem(minimumTextWidth, 0, QSizePolicy::Minimum, QSizePolicy::Fixed), grid->rowCount(),
                      0, 1, grid->columnCount());
        widenedLayout = grid;
    }
    QMessageBox::showEvent(event);
}

} // namespace Quorix
