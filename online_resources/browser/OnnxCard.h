#pragma once

#include <QJsonObject>
#include <QString>
#include <QWidget>

class QLabel;
class QPushButton;

namespace Quorix {

// One weights file in the catalogue grid: like a script card, marked ONNX or ENNX (encrypted), with its size on
// the download action.
class OnnxCard : public QWidget
{
    Q_OBJECT

public:
    static constexpr int cardWidth = 280;
    static constexpr int cardHeight = 360;

    OnnxCard(const QJsonObject &item, QWidget *parent = nullptr);

    QString weightsId() const;
    bool isLiked() const;
    void setLiked(bool liked);
    void setLikeCount(int count);
    // A disabled like button carries the reason as its tool tip instead of the like hint.
    void setLikeEnabled(bool enabled, const QString &disabledToolTip);
    void updateLikeButton();

Q_SIGNALS:
    void clicked(const QString &weightsId);
    void downloadClicked(const QString &weightsId);
    void likeClicked(const QString &weightsId);

protected:
    void paintEvent(QPaintEvent *event) override;
    void mouseReleaseEvent(QMouseEvent *event) override;

private:
    void buildLayout(const QString &description);
    void applyVisibilityBadge();
    void applyDownloadState();

    QString id;
    QString name;
    bool encrypted = false;
    qint64 size = 0;
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
