#include "WeightsDownloadFlow.h"

#include "DownloadMessageBox.h"
#include "DownloadProgressDialog.h"
#include "WeightsLibrary.h"
#include "api/OnlineResourcesAPI.h"
#include "core/ResourceRecord.h"

#include <QDateTime>
#include <QDir>
#include <QFileInfo>

namespace Quorix {

namespace {

const QString weightsTagPrefix = QStringLiteral("downloadWeights:");

} // namespace

WeightsDownloadFlow::WeightsDownloadFlow(QWidget *page, OnlineResourcesAPI *api)
    : QObject(page)
    , page(page)
    , api(api)
{
    connect(api, &OnlineResourcesAPI::downloadProgress, this, &WeightsDownloadFlow::onDownloadProgress);
    connect(api, &OnlineResourcesAPI::downloadFailed, this, &WeightsDownloadFlow::onDownloadFailed);
}

void WeightsDownloadFlow::start(const QString &uuid, const QJsonObject &record)
{
    const QString existing = WeightsLibrary().existingFile(uuid);
    if (!existing.isEmpty() && !confirmReplacing(existing))
        return;
    pending.insert(uuid, record);
    if (!progress)
        progress = new DownloadProgressDialog(page);
    progress->begin(tr("Downloading ONNX weights..."));
    api->downloadWeights(uuid);
}

bool WeightsDownloadFlow::confirmReplacing(const QString &existingPath)
{
    DownloadMessageBox box(QMessageBox::Question, tr("File Already Exists"),
                           tr("These weights already exist locally:\n%1\n\nSize: %2")
                                   .arg(QDir::toNativeSeparators(existingPath),
                                        ResourceRecord::fileSize(QFileInfo(existingPath).size())),
                           QMessageBox::Yes | QMessageBox::No, page, QStringLiteral("weightsExistBox"));
    box.setInformativeText(tr("Would you like to download again and replace it?"));
    box.setDefaultButton(QMessageBox::No);
    return box.exec() == QMessageBox::Yes;
}

void WeightsDownloadFlow::onDownloadProgress(qint64 bytesReceived, qint64 bytesTotal)
{
    if (progress && !pending.isEmpty())
        progress->showProgress(bytesReceived, bytesTotal);
}

void WeightsDownloadFlow::onDownloadFailed(const QString &tag, const QString &error)
{
    if (!tag.startsWith(weightsTagPrefix) || !pending.remove(tag.mid(weightsTagPrefix.size())))
        return;
    if (pending.isEmpty() && progress)
        progress->finish();
    // Shown from the event loop: a box's nested loop must not run inside the API client's signal.
    QMetaObject::invokeMethod(
            this,
            [this, error] {
                DownloadMessageBox box(QMessageBox::Critical, tr("Download Failed"), error, QMessageBox::Ok, page,
                                       QStringLiteral("weightsDownloadFailedBox"));
                box.exec();
            },
            Qt::QueuedConnection);
}

void WeightsDownloadFlow::save(const QString &filePath, const QString &uuid)
{
    QMetaObject::invokeMethod(
            this, [this, filePath, uuid] { saveNow(filePath, uuid); }, Qt::QueuedConnection);
}

void WeightsDownloadFlow::saveNow(const QString &filePath, const QString &uuid)
{
    const QJsonObject record = pending.take(uuid);
    if (pending.isEmpty() && progress)
        progress->finish();
    const WeightsLibrary library;
    library.removeOtherCopies(uuid, filePath);
    library.record(uuid, WeightsLibrary::entryFor(record, QFileInfo(filePath).size(), QDateTime::currentDateTimeUtc()));
    emit weightsSaved(uuid, filePath);

    DownloadMessageBox box(QMessageBox::Information, tr("Download Complete"), tr("ONNX weights saved"), QMessageBox::Ok,
                           page, QStringLiteral("weightsSavedBox"));
    box.setInformativeText(QDir::toNativeSeparators(filePath));
    box.exec();
}

} // namespace Quorix
