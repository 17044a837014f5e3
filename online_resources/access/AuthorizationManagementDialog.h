#pragma once

#include <QDialog>
#include <QJsonArray>
#include <QJsonObject>
#include <QString>
#include <QStringList>

class QCheckBox;
class QDateTimeEdit;
class QLabel;
class QLineEdit;
class QListWidget;
class QPlainTextEdit;
class QPushButton;
class QTimer;

namespace Quorix {

class OnlineResourcesAPI;

// The author's view of one resource's access list: server-side search, paging by 500, single grants with an
// optional expiry, revocation, and export or bulk import of Discord IDs. Deletes itself when closed.
class AuthorizationManagementDialog : public QDialog
{
    Q_OBJECT

public:
    AuthorizationManagementDialog(OnlineResourcesAPI *api, const QString &resourceId, const QString &resourceName,
                                  QWidget *parent = nullptr);

    // Back to the full list: clears the search and asks for the first page.
    void loadAuthorizations();

Q_SIGNALS:
    void authorizationChanged();

private Q_SLOTS:
    void onAddAuthorizationClicked();
    void onRevokeAuthorizationClicked();
    void onAuthorizationItemSelectionChanged();
    void onAuthorizationsLoaded(const QJsonObject &response);
    void onAuthorizationGranted(const QJsonObject &response);
    void onAuthorizationRevoked(const QJsonObject &response);
    void onExpirationToggled(bool checked);
    void onRefreshClicked();
    void onSearchTextChanged(const QString &text);
    void onSearchTimeout();
    void onLoadMoreClicked();
    void onExportClicked();
    void onImportClicked();
    void onBulkAuthorizationsGranted(const QJsonObject &response);

protected:
    void changeEvent(QEvent *event) override;

private:
    void buildLayout();
    void connectSignals();
    void applyIcons();
    void requestPage(int offset, const QString &search);
    void clearLoaded();
    void addRow(const QJsonObject &record);
    void updateStatusLabel();
    void updateButtonStates();
    bool hasValidDiscordId() const;
    bool isListed(const QString &discordId) const;
    void writeExport(const QString &fileName);
    void confirmImport(const QStringList &discordIds);
    void showError(const QString &message);
    void showSuccess(const QString &message);

    OnlineResourcesAPI *api = nullptr;
    QString scriptId;
    QString scriptName;
    QJsonArray authorizations;
    int loadedCount = 0;
    int pageSize = 500;
    int totalCount = 0;
    bool hasMore = false;
    bool isSearching = false;
    QString currentSearchText;
    QTimer *searchTimer = nullptr;

    QLabel *headerLabel = nullptr;
    QLineEdit *searchEdit = nullptr;
    QListWidget *authorizationList = nullptr;
    QPushButton *loadMoreButton = nullptr;
    QPushButton *refreshButton = nullptr;
    QPushButton *revokeButton = nullptr;
    QPushButton *exportButton = nullptr;
    QPushButton *importButton = nullptr;
    QLineEdit *discordIdEdit = nullptr;
    QPlainTextEdit *notesEdit = nullptr;
    QCheckBox *expiresCheckBox = nullptr;
    QDateTimeEdit *expiresDateEdit = nullptr;
    QPushButton *grantButton = nullptr;
    QLabel *statusLabel = nullptr;
    QPushButton *closeButton = nullptr;
};

} // namespace Quorix
