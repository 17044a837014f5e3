#pragma once

#include <QAccessibleWidget>

namespace Quorix {

class LikeButton;

// What assistive tools see of a like button: a check box whose toggle and press actions click it, so that they
// take the same single request path as the mouse and the keyboard. Qt's own button interface toggles the check
// state directly, which would show a like the server never heard of.
class LikeButtonAccessible : public QAccessibleWidget
{
public:
    explicit LikeButtonAccessible(LikeButton *button);

    static QAccessibleInterface *create(const QString &className, QObject *object);

    QAccessible::State state() const override;
    QStringList actionNames() const override;
    void doAction(const QString &actionName) override;
    QStringList keyBindingsForAction(const QString &actionName) const override;

private:
    LikeButton *button() const;
};

} // namespace Quorix
