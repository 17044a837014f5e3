#pragma once

#include <QJsonObject>
#include <QString>
#include <QWidget>

class QLabel;
class QPushButton;

namespace Quorix {

// One script in the catalogue grid: picture, badges, name, meta line, description, like and download.
class ScriptCard : public QWidget
{
    Q_OBJECT

public:
    static constexpr int cardWidth = 280;
    static constexpr int cardHeight = 360;

    ScriptCard(const QJsonObject &item, QWidget *parent = nullptr);

    QString scriptId() const;
    bool isLiked() const;
    void setLiked(bool liked);
    void setLikeCount(int count);
    // A disabled like button carries the reason as its tool tip instead of the like hint.
    void setLikeEnabled(bool enabled, const QString &disabledToolTip);
    void updateLikeButton();

Q_SIGNALS:
    void clicked(const QString &scriptId);
    void downloadClicked(const QString &scriptId);
    void likeClicked(const QString &scriptId);

protected:
    void paintEvent(QPaintEvent *event) override;
    void mouseReleaseEvent(QMouseEvent *event) override;

private:
    void buildLayout(const QString &description);
    void applyVisibilityBadge();
    void applyDownloadState();

    QString id;
    QString name;
    QString type;
    QString author;
    qint64 downloads = 0;
    QString visibility;
    bool canDownload = true;
    QString created;
    QString version;
    int likes = 0;
    QString thumbnail;
    bool liked = false;
    QString likeDisabledToolTip;

    QLabel *visibilityBadge = nullptr;
    QPushButton *likeButton = nullptr;
    QPushButton *downloadButton = nullptr;
};

} // namespace Quorix
