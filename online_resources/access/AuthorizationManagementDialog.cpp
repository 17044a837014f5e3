#include "AuthorizationManagementDialog.h"

#include "AuthorizationFileFormats.h"
#include "api/OnlineResourcesAPI.h"

#include <ThemedIcon.h>

#include <QCheckBox>
#include <QDateTime>
#include <QDateTimeEdit>
#include <QEvent>
#include <QFileDialog>
#include <QFormLayout>
#include <QFutureWatcher>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QRegularExpression>
#include <QTimer>
#include <QVBoxLayout>
#include <QtConcurrent/QtConcurrentRun>

namespace Quorix {

namespace {

constexpr int userIdRole = Qt::UserRole;
constexpr int usernameRole = Qt::UserRole + 1;
constexpr int discordIdRole = Qt::UserRole + 2;
constexpr int searchDebounceMilliseconds = 400;

QString text(const QJsonObject &record, const char *key)
{
    return record.value(QLatin1String(key)).toString();
}

QString rowText(const QJsonObject &record)
{
    const QString username = text(record, "username");
    const QString globalName = text(record, "global_name");
    QString row = QStringLiteral("%1 (@%2)").arg(globalName.isEmpty() ? username : globalName, username);
    if (text(record, "status") == QLatin1String("pending"))
        row += QStringLiteral(" [PENDING]");
    row += QStringLiteral("\nID: %1").arg(text(record, "discord_id"));
    row += QStringLiteral("\nDownloads: %1").arg(record.value(QLatin1String("download_count")).toInteger());
    const QString notes = text(record, "authorization_notes");
    if (!notes.isEmpty())
        row += QStringLiteral("\nNotes: %1").arg(notes);
    const QString expires = text(record, "expires_at");
    if (!expires.isEmpty())
        row += QStringLiteral("\nExpires: %1")
                       .arg(QDateTime::fromString(expires, Qt::ISODate).toString(QStringLiteral("yyyy-MM-dd")));
    return row;
}

QString safeFileName(QString name)
{
    static const QRegularExpression unsafe(QStringLiteral("[/\\\\:*?\"<>|]"));
    return name.replace(unsafe, QStringLiteral("_"));
}

} // namespace

AuthorizationManagementDialog::AuthorizationManagementDialog(OnlineResourcesAPI *api, const QString &resourceId,
                                                             const QString &resourceName, QWidget *parent)
    : QDialog(parent)
    , api(api)
    , scriptId(resourceId)
    , scriptName(resourceName)
{
    setWindowTitle(tr("Manage Script Authorizations"));
    setAttribute(Qt::WA_DeleteOnClose);
    resize(600, 560);
    searchTimer = new QTimer(this);
    searchTimer->setSingleShot(true);
    searchTimer->setInterval(searchDebounceMilliseconds);
    buildLayout();
    connectSignals();
    updateButtonStates();
}

void AuthorizationManagementDialog::buildLayout()
{
    auto *layout = new QVBoxLayout(this);

    headerLabel = new QLabel(tr("Script: %1").arg(scriptName), this);
    headerLabel->setObjectName(QStringLiteral("headerLabel"));
    headerLabel->setStyleSheet(QStringLiteral("QLabel { font-size: 12pt; font-weight: bold; }"));
    layout->addWidget(headerLabel);

    searchEdit = new QLineEdit(this);
    searchEdit->setObjectName(QStringLiteral("searchEdit"));
    searchEdit->setPlaceholderText(tr("Search by Discord ID or username (server-side)..."));
    searchEdit->setClearButtonEnabled(true);
    searchEdit->setAccessibleName(tr("Search authorized users"));
    layout->addWidget(searchEdit);

    authorizationList = new QListWidget(this);
    authorizationList->setObjectName(QStringLiteral("authorizationList"));
    authorizationList->setMinimumHeight(200);
    authorizationList->setAccessibleName(tr("Authorized users"));
    // Rows are several lines each; padding and a rule between them keep one person's lines together.
    authorizationList->setStyleSheet(QStringLiteral(
            "QListWidget::item { padding: 6px 4px; border-bottom: 1px solid palette(mid); }"
            "QListWidget::item:selected { background: palette(highlight); color: palette(highlighted-text); }"));
    layout->addWidget(authorizationList, 1);

    loadMoreButton = new QPushButton(tr("Load More..."), this);
    loadMoreButton->setObjectName(QStringLiteral("loadMoreButton"));
    loadMoreButton->hide();
    layout->addWidget(loadMoreButton);

    auto *buttonRow = new QHBoxLayout;
    refreshButton = new QPushButton(tr("Refresh"), this);
    refreshButton->setObjectName(QStringLiteral("refreshButton"));
    refreshButton->setFixedWidth(90);
    revokeButton = new QPushButton(tr("Revoke"), this);
    revokeButton->setObjectName(QStringLiteral("revokeButton"));
    revokeButton->setFixedWidth(90);
    exportButton = new QPushButton(tr("Export"), this);
    exportButton->setObjectName(QStringLiteral("exportButton"));
    exportButton->setToolTip(tr("Export authorized users to file"));
    importButton = new QPushButton(tr("Import"), this);
    importButton->setObjectName(QStringLiteral("importButton"));
    importButton->setToolTip(tr("Import Discord IDs from file to grant access"));
    // Tab reaches these too, but Enter in the fields below must not fire them.
    for (QPushButton *button : {refreshButton, revokeButton, exportButton, importButton}) {
        button->setAutoDefault(false);
        buttonRow->addWidget(button);
    }
    buttonRow->addStretch();
    layout->addLayout(buttonRow);
    applyIcons();

    auto *grantGroup = new QGroupBox(tr("Grant Access"), this);
    auto *form = new QFormLayout(grantGroup);
    discordIdEdit = new QLineEdit(grantGroup);
    discordIdEdit->setObjectName(QStringLiteral("discordIdEdit"));
    discordIdEdit->setPlaceholderText(tr("Enter 17-20 digit ID"));
    form->addRow(tr("Discord ID:"), discordIdEdit);
    notesEdit = new QPlainTextEdit(grantGroup);
    notesEdit->setObjectName(QStringLiteral("notesEdit"));
    notesEdit->setMaximumHeight(50);
    notesEdit->setPlaceholderText(tr("Add a note..."));
    notesEdit->setTabChangesFocus(true);
    form->addRow(tr("Notes (optional):"), notesEdit);

    auto *expiryRow = new QHBoxLayout;
    expiresCheckBox = new QCheckBox(tr("Expires:"), grantGroup);
    expiresCheckBox->setObjectName(QStringLiteral("expiresCheckBox"));
    expiresDateEdit = new QDateTimeEdit(grantGroup);
    expiresDateEdit->setObjectName(QStringLiteral("expiresDateEdit"));
    expiresDateEdit->setDisplayFormat(QStringLiteral("yyyy-MM-dd"));
    expiresDateEdit->setCalendarPopup(true);
    const QDateTime now = QDateTime::currentDateTime();
    expiresDateEdit->setMinimumDateTime(now);
    expiresDateEdit->setDateTime(now.addDays(30));
    expiresDateEdit->setEnabled(false);
    expiresDateEdit->setMinimumWidth(130);
    expiresDateEdit->setAccessibleName(tr("Expiry date"));
    expiryRow->addWidget(expiresCheckBox);
    expiryRow->addWidget(expiresDateEdit);
    expiryRow->addStretch();
    form->addRow(expiryRow);

    grantButton = new QPushButton(tr("Grant Access"), grantGroup);
    grantButton->setObjectName(QStringLiteral("grantButton"));
    grantButton->setMinimumHeight(32);
    // Granting is what the form is for: Enter in the Discord ID field grants.
    grantButton->setDefault(true);
    form->addRow(grantButton);
    layout->addWidget(grantGroup);

    statusLabel = new QLabel(this);
    statusLabel->setObjectName(QStringLiteral("statusLabel"));
    layout->addWidget(statusLabel);

    auto *closeRow = new QHBoxLayout;
    closeRow->addStretch();
    closeButton = new QPushButton(tr("Close"), this);
    closeButton->setObjectName(QStringLiteral("closeButton"));
    closeButton->setMinimumWidth(80);
    closeRow->addWidget(closeButton);
    layout->addLayout(closeRow);
}

void AuthorizationManagementDialog::connectSignals()
{
    connect(authorizationList, &QListWidget::itemSelectionChanged, this,
            &AuthorizationManagementDialog::onAuthorizationItemSelectionChanged);
    connect(grantButton, &QPushButton::clicked, this, &AuthorizationManagementDialog::onAddAuthorizationClicked);
    connect(revokeButton, &QPushButton::clicked, this, &AuthorizationManagementDialog::onRevokeAuthorizationClicked);
    connect(refreshButton, &QPushButton::clicked, this, &AuthorizationManagementDialog::onRefreshClicked);
    connect(expiresCheckBox, &QCheckBox::toggled, this, &AuthorizationManagementDialog::onExpirationToggled);
    connect(closeButton, &QPushButton::clicked, this, &QDialog::close);
    connect(discordIdEdit, &QLineEdit::textChanged, this,
            &AuthorizationManagementDialog::onAuthorizationItemSelectionChanged);
    connect(searchEdit, &QLineEdit::textChanged, this, &AuthorizationManagementDialog::onSearchTextChanged);
    connect(searchTimer, &QTimer::timeout, this, &AuthorizationManagementDialog::onSearchTimeout);
    connect(loadMoreButton, &QPushButton::clicked, this, &AuthorizationManagementDialog::onLoadMoreClicked);
    connect(exportButton, &QPushButton::clicked, this, &AuthorizationManagementDialog::onExportClicked);
    connect(importButton, &QPushButton::clicked, this, &AuthorizationManagementDialog::onImportClicked);
    connect(api, &OnlineResourcesAPI::scriptAuthorizationsLoaded, this,
            &AuthorizationManagementDialog::onAuthorizationsLoaded);
    connect(api, &OnlineResourcesAPI::authorizationGranted, this,
            &AuthorizationManagementDialog::onAuthorizationGranted);
    connect(api, &OnlineResourcesAPI::bulkAuthorizationsGranted, this,
            &AuthorizationManagementDialog::onBulkAuthorizationsGranted);
    connect(api, &OnlineResourcesAPI::authorizationRevoked, this,
            &AuthorizationManagementDialog::onAuthorizationRevoked);
}

void AuthorizationManagementDialog::applyIcons()
{
    refreshButton->setIcon(ThemedIcon::create(QStringLiteral(":/icons/refresh.svg")));
    revokeButton->setIcon(ThemedIcon::create(QStringLiteral(":/icons/x.svg")));
    exportButton->setIcon(ThemedIcon::create(QStringLiteral(":/icons/download.svg")));
    importButton->setIcon(ThemedIcon::create(QStringLiteral(":/icons/add.svg")));
}

void AuthorizationManagementDialog::changeEvent(QEvent *event)
{
    if (event->type() == QEvent::PaletteChange && refreshButton)
        applyIcons();
    QDialog::changeEvent(event);
}

void AuthorizationManagementDialog::loadAuthorizations()
{
    loadedCount = 0;
    totalCount = 0;
    hasMore = false;
    isSearching = false;
    currentSearchText.clear();
    searchEdit->clear();
    clearLoaded();
    loadMoreButton->hide();
    statusLabel->setText(tr("Loading authorizations..."));
    requestPage(0, QString());
}

void AuthorizationManagementDialog::requestPage(int offset, const QString &search)
{
    api->fetchScriptAuthorizations(scriptId, offset, pageSize, search);
}

void AuthorizationManagementDialog::clearLoaded()
{
    authorizationList->clear();
    authorizations = QJsonArray();
}

void AuthorizationManagementDialog::onAddAuthorizationClicked()
{
    const QString discordId = discordIdEdit->text().trimmed();
    if (!hasValidDiscordId()) {
        showError(tr("Invalid Discord ID format. Please enter a valid Discord user ID."));
        return;
    }
    // Only the loaded pages are known here; the server rejects duplicates among the rest.
    if (isListed(discordId)) {
        showError(tr("User with Discord ID %1 is already authorized/pending.").arg(discordId));
        return;
    }
    QJsonObject body{{QStringLiteral("discord_id"), discordId}, {QStringLiteral("notes"), notesEdit->toPlainText()}};
    if (expiresCheckBox->isChecked())
        body.insert(QStringLiteral("expires_at"), expiresDateEdit->dateTime().toString(Qt::ISODate));
    grantButton->setEnabled(false);
    statusLabel->setText(tr("Granting authorization..."));
    api->grantAuthorization(scriptId, body);
}

void AuthorizationManagementDialog::onRevokeAuthorizationClicked()
{
    const QListWidgetItem *item = authorizationList->currentItem();
    if (!item)
        return;
    const QString username = item->data(usernameRole).toString();
    if (QMessageBox::question(this, tr("Revoke Authorization"),
                              tr("Are you sure you want to revoke authorization for %1?").arg(username),
                              QMessageBox::Yes | QMessageBox::No, QMessageBox::No)
        != QMessageBox::Yes)
        return;
    // Pending grants have no account yet, so the Discord ID is the only handle the server has for them.
    const qint64 userId = item->data(userIdRole).toLongLong();
    const QJsonValue user = userId >= 1 ? QJsonValue(userId) : QJsonValue(item->data(discordIdRole).toString());
    revokeButton->setEnabled(false);
    statusLabel->setText(tr("Revoking authorization..."));
    api->revokeAuthorization(scriptId, {{QStringLiteral("user_id"), user},
                                        {QStringLiteral("reason"), QStringLiteral("Revoked by script author")}});
}

void AuthorizationManagementDialog::onAuthorizationItemSelectionChanged()
{
    updateButtonStates();
}

void AuthorizationManagementDialog::onAuthorizationsLoaded(const QJsonObject &response)
{
    if (!response.value(QLatin1String("success")).toBool()) {
        showError(response.value(QLatin1String("error")).toString());
        updateStatusLabel();
        return;
    }
    const QJsonObject data = response.value(QLatin1String("data")).toObject();
    const QJsonArray page = data.value(QLatin1String("authorizations")).toArray();
    if (data.contains(QLatin1String("pagination"))) {
        const QJsonObject pagination = data.value(QLatin1String("pagination")).toObject();
        const int offset = pagination.value(QLatin1String("offset")).toInt();
        totalCount = pagination.value(QLatin1String("total")).toInt();
        hasMore = pagination.value(QLatin1String("has_more")).toBool();
        if (offset == 0)
            clearLoaded();
        for (const QJsonValue &record : page)
            authorizations.append(record);
        loadedCount = offset + int(page.size());
    } else {
        clearLoaded();
        authorizations = page;
        totalCount = int(page.size());
        hasMore = false;
        loadedCount = int(page.size());
    }
    authorizationList->setUpdatesEnabled(false);
    for (const QJsonValue &record : page)
        addRow(record.toObject());
    authorizationList->setUpdatesEnabled(true);
    loadMoreButton->setVisible(hasMore);
    if (hasMore)
        loadMoreButton->setText(tr("Load More (%1 of %2)...").arg(loadedCount).arg(totalCount));
    updateStatusLabel();
    updateButtonStates();
}

void AuthorizationManagementDialog::addRow(const QJsonObject &record)
{
    auto *item = new QListWidgetItem(rowText(record), authorizationList);
    item->setData(userIdRole, record.value(QLatin1String("user_id")).toInteger());
    item->setData(usernameRole, text(record, "username"));
    item->setData(discordIdRole, text(record, "discord_id"));
}

void AuthorizationManagementDialog::onAuthorizationGranted(const QJsonObject &response)
{
    grantButton->setEnabled(true);
    if (!response.value(QLatin1String("success")).toBool()) {
        showError(response.value(QLatin1String("error")).toString());
        updateStatusLabel();
        return;
    }
    discordIdEdit->clear();
    notesEdit->clear();
    expiresCheckBox->setChecked(false);
    QString message = response.value(QLatin1String("message")).toString();
    // Nobody has signed in under this ID yet; the author passes the code on to them.
    if (response.value(QLatin1String("pending")).toBool())
        message += tr("\n\nAuthorization code: %1").arg(response.value(QLatin1String("authorization_code")).toString());
    showSuccess(message);
    loadAuthorizations();
    emit authorizationChanged();
}

void AuthorizationManagementDialog::onAuthorizationRevoked(const QJsonObject &response)
{
    revokeButton->setEnabled(true);
    if (!response.value(QLatin1String("success")).toBool()) {
        showError(response.value(QLatin1String("error")).toString());
        updateStatusLabel();
        return;
    }
    showSuccess(response.value(QLatin1String("message")).toString());
    loadAuthorizations();
    emit authorizationChanged();
}

void AuthorizationManagementDialog::onExpirationToggled(bool checked)
{
    expiresDateEdit->setEnabled(checked);
}

void AuthorizationManagementDialog::onRefreshClicked()
{
    if (!isSearching || currentSearchText.isEmpty()) {
        loadAuthorizations();
        return;
    }
    statusLabel->setText(tr("Searching..."));
    loadedCount = 0;
    clearLoaded();
    requestPage(0, currentSearchText);
}

void AuthorizationManagementDialog::onSearchTextChanged(const QString &text)
{
    searchTimer->stop();
    const QString trimmed = text.trimmed();
    if (trimmed.isEmpty()) {
        if (isSearching)
            loadAuthorizations();
        return;
    }
    // One character matches too much to be worth a round trip.
    if (trimmed.size() >= 2)
        searchTimer->start();
}

void AuthorizationManagementDialog::onSearchTimeout()
{
    const QString search = searchEdit->text().trimmed();
    if (search.size() < 2)
        return;
    isSearching = true;
    currentSearchText = search;
    loadedCount = 0;
    clearLoaded();
    statusLabel->setText(tr("Searching..."));
    requestPage(0, search);
}

void AuthorizationManagementDialog::onLoadMoreClicked()
{
    loadMoreButton->setEnabled(false);
    loadMoreButton->setText(tr("Loading..."));
    requestPage(loadedCount, isSearching ? currentSearchText : QString());
    loadMoreButton->setEnabled(true);
}

void AuthorizationManagementDialog::onExportClicked()
{
    if (authorizations.isEmpty()) {
        showError(tr("No authorizations to export."));
        return;
    }
    const QString fileName = QFileDialog::getSaveFileName(
            this, tr("Export Authorizations"), QStringLiteral("%1_authorizations.json").arg(safeFileName(scriptName)),
            tr("JSON Files (*.json);;CSV Files (*.csv)"));
    if (!fileName.isEmpty())
        writeExport(fileName);
}

void AuthorizationManagementDialog::writeExport(const QString &fileName)
{
    const QByteArray content
            = AuthorizationFileFormats::isCsvName(fileName)
                      ? AuthorizationFileFormats::exportCsv(authorizations)
                      : AuthorizationFileFormats::exportJson({scriptId, scriptName, totalCount}, authorizations);
    const QString error = AuthorizationFileFormats::writeFile(fileName, content);
    if (!error.isEmpty()) {
        showError(tr("Failed to open file for writing: %1").arg(error));
        return;
    }
    const int exported = int(authorizations.size());
    if (hasMore)
        showSuccess(tr("Exported %1 of %2 authorization(s) to file.\n\nNote: Only loaded records were exported. "
                       "Click 'Load More' to load all before exporting.")
                            .arg(exported)
                            .arg(totalCount));
    else
        showSuccess(tr("Exported %1 authorization(s) to file.").arg(exported));
}

void AuthorizationManagementDialog::onImportClicked()
{
    const QString fileName
            = QFileDialog::getOpenFileName(this, tr("Import Discord IDs"), QString(),
                                           tr("JSON Files (*.json);;CSV Files (*.csv);;Text Files (*.txt)"));
    if (fileName.isEmpty())
        return;
    // Files can be huge or hostile; reading them on the pool keeps the window responsive meanwhile.
    importButton->setEnabled(false);
    auto *watcher = new QFutureWatcher<AuthorizationFileFormats::ImportResult>(this);
    connect(watcher, &QFutureWatcherBase::finished, this, [this, watcher] {
        watcher->deleteLater();
        importButton->setEnabled(true);
        const AuthorizationFileFormats::ImportResult result = watcher->result();
        if (!result.openError.isEmpty())
            showError(tr("Failed to open file: %1").arg(result.openError));
        else
            confirmImport(result.discordIds);
    });
    watcher->setFuture(QtConcurrent::run(&AuthorizationFileFormats::readImportFile, fileName));
}

void AuthorizationManagementDialog::confirmImport(const QStringList &discordIds)
{
    if (discordIds.isEmpty()) {
        showError(tr("No valid Discord IDs found in the file."));
        return;
    }
    if (QMessageBox::question(this, tr("Import Authorizations"),
                              tr("Found %1 Discord ID(s) to import.\n\nThe server will skip any that are already "
                                 "authorized.\nProceed with bulk import?")
                                      .arg(discordIds.size()),
                              QMessageBox::Yes | QMessageBox::No)
        != QMessageBox::Yes)
        return;
    importButton->setEnabled(false);
    statusLabel->setText(tr("Importing %1 authorization(s)...").arg(discordIds.size()));
    api->bulkGrantAuthorizations(scriptId, discordIds, QStringLiteral("Bulk import"));
}

void AuthorizationManagementDialog::onBulkAuthorizationsGranted(const QJsonObject &response)
{
    importButton->setEnabled(true);
    if (!response.value(QLatin1String("success")).toBool()) {
        showError(response.value(QLatin1String("error")).toString());
        updateStatusLabel();
        return;
    }
    const QJsonObject data = response.value(QLatin1String("data")).toObject();
    const int granted = data.value(QLatin1String("granted")).toInt();
    QString message = tr("Import complete:\n• Granted: %1\n• Already authorized: %2\n• Not found (user hasn't "
                         "signed in): %3")
                              .arg(granted)
                              .arg(data.value(QLatin1String("already_authorized")).toInt())
                              .arg(data.value(QLatin1String("not_found")).toInt());
    const QJsonArray errors = data.value(QLatin1String("errors")).toArray();
    if (!errors.isEmpty())
        message += tr("\n• Errors: %1").arg(errors.size());
    showSuccess(message);
    loadAuthorizations();
    if (granted > 0)
        emit authorizationChanged();
}

void AuthorizationManagementDialog::updateStatusLabel()
{
    if (!authorizations.isEmpty()) {
        if (isSearching)
            statusLabel->setText(tr("Found %1 result(s) for '%2'").arg(authorizations.size()).arg(currentSearchText));
        else if (hasMore)
            statusLabel->setText(tr("Showing %1 of %2 user(s)").arg(loadedCount).arg(totalCount));
        else
            statusLabel->setText(tr("%1 user(s) authorized").arg(totalCount));
    } else if (isSearching) {
        statusLabel->setText(tr("No results found for '%1'").arg(currentSearchText));
    } else {
        statusLabel->setText(tr("No users currently authorized"));
    }
}

void AuthorizationManagementDialog::updateButtonStates()
{
    revokeButton->setEnabled(authorizationList->currentItem() != nullptr);
    grantButton->setEnabled(hasValidDiscordId());
}

bool AuthorizationManagementDialog::hasValidDiscordId() const
{
    static const QRegularExpression wholeId(QStringLiteral("^\\d{17,20}$"));
    const QString discordId = discordIdEdit->text().trimmed();
    return !discordId.isEmpty() && wholeId.match(discordId).hasMatch();
}

bool AuthorizationManagementDialog::isListed(const QString &discordId) const
{
    for (int row = 0; row < authorizationList->count(); ++row) {
        if (authorizationList->item(row)->data(discordIdRole).toString() == discordId)
            return true;
    }
    return false;
}

void AuthorizationManagementDialog::showError(const QString &message)
{
    QMessageBox::critical(this, tr("Error"), message);
}

void AuthorizationManagementDialog::showSuccess(const QString &message)
{
    QMessageBox::information(this, tr("Success"), message);
}

} // namespace Quorix
