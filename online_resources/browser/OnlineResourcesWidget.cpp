#include "OnlineResourcesWidget.h"

#include "CardGridModel.h"
#include "CardGridView.h"
#include "DetailsDialogs.h"
#include "EnvironmentInstallFlow.h"
#include "OnnxCard.h"
#include "QenvCard.h"
#include "ResourceCard.h"
#include "ScreenTargetOpener.h"
#include "ScriptCard.h"
#include "ScriptDownloadFlow.h"
#include "WeightsDownloadFlow.h"
#include "access/AuthorizationManagementDialog.h"
#include "api/OnlineResourcesAPI.h"
#include "core/Configuration.h"
#include "publish/PublishFlow.h"
#include "pyenv/PythonEnvironmentManager.h"
#include "pyenv/dialogs/PythonEnvironmentDialog.h"

#include <PluginHost.h>
#include <SettingsManager.h>
#include <ThemedToolButton.h>

#include <QComboBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QScrollArea>
#include <QScrollBar>
#include <QStackedWidget>
#include <QTimer>
#include <QVBoxLayout>

namespace Quorix {

namespace {

constexpr int pageSize = 24;
constexpr int scrollThreshold = 100;
constexpr int safetyTimeoutMilliseconds = 5000;

// Shared by every page in the process, so two pages animate in step.
int loadingFrame = 1;

const QString cannotConnect()
{
    return OnlineResourcesWidget::tr("Cannot connect to server");
}

} // namespace

OnlineResourcesWidget::OnlineResourcesWidget(OnlineResourcesPlugin *, QWidget *parent)
    : QWidget(parent)
    , apiClient(new OnlineResourcesAPI(this))
    , scriptDownloads(new ScriptDownloadFlow(
              this, apiClient, [this] { return pluginHost.data(); }, [this] { return settings; }))
    , weightsDownloads(new WeightsDownloadFlow(this, apiClient))
    , environmentInstalls(new EnvironmentInstallFlow(this, apiClient))
    , loadedItems(new CardGridModel(this))
    , publishFlow(new PublishFlow(apiClient, this))
{
    connect(scriptDownloads, &ScriptDownloadFlow::scriptSaved, this, &OnlineResourcesWidget::scriptDownloaded);
    buildLayout();
    connectApi();
    connectDetailsDialogs();
    refreshUserControls();
}

OnlineResourcesAPI *OnlineResourcesWidget::api() const
{
    return apiClient;
}

bool OnlineResourcesWidget::openTarget(const QString &target)
{
    if (!targetOpener)
        targetOpener = new ScreenTargetOpener(this);
    return targetOpener->open(target);
}

PythonEnvironmentDialog *OnlineResourcesWidget::showPythonEnvironments()
{
    if (!environmentDialog)
        environmentDialog = new PythonEnvironmentDialog(PythonEnvironmentManager::instance(), this);
    environmentDialog->show();
    environmentDialog->raise();
    environmentDialog->activateWindow();
    return environmentDialog;
}

void OnlineResourcesWidget::buildLayout()
{
    auto *layout = new QVBoxLayout(this);
    layout->setSpacing(10);
    layout->setContentsMargins(10, 10, 10, 10);

    auto *header = new QHBoxLayout;
    titleLabel = new QLabel(tr("Online Resources"), this);
    titleLabel->setObjectName(QStringLiteral("titleLabel"));
    titleLabel->setStyleSheet(QStringLiteral("QLabel { font-size: 18px; font-weight: bold; }"));
    header->addWidget(titleLabel);
    header->addStretch();
    layout->addLayout(header);

    auto *controls = new QHBoxLayout;
    searchEdit = new QLineEdit(this);
    searchEdit->setObjectName(QStringLiteral("searchEdit"));
    controls->addWidget(searchEdit, 1);
    // The boxes show only their current item; the captions say what they choose, on screen and to screen readers.
    typeFilter = new QComboBox(this);
    typeFilter->setObjectName(QStringLiteral("typeFilter"));
    typeFilter->addItems({QString(), QStringLiteral("GPC3"), QStringLiteral("Python"), QStringLiteral("QENV"),
                          QStringLiteral("ONNX")});
    typeLabel = createCaption(typeFilter);
    controls->addWidget(typeLabel);
    controls->addWidget(typeFilter);
    sortCombo = new QComboBox(this);
    sortCombo->setObjectName(QStringLiteral("sortCombo"));
    sortCombo->addItems({QString(), QString(), QString(), QString()});
    sortLabel = createCaption(sortCombo);
    controls->addWidget(sortLabel);
    controls->addWidget(sortCombo);
    refreshButton = new ThemedToolButton(QStringLiteral(":/icons/refresh.svg"), this);
    refreshButton->setObjectName(QStringLiteral("refreshButton"));
    refreshButton->setFixedSize(30, 30);
    controls->addWidget(refreshButton);
    uploadButton = new QPushButton(this);
    uploadButton->setObjectName(QStringLiteral("uploadButton"));
    controls->addWidget(uploadButton);
    environmentsButton = new QPushButton(this);
    environmentsButton->setObjectName(QStringLiteral("environmentsButton"));
    controls->addWidget(environmentsButton);
    layout->addLayout(controls);

    stack = new QStackedWidget(this);
    scrollArea = new QScrollArea(stack);
    scrollArea->setWidgetResizable(true);
    scrollArea->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    scrollArea->setVerticalScrollBarPolicy(Qt::ScrollBarAsNeeded);
    grid = new CardGridView(
            loadedItems, scrollArea,
            [this](const QJsonObject &item, QWidget *parent) { return createCard(item, parent); },
            [this](ResourceCard *card) { prepareCard(card); });
    stack->addWidget(scrollArea);

    loadingIndicator = new QLabel(QStringLiteral("\u25CF\u25CF\u25CF"), stack);
    loadingIndicator->setObjectName(QStringLiteral("loadingIndicator"));
    loadingIndicator->setAlignment(Qt::AlignCenter);
    loadingIndicator->setStyleSheet(QStringLiteral("QLabel { font-size: 48px; color: #5865F2; }"));
    stack->addWidget(loadingIndicator);
    stack->setCurrentWidget(scrollArea);
    layout->addWidget(stack, 1);

    loadingTimer = new QTimer(this);
    loadingTimer->setInterval(500);
    connect(loadingTimer, &QTimer::timeout, this, &OnlineResourcesWidget::onLoadingAnimationTick);
    safetyTimer = new QTimer(this);
    safetyTimer->setSingleShot(true);
    safetyTimer->setInterval(safetyTimeoutMilliseconds);
    connect(safetyTimer, &QTimer::timeout, this, &OnlineResourcesWidget::onSafetyTimeout);

    connect(searchEdit, &QLineEdit::textChanged, this, &OnlineResourcesWidget::onSearchTextChanged);
    connect(typeFilter, &QComboBox::currentIndexChanged, this, &OnlineResourcesWidget::onTypeFilterChanged);
    connect(sortCombo, &QComboBox::currentIndexChanged, this, &OnlineResourcesWidget::onSortChanged);
    connect(refreshButton, &QToolButton::clicked, this, &OnlineResourcesWidget::onRefreshClicked);
    connect(uploadButton, &QPushButton::clicked, this, &OnlineResourcesWidget::onUploadClicked);
    connect(environmentsButton, &QPushButton::clicked, this, &OnlineResourcesWidget::showPythonEnvironments);
    connect(scrollArea->verticalScrollBar(), &QScrollBar::valueChanged, this,
            &OnlineResourcesWidget::onScrollValueChanged);

    retranslateUi();
}

void OnlineResourcesWidget::connectApi()
{
    using Api = OnlineResourcesAPI;
    connect(apiClient, &Api::scriptsLoaded, this, &OnlineResourcesWidget::onScriptsLoaded);
    // Every kind of upload ends here through the form, which the client's own upload signals would not cover.
    connect(publishFlow, &PublishFlow::published, this, &OnlineResourcesWidget::onUploadCompleted);
    connect(apiClient, &Api::scriptDetailsLoaded, this, &OnlineResourcesWidget::onScriptDetailsLoaded);
    connect(apiClient, &Api::scriptDeleted, this, &OnlineResourcesWidget::onScriptDeleted);
    connect(apiClient, &Api::scriptLikeToggled, this, &OnlineResourcesWidget::onScriptLikeToggled);
    connect(apiClient, &Api::userLikedScriptsLoaded, this, &OnlineResourcesWidget::onUserLikedScriptsLoaded);
    connect(apiClient, &Api::errorOccurred, this, &OnlineResourcesWidget::onNetworkError);
    connect(apiClient, &Api::scriptDownloaded, this, &OnlineResourcesWidget::onScriptDownloaded);
    connect(apiClient, &Api::downloadProgress, this, &OnlineResourcesWidget::onDownloadProgress);
    connect(apiClient, &Api::userBanned, this, &OnlineResourcesWidget::onUserBanned);
    connect(apiClient, &Api::environmentsLoaded, this, &OnlineResourcesWidget::onEnvironmentsLoaded);
    connect(apiClient, &Api::environmentDetailsLoaded, this, &OnlineResourcesWidget::onEnvironmentDetailsLoaded);
    connect(apiClient, &Api::environmentDownloaded, this, &OnlineResourcesWidget::onEnvironmentDownloaded);
    connect(apiClient, &Api::environmentDeleted, this, &OnlineResourcesWidget::onEnvironmentDeleted);
    connect(apiClient, &Api::environmentLikeToggled, this, &OnlineResourcesWidget::onEnvironmentLikeToggled);
    connect(apiClient, &Api::weightsLoaded, this, &OnlineResourcesWidget::onWeightsLoaded);
    connect(apiClient, &Api::weightsDetailsLoaded, this, &OnlineResourcesWidget::onWeightsDetailsLoaded);
    connect(apiClient, &Api::weightsDownloaded, this,
            [this](const QString &uuid, const QString &filePath) { onWeightsDownloaded(filePath, uuid); });
    connect(apiClient, &Api::weightsDeleted, this, &OnlineResourcesWidget::onWeightsDeleted);
    connect(apiClient, &Api::weightsLikeToggled, this, &OnlineResourcesWidget::onWeightsLikeToggled);
}

void OnlineResourcesWidget::connectDetailsDialogs()
{
    detailsDialogs = new DetailsDialogs(this, apiClient);
    connect(detailsDialogs, &DetailsDialogs::scriptDownloadRequested, this,
            &OnlineResourcesWidget::onCardDownloadClicked);
    connect(detailsDialogs, &DetailsDialogs::environmentInstallRequested, this,
            &OnlineResourcesWidget::onQenvInstallClicked);
    connect(detailsDialogs, &DetailsDialogs::weightsDownloadRequested, this,
            &OnlineResourcesWidget::onOnnxDownloadClicked);
    connect(detailsDialogs, &DetailsDialogs::manageAuthorizationsRequested, this,
            &OnlineResourcesWidget::showAuthorizationManagement);
}

void OnlineResourcesWidget::setPluginHost(PluginHost *host)
{
    if (pluginHost)
        disconnect(pluginHost, nullptr, this, nullptr);
    pluginHost = host;
    if (pluginHost) {
        connect(pluginHost, &PluginHost::authenticationChanged, this, &OnlineResourcesWidget::checkAuthentication);
        connect(pluginHost, &PluginHost::userChanged, this, &OnlineResourcesWidget::checkAuthentication);
    }
    checkAuthentication();
}

void OnlineResourcesWidget::setSettingsManager(SettingsManager *settingsManager)
{
    settings = settingsManager;
    apiClient->setSettings(settingsManager);
    refreshUserControls();
}

void OnlineResourcesWidget::checkAuthentication()
{
    const bool wasAuthenticated = isAuthenticated;
    const QString previousDiscordId = lastDiscordId;
    const auto resetForNewUser = [this] {
        loadedItems->setLikedIds({});
        resetPaging();
        isLoadingMore = false;
        clearGrid();
    };

    QString discordId;
    isAuthenticated = pluginHost && pluginHost->isUserAuthenticated();
    if (isAuthenticated) {
        discordId = pluginHost->getAuthenticatedDiscordId();
        if (!previousDiscordId.isEmpty() && previousDiscordId != discordId)
            resetForNewUser();
        const QString token = pluginHost->getAuthSessionToken();
        if (!token.isEmpty()) {
            apiClient->authToken = token;
            apiClient->discordUsername = pluginHost->getAuthenticatedUsername();
            apiClient->discordGlobalName = pluginHost->getAuthenticatedGlobalName();
            apiClient->discordAvatar = pluginHost->getAuthenticatedAvatarHash();
        }
    } else {
        if (wasAuthenticated)
            resetForNewUser();
        // A signed-out user's requests must not keep travelling under the previous user's session.
        apiClient->authToken.clear();
        apiClient->discordUsername.clear();
        apiClient->discordGlobalName.clear();
        apiClient->discordAvatar.clear();
    }
    lastDiscordId = discordId;
    refreshUserControls();

    const bool idChanged = discordId != previousDiscordId;
    if (isAuthenticated && (!wasAuthenticated || idChanged))
        apiClient->claimPendingAuthorizations();
    // The page comes back showing the kind the user chose; reloading the script list in another mode would clear
    // the grid and then ignore the reply.
    if (wasAuthenticated != isAuthenticated || idChanged || !grid->isShowingItems()) {
        resetPaging();
        isLoadingMore = false;
        loadFirstPage();
    }
}

QLabel *OnlineResourcesWidget::createCaption(QWidget *field)
{
    auto *caption = new QLabel(this);
    caption->setBuddy(field);
    // In a narrow window the captions give way first, so the page stays as narrow as the controls allow.
    caption->setMinimumWidth(1);
    return caption;
}

void OnlineResourcesWidget::refreshUserControls()
{
    const bool developerMode = settings && settings->value(QStringLiteral("developerMode"), false).toBool();
    uploadButton->setEnabled(developerMode);
    uploadButton->setToolTip(developerMode ? QString() : tr("Enable Developer Mode in Preferences to publish scripts"));
}

void OnlineResourcesWidget::retranslateUi()
{
    searchEdit->setPlaceholderText(tr("Search scripts..."));
    // Assistive tools read neither a placeholder nor an icon, so the search box and refresh are named here.
    searchEdit->setAccessibleName(tr("Search"));
    searchEdit->setAccessibleDescription(tr("Filters the list as you type"));
    typeLabel->setText(tr("Type:"));
    sortLabel->setText(tr("Sort by:"));
    scrollArea->setAccessibleName(tr("Resources"));
    refreshButton->setToolTip(tr("Refresh"));
    refreshButton->setAccessibleName(tr("Refresh"));
    refreshButton->setAccessibleDescription(tr("Loads the list again from the server"));
    uploadButton->setText(tr("Publish Script"));
    environmentsButton->setText(tr("Python Environments..."));
    typeFilter->setItemText(0, tr("All Types"));
    sortCombo->setItemText(0, tr("Popular"));
    sortCombo->setItemText(1, tr("Newest"));
    sortCombo->setItemText(2, tr("Oldest"));
    sortCombo->setItemText(3, tr("My Liked"));
}

void OnlineResourcesWidget::startPublishing(const QString &filePath)
{
    publish(filePath);
}

void OnlineResourcesWidget::publish(const QString &presetPath)
{
    isAuthenticated = pluginHost && pluginHost->isUserAuthenticated();
    if (!isAuthenticated) {
        showAuthenticationRequired();
        return;
    }
    const QString globalName = pluginHost->getAuthenticatedGlobalName();
    publishFlow->start(presetPath, PublishFlow::scriptsDirectory(settings),
                       globalName.isEmpty() ? pluginHost->getAuthenticatedUsername() : globalName);
}

bool OnlineResourcesWidget::isAdministrator() const
{
    return pluginHost && pluginHost->isUserAuthenticated()
           && Configuration::administratorIds().contains(pluginHost->getAuthenticatedDiscordId());
}

void OnlineResourcesWidget::onSearchTextChanged(const QString &text)
{
    searchText = text;
    resetPaging();
    loadFirstPage();
}

void OnlineResourcesWidget::onTypeFilterChanged(int index)
{
    static const QStringList types = {QStringLiteral("all"), QStringLiteral("gpc3"), QStringLiteral("py"),
                                      QStringLiteral("qenv"), QStringLiteral("onnx")};
    currentType = index >= 0 && index < types.size() ? types.at(index) : types.first();
    resetPaging();
    apiClient->cancelPendingRequests();
    isLoading = false;
    isLoadingMore = false;
    clearGrid();
    loadFirstPage();
}

void OnlineResourcesWidget::onSortChanged(int index)
{
    static const QStringList sorts = {QStringLiteral("popular"), QStringLiteral("newest"), QStringLiteral("oldest"),
                                      QStringLiteral("my_liked")};
    currentSort = index >= 0 && index < sorts.size() ? sorts.at(index) : sorts.first();
    resetPaging();
    loadFirstPage();
}

void OnlineResourcesWidget::onRefreshClicked()
{
    resetPaging();
    loadFirstPage();
}

void OnlineResourcesWidget::onUploadClicked()
{
    publish(QString());
}

void OnlineResourcesWidget::onCardClicked(const QString &scriptId)
{
    detailsDialogs->open(DetailsDialogs::Kind::Script, scriptId, lastDiscordId, isAdministrator());
}

void OnlineResourcesWidget::onCardDownloadClicked(const QString &scriptId)
{
    if (apiClient)
        scriptDownloads->start(scriptId);
}

// A list reply is taken only for the page last asked for: a next page asked for before a refresh, a new sort or a
// new search may still arrive, before or after the new first page, and belongs to a list that is gone.
bool OnlineResourcesWidget::answersPageInFlight(const QJsonObject &response) const
{
    const QJsonObject pagination = response.value(QLatin1String("pagination")).toObject();
    return pagination.value(QLatin1String("current_page")).toInt(currentPage) == currentPage;
}

// A first page replaces the grid, any later page extends it, always in server order.
void OnlineResourcesWidget::acceptPage(const QJsonArray &items)
{
    if (currentPage == 1) {
        loadedItems->replace(items);
        scrollArea->verticalScrollBar()->setValue(0);
    } else {
        loadedItems->append(items);
    }
}

void OnlineResourcesWidget::onScriptsLoaded(const QJsonObject &response)
{
    if (mode() != Mode::Scripts) {
        finishLoading();
        return;
    }
    if (!answersPageInFlight(response))
        return;
    if (!response.value(QLatin1String("success")).toBool()) {
        finishLoading();
        const QString error = response.value(QLatin1String("error")).toString();
        showGridMessage(error.isEmpty() ? cannotConnect() : error);
        return;
    }

    const QJsonArray items = response.value(QLatin1String("scripts")).toArray();
    const QJsonObject pagination = response.value(QLatin1String("pagination")).toObject();
    totalItems = pagination.value(QLatin1String("total_scripts")).toInt(0);
    totalPages = pagination.value(QLatin1String("total_pages")).toInt(0);
    currentPage = pagination.value(QLatin1String("current_page")).toInt(0);
    hasMore = currentPage < totalPages;
    acceptPage(items);
    finishLoading();
    if (totalItems == 0)
        showGridMessage(tr("No scripts available - Be the first to upload!"));
}

void OnlineResourcesWidget::onScriptDetailsLoaded(const QJsonObject &details)
{
    detailsDialogs->showDetails(DetailsDialogs::Kind::Script, details,
                                loadedItems->isLiked(details.value(QLatin1String("id")).toVariant().toString()));
}

// A deleted resource may be on any page of the grid, which shows every kind outside the QENV and ONNX modes.
void OnlineResourcesWidget::onScriptDeleted(const QString &)
{
    resetPaging();
    loadFirstPage();
}

void OnlineResourcesWidget::onScriptLikeToggled(const QString &scriptId, bool liked, int likeCount)
{
    loadedItems->setLikeState(scriptId, liked, likeCount);
    detailsDialogs->showLikeState(DetailsDialogs::Kind::Script, scriptId, liked, likeCount);
}

void OnlineResourcesWidget::onUserLikedScriptsLoaded(const QStringList &scriptIds)
{
    loadedItems->setLikedIds(scriptIds);
}

void OnlineResourcesWidget::onUploadCompleted(const QString &)
{
    resetPaging();
    loadFirstPage();
}

void OnlineResourcesWidget::onNetworkError(const QString &error)
{
    finishLoading();
    const DetailsDialogs::ErrorRoute route = detailsDialogs->routeError(error);
    if (route != DetailsDialogs::ErrorRoute::NotDetails) {
        if (route == DetailsDialogs::ErrorRoute::NotFound) {
            resetPaging();
            loadFirstPage();
        }
        emit errorOccurred(error);
        return;
    }
    if (error.contains(QLatin1String("Delete failed"), Qt::CaseInsensitive)) {
        QMessageBox::critical(this, tr("Delete Failed"), error, QMessageBox::Ok);
    } else if (!showsScriptCards()) {
        showGridMessage(error.contains(QLatin1String("Network error"), Qt::CaseInsensitive)
                                ? cannotConnect()
                                : tr("Error: %1").arg(error));
    }
    if (error.contains(QLatin1String("401")) || error.contains(QLatin1String("authentication"), Qt::CaseInsensitive))
        isAuthenticated = false;
    emit errorOccurred(error);
}

void OnlineResourcesWidget::updateLoadingState(bool loading)
{
    isLoading = loading;
    refreshButton->setEnabled(!loading);
    if (loading) {
        searchTextInFlight = searchText;
        if (currentPage == 1)
            clearGrid();
        stack->setCurrentWidget(loadingIndicator);
        loadingTimer->start();
        safetyTimer->start();
    } else {
        loadingTimer->stop();
        stack->setCurrentWidget(scrollArea);
    }
}

void OnlineResourcesWidget::onScrolledToBottom()
{
    if (isLoading || isLoadingMore || !hasMore)
        return;
    loadNextPage();
}

void OnlineResourcesWidget::updateCardLayout()
{
    grid->reflow();
}

void OnlineResourcesWidget::onScriptDownloaded(const QString &tempFilePath)
{
    scriptDownloads->place(tempFilePath);
}

void OnlineResourcesWidget::onDownloadProgress(qint64 bytesReceived, qint64 bytesTotal)
{
    scriptDownloads->showProgress(bytesReceived, bytesTotal);
}

void OnlineResourcesWidget::showAuthorizationManagement(const QString &scriptId)
{
    const QJsonObject item = loadedItems->itemWithId(scriptId);
    const QString name = item.isEmpty() ? tr("Unknown Script") : item.value(QLatin1String("name")).toString();
    auto *dialog = new AuthorizationManagementDialog(apiClient, scriptId, name, this);
    dialog->loadAuthorizations();
    connect(dialog, &AuthorizationManagementDialog::authorizationChanged, this,
            &OnlineResourcesWidget::onRefreshClicked);
    // Both first-page requests are identical, so whichever answers last shows the same list.
    dialog->loadAuthorizations();
    dialog->setModal(true);
    dialog->show();
}

void OnlineResourcesWidget::onQenvCardClicked(const QString &envId)
{
    detailsDialogs->open(DetailsDialogs::Kind::Environment, envId, lastDiscordId, isAdministrator());
}

void OnlineResourcesWidget::onQenvInstallClicked(const QString &envId)
{
    environmentInstalls->start(envId);
}

void OnlineResourcesWidget::onEnvironmentDownloaded(const QString &filePath)
{
    environmentInstalls->install(filePath);
}

void OnlineResourcesWidget::onEnvironmentsLoaded(const QJsonObject &response)
{
    if (mode() != Mode::Environments) {
        finishLoading();
        return;
    }
    if (!answersPageInFlight(response))
        return;
    if (!response.value(QLatin1String("success")).toBool()) {
        finishLoading();
        const QString error = response.value(QLatin1String("error")).toString();
        showGridMessage(error.isEmpty() ? cannotConnect() : error);
        return;
    }

    const QJsonArray items = response.value(QLatin1String("environments")).toArray();
    const QJsonObject pagination = response.value(QLatin1String("pagination")).toObject();
    totalPages = pagination.value(QLatin1String("total_pages")).toInt(1);
    const int total = pagination.value(QLatin1String("total_environments")).toInt(int(items.size()));
    hasMore = currentPage < totalPages;
    acceptPage(items);
    updateCardLayout();
    finishLoading();
    if (total == 0)
        showGridMessage(tr("No environments available - Be the first to upload!"));
}

void OnlineResourcesWidget::onEnvironmentDetailsLoaded(const QJsonObject &details)
{
    detailsDialogs->showDetails(DetailsDialogs::Kind::Environment, details,
                                loadedItems->isLiked(details.value(QLatin1String("id")).toVariant().toString()));
}

void OnlineResourcesWidget::onEnvironmentDeleted(const QString &)
{
    if (mode() == Mode::Weights)
        return;
    resetPaging();
    loadFirstPage();
}

void OnlineResourcesWidget::onEnvironmentLikeToggled(const QString &envId, bool liked, int likeCount)
{
    loadedItems->setLikeState(envId, liked, likeCount);
    detailsDialogs->showLikeState(DetailsDialogs::Kind::Environment, envId, liked, likeCount);
}

void OnlineResourcesWidget::onOnnxCardClicked(const QString &weightsId)
{
    detailsDialogs->open(DetailsDialogs::Kind::Weights, weightsId, lastDiscordId, isAdministrator());
}

void OnlineResourcesWidget::onOnnxDownloadClicked(const QString &weightsId)
{
    weightsDownloads->start(weightsId, loadedItems->itemWithId(weightsId));
}

void OnlineResourcesWidget::onWeightsLoaded(const QJsonObject &response)
{
    if (mode() != Mode::Weights) {
        finishLoading();
        return;
    }
    if (!answersPageInFlight(response))
        return;
    if (!response.value(QLatin1String("success")).toBool()) {
        finishLoading();
        showGridMessage(tr("Failed to load weights: %1").arg(response.value(QLatin1String("error")).toString()));
        return;
    }

    const QJsonArray items = response.value(QLatin1String("weights")).toArray();
    const QJsonObject pagination = response.value(QLatin1String("pagination")).toObject();
    totalPages = pagination.value(QLatin1String("total_pages")).toInt(1);
    currentPage = pagination.value(QLatin1String("current_page")).toInt(1);
    const int total = pagination.value(QLatin1String("total_weights")).toInt(int(items.size()));
    hasMore = currentPage < totalPages;
    acceptPage(items);
    updateCardLayout();
    finishLoading();
    if (total == 0)
        showGridMessage(tr("No weights available - Be the first to upload!"));
}

void OnlineResourcesWidget::onWeightsDetailsLoaded(const QJsonObject &details)
{
    detailsDialogs->showDetails(DetailsDialogs::Kind::Weights, details,
                                loadedItems->isLiked(details.value(QLatin1String("id")).toVariant().toString()));
}

void OnlineResourcesWidget::onWeightsDownloaded(const QString &filePath, const QString &uuid)
{
    weightsDownloads->save(filePath, uuid);
}

void OnlineResourcesWidget::onWeightsDeleted(const QString &)
{
    if (mode() == Mode::Environments)
        return;
    resetPaging();
    loadFirstPage();
}

void OnlineResourcesWidget::onWeightsLikeToggled(const QString &weightsId, bool liked, int likeCount)
{
    loadedItems->setLikeState(weightsId, liked, likeCount);
    detailsDialogs->showLikeState(DetailsDialogs::Kind::Weights, weightsId, liked, likeCount);
}

void OnlineResourcesWidget::resizeEvent(QResizeEvent *event)
{
    QWidget::resizeEvent(event);
    QTimer::singleShot(100, this, &OnlineResourcesWidget::updateCardLayout);
}

void OnlineResourcesWidget::showEvent(QShowEvent *event)
{
    QWidget::showEvent(event);
    QTimer::singleShot(50, this, &OnlineResourcesWidget::updateCardLayout);
    checkAuthentication();
}

OnlineResourcesWidget::Mode OnlineResourcesWidget::mode() const
{
    if (currentType == QLatin1String("qenv"))
        return Mode::Environments;
    if (currentType == QLatin1String("onnx"))
        return Mode::Weights;
    return Mode::Scripts;
}

void OnlineResourcesWidget::resetPaging()
{
    currentPage = 1;
    hasMore = true;
    loadedItems->clear();
}

void OnlineResourcesWidget::loadFirstPage()
{
    switch (mode()) {
    case Mode::Environments:
        loadEnvironments();
        break;
    case Mode::Weights:
        loadWeights();
        break;
    case Mode::Scripts:
        loadScripts();
        break;
    }
}

// The query of every list request; only scripts are filtered by type.
QJsonObject OnlineResourcesWidget::listParameters(Mode listMode) const
{
    QJsonObject params{{QStringLiteral("page"), currentPage},
                       {QStringLiteral("limit"), pageSize},
                       {QStringLiteral("sort"), currentSort},
                       {QStringLiteral("search"), searchText}};
    if (listMode == Mode::Scripts)
        params.insert(QStringLiteral("type"), currentType);
    return params;
}

void OnlineResourcesWidget::loadScripts()
{
    if (!apiClient || isLoading)
        return;
    updateLoadingState(true);
    if (isAuthenticated)
        apiClient->fetchUserLikedScripts();
    apiClient->fetchScripts(listParameters(Mode::Scripts));
}

void OnlineResourcesWidget::loadEnvironments()
{
    if (!apiClient || isLoading)
        return;
    updateLoadingState(true);
    apiClient->loadEnvironments(listParameters(Mode::Environments));
}

void OnlineResourcesWidget::loadWeights()
{
    if (!apiClient || isLoading)
        return;
    updateLoadingState(true);
    apiClient->fetchWeights(listParameters(Mode::Weights));
}

void OnlineResourcesWidget::loadNextPage()
{
    isLoadingMore = true;
    ++currentPage;
    switch (mode()) {
    case Mode::Environments:
        apiClient->loadEnvironments(listParameters(Mode::Environments));
        break;
    case Mode::Weights:
        apiClient->fetchWeights(listParameters(Mode::Weights));
        break;
    case Mode::Scripts:
        apiClient->fetchScripts(listParameters(Mode::Scripts));
        break;
    }
}

void OnlineResourcesWidget::onScrollValueChanged(int value)
{
    // Clearing the list for a refresh collapses the range to 0, which is no bottom reached: a next page asked
    // for then would arrive after, or instead of, the first.
    if (loadedItems->count() > 0 && value >= scrollArea->verticalScrollBar()->maximum() - scrollThreshold)
        onScrolledToBottom();
}

void OnlineResourcesWidget::onSafetyTimeout()
{
    if (!isLoading)
        return;
    updateLoadingState(false);
    showGridMessage(cannotConnect());
}

void OnlineResourcesWidget::onLoadingAnimationTick()
{
    loadingIndicator->setText(QString(loadingFrame, QChar(0x25CF)));
    loadingFrame = loadingFrame % 3 + 1;
}

void OnlineResourcesWidget::onUserBanned(const QString &)
{
    QMessageBox::information(this, tr("User Banned"),
                             tr("The user has been banned from uploading. Their existing uploads are now hidden."),
                             QMessageBox::Ok);
    resetPaging();
    loadFirstPage();
}

void OnlineResourcesWidget::finishLoading()
{
    const bool firstPageFinished = isLoading;
    updateLoadingState(false);
    isLoadingMore = false;
    // Keystrokes typed while a first page was loading were not sent on their own; the last text must still win.
    if (firstPageFinished && searchText != searchTextInFlight) {
        resetPaging();
        loadFirstPage();
    }
}

void OnlineResourcesWidget::clearGrid()
{
    loadedItems->clear();
}

void OnlineResourcesWidget::showGridMessage(const QString &message)
{
    grid->showMessage(message);
}

ResourceCard *OnlineResourcesWidget::createCard(const QJsonObject &item, QWidget *parent)
{
    const QString kind = CardGridView::cardKind(item);
    if (kind == QLatin1String("qenv")) {
        auto *card = new QenvCard(item, parent);
        connect(card, &QenvCard::clicked, this, &OnlineResourcesWidget::onQenvCardClicked);
        connect(card, &QenvCard::installClicked, this, &OnlineResourcesWidget::onQenvInstallClicked);
        connect(card, &QenvCard::likeClicked, apiClient, &OnlineResourcesAPI::toggleEnvironmentLike);
        return card;
    }
    if (kind == QLatin1String("onnx")) {
        auto *card = new OnnxCard(item, parent);
        connect(card, &OnnxCard::clicked, this, &OnlineResourcesWidget::onOnnxCardClicked);
        connect(card, &OnnxCard::downloadClicked, this, &OnlineResourcesWidget::onOnnxDownloadClicked);
        connect(card, &OnnxCard::likeClicked, apiClient, &OnlineResourcesAPI::toggleWeightsLike);
        return card;
    }
    auto *card = new ScriptCard(item, parent);
    connect(card, &ScriptCard::clicked, this, &OnlineResourcesWidget::onCardClicked);
    connect(card, &ScriptCard::downloadClicked, this, &OnlineResourcesWidget::onCardDownloadClicked);
    connect(card, &ScriptCard::likeClicked, apiClient, &OnlineResourcesAPI::toggleLike);
    return card;
}

void OnlineResourcesWidget::prepareCard(ResourceCard *card) const
{
    if (qobject_cast<QenvCard *>(card))
        card->setLikeEnabled(isAuthenticated, tr("Log in to like environments"));
    else if (qobject_cast<OnnxCard *>(card))
        card->setLikeEnabled(isAuthenticated, tr("Log in to like weights"));
    else
        card->setLikeEnabled(isAuthenticated, tr("Log in to like scripts"));
}

// Errors replace the grid only while it shows no script card, whatever else it shows.
bool OnlineResourcesWidget::showsScriptCards() const
{
    if (!grid->isShowingItems())
        return false;
    for (int index = 0; index < loadedItems->count(); ++index) {
        if (CardGridView::cardKind(loadedItems->item(index)) == QLatin1String("script"))
            return true;
    }
    return false;
}

void OnlineResourcesWidget::showAuthenticationRequired()
{
    QMessageBox::warning(this, tr("Authentication Required"),
                         tr("Please log in via the Account page in Preferences to use Online Resources."),
                         QMessageBox::Ok);
    emit authenticationRequired();
}

} // namespace Quorix
