#include "ScriptCard.h"

#include "CardThumbnail.h"
#include "plugin/ResourceRecord.h"

#include <ThemedIcon.h>

#include <QDateTime>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <QPushButton>
#include <QStyleOptionButton>
#include <QVBoxLayout>

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
        // The clip cuts the style's own frame at the rounded ends; redraw the outline along the pill.
        painter.setClipping(false);
        painter.setPen(QPen(palette().color(QPalette::Mid), 1));
        painter.setBrush(Qt::NoBrush);
        painter.drawRoundedRect(QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5), radius - 0.5, radius - 0.5);
    }
};

const QString badgeStyle
        = QStringLiteral("QLabel { border: 1px solid #666; border-radius: 3px; font-size: 7pt; font-weight: bold; }");
constexpr int pillHeight = 26;
constexpr int innerWidth = ScriptCard::cardWidth - 24;

QString typePillText(const QString &type)
{
    if (type.isEmpty())
        return QStringLiteral("SCRIPT");
    return type.toUpper();
}

QLabel *elidedLabel(const QString &text, const QString &styleSheet, QWidget *parent)
{
    auto *label = new QLabel(parent);
    label->setStyleSheet(styleSheet);
    label->ensurePolished();
    label->setText(label->fontMetrics().elidedText(text, Qt::ElideRight, innerWidth));
    if (label->text() != text)
        label->setToolTip(text);
    return label;
}

} // namespace

ScriptCard::ScriptCard(const QJsonObject &item, QWidget *parent)
    : QWidget(parent)
    , id(ResourceRecord::id(item))
    , name(item.value(QLatin1String("name")).toString())
    , type(ResourceRecord::type(item))
    , author(ResourceRecord::authorName(item))
    , downloads(ResourceRecord::counter(item, QStringLiteral("downloads")))
    , visibility(ResourceRecord::visibility(item))
    , canDownload(ResourceRecord::canDownload(item))
    , created(item.value(QLatin1String("created")).toString())
    , version(ResourceRecord::versionText(item))
    , likes(int(ResourceRecord::counter(item, QStringLiteral("likes"))))
    , thumbnail(item.value(QLatin1String("thumbnail")).toString())
{
    QString description = item.value(QLatin1String("description")).toString();
    if (description.size() > 200)
        description = description.left(197) + QStringLiteral("...");
    buildLayout(description);
    applyVisibilityBadge();
    applyDownloadState();
    updateLikeButton();
}

void ScriptCard::buildLayout(const QString &description)
{
    setFixedSize(cardWidth, cardHeight);
    setCursor(Qt::PointingHandCursor);

    auto *outer = new QVBoxLayout(this);
    outer->setContentsMargins(0, 0, 0, 0);
    auto *frame = new QGroupBox(this);
    frame->setStyleSheet(QStringLiteral("QGroupBox { margin: 0px; padding: 1px; border-radius: 18px; }"));
    outer->addWidget(frame);

    auto *frameLayout = new QVBoxLayout(frame);
    frameLayout->setContentsMargins(0, 0, 0, 0);
    auto *body = new QWidget(frame);
    frameLayout->addWidget(body);

    auto *layout = new QVBoxLayout(body);
    layout->setContentsMargins(11, 11, 11, 11);
    layout->setSpacing(6);

    // The rounding is set on a holder of its own so that it reaches only the picture, not the buttons.
    auto *pictureHolder = new QWidget(body);
    pictureHolder->setStyleSheet(QStringLiteral("QWidget { border-radius: 15px; }"));
    auto *holderLayout = new QVBoxLayout(pictureHolder);
    holderLayout->setContentsMargins(0, 0, 0, 0);
    auto *picture = new QWidget(pictureHolder);
    picture->setAttribute(Qt::WA_StyledBackground);
    picture->setStyleSheet(QStringLiteral("QWidget { background-color: palette(dark); }"));
    auto *pictureLayout = new QVBoxLayout(picture);
    pictureLayout->setContentsMargins(0, 0, 0, 0);
    pictureLayout->addWidget(new CardThumbnail(thumbnail, QSize(innerWidth, 120), this));
    holderLayout->addWidget(picture);
    layout->addWidget(pictureHolder);

    auto *badges = new QHBoxLayout;
    badges->setSpacing(6);
    auto *typePill = new QLabel(typePillText(type), body);
    typePill->setStyleSheet(badgeStyle);
    typePill->setContentsMargins(5, 1, 5, 1);
    badges->addWidget(typePill);
    visibilityBadge = new QLabel(body);
    visibilityBadge->setStyleSheet(badgeStyle);
    visibilityBadge->setContentsMargins(5, 1, 5, 1);
    badges->addWidget(visibilityBadge);
    badges->addStretch();
    layout->addLayout(badges);

    layout->addWidget(elidedLabel(
            name, QStringLiteral("QLabel { font-size: 16pt; font-weight: bold; margin: 0px; padding: 0px; }"), body));

    const QString versionPart = version.isEmpty() ? QString() : tr("v%1 • ").arg(version);
    const QString date = ResourceRecord::relativeDate(created, QDateTime::currentDateTime());
    layout->addWidget(elidedLabel(tr("%1%2 by %3").arg(versionPart, date, author),
                                  QStringLiteral("QLabel { font-size: 9pt; margin: 0px; padding: 0px; }"), body));

    auto *descriptionLabel = new QLabel(description, body);
    descriptionLabel->setObjectName(QStringLiteral("cardDescription"));
    descriptionLabel->setStyleSheet(QStringLiteral("QLabel { font-size: 8pt; }"));
    descriptionLabel->setWordWrap(true);
    descriptionLabel->setAlignment(Qt::AlignLeft | Qt::AlignTop);
    descriptionLabel->setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Ignored);
    layout->addWidget(descriptionLabel, 1);

    auto *downloadsLabel = new QLabel(tr("%1 downloads").arg(ResourceRecord::abbreviatedCount(downloads)), body);
    downloadsLabel->setObjectName(QStringLiteral("cardDownloads"));
    downloadsLabel->setStyleSheet(QStringLiteral("QLabel { font-size: 8pt; }"));
    layout->addWidget(downloadsLabel);

    auto *actions = new QHBoxLayout;
    likeButton = new PillButton(body);
    likeButton->setObjectName(QStringLiteral("scriptCardLikeButton"));
    likeButton->setCheckable(true);
    likeButton->setIconSize(QSize(14, 14));
    likeButton->setMinimumWidth(56);
    likeButton->setFixedHeight(pillHeight);
    connect(likeButton, &QPushButton::clicked, this, [this] {
        // The server decides the new state; until it answers the button shows the last known one.
        updateLikeButton();
        emit likeClicked(id);
    });
    actions->addWidget(likeButton);
    actions->addStretch();
    downloadButton = new PillButton(tr("Download"), body);
    downloadButton->setObjectName(QStringLiteral("scriptCardDownloadButton"));
    downloadButton->setMinimumWidth(96);
    downloadButton->setFixedHeight(pillHeight);
    connect(downloadButton, &QPushButton::clicked, this, [this] { emit downloadClicked(id); });
    actions->addWidget(downloadButton);
    layout->addLayout(actions);
}

QString ScriptCard::scriptId() const
{
    return id;
}

bool ScriptCard::isLiked() const
{
    return liked;
}

void ScriptCard::setLiked(bool value)
{
    liked = value;
}

void ScriptCard::setLikeCount(int count)
{
    likes = count;
}

void ScriptCard::setLikeEnabled(bool enabled, const QString &disabledToolTip)
{
    likeDisabledToolTip = disabledToolTip;
    likeButton->setEnabled(enabled);
    updateLikeButton();
}

void ScriptCard::updateLikeButton()
{
    likeButton->setIcon(liked ? ThemedIcon::create(QStringLiteral(":/icons/heart-solid.svg"), QColor(0xe5, 0x39, 0x35))
                              : ThemedIcon::create(QStringLiteral(":/icons/heart-outline.svg")));
    likeButton->setChecked(liked);
    if (likeButton->isEnabled())
        likeButton->setToolTip(liked ? tr("Already liked") : tr("Like this script"));
    else
        likeButton->setToolTip(likeDisabledToolTip);
    likeButton->setText(likes >= 1 ? QString::number(likes) : QString());
    likeButton->update();
}

void ScriptCard::paintEvent(QPaintEvent *)
{
    // The card's surface: a rounded panel one step off the window colour, so cards stand out in both themes.
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(QPen(palette().color(QPalette::Mid), 1));
    painter.setBrush(palette().color(QPalette::AlternateBase));
    painter.drawRoundedRect(QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5), 18, 18);
}

void ScriptCard::mouseReleaseEvent(QMouseEvent *event)
{
    if (event->button() == Qt::LeftButton && rect().contains(event->position().toPoint()))
        emit clicked(id);
    QWidget::mouseReleaseEvent(event);
}

void ScriptCard::applyVisibilityBadge()
{
    if (visibility.isEmpty() || visibility == QLatin1String("public")) {
        visibilityBadge->hide();
        return;
    }
    visibilityBadge->setText(visibility.toUpper());
    if (visibility == QLatin1String("private")) {
        visibilityBadge->setStyleSheet(QStringLiteral("QLabel { background-color: #f9a825; color: white; "
                                                      "border-radius: 3px; font-size: 6pt; font-weight: bold; }"));
    } else if (visibility == QLatin1String("purchasable")) {
        visibilityBadge->setText(tr("LOCKED"));
        visibilityBadge->setStyleSheet(QStringLiteral("QLabel { background-color: #e53935; color: white; "
                                                      "border-radius: 3px; font-size: 6pt; font-weight: bold; }"));
    }
    visibilityBadge->show();
}

void ScriptCard::applyDownloadState()
{
    downloadButton->setEnabled(canDownload);
    if (canDownload) {
        downloadButton->setToolTip(QString());
    } else if (visibility == QLatin1String("purchasable")) {
        downloadButton->setToolTip(tr("This script is purchasable. Contact the author for access."));
    } else if (visibility == QLatin1String("private")) {
        downloadButton->setToolTip(tr("This script is private. You need authorization from the author."));
    }
}

} // namespace Quorix
