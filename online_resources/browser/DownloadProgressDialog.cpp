#include "DownloadProgressDialog.h"

#include "core/ResourceRecord.h"

#include <QLabel>

namespace Quorix {

DownloadProgressDialog::DownloadProgressDialog(QWidget *page)
    : QProgressDialog(page)
{
    setObjectName(QStringLiteral("downloadProgressDialog"));
    setWindowModality(Qt::WindowModal);
    setMinimumDuration(500);
    setAutoClose(false);
    setAutoReset(false);
    // Neither the transfer nor the environment manager can be stopped half-way, so no button pretends to.
    setCancelButton(nullptr);
    // uv's output lines are long; they wrap inside a steady width instead of stretching the dialog.
    auto *label = new QLabel(this);
    label->setWordWrap(true);
    label->setAlignment(Qt::AlignCenter);
    setLabel(label);
    setMinimumWidth(460);
}

void DownloadProgressDialog::begin(const QString &label)
{
    baseLabel = label;
    setLabelText(label);
    setRange(0, 100);
    setValue(0);
    show();
}

void DownloadProgressDialog::showProgress(qint64 bytesReceived, qint64 bytesTotal)
{
    if (bytesTotal < 1) {
        showBusy(baseLabel);
        return;
    }
    setRange(0, 100);
    setValue(int(bytesReceived * 100 / bytesTotal));
    setLabelText(QStringLiteral("%1 %2 / %3")
                         .arg(baseLabel, ResourceRecord::progressAmount(bytesReceived, bytesTotal),
                              ResourceRecord::progressAmount(bytesTotal, bytesTotal)));
}

void DownloadProgressDialog::showBusy(const QString &text)
{
    setRange(0, 0);
    setLabelText(text);
}

void DownloadProgressDialog::finish()
{
    reset();
    hide();
}

} // namespace Quorix
