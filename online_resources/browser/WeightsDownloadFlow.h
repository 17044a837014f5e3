#pragma once

#include <QHash>
#include <QJsonObject>
#include <QObject>
#include <QString>

class QWidget;

namespace Quorix {

class DownloadProgressDialog;
class OnlineResourcesAPI;

// Weights from the catalogue into the local weights library: the question when they are already there, the
// progress, the manifest entry and the closing message.
class WeightsDownloadFlow : public QObject
{
    Q_OBJECT

public:
    WeightsDownloadFlow(QWidget *page, OnlineResourcesAPI *api);

    // record is the catalogue record the manifest entry is made from; it may be empty when the page no longer has it.
    void start(const QString &uuid, const QJsonObject &record);
    // Records and announces weights the API client has saved. Runs from the event loop, after the caller has returned.
    void save(const QString &filePath, const QString &uuid);

signals:
    void weightsSaved(const QString &uuid, const QString &filePath);

private:
    void saveNow(const QString &filePath, const QString &uuid);
    bool confirmReplacing(const QString &existingPath);
    void onDownloadProgress(qint64 bytesReceived, qint64 bytesTotal);
    void onDownloadFailed(const QString &tag, const QString &error);

    QWidget *page;
    OnlineResourcesAPI *api;
    DownloadProgressDialog *progress = nullptr;
    // Records of the downloads in flight, by UUID.
    QHash<QString, QJsonObject> pending;
};

} // namespace Quorix
