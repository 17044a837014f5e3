#include "AccessibleTree.h"

#include <QAccessible>
#include <QMetaEnum>
#include <QObject>

#include <functional>

namespace Quorix::Testing {

namespace {

// Menus and item views can nest deeply, but no window of ours comes near this; it only stops a cycle.
constexpr int deepestLevel = 64;

bool isReachable(QAccessibleInterface *element)
{
    const QAccessibleActionInterface *actions = element->actionInterface();
    return element->state().focusable || (actions && !actions->actionNames().isEmpty());
}

void visitShown(QAccessibleInterface *element, int level, const std::function<bool(QAccessibleInterface *)> &visit)
{
    if (!element || !element->isValid() || level > deepestLevel || element->state().invisible)
        return;
    if (!visit(element))
        return;
    for (int index = 0; index < element->childCount(); ++index)
        visitShown(element->child(index), level + 1, visit);
}

} // namespace

QStringList AccessibleTree::unnamedControls(QObject *root)
{
    QStringList unnamed;
    visitShown(QAccessible::queryAccessibleInterface(root), 0, [&unnamed](QAccessibleInterface *element) {
        if (isReachable(element) && element->text(QAccessible::Name).trimmed().isEmpty())
            unnamed.append(describe(element));
        return true;
    });
    return unnamed;
}

QAccessibleInterface *AccessibleTree::find(QObject *root, int role, const QString &name)
{
    QAccessibleInterface *found = nullptr;
    visitShown(QAccessible::queryAccessibleInterface(root), 0, [&](QAccessibleInterface *element) {
        if (!found && element->role() == role && element->text(QAccessible::Name) == name)
            found = element;
        return !found;
    });
    return found;
}

QString AccessibleTree::describe(QAccessibleInterface *element)
{
    const QObject *object = element->object();
    return QStringLiteral("%1 '%2' (%3)")
            .arg(QString::fromLatin1(QMetaEnum::fromType<QAccessible::Role>().valueToKey(element->role())),
                 object ? object->objectName() : QString(),
                 object ? QString::fromLatin1(object->metaObject()->className()) : QStringLiteral("item"));
}

QString AccessibleTree::spokenName(QAccessibleInterface *element)
{
    const auto labels = element->relations(QAccessible::Label);
    if (labels.isEmpty())
        return element->text(QAccessible::Name);
    QString caption = labels.first().first->text(QAccessible::Name).trimmed();
    if (caption.endsWith(QLatin1Char(':')))
        caption.chop(1);
    return caption;
}

} // namespace Quorix::Testing
