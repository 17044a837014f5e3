#pragma once

#include <QLayout>
#include <QMessageBox>

namespace Quorix {

// The message boxes of the download flows. They name folders and files, so they are wide enough for a whole path on
// one line where a plain box would break it between its letters.
class DownloadMessageBox : public QMessageBox
{
    Q_OBJECT

public:
    DownloadMessageBox(Icon icon, const QString &title, const QString &text, StandardButtons buttons, QWidget *page,
                       const QString &objectName);

protected:
    void showEvent(QShowEvent *event) override;

private:
    QLayout *widenedLayout = nullptr;
};

} // namespace Quorix
