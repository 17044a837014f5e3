#include "QenvDetailsDialog.h"

#include <QGroupBox>
#include <QJsonArray>
#include <QLabel>
#include <QListWidget>
#include <QVBoxLayout>

namespace Quorix {

namespace {

const QString headerColour = QStringLiteral("#1a5f3e");

} // namespace

QenvDetailsDialog::QenvDetailsDialog(QWidget *parent)
    : ResourceDetailsDialog(environmentPresentation(), parent)
{
    typeBadgeLabel()->setStyleSheet(QStringLiteral(
            "QLabel { border: 1px solid #666; border-radius: 4px; padding: 2px 10px; font-weight: bold; }"));
    pythonBadge = createBadge(QStringLiteral("pythonBadge"),
                              QStringLiteral("QLabel { background-color: #ffd43b; color:rgb(0, 0, 0); border-radius: "
                                             "4px; padding: 2px 10px; font-weight: bold; }"));
    addBadge(pythonBadge);
    packageCountBadge = createBadge(QStringLiteral("packageCountBadge"),
                                    QStringLiteral("QLabel { background-color: #4a4a4a; color: white; border-radius: "
                                                   "4px; padding: 2px 10px; font-weight: bold; }"));
    addBadge(packageCountBadge);
    cudaLabel = createBadge(QStringLiteral("cudaLabel"),
                            QStringLiteral("QLabel { background-color: #76b900; color: white; border-radius: 4px; "
                                           "padding: 8px; font-weight: bold; }"));
    cudaLabel->setAlignment(Qt::AlignLeft | Qt::AlignVCenter);
    cudaLabel->hide();
    addNotice(cudaLabel);

    packagesBox = new QGroupBox(tr("Included Packages"), this);
    packagesBox->setObjectName(QStringLiteral("packagesBox"));
    packagesBox->setStyleSheet(groupBoxStyle());
    auto *packagesLayout = new QVBoxLayout(packagesBox);
    packagesLayout->setContentsMargins(6, 4, 6, 6);
    packagesList = new QListWidget(packagesBox);
    packagesList->setObjectName(QStringLiteral("packagesList"));
    packagesLayout->addWidget(packagesList);
    packagesBox->hide();
    addSection(packagesBox);
}

ResourceDetailsDialog::Presentation QenvDetailsDialog::environmentPresentation()
{
    Presentation presentation;
    presentation.windowTitle = tr("Environment Details");
    presentation.loadingTitle = tr("Loading Environment Details...");
    presentation.recordTitle = tr("Environment Details - %1");
    presentation.headerStyle = QStringLiteral("QLabel { background-color: %1; border-radius: 8px; }").arg(headerColour);
    presentation.headerLoadingStyle = QStringLiteral("QLabel { font-size: 48pt; color: palette(text); "
                                                     "background-color: %1; border-radius: 8px; }")
                                              .arg(headerColour);
    presentation.actionObjectName = QStringLiteral("installButton");
    presentation.actionText = tr("Install Environment");
    presentation.actionStyle = QStringLiteral("QPushButton { padding: 5px 14px; }");
    presentation.deleteToolTip = tr("Delete Environment");
    presentation.purchasableToolTip = tr("This environment is locked. Contact the author for access.");
    presentation.privateToolTip = tr("This environment is private. You need authorization from the author.");
    presentation.downloadsCounter = tr("%1 installs");
    presentation.showsVersion = false;
    presentation.fixedDisclaimer = tr("Python environments are installed locally using the UV package manager. "
                                      "Installation may take a few minutes depending on the number of packages.");
    return presentation;
}

void QenvDetailsDialog::onInstallClicked()
{
    emit installRequested(resourceId());
}

void QenvDetailsDialog::onLikeClicked()
{
    emit likeRequested(resourceId());
}

void QenvDetailsDialog::onDeleteClicked()
{
    if (!confirmDestructive(tr("Delete Environment"), tr("Are you sure you want to delete this environment?"),
                            tr("The environment definition will be deleted from the Online Resources.")))
        return;
    emit deleteRequested(resourceId());
    close();
}

void QenvDetailsDialog::onCloseClicked()
{
    close();
}

void QenvDetailsDialog::onCopyIdClicked()
{
    copyAuthorMention();
}

void QenvDetailsDialog::onManageAuthorizationsClicked()
{
    emit manageAuthorizationsRequested(resourceId());
}

void QenvDetailsDialog::onBanAuthorClicked()
{
    if (!confirmDestructive(tr("Ban Author"), tr("Are you sure you want to ban %1?").arg(authorDisplayName()),
                            tr("This will prevent them from uploading any new content to Online Resources.")))
        return;
    emit banAuthorRequested(ownerDiscordId(), QStringLiteral("Banned via admin action"));
    close();
}

void QenvDetailsDialog::onMainActionClicked()
{
    onInstallClicked();
}

void QenvDetailsDialog::fillKindDetails(const QJsonObject &record)
{
    typeBadgeLabel()->setText(QStringLiteral("QENV"));
    const QJsonObject metadata = record.value(QLatin1String("qenv_metadata")).toObject();
    pythonBadge->setText(tr("Python %1").arg(metadata.value(QLatin1String("python")).toString(QStringLiteral("3.x"))));
    pythonBadge->show();
    packageCountBadge->setText(tr("%1 packages").arg(metadata.value(QLatin1String("package_count")).toInt(0)));
    packageCountBadge->show();

    packagesList->clear();
    const QJsonArray packages = metadata.value(QLatin1String("packages")).toArray();
    for (const QJsonValue &package : packages)
        packagesList->addItem(package.toString());
    packagesBox->setVisible(!packages.isEmpty());
    // As tall as the list, up to the box's limit, so a short list does not push the rest out of view.
    const int rows = int(packages.size());
    const int rowHeight = rows > 0 ? packagesList->sizeHintForRow(0) : 0;
    packagesList->setFixedHeight(std::min(150, rows * rowHeight + 2 * packagesList->frameWidth() + 4));

    const QString cuda = metadata.value(QLatin1String("cuda")).toString();
    cudaLabel->setText(tr("\U0001F3AE CUDA: %1").arg(cuda));
    cudaLabel->setVisible(!cuda.isEmpty());
}

void QenvDetailsDialog::clearKindDetails()
{
    pythonBadge->hide();
    packageCountBadge->hide();
    cudaLabel->hide();
    packagesList->clear();
    packagesBox->hide();
}

} // namespace Quorix
