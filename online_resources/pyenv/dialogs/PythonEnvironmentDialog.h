#pragma once

#include "pyenv/PythonEnvironmentManager.h"

#include <QDialog>
#include <QFutureWatcher>
#include <QList>

class QGroupBox;
class QLabel;
class QListWidget;
class QPlainTextEdit;
class QProgressBar;
class QPushButton;
class QTableWidget;

namespace Quorix {

// The window in which the user manages local Python environments and their packages and picks the one the host
// runs. Every action is a call on the environment manager and every update comes from its signals. The manager's
// signals do not say which operation they belong to, so the window starts one operation at a time and keeps the
// buttons that would start another disabled until it has finished.
class PythonEnvironmentDialog : public QDialog
{
    Q_OBJECT

public:
    explicit PythonEnvironmentDialog(PythonEnvironmentManager *manager, QWidget *parent = nullptr);

    // The environment whose details are shown; empty when none is selected.
    QString selectedEnvironment() const;
    // Writes the environment's interpreter as the host's "pythonPath"; false when the settings file cannot be written.
    bool setCurrentEnvironment(const QString &name);

protected:
    void showEvent(QShowEvent *event) override;

private Q_SLOTS:
    void onUvDownloadProgress(qint64 bytesReceived, qint64 bytesTotal);
    void onUvDownloadFinished(bool success, const QString &error);
    void onEnvironmentsChanged();
    void onEnvironmentSelectionChanged();
    void onPackagesChanged(const QString &envName);
    void onPackagesLoaded(const QList<Quorix::PythonEnvironmentManager::Package> &packages);
    void onOperationStarted(const QString &operation);
    void onOperationProgress(const QString &output);
    void onOperationFinished(bool success, const QString &error);
    void onNewClicked();
    void onDeleteClicked();
    void onSetCurrentClicked();
    void onInstallClicked();
    void onUninstallClicked();
    void onUpdateClicked();
    void onViewRequirementsClicked();
    void onImportRequirementsClicked();
    void onSyncClicked();
    void onLogToggled();
    void onSelectClicked();

private:
    void buildLayout();
    QWidget *buildEnvironmentsGroup();
    QWidget *buildDetailsPane();
    void connectManager();
    void startSetup();
    void refreshEnvironments();
    void showEnvironments(const QList<PythonEnvironmentManager::Environment> &found);
    void requestPackages(const QString &name);
    void showLoadingPackages();
    void updateDetails();
    void updateButtons();
    void beginOperation(const QString &envName);
    void setStatus(const QString &text);
    void appendLog(const QString &text);
    QStringList selectedPackages() const;
    const PythonEnvironmentManager::Environment *environment(const QString &name) const;
    QString requirementsFile(const QString &name) const;

    PythonEnvironmentManager *manager;
    QList<PythonEnvironmentManager::Environment> environments;
    QFutureWatcher<QList<PythonEnvironmentManager::Environment>> environmentScan;
    bool rescanWanted = false;
    bool setupStarted = false;
    bool uvReady = false;
    bool operationRunning = false;
    bool removalShown = false;
    QString operationEnvironment;
    QString createdEnvironment;
    QString listingEnvironment;
    QString wantedListing;

    QLabel *statusLabel = nullptr;
    QProgressBar *progressBar = nullptr;
    QLabel *progressDetailLabel = nullptr;
    QListWidget *environmentList = nullptr;
    QPushButton *newButton = nullptr;
    QPushButton *deleteButton = nullptr;
    QLabel *detailsLabel = nullptr;
    QPushButton *setCurrentButton = nullptr;
    QTableWidget *packageTable = nullptr;
    QPushButton *installButton = nullptr;
    QPushButton *uninstallButton = nullptr;
    QPushButton *updateButton = nullptr;
    QPushButton *viewRequirementsButton = nullptr;
    QPushButton *importButton = nullptr;
    QPushButton *syncButton = nullptr;
    QPushButton *logToggleButton = nullptr;
    QPlainTextEdit *logView = nullptr;
    QPushButton *selectButton = nullptr;
    QPushButton *closeButton = nullptr;
};

} // namespace Quorix
