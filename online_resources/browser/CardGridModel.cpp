#include "CardGridModel.h"

#include "core/ResourceRecord.h"

namespace Quorix {

int CardGridModel::count() const
{
    return int(items.size());
}

QJsonObject CardGridModel::item(int index) const
{
    return items.value(index);
}

QJsonObject CardGridModel::itemWithId(const QString &id) const
{
    for (const QJsonObject &item : items) {
        if (item.value(QLatin1String("id")).toString() == id)
            return item;
    }
    return {};
}

void CardGridModel::replace(const QJsonArray &newItems)
{
    items.clear();
    for (const QJsonValue &item : newItems)
        items.append(item.toObject());
    emit itemsReset();
}

void CardGridModel::append(const QJsonArray &newItems)
{
    for (const QJsonValue &item : newItems)
        items.append(item.toObject());
    emit itemsAppended();
}

void CardGridModel::clear()
{
    items.clear();
    emit itemsReset();
}

bool CardGridModel::isLiked(const QString &id) const
{
    return likedIds.contains(id);
}

void CardGridModel::setLikedIds(const QStringList &ids)
{
    likedIds = QSet<QString>(ids.cbegin(), ids.cend());
    emit likesChanged();
}

void CardGridModel::setLikeState(const QString &id, bool liked, int likeCount)
{
    if (liked)
        likedIds.insert(id);
    else
        likedIds.remove(id);
    for (QJsonObject &item : items) {
        if (ResourceRecord::id(item) == id)
            item.insert(QStringLiteral("likes"), likeCount);
    }
    emit likesChanged();
}

} // namespace Quorix
