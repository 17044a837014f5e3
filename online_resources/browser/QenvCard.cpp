#include "QenvCard.h"

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
constexpr int innerWidth = QenvCard::cardWidth - 24;

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

QenvCard::QenvCard(const QJsonObject &item, QWidget *parent)
    : QWidget(parent)
    , id(ResourceRecord::id(item))
    , name(item.value(QLatin1String("name")).toString())
    , author(ResourceRecord::authorName(item))
    , downloads(ResourceRecord::counter(item, QStringLiteral("downloads")))
    , visibility(ResourceRecord::visibility(item))
    , canDownload(ResourceRecord::canDownload(item))
    , created(item.value(QLatin1String("created")).toString())
    , likes(int(ResourceRecord::counter(item, QStringLiteral("likes"))))
    , thumbnail(item.value(QLatin1String("thumbnail")).toString())
{
    const QJsonObject metadata = item.value(QLatin1String("qenv_metadata")).toObject();
    pythonVersion = metadata.value(QLatin1String("python")).toString(QStringLiteral("3.x"));
    packageCount = metadata.value(QLatin1String("package_count")).toInteger(0);

    QString description = item.value(QLatin1String("description")).toString();
    if (description.size() > 200)
        description = description.left(197) + QStringLiteral("...");
    buildLayout(description);
    applyVisibilityBadge();
    applyDownloadState();
    updateLikeButton();
}

void QenvCard::buildLayout(const QString &description)
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
    picture->setStyleSheet(QStringLiteral("QWidget { background-color: #1a5f3e; }"));
    auto *pictureLayout = new QVBoxLayout(picture);
    pictureLayout->setContentsMargins(0, 0, 0, 0);
    pictureLayout->addWidget(new CardThumbnail(thumbnail, QSize(innerWidth, 120), this));
    holderLayout->addWidget(picture);
    layout->addWidget(pictureHolder);

    auto *badges = new QHBoxLayout;
    badges->setSpacing(6);
    auto *typePill = new QLabel(QStringLiteral("QENV"), body);
    typePill->setStyleSheet(badgeStyle);
    typePill->setContentsMargins(5, 1, 5, 1);
    badges->addWidget(typePill);
    auto *pythonPill = new QLabel(tr("Python %1").arg(pythonVersion), body);
    pythonPill->setObjectName(QStringLiteral("qenvCardPythonPill"));
    pythonPill->setStyleSheet(QStringLiteral(
            "QLabel { background-color: #ffd43b; color:rgb(0, 0, 0); border-radius: 3px; font-weight: bold; }"));
    pythonPill->setContentsMargins(5, 0, 5, 0);
    badges->addWidget(pythonPill);
    visibilityBadge = new QLabel(body);
    visibilityBadge->setStyleSheet(badgeStyle);
    visibilityBadge->setContentsMargins(5, 1, 5, 1);
    badges->addWidget(visibilityBadge);
    badges->addStretch();
    layout->addLayout(badges);

    layout->addWidget(elidedLabel(
            name, QStringLiteral("QLabel { font-size: 16pt; font-weight: bold; margin: 0px; padding: 0px; }"), body));

    const QString date = ResourceRecord::relativeDate(created, QDateTime::currentDateTime());
    layout->addWidget(elidedLabel(tr("%1 by %2").arg(date, author),
                                  QStringLiteral("QLabel { font-size: 9pt; margin: 0px; padding: 0px; }"), body));

    auto *descriptionLabel = new QLabel(description, body);
    descriptionLabel->setObjectName(QStringLiteral("cardDescription"));
    descriptionLabel->setStyleSheet(QStringLiteral("QLabel { font-size: 8pt; }"));
    descriptionLabel->setWordWrap(true);
    descriptionLabel->setAlignment(Qt::AlignLeft | Qt::AlignTop);
    descriptionLabel->setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Ignored);
    layout->addWidget(descriptionLabel, 1);

    const QString downloadCount = ResourceRecord::abbreviatedCount(downloads);
    const QString stats = packageCount == 1 ? tr("%1 downloads • 1 package").arg(downloadCount)
                                            : tr("%1 downloads • %2 packages").arg(downloadCount).arg(packageCount);
    auto *downloadsLabel = new QLabel(stats, body);
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
    installButton = new PillButton(tr("Install"), body);
    installButton->setObjectName(QStringLiteral("qenvCardInstallButton"));
    installButton->setMinimumWidth(96);
    installButton->setFixedHeight(pillHeight);
    connect(installButton, &QPushButton::clicked, this, [this] { emit installClicked(id); });
    actions->addWidget(installButton);
    layout->addLayout(actions);
}

QString QenvCard::envId() const
{
    return id;
}

bool QenvCard::isLiked() const
{
    return liked;
}

void QenvCard::setLiked(bool value)
{
    liked = value;
}

void QenvCard::setLikeCount(int count)
{
    likes = count;
}

void QenvCard::setLikeEnabled(bool enabled, const QString &disabledToolTip)
{
    likeDisabledToolTip = disabledToolTip;
    likeButton->setEnabled(enabled);
    updateLikeButton();
}

void QenvCard::updateLikeButton()
{
    likeButton->setIcon(liked ? ThemedIcon::create(QStringLiteral(":/icons/heart-solid.svg"), QColor(0xe5, 0x39, 0x35))
                              : ThemedIcon::create(QStringLiteral(":/icons/heart-outline.svg")));
    likeButton->setChecked(liked);
    if (likeButton->isEnabled())
        likeButton->setToolTip(liked ? tr("Already liked") : tr("Like this environment"));
    else
        likeButton->setToolTip(likeDisabledToolTip);
    likeButton->setText(likes >= 1 ? QString::number(likes) : QString());
    likeButton->update();
}

void QenvCard::paintEvent(QPaintEvent *)
{
    // The card's surface: a rounded panel one step off the window colour, so cards stand out in both themes.
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(QPen(palette().color(QPalette::Mid), 1));
    painter.setBrush(palette().color(QPalette::AlternateBase));
    painter.drawRoundedRect(QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5), 18, 18);
}

void QenvCard::mouseReleaseEvent(QMouseEvent *event)
{
    if (event->button() == Qt::LeftButton && rect().contains(event->position().toPoint()))
        emit clicked(id);
    QWidget::mouseReleaseEvent(event);
}

void QenvCard::applyVisibilityBadge()
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

void QenvCard::applyDownloadState()
{
    installButton->setEnabled(canDownload);
    if (canDownload) {
        installButton->setToolTip(QString());
    } else if (visibility == QLatin1String("purchasable")) {
        installButton->setToolTip(tr("This environment is purchasable. Contact the author for access."));
    } else if (visibility == QLatin1String("private")) {
        installButton->setToolTip(tr("This environment is private. You need authorization from the author."));
    }
}

} // namespace Quorix
