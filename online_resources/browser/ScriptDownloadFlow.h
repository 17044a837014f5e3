#pragma once

#include <QObject>
#include <QString>

#include <functional>
#include <memory>

class QFileInfo;
class QTemporaryDir;
class QWidget;

namespace Quorix {

class DownloadProgressDialog;
class OnlineResourcesAPI;
class PluginHost;
class SettingsManager;

// A script from the catalogue into the scripts directory: the progress dialog, the choice when a file of that name is
// already there, the move of the downloaded file into place and the hand-off to the host plugin that shows it.
class ScriptDownloadFlow : public QObject
{
    Q_OBJECT

public:
    using HostSource = std::function<PluginHost *()>;
    using SettingsSource = std::function<const SettingsManager *()>;

    // The page lends its host and settings as they are at the moment a file arrives.
    ScriptDownloadFlow(QWidget *page, OnlineResourcesAPI *api, HostSource host, SettingsSource settings);
    ~ScriptDownloadFlow() override;

    void start(const QString &scriptId);
    void showProgress(qint64 bytesReceived, qint64 bytesTotal);
    // The API client has written the script under its own name into this flow's temporary folder. Runs from the
    // event loop, after the caller has returned.
    void place(const QString &temporaryFilePath);

    // The host plugin that shows files with this suffix ("GPC 3", "CV Python"), empty for none.
    static QString viewerPluginFor(const QString &suffix);

signals:
    void scriptSaved(const QString &filePath);

private:
    enum class Choice { Replace, SaveAsCopy, Cancel };

    QString temporaryDirectory();
    void placeNow(const QString &temporaryFilePath);
    Choice askAboutExistingFile(const QString &fileName, const QString &directory, const QString &baseName,
                                qsizetype count);
    static qsizetype copyCount(const QString &directory, const QFileInfo &file);
    static bool moveInto(const QString &from, const QString &to);
    void handOff(const QString &filePath);
    void onDownloadFailed(const QString &tag);

    QWidget *page;
    OnlineResourcesAPI *api;
    HostSource host;
    SettingsSource settings;
    DownloadProgressDialog *progress = nullptr;
    std::unique_ptr<QTemporaryDir> temporary;
    QString pendingDownloadId;
};

} // namespace Quorix
