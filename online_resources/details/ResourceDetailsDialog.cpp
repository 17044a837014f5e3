#include "ResourceDetailsDialog.h"

#include "RichTextSanitizer.h"
#include "core/ResourceRecord.h"

#include <ThemedIcon.h>

#include <QApplication>
#include <QClipboard>
#include <QDateTime>
#include <QDesktopServices>
#include <QEvent>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QImage>
#include <QJsonArray>
#include <QLabel>
#include <QMessageBox>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPainter>
#include <QPainterPath>
#include <QPixmap>
#include <QPushButton>
#include <QScrollArea>
#include <QTextBrowser>
#include <QTimer>
#include <QVBoxLayout>

namespace Quorix {

namespace {

const QString hourglassGlyph = QStringLiteral("\u23F3");
const QString pictureGlyph = QStringLiteral("\U0001F5BC\uFE0F");
const QString smallBadgeStyle = QStringLiteral("QLabel { font-size: 7pt; font-weight: bold; }");
constexpr int headerWidth = 540;
constexpr int headerHeight = 200;
constexpr qreal headerCornerRadius = 8;
constexpr int copiedFeedbackMilliseconds = 2000;

} // namespace

// The title gets room above the frame; without it the frame line runs through the title's lower half.
QString ResourceDetailsDialog::groupBoxStyle()
{
    return QStringLiteral("QGroupBox { margin: 1px; padding: 1px; border-radius: 3px; } "
                          "QGroupBox { margin-top: 1.2em; } "
                          "QGroupBox::title { subcontrol-origin: margin; subcontrol-position: top left; left: 4px; }");
}

namespace {

QString statusBadgeStyle(const QString &colour)
{
    return QStringLiteral("QLabel { background-color: %1; color: white; border-radius: 3px; font-size: 7pt; "
                          "font-weight: bold; }")
            .arg(colour);
}

// Fits the whole picture into the header, centred, at the screen's pixel density, with the header's rounded
// corners: headers are drawn with their text near the edges, so cropping would cut it off.
QPixmap headerPixmap(const QImage &image, qreal ratio)
{
    const QSize target(int(headerWidth * ratio), int(headerHeight * ratio));
    const QImage scaled = image.scaled(target, Qt::KeepAspectRatio, Qt::SmoothTransformation);
    const QRectF placed(QPointF((target.width() - scaled.width()) / 2.0, (target.height() - scaled.height()) / 2.0),
                        QSizeF(scaled.size()));
    QPixmap pixmap(target);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);
    QPainterPath corners;
    corners.addRoundedRect(placed, headerCornerRadius * ratio, headerCornerRadius * ratio);
    painter.setClipPath(corners);
    painter.drawImage(placed.topLeft(), scaled);
    painter.end();
    pixmap.setDevicePixelRatio(ratio);
    return pixmap;
}

QString headerImageAddress(const QJsonObject &record)
{
    const QJsonObject images = record.value(QLatin1String("images")).toObject();
    const QJsonValue header = images.value(QLatin1String("header"));
    const QJsonObject chosen
            = header.isObject() ? header.toObject() : images.value(QLatin1String("thumbnail")).toObject();
    return chosen.value(QLatin1String("url")).toString();
}

} // namespace

ResourceDetailsDialog::ResourceDetailsDialog(const Presentation &presentation, QWidget *parent)
    : QDialog(parent)
    , presentation(presentation)
{
    setWindowTitle(presentation.windowTitle);
    resize(580, 650);
    buildLayout();
    connectButtons();
    applyThemedIcons();
    updateLikeButton();
    updateOwnerButtons();
}

void ResourceDetailsDialog::buildLayout()
{
    auto *outer = new QVBoxLayout(this);
    auto *scrollArea = new QScrollArea(this);
    scrollArea->setWidgetResizable(true);
    scrollArea->setFrameShape(QFrame::NoFrame);
    scrollArea->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    // Tab stops here so that the arrow keys can scroll a long description.
    scrollArea->setAccessibleName(tr("Details"));
    auto *content = new QWidget(scrollArea);
    contentLayout = new QVBoxLayout(content);
    contentLayout->setContentsMargins(0, 0, 0, 0);

    headerImageLabel = new QLabel(content);
    headerImageLabel->setObjectName(QStringLiteral("headerImageLabel"));
    headerImageLabel->setFixedSize(headerWidth, headerHeight);
    headerImageLabel->setAlignment(Qt::AlignCenter);
    headerImageLabel->setStyleSheet(presentation.headerStyle);
    contentLayout->addWidget(headerImageLabel, 0, Qt::AlignHCenter);

    titleLabel = new QLabel(content);
    titleLabel->setObjectName(QStringLiteral("titleLabel"));
    titleLabel->setStyleSheet(QStringLiteral("QLabel { font-size: 16pt; font-weight: bold; }"));
    titleLabel->setWordWrap(true);
    contentLayout->addWidget(titleLabel);

    badgeLayout = new QHBoxLayout;
    authorLabel = new QLabel(content);
    authorLabel->setObjectName(QStringLiteral("authorLabel"));
    badgeLayout->addWidget(authorLabel);
    badgeLayout->addStretch();
    typeBadge = new QLabel(content);
    typeBadge->setObjectName(QStringLiteral("typeBadge"));
    typeBadge->setAlignment(Qt::AlignCenter);
    badgeLayout->addWidget(typeBadge);
    statusBadge = new QLabel(content);
    statusBadge->setObjectName(QStringLiteral("statusBadge"));
    statusBadge->setFixedSize(60, 22);
    statusBadge->setAlignment(Qt::AlignCenter);
    statusBadge->setStyleSheet(smallBadgeStyle);
    statusBadge->hide();
    badgeLayout->addWidget(statusBadge);
    contentLayout->addLayout(badgeLayout);

    statsLabel = new QLabel(content);
    statsLabel->setObjectName(QStringLiteral("statsLabel"));
    contentLayout->addWidget(statsLabel);
    versionDateLabel = new QLabel(content);
    versionDateLabel->setObjectName(QStringLiteral("versionDateLabel"));
    contentLayout->addWidget(versionDateLabel);
    noticeLayout = new QVBoxLayout;
    contentLayout->addLayout(noticeLayout);

    descriptionBox = createTextBox(tr("Description"), QStringLiteral("descriptionView"), descriptionView);
    descriptionBox->setObjectName(QStringLiteral("descriptionBox"));
    contentLayout->addWidget(descriptionBox);
    if (presentation.showsScriptSections) {
        instructionsBox = createTextBox(tr("Instructions"), QStringLiteral("instructionsView"), instructionsView);
        instructionsBox->setObjectName(QStringLiteral("instructionsBox"));
        contentLayout->addWidget(instructionsBox);
    }
    sectionLayout = new QVBoxLayout;
    contentLayout->addLayout(sectionLayout);
    if (presentation.showsScriptSections) {
        tagsLabel = new QLabel(content);
        tagsLabel->setObjectName(QStringLiteral("tagsLabel"));
        tagsLabel->setWordWrap(true);
        contentLayout->addWidget(tagsLabel);
    }
    disclaimerLabel = new QLabel(presentation.fixedDisclaimer, content);
    disclaimerLabel->setObjectName(QStringLiteral("disclaimerLabel"));
    disclaimerLabel->setProperty("status", QStringLiteral("info"));
    disclaimerLabel->setWordWrap(true);
    contentLayout->addWidget(disclaimerLabel);
    contentLayout->addStretch();
    scrollArea->setWidget(content);
    outer->addWidget(scrollArea, 1);

    auto *buttons = new QHBoxLayout;
    authorButton = new QPushButton(tr("Author"), this);
    authorButton->setObjectName(QStringLiteral("authorButton"));
    authorButton->setMinimumHeight(32);
    buttons->addWidget(authorButton);
    deleteButton = createIconButton(QStringLiteral(":/icons/delete.svg"), presentation.deleteToolTip,
                                    QStringLiteral("deleteButton"));
    buttons->addWidget(deleteButton);
    manageAccessButton = createIconButton(QStringLiteral(":/icons/key.svg"), tr("Manage Access"),
                                          QStringLiteral("manageAccessButton"));
    buttons->addWidget(manageAccessButton);
    banAuthorButton
            = createIconButton(QStringLiteral(":/icons/ban.svg"), tr("Ban Author"), QStringLiteral("banAuthorButton"));
    buttons->addWidget(banAuthorButton);
    buttons->addStretch();
    likeButton = new QPushButton(this);
    likeButton->setObjectName(QStringLiteral("likeButton"));
    likeButton->setMinimumHeight(32);
    buttons->addWidget(likeButton);
    mainActionButton = new QPushButton(presentation.actionText, this);
    mainActionButton->setObjectName(presentation.actionObjectName);
    mainActionButton->setStyleSheet(presentation.actionStyle);
    mainActionButton->setMinimumHeight(32);
    buttons->addWidget(mainActionButton);
    closeButton = new QPushButton(tr("Close"), this);
    closeButton->setObjectName(QStringLiteral("closeButton"));
    closeButton->setStyleSheet(QStringLiteral("QPushButton { padding: 5px 12px; }"));
    closeButton->setMinimumHeight(32);
    // Enter goes to the dialog's main action whenever it can act, else to Close, never to Author, the first button.
    closeButton->setDefault(true);
    buttons->addWidget(closeButton);
    outer->addLayout(buttons);
}

void ResourceDetailsDialog::connectButtons()
{
    // Lambdas reach the kind's overrides, which are its slots.
    connect(mainActionButton, &QPushButton::clicked, this, [this] { onMainActionClicked(); });
    connect(likeButton, &QPushButton::clicked, this, [this] { onLikeClicked(); });
    connect(deleteButton, &QPushButton::clicked, this, [this] { onDeleteClicked(); });
    connect(closeButton, &QPushButton::clicked, this, [this] { onCloseClicked(); });
    connect(authorButton, &QPushButton::clicked, this, [this] { onCopyIdClicked(); });
    connect(manageAccessButton, &QPushButton::clicked, this, [this] { onManageAuthorizationsClicked(); });
    connect(banAuthorButton, &QPushButton::clicked, this, [this] { onBanAuthorClicked(); });
}

QPushButton *ResourceDetailsDialog::createIconButton(const QString &iconPath, const QString &toolTip,
                                                     const QString &objectName)
{
    auto *button = new QPushButton(this);
    button->setObjectName(objectName);
    button->setIcon(ThemedIcon::create(iconPath));
    button->setToolTip(toolTip);
    // An icon alone says nothing to a screen reader; the tool tip says what the button does.
    button->setAccessibleName(toolTip);
    button->setFixedSize(32, 32);
    return button;
}

QGroupBox *ResourceDetailsDialog::createTextBox(const QString &title, const QString &objectName, QTextBrowser *&view)
{
    auto *box = new QGroupBox(title, this);
    box->setStyleSheet(groupBoxStyle());
    auto *layout = new QVBoxLayout(box);
    layout->setContentsMargins(6, 4, 6, 6);
    view = new QTextBrowser(box);
    view->setObjectName(objectName);
    view->setReadOnly(true);
    // Links leave the application: the view itself never navigates, so it cannot be made to load anything.
    view->setOpenLinks(false);
    view->setOpenExternalLinks(false);
    connect(view, &QTextBrowser::anchorClicked, this, &ResourceDetailsDialog::openLink);
    layout->addWidget(view);
    return box;
}

void ResourceDetailsDialog::openLink(const QUrl &url)
{
    if (RichTextSanitizer::isAllowedLink(url))
        QDesktopServices::openUrl(url);
}

void ResourceDetailsDialog::showLoadingState()
{
    loading = true;
    currentRecord = QJsonObject();
    ++headerRequestNumber;
    setWindowTitle(presentation.loadingTitle);
    headerImageLabel->setStyleSheet(presentation.headerLoadingStyle);
    headerImageLabel->setText(hourglassGlyph);
    titleLabel->setText(tr("Loading..."));
    authorLabel->clear();
    typeBadge->clear();
    // Emptied badges would still show their coloured frames.
    typeBadge->hide();
    statusBadge->clear();
    statusBadge->hide();
    statsLabel->clear();
    versionDateLabel->clear();
    // The placeholders take the smallest height, not whatever room the layout has left.
    descriptionView->setPlainText(tr("Loading description..."));
    descriptionView->setFixedHeight(60);
    if (instructionsBox) {
        instructionsBox->setVisible(true);
        instructionsView->setPlainText(tr("Loading instructions..."));
        instructionsView->setFixedHeight(60);
    }
    if (tagsLabel)
        tagsLabel->clear();
    disclaimerLabel->setText(presentation.showsScriptSections ? QString() : presentation.fixedDisclaimer);
    clearKindDetails();
    mainActionButton->setEnabled(false);
    mainActionButton->setDefault(false);
    closeButton->setDefault(true);
    deleteButton->setEnabled(false);
    authorButton->setEnabled(false);
    // Until the record is known a like would go to whatever was shown before.
    likeButton->setEnabled(false);
    updateOwnerButtons();
}

void ResourceDetailsDialog::setRecord(const QJsonObject &record)
{
    loading = false;
    currentRecord = record;
    likeCount = int(ResourceRecord::counter(record, QStringLiteral("likes")));
    deleteButton->setEnabled(true);
    authorButton->setEnabled(true);
    likeButton->setEnabled(true);
    titleLabel->setText(recordName());
    typeBadge->show();
    fillDownloadState();
    fetchHeaderImage();
    authorLabel->setText(tr("by %1").arg(ResourceRecord::authorName(record)));
    fillStatusBadge();
    updateStats();
    fillVersionDate();
    fillTextView(descriptionView, record.value(QLatin1String("description")).toString(), 60, 120);
    if (instructionsBox) {
        const QString instructions = record.value(QLatin1String("instructions")).toString();
        instructionsBox->setVisible(!instructions.isEmpty());
        if (!instructions.isEmpty())
            fillTextView(instructionsView, instructions, 60, 150);
    }
    fillTags();
    fillDisclaimer();
    fillKindDetails(record);
    setWindowTitle(presentation.recordTitle.arg(recordName()));
    updateOwnerButtons();
}

void ResourceDetailsDialog::setLikeState(bool isLiked, int count)
{
    liked = isLiked;
    likeCount = count;
    updateStats();
}

void ResourceDetailsDialog::setCurrentUser(const QString &discordId, bool isAdministrator)
{
    currentDiscordId = discordId;
    administrator = isAdministrator;
    updateOwnerButtons();
}

QString ResourceDetailsDialog::resourceId() const
{
    return currentRecord.value(QLatin1String("id")).toVariant().toString();
}

bool ResourceDetailsDialog::isLoading() const
{
    return loading;
}

void ResourceDetailsDialog::addBadge(QLabel *badge)
{
    badgeLayout->insertWidget(badgeLayout->indexOf(statusBadge), badge);
}

void ResourceDetailsDialog::addNotice(QWidget *notice)
{
    noticeLayout->addWidget(notice);
}

void ResourceDetailsDialog::addSection(QWidget *section)
{
    sectionLayout->addWidget(section);
}

QLabel *ResourceDetailsDialog::typeBadgeLabel() const
{
    return typeBadge;
}

QLabel *ResourceDetailsDialog::createBadge(const QString &objectName, const QString &styleSheet)
{
    auto *badge = new QLabel(this);
    badge->setObjectName(objectName);
    badge->setStyleSheet(styleSheet);
    badge->setAlignment(Qt::AlignCenter);
    return badge;
}

const QJsonObject &ResourceDetailsDialog::record() const
{
    return currentRecord;
}

QString ResourceDetailsDialog::recordName() const
{
    return currentRecord.value(QLatin1String("name")).toString();
}

QString ResourceDetailsDialog::authorDisplayName() const
{
    const QJsonObject author = currentRecord.value(QLatin1String("author")).toObject();
    const QString username = author.value(QLatin1String("username")).toString();
    return username.isEmpty() ? author.value(QLatin1String("name")).toString() : username;
}

QString ResourceDetailsDialog::ownerDiscordId() const
{
    return ResourceRecord::ownerDiscordId(currentRecord);
}

bool ResourceDetailsDialog::confirmDestructive(const QString &title, const QString &text,
                                               const QString &informativeText)
{
    QMessageBox box(QMessageBox::Warning, title, text, QMessageBox::Yes | QMessageBox::No, this);
    box.setInformativeText(informativeText);
    box.setDefaultButton(QMessageBox::No);
    return box.exec() == QMessageBox::Yes;
}

void ResourceDetailsDialog::copyAuthorMention()
{
    const QString discordId = ownerDiscordId();
    if (discordId.isEmpty())
        return;
    QApplication::clipboard()->setText(QStringLiteral("<@%1>").arg(discordId));
    authorButton->setText(tr("Copied"));
    // One timer per click: the earliest to run out restores the label, later ones find it restored already.
    auto *feedback = new QTimer(this);
    feedback->setObjectName(QStringLiteral("copyFeedbackTimer"));
    feedback->setSingleShot(true);
    connect(feedback, &QTimer::timeout, this, [this, feedback] {
        authorButton->setText(tr("Author"));
        feedback->deleteLater();
    });
    feedback->start(copiedFeedbackMilliseconds);
}

void ResourceDetailsDialog::changeEvent(QEvent *event)
{
    QDialog::changeEvent(event);
    if (event->type() == QEvent::PaletteChange) {
        applyThemedIcons();
        updateLikeButton();
    }
}

void ResourceDetailsDialog::applyThemedIcons()
{
    authorButton->setIcon(ThemedIcon::create(QStringLiteral(":/icons/copy.svg")));
    mainActionButton->setIcon(ThemedIcon::create(QStringLiteral(":/icons/download.svg")));
}

void ResourceDetailsDialog::updateLikeButton()
{
    likeButton->setIcon(ThemedIcon::create(liked ? QStringLiteral(":/icons/heart-solid.svg")
                                                 : QStringLiteral(":/icons/heart-outline.svg")));
    likeButton->setText(liked ? tr("Unlike") : tr("Like"));
    likeButton->setAccessibleDescription(likeCount == 1 ? tr("1 like") : tr("%1 likes").arg(likeCount));
}

void ResourceDetailsDialog::updateOwnerButtons()
{
    if (loading || currentDiscordId.isEmpty() || currentRecord.isEmpty()) {
        deleteButton->hide();
        manageAccessButton->hide();
        banAuthorButton->hide();
        return;
    }
    const QString ownerId = ownerDiscordId();
    const bool owner = !ownerId.isEmpty() && ownerId == currentDiscordId;
    const bool mayManage = owner || administrator;
    deleteButton->setVisible(mayManage);
    banAuthorButton->setVisible(administrator && !owner && !ownerId.isEmpty());
    manageAccessButton->setVisible(mayManage && ResourceRecord::visibility(currentRecord) != QLatin1String("public"));
}

void ResourceDetailsDialog::updateStats()
{
    const auto item = [](const QString &format, qint64 count) {
        return count > 0 ? format.arg(ResourceRecord::abbreviatedCount(count)) : QString();
    };
    QStringList items{
            item(presentation.downloadsCounter, ResourceRecord::counter(currentRecord, QStringLiteral("downloads"))),
            item(tr("%1 views"), ResourceRecord::counter(currentRecord, QStringLiteral("views"))),
            item(tr("%1 likes"), likeCount)};
    items.removeAll(QString());
    statsLabel->setText(items.join(QStringLiteral(" • ")));
    updateLikeButton();
}

void ResourceDetailsDialog::fillDownloadState()
{
    const bool downloadable = ResourceRecord::canDownload(currentRecord);
    mainActionButton->setEnabled(downloadable);
    mainActionButton->setDefault(downloadable);
    closeButton->setDefault(!downloadable);
    const QString visibility = currentRecord.value(QLatin1String("visibility_type")).toString();
    if (downloadable)
        mainActionButton->setToolTip(QString());
    else if (visibility == QLatin1String("purchasable"))
        mainActionButton->setToolTip(presentation.purchasableToolTip);
    else if (visibility == QLatin1String("private"))
        mainActionButton->setToolTip(presentation.privateToolTip);
}

void ResourceDetailsDialog::fillStatusBadge()
{
    const QString visibility = currentRecord.value(QLatin1String("visibility_type")).toString(QStringLiteral("public"));
    if (visibility == QLatin1String("public")) {
        statusBadge->hide();
        return;
    }
    statusBadge->setText(visibility.toUpper());
    if (visibility == QLatin1String("private")) {
        statusBadge->setStyleSheet(statusBadgeStyle(QStringLiteral("#f9a825")));
    } else if (visibility == QLatin1String("purchasable")) {
        statusBadge->setStyleSheet(statusBadgeStyle(QStringLiteral("#e53935")));
        statusBadge->setText(tr("LOCKED"));
    } else {
        statusBadge->setStyleSheet(smallBadgeStyle);
    }
    statusBadge->show();
}

void ResourceDetailsDialog::fillVersionDate()
{
    const QDateTime created
            = QDateTime::fromString(currentRecord.value(QLatin1String("created")).toString(), Qt::ISODate);
    const QString version = presentation.showsVersion ? ResourceRecord::versionText(currentRecord) : QString();
    QString line = version.isEmpty() ? QString() : tr("v%1 • ").arg(version);
    if (created.isValid())
        line += created.toString(QStringLiteral("MMM d, yyyy"));
    if (!line.isEmpty())
        versionDateLabel->setText(line);
}

void ResourceDetailsDialog::fillTextView(QTextBrowser *view, const QString &text, int minimumHeight, int maximumHeight)
{
    if (text.isEmpty()) {
        view->setPlainText(tr("No description provided"));
    } else {
        QString html = text;
        html.replace(QLatin1Char('\n'), QLatin1String("<br>"));
        view->setHtml(RichTextSanitizer::sanitize(html));
    }
    // The view may not be laid out yet; the header's width is what the text will wrap to.
    view->document()->setTextWidth(headerWidth - 30);
    const int height = int(view->document()->size().height()) + 10;
    view->setFixedHeight(std::clamp(height, minimumHeight, maximumHeight));
}

void ResourceDetailsDialog::fillTags()
{
    if (!tagsLabel)
        return;
    QStringList tags;
    const QJsonArray array = currentRecord.value(QLatin1String("tags")).toArray();
    for (const QJsonValue &tag : array)
        tags.append(QStringLiteral("#") + tag.toString());
    tagsLabel->setText(tags.join(QStringLiteral("  ")));
}

void ResourceDetailsDialog::fillDisclaimer()
{
    if (presentation.showsScriptSections) {
        const QString own = currentRecord.value(QLatin1String("disclaimer")).toString();
        disclaimerLabel->setText(own.isEmpty() ? presentation.fixedDisclaimer : own);
    }
    disclaimerLabel->setVisible(true);
}

void ResourceDetailsDialog::fetchHeaderImage()
{
    const quint64 requestNumber = ++headerRequestNumber;
    const QString address = headerImageAddress(currentRecord);
    if (address.isEmpty()) {
        showHeaderGlyph(pictureGlyph);
        return;
    }
    showHeaderGlyph(hourglassGlyph);
    auto *network = new QNetworkAccessManager(this);
    QNetworkReply *reply = network->get(QNetworkRequest(QUrl(address)));
    connect(reply, &QNetworkReply::finished, this, [this, network, reply, requestNumber] {
        reply->deleteLater();
        network->deleteLater();
        if (requestNumber != headerRequestNumber)
            return;
        showHeaderImage(reply->error() == QNetworkReply::NoError ? reply->readAll() : QByteArray());
    });
}

void ResourceDetailsDialog::showHeaderImage(const QByteArray &bytes)
{
    QImage image;
    if (bytes.isEmpty() || !image.loadFromData(bytes)) {
        showHeaderGlyph(pictureGlyph);
        return;
    }
    headerImageLabel->setStyleSheet(QString());
    headerImageLabel->setPixmap(headerPixmap(image, devicePixelRatioF()));
}

void ResourceDetailsDialog::showHeaderGlyph(const QString &glyph)
{
    // A picture shown before cleared the style; the glyph needs its size back.
    headerImageLabel->setStyleSheet(presentation.headerLoadingStyle);
    headerImageLabel->setText(glyph);
}

} // namespace Quorix
