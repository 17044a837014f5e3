#include "ScreenTargetOpener.h"

#include "CardGridModel.h"
#include "CardGridView.h"
#include "DownloadProgressDialog.h"
#include "OnlineResourcesWidget.h"
#include "access/AuthorizationManagementDialog.h"
#include "api/OnlineResourcesAPI.h"
#include "publish/PublishFlow.h"
#include "pyenv/dialogs/PythonEnvironmentDialog.h"

#include <QHash>
#include <QJsonArray>
#include <QPushButton>
#include <QScrollArea>
#include <QScrollBar>
#include <QTextStream>
#include <QTimer>

namespace Quorix {

ScreenTargetOpener::ScreenTargetOpener(OnlineResourcesWidget *page)
    : QObject(page)
    , page(page)
{ }

bool ScreenTargetOpener::open(const QString &target)
{
    const qsizetype colon = target.indexOf(QLatin1Char(':'));
    const QString kind = colon < 0 ? target : target.left(colon);
    const QString argument = colon < 0 ? QString() : target.mid(colon + 1);
    if (kind == QLatin1String("script-details"))
        return openDetails(Kind::Scripts, argument, "onCardClicked");
    if (kind == QLatin1String("environment-details"))
        return openDetails(Kind::Environments, argument, "onQenvCardClicked");
    if (kind == QLatin1String("weights-details"))
        return openDetails(Kind::Weights, argument, "onOnnxCardClicked");
    if (kind == QLatin1String("publish"))
        return openPublish(argument);
    if (kind == QLatin1String("access"))
        return openAccess(argument);
    if (kind == QLatin1String("download-progress"))
        return openDownloadProgress(argument);
    if (kind == QLatin1String("script-download"))
        return openDetails(Kind::Scripts, argument, "onCardDownloadClicked");
    if (kind == QLatin1String("weights-download"))
        return openDetails(Kind::Weights, argument, "onOnnxDownloadClicked");
    if (kind == QLatin1String("environment-install"))
        return openDetails(Kind::Environments, argument, "onQenvInstallClicked");
    if (kind == QLatin1String("environments"))
        return openEnvironments(argument);
    if (kind == QLatin1String("grid-scroll"))
        return scrollGrid(argument, true);
    if (kind == QLatin1String("grid-bottom"))
        return scrollGrid(argument, false);
    if (kind == QLatin1String("grid-focus"))
        return focusGrid(argument);
    return false;
}

// Goes through the page's own card-click slot, so the screenshot shows exactly what a click shows.
bool ScreenTargetOpener::openDetails(Kind kind, const QString &name, const char *clickSlot)
{
    if (name.isEmpty())
        return false;
    findResource(kind, name, [this, clickSlot](const QJsonObject &record) {
        QMetaObject::invokeMethod(page, clickSlot, Q_ARG(QString, record.value(QLatin1String("id")).toString()));
    });
    return true;
}

bool ScreenTargetOpener::openAccess(const QString &name)
{
    findResource(Kind::Scripts, name, [this](const QJsonObject &record) {
        auto *dialog = new AuthorizationManagementDialog(page->api(), record.value(QStringLiteral("id")).toString(),
                                                         record.value(QStringLiteral("name")).toString(), page);
        dialog->loadAuthorizations();
        dialog->setModal(true);
        dialog->show();
    });
    return true;
}

bool ScreenTargetOpener::openPublish(const QString &path)
{
    // The page's credentials name the author, as its own publishing would.
    const OnlineResourcesAPI *api = page->api();
    auto *flow = new PublishFlow(page->api(), page);
    flow->start(path, PublishFlow::scriptsDirectory(nullptr),
                api->discordGlobalName.isEmpty() ? api->discordUsername : api->discordGlobalName, true);
    return true;
}

bool ScreenTargetOpener::openDownloadProgress(const QString &argument)
{
    // "RECEIVED/TOTAL" in bytes; a total below 1 shows the busy state.
    const QStringList amounts = argument.split(QLatin1Char('/'));
    if (amounts.size() != 2)
        return false;
    auto *dialog = new DownloadProgressDialog(page);
    dialog->begin(tr("Downloading..."));
    dialog->showProgress(amounts.first().toLongLong(), amounts.last().toLongLong());
    return true;
}

bool ScreenTargetOpener::openEnvironments(const QString &argument)
{
    // "environments:log" opens the operation log; "environments:create" and "environments:install" open the dialog
    // behind that button once the window has settled.
    static const QHash<QString, QString> buttons{{QStringLiteral("log"), QStringLiteral("logToggleButton")},
                                                 {QStringLiteral("create"), QStringLiteral("newButton")},
                                                 {QStringLiteral("install"), QStringLiteral("installButton")}};
    PythonEnvironmentDialog *dialog = page->showPythonEnvironments();
    if (argument.isEmpty())
        return true;
    auto *button = dialog->findChild<QPushButton *>(buttons.value(argument));
    if (!button)
        return false;
    QTimer::singleShot(500, button, &QPushButton::click);
    return true;
}

// Reaches the bottom of the grid `argument` times, as a reader scrolling on would, each time loading the next page,
// and then optionally returns to the top; driven through the scroll bar only, so any grid behaves the same.
bool ScreenTargetOpener::scrollGrid(const QString &argument, bool backToTop)
{
    bool isNumber = false;
    const int bottoms = argument.toInt(&isNumber);
    auto *area = page->findChild<QScrollArea *>();
    if (!isNumber || bottoms < 0 || !area)
        return false;
    auto *steps = new QTimer(this);
    steps->setInterval(300);
    connect(steps, &QTimer::timeout, this, [steps, area, backToTop, remaining = bottoms]() mutable {
        QScrollBar *bar = area->verticalScrollBar();
        if (remaining-- > 0) {
            bar->setValue(bar->maximum());
            return;
        }
        if (backToTop)
            bar->setValue(0);
        steps->deleteLater();
    });
    steps->start();
    return true;
}

// Gives the grid the keyboard focus on the item at `argument` once it is loaded, as Tab and the arrows would.
bool ScreenTargetOpener::focusGrid(const QString &argument)
{
    bool isNumber = false;
    const int index = argument.toInt(&isNumber);
    auto *grid = page->findChild<CardGridView *>();
    if (!isNumber || index < 0 || !grid)
        return false;
    auto *poll = new QTimer(this);
    poll->setInterval(100);
    connect(poll, &QTimer::timeout, this, [poll, grid, index, attempts = 100]() mutable {
        if (grid->items()->count() <= index && --attempts > 0)
            return;
        // Without a window manager (a bare X server) nothing else makes the window active, and only an active
        // window shows keyboard focus.
        grid->window()->activateWindow();
        grid->setFocus(Qt::TabFocusReason);
        grid->setCurrentIndex(index);
        poll->deleteLater();
    });
    poll->start();
    return true;
}

void ScreenTargetOpener::findResource(Kind kind, const QString &name, const RecordHandler &found)
{
    // A lookup of its own keeps the page's list, paging and grid exactly as the user left them.
    auto *lookup = new OnlineResourcesAPI(this);
    const OnlineResourcesAPI *source = page->api();
    lookup->authToken = source->authToken;
    lookup->discordUsername = source->discordUsername;
    lookup->discordGlobalName = source->discordGlobalName;
    lookup->discordAvatar = source->discordAvatar;

    const QString itemsKey = kind == Kind::Scripts        ? QStringLiteral("scripts")
                             : kind == Kind::Environments ? QStringLiteral("environments")
                                                          : QStringLiteral("weights");
    auto onPage = [lookup, name, itemsKey, found](const QJsonObject &response) {
        lookup->deleteLater();
        const QJsonArray items = response.value(itemsKey).toArray();
        for (const QJsonValue &item : items) {
            if (item.toObject().value(QStringLiteral("name")).toString() == name) {
                found(item.toObject());
                return;
            }
        }
        QTextStream(stderr) << "no " << itemsKey << " resource named " << name << '\n';
    };
    connect(lookup, &OnlineResourcesAPI::scriptsLoaded, this, onPage);
    connect(lookup, &OnlineResourcesAPI::environmentsLoaded, this, onPage);
    connect(lookup, &OnlineResourcesAPI::weightsLoaded, this, onPage);
    connect(lookup, &OnlineResourcesAPI::errorOccurred, this, [lookup](const QString &error) {
        lookup->deleteLater();
        QTextStream(stderr) << "resource lookup failed: " << error << '\n';
    });

    const QJsonObject query{{QStringLiteral("page"), 1},
                            {QStringLiteral("limit"), 24},
                            {QStringLiteral("sort"), QStringLiteral("popular")},
                            {QStringLiteral("search"), name}};
    if (kind == Kind::Scripts)
        lookup->fetchScripts(query);
    else if (kind == Kind::Environments)
        lookup->loadEnvironments(query);
    else
        lookup->fetchWeights(query);
}

} // namespace Quorix
