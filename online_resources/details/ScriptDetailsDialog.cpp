#include "ScriptDetailsDialog.h"

#include "core/ResourceRecord.h"

#include <QLabel>

namespace Quorix {

ScriptDetailsDialog::ScriptDetailsDialog(QWidget *parent)
    : ResourceDetailsDialog(scriptPresentation(), parent)
{
    typeBadgeLabel()->setFixedSize(55, 24);
    typeBadgeLabel()->setStyleSheet(QStringLiteral("QLabel { font-size: 7pt; font-weight: bold; }"));
}

ResourceDetailsDialog::Presentation ScriptDetailsDialog::scriptPresentation()
{
    Presentation presentation;
    presentation.windowTitle = tr("Script Details");
    presentation.loadingTitle = tr("Loading Script Details...");
    presentation.recordTitle = tr("Script Details - %1");
    presentation.headerLoadingStyle = QStringLiteral("QLabel { font-size: 48pt; color: palette(text); }");
    presentation.headerStyle = presentation.headerLoadingStyle;
    presentation.actionObjectName = QStringLiteral("downloadButton");
    presentation.actionText = tr("Download");
    presentation.actionStyle = QStringLiteral("QPushButton { padding: 5px 14px; font-weight: bold; }");
    presentation.deleteToolTip = tr("Delete Script");
    presentation.purchasableToolTip = tr("This script is locked. Contact the author for access.");
    presentation.privateToolTip = tr("This script is private. You need authorization from the author.");
    presentation.downloadsCounter = tr("%1 downloads");
    presentation.showsVersion = true;
    presentation.showsScriptSections = true;
    presentation.fixedDisclaimer
            = tr("Scripts are user-submitted content and are not affiliated with, endorsed by, or supported by Tavrin "
                 "or any game publishers. All game names, trademarks, and logos are property of their respective "
                 "owners. Use of scripts may violate game Terms of Service or community guidelines. Users are solely "
                 "responsible for compliance with applicable rules and policies. Use at your own risk.");
    return presentation;
}

void ScriptDetailsDialog::onDownloadClicked()
{
    emit downloadRequested(resourceId());
}

void ScriptDetailsDialog::onLikeClicked()
{
    emit likeRequested(resourceId());
}

void ScriptDetailsDialog::onDeleteClicked()
{
    if (!confirmDestructive(tr("Delete Script"), tr("Are you sure you want to delete this script?"),
                            tr("The script will be deleted from the Online Resources.")))
        return;
    emit deleteRequested(resourceId());
    close();
}

void ScriptDetailsDialog::onCloseClicked()
{
    close();
}

void ScriptDetailsDialog::onCopyIdClicked()
{
    copyAuthorMention();
}

void ScriptDetailsDialog::onManageAuthorizationsClicked()
{
    emit manageAuthorizationsRequested(resourceId());
}

void ScriptDetailsDialog::onVisibilityChanged() { }

void ScriptDetailsDialog::onBanAuthorClicked()
{
    if (!confirmDestructive(tr("Ban User"), tr("Are you sure you want to ban %1?").arg(authorDisplayName()),
                            tr("This will prevent them from uploading any new scripts or resources. Their existing "
                               "uploads will remain but be hidden from public listings.")))
        return;
    emit banAuthorRequested(ownerDiscordId(),
                            QStringLiteral("Banned by administrator from script: %1").arg(recordName()));
    close();
}

void ScriptDetailsDialog::onMainActionClicked()
{
    onDownloadClicked();
}

void ScriptDetailsDialog::fillKindDetails(const QJsonObject &record)
{
    const QString type = ResourceRecord::type(record).toUpper();
    typeBadgeLabel()->setText(type == QLatin1String("PY") ? QStringLiteral("PYTHON") : type);
}

void ScriptDetailsDialog::clearKindDetails() { }

} // namespace Quorix
