#include "OnnxDetailsDialog.h"

#include "core/ResourceRecord.h"

#include <QLabel>

namespace Quorix {

namespace {

const QString headerColour = QStringLiteral("#00a0b0");

QString typeBadgeStyle(const QString &colour)
{
    return QStringLiteral("QLabel { background-color: %1; color: white; border-radius: 4px; padding: 2px 10px; "
                          "font-weight: bold; }")
            .arg(colour);
}

} // namespace

OnnxDetailsDialog::OnnxDetailsDialog(QWidget *parent)
    : ResourceDetailsDialog(weightsPresentation(), parent)
{
    typeBadgeLabel()->setText(QStringLiteral("ONNX"));
    typeBadgeLabel()->setStyleSheet(typeBadgeStyle(headerColour));
    sizeBadge = createBadge(QStringLiteral("sizeBadge"),
                            QStringLiteral("QLabel { background-color: #4a4a4a; color: white; border-radius: 4px; "
                                           "padding: 2px 10px; font-weight: bold; }"));
    sizeBadge->hide();
    addBadge(sizeBadge);
    encryptedLabel = createBadge(QStringLiteral("encryptedLabel"),
                                 QStringLiteral("QLabel { background-color: #8e44ad; color: white; border-radius: "
                                                "4px; padding: 8px; font-weight: bold; }"));
    encryptedLabel->setAlignment(Qt::AlignLeft | Qt::AlignVCenter);
    encryptedLabel->setWordWrap(true);
    encryptedLabel->setText(tr("\U0001F512 Encrypted Weights - These ONNX weights have been DRM encrypted for "
                               "protection. Access may be revoked at any time by the author."));
    encryptedLabel->hide();
    addNotice(encryptedLabel);
}

ResourceDetailsDialog::Presentation OnnxDetailsDialog::weightsPresentation()
{
    Presentation presentation;
    presentation.windowTitle = tr("ONNX Weights Details");
    presentation.loadingTitle = tr("Loading ONNX Weights Details...");
    presentation.recordTitle = tr("ONNX Weights - %1");
    presentation.headerStyle = QStringLiteral("QLabel { background-color: %1; border-radius: 8px; }").arg(headerColour);
    presentation.headerLoadingStyle = QStringLiteral("QLabel { font-size: 48pt; color: palette(text); "
                                                     "background-color: %1; border-radius: 8px; }")
                                              .arg(headerColour);
    presentation.actionObjectName = QStringLiteral("downloadButton");
    presentation.actionText = tr("Download");
    presentation.actionStyle = QStringLiteral("QPushButton { padding: 5px 14px; font-weight: bold; }");
    presentation.deleteToolTip = tr("Delete Weights");
    presentation.purchasableToolTip = tr("These weights are locked. Contact the author for access.");
    presentation.privateToolTip = tr("These weights are private. You need authorization from the author.");
    presentation.downloadsCounter = tr("%1 downloads");
    presentation.showsVersion = true;
    presentation.fixedDisclaimer
            = tr("ONNX weights are neural network models for inferencing (object detection) within supporting "
                 "scripts. Not affiliated with, endorsed by, or supported by Tavrin or any game publishers. All game "
                 "names, trademarks, and logos are property of their respective owners. Users are solely responsible "
                 "for compliance with applicable rules and policies. Use at your own risk.");
    return presentation;
}

void OnnxDetailsDialog::onDownloadClicked()
{
    emit downloadRequested(resourceId());
}

void OnnxDetailsDialog::onLikeClicked()
{
    emit likeRequested(resourceId());
}

void OnnxDetailsDialog::onDeleteClicked()
{
    const bool confirmed = encrypted ? confirmDestructive(
                                   tr("Delete ONNX Weights"), tr("\u26A0\uFE0F WARNING: Deleting encrypted weights!"),
                                   tr("This action will permanently revoke access for ALL users.\n\n"
                                      "\u2022 Users who downloaded these weights will no longer be able to use them\n"
                                      "\u2022 Built engine caches (.eecache) will stop working\n"
                                      "\u2022 Decryption keys are server-validated and will be rejected\n"
                                      "\u2022 This cannot be undone\n\n"
                                      "Are you sure you want to delete these weights?"))
                                     : confirmDestructive(tr("Delete ONNX Weights"),
                                                          tr("Are you sure you want to delete these ONNX weights?"),
                                                          tr("The weights will be deleted from the Online Resources."));
    if (!confirmed)
        return;
    emit deleteRequested(resourceId());
    close();
}

void OnnxDetailsDialog::onCloseClicked()
{
    close();
}

void OnnxDetailsDialog::onCopyIdClicked()
{
    copyAuthorMention();
}

void OnnxDetailsDialog::onManageAuthorizationsClicked()
{
    emit manageAuthorizationsRequested(resourceId());
}

void OnnxDetailsDialog::onBanAuthorClicked()
{
    if (!confirmDestructive(tr("Ban Author"), tr("Are you sure you want to ban %1?").arg(authorDisplayName()),
                            tr("This will prevent them from uploading any new content to Online Resources.")))
        return;
    emit banAuthorRequested(ownerDiscordId(), QStringLiteral("Banned via admin action"));
    close();
}

void OnnxDetailsDialog::onMainActionClicked()
{
    onDownloadClicked();
}

void OnnxDetailsDialog::fillKindDetails(const QJsonObject &record)
{
    encrypted = ResourceRecord::isEncrypted(record);
    typeBadgeLabel()->setText(encrypted ? QStringLiteral("ENNX") : QStringLiteral("ONNX"));
    typeBadgeLabel()->setStyleSheet(typeBadgeStyle(encrypted ? QStringLiteral("#8e44ad") : headerColour));
    encryptedLabel->setVisible(encrypted);

    const qint64 size = record.value(QLatin1String("size")).toInteger(0);
    sizeBadge->setText(ResourceRecord::fileSize(size));
    sizeBadge->setVisible(size > 0);
}

void OnnxDetailsDialog::clearKindDetails()
{
    encrypted = false;
    encryptedLabel->hide();
    sizeBadge->hide();
}

} // namespace Quorix
