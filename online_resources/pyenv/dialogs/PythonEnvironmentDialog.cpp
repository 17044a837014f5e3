#include "PythonEnvironmentDialog.h"

#include "CreateEnvironmentDialog.h"
#include "InstallPackageDialog.h"

#include <QDesktopServices>
#include <QDir>
#include <QFile>
#include <QFileDialog>
#include <QFileInfo>
#include <QFontDatabase>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QListWidget>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QSaveFile>
#include <QSettings>
#include <QSplitter>
#include <QTableWidget>
#include <QTextCursor>
#include <QUrl>
#include <QVBoxLayout>
#include <QtConcurrent/QtConcurrentRun>

namespace Quorix {

namespace {

constexpr int logLineLimit = 5000;

QString megabytes(qint64 bytes)
{
    return QString::number(double(bytes) / 1024.0 / 1024.0, 'f', 1);
}

bool askYesNo(QWidget *parent, QMessageBox::Icon icon, const QString &title, const QString &text)
{
    QMessageBox box(icon, title, text, QMessageBox::Yes | QMessageBox::No, parent);
    box.setDefaultButton(QMessageBox::No);
    return box.exec() == QMessageBox::Yes;
}

} // namespace

PythonEnvironmentDialog::PythonEnvironmentDialog(PythonEnvironmentManager *manager, QWidget *parent)
    : QDialog(parent)
    , manager(manager)
{
    setWindowTitle(tr("Python Environments"));
    resize(920, 640);
    buildLayout();
    connectManager();
    connect(&environmentScan, &QFutureWatcherBase::finished, this,
            [this] { showEnvironments(environmentScan.result()); });
    updateDetails();
    updateButtons();
}

void PythonEnvironmentDialog::buildLayout()
{
    auto *layout = new QVBoxLayout(this);

    statusLabel = new QLabel(this);
    statusLabel->setObjectName(QStringLiteral("statusLabel"));
    statusLabel->setWordWrap(true);
    statusLabel->setTextInteractionFlags(Qt::TextSelectableByMouse);
    statusLabel->hide();
    layout->addWidget(statusLabel);
    progressBar = new QProgressBar(this);
    progressBar->setObjectName(QStringLiteral("progressBar"));
    progressBar->hide();
    layout->addWidget(progressBar);
    progressDetailLabel = new QLabel(this);
    progressDetailLabel->setObjectName(QStringLiteral("progressDetailLabel"));
    progressDetailLabel->hide();
    layout->addWidget(progressDetailLabel);

    auto *splitter = new QSplitter(Qt::Horizontal, this);
    splitter->addWidget(buildEnvironmentsGroup());
    splitter->addWidget(buildDetailsPane());
    splitter->setStretchFactor(0, 1);
    splitter->setStretchFactor(1, 2);
    layout->addWidget(splitter, 1);

    // The log is made before its toggle so that Tab reaches it in reading order, above the bottom row.
    logView = new QPlainTextEdit(this);
    logView->setObjectName(QStringLiteral("logView"));
    logView->setAccessibleName(tr("Operation log"));
    logView->setReadOnly(true);
    logView->setMaximumBlockCount(logLineLimit);
    QFont logFont(QStringLiteral("Consolas"));
    logFont.setStyleHint(QFont::TypeWriter);
    logFont.setFamilies({QStringLiteral("Consolas"), QFontDatabase::systemFont(QFontDatabase::FixedFont).family()});
    logView->setFont(logFont);
    logView->setMinimumHeight(140);
    logView->hide();
    layout->addWidget(logView);

    logToggleButton = new QPushButton(tr("Show Details"), this);
    logToggleButton->setObjectName(QStringLiteral("logToggleButton"));
    auto *bottom = new QHBoxLayout;
    bottom->addWidget(logToggleButton);
    bottom->addStretch();
    selectButton = new QPushButton(tr("Select"), this);
    selectButton->setObjectName(QStringLiteral("selectButton"));
    closeButton = new QPushButton(tr("Close"), this);
    closeButton->setObjectName(QStringLiteral("closeButton"));
    bottom->addWidget(selectButton);
    bottom->addWidget(closeButton);
    layout->addLayout(bottom);

    // Enter in this window must never start an operation by itself; it only selects, which is what the window is for.
    for (QPushButton *button : findChildren<QPushButton *>())
        button->setAutoDefault(false);
    selectButton->setDefault(true);
    connect(logToggleButton, &QPushButton::clicked, this, &PythonEnvironmentDialog::onLogToggled);
    connect(selectButton, &QPushButton::clicked, this, &PythonEnvironmentDialog::onSelectClicked);
    connect(closeButton, &QPushButton::clicked, this, &QDialog::reject);
}

QWidget *PythonEnvironmentDialog::buildEnvironmentsGroup()
{
    auto *group = new QGroupBox(tr("Environments"), this);
    group->setObjectName(QStringLiteral("environmentsGroup"));
    auto *layout = new QVBoxLayout(group);
    environmentList = new QListWidget(group);
    environmentList->setObjectName(QStringLiteral("environmentList"));
    environmentList->setWordWrap(true);
    environmentList->setAccessibleName(tr("Environments"));
    layout->addWidget(environmentList, 1);
    auto *buttons = new QHBoxLayout;
    newButton = new QPushButton(tr("New"), group);
    newButton->setObjectName(QStringLiteral("newButton"));
    deleteButton = new QPushButton(tr("Delete"), group);
    deleteButton->setObjectName(QStringLiteral("deleteButton"));
    buttons->addWidget(newButton);
    buttons->addWidget(deleteButton);
    layout->addLayout(buttons);

    connect(environmentList, &QListWidget::itemSelectionChanged, this,
            &PythonEnvironmentDialog::onEnvironmentSelectionChanged);
    connect(newButton, &QPushButton::clicked, this, &PythonEnvironmentDialog::onNewClicked);
    connect(deleteButton, &QPushButton::clicked, this, &PythonEnvironmentDialog::onDeleteClicked);
    return group;
}

QWidget *PythonEnvironmentDialog::buildDetailsPane()
{
    auto *pane = new QWidget(this);
    auto *layout = new QVBoxLayout(pane);
    layout->setContentsMargins(0, 0, 0, 0);

    auto *detailsRow = new QHBoxLayout;
    detailsLabel = new QLabel(pane);
    detailsLabel->setObjectName(QStringLiteral("detailsLabel"));
    detailsLabel->setTextFormat(Qt::RichText);
    detailsLabel->setWordWrap(true);
    detailsLabel->setTextInteractionFlags(Qt::TextSelectableByMouse);
    detailsRow->addWidget(detailsLabel, 1);
    setCurrentButton = new QPushButton(tr("Set as Current Environment"), pane);
    setCurrentButton->setObjectName(QStringLiteral("setCurrentButton"));
    detailsRow->addWidget(setCurrentButton, 0, Qt::AlignTop);
    layout->addLayout(detailsRow);

    auto *packagesGroup = new QGroupBox(tr("Installed Packages"), pane);
    packagesGroup->setObjectName(QStringLiteral("packagesGroup"));
    auto *packagesLayout = new QVBoxLayout(packagesGroup);
    packageTable = new QTableWidget(0, 2, packagesGroup);
    packageTable->setObjectName(QStringLiteral("packageTable"));
    packageTable->setAccessibleName(tr("Installed packages"));
    packageTable->setHorizontalHeaderLabels({tr("Package"), tr("Version")});
    packageTable->horizontalHeader()->setSectionResizeMode(0, QHeaderView::Stretch);
    packageTable->horizontalHeader()->setSectionResizeMode(1, QHeaderView::Interactive);
    packageTable->setColumnWidth(1, 140);
    packageTable->verticalHeader()->hide();
    packageTable->verticalHeader()->setDefaultSectionSize(packageTable->fontMetrics().height() + 8);
    packageTable->setSelectionBehavior(QAbstractItemView::SelectRows);
    packageTable->setSelectionMode(QAbstractItemView::ExtendedSelection);
    packageTable->setEditTriggers(QAbstractItemView::NoEditTriggers);
    packagesLayout->addWidget(packageTable, 1);
    auto *packageButtons = new QHBoxLayout;
    installButton = new QPushButton(tr("Install Package..."), packagesGroup);
    installButton->setObjectName(QStringLiteral("installButton"));
    uninstallButton = new QPushButton(tr("Uninstall"), packagesGroup);
    uninstallButton->setObjectName(QStringLiteral("uninstallButton"));
    updateButton = new QPushButton(tr("Update"), packagesGroup);
    updateButton->setObjectName(QStringLiteral("updateButton"));
    packageButtons->addWidget(installButton);
    packageButtons->addWidget(uninstallButton);
    packageButtons->addWidget(updateButton);
    packageButtons->addStretch();
    packagesLayout->addLayout(packageButtons);
    layout->addWidget(packagesGroup, 1);

    auto *requirementsGroup = new QGroupBox(tr("Requirements"), pane);
    requirementsGroup->setObjectName(QStringLiteral("requirementsGroup"));
    auto *requirementsLayout = new QHBoxLayout(requirementsGroup);
    viewRequirementsButton = new QPushButton(tr("View/Edit"), requirementsGroup);
    viewRequirementsButton->setObjectName(QStringLiteral("viewRequirementsButton"));
    importButton = new QPushButton(tr("Import..."), requirementsGroup);
    importButton->setObjectName(QStringLiteral("importButton"));
    syncButton = new QPushButton(tr("Sync"), requirementsGroup);
    syncButton->setObjectName(QStringLiteral("syncButton"));
    requirementsLayout->addWidget(viewRequirementsButton);
    requirementsLayout->addWidget(importButton);
    requirementsLayout->addWidget(syncButton);
    requirementsLayout->addStretch();
    layout->addWidget(requirementsGroup);

    connect(setCurrentButton, &QPushButton::clicked, this, &PythonEnvironmentDialog::onSetCurrentClicked);
    connect(packageTable, &QTableWidget::itemSelectionChanged, this, &PythonEnvironmentDialog::updateButtons);
    connect(installButton, &QPushButton::clicked, this, &PythonEnvironmentDialog::onInstallClicked);
    connect(uninstallButton, &QPushButton::clicked, this, &PythonEnvironmentDialog::onUninstallClicked);
    connect(updateButton, &QPushButton::clicked, this, &PythonEnvironmentDialog::onUpdateClicked);
    connect(viewRequirementsButton, &QPushButton::clicked, this, &PythonEnvironmentDialog::onViewRequirementsClicked);
    connect(importButton, &QPushButton::clicked, this, &PythonEnvironmentDialog::onImportRequirementsClicked);
    connect(syncButton, &QPushButton::clicked, this, &PythonEnvironmentDialog::onSyncClicked);
    return pane;
}

void PythonEnvironmentDialog::connectManager()
{
    connect(manager, &PythonEnvironmentManager::uvDownloadProgress, this,
            &PythonEnvironmentDialog::onUvDownloadProgress);
    connect(manager, &PythonEnvironmentManager::uvDownloadFinished, this,
            &PythonEnvironmentDialog::onUvDownloadFinished);
    connect(manager, &PythonEnvironmentManager::environmentCreated, this,
            &PythonEnvironmentDialog::onEnvironmentsChanged);
    connect(manager, &PythonEnvironmentManager::environmentDeleted, this,
            &PythonEnvironmentDialog::onEnvironmentsChanged);
    connect(manager, &PythonEnvironmentManager::packagesChanged, this, &PythonEnvironmentDialog::onPackagesChanged);
    connect(manager, &PythonEnvironmentManager::packagesLoaded, this, &PythonEnvironmentDialog::onPackagesLoaded);
    connect(manager, &PythonEnvironmentManager::deleteFinished, this, [this] { removalShown = false; });
    connect(manager, &PythonEnvironmentManager::operationStarted, this, &PythonEnvironmentDialog::onOperationStarted);
    connect(manager, &PythonEnvironmentManager::operationProgress, this, &PythonEnvironmentDialog::onOperationProgress);
    connect(manager, &PythonEnvironmentManager::operationFinished, this, &PythonEnvironmentDialog::onOperationFinished);
}

void PythonEnvironmentDialog::showEvent(QShowEvent *event)
{
    QDialog::showEvent(event);
    if (!setupStarted) {
        setupStarted = true;
        startSetup();
    }
}

void PythonEnvironmentDialog::startSetup()
{
    setStatus(tr("Setting up Python environment manager..."));
    refreshEnvironments();
    if (manager->isUvInstalled()) {
        uvReady = true;
        setStatus(QString());
        updateButtons();
        return;
    }
    setStatus(tr("Downloading UV package manager..."));
    progressBar->setRange(0, 0);
    progressBar->show();
    updateButtons();
    manager->downloadUv();
}

void PythonEnvironmentDialog::onUvDownloadProgress(qint64 bytesReceived, qint64 bytesTotal)
{
    if (uvReady)
        return;
    if (bytesTotal <= 0) {
        setStatus(tr("Downloading UV..."));
        progressBar->setRange(0, 0);
        return;
    }
    const int percent = int(bytesReceived * 100 / bytesTotal);
    progressBar->setRange(0, 100);
    progressBar->setValue(qMin(percent, 100));
    if (percent >= 100)
        setStatus(tr("Extracting UV..."));
    progressDetailLabel->setText(
            tr("Downloading UV... %1 / %2 MB").arg(megabytes(bytesReceived), megabytes(bytesTotal)));
    progressDetailLabel->show();
}

void PythonEnvironmentDialog::onUvDownloadFinished(bool success, const QString &error)
{
    if (uvReady)
        return;
    progressBar->hide();
    progressDetailLabel->hide();
    if (!success) {
        setStatus(tr("Setup failed: %1").arg(error));
        updateButtons();
        return;
    }
    uvReady = true;
    setStatus(tr("UV installed successfully!"));
    updateButtons();
}

void PythonEnvironmentDialog::refreshEnvironments()
{
    // The listing asks every interpreter for its version; that stays off the GUI thread.
    if (environmentScan.isRunning()) {
        rescanWanted = true;
        return;
    }
    rescanWanted = false;
    const PythonEnvironmentManager *scanned = manager;
    environmentScan.setFuture(QtConcurrent::run([scanned] { return scanned->environments(); }));
}

void PythonEnvironmentDialog::showEnvironments(const QList<PythonEnvironmentManager::Environment> &found)
{
    if (rescanWanted) {
        refreshEnvironments();
        return;
    }
    const QString previous = selectedEnvironment();
    environments = found;
    const QSignalBlocker blocker(environmentList);
    environmentList->clear();
    if (environments.isEmpty()) {
        auto *empty = new QListWidgetItem(tr("No environments found. Click 'New' to create one."), environmentList);
        empty->setFlags(Qt::NoItemFlags);
    }
    int selectedRow = environments.isEmpty() ? -1 : 0;
    for (int row = 0; row < environments.size(); ++row) {
        auto *item = new QListWidgetItem(environments.at(row).name, environmentList);
        item->setData(Qt::UserRole, environments.at(row).name);
        if (environments.at(row).name == previous)
            selectedRow = row;
    }
    if (selectedRow >= 0)
        environmentList->setCurrentRow(selectedRow);
    onEnvironmentSelectionChanged();
}

void PythonEnvironmentDialog::onEnvironmentsChanged()
{
    refreshEnvironments();
}

QString PythonEnvironmentDialog::selectedEnvironment() const
{
    const QList<QListWidgetItem *> items = environmentList->selectedItems();
    return items.isEmpty() ? QString() : items.first()->data(Qt::UserRole).toString();
}

const PythonEnvironmentManager::Environment *PythonEnvironmentDialog::environment(const QString &name) const
{
    for (const PythonEnvironmentManager::Environment &candidate : environments) {
        if (candidate.name == name)
            return &candidate;
    }
    return nullptr;
}

void PythonEnvironmentDialog::onEnvironmentSelectionChanged()
{
    updateDetails();
    packageTable->setRowCount(0);
    const QString name = selectedEnvironment();
    if (!name.isEmpty())
        requestPackages(name);
    updateButtons();
}

void PythonEnvironmentDialog::updateDetails()
{
    const PythonEnvironmentManager::Environment *shown = environment(selectedEnvironment());
    if (!shown) {
        detailsLabel->setText(tr("Select an environment to view details"));
        return;
    }
    detailsLabel->setText(tr("<b>%1</b><br>Python: %2<br>Path: %3<br>Status: %4")
                                  .arg(shown->name.toHtmlEscaped(),
                                       shown->pythonVersion.isEmpty() ? tr("Unknown") : shown->pythonVersion,
                                       QDir::toNativeSeparators(shown->path).toHtmlEscaped(),
                                       shown->pythonExists ? tr("Ready") : tr("Invalid")));
}

void PythonEnvironmentDialog::requestPackages(const QString &name)
{
    showLoadingPackages();
    // One listing at a time, so a slow answer for an earlier selection can never fill the table of a later one.
    if (!listingEnvironment.isEmpty()) {
        wantedListing = name;
        return;
    }
    listingEnvironment = name;
    wantedListing.clear();
    manager->listPackagesAsync(name);
}

void PythonEnvironmentDialog::showLoadingPackages()
{
    packageTable->clearContents();
    packageTable->setRowCount(1);
    auto *loading = new QTableWidgetItem(tr("Loading packages..."));
    loading->setFlags(Qt::NoItemFlags);
    packageTable->setItem(0, 0, loading);
    packageTable->setSpan(0, 0, 1, 2);
}

void PythonEnvironmentDialog::onPackagesLoaded(const QList<PythonEnvironmentManager::Package> &packages)
{
    if (listingEnvironment.isEmpty())
        return;
    const QString listed = listingEnvironment;
    listingEnvironment.clear();
    if (!wantedListing.isEmpty() && wantedListing != listed) {
        requestPackages(wantedListing);
        return;
    }
    wantedListing.clear();
    if (listed != selectedEnvironment())
        return;
    packageTable->clearSpans();
    packageTable->clearContents();
    packageTable->setRowCount(int(packages.size()));
    for (int row = 0; row < packages.size(); ++row) {
        packageTable->setItem(row, 0, new QTableWidgetItem(packages.at(row).name));
        packageTable->setItem(row, 1, new QTableWidgetItem(packages.at(row).version));
    }
    updateButtons();
}

void PythonEnvironmentDialog::onPackagesChanged(const QString &envName)
{
    if (envName == selectedEnvironment())
        requestPackages(envName);
}

QStringList PythonEnvironmentDialog::selectedPackages() const
{
    QStringList names;
    const QModelIndexList rows = packageTable->selectionModel()->selectedRows(0);
    for (const QModelIndex &row : rows) {
        const QTableWidgetItem *item = packageTable->item(row.row(), 0);
        if (item && (item->flags() & Qt::ItemIsSelectable))
            names << item->text();
    }
    return names;
}

void PythonEnvironmentDialog::updateButtons()
{
    const QString name = selectedEnvironment();
    const PythonEnvironmentManager::Environment *shown = environment(name);
    const bool free = uvReady && !operationRunning;
    const bool editable = free && shown;
    const bool usable = shown && shown->pythonExists && !(operationRunning && operationEnvironment == name);
    const qsizetype packagesChosen = selectedPackages().size();
    newButton->setEnabled(free);
    deleteButton->setEnabled(editable);
    installButton->setEnabled(editable && shown->pythonExists);
    uninstallButton->setEnabled(editable && packagesChosen > 0);
    updateButton->setEnabled(editable && packagesChosen == 1);
    viewRequirementsButton->setEnabled(shown);
    importButton->setEnabled(editable);
    syncButton->setEnabled(editable);
    setCurrentButton->setEnabled(usable);
    selectButton->setEnabled(usable);
}

void PythonEnvironmentDialog::beginOperation(const QString &envName)
{
    // Set before the call: the manager may refuse at once and finish inside it.
    operationRunning = true;
    operationEnvironment = envName;
    progressBar->setRange(0, 0);
    progressBar->show();
    updateButtons();
}

void PythonEnvironmentDialog::onOperationStarted(const QString &operation)
{
    appendLog(operation);
    // "Removing ..." stays up while the old folder goes; that is the slow part a user waits for.
    if (!removalShown)
        setStatus(operation);
}

void PythonEnvironmentDialog::onOperationProgress(const QString &output)
{
    appendLog(output);
}

void PythonEnvironmentDialog::onOperationFinished(bool success, const QString &error)
{
    const bool ours = operationRunning;
    operationRunning = false;
    removalShown = false;
    operationEnvironment.clear();
    progressBar->hide();
    const QString created = createdEnvironment;
    createdEnvironment.clear();
    updateButtons();
    if (!success) {
        appendLog(tr("Operation failed: %1").arg(error));
        setStatus(QString());
        if (ours)
            QMessageBox::warning(this, tr("Python Environments"), tr("Operation failed: %1").arg(error));
        refreshEnvironments();
        return;
    }
    setStatus(QString());
    if (!created.isEmpty()
        && QMessageBox::question(this, tr("Environment Created"),
                                 tr("Environment '%1' was created successfully.\n\nWould you like to set it as your "
                                    "current Python environment?")
                                         .arg(created),
                                 QMessageBox::Yes | QMessageBox::No, QMessageBox::Yes)
                   == QMessageBox::Yes)
        setCurrentEnvironment(created);
}

void PythonEnvironmentDialog::onNewClicked()
{
    CreateEnvironmentDialog create(this);
    create.setPlatformProfile(manager->profile());
    create.setEnvironmentsFolder(manager->baseFolder());
    if (create.exec() != QDialog::Accepted)
        return;
    const QString name = create.environmentName();
    if (QFileInfo(manager->environmentPath(name)).isDir()) {
        if (!askYesNo(this, QMessageBox::Warning, tr("Replace Environment"),
                      tr("An environment named '%1' already exists.\n\nDo you want to replace it with a new "
                         "environment?")
                              .arg(name)))
            return;
        beginOperation(name);
        createdEnvironment = name;
        setStatus(tr("Removing existing environment..."));
        removalShown = true;
        manager->replaceEnvironmentAsync(name, create.pythonVersion(), create.requirementsPath());
        return;
    }
    beginOperation(name);
    createdEnvironment = name;
    manager->createEnvironment(name, create.pythonVersion(), create.requirementsPath());
}

void PythonEnvironmentDialog::onDeleteClicked()
{
    const QString name = selectedEnvironment();
    if (name.isEmpty()
        || !askYesNo(this, QMessageBox::Warning, tr("Delete Environment"),
                     tr("Are you sure you want to delete '%1'?\n\nThis will remove all packages and files in the "
                        "environment.")
                             .arg(name)))
        return;
    beginOperation(name);
    setStatus(tr("Removing '%1'...").arg(name));
    removalShown = true;
    manager->deleteEnvironmentAsync(name);
}

void PythonEnvironmentDialog::onSetCurrentClicked()
{
    setCurrentEnvironment(selectedEnvironment());
}

bool PythonEnvironmentDialog::setCurrentEnvironment(const QString &name)
{
    // The host reads its settings file from the directory it was started in.
    QSettings settings(QDir::currentPath() + QStringLiteral("/quorix_settings.ini"), QSettings::IniFormat);
    settings.beginGroup(QStringLiteral("Application"));
    settings.setValue(QStringLiteral("pythonPath"), manager->pythonPath(name));
    settings.endGroup();
    settings.sync();
    if (settings.status() != QSettings::NoError) {
        QMessageBox::warning(this, tr("Python Environments"),
                             tr("Could not save the current Python environment to %1.").arg(settings.fileName()));
        return false;
    }
    setStatus(tr("'%1' is now the current Python environment.").arg(name));
    return true;
}

void PythonEnvironmentDialog::onSelectClicked()
{
    const QString name = selectedEnvironment();
    if (!name.isEmpty() && setCurrentEnvironment(name))
        accept();
}

void PythonEnvironmentDialog::onInstallClicked()
{
    const QString name = selectedEnvironment();
    InstallPackageDialog install(this);
    if (name.isEmpty() || install.exec() != QDialog::Accepted)
        return;
    beginOperation(name);
    manager->installPackage(name, install.packageSpec());
}

void PythonEnvironmentDialog::onUninstallClicked()
{
    const QString name = selectedEnvironment();
    const QStringList packages = selectedPackages();
    if (name.isEmpty() || packages.isEmpty()
        || !askYesNo(this, QMessageBox::Warning, tr("Uninstall Packages"),
                     tr("Uninstall %1 package(s)?").arg(packages.size())))
        return;
    beginOperation(name);
    if (packages.size() == 1)
        manager->uninstallPackage(name, packages.first());
    else
        manager->uninstallPackages(name, packages);
}

void PythonEnvironmentDialog::onUpdateClicked()
{
    const QString name = selectedEnvironment();
    const QStringList packages = selectedPackages();
    if (name.isEmpty() || packages.size() != 1)
        return;
    beginOperation(name);
    manager->updatePackage(name, packages.first());
}

QString PythonEnvironmentDialog::requirementsFile(const QString &name) const
{
    return manager->environmentPath(name) + QStringLiteral("/requirements.txt");
}

void PythonEnvironmentDialog::onViewRequirementsClicked()
{
    const QString file = requirementsFile(selectedEnvironment());
    if (!QFileInfo(file).isFile()) {
        QMessageBox::information(this, tr("Requirements"), tr("No requirements.txt file found for this environment."));
        return;
    }
    QDesktopServices::openUrl(QUrl::fromLocalFile(file));
}

void PythonEnvironmentDialog::onImportRequirementsClicked()
{
    const QString name = selectedEnvironment();
    if (name.isEmpty())
        return;
    const QString source = QFileDialog::getOpenFileName(this, tr("Import Requirements"), QString(),
                                                        tr("Requirements Files (*.txt);;All Files (*)"));
    if (source.isEmpty())
        return;
    QFile input(source);
    QSaveFile output(requirementsFile(name));
    if (!input.open(QIODevice::ReadOnly) || !output.open(QIODevice::WriteOnly) || output.write(input.readAll()) < 0
        || !output.commit()) {
        QMessageBox::warning(this, tr("Import Requirements"),
                             tr("Could not copy %1 into the environment.").arg(QDir::toNativeSeparators(source)));
        return;
    }
    if (QMessageBox::question(this, tr("Import Complete"), tr("Requirements imported. Install packages now?"),
                              QMessageBox::Yes | QMessageBox::No, QMessageBox::Yes)
        == QMessageBox::Yes)
        onSyncClicked();
}

void PythonEnvironmentDialog::onSyncClicked()
{
    const QString name = selectedEnvironment();
    if (name.isEmpty() || operationRunning)
        return;
    beginOperation(name);
    manager->syncEnvironment(name);
}

void PythonEnvironmentDialog::onLogToggled()
{
    const bool show = logView->isHidden();
    // The log gets room of its own instead of squeezing the package table.
    const int logHeight = logView->minimumHeight() + layout()->spacing();
    logView->setVisible(show);
    resize(width(), height() + (show ? logHeight : -logHeight));
    logToggleButton->setText(show ? tr("Hide Details") : tr("Show Details"));
}

void PythonEnvironmentDialog::setStatus(const QString &text)
{
    statusLabel->setText(text);
    statusLabel->setVisible(!text.isEmpty());
}

void PythonEnvironmentDialog::appendLog(const QString &text)
{
    QTextCursor end(logView->document());
    end.movePosition(QTextCursor::End);
    end.insertText(text.endsWith(QLatin1Char('\n')) ? text : text + QLatin1Char('\n'));
    logView->ensureCursorVisible();
}

} // namespace Quorix
