#include "ScriptSelectionDialog.h"

#include "api/OnlineResourcesAPI.h"

#include <QFileDialog>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QTimer>
#include <QVBoxLayout>

namespace Quorix {

namespace {

constexpr int presetCheckDelayMilliseconds = 100;

const char foundStyle[] = "QLabel { color: #4488ff; font-weight: bold; }";
const char newStyle[] = "QLabel { color: #44aa44; }";
const char errorStyle[] = "QLabel { color: #ff8844; }";

} // namespace

ScriptSelectionDialog::ScriptSelectionDialog(OnlineResourcesAPI *api, QWidget *parent)
    : QDialog(parent)
    , api(api)
    , checkTimer(new QTimer(this))
{
    setWindowTitle(tr("Select Script to Upload"));
    resize(600, 200);
    buildLayout();

    checkTimer->setSingleShot(true);
    checkTimer->setInterval(checkTimeoutMilliseconds);
    connect(checkTimer, &QTimer::timeout, this, [this] {
        if (checking)
            onCheckExistingError(QStringLiteral("Connection timeout"));
    });
}

void ScriptSelectionDialog::buildLayout()
{
    auto *layout = new QVBoxLayout(this);

    auto *heading = new QLabel(tr("Select Script File"), this);
    heading->setStyleSheet(QStringLiteral("QLabel { font-size: 16px; font-weight: bold; }"));
    layout->addWidget(heading);

    auto *hint = new QLabel(tr("Choose the script file you want to upload or update:"), this);
    hint->setStyleSheet(QStringLiteral("QLabel { color: #888; }"));
    layout->addWidget(hint);

    auto *pathRow = new QHBoxLayout;
    pathEdit = new QLineEdit(this);
    pathEdit->setObjectName(QStringLiteral("pathEdit"));
    pathEdit->setPlaceholderText(tr("Select a script file (.gpc3, .gbc3, .py, .qenv, .onnx)"));
    // The path is only ever taken from the chooser, where its size and existence are checked.
    pathEdit->setReadOnly(true);
    hint->setBuddy(pathEdit);
    pathRow->addWidget(pathEdit, 1);
    browseButton = new QPushButton(tr("Browse..."), this);
    browseButton->setObjectName(QStringLiteral("browseButton"));
    browseButton->setStyleSheet(QStringLiteral("QPushButton { padding: 6px 15px; }"));
    pathRow->addWidget(browseButton);
    layout->addLayout(pathRow);

    statusLabel = new QLabel(this);
    statusLabel->setObjectName(QStringLiteral("statusLabel"));
    statusLabel->setWordWrap(true);
    statusLabel->hide();
    layout->addWidget(statusLabel);
    layout->addStretch();

    auto *buttons = new QHBoxLayout;
    buttons->addStretch();
    cancelButton = new QPushButton(tr("Cancel"), this);
    cancelButton->setObjectName(QStringLiteral("cancelButton"));
    cancelButton->setStyleSheet(QStringLiteral("QPushButton { padding: 8px 20px; }"));
    buttons->addWidget(cancelButton);
    proceedButton = new QPushButton(tr("Next"), this);
    proceedButton->setObjectName(QStringLiteral("proceedButton"));
    proceedButton->setStyleSheet(QStringLiteral("QPushButton:enabled { padding: 8px 20px; font-weight: bold; }"));
    proceedButton->setEnabled(false);
    proceedButton->setDefault(true);
    buttons->addWidget(proceedButton);
    layout->addLayout(buttons);

    connect(browseButton, &QPushButton::clicked, this, &ScriptSelectionDialog::onBrowseClicked);
    connect(proceedButton, &QPushButton::clicked, this, &ScriptSelectionDialog::onProceedClicked);
    connect(cancelButton, &QPushButton::clicked, this, &ScriptSelectionDialog::onCancelClicked);
}

qint64 ScriptSelectionDialog::sizeLimitFor(const QString &extension)
{
    return extension.compare(QLatin1String("onnx"), Qt::CaseInsensitive) == 0 ? weightsSizeLimit : fileSizeLimit;
}

QString ScriptSelectionDialog::sizeLimitText(const QString &extension)
{
    return sizeLimitFor(extension) == weightsSizeLimit ? QStringLiteral("500MB") : QStringLiteral("10MB");
}

void ScriptSelectionDialog::presetPath(const QString &path)
{
    if (path.isEmpty())
        return;
    // A refused preset is marked too: otherwise showing the dialog would wipe the reason before anyone read it.
    preset = true;
    const QFileInfo file(path);
    if (!file.exists()) {
        setStatus(tr("File not found: %1").arg(path), StatusKind::Error);
        return;
    }
    if (file.size() > sizeLimitFor(file.suffix())) {
        setStatus(tr("File must be less than %1.").arg(sizeLimitText(file.suffix())), StatusKind::Error);
        return;
    }
    takeFile(path);
    QTimer::singleShot(presetCheckDelayMilliseconds, this, &ScriptSelectionDialog::startCheck);
}

void ScriptSelectionDialog::setStartDirectory(const QString &directory)
{
    startDirectory = directory;
}

QString ScriptSelectionDialog::selectedPath() const
{
    return scriptPath;
}

QJsonObject ScriptSelectionDialog::existingRecord() const
{
    return existingData;
}

void ScriptSelectionDialog::onBrowseClicked()
{
    const QString path = QFileDialog::getOpenFileName(
            this, tr("Select Script File"), startDirectory,
            tr("Script Files (*.gpc3 *.gbc3 *.py *.qenv *.onnx);;ONNX Weights (*.onnx);;Environment Files "
               "(*.qenv);;All Files (*.*)"));
    if (path.isEmpty())
        return;
    const QFileInfo file(path);
    if (!file.exists()) {
        QMessageBox::warning(this, tr("Invalid File"), tr("The selected file does not exist."));
        return;
    }
    if (file.size() > sizeLimitFor(file.suffix())) {
        QMessageBox::warning(this, tr("File Too Large"),
                             tr("File must be less than %1.").arg(sizeLimitText(file.suffix())));
        return;
    }
    takeFile(path);
    startCheck();
}

void ScriptSelectionDialog::takeFile(const QString &path)
{
    const QFileInfo file(path);
    scriptPath = path;
    fileName = file.fileName();
    extension = file.suffix().toLower();
    pathEdit->setText(path);
    proceedButton->setEnabled(false);
    browseButton->setEnabled(false);
    setStatus(tr("Checking for existing script..."));
}

void ScriptSelectionDialog::startCheck()
{
    if (!api || fileName.isEmpty() || extension.isEmpty()) {
        proceedButton->setEnabled(true);
        browseButton->setEnabled(true);
        setStatus(QString());
        return;
    }
    checking = true;
    connectClient();
    api->checkExistingScript(fileName, extension);
    checkTimer->start();
}

void ScriptSelectionDialog::connectClient()
{
    disconnectClient();
    responseConnection = connect(api, &OnlineResourcesAPI::existingScriptChecked, this,
                                 &ScriptSelectionDialog::onCheckExistingResponse);
    errorConnection
            = connect(api, &OnlineResourcesAPI::errorOccurred, this, &ScriptSelectionDialog::onCheckExistingError);
}

void ScriptSelectionDialog::disconnectClient()
{
    disconnect(responseConnection);
    disconnect(errorConnection);
}

void ScriptSelectionDialog::forgetExisting()
{
    existingFound = false;
    existingData = QJsonObject();
    existingId.clear();
}

void ScriptSelectionDialog::onCheckExistingResponse(const QJsonObject &response)
{
    if (!checking)
        return;
    checking = false;
    checkTimer->stop();
    proceedButton->setEnabled(true);
    browseButton->setEnabled(true);
    disconnectClient();

    if (response.value(QLatin1String("success")).toBool() && response.value(QLatin1String("exists")).toBool()) {
        existingFound = true;
        existingData = response.value(QLatin1String("data")).toObject();
        existingId = existingData.value(QLatin1String("id")).toString();
        setStatus(tr("This script already exists. Proceeding will update it."));
        proceedButton->setText(tr("Update Script"));
    } else {
        forgetExisting();
        setStatus(tr("This will be uploaded as a new script."));
        proceedButton->setText(tr("Upload New"));
    }
    emit checkCompleted();
}

void ScriptSelectionDialog::onCheckExistingError(const QString &)
{
    if (!checking)
        return;
    checking = false;
    checkTimer->stop();
    proceedButton->setEnabled(false);
    browseButton->setEnabled(true);
    disconnectClient();
    forgetExisting();
    // The client's own wording is meant for developers; the user only needs to know that the server is unreachable.
    setStatus(tr("Unable to connect to server. Please check your connection and try again later."), StatusKind::Error);
    proceedButton->setText(tr("Upload"));
    emit checkCompleted();
}

void ScriptSelectionDialog::onProceedClicked()
{
    if (scriptPath.isEmpty()) {
        QMessageBox::warning(this, tr("No Script Selected"), tr("Please select a script file first."));
        return;
    }
    if (checking)
        return;
    emit scriptSelected(scriptPath);
    if (existingFound)
        emit existingScriptFound(existingData);
    accept();
}

void ScriptSelectionDialog::onCancelClicked()
{
    reject();
}

void ScriptSelectionDialog::setStatus(const QString &text, StatusKind kind)
{
    if (text.isEmpty()) {
        statusLabel->clear();
        statusLabel->hide();
        return;
    }
    statusLabel->setText(text);
    statusLabel->setStyleSheet(QLatin1String(kind == StatusKind::Error ? errorStyle
                                             : existingFound           ? foundStyle
                                                                       : newStyle));
    statusLabel->show();
}

void ScriptSelectionDialog::showEvent(QShowEvent *event)
{
    if (!preset)
        reset();
    QDialog::showEvent(event);
}

void ScriptSelectionDialog::reset()
{
    scriptPath.clear();
    fileName.clear();
    extension.clear();
    forgetExisting();
    checking = false;
    checkTimer->stop();
    pathEdit->clear();
    setStatus(QString());
    proceedButton->setEnabled(false);
    proceedButton->setText(tr("Proceed"));
    browseButton->setEnabled(true);
    disconnectClient();
}

} // namespace Quorix
