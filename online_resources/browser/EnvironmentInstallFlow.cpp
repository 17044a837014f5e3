#include "EnvironmentInstallFlow.h"

#include "DownloadMessageBox.h"
#include "DownloadProgressDialog.h"
#include "api/OnlineResourcesAPI.h"
#include "pyenv/PythonEnvironmentManager.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStandardPaths>
#include <QTemporaryDir>

namespace Quorix {

namespace {

constexpr int longestProgressLine = 100;

// The last line of uv's output that says something, short enough for a dialog label.
QString lastMeaningfulLine(const QString &output)
{
    const QStringList lines = output.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    for (auto it = lines.crbegin(); it != lines.crend(); ++it) {
        const QString line = it->trimmed();
        if (!line.isEmpty())
            return line.size() > longestProgressLine ? line.left(longestProgressLine - 1) + QChar(0x2026) : line;
    }
    return {};
}

} // namespace

EnvironmentInstallFlow::EnvironmentInstallFlow(QWidget *page, OnlineResourcesAPI *api)
    : QObject(page)
    , page(page)
    , api(api)
{
    connect(api, &OnlineResourcesAPI::downloadProgress, this, &EnvironmentInstallFlow::onDownloadProgress);
    connect(api, &OnlineResourcesAPI::downloadFailed, this, &EnvironmentInstallFlow::onDownloadFailed);
}

EnvironmentInstallFlow::~EnvironmentInstallFlow() = default;

bool EnvironmentInstallFlow::isBusy() const
{
    return stage != Stage::Idle;
}

void EnvironmentInstallFlow::start(const QString &envId)
{
    // One install at a time: the manager does not order overlapping operations.
    if (isBusy())
        return;
    downloads = std::make_unique<QTemporaryDir>();
    const QString directory
            = downloads->isValid() ? downloads->path() : QStandardPaths::writableLocation(QStandardPaths::TempLocation);
    stage = Stage::Downloading;
    progressDialog()->begin(tr("Downloading environment..."));
    api->downloadEnvironment(envId, directory);
}

void EnvironmentInstallFlow::onDownloadProgress(qint64 bytesReceived, qint64 bytesTotal)
{
    if (stage == Stage::Downloading)
        progress->showProgress(bytesReceived, bytesTotal);
}

void EnvironmentInstallFlow::onDownloadFailed(const QString &tag)
{
    if (stage != Stage::Downloading || !tag.startsWith(QLatin1String("downloadEnv:")))
        return;
    progress->finish();
    QMetaObject::invokeMethod(
            this,
            [this] {
                showError(tr("Download Failed"), tr("Failed to download environment file."));
                end(false);
            },
            Qt::QueuedConnection);
}

void EnvironmentInstallFlow::install(const QString &downloadedPath)
{
    // Questions and messages run nested event loops, which must not happen inside the API client's signal.
    QMetaObject::invokeMethod(
            this, [this, downloadedPath] { installNow(downloadedPath); }, Qt::QueuedConnection);
}

void EnvironmentInstallFlow::installNow(const QString &downloadedPath)
{
    if (progress)
        progress->finish();
    if (stage != Stage::Idle && stage != Stage::Downloading)
        return;
    stage = Stage::Downloading;
    packagePath = downloadedPath;
    environmentName = readPackageName(downloadedPath);
    if (environmentName.isEmpty()) {
        end(false);
        return;
    }
    if (!manager)
        manager = PythonEnvironmentManager::instance();
    if (!QFileInfo::exists(manager->environmentPath(environmentName))) {
        runManagerWithUv(Stage::Importing);
        return;
    }
    if (!confirmReplacing(environmentName)) {
        end(false);
        return;
    }
    runManagerWithUv(Stage::Removing);
}

QString EnvironmentInstallFlow::readPackageName(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly) || file.size() > maximumPackageSize) {
        showError(tr("Error"), tr("Failed to read environment file."));
        return {};
    }
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll(), &parseError);
    const QJsonValue name = document.object().value(QLatin1String("name"));
    if (parseError.error != QJsonParseError::NoError || !document.isObject()
        || (name.isString() && !name.toString().isEmpty()
            && !PythonEnvironmentManager::isValidEnvironmentName(name.toString()))) {
        showError(tr("Error"), tr("Invalid environment file format."));
        return {};
    }
    if (name.toString().isEmpty()) {
        showError(tr("Error"), tr("Environment file missing name."));
        return {};
    }
    return name.toString();
}

bool EnvironmentInstallFlow::confirmReplacing(const QString &name)
{
    DownloadMessageBox box(QMessageBox::Warning, tr("Replace Environment"),
                           tr("An environment named '%1' already exists.\n\nDo you want to replace it?").arg(name),
                           QMessageBox::Yes | QMessageBox::No, page, QStringLiteral("replaceEnvironmentBox"));
    box.setDefaultButton(QMessageBox::No);
    return box.exec() == QMessageBox::Yes;
}

void EnvironmentInstallFlow::runManagerWithUv(Stage next)
{
    if (manager->isUvInstalled()) {
        runManager(next);
        return;
    }
    stage = Stage::PreparingUv;
    progressDialog()->begin(tr("Downloading UV package manager..."));
    connect(manager, &PythonEnvironmentManager::uvDownloadProgress, progress, &DownloadProgressDialog::showProgress);
    // The environment window may be fetching uv at the same time; the manager answers each caller, and one answer
    // is enough here.
    connect(manager, &PythonEnvironmentManager::uvDownloadFinished, this,
            [this, next](bool success, const QString &error) { onUvDownloadFinished(next, success, error); });
    manager->downloadUv();
}

void EnvironmentInstallFlow::onUvDownloadFinished(Stage next, bool success, const QString &error)
{
    disconnect(manager, nullptr, this, nullptr);
    disconnect(manager, nullptr, progress, nullptr);
    if (success) {
        runManager(next);
        return;
    }
    progress->finish();
    QMetaObject::invokeMethod(
            this,
            [this, error] {
                showError(tr("Installation Failed"), tr("Failed to install UV: %1").arg(error));
                end(false);
            },
            Qt::QueuedConnection);
}

void EnvironmentInstallFlow::runManager(Stage next)
{
    stage = next;
    operationText.clear();
    progressDialog()->begin(next == Stage::Removing ? tr("Replacing environment '%1'...").arg(environmentName)
                                                    : tr("Installing environment '%1'...").arg(environmentName));
    progress->showBusy(progress->labelText());
    // Connected only while this flow drives the manager, so the environment dialog's own operations pass it by.
    connect(manager, &PythonEnvironmentManager::operationStarted, this, &EnvironmentInstallFlow::onOperationStarted,
            Qt::UniqueConnection);
    connect(manager, &PythonEnvironmentManager::operationProgress, this, &EnvironmentInstallFlow::onOperationProgress,
            Qt::UniqueConnection);
    connect(manager, &PythonEnvironmentManager::operationFinished, this, &EnvironmentInstallFlow::onOperationFinished,
            Qt::UniqueConnection);
    if (next == Stage::Removing)
        manager->deleteEnvironmentAsync(environmentName);
    else
        manager->createFromQenv(packagePath);
}

// A package handed over without a download of this flow's own (another client, a test) needs the dialog too.
DownloadProgressDialog *EnvironmentInstallFlow::progressDialog()
{
    if (!progress)
        progress = new DownloadProgressDialog(page);
    return progress;
}

void EnvironmentInstallFlow::onOperationStarted(const QString &operation)
{
    operationText = operation;
    progress->showBusy(operation);
}

void EnvironmentInstallFlow::onOperationProgress(const QString &output)
{
    const QString line = lastMeaningfulLine(output);
    if (!line.isEmpty())
        progress->showBusy(operationText.isEmpty() ? line : operationText + QLatin1Char('\n') + line);
}

void EnvironmentInstallFlow::onOperationFinished(bool success, const QString &error)
{
    if (stage == Stage::Removing && success) {
        runManager(Stage::Importing);
        return;
    }
    disconnect(manager, nullptr, this, nullptr);
    progress->finish();
    // The closing box waits for the user; the manager's signal returns first.
    QMetaObject::invokeMethod(
            this, [this, success, error] { showOutcome(success, error); }, Qt::QueuedConnection);
}

void EnvironmentInstallFlow::showOutcome(bool success, const QString &error)
{
    if (success) {
        DownloadMessageBox box(QMessageBox::Information, tr("Environment Installed"),
                               tr("The environment '%1' has been installed.").arg(environmentName), QMessageBox::Ok,
                               page, QStringLiteral("environmentInstalledBox"));
        box.exec();
    } else {
        showError(tr("Installation Failed"), error);
    }
    end(success);
}

void EnvironmentInstallFlow::showError(const QString &title, const QString &text)
{
    DownloadMessageBox box(QMessageBox::Critical, title, text, QMessageBox::Ok, page,
                           QStringLiteral("environmentErrorBox"));
    box.exec();
}

void EnvironmentInstallFlow::end(bool installed)
{
    const QString name = environmentName;
    stage = Stage::Idle;
    downloads.reset();
    packagePath.clear();
    environmentName.clear();
    emit finished(installed, name);
}

} // namespace Quorix
