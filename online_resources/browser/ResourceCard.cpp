#include "ResourceCard.h"

#include "CardThumbnail.h"
#include "LikeButton.h"
#include "core/ResourceRecord.h"

#include <ThemedIcon.h>

#include <QDateTime>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QMouseEvent>
#include <QPainter>
#include <QPushButton>
#include <QVBoxLayout>

namespace Quorix {

namespace {

constexpr int pillHeight = 26;
constexpr int innerWidth = ResourceCard::cardWidth - 24;

QLabel *elidedLabel(const QString &styleSheet, QWidget *parent)
{
    auto *label = ResourceCard::createTextLabel(QString(), parent);
    label->setStyleSheet(styleSheet);
    label->ensurePolished();
    return label;
}

void setElidedText(QLabel *label, const QString &text)
{
    label->setText(label->fontMetrics().elidedText(text, Qt::ElideRight, innerWidth));
    // A screen reader reads what the record says, not the ellipsis the card has room for.
    label->setAccessibleName(text);
    label->setToolTip(label->text() == text ? QString() : QStringLiteral("<p>%1</p>").arg(text.toHtmlEscaped()));
}

} // namespace

QLabel *ResourceCard::createTextLabel(const QString &text, QWidget *parent)
{
    // Authors write names and descriptions; left to guess, QLabel would render their HTML on the grid.
    auto *label = new QLabel(text, parent);
    label->setTextFormat(Qt::PlainText);
    return label;
}

ResourceCard::ResourceCard(QWidget *parent)
    : QWidget(parent)
{ }

void ResourceCard::build(const QJsonObject &item)
{
    readItem(item);
    buildLayout();
    showItem();
}

void ResourceCard::bind(const QJsonObject &item)
{
    readItem(item);
    liked = false;
    showItem();
}

void ResourceCard::readItem(const QJsonObject &item)
{
    id = ResourceRecord::id(item);
    name = item.value(QLatin1String("name")).toString();
    author = ResourceRecord::authorName(item);
    downloads = ResourceRecord::counter(item, QStringLiteral("downloads"));
    visibility = ResourceRecord::visibility(item);
    canDownload = ResourceRecord::canDownload(item);
    created = item.value(QLatin1String("created")).toString();
    version = ResourceRecord::versionText(item);
    likes = int(ResourceRecord::counter(item, QStringLiteral("likes")));
    thumbnail = item.value(QLatin1String("thumbnail")).toString();
    description = item.value(QLatin1String("description")).toString();
    if (description.size() > 200)
        description = description.left(197) + QStringLiteral("...");
    readKindFields(item);
}

void ResourceCard::showItem()
{
    picture->showPicture(thumbnail);
    picture->setAccessibleName(tr("Picture of %1").arg(name));
    showTypePill(typePill);
    showExtraPill(extraPill);
    setElidedText(nameLabel, name);
    setElidedText(metaLabel,
                  metaLine(version, ResourceRecord::relativeDate(created, QDateTime::currentDateTime()), author));
    descriptionLabel->setText(description);
    downloadsLabel->setText(statsLine(ResourceRecord::abbreviatedCount(downloads)));
    actionButton->setText(actionText());
    actionButton->setAccessibleName(tr("%1 %2").arg(actionText(), name));
    applyVisibilityBadge();
    applyDownloadState();
    updateLikeButton();
}

QString ResourceCard::badgeStyle()
{
    return QStringLiteral("QLabel { border: 1px solid #666; border-radius: 3px; font-size: 7pt; font-weight: bold; }");
}

void ResourceCard::restyle(QWidget *widget, const QString &styleSheet)
{
    if (widget->styleSheet() != styleSheet)
        widget->setStyleSheet(styleSheet);
}

void ResourceCard::readKindFields(const QJsonObject &) { }

void ResourceCard::showExtraPill(QLabel *) const { }

QString ResourceCard::metaLine(const QString &version, const QString &date, const QString &author) const
{
    const QString versionPart = version.isEmpty() ? QString() : tr("v%1 • ").arg(version);
    return tr("%1%2 by %3").arg(versionPart, date, author);
}

QString ResourceCard::statsLine(const QString &downloadCount) const
{
    return tr("%1 downloads").arg(downloadCount);
}

QString ResourceCard::actionText() const
{
    return tr("Download");
}

QString ResourceCard::actionObjectName() const
{
    return QStringLiteral("scriptCardDownloadButton");
}

void ResourceCard::buildLayout()
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
    auto *pictureArea = new QWidget(pictureHolder);
    pictureArea->setAttribute(Qt::WA_StyledBackground);
    pictureArea->setStyleSheet(pictureStyle());
    auto *pictureLayout = new QVBoxLayout(pictureArea);
    pictureLayout->setContentsMargins(0, 0, 0, 0);
    picture = new CardThumbnail(QSize(innerWidth, 120), this);
    pictureLayout->addWidget(picture);
    holderLayout->addWidget(pictureArea);
    layout->addWidget(pictureHolder);

    auto *badges = new QHBoxLayout;
    badges->setSpacing(6);
    typePill = createTextLabel(QString(), body);
    typePill->setContentsMargins(5, 1, 5, 1);
    badges->addWidget(typePill);
    extraPill = createTextLabel(QString(), body);
    extraPill->hide();
    badges->addWidget(extraPill);
    visibilityBadge = createTextLabel(QString(), body);
    visibilityBadge->setStyleSheet(badgeStyle());
    visibilityBadge->setContentsMargins(5, 1, 5, 1);
    badges->addWidget(visibilityBadge);
    badges->addStretch();
    layout->addLayout(badges);

    nameLabel = elidedLabel(QStringLiteral("QLabel { font-size: 16pt; font-weight: bold; margin: 0px; padding: 0px; }"),
                            body);
    layout->addWidget(nameLabel);
    metaLabel = elidedLabel(QStringLiteral("QLabel { font-size: 9pt; margin: 0px; padding: 0px; }"), body);
    layout->addWidget(metaLabel);

    descriptionLabel = createTextLabel(QString(), body);
    descriptionLabel->setObjectName(QStringLiteral("cardDescription"));
    descriptionLabel->setStyleSheet(QStringLiteral("QLabel { font-size: 8pt; }"));
    descriptionLabel->setWordWrap(true);
    descriptionLabel->setAlignment(Qt::AlignLeft | Qt::AlignTop);
    descriptionLabel->setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Ignored);
    layout->addWidget(descriptionLabel, 1);

    downloadsLabel = new QLabel(body);
    downloadsLabel->setObjectName(QStringLiteral("cardDownloads"));
    downloadsLabel->setStyleSheet(QStringLiteral("QLabel { font-size: 8pt; }"));
    layout->addWidget(downloadsLabel);

    auto *actions = new QHBoxLayout;
    likeButton = new LikeButton(body);
    likeButton->setObjectName(QStringLiteral("scriptCardLikeButton"));
    likeButton->setIconSize(QSize(14, 14));
    likeButton->setMinimumWidth(56);
    likeButton->setFixedHeight(pillHeight);
    // The grid is one keyboard stop whose Enter opens the card; its dialog offers like and download to the keyboard.
    likeButton->setFocusPolicy(Qt::NoFocus);
    connect(likeButton, &QPushButton::clicked, this, [this] { emit likeClicked(id); });
    actions->addWidget(likeButton);
    actions->addStretch();
    actionButton = createPillButton(QString(), body);
    actionButton->setObjectName(actionObjectName());
    actionButton->setMinimumWidth(96);
    actionButton->setFixedHeight(pillHeight);
    actionButton->setFocusPolicy(Qt::NoFocus);
    connect(actionButton, &QPushButton::clicked, this, [this] { emit downloadClicked(id); });
    actions->addWidget(actionButton);
    layout->addLayout(actions);
}

QString ResourceCard::resourceId() const
{
    return id;
}

bool ResourceCard::isLiked() const
{
    return liked;
}

void ResourceCard::setLiked(bool value)
{
    liked = value;
}

void ResourceCard::setLikeCount(int count)
{
    likes = count;
}

void ResourceCard::setLikeEnabled(bool enabled, const QString &disabledToolTip)
{
    likeDisabledToolTip = disabledToolTip;
    likeButton->setEnabled(enabled);
    updateLikeButton();
}

void ResourceCard::updateLikeButton()
{
    likeButton->setIcon(liked ? ThemedIcon::create(QStringLiteral(":/icons/heart-solid.svg"), QColor(0xe5, 0x39, 0x35))
                              : ThemedIcon::create(QStringLiteral(":/icons/heart-outline.svg")));
    if (likeButton->isEnabled())
        likeButton->setToolTip(liked ? tr("Already liked") : likeToolTip());
    else
        likeButton->setToolTip(likeDisabledToolTip);
    likeButton->showState(liked, likes, likeDisabledToolTip);
}

void ResourceCard::activate()
{
    emit clicked(id);
}

void ResourceCard::paintEvent(QPaintEvent *)
{
    // The card's surface: a rounded panel one step off the window colour, so cards stand out in both themes.
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(QPen(palette().color(QPalette::Mid), 1));
    painter.setBrush(palette().color(QPalette::AlternateBase));
    painter.drawRoundedRect(QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5), 18, 18);
}

void ResourceCard::mouseReleaseEvent(QMouseEvent *event)
{
    if (event->button() == Qt::LeftButton && rect().contains(event->position().toPoint()))
        activate();
    QWidget::mouseReleaseEvent(event);
}

void ResourceCard::applyVisibilityBadge()
{
    if (visibility.isEmpty() || visibility == QLatin1String("public")) {
        visibilityBadge->clear();
        restyle(visibilityBadge, badgeStyle());
        visibilityBadge->hide();
        return;
    }
    visibilityBadge->setText(visibility.toUpper());
    if (visibility == QLatin1String("private")) {
        restyle(visibilityBadge, QStringLiteral("QLabel { background-color: #f9a825; color: white; "
                                                "border-radius: 3px; font-size: 6pt; font-weight: bold; }"));
    } else if (visibility == QLatin1String("purchasable")) {
        visibilityBadge->setText(tr("LOCKED"));
        restyle(visibilityBadge, QStringLiteral("QLabel { background-color: #e53935; color: white; "
                                                "border-radius: 3px; font-size: 6pt; font-weight: bold; }"));
    } else {
        restyle(visibilityBadge, badgeStyle());
    }
    visibilityBadge->show();
}

void ResourceCard::applyDownloadState()
{
    actionButton->setEnabled(canDownload);
    if (!canDownload && visibility == QLatin1String("purchasable"))
        actionButton->setToolTip(purchasableToolTip());
    else if (!canDownload && visibility == QLatin1String("private"))
        actionButton->setToolTip(privateToolTip());
    else
        actionButton->setToolTip(QString());
}

} // namespace Quorix
