#pragma once

#include "ResourceDetailsDialog.h"

namespace Quorix {

// One script in full, with its instructions, tags and disclaimer; actions go to the owner as requests.
class ScriptDetailsDialog : public ResourceDetailsDialog
{
    Q_OBJECT

public:
    explicit ScriptDetailsDialog(QWidget *parent = nullptr);

Q_SIGNALS:
    void downloadRequested(const QString &scriptId);
    void likeRequested(const QString &scriptId);
    void deleteRequested(const QString &scriptId);
    void manageAuthorizationsRequested(const QString &scriptId);
    void banAuthorRequested(const QString &discordId, const QString &reason);

private Q_SLOTS:
    void onDownloadClicked();
    void onLikeClicked() override;
    void onDeleteClicked() override;
    void onCloseClicked() override;
    void onCopyIdClicked() override;
    void onManageAuthorizationsClicked() override;
    // Kept in the slot table although the dialog offers no visibility control; visibility changes elsewhere.
    void onVisibilityChanged();
    void onBanAuthorClicked() override;

private:
    static Presentation scriptPresentation();
    void onMainActionClicked() override;
    void fillKindDetails(const QJsonObject &record) override;
    void clearKindDetails() override;
};

} // namespace Quorix
