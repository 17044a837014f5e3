#pragma once

#include <QJsonObject>
#include <QObject>
#include <QString>

#include <functional>

namespace Quorix {

class OnlineResourcesAPI;
class OnlineResourcesWidget;

// Opens one of the page's dialogs in a given state for the development host's "--open kind:argument", so that
// scripted screenshots can show every dialog without a person clicking through the page.
class ScreenTargetOpener : public QObject
{
    Q_OBJECT

public:
    enum class Kind { Scripts, Environments, Weights };

    explicit ScreenTargetOpener(OnlineResourcesWidget *page);

    // False when the target names nothing this page can open.
    bool open(const QString &target);

private:
    bool openPublish(const QString &path);
    bool openAccess(const QString &name);
    bool openDownloadProgress(const QString &argument);

    using RecordHandler = std::function<void(const QJsonObject &record)>;

    bool openEnvironments(const QString &argument);
    bool scrollGrid(const QString &argument, bool backToTop);
    bool focusGrid(const QString &argument);

    // Looks the resource up by its exact name with the page's credentials, without touching the page's grid.
    void findResource(Kind kind, const QString &name, const RecordHandler &found);
    bool openDetails(Kind kind, const QString &name, const char *clickSlot);

    OnlineResourcesWidget *page;
};

} // namespace Quorix
