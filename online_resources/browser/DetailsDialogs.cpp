#include "DetailsDialogs.h"

#include "api/OnlineResourcesAPI.h"
#include "details/OnnxDetailsDialog.h"
#include "details/QenvDetailsDialog.h"
#include "details/ScriptDetailsDialog.h"

#include <QMessageBox>
#include <QRegularExpression>

namespace Quorix {

namespace {

QString detailsId(const QJsonObject &details)
{
    return details.value(QLatin1String("id")).toVariant().toString();
}

} // namespace

DetailsDialogs::DetailsDialogs(QWidget *page, OnlineResourcesAPI *api)
    : QObject(page)
    , page(page)
    , api(api)
{ }

void DetailsDialogs::open(Kind kind, const QString &id, const QString &discordId, bool administrator)
{
    ResourceDetailsDialog *details = ensureDialog(kind);
    awaitedIds[size_t(kind)] = id;
    details->setCurrentUser(discordId, administrator);
    details->showLoadingState();
    details->show();
    details->raise();
    details->activateWindow();
    requestDetails(kind, id);
}

void DetailsDialogs::showDetails(Kind kind, const QJsonObject &details, bool liked)
{
    ResourceDetailsDialog *target = dialog(kind);
    if (!target || !target->isVisible() || detailsId(details) != awaitedIds[size_t(kind)])
        return;
    target->setRecord(details);
    target->setLikeState(liked, details.value(QLatin1String("likes")).toInt());
}

void DetailsDialogs::showLikeState(Kind kind, const QString &id, bool liked, int likeCount)
{
    ResourceDetailsDialog *target = dialog(kind);
    if (target && !target->isLoading() && target->resourceId() == id)
        target->setLikeState(liked, likeCount);
}

DetailsDialogs::ErrorRoute DetailsDialogs::routeError(const QString &error)
{
    Kind kind;
    if (error.startsWith(QLatin1String("details_error:")))
        kind = Kind::Script;
    else if (error.startsWith(QLatin1String("envDetails_error:")))
        kind = Kind::Environment;
    else if (error.startsWith(QLatin1String("weightsDetails_error:")))
        kind = Kind::Weights;
    else
        return ErrorRoute::NotDetails;

    ResourceDetailsDialog *target = dialog(kind);
    if (!target || !target->isVisible())
        return ErrorRoute::Ignored;
    target->hide();
    awaitedIds[size_t(kind)].clear();
    // A 404 on its own: the message also carries the request's address, whose port may contain those digits.
    static const QRegularExpression notFoundStatus(QStringLiteral("(?<!\\d)404(?!\\d)"));
    const bool notFound = error.contains(notFoundStatus);
    reportFailure(kind, notFound);
    return notFound ? ErrorRoute::NotFound : ErrorRoute::Reported;
}

void DetailsDialogs::reportFailure(Kind kind, bool notFound)
{
    if (notFound) {
        switch (kind) {
        case Kind::Script:
            QMessageBox::warning(page, tr("Script Not Found"),
                                 tr("This script could not be found on the server.\nIt may have been deleted or is "
                                    "no longer accessible."));
            break;
        case Kind::Environment:
            QMessageBox::warning(page, tr("Environment Not Found"),
                                 tr("This environment could not be found on the server.\nIt may have been deleted or "
                                    "is no longer accessible."));
            break;
        case Kind::Weights:
            QMessageBox::warning(page, tr("Weights Not Found"),
                                 tr("These weights could not be found on the server.\nThey may have been deleted or "
                                    "are no longer accessible."));
            break;
        }
        return;
    }
    const QString message = kind == Kind::Script        ? tr("Could not load script details. Please try again.")
                            : kind == Kind::Environment ? tr("Could not load environment details. Please try again.")
                                                        : tr("Could not load weights details. Please try again.");
    QMessageBox::warning(page, tr("Failed to Load Details"), message);
}

ScriptDetailsDialog *DetailsDialogs::scriptDialog() const
{
    return scriptDetailsDialog;
}

QenvDetailsDialog *DetailsDialogs::environmentDialog() const
{
    return qenvDetailsDialog;
}

OnnxDetailsDialog *DetailsDialogs::weightsDialog() const
{
    return onnxDetailsDialog;
}

ResourceDetailsDialog *DetailsDialogs::dialog(Kind kind) const
{
    switch (kind) {
    case Kind::Script:
        return scriptDetailsDialog;
    case Kind::Environment:
        return qenvDetailsDialog;
    case Kind::Weights:
        return onnxDetailsDialog;
    }
    return nullptr;
}

ResourceDetailsDialog *DetailsDialogs::ensureDialog(Kind kind)
{
    if (ResourceDetailsDialog *existing = dialog(kind))
        return existing;
    switch (kind) {
    case Kind::Script:
        return createScriptDialog();
    case Kind::Environment:
        return createEnvironmentDialog();
    case Kind::Weights:
        return createWeightsDialog();
    }
    return nullptr;
}

ScriptDetailsDialog *DetailsDialogs::createScriptDialog()
{
    using Dialog = ScriptDetailsDialog;
    scriptDetailsDialog = new Dialog(page);
    connect(scriptDetailsDialog, &Dialog::downloadRequested, this, &DetailsDialogs::scriptDownloadRequested);
    connect(scriptDetailsDialog, &Dialog::likeRequested, api, &OnlineResourcesAPI::toggleLike);
    connect(scriptDetailsDialog, &Dialog::deleteRequested, api, &OnlineResourcesAPI::deleteScript);
    connect(scriptDetailsDialog, &Dialog::manageAuthorizationsRequested, this,
            &DetailsDialogs::manageAuthorizationsRequested);
    connect(scriptDetailsDialog, &Dialog::banAuthorRequested, api, &OnlineResourcesAPI::banUser);
    return scriptDetailsDialog;
}

QenvDetailsDialog *DetailsDialogs::createEnvironmentDialog()
{
    using Dialog = QenvDetailsDialog;
    qenvDetailsDialog = new Dialog(page);
    connect(qenvDetailsDialog, &Dialog::installRequested, this, &DetailsDialogs::environmentInstallRequested);
    connect(qenvDetailsDialog, &Dialog::likeRequested, api, &OnlineResourcesAPI::toggleEnvironmentLike);
    connect(qenvDetailsDialog, &Dialog::deleteRequested, api, &OnlineResourcesAPI::deleteEnvironment);
    connect(qenvDetailsDialog, &Dialog::manageAuthorizationsRequested, this,
            &DetailsDialogs::manageAuthorizationsRequested);
    connect(qenvDetailsDialog, &Dialog::banAuthorRequested, api, &OnlineResourcesAPI::banUser);
    return qenvDetailsDialog;
}

OnnxDetailsDialog *DetailsDialogs::createWeightsDialog()
{
    using Dialog = OnnxDetailsDialog;
    onnxDetailsDialog = new Dialog(page);
    connect(onnxDetailsDialog, &Dialog::downloadRequested, this, &DetailsDialogs::weightsDownloadRequested);
    connect(onnxDetailsDialog, &Dialog::likeRequested, api, &OnlineResourcesAPI::toggleWeightsLike);
    connect(onnxDetailsDialog, &Dialog::deleteRequested, api, &OnlineResourcesAPI::deleteWeights);
    connect(onnxDetailsDialog, &Dialog::manageAuthorizationsRequested, this,
            &DetailsDialogs::manageAuthorizationsRequested);
    connect(onnxDetailsDialog, &Dialog::banAuthorRequested, api, &OnlineResourcesAPI::banUser);
    return onnxDetailsDialog;
}

void DetailsDialogs::requestDetails(Kind kind, const QString &id)
{
    switch (kind) {
    case Kind::Script:
        api->fetchScriptDetails(id);
        break;
    case Kind::Environment:
        api->loadEnvironmentDetails(id);
        break;
    case Kind::Weights:
        api->fetchWeightsDetails(id);
        break;
    }
}

} // namespace Quorix
