#pragma once

#include <QDialog>
#include <QJsonObject>
#include <QString>

class QGroupBox;
class QHBoxLayout;
class QLabel;
class QPushButton;
class QTextBrowser;
class QVBoxLayout;

namespace Quorix {

// What the three details dialogs show and do alike: header image, title, author, badges, counters, description,
// the owner's and administrator's buttons, like, copy-mention and close. Each kind declares its own signals and
// slots (so its meta-object lists them in its own order) and supplies its texts and extra widgets.
class ResourceDetailsDialog : public QDialog
{
    Q_OBJECT

public:
    void showLoadingState();
    void setRecord(const QJsonObject &record);
    void setLikeState(bool liked, int likeCount);
    void setCurrentUser(const QString &discordId, bool administrator);

    // The ID of the record shown; empty while loading.
    QString resourceId() const;
    bool isLoading() const;

protected:
    // The texts and looks in which the kinds differ.
    struct Presentation
    {
        QString windowTitle;
        QString loadingTitle;
        QString recordTitle; // "%1" is the record's name
        QString headerStyle;
        QString headerLoadingStyle;
        QString actionObjectName;
        QString actionText;
        QString actionStyle;
        QString deleteToolTip;
        QString purchasableToolTip;
        QString privateToolTip;
        QString downloadsCounter; // "%1 downloads" or "%1 installs"
        bool showsVersion = true;
        // Instructions, tags and the record's own disclaimer; the other kinds show a fixed text instead.
        bool showsScriptSections = false;
        QString fixedDisclaimer;
    };

    ResourceDetailsDialog(const Presentation &presentation, QWidget *parent);

    // Each kind declares these as its slots, in its own order, and emits its own signals from them.
    virtual void onMainActionClicked() = 0;
    virtual void onLikeClicked() = 0;
    virtual void onDeleteClicked() = 0;
    virtual void onCloseClicked() = 0;
    virtual void onCopyIdClicked() = 0;
    virtual void onManageAuthorizationsClicked() = 0;
    virtual void onBanAuthorClicked() = 0;

    // The kind's own badges, notices and sections, filled from the record or emptied while loading.
    virtual void fillKindDetails(const QJsonObject &record) = 0;
    virtual void clearKindDetails() = 0;
    // Between the type badge and the status badge.
    void addBadge(QLabel *badge);
    // Below the counters and the date.
    void addNotice(QWidget *notice);
    // Below the description.
    void addSection(QWidget *section);
    QLabel *typeBadgeLabel() const;
    QLabel *createBadge(const QString &objectName, const QString &styleSheet);
    static QString groupBoxStyle();

    const QJsonObject &record() const;
    QString recordName() const;
    QString authorDisplayName() const;
    QString ownerDiscordId() const;

    // A warning box with Yes and No, No the default; true on Yes.
    bool confirmDestructive(const QString &title, const QString &text, const QString &informativeText);
    void copyAuthorMention();

    void changeEvent(QEvent *event) override;

private:
    void buildLayout();
    void connectButtons();
    QPushButton *createIconButton(const QString &iconPath, const QString &toolTip, const QString &objectName);
    QGroupBox *createTextBox(const QString &title, const QString &objectName, QTextBrowser *&view);
    void openLink(const QUrl &url);
    void applyThemedIcons();
    void updateLikeButton();
    void updateOwnerButtons();
    void updateStats();
    void fillDownloadState();
    void fillStatusBadge();
    void fillVersionDate();
    void fillTextView(QTextBrowser *view, const QString &text, int minimumHeight, int maximumHeight);
    void fillTags();
    void fillDisclaimer();
    void fetchHeaderImage();
    void showHeaderImage(const QByteArray &bytes);
    void showHeaderGlyph(const QString &glyph);

    Presentation presentation;
    QJsonObject currentRecord;
    QString currentDiscordId;
    bool administrator = false;
    bool loading = false;
    bool liked = false;
    int likeCount = 0;
    // Header replies of a record that has since been replaced or reloaded carry an older number and are ignored.
    quint64 headerRequestNumber = 0;

    QVBoxLayout *contentLayout = nullptr;
    QHBoxLayout *badgeLayout = nullptr;
    QVBoxLayout *noticeLayout = nullptr;
    QVBoxLayout *sectionLayout = nullptr;
    QLabel *headerImageLabel = nullptr;
    QLabel *titleLabel = nullptr;
    QLabel *authorLabel = nullptr;
    QLabel *typeBadge = nullptr;
    QLabel *statusBadge = nullptr;
    QLabel *statsLabel = nullptr;
    QLabel *versionDateLabel = nullptr;
    QGroupBox *descriptionBox = nullptr;
    QTextBrowser *descriptionView = nullptr;
    QGroupBox *instructionsBox = nullptr;
    QTextBrowser *instructionsView = nullptr;
    QLabel *tagsLabel = nullptr;
    QLabel *disclaimerLabel = nullptr;
    QPushButton *authorButton = nullptr;
    QPushButton *deleteButton = nullptr;
    QPushButton *manageAccessButton = nullptr;
    QPushButton *banAuthorButton = nullptr;
    QPushButton *likeButton = nullptr;
    QPushButton *mainActionButton = nullptr;
    QPushButton *closeButton = nullptr;
};

} // namespace Quorix
