#pragma once

#include <QJsonObject>
#include <QObject>
#include <QPointer>
#include <QString>

#include <array>

class QWidget;

namespace Quorix {

class OnlineResourcesAPI;
class OnnxDetailsDialog;
class QenvDetailsDialog;
class ResourceDetailsDialog;
class ScriptDetailsDialog;

// The page's three details dialogs: created on first use and kept, opened in their loading state, filled only with
// the details they asked for, and their like, delete and ban requests carried out through the API client. What
// needs the page's own flows (downloads, installs, access management) is handed back as signals.
class DetailsDialogs : public QObject
{
    Q_OBJECT

public:
    enum class Kind { Script, Environment, Weights };
    // What became of an error text that may belong to a details request.
    enum class ErrorRoute { NotDetails, Ignored, Reported, NotFound };

    DetailsDialogs(QWidget *page, OnlineResourcesAPI *api);

    // Shows the kind's dialog loading for this resource and asks the server for its details.
    void open(Kind kind, const QString &id, const QString &discordId, bool administrator);
    // Fills the dialog when it is still open and waiting for exactly this resource.
    void showDetails(Kind kind, const QJsonObject &details, bool liked);
    void showLikeState(Kind kind, const QString &id, bool liked, int likeCount);
    // Closes the dialog a details failure belongs to and tells the user; NotFound asks the page to reload.
    ErrorRoute routeError(const QString &error);

    ScriptDetailsDialog *scriptDialog() const;
    QenvDetailsDialog *environmentDialog() const;
    OnnxDetailsDialog *weightsDialog() const;

Q_SIGNALS:
    void scriptDownloadRequested(const QString &scriptId);
    void environmentInstallRequested(const QString &envId);
    void weightsDownloadRequested(const QString &weightsId);
    void manageAuthorizationsRequested(const QString &scriptId);

private:
    ResourceDetailsDialog *dialog(Kind kind) const;
    ResourceDetailsDialog *ensureDialog(Kind kind);
    ScriptDetailsDialog *createScriptDialog();
    QenvDetailsDialog *createEnvironmentDialog();
    OnnxDetailsDialog *createWeightsDialog();
    void requestDetails(Kind kind, const QString &id);
    void reportFailure(Kind kind, bool notFound);

    QWidget *page;
    OnlineResourcesAPI *api;
    QPointer<ScriptDetailsDialog> scriptDetailsDialog;
    QPointer<QenvDetailsDialog> qenvDetailsDialog;
    QPointer<OnnxDetailsDialog> onnxDetailsDialog;
    // The resource each dialog is waiting for; a reply for anything else is a leftover of an earlier click.
    std::array<QString, 3> awaitedIds;
};

} // namespace Quorix
