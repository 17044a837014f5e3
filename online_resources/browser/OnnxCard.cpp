#include "OnnxCard.h"

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

OnnxCard::OnnxCard(const QJsonObject &item, QWidget *parent)
    : ResourceCard(parent)
{
    build(item);
}

void OnnxCard::readKindFields(const QJsonObject &item)
{
    encrypted = ResourceRecord::isEncrypted(item);
    size = item.value(QLatin1String("size")).toInteger(0);
}

QString OnnxCard::weightsId() const
{
    return resourceId();
}

QPushButton *OnnxCard::createPillButton(const QString &text, QWidget *parent)
{
    return new PillButton(text, parent);
}

void OnnxCard::showTypePill(QLabel *pill) const
{
    pill->setText(encrypted ? QStringLiteral("ENNX") : QStringLiteral("ONNX"));
    pill->setObjectName(QStringLiteral("onnxCardTypePill"));
    restyle(pill, encrypted ? QStringLiteral("QLabel { background-color: #8e44ad; color: white; "
                                             "border-radius: 3px; font-size: 7pt; font-weight: bold; }")
                            : QStringLiteral("QLabel { background-color: #00a0b0; color: white; "
                                             "border-radius: 3px; font-size: 7pt; font-weight: bold; }"));
}

QString OnnxCard::actionText() const
{
    return tr("Download (%1)").arg(ResourceRecord::fileSize(size));
}

QString OnnxCard::pictureStyle() const
{
    return QStringLiteral("QWidget { background-color: #00a0b0; }");
}

QString OnnxCard::likeToolTip() const
{
    return tr("Like these weights");
}

QString OnnxCard::purchasableToolTip() const
{
    return tr("These weights are purchasable. Contact the author for access.");
}

QString OnnxCard::privateToolTip() const
{
    return tr("These weights are private. You need authorization from the author.");
}

} // namespace Quorix
