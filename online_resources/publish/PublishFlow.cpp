#include "PublishFlow.h"

#include "ScriptSelectionDialog.h"
#include "UploadDialog.h"
#include "browser/ScriptsDirectory.h"

#include <SettingsManager.h>

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
    // Publishing starts where downloads land, so one rule serves both.
    return ScriptsDirectory::resolve(settings);
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
