#pragma once

#include <QObject>
#include <QString>

#include <memory>

class QTemporaryDir;
class QWidget;

namespace Quorix {

class DownloadProgressDialog;
class OnlineResourcesAPI;
class PythonEnvironmentManager;

// An environment package from the catalogue to a local Python environment: the download, the checks of the
// package, the question before an environment of that name is replaced, uv fetched first when this machine has none
// yet, and the environment manager's import with its progress shown until one closing message.
class EnvironmentInstallFlow : public QObject
{
    Q_OBJECT

public:
    EnvironmentInstallFlow(QWidget *page, OnlineResourcesAPI *api);
    ~EnvironmentInstallFlow() override;

    // Packages larger than this are refused unread; a real one is a few kilobytes of JSON.
    static constexpr qint64 maximumPackageSize = 10 * 1024 * 1024;

    void start(const QString &envId);
    // Checks a downloaded package and hands it to the environment manager. Runs from the event loop, after the caller
    // has returned.
    void install(const QString &packagePath);
    bool isBusy() const;

signals:
    // The flow has shown its last message.
    void finished(bool installed, const QString &environmentName);

private:
    enum class Stage { Idle, Downloading, PreparingUv, Removing, Importing };

    void onDownloadProgress(qint64 bytesReceived, qint64 bytesTotal);
    void onDownloadFailed(const QString &tag);
    // The package's environment name, or empty after telling the user why the package cannot be used.
    QString readPackageName(const QString &packagePath);
    bool confirmReplacing(const QString &name);
    // Runs the manager's first step once uv is there, so a failed uv download leaves an existing environment alone.
    void runManagerWithUv(Stage next);
    void onUvDownloadFinished(Stage next, bool success, const QString &error);
    void runManager(Stage stage);
    DownloadProgressDialog *progressDialog();
    void onOperationStarted(const QString &operation);
    void onOperationProgress(const QString &output);
    void onOperationFinished(bool success, const QString &error);
    void showOutcome(bool success, const QString &error);
    void installNow(const QString &packagePath);
    void showError(const QString &title, const QString &text);
    void end(bool installed);

    QWidget *page;
    OnlineResourcesAPI *api;
    PythonEnvironmentManager *manager = nullptr;
    DownloadProgressDialog *progress = nullptr;
    std::unique_ptr<QTemporaryDir> downloads;
    Stage stage = Stage::Idle;
    QString packagePath;
    QString environmentName;
    QString operationText;
};

} // namespace Quorix
