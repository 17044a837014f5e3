#pragma once

#include "ResourceDetailsDialog.h"

class QGroupBox;
class QListWidget;

namespace Quorix {

// One environment package in full: Python version, packages and CUDA, with Install instead of Download.
class QenvDetailsDialog : public ResourceDetailsDialog
{
    Q_OBJECT

public:
    explicit QenvDetailsDialog(QWidget *parent = nullptr);

Q_SIGNALS:
    void installRequested(const QString &envId);
    void likeRequested(const QString &envId);
    void deleteRequested(const QString &envId);
    void manageAuthorizationsRequested(const QString &envId);
    void banAuthorRequested(const QString &discordId, const QString &reason);

private Q_SLOTS:
    void onInstallClicked();
    void onLikeClicked() override;
    void onDeleteClicked() override;
    void onCloseClicked() override;
    void onCopyIdClicked() override;
    void onManageAuthorizationsClicked() override;
    void onBanAuthorClicked() override;

private:
    static Presentation environmentPresentation();
    void onMainActionClicked() override;
    void fillKindDetails(const QJsonObject &record) override;
    void clearKindDetails() override;

    QLabel *pythonBadge = nullptr;
    QLabel *packageCountBadge = nullptr;
    QLabel *cudaLabel = nullptr;
    QGroupBox *packagesBox = nullptr;
    QListWidget *packagesList = nullptr;
};

} // namespace Quorix
