#pragma once

#include <QJsonObject>
#include <QString>
#include <QWidget>

class QLabel;
class QPushButton;

namespace Quorix {

class CardThumbnail;
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

    // Shows another record of the same kind in this card, so the grid can reuse cards as rows scroll by. The like
    // state starts unliked; the like button keeps whether it is enabled.
    void bind(const QJsonObject &item);

    QString resourceId() const;
    bool isLiked() const;
    void setLiked(bool liked);
    void setLikeCount(int count);
    // A disabled like button carries the reason as its tool tip instead of the like hint.
    void setLikeEnabled(bool enabled, const QString &disabledToolTip);
    void updateLikeButton();
    // Opens the card as a click on it does; the grid's keyboard and assistive tools come through here.
    void activate();

Q_SIGNALS:
    void clicked(const QString &id);
    void downloadClicked(const QString &id);
    void likeClicked(const QString &id);

protected:
    explicit ResourceCard(QWidget *parent);

    // The hooks cannot be reached while the base is being constructed, so each card builds itself from its
    // constructor.
    void build(const QJsonObject &item);

    static QString badgeStyle();
    // Style sheets are costly to apply, and rebinding a card usually keeps them.
    static void restyle(QWidget *widget, const QString &styleSheet);

    // Each card draws its buttons with a pill of its own.
    virtual QPushButton *createPillButton(const QString &text, QWidget *parent) = 0;
    // Fields only one kind of card shows, read on construction and on every rebind.
    virtual void readKindFields(const QJsonObject &item);
    virtual void showTypePill(QLabel *pill) const = 0;
    // Shown between the type pill and the visibility badge; hidden unless a card has something to add.
    virtual void showExtraPill(QLabel *pill) const;
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
    void readItem(const QJsonObject &item);
    void buildLayout();
    void showItem();
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

    CardThumbnail *picture = nullptr;
    QLabel *typePill = nullptr;
    QLabel *extraPill = nullptr;
    QLabel *nameLabel = nullptr;
    QLabel *metaLabel = nullptr;
    QLabel *descriptionLabel = nullptr;
    QLabel *downloadsLabel = nullptr;
    QLabel *visibilityBadge = nullptr;
    LikeButton *likeButton = nullptr;
    QPushButton *actionButton = nullptr;
};

} // namespace Quorix
