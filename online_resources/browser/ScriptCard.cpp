#include "ScriptCard.h"

#include "core/ResourceRecord.h"

#include <QLabel>
#include <QPainter>
#include <QPainterPath>
#include <QPushButton>
#include <QStyleOptionButton>

namespace Quorix {

namespace {

// A push button drawn inside a pill-shaped clip.
class PillButton : public QPushButton
{
public:
    using QPushButton::QPushButton;

protected:
    void paintEvent(QPaintEvent *) override
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
        // The clip cuts the style's own frame, focus frame included, at the rounded ends; redraw the outline along
        // the pill, in the highlight colour and thicker while the button has keyboard focus.
        painter.setClipping(false);
        const qreal penWidth = hasFocus() ? 2 : 1;
        painter.setPen(QPen(palette().color(hasFocus() ? QPalette::Highlight : QPalette::Mid), penWidth));
        painter.setBrush(Qt::NoBrush);
        const qreal inset = penWidth / 2;
        painter.drawRoundedRect(QRectF(rect()).adjusted(inset, inset, -inset, -inset), radius - inset, radius - inset);
    }
};

} // namespace

ScriptCard::ScriptCard(const QJsonObject &item, QWidget *parent)
    : ResourceCard(parent)
{
    build(item);
}

QString ScriptCard::scriptId() const
{
    return resourceId();
}

QPushButton *ScriptCard::createPillButton(const QString &text, QWidget *parent)
{
    return new PillButton(text, parent);
}

void ScriptCard::readKindFields(const QJsonObject &item)
{
    type = ResourceRecord::type(item);
}

void ScriptCard::showTypePill(QLabel *pill) const
{
    pill->setText(type.isEmpty() ? QStringLiteral("SCRIPT") : type.toUpper());
    restyle(pill, badgeStyle());
}

QString ScriptCard::pictureStyle() const
{
    return QStringLiteral("QWidget { background-color: palette(dark); }");
}

QString ScriptCard::likeToolTip() const
{
    return tr("Like this script");
}

QString ScriptCard::purchasableToolTip() const
{
    return tr("This script is purchasable. Contact the author for access.");
}

QString ScriptCard::privateToolTip() const
{
    return tr("This script is private. You need authorization from the author.");
}

} // namespace Quorix
