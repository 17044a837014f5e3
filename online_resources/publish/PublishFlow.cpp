#include "PublishFlow.h"

#include "ScriptSelectionDialog.h"
#include "UploadDialog.h"

#include <SettingsManager.h>

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QJsonObject>
#include <QPushButton>

namespace Quorix {

PublishFlow::PublishFlow(OnlineResourcesAPI *api, QWidget *window)
    : QObject(window)
    , api(api)
    , window(window)
{ }

QString PublishFlow::scriptsDirectory(const SettingsManager *settings)
{
    const QString lastWorking = settings ? settings->getPluginValue(QStringLiteral("FileExplorer"),
                                                                    QStringLiteral("lastWorkingDirectory"))
                                                   .toString()
                                         : QString();
    if (!lastWorking.isEmpty() && QFileInfo(lastWorking).isDir())
        return QFileInfo(lastWorking).absoluteFilePath();

    QDir base(QCoreApplication::applicationDirPath());
    if (base.dirName() == QLatin1String("lib"))
        base.cdUp();
    base.mkpath(QStringLiteral("scripts"));
    return base.absoluteFilePath(QStringLiteral("scripts"));
}

void PublishFlow::start(const QString &presetPath, const QString &startDirectory, const QString &authorName,
                        bool proceedAfterCheck)
{
    auto *selection = new ScriptSelectionDialog(api, window);
    selection->setAttribute(Qt::WA_DeleteOnClose);
    selection->setStartDirectory(startDirectory);
    selection->presetPath(presetPath);
    connect(selection, &QDialog::accepted, this, [this, selection, authorName] {
        openForm(selection->selectedPath(), selection->existingRecord(), authorName);
    });
    if (proceedAfterCheck) {
        connect(selection, &ScriptSelectionDialog::checkCompleted, selection, [selection] {
            // A failed check leaves Next disabled; the selection then stays on screen with its message.
            if (selection->findChild<QPushButton *>(QStringLiteral("proceedButton"))->isEnabled())
                selection->onProceedClicked();
        });
    }
    selection->open();
}

void PublishFlow::openForm(const QString &path, const QJsonObject &existingRecord, const QString &authorName)
{
    auto *form = new UploadDialog(window);
    form->setAttribute(Qt::WA_DeleteOnClose);
    form->setApi(api);
    form->setAuthorName(authorName);
    form->setFile(path);
    if (!existingRecord.isEmpty())
        form->setExistingRecord(existingRecord);
    connect(form, &UploadDialog::uploadCompleted, this, &PublishFlow::published);
    form->open();
}

} // namespace Quorix
