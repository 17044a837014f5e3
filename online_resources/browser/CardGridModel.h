#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QSet>
#include <QString>
#include <QStringList>

namespace Quorix {

// Every item the grid has loaded, in server order, and which of them the signed-in user likes. Cards come and go
// as the grid scrolls; what they show lives here, so a card made later shows the latest state.
class CardGridModel : public QObject
{
    Q_OBJECT

public:
    using QObject::QObject;

    int count() const;
    QJsonObject item(int index) const;
    // An empty record when no loaded item has that id.
    QJsonObject itemWithId(const QString &id) const;

    void replace(const QJsonArray &items);
    void append(const QJsonArray &items);
    void clear();

    bool isLiked(const QString &id) const;
    void setLikedIds(const QStringList &ids);
    // A like answer: kept for every loaded item with that id, so its card shows it whenever it is made.
    void setLikeState(const QString &id, bool liked, int likeCount);

Q_SIGNALS:
    void itemsReset();
    void itemsAppended();
    void likesChanged();

private:
    QList<QJsonObject> items;
    QSet<QString> likedIds;
};

} // namespace Quorix
