#include "LikeButton.h"

#include "LikeButtonAccessible.h"

#include <QAccessible>
#include <QPainter>
#include <QPainterPath>
#include <QStyleOptionButton>

namespace Quorix {

LikeButton::LikeButton(QWidget *parent)
    : QPushButton(parent)
{
    static const bool accessibleInstalled = [] {
        QAccessible::installFactory(&LikeButtonAccessible::create);
        return true;
    }();
    Q_UNUSED(accessibleInstalled)
    setCheckable(true);
}

void LikeButton::showState(bool liked, int likeCount, const QString &disabledReason)
{
    setChecked(liked);
    setText(likeCount >= 1 ? QString::number(likeCount) : QString());
    setAccessibleName(liked ? tr("Unlike") : tr("Like"));
    const QString count = likeCount == 1 ? tr("1 like") : tr("%1 likes").arg(likeCount);
    setAccessibleDescription(isEnabled() || disabledReason.isEmpty() ? count : tr("%1. %2").arg(count, disabledReason));
    update();
}

// Whether the user likes this is the server's to say; showState() brings its answer.
void LikeButton::nextCheckState() { }

void LikeButton::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const qreal radius = height() / 2.0;
    QPainterPath pill;
    pill.addRoundedRect(QRectF(rect()), radius, radius);
    painter.setClipPath(pill);
    QStyleOptionButton option;
    initStyleOption(&option);
    style()->drawControl(QStyle::CE_PushButton, &option, &painter, this);
    // The clip cuts the style's own frame, focus frame included, at the rounded ends; the outline is redrawn along
    // the pill, in the highlight colour and thicker while the button has keyboard focus.
    painter.setClipping(false);
    const bool focused = hasFocus();
    const qreal penWidth = focused ? 2 : 1;
    painter.setPen(QPen(palette().color(focused ? QPalette::Highlight : QPalette::Mid), penWidth));
    painter.setBrush(Qt::NoBrush);
    const qreal inset = penWidth / 2;
    painter.drawRoundedRect(QRectF(rect()).adjusted(inset, inset, -inset, -inset), radius - inset, radius - inset);
}

} // namespace Quorix
