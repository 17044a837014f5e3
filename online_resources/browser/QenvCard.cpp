#include "QenvCard.h"

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

QenvCard::QenvCard(const QJsonObject &item, QWidget *parent)
    : ResourceCard(parent)
{
    connect(this, &ResourceCard::downloadClicked, this, &QenvCard::installClicked);
    build(item);
}

void QenvCard::readKindFields(const QJsonObject &item)
{
    const QJsonObject metadata = item.value(QLatin1String("qenv_metadata")).toObject();
    pythonVersion = metadata.value(QLatin1String("python")).toString(QStringLiteral("3.x"));
    packageCount = metadata.value(QLatin1String("package_count")).toInteger(0);
}

QString QenvCard::envId() const
{
    return resourceId();
}

QPushButton *QenvCard::createPillButton(const QString &text, QWidget *parent)
{
    return new PillButton(text, parent);
}

void QenvCard::showTypePill(QLabel *pill) const
{
    pill->setText(QStringLiteral("QENV"));
    restyle(pill, badgeStyle());
}

void QenvCard::showExtraPill(QLabel *pill) const
{
    pill->setText(tr("Python %1").arg(pythonVersion));
    pill->setObjectName(QStringLiteral("qenvCardPythonPill"));
    restyle(pill, QStringLiteral("QLabel { background-color: #ffd43b; color:rgb(0, 0, 0); border-radius: 3px; "
                                 "font-weight: bold; }"));
    pill->setContentsMargins(5, 0, 5, 0);
    pill->show();
}

// Environments carry no version of their own on the card.
QString QenvCard::metaLine(const QString &, const QString &date, const QString &author) const
{
    return tr("%1 by %2").arg(date, author);
}

QString QenvCard::statsLine(const QString &downloadCount) const
{
    return packageCount == 1 ? tr("%1 downloads • 1 package").arg(downloadCount)
                             : tr("%1 downloads • %2 packages").arg(downloadCount).arg(packageCount);
}

QString QenvCard::actionText() const
{
    return tr("Install");
}

QString QenvCard::actionObjectName() const
{
    return QStringLiteral("qenvCardInstallButton");
}

QString QenvCard::pictureStyle() const
{
    return QStringLiteral("QWidget { background-color: #1a5f3e; }");
}

QString QenvCard::likeToolTip() const
{
    return tr("Like this environment");
}

QString QenvCard::purchasableToolTip() const
{
    return tr("This environment is purchasable. Contact the author for access.");
}

QString QenvCard::privateToolTip() const
{
    return tr("This environment is private. You need authorization from the author.");
}

} // namespace Quorix
