#pragma once

#include <QJsonObject>
#include <QString>
#include <QWidget>

class QLabel;
class QPushButton;

namespace Quorix {

class LikeButton;

// What every card in the catalogue grid shows the same way: picture, badges, name, meta line, description,
// downloads, like and the main action. Each kind of card supplies only what sets it apart through the hooks below.
class ResourceCard : public QWidget
{
    Q_OBJECT

public:
    static constexpr int cardWidth = 280;
    static constexpr int cardHeight = 360;

    // A label that shows record text as written, never as markup.
    static QLabel *createTextLabel(const QString &text, QWidget *parent);

    QString resourceId() const;
    bool isLiked() const;
    void setLiked(bool liked);
    void setLikeCount(int count);
    // A disabled like button carries the reason as its tool tip instead of the like hint.
    void setLikeEnabled(bool enabled, const QString &disabledToolTip);
    void updateLikeButton();

Q_SIGNALS:
    void clicked(const QString &id);
    void downloadClicked(const QString &id);
    void likeClicked(const QString &id);

protected:
    ResourceCard(const QJsonObject &item, QWidget *parent);

    // The hooks cannot be reached while the base is being constructed, so each card builds itself once its own
    // fields are read.
    void build();

    static QString badgeStyle();

    // Each card draws its buttons with a pill of its own.
    virtual QPushButton *createPillButton(const QString &text, QWidget *parent) = 0;
    virtual QLabel *createTypePill(QWidget *parent) const = 0;
    // Shown between the type pill and the visibility badge; none unless a card has something to add.
    virtual QLabel *createExtraPill(QWidget *parent) const;
    virtual QString pictureStyle() const = 0;
    virtual QString metaLine(const QString &version, const QString &date, const QString &author) const;
    virtual QString statsLine(const QString &downloadCount) const;
    virtual QString actionText() const;
    virtual QString actionObjectName() const;
    virtual QString likeToolTip() const = 0;
    virtual QString purchasableToolTip() const = 0;
    virtual QString privateToolTip() const = 0;

    void paintEvent(QPaintEvent *event) override;
    void mouseReleaseEvent(QMouseEvent *event) override;

private:
    void buildLayout();
    void applyVisibilityBadge();
    void applyDownloadState();

    QString id;
    QString name;
    QString author;
    qint64 downloads = 0;
    QString visibility;
    bool canDownload = true;
    QString created;
    QString version;
    int likes = 0;
    QString thumbnail;
    QString description;
    bool liked = false;
    QString likeDisabledToolTip;

    QLabel *visibilityBadge = nullptr;
    LikeButton *likeButton = nullptr;
    QPushButton *actionButton = nullptr;
};

} // namespace Quorix
