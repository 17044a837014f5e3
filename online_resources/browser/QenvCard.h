#pragma once

#include <QJsonObject>
#include <QString>
#include <QWidget>

class QLabel;
class QPushButton;

namespace Quorix {

// One environment package in the catalogue grid: like a script card, with its Python version and package count,
// and an install action instead of a download.
class QenvCard : public QWidget
{
    Q_OBJECT

public:
    static constexpr int cardWidth = 280;
    static constexpr int cardHeight = 360;

    QenvCard(const QJsonObject &item, QWidget *parent = nullptr);

    QString envId() const;
    bool isLiked() const;
    void setLiked(bool liked);
    void setLikeCount(int count);
    // A disabled like button carries the reason as its tool tip instead of the like hint.
    void setLikeEnabled(bool enabled, const QString &disabledToolTip);
    void updateLikeButton();

Q_SIGNALS:
    void clicked(const QString &envId);
    void installClicked(const QString &envId);
    void likeClicked(const QString &envId);

protected:
    void paintEvent(QPaintEvent *event) override;
    void mouseReleaseEvent(QMouseEvent *event) override;

private:
    void buildLayout(const QString &description);
    void applyVisibilityBadge();
    void applyDownloadState();

    QString id;
    QString name;
    QString author;
    qint64 downloads = 0;
    QString visibility;
    bool canDownload = true;
    QString created;
    int likes = 0;
    QString thumbnail;
    QString pythonVersion;
    qint64 packageCount = 0;
    bool liked = false;
    QString likeDisabledToolTip;

    QLabel *visibilityBadge = nullptr;
    QPushButton *likeButton = nullptr;
    QPushButton *installButton = nullptr;
};

} // namespace Quorix
