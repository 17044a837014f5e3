#include "ScriptDownloadFlow.h"

#include "DownloadMessageBox.h"
#include "DownloadProgressDialog.h"
#include "ScriptsDirectory.h"
#include "api/OnlineResourcesAPI.h"

#include <FileOpener.h>
#include <PluginHost.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QPushButton>
#include <QStandardPaths>
#include <QTemporaryDir>

namespace Quorix {

ScriptDownloadFlow::ScriptDownloadFlow(QWidget *page, OnlineResourcesAPI *api, HostSource host, SettingsSource settings)
    : QObject(page)
    , page(page)
    , api(api)
    , host(std::move(host))
    , settings(std::move(settings))
{
    connect(api, &OnlineResourcesAPI::downloadFailed, this, &ScriptDownloadFlow::onDownloadFailed);
}

ScriptDownloadFlow::~ScriptDownloadFlow() = default;

void ScriptDownloadFlow::start(const QString &scriptId)
{
    pendingDownloadId = scriptId;
    if (!progress)
        progress = new DownloadProgressDialog(page);
    progress->begin(tr("Downloading..."));
    api->downloadScript(scriptId, temporaryDirectory());
}

void ScriptDownloadFlow::showProgress(qint64 bytesReceived, qint64 bytesTotal)
{
    if (progress)
        progress->showProgress(bytesReceived, bytesTotal);
}

QString ScriptDownloadFlow::temporaryDirectory()
{
    // A folder of our own, so the server's file name never meets an unrelated file in the shared temporary folder.
    if (!temporary || !temporary->isValid())
        temporary = std::make_unique<QTemporaryDir>();
    return temporary->isValid() ? temporary->path() : QStandardPaths::writableLocation(QStandardPaths::TempLocation);
}

void ScriptDownloadFlow::onDownloadFailed(const QString &tag)
{
    if (tag.startsWith(QLatin1String("download:")) && progress)
        progress->finish();
}

void ScriptDownloadFlow::place(const QString &temporaryFilePath)
{
    // The question may run a nested event loop, which must not happen inside the API client's signal.
    QMetaObject::invokeMethod(
            this, [this, temporaryFilePath] { placeNow(temporaryFilePath); }, Qt::QueuedConnection);
}

void ScriptDownloadFlow::placeNow(const QString &temporaryFilePath)
{
    if (progress)
        progress->finish();
    if (temporaryFilePath.isEmpty() || !QFileInfo::exists(temporaryFilePath))
        return;

    const QString directory = ScriptsDirectory::resolve(settings());
    const QString fileName = QFileInfo(temporaryFilePath).fileName();
    QString target = directory + QLatin1Char('/') + fileName;
    if (QFileInfo::exists(target)) {
        const QFileInfo file(fileName);
        const qsizetype count = copyCount(directory, file);
        switch (askAboutExistingFile(fileName, directory, file.completeBaseName(), count)) {
        case Choice::Cancel:
            QFile::remove(temporaryFilePath);
            return;
        case Choice::Replace:
            QFile::remove(target);
            break;
        case Choice::SaveAsCopy:
            target = QStringLiteral("%1/%2_%3.%4")
                             .arg(directory, file.completeBaseName())
                             .arg(count)
                             .arg(file.suffix());
            break;
        }
    }
    if (!moveInto(temporaryFilePath, target)) {
        // The copy it might have become is not worth keeping where nobody will look for it.
        QFile::remove(temporaryFilePath);
        return;
    }
    handOff(target);
    emit scriptSaved(target);
}

// The proposal counts the earlier copies and uses that count as the number, even when a copy of that number is
// already there; such a taken name makes the move fail, and the flow ends quietly.
qsizetype ScriptDownloadFlow::copyCount(const QString &directory, const QFileInfo &file)
{
    const QString pattern = QStringLiteral("%1_*.%2").arg(file.completeBaseName(), file.suffix());
    return QDir(directory).entryList({pattern}, QDir::Files, QDir::Unsorted).size();
}

ScriptDownloadFlow::Choice ScriptDownloadFlow::askAboutExistingFile(const QString &fileName, const QString &directory,
                                                                    const QString &baseName, qsizetype count)
{
    DownloadMessageBox box(
            QMessageBox::Question, tr("File Already Exists"),
            tr("The script '%1' already exists in %2.").arg(fileName, QDir::toNativeSeparators(directory)),
            QMessageBox::NoButton, page, QStringLiteral("fileExistsBox"));
    box.setInformativeText(tr("What would you like to do?"));
    // One role for all three keeps them in this order on every platform's button layout.
    QPushButton *replace = box.addButton(tr("Replace"), QMessageBox::ActionRole);
    QPushButton *saveAs = box.addButton(tr("Save as %1_%2").arg(baseName).arg(count), QMessageBox::ActionRole);
    QPushButton *cancel = box.addButton(tr("Cancel"), QMessageBox::ActionRole);
    replace->setObjectName(QStringLiteral("replaceButton"));
    saveAs->setObjectName(QStringLiteral("saveAsButton"));
    cancel->setObjectName(QStringLiteral("cancelButton"));
    box.setDefaultButton(saveAs);
    box.setEscapeButton(cancel);
    box.exec();
    if (box.clickedButton() == replace)
        return Choice::Replace;
    if (box.clickedButton() == saveAs)
        return Choice::SaveAsCopy;
    return Choice::Cancel;
}

bool ScriptDownloadFlow::moveInto(const QString &from, const QString &to)
{
    if (QFile::rename(from, to))
        return true;
    if (!QFile::copy(from, to))
        return false;
    QFile::remove(from);
    return true;
}

QString ScriptDownloadFlow::viewerPluginFor(const QString &suffix)
{
    const QString lower = suffix.toLower();
    if (lower == QLatin1String("py"))
        return QStringLiteral("CV Python");
    if (lower == QLatin1String("gpc3") || lower == QLatin1String("gbc3"))
        return QStringLiteral("GPC 3");
    return {};
}

void ScriptDownloadFlow::handOff(const QString &filePath)
{
    const QString pluginName = viewerPluginFor(QFileInfo(filePath).suffix());
    PluginHost *pluginHost = host();
    if (pluginName.isEmpty() || !pluginHost)
        return;
    FileOpener::openFile(pluginHost->getPlugin(pluginName), filePath);
}

} // namespace Quorix
