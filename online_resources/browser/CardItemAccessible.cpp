#include "CardItemAccessible.h"

#include "CardGridModel.h"
#include "CardGridView.h"
#include "ResourceCard.h"
#include "core/ResourceRecord.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QJsonObject>
#include <QWidget>

namespace Quorix {

CardItemAccessible::CardItemAccessible(CardGridView *view, int index)
    : view(view)
    , position(index)
{ }

bool CardItemAccessible::isValid() const
{
    return view && position < view->items()->count();
}

QObject *CardItemAccessible::object() const
{
    return nullptr;
}

QWindow *CardItemAccessible::window() const
{
    return view ? view->window()->windowHandle() : nullptr;
}

QAccessibleInterface *CardItemAccessible::parent() const
{
    return QAccessible::queryAccessibleInterface(view.data());
}

QAccessibleInterface *CardItemAccessible::card() const
{
    ResourceCard *widget = view ? view->cardAt(position) : nullptr;
    return widget ? QAccessible::queryAccessibleInterface(widget) : nullptr;
}

QAccessibleInterface *CardItemAccessible::child(int index) const
{
    QAccessibleInterface *built = card();
    return built ? built->child(index) : nullptr;
}

int CardItemAccessible::childCount() const
{
    QAccessibleInterface *built = card();
    return built ? built->childCount() : 0;
}

int CardItemAccessible::indexOfChild(const QAccessibleInterface *child) const
{
    QAccessibleInterface *built = card();
    return built ? built->indexOfChild(child) : -1;
}

QAccessibleInterface *CardItemAccessible::childAt(int x, int y) const
{
    QAccessibleInterface *built = card();
    return built ? built->childAt(x, y) : nullptr;
}

QString CardItemAccessible::text(QAccessible::Text t) const
{
    if (!isValid())
        return {};
    if (t == QAccessible::Name)
        return view->items()->item(position).value(QLatin1String("name")).toString();
    if (t == QAccessible::Description)
        return description();
    return {};
}

QString CardItemAccessible::description() const
{
    const QJsonObject item = view->items()->item(position);
    const QString kind = CardGridView::cardKind(item);
    QString what;
    if (kind == QLatin1String("qenv"))
        what = QCoreApplication::translate("Quorix::CardItemAccessible", "Python environment");
    else if (kind == QLatin1String("onnx"))
        what = QCoreApplication::translate("Quorix::CardItemAccessible", "Model weights");
    else if (ResourceRecord::type(item).isEmpty())
        what = QCoreApplication::translate("Quorix::CardItemAccessible", "Script");
    else
        what = QCoreApplication::translate("Quorix::CardItemAccessible", "%1 script")
                       .arg(ResourceRecord::type(item).toUpper());
    const QString age
            = ResourceRecord::relativeDate(item.value(QLatin1String("created")).toString(), QDateTime::currentDateTime());
    const QString version = ResourceRecord::versionText(item);
    const QString versionPart
            = version.isEmpty() ? QString()
                                : QCoreApplication::translate("Quorix::CardItemAccessible", ", version %1").arg(version);
    return QCoreApplication::translate("Quorix::CardItemAccessible", "%1 by %2, %3%4. %5 downloads, %6 likes")
            .arg(what, ResourceRecord::authorName(item), age, versionPart)
            .arg(ResourceRecord::counter(item, QStringLiteral("downloads")))
            .arg(ResourceRecord::counter(item, QStringLiteral("likes")));
}

void CardItemAccessible::setText(QAccessible::Text, const QString &) { }

QRect CardItemAccessible::rect() const
{
    return isValid() ? view->itemScreenRect(position) : QRect();
}

QAccessible::Role CardItemAccessible::role() const
{
    return QAccessible::ListItem;
}

QAccessible::State CardItemAccessible::state() const
{
    QAccessible::State state;
    if (!isValid()) {
        state.invalid = true;
        return state;
    }
    const bool isCurrent = view->currentIndex() == position;
    state.focusable = true;
    state.selectable = true;
    state.focused = isCurrent && view->hasFocus();
    state.selected = isCurrent;
    state.offscreen = !view->cardAt(position) || !view->visibleRegion().intersects(view->itemRect(position));
    return state;
}

void *CardItemAccessible::interface_cast(QAccessible::InterfaceType type)
{
    return type == QAccessible::ActionInterface ? static_cast<QAccessibleActionInterface *>(this) : nullptr;
}

QStringList CardItemAccessible::actionNames() const
{
    return {pressAction(), setFocusAction()};
}

void CardItemAccessible::doAction(const QString &actionName)
{
    if (!isValid())
        return;
    if (actionName == pressAction()) {
        view->activateItem(position);
    } else if (actionName == setFocusAction()) {
        view->setFocus(Qt::OtherFocusReason);
        view->setCurrentIndex(position);
    }
}

QStringList CardItemAccessible::keyBindingsForAction(const QString &actionName) const
{
    return actionName == pressAction() ? QStringList{QStringLiteral("Return")} : QStringList();
}

} // namespace Quorix
