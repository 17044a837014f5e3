#pragma once

#include <QJsonObject>
#include <QObject>
#include <QString>

class QWidget;

namespace Quorix {

class OnlineResourcesAPI;
class SettingsManager;

// Carries one publication from the choice of the file, through the check for an earlier upload of it, to the form
// in new or update mode; reports each resource that reached the server.
class PublishFlow : public QObject
{
    Q_OBJECT

public:
    PublishFlow(OnlineResourcesAPI *api, QWidget *window);

    // Where the file chooser starts: the file explorer's last folder, else "scripts" beside the application (one
    // level up when the application lives in "lib"), created when missing.
    static QString scriptsDirectory(const SettingsManager *settings);

    // Opens the selection; a preset path is checked at once. With proceedAfterCheck the form follows as soon as the
    // server has answered, as if Next had been pressed.
    void start(const QString &presetPath, const QString &startDirectory, const QString &authorName,
               bool proceedAfterCheck = false);

Q_SIGNALS:
    void published(const QString &resourceId);

private:
    void openForm(const QString &path, const QJsonObject &existingRecord, const QString &authorName);

    OnlineResourcesAPI *api;
    QWidget *window;
};

} // namespace Quorix
