#pragma once

#include <QDialog>
#include <QJsonObject>
#include <QMetaObject>
#include <QString>

class QLabel;
class QLineEdit;
class QPushButton;
class QTimer;

namespace Quorix {

class OnlineResourcesAPI;

// First step of publishing: the user picks one file, its size is checked, and the server tells whether this user
// already published a file of that name, so that proceeding updates it instead of adding a new resource.
class ScriptSelectionDialog : public QDialog
{
    Q_OBJECT

public:
    static constexpr qint64 weightsSizeLimit = 524288000;
    static constexpr qint64 fileSizeLimit = 10485760;
    static constexpr int checkTimeoutMilliseconds = 5000;

    explicit ScriptSelectionDialog(OnlineResourcesAPI *api, QWidget *parent = nullptr);

    // Called before showing, for a file the owner already knows; the check starts once the dialog is on screen.
    void presetPath(const QString &path);
    void setStartDirectory(const QString &directory);
    QString selectedPath() const;
    // The record of the resource that proceeding updates; empty for a new upload.
    QJsonObject existingRecord() const;

    // Environment packages share the small limit with scripts on purpose; only weights may be large.
    static qint64 sizeLimitFor(const QString &extension);
    static QString sizeLimitText(const QString &extension);

Q_SIGNALS:
    void scriptSelected(const QString &scriptPath);
    void existingScriptFound(const QJsonObject &scriptData);
    void checkCompleted();

public Q_SLOTS:
    void onBrowseClicked();
    void onCheckExistingResponse(const QJsonObject &response);
    void onCheckExistingError(const QString &error);
    void onProceedClicked();
    void onCancelClicked();

protected:
    void showEvent(QShowEvent *event) override;

private:
    enum class StatusKind { Progress, Error };

    void buildLayout();
    void setStatus(const QString &text, StatusKind kind = StatusKind::Progress);
    void takeFile(const QString &path);
    void startCheck();
    void connectClient();
    void disconnectClient();
    void forgetExisting();
    void reset();

    OnlineResourcesAPI *api = nullptr;
    QString scriptPath;
    QString fileName;
    QString extension;
    bool existingFound = false;
    QJsonObject existingData;
    QString existingId;
    bool checking = false;
    bool preset = false;
    QString startDirectory;

    QLineEdit *pathEdit = nullptr;
    QPushButton *browseButton = nullptr;
    QLabel *statusLabel = nullptr;
    QPushButton *proceedButton = nullptr;
    QPushButton *cancelButton = nullptr;
    QTimer *checkTimer = nullptr;
    QMetaObject::Connection responseConnection;
    QMetaObject::Connection errorConnection;
};

} // namespace Quorix
