#include "OnlineResourcesWidget.h"

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
#include <QGridLayout>
#include <QHBoxLayout>
#include <QHash>
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
constexpr int cardWidth = 280;
constexpr int gridSpacing = 15;
constexpr int maximumColumns = 6;
constexpr int scrollThreshold = 100;
constexpr int safetyTimeoutMilliseconds = 5000;

// Shared by every page in the process, so two pages animate in step.
int loadingFrame = 1;

const QString cannotConnect()
{
    return OnlineResourcesWidget::tr("Cannot connect to server");
}

QJsonObject itemWithId(const QJsonArray &items, const QString &id)
{
    for (const QJsonValue &item : items) {
        if (item.toObject().value(QLatin1String("id")).toString() == id)
            return item.toObject();
    }
    return {};
}

} // namespace

OnlineResourcesWidget::OnlineResourcesWidget(OnlineResourcesPlugin *, QWidget *parent)
    : QWidget(parent)
    , apiClient(new OnlineResourcesAPI(this))
    , scriptDownloads(new ScriptDownloadFlow(
              this, apiClient, [this] { return pluginHost.data(); }, [this] { return settings; }))
    , weightsDownloads(new WeightsDownloadFlow(this, apiClient))
    , environmentInstalls(new EnvironmentInstallFlow(this, apiClient))
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
    gridContainer = new QWidget(scrollArea);
    cardGrid = new QGridLayout(gridContainer);
    cardGrid->setSpacing(gridSpacing);
    cardGrid->setContentsMargins(10, 10, 10, 10);
    scrollArea->setWidget(gridContainer);
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
        likedScriptIds.clear();
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
    if (wasAuthenticated != isAuthenticated || idChanged || cardCount() == 0) {
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

// A first page replaces the grid, any later page extends it, always in server order.
void OnlineResourcesWidget::acceptPage(const QJsonArray &items)
{
    if (currentPage == 1) {
        allItems = items;
        clearGrid();
        scrollArea->verticalScrollBar()->setValue(0);
    } else {
        for (const QJsonValue &item : items)
            allItems.append(item);
    }
    addCards(items);
}

void OnlineResourcesWidget::onScriptsLoaded(const QJsonObject &response)
{
    if (mode() != Mode::Scripts) {
        finishLoading();
        return;
    }
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
                                likedScriptIds.contains(details.value(QLatin1String("id")).toVariant().toString()));
}

// A deleted resource may be on any page of the grid, which shows every kind outside the QENV and ONNX modes.
void OnlineResourcesWidget::onScriptDeleted(const QString &)
{
    resetPaging();
    loadFirstPage();
}

void OnlineResourcesWidget::onScriptLikeToggled(const QString &scriptId, bool liked, int likeCount)
{
    rememberLike(scriptId, liked);
    detailsDialogs->showLikeState(DetailsDialogs::Kind::Script, scriptId, liked, likeCount);
    for (ScriptCard *card : std::as_const(scriptCards)) {
        if (card->scriptId() != scriptId)
            continue;
        card->setLiked(liked);
        card->setLikeCount(likeCount);
        card->updateLikeButton();
    }
}

void OnlineResourcesWidget::onUserLikedScriptsLoaded(const QStringList &scriptIds)
{
    likedScriptIds = scriptIds;
    for (ScriptCard *card : std::as_const(scriptCards)) {
        card->setLiked(likedScriptIds.contains(card->scriptId()));
        card->updateLikeButton();
    }
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
    } else if (scriptCards.isEmpty()) {
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
    const int columns = calculateColumns();
    QList<QWidget *> ordered;
    if (mode() == Mode::Environments) {
        for (QenvCard *card : std::as_const(qenvCards)) {
            if (card) {
                cardGrid->removeWidget(card);
                ordered.append(card);
            }
        }
    } else if (mode() == Mode::Weights) {
        for (OnnxCard *card : std::as_const(onnxCards)) {
            if (card) {
                cardGrid->removeWidget(card);
                ordered.append(card);
            }
        }
    } else {
        QHash<QString, QWidget *> byId;
        const auto collect = [this, &byId](const auto &cards) {
            for (ResourceCard *card : cards) {
                cardGrid->removeWidget(card);
                byId.insert(card->resourceId(), card);
            }
        };
        collect(scriptCards);
        collect(qenvCards);
        collect(onnxCards);
        for (const QJsonValue &item : std::as_const(allItems)) {
            if (QWidget *card = byId.value(item.toObject().value(QLatin1String("id")).toString()))
                ordered.append(card);
        }
    }
    int position = 0;
    for (QWidget *card : std::as_const(ordered)) {
        cardGrid->addWidget(card, position / columns, position % columns);
        ++position;
    }
    stretchAfter(ordered.isEmpty() ? -1 : (position - 1) / columns, columns);
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
    QString name = tr("Unknown Script");
    for (const QJsonValue &item : std::as_const(allItems)) {
        if (item.toObject().value(QLatin1String("id")).toString() == scriptId) {
            name = item.toObject().value(QLatin1String("name")).toString();
            break;
        }
    }
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
                                likedScriptIds.contains(details.value(QLatin1String("id")).toVariant().toString()));
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
    rememberLike(envId, liked);
    detailsDialogs->showLikeState(DetailsDialogs::Kind::Environment, envId, liked, likeCount);
    for (QenvCard *card : std::as_const(qenvCards)) {
        if (card->envId() != envId)
            continue;
        card->setLiked(liked);
        card->setLikeCount(likeCount);
        card->updateLikeButton();
    }
}

void OnlineResourcesWidget::onOnnxCardClicked(const QString &weightsId)
{
    detailsDialogs->open(DetailsDialogs::Kind::Weights, weightsId, lastDiscordId, isAdministrator());
}

void OnlineResourcesWidget::onOnnxDownloadClicked(const QString &weightsId)
{
    weightsDownloads->start(weightsId, itemWithId(allItems, weightsId));
}

void OnlineResourcesWidget::onWeightsLoaded(const QJsonObject &response)
{
    if (mode() != Mode::Weights) {
        finishLoading();
        return;
    }
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
                                likedScriptIds.contains(details.value(QLatin1String("id")).toVariant().toString()));
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
    rememberLike(weightsId, liked);
    detailsDialogs->showLikeState(DetailsDialogs::Kind::Weights, weightsId, liked, likeCount);
    for (OnnxCard *card : std::as_const(onnxCards)) {
        if (card->weightsId() != weightsId)
            continue;
        card->setLiked(liked);
        card->setLikeCount(likeCount);
        card->updateLikeButton();
    }
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
    allItems = QJsonArray();
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
    if (value >= scrollArea->verticalScrollBar()->maximum() - scrollThreshold)
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
    while (QLayoutItem *item = cardGrid->takeAt(0)) {
        QWidget *widget = item->widget();
        delete item;
        // Cards are deleted below through their lists; anything else in the grid is a message label.
        if (widget && !qobject_cast<ResourceCard *>(widget))
            delete widget;
    }
    qDeleteAll(scriptCards);
    qDeleteAll(qenvCards);
    qDeleteAll(onnxCards);
    scriptCards.clear();
    qenvCards.clear();
    onnxCards.clear();
}

void OnlineResourcesWidget::showGridMessage(const QString &message)
{
    clearGrid();
    auto *label = new QLabel(message, gridContainer);
    // Messages can carry the server's own error text.
    label->setTextFormat(Qt::PlainText);
    label->setObjectName(QStringLiteral("gridMessage"));
    label->setAlignment(Qt::AlignCenter);
    label->setWordWrap(true);
    label->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
    label->setStyleSheet(QStringLiteral("QLabel { font-size: 16px; color: #99aab5; padding: 50px; }"));
    for (int row = 0; row < cardGrid->rowCount(); ++row)
        cardGrid->setRowStretch(row, 0);
    for (int column = 0; column < cardGrid->columnCount(); ++column)
        cardGrid->setColumnStretch(column, 0);
    cardGrid->addWidget(label, 0, 0, 1, -1, Qt::AlignCenter);
    cardGrid->setRowStretch(0, 1);
}

void OnlineResourcesWidget::addCards(const QJsonArray &items)
{
    const int columns = calculateColumns();
    const int existing = cardCount();
    int row = existing / columns;
    int column = existing % columns;
    for (const QJsonValue &value : items) {
        const QJsonObject item = value.toObject();
        const QString type = item.value(QLatin1String("type")).toString().toLower();
        const QString id = item.value(QLatin1String("id")).toString();
        const bool liked = likedScriptIds.contains(id);
        QWidget *card = nullptr;
        if (type == QLatin1String("qenv")) {
            auto *qenvCard = new QenvCard(item, gridContainer);
            qenvCard->setLiked(liked);
            qenvCard->setLikeEnabled(isAuthenticated, tr("Log in to like environments"));
            connect(qenvCard, &QenvCard::clicked, this, &OnlineResourcesWidget::onQenvCardClicked);
            connect(qenvCard, &QenvCard::installClicked, this, &OnlineResourcesWidget::onQenvInstallClicked);
            connect(qenvCard, &QenvCard::likeClicked, apiClient, &OnlineResourcesAPI::toggleEnvironmentLike);
            qenvCards.append(qenvCard);
            card = qenvCard;
        } else if (type == QLatin1String("onnx")) {
            auto *onnxCard = new OnnxCard(item, gridContainer);
            onnxCard->setLiked(liked);
            onnxCard->setLikeEnabled(isAuthenticated, tr("Log in to like weights"));
            connect(onnxCard, &OnnxCard::clicked, this, &OnlineResourcesWidget::onOnnxCardClicked);
            connect(onnxCard, &OnnxCard::downloadClicked, this, &OnlineResourcesWidget::onOnnxDownloadClicked);
            connect(onnxCard, &OnnxCard::likeClicked, apiClient, &OnlineResourcesAPI::toggleWeightsLike);
            onnxCards.append(onnxCard);
            card = onnxCard;
        } else {
            auto *scriptCard = new ScriptCard(item, gridContainer);
            scriptCard->setLiked(liked);
            scriptCard->setLikeEnabled(isAuthenticated, tr("Log in to like scripts"));
            connect(scriptCard, &ScriptCard::clicked, this, &OnlineResourcesWidget::onCardClicked);
            connect(scriptCard, &ScriptCard::downloadClicked, this, &OnlineResourcesWidget::onCardDownloadClicked);
            connect(scriptCard, &ScriptCard::likeClicked, apiClient, &OnlineResourcesAPI::toggleLike);
            scriptCards.append(scriptCard);
            card = scriptCard;
        }
        cardGrid->addWidget(card, row, column);
        if (++column >= columns) {
            column = 0;
            ++row;
        }
    }
    const int placed = cardCount();
    stretchAfter(placed == 0 ? -1 : (placed - 1) / columns, columns);
}

void OnlineResourcesWidget::stretchAfter(int lastRow, int columns)
{
    // Cards have a fixed size: the spare room goes below the last row and right of the last column, so the
    // cards stay packed at the top left instead of drifting apart.
    for (int row = 0; row < cardGrid->rowCount(); ++row)
        cardGrid->setRowStretch(row, 0);
    for (int column = 0; column < cardGrid->columnCount(); ++column)
        cardGrid->setColumnStretch(column, 0);
    cardGrid->setRowStretch(lastRow + 1, 1);
    cardGrid->setColumnStretch(columns, 1);
}

int OnlineResourcesWidget::calculateColumns() const
{
    const int available = scrollArea ? scrollArea->viewport()->width() - 20 : width() - 40;
    int columns = std::max(1, (available + gridSpacing) / (cardWidth + gridSpacing));
    while (columns > 1 && columns * cardWidth + (columns - 1) * gridSpacing > available)
        --columns;
    return std::min(columns, maximumColumns);
}

int OnlineResourcesWidget::cardCount() const
{
    return int(scriptCards.size() + qenvCards.size() + onnxCards.size());
}

// The liked set answers "liked?" for every kind when a card or a details dialog is filled.
void OnlineResourcesWidget::rememberLike(const QString &id, bool liked)
{
    likedScriptIds.removeAll(id);
    if (liked)
        likedScriptIds.append(id);
}

void OnlineResourcesWidget::showAuthenticationRequired()
{
    QMessageBox::warning(this, tr("Authentication Required"),
                         tr("Please log in via the Account page in Preferences to use Online Resources."),
                         QMessageBox::Ok);
    emit authenticationRequired();
}

} // namespace Quorix
