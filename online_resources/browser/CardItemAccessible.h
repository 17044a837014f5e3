#pragma once

#include <QAccessibleInterface>
#include <QPointer>

namespace Quorix {

class CardGridView;

// One loaded resource in the grid: named after the resource, described by kind, author, age, version and counts,
// and opened by its press action as a click on its card opens it. The card's buttons appear as its children while
// the card is built.
class CardItemAccessible : public QAccessibleInterface, public QAccessibleActionInterface
{
public:
    CardItemAccessible(CardGridView *view, int index);

    int index() const { return position; }

    bool isValid() const override;
    QObject *object() const override;
    QWindow *window() const override;
    QAccessibleInterface *parent() const override;
    QAccessibleInterface *child(int index) const override;
    int childCount() const override;
    int indexOfChild(const QAccessibleInterface *child) const override;
    QAccessibleInterface *childAt(int x, int y) const override;
    QString text(QAccessible::Text t) const override;
    void setText(QAccessible::Text t, const QString &text) override;
    QRect rect() const override;
    QAccessible::Role role() const override;
    QAccessible::State state() const override;
    void *interface_cast(QAccessible::InterfaceType type) override;

    QStringList actionNames() const override;
    void doAction(const QString &actionName) override;
    QStringList keyBindingsForAction(const QString &actionName) const override;

private:
    QAccessibleInterface *card() const;
    QString description() const;

    QPointer<CardGridView> view;
    int position;
};

} // namespace Quorix
