#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QList>
#include <QPointer>
#include <QString>
#include <QStringList>
#include <QWidget>

class QComboBox;
class QLabel;
class QLineEdit;
class QPushButton;
class QScrollArea;
class QStackedWidget;
class QTimer;

namespace Quorix {

class CardGridModel;
class CardGridView;
class DetailsDialogs;
class EnvironmentInstallFlow;
class OnlineResourcesAPI;
class OnlineResourcesPlugin;
class PluginHost;
class PublishFlow;
class PythonEnvironmentDialog;
class ResourceCard;
class ScreenTargetOpener;
class ScriptDownloadFlow;
class SettingsManager;
class ThemedToolButton;
class WeightsDownloadFlow;

// The plugin's page: a searchable, filterable, infinitely scrolling grid of catalogue cards for one resource kind
// at a time. Owns the one API client for its whole life and routes card actions to it.
class OnlineResourcesWidget : public QWidget
{
    Q_OBJECT

public:
    explicit OnlineResourcesWidget(OnlineResourcesPlugin *plugin, QWidget *parent = nullptr);

    OnlineResourcesAPI *api() const;

    // Replaces the host whose login changes this page follows.
    void setPluginHost(PluginHost *host);
    void setSettingsManager(SettingsManager *settingsManager);

    // Re-reads the host's login state, copies the credentials into the API client and reloads when the user changed.
    void checkAuthentication();
    // Re-applies the controls that depend on the user and the preferences.
    void refreshUserControls();
    void retranslateUi();
    void startPublishing(const QString &filePath);
    // Whether the signed-in user may moderate: their Discord ID is one of the configured administrators.
    bool isAdministrator() const;
    // Opens a dialog in a given state for the development host's --open ("script-details:NAME", ...).
    Q_INVOKABLE bool openTarget(const QString &target);
    // Shows the local Python environment manager's window, made on first use.
    PythonEnvironmentDialog *showPythonEnvironments();

Q_SIGNALS:
    void scriptDownloaded(const QString &filePath);
    void authenticationRequired();
    void errorOccurred(const QString &error);

private Q_SLOTS:
    void onSearchTextChanged(const QString &text);
    void onTypeFilterChanged(int index);
    void onSortChanged(int index);
    void onRefreshClicked();
    void onUploadClicked();
    void onCardClicked(const QString &scriptId);
    void onCardDownloadClicked(const QString &scriptId);
    void onScriptsLoaded(const QJsonObject &response);
    void onScriptDetailsLoaded(const QJsonObject &details);
    void onScriptDeleted(const QString &scriptId);
    void onScriptLikeToggled(const QString &scriptId, bool liked, int likeCount);
    void onUserLikedScriptsLoaded(const QStringList &scriptIds);
    void onUploadCompleted(const QString &scriptId);
    void onNetworkError(const QString &error);
    void updateLoadingState(bool loading);
    void onScrolledToBottom();
    void updateCardLayout();
    void onScriptDownloaded(const QString &tempFilePath);
    void onDownloadProgress(qint64 bytesReceived, qint64 bytesTotal);
    void showAuthorizationManagement(const QString &scriptId);
    void onQenvCardClicked(const QString &envId);
    void onQenvInstallClicked(const QString &envId);
    void onEnvironmentDownloaded(const QString &filePath);
    void onEnvironmentsLoaded(const QJsonObject &response);
    void onEnvironmentDetailsLoaded(const QJsonObject &details);
    void onEnvironmentDeleted(const QString &envId);
    void onEnvironmentLikeToggled(const QString &envId, bool liked, int likeCount);
    void onOnnxCardClicked(const QString &weightsId);
    void onOnnxDownloadClicked(const QString &weightsId);
    void onWeightsLoaded(const QJsonObject &response);
    void onWeightsDetailsLoaded(const QJsonObject &details);
    void onWeightsDownloaded(const QString &filePath, const QString &uuid);
    void onWeightsDeleted(const QString &weightsId);
    void onWeightsLikeToggled(const QString &weightsId, bool liked, int likeCount);

protected:
    void resizeEvent(QResizeEvent *event) override;
    void showEvent(QShowEvent *event) override;

private:
    enum class Mode { Scripts, Environments, Weights };

    void buildLayout();
    // A caption for a control that shows only its value, tied to it as its buddy.
    QLabel *createCaption(QWidget *field);
    void connectApi();
    Mode mode() const;
    void resetPaging();
    void loadFirstPage();
    void loadScripts();
    void loadEnvironments();
    void loadWeights();
    void loadNextPage();
    void onScrollValueChanged(int value);
    void onSafetyTimeout();
    void onLoadingAnimationTick();
    void onUserBanned(const QString &discordId);
    void finishLoading();
    void clearGrid();
    void showGridMessage(const QString &message);
    QJsonObject listParameters(Mode listMode) const;
    bool answersPageInFlight(const QJsonObject &response) const;
    void acceptPage(const QJsonArray &items);
    ResourceCard *createCard(const QJsonObject &item, QWidget *parent);
    void prepareCard(ResourceCard *card) const;
    bool showsScriptCards() const;
    void showAuthenticationRequired();
    void publish(const QString &presetPath);
    void connectDetailsDialogs();

    OnlineResourcesAPI *apiClient = nullptr;
    ScriptDownloadFlow *scriptDownloads = nullptr;
    WeightsDownloadFlow *weightsDownloads = nullptr;
    EnvironmentInstallFlow *environmentInstalls = nullptr;
    QPointer<PluginHost> pluginHost;
    SettingsManager *settings = nullptr;

    int currentPage = 1;
    int totalPages = 1;
    int totalItems = 0;
    QString searchText;
    QString searchTextInFlight;
    QString currentType = QStringLiteral("all");
    QString currentSort = QStringLiteral("popular");
    bool isLoading = false;
    bool isLoadingMore = false;
    bool hasMore = true;
    bool isAuthenticated = false;
    QString lastDiscordId;
    CardGridModel *loadedItems = nullptr;

    QLabel *titleLabel = nullptr;
    QLineEdit *searchEdit = nullptr;
    QComboBox *typeFilter = nullptr;
    QComboBox *sortCombo = nullptr;
    QLabel *typeLabel = nullptr;
    QLabel *sortLabel = nullptr;
    ThemedToolButton *refreshButton = nullptr;
    QPushButton *uploadButton = nullptr;
    QPushButton *environmentsButton = nullptr;
    PythonEnvironmentDialog *environmentDialog = nullptr;
    QStackedWidget *stack = nullptr;
    QScrollArea *scrollArea = nullptr;
    CardGridView *grid = nullptr;
    QLabel *loadingIndicator = nullptr;
    QTimer *loadingTimer = nullptr;
    QTimer *safetyTimer = nullptr;
    ScreenTargetOpener *targetOpener = nullptr;
    PublishFlow *publishFlow = nullptr;
    DetailsDialogs *detailsDialogs = nullptr;
};

} // namespace Quorix
