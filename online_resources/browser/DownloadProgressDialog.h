#pragma once

#include <QProgressDialog>
#include <QString>

namespace Quorix {

// The window-modal progress of one download or install, kept by its flow for the page's life. It shows a percentage
// and both byte counts in the unit of the total, or a busy bar when the length is unknown.
class DownloadProgressDialog : public QProgressDialog
{
    Q_OBJECT

public:
    explicit DownloadProgressDialog(QWidget *page);

    // Shows the dialog at zero with its first label ("Downloading...", "Downloading ONNX weights...").
    void begin(const QString &label);
    // "label %1 / %2" while the total is known, the bare label as a busy bar otherwise.
    void showProgress(qint64 bytesReceived, qint64 bytesTotal);
    // A busy bar under a caller's text, for work whose length nobody knows.
    void showBusy(const QString &text);
    void finish();

private:
    QString baseLabel;
};

} // namespace Quorix
