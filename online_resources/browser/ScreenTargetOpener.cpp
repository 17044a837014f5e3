#include "ScreenTargetOpener.h"

#include "OnlineResourcesWidget.h"
#include "api/OnlineResourcesAPI.h"
#include "pyenv/dialogs/PythonEnvironmentDialog.h"

#include <QHash>
#include <QJsonArray>
#include <QPushButton>
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
    if (kind == QLatin1String("environments"))
        return openEnvironments(argument);
    Q_UNUSED(kind)
    Q_UNUSED(argument)
    return false;
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
