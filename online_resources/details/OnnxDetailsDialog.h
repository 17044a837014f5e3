#pragma once

#include "ResourceDetailsDialog.h"

namespace Quorix {

// One weights file in full: ONNX or encrypted ENNX, its size, and a stronger warning before deleting encrypted
// weights, since that revokes them for everyone who downloaded them.
class OnnxDetailsDialog : public ResourceDetailsDialog
{
    Q_OBJECT

public:
    explicit OnnxDetailsDialog(QWidget *parent = nullptr);

Q_SIGNALS:
    void downloadRequested(const QString &weightsId);
    void likeRequested(const QString &weightsId);
    void deleteRequested(const QString &weightsId);
    void manageAuthorizationsRequested(const QString &weightsId);
    void banAuthorRequested(const QString &discordId, const QString &reason);

private Q_SLOTS:
    void onDownloadClicked();
    void onLikeClicked() override;
    void onDeleteClicked() override;
    void onCloseClicked() override;
    void onCopyIdClicked() override;
    void onManageAuthorizationsClicked() override;
    void onBanAuthorClicked() override;

private:
    static Presentation weightsPresentation();
    void onMainActionClicked() override;
    void fillKindDetails(const QJsonObject &record) override;
    void clearKindDetails() override;

    bool encrypted = false;
    QLabel *sizeBadge = nullptr;
    QLabel *encryptedLabel = nullptr;
};

} // namespace Quorix
