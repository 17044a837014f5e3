#pragma once

#include <QAccessibleWidget>
#include <QHash>

namespace Quorix {

class CardGridView;

// The grid as assistive tools see it: a list with one item per loaded resource, whether or not a card widget
// stands for it right now, so a screen reader can count, read and open items the view has not built.
class CardGridAccessible : public QAccessibleWidget
{
public:
    explicit CardGridAccessible(CardGridView *view);
    ~CardGridAccessible() override;

    static QAccessibleInterface *create(const QString &className, QObject *object);

    int childCount() const override;
    QAccessibleInterface *child(int index) const override;
    int indexOfChild(const QAccessibleInterface *child) const override;
    QAccessibleInterface *childAt(int x, int y) const override;
    QAccessibleInterface *focusChild() const override;

private:
    CardGridView *view() const;

    // Items are made when asked for and live as long as the grid; an item stands for whatever is loaded at its
    // place, as rows in a list do.
    mutable QHash<int, QAccessible::Id> items;
};

} // namespace Quorix
