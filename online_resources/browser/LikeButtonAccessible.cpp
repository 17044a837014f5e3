#include "LikeButtonAccessible.h"

#include "LikeButton.h"

#include <QKeySequence>

namespace Quorix {

LikeButtonAccessible::LikeButtonAccessible(LikeButton *button)
    : QAccessibleWidget(button, QAccessible::CheckBox)
{ }

QAccessibleInterface *LikeButtonAccessible::create(const QString &className, QObject *object)
{
    if (className != QLatin1String(LikeButton::staticMetaObject.className()))
        return nullptr;
    auto *button = qobject_cast<LikeButton *>(object);
    return button ? new LikeButtonAccessible(button) : nullptr;
}

QAccessible::State LikeButtonAccessible::state() const
{
    QAccessible::State state = QAccessibleWidget::state();
    state.checkable = true;
    state.checked = button()->isChecked();
    state.pressed = button()->isDown();
    return state;
}

QStringList LikeButtonAccessible::actionNames() const
{
    QStringList names;
    if (button()->isEnabled())
        names << toggleAction() << pressAction();
    return names + QAccessibleWidget::actionNames();
}

void LikeButtonAccessible::doAction(const QString &actionName)
{
    if (actionName == toggleAction() || actionName == pressAction())
        button()->click();
    else
        QAccessibleWidget::doAction(actionName);
}

QStringList LikeButtonAccessible::keyBindingsForAction(const QString &actionName) const
{
    if (actionName == toggleAction() || actionName == pressAction())
        return {QKeySequence(Qt::Key_Space).toString(QKeySequence::NativeText)};
    return QAccessibleWidget::keyBindingsForAction(actionName);
}

LikeButton *LikeButtonAccessible::button() const
{
    return static_cast<LikeButton *>(widget());
}

} // namespace Quorix
