#pragma once

#include "pyenv/PlatformProfile.h"

#include <QList>
#include <QMetaType>
#include <QNetworkAccessManager>
#include <QObject>
#include <QString>
#include <QStringList>

#include <functional>
#include <optional>

namespace Quorix {

// Keeps a private copy of uv and drives it to create, replace and delete Python virtual environments under the
// application's data folder and to manage their packages. Everything is reported through signals on the GUI thread;
// each operation ends with exactly one operationFinished.
class PythonEnvironmentManager : public QObject
{
    Q_OBJECT

public:
    struct Package
    {
        QString name;
        QString version;
    };

    struct Environment
    {
        QString name;
        QString path;
        QString pythonPath;
        bool pythonExists = false;
        QString pythonVersion;
    };

    static PythonEnvironmentManager *instance();

    const PlatformProfile &profile() const;
    QString baseFolder() const;
    QString uvPath() const;
    QString environmentPath(const QString &name) const;
    QString pythonPath(const QString &name) const;

    bool isUvInstalled() const;
    QList<Environment> environments() const;
    // The interpreter's "Python x.y.z" version without the prefix; empty when it cannot be told.
    QString pythonVersion(const QString &interpreter) const;
    QStringList extraIndexUrls(const QString &environmentFolder) const;

    // Whether a name can be an environment folder without escaping or breaking the base folder.
    static bool isValidEnvironmentName(const QString &name);
    // Whether uv will read the text as a package and not as one of its options.
    static bool isPackageArgument(const QString &spec);
    // Turns uv's raw output into an explanation for the user, or returns it as it is when nothing is recognised.
    static QString classifyOutput(const QString &output);

    Q_INVOKABLE void downloadUv();
    Q_INVOKABLE void createEnvironment(const QString &name, const QString &pythonVersion,
                                       const QString &requirementsPath);
    Q_INVOKABLE void createFromQenv(const QString &qenvFilePath);
    Q_INVOKABLE bool deleteEnvironment(const QString &name);
    Q_INVOKABLE void deleteEnvironmentAsync(const QString &name);
    Q_INVOKABLE void replaceEnvironmentAsync(const QString &name, const QString &pythonVersion,
                                             const QString &requirementsPath);
    Q_INVOKABLE void syncEnvironment(const QString &name);
    Q_INVOKABLE void installPackage(const QString &envName, const QString &packageSpec);
    Q_INVOKABLE void installPackages(const QString &envName, const QStringList &packageSpecs);
    Q_INVOKABLE void uninstallPackage(const QString &envName, const QString &packageName);
    Q_INVOKABLE void uninstallPackages(const QString &envName, const QStringList &packageNames);
    Q_INVOKABLE void updatePackage(const QString &envName, const QString &packageName);
    Q_INVOKABLE QList<Quorix::PythonEnvironmentManager::Package> listPackages(const QString &envName);
    // The same listing without blocking: packagesLoaded follows once uv has answered, an empty list on failure.
    Q_INVOKABLE void listPackagesAsync(const QString &envName);

signals:
    void uvDownloadProgress(qint64 bytesReceived, qint64 bytesTotal);
    void uvDownloadFinished(bool success, const QString &error);
    void environmentCreated(const QString &name);
    void environmentDeleted(const QString &name);
    void packagesChanged(const QString &envName);
    void packagesLoaded(const QList<Quorix::PythonEnvironmentManager::Package> &packages);
    void operationStarted(const QString &operation);
    void operationProgress(const QString &output);
    void operationFinished(bool success, const QString &error);
    void deleteStarted(const QString &name);
    void deleteFinished(const QString &name, bool success);

private:
    struct ProcessResult
    {
        int exitCode = -1;
        bool normalExit = false;
        QString output;
        QString standardOutput;

        bool succeeded() const { return normalExit && exitCode == 0; }
    };
    using ProcessHandler = std::function<void(const ProcessResult &)>;

    explicit PythonEnvironmentManager(QObject *parent = nullptr);

    bool ensureUv();
    void runProcess(const PlatformProfile::Command &command, ProcessHandler handler);
    void startCurlFallback(const QString &url, const QString &downloadFile);
    void startExtraction(const QString &downloadFile);
    void finishDownload(bool success, const QString &error);

    void runCreate(const QString &name, const QString &pythonVersion, const QString &startedText,
                   std::function<bool()> placeRequirements, std::function<void()> discardRequirements);
    std::function<bool()> requirementsWriter(const QString &name, const QString &requirementsPath) const;
    void installRequirements(const QString &name, bool retry);
    void verifyImports(const QString &name, bool afterReinstall, int runsDone);
    bool checkPackageOperation(const QString &envName, const QStringList &arguments);
    void runPackageOperation(const QString &envName, const QString &startedText,
                             const PlatformProfile::Command &command);
    static QList<Package> parsePackageList(const QByteArray &json);
    void finishWithFailure(const QString &text, const ProcessResult &result);

    PlatformProfile platform;
    QNetworkAccessManager network;
    int pendingDownloadCalls = 0;
};

} // namespace Quorix

Q_DECLARE_METATYPE(Quorix::PythonEnvironmentManager::Package)
