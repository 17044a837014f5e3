#include "CardGridAccessible.h"

#include "CardGridModel.h"
#include "CardGridView.h"
#include "CardItemAccessible.h"

namespace Quorix {

CardGridAccessible::CardGridAccessible(CardGridView *view)
    : QAccessibleWidget(view, QAccessible::List)
{ }

CardGridAccessible::~CardGridAccessible()
{
    for (QAccessible::Id id : std::as_const(items))
        QAccessible::deleteAccessibleInterface(id);
}

QAccessibleInterface *CardGridAccessible::create(const QString &className, QObject *object)
{
    if (className != QLatin1String(CardGridView::staticMetaObject.className()))
        return nullptr;
    auto *view = qobject_cast<CardGridView *>(object);
    return view ? new CardGridAccessible(view) : nullptr;
}

CardGridView *CardGridAccessible::view() const
{
    return static_cast<CardGridView *>(widget());
}

int CardGridAccessible::childCount() const
{
    return view()->items()->count();
}

QAccessibleInterface *CardGridAccessible::child(int index) const
{
    if (index < 0 || index >= childCount())
        return nullptr;
    auto found = items.constFind(index);
    if (found == items.cend())
        found = items.insert(index, QAccessible::registerAccessibleInterface(new CardItemAccessible(view(), index)));
    return QAccessible::accessibleInterface(found.value());
}

int CardGridAccessible::indexOfChild(const QAccessibleInterface *child) const
{
    const auto *item = dynamic_cast<const CardItemAccessible *>(child);
    return item && item->index() < childCount() ? item->index() : -1;
}

QAccessibleInterface *CardGridAccessible::childAt(int x, int y) const
{
    for (int index = 0; index < childCount(); ++index) {
        if (view()->cardAt(index) && view()->itemScreenRect(index).contains(x, y))
            return child(index);
    }
    return nullptr;
}

QAccessibleInterface *CardGridAccessible::focusChild() const
{
    return view()->hasFocus() ? child(view()->currentIndex()) : nullptr;
}

} // namespace Quorix
