#include "UploadDialog.h"

#include "api/OnlineResourcesAPI.h"
#include "core/Configuration.h"
#include "core/ResourceRecord.h"

#include <ThemedIcon.h>

#include <QCheckBox>
#include <QComboBox>
#include <QDir>
#include <QEvent>
#include <QFile>
#include <QFileDialog>
#include <QFileInfo>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QImageReader>
#include <QJsonArray>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QMouseEvent>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPainter>
#include <QPixmap>
#include <QProgressBar>
#include <QPushButton>
#include <QRegularExpression>
#include <QRegularExpressionValidator>
#include <QTextEdit>
#include <QTimer>
#include <QVBoxLayout>

namespace Quorix {

namespace {

constexpr int pickerWidth = 278;
constexpr int pickerHeight = 140;
constexpr int previewWidth = 304;
constexpr int maximumTagLength = 64;

const char pickerStyle[] = "QLabel { font-size: 11px; border: 2px dashed #ccc; }"
                           "QLabel:focus { border: 2px solid palette(highlight); }";
const char borderedBadgeStyle[]
        = "QLabel { border: 1px solid #666; border-radius: 3px; font-size: 7pt; font-weight: bold; }";
const char environmentBadgeStyle[] = "QLabel { background-color: #3776ab; color: white; border-radius: 3px; "
                                     "font-size: 7pt; font-weight: bold; }";
const char weightsBadgeStyle[] = "QLabel { background-color: #00a0b0; color: white; border-radius: 3px; "
                                 "font-size: 7pt; font-weight: bold; }";
const char privateBadgeStyle[] = "QLabel { background-color: #f9a825; color: white; border-radius: 3px; "
                                 "font-size: 6pt; font-weight: bold; }";
const char lockedBadgeStyle[] = "QLabel { background-color: #e53935; color: white; border-radius: 3px; "
                                "font-size: 6pt; font-weight: bold; }";
const char readyStyle[] = "QLabel { color: #888; font-size: 12px; }";
const char problemStyle[] = "QLabel { color: #ff8844; font-size: 12px; }";
const char buttonStyle[] = "QPushButton { padding: 8px 20px; }";

// The caption is the field's buddy, which is how assistive tools learn the field's name.
QLabel *fieldLabel(const QString &text, QWidget *field)
{
    auto *label = new QLabel(text, field->parentWidget());
    label->setStyleSheet(QStringLiteral("QLabel { font-weight: bold; }"));
    label->setBuddy(field);
    return label;
}

QString emptyPickerText()
{
    return UploadDialog::tr("📷\n\nClick here to add image\nOptimal Image dimensions: 1100x560\nMax file size: 4MB");
}

QString emptyDescriptionText()
{
    return UploadDialog::tr("[Description preview will appear here]");
}

// Fills the picker edge to edge, cropping the centre out of pictures of another shape.
QPixmap coverPixmap(const QPixmap &source, const QSize &size, qreal ratio)
{
    const QSize pixels = size * ratio;
    QPixmap scaled = source.scaled(pixels, Qt::KeepAspectRatioByExpanding, Qt::SmoothTransformation);
    scaled = scaled.copy((scaled.width() - pixels.width()) / 2, (scaled.height() - pixels.height()) / 2, pixels.width(),
                         pixels.height());
    scaled.setDevicePixelRatio(ratio);
    return scaled;
}

} // namespace

UploadDialog::UploadDialog(QWidget *parent)
    : QDialog(parent)
    , overallTimer(new QTimer(this))
    , imageNetwork(new QNetworkAccessManager(this))
{
    overallTimer->setSingleShot(true);
    connect(overallTimer, &QTimer::timeout, this, &UploadDialog::onOverallTimeout);
    buildLayout();
    applyKindTexts();
    validateForm();
}

void UploadDialog::buildLayout()
{
    auto *layout = new QVBoxLayout(this);
    auto *columns = new QHBoxLayout;
    columns->setSpacing(20);

    auto *previewColumn = new QVBoxLayout;
    auto *previewHeading = new QLabel(tr("Preview"), this);
    previewHeading->setStyleSheet(QStringLiteral("QLabel { font-size: 16px; font-weight: bold; }"));
    previewColumn->addWidget(previewHeading);
    previewColumn->addWidget(buildPreviewCard());
    previewColumn->addStretch();
    columns->addLayout(previewColumn);
    columns->addWidget(buildDetails(), 1);
    layout->addLayout(columns);
    layout->addSpacing(8);

    progressBar = new QProgressBar(this);
    progressBar->setObjectName(QStringLiteral("progressBar"));
    progressBar->hide();
    layout->addWidget(progressBar);

    statusLabel = new QLabel(this);
    statusLabel->setObjectName(QStringLiteral("statusLabel"));
    layout->addWidget(statusLabel);

    errorLabel = new QLabel(this);
    errorLabel->setObjectName(QStringLiteral("errorLabel"));
    errorLabel->setWordWrap(true);
    errorLabel->setStyleSheet(QStringLiteral("QLabel { color: #e53935; font-weight: bold; }"));
    errorLabel->setTextInteractionFlags(Qt::TextSelectableByMouse);
    errorLabel->hide();
    layout->addWidget(errorLabel);

    auto *buttons = new QHBoxLayout;
    buttons->addStretch();
    cancelButton = new QPushButton(tr("Cancel"), this);
    cancelButton->setObjectName(QStringLiteral("cancelButton"));
    cancelButton->setStyleSheet(QLatin1String(buttonStyle));
    cancelButton->setAutoDefault(false);
    buttons->addWidget(cancelButton);
    uploadButton = new QPushButton(tr("Upload"), this);
    uploadButton->setObjectName(QStringLiteral("uploadButton"));
    uploadButton->setStyleSheet(QLatin1String(buttonStyle));
    uploadButton->setDefault(true);
    buttons->addWidget(uploadButton);
    layout->addLayout(buttons);

    connect(cancelButton, &QPushButton::clicked, this, &UploadDialog::onCancelClicked);
    connect(uploadButton, &QPushButton::clicked, this, &UploadDialog::onUploadClicked);
}

QWidget *UploadDialog::buildPreviewCard()
{
    auto *card = new QGroupBox(this);
    card->setStyleSheet(QStringLiteral("QGroupBox { margin: 0px; padding: 1px; border-radius: 18px; }"));
    card->setFixedWidth(previewWidth);
    // The catalogue's cards draw their own rounded surface; the preview draws the same one underneath its frame.
    card->installEventFilter(this);
    previewCard = card;
    auto *layout = new QVBoxLayout(card);
    layout->setContentsMargins(11, 11, 11, 11);
    layout->setSpacing(6);

    // The rounding goes on a holder of its own so that it reaches the picture and nothing else.
    auto *pictureHolder = new QWidget(card);
    pictureHolder->setStyleSheet(QStringLiteral("QWidget { border-radius: 15px; }"));
    auto *holderLayout = new QHBoxLayout(pictureHolder);
    holderLayout->setContentsMargins(0, 0, 0, 0);
    imagePicker = new QLabel(emptyPickerText(), pictureHolder);
    imagePicker->setObjectName(QStringLiteral("imagePicker"));
    imagePicker->setFixedSize(pickerWidth, pickerHeight);
    imagePicker->setAlignment(Qt::AlignCenter);
    imagePicker->setStyleSheet(QLatin1String(pickerStyle));
    imagePicker->setCursor(Qt::PointingHandCursor);
    // The picker opens from the keyboard too: Tab reaches it and Space or Enter opens the file dialog.
    imagePicker->setFocusPolicy(Qt::StrongFocus);
    imagePicker->setAccessibleName(tr("Header image"));
    imagePicker->setAccessibleDescription(tr("Choose a picture of at most 4 MB; 1100x560 fits best"));
    imagePicker->installEventFilter(this);
    holderLayout->addWidget(imagePicker, 0, Qt::AlignHCenter);
    layout->addWidget(pictureHolder);

    nameEdit = new QLineEdit(card);
    nameEdit->setObjectName(QStringLiteral("nameEdit"));
    nameEdit->setPlaceholderText(tr("Script Name*"));
    nameEdit->setAccessibleName(tr("Name"));
    nameEdit->setStyleSheet(
            QStringLiteral("QLineEdit { font-size: 16pt; font-weight: bold; margin: 0px; padding: 0px; }"));
    layout->addWidget(nameEdit);

    auto *badges = new QHBoxLayout;
    badges->setSpacing(6);
    typeBadge = new QLabel(QStringLiteral("GPC3"), card);
    typeBadge->setObjectName(QStringLiteral("typeBadge"));
    typeBadge->setAlignment(Qt::AlignCenter);
    typeBadge->setStyleSheet(QLatin1String(borderedBadgeStyle));
    badges->addWidget(typeBadge);
    visibilityBadge = new QLabel(card);
    visibilityBadge->setObjectName(QStringLiteral("visibilityBadge"));
    visibilityBadge->setContentsMargins(5, 1, 5, 1);
    visibilityBadge->hide();
    badges->addWidget(visibilityBadge);
    badges->addStretch();
    layout->addLayout(badges);

    descriptionPreview = new QLabel(emptyDescriptionText(), card);
    descriptionPreview->setObjectName(QStringLiteral("descriptionPreview"));
    descriptionPreview->setStyleSheet(QStringLiteral("QLabel { font-size: 9pt; margin: 0px; padding: 0px; }"));
    descriptionPreview->setWordWrap(true);
    descriptionPreview->setAlignment(Qt::AlignLeft | Qt::AlignTop);
    descriptionPreview->setFixedHeight(64);
    layout->addWidget(descriptionPreview);

    versionAuthorLabel = new QLabel(card);
    versionAuthorLabel->setObjectName(QStringLiteral("versionAuthorLabel"));
    versionAuthorLabel->setStyleSheet(QStringLiteral("QLabel { font-size: 8pt; }"));
    layout->addWidget(versionAuthorLabel);

    // The card's own buttons, shown as they will look in the catalogue; nothing to like or download yet.
    auto *actions = new QHBoxLayout;
    auto *likeButton = new QPushButton(card);
    likeButton->setObjectName(QStringLiteral("scriptCardLikeButton"));
    likeButton->setIcon(ThemedIcon::create(QStringLiteral(":/icons/heart-outline.svg")));
    likeButton->setIconSize(QSize(14, 14));
    likeButton->setMinimumWidth(56);
    likeButton->setEnabled(false);
    likeButton->setAccessibleName(tr("Like"));
    actions->addWidget(likeButton);
    actions->addStretch();
    auto *downloadButton = new QPushButton(tr("Download"), card);
    downloadButton->setObjectName(QStringLiteral("scriptCardDownloadButton"));
    downloadButton->setMinimumWidth(96);
    downloadButton->setEnabled(false);
    actions->addWidget(downloadButton);
    layout->addLayout(actions);

    updateVersionAuthorLine();
    connect(nameEdit, &QLineEdit::textChanged, this, &UploadDialog::onNameChanged);
    return card;
}

QWidget *UploadDialog::buildDetails()
{
    auto *details = new QWidget(this);
    auto *layout = new QVBoxLayout(details);
    layout->setContentsMargins(0, 0, 0, 0);

    detailsHeading = new QLabel(details);
    detailsHeading->setStyleSheet(QStringLiteral("QLabel { font-size: 18px; font-weight: bold; }"));
    layout->addWidget(detailsHeading);

    descriptionEdit = new QTextEdit(details);
    descriptionEdit->setObjectName(QStringLiteral("descriptionEdit"));
    descriptionEdit->setAcceptRichText(false);
    // Tab moves on to the next field rather than typing a tab character nobody sees in a description.
    descriptionEdit->setTabChangesFocus(true);
    layout->addWidget(fieldLabel(tr("Description*"), descriptionEdit));
    descriptionEdit->setPlaceholderText(tr("Describe what your script does..."));
    descriptionEdit->setFixedHeight(90);
    layout->addWidget(descriptionEdit);

    instructionsEdit = new QTextEdit(details);
    instructionsEdit->setObjectName(QStringLiteral("instructionsEdit"));
    instructionsEdit->setAcceptRichText(false);
    instructionsEdit->setTabChangesFocus(true);
    layout->addWidget(fieldLabel(tr("Instructions"), instructionsEdit));
    instructionsEdit->setPlaceholderText(tr("How to use this script (optional)"));
    instructionsEdit->setFixedHeight(70);
    layout->addWidget(instructionsEdit);

    tagsEdit = new QLineEdit(details);
    tagsEdit->setObjectName(QStringLiteral("tagsEdit"));
    layout->addWidget(fieldLabel(tr("Tags"), tagsEdit));
    tagsEdit->setPlaceholderText(tr("Enter tags separated by commas (e.g., fps, combat, aim)"));
    layout->addWidget(tagsEdit);

    auto *row = new QHBoxLayout;
    auto *visibilityColumn = new QVBoxLayout;
    visibilityCombo = new QComboBox(details);
    visibilityCombo->setObjectName(QStringLiteral("visibilityCombo"));
    visibilityColumn->addWidget(fieldLabel(tr("Visibility*"), visibilityCombo));
    visibilityCombo->addItem(tr("Public - Anyone can view and download"), QStringLiteral("public"));
    visibilityCombo->addItem(tr("Private - Only authorized users can view or download"), QStringLiteral("private"));
    visibilityCombo->addItem(tr("Locked - Anyone can view but only authorized users can download"),
                             QStringLiteral("purchasable"));
    visibilityColumn->addWidget(visibilityCombo);
    row->addLayout(visibilityColumn, 1);
    auto *versionColumn = new QVBoxLayout;
    versionEdit = new QLineEdit(QStringLiteral("1.00"), details);
    versionEdit->setObjectName(QStringLiteral("versionEdit"));
    versionColumn->addWidget(fieldLabel(tr("Version"), versionEdit));
    versionEdit->setValidator(new QRegularExpressionValidator(
            QRegularExpression(QStringLiteral("^\\d{1,2}(\\.\\d{1,2})?$")), versionEdit));
    versionEdit->setMaximumWidth(90);
    versionColumn->addWidget(versionEdit);
    row->addLayout(versionColumn);
    layout->addLayout(row);

    encryptionSlot = new QVBoxLayout;
    encryptionSlot->setContentsMargins(0, 0, 0, 0);
    layout->addLayout(encryptionSlot);
    layout->addStretch();

    connect(descriptionEdit, &QTextEdit::textChanged, this, &UploadDialog::onDescriptionChanged);
    connect(instructionsEdit, &QTextEdit::textChanged, this, &UploadDialog::validateForm);
    connect(tagsEdit, &QLineEdit::textChanged, this, &UploadDialog::validateForm);
    connect(versionEdit, &QLineEdit::textChanged, this, &UploadDialog::onVersionChanged);
    connect(visibilityCombo, &QComboBox::currentIndexChanged, this, &UploadDialog::onVisibilityChanged);
    return details;
}

void UploadDialog::addEncryptionSection()
{
    if (encryptCheckBox)
        return;
    auto *parent = detailsHeading->parentWidget();
    encryptCheckBox = new QCheckBox(tr("Encrypt model to .ennx format"), parent);
    encryptCheckBox->setObjectName(QStringLiteral("encryptCheckBox"));
    encryptionSlot->addWidget(fieldLabel(tr("ONNX Model Encryption"), encryptCheckBox));
    encryptionSlot->addWidget(encryptCheckBox);
    auto *note = new QLabel(tr("ONNX weights are open source and can be used by anyone.\nENNX models are encrypted and "
                               "can only be used with Quorix.\nThe file extension will change from .onnx to .ennx"),
                            parent);
    note->setStyleSheet(QStringLiteral("QLabel { font-size: 12px; }"));
    encryptionSlot->addWidget(note);
    connect(encryptCheckBox, &QCheckBox::toggled, this, &UploadDialog::updateTypeBadge);
}

void UploadDialog::setFile(const QString &path)
{
    filePath = path;
    fileExtension = QFileInfo(path).suffix().toLower();
    kind = fileExtension == QLatin1String("qenv")   ? Kind::Environment
           : fileExtension == QLatin1String("onnx") ? Kind::Weights
                                                    : Kind::Script;
    if (kind == Kind::Weights)
        addEncryptionSection();
    applyKindTexts();
    applyExistingRecord();
    validateForm();
}

void UploadDialog::setExistingRecord(const QJsonObject &record)
{
    existingRecord = record;
    updateMode = true;
    existingId = record.value(QLatin1String("id")).toString();
    applyExistingRecord();
    applyKindTexts();
    validateForm();
}

void UploadDialog::setAuthorName(const QString &name)
{
    authorName = name;
    updateVersionAuthorLine();
}

void UploadDialog::setApi(OnlineResourcesAPI *client)
{
    api = client;
}

void UploadDialog::setTimeoutsForTesting(const Timeouts &values)
{
    timeouts = values;
}

void UploadDialog::applyKindTexts()
{
    switch (kind) {
    case Kind::Environment:
        setWindowTitle(updateMode ? tr("Update Environment") : tr("Publish Environment"));
        detailsHeading->setText(tr("Environment Details"));
        break;
    case Kind::Weights:
        setWindowTitle(updateMode ? tr("Update ONNX Weights") : tr("Publish ONNX Weights"));
        detailsHeading->setText(tr("ONNX Weights Details"));
        break;
    case Kind::Script:
        setWindowTitle(updateMode ? tr("Update Script") : tr("Publish Script"));
        detailsHeading->setText(tr("Script Details"));
        break;
    }
    if (!filePath.isEmpty())
        updateTypeBadge();
    if (!isUploading)
        uploadButton->setText(idleButtonText());
}

void UploadDialog::updateTypeBadge()
{
    switch (kind) {
    case Kind::Environment:
        typeBadge->setText(QStringLiteral("QENV"));
        typeBadge->setStyleSheet(QLatin1String(environmentBadgeStyle));
        typeBadge->setFixedWidth(45);
        break;
    case Kind::Weights:
        typeBadge->setText(encryptCheckBox && encryptCheckBox->isChecked() ? QStringLiteral("ENNX")
                                                                           : QStringLiteral("ONNX"));
        typeBadge->setStyleSheet(QLatin1String(weightsBadgeStyle));
        typeBadge->setFixedWidth(45);
        break;
    case Kind::Script:
        // Both device-script dialects run on the same device, so they share one badge.
        typeBadge->setText(fileExtension == QLatin1String("gpc3") || fileExtension == QLatin1String("gbc3")
                                   ? QStringLiteral("GPC3")
                           : fileExtension == QLatin1String("py") ? QStringLiteral("PY")
                                                                  : fileExtension.toUpper());
        typeBadge->setStyleSheet(QLatin1String(borderedBadgeStyle));
        typeBadge->setFixedWidth(35);
        break;
    }
}

void UploadDialog::applyExistingRecord()
{
    if (existingRecord.isEmpty())
        return;
    nameEdit->setText(existingRecord.value(QLatin1String("name")).toString());
    descriptionEdit->setPlainText(existingRecord.value(QLatin1String("description")).toString());
    instructionsEdit->setPlainText(existingRecord.value(QLatin1String("instructions")).toString());
    QStringList tags;
    for (const QJsonValue &tag : existingRecord.value(QLatin1String("tags")).toArray())
        tags.append(tag.toString());
    tagsEdit->setText(tags.join(QStringLiteral(", ")));
    const QString version = ResourceRecord::versionText(existingRecord);
    if (!version.isEmpty())
        versionEdit->setText(version);
    const int visibilityIndex = visibilityCombo->findData(ResourceRecord::visibility(existingRecord));
    if (visibilityIndex >= 0)
        visibilityCombo->setCurrentIndex(visibilityIndex);
    if (encryptCheckBox)
        encryptCheckBox->setChecked(ResourceRecord::isEncrypted(existingRecord));
    const QString thumbnail = existingRecord.value(QLatin1String("thumbnail")).toString();
    if (!thumbnail.isEmpty() && imagePath.isEmpty()) {
        imagePicker->setText(tr("📷\n\nExisting image\n(Click to change)"));
        fetchExistingImage(thumbnail.startsWith(QLatin1String("http")) ? thumbnail
                                                                       : Configuration::serverOrigin() + thumbnail);
    }
}

void UploadDialog::fetchExistingImage(const QString &address)
{
    QNetworkReply *reply = imageNetwork->get(QNetworkRequest(QUrl(address)));
    connect(reply, &QNetworkReply::finished, this, [this, reply] {
        reply->deleteLater();
        QPixmap picture;
        // A picture chosen meanwhile wins over the one the server still had.
        if (reply->error() != QNetworkReply::NoError || !imagePath.isEmpty() || !picture.loadFromData(reply->readAll()))
            return;
        imagePicker->setPixmap(coverPixmap(picture, imagePicker->size(), devicePixelRatioF()));
    });
}

void UploadDialog::updateVersionAuthorLine()
{
    const QString version
            = versionEdit && !versionEdit->text().isEmpty() ? versionEdit->text() : QStringLiteral("1.00");
    const QString author = authorName.isEmpty() ? tr("[Your Name]") : authorName;
    versionAuthorLabel->setText(tr("v%1 • Today by %2").arg(version, author));
}

bool UploadDialog::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == previewCard && event->type() == QEvent::Paint) {
        QPainter painter(previewCard);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setPen(QPen(palette().color(QPalette::Mid), 1));
        painter.setBrush(palette().color(QPalette::AlternateBase));
        painter.drawRoundedRect(QRectF(previewCard->rect()).adjusted(0.5, 0.5, -0.5, -0.5), 18, 18);
        return false;
    }
    if (watched == imagePicker && imagePicker->isEnabled() && isPickerActivation(event)) {
        onBrowseImageClicked();
        return true;
    }
    return QDialog::eventFilter(watched, event);
}

bool UploadDialog::isPickerActivation(const QEvent *event)
{
    if (event->type() == QEvent::MouseButtonRelease)
        return static_cast<const QMouseEvent *>(event)->button() == Qt::LeftButton;
    if (event->type() != QEvent::KeyPress)
        return false;
    const int key = static_cast<const QKeyEvent *>(event)->key();
    return key == Qt::Key_Space || key == Qt::Key_Return || key == Qt::Key_Enter;
}

bool UploadDialog::isAcceptableImage(const QString &path)
{
    static const QStringList extensions{QStringLiteral("jpg"), QStringLiteral("jpeg"), QStringLiteral("png"),
                                        QStringLiteral("webp")};
    const QFileInfo file(path);
    if (!extensions.contains(file.suffix().toLower()) || !file.isFile() || file.size() > imageSizeLimit)
        return false;
    QImageReader reader(path);
    reader.setDecideFormatFromContent(true);
    return reader.canRead();
}

void UploadDialog::onBrowseImageClicked()
{
    const QString path = QFileDialog::getOpenFileName(this, tr("Select Header Image"), QString(),
                                                      tr("Image Files (*.jpg *.jpeg *.png *.webp);;All Files (*.*)"));
    if (path.isEmpty())
        return;
    if (!isAcceptableImage(path)) {
        QMessageBox::warning(this, tr("Invalid Image"),
                             tr("The selected image is not valid or exceeds size limits (max 4MB)."));
        return;
    }
    imagePath = path;
    showImage(path);
}

void UploadDialog::showImage(const QString &path)
{
    const QPixmap picture(path);
    if (picture.isNull())
        return;
    imagePicker->setPixmap(coverPixmap(picture, imagePicker->size(), devicePixelRatioF()));
}

void UploadDialog::onNameChanged(const QString &)
{
    validateForm();
}

void UploadDialog::onDescriptionChanged()
{
    const QString description = descriptionEdit->toPlainText().trimmed();
    descriptionPreview->setText(description.isEmpty() ? emptyDescriptionText() : description);
    validateForm();
}

void UploadDialog::onVersionChanged()
{
    updateVersionAuthorLine();
    validateForm();
}

void UploadDialog::onVisibilityChanged(int index)
{
    const QString visibility = visibilityCombo->itemData(index).toString();
    if (visibility == QLatin1String("private")) {
        visibilityBadge->setText(QStringLiteral("PRIVATE"));
        visibilityBadge->setStyleSheet(QLatin1String(privateBadgeStyle));
        visibilityBadge->show();
    } else if (visibility == QLatin1String("purchasable")) {
        visibilityBadge->setText(QStringLiteral("LOCKED"));
        visibilityBadge->setStyleSheet(QLatin1String(lockedBadgeStyle));
        visibilityBadge->show();
    } else {
        visibilityBadge->hide();
    }
    validateForm();
}

void UploadDialog::validateForm()
{
    // The version and visibility stay editable during an upload; their edits must not re-enable Upload.
    if (isUploading)
        return;
    QStringList problems;
    if (nameEdit->text().trimmed().size() < 3)
        problems.append(tr("Name must be at least 3 characters"));
    if (descriptionEdit->toPlainText().trimmed().size() < 10)
        problems.append(tr("Description must be at least 10 characters"));
    if (filePath.isEmpty())
        problems.append(tr("Script file is required"));
    uploadButton->setEnabled(problems.isEmpty());
    setStatus(problems.isEmpty() ? tr("Ready to upload") : problems.first(), !problems.isEmpty());
}

void UploadDialog::setStatus(const QString &text, bool isProblem)
{
    statusLabel->setText(text);
    statusLabel->setStyleSheet(QLatin1String(isProblem ? problemStyle : readyStyle));
}

QString UploadDialog::normalisedTags(const QString &text)
{
    QStringList kept;
    for (const QString &part : text.split(QLatin1Char(','), Qt::SkipEmptyParts)) {
        const QString tag = part.trimmed().toLower().remove(QLatin1Char('#'));
        if (!tag.isEmpty() && tag.size() <= maximumTagLength)
            kept.append(tag);
    }
    return kept.join(QLatin1Char(','));
}

QJsonObject UploadDialog::uploadFields() const
{
    QJsonObject fields{
            {QStringLiteral("name"), nameEdit->text().trimmed()},
            {QStringLiteral("description"), descriptionEdit->toPlainText().trimmed()},
            {QStringLiteral("instructions"), instructionsEdit->toPlainText().trimmed()},
            {QStringLiteral("tags"), normalisedTags(tagsEdit->text())},
            {QStringLiteral("image_file"), imagePath},
            {QStringLiteral("visibility_type"), visibilityCombo->currentData().toString()},
    };
    const QString version = versionEdit->text().trimmed();
    if (!version.isEmpty())
        fields.insert(QStringLiteral("version"), version.toDouble());
    if (updateMode && !existingId.isEmpty())
        fields.insert(QStringLiteral("existing_uuid"), existingId);
    if (kind == Kind::Weights) {
        fields.insert(QStringLiteral("onnx_file"), filePath);
        fields.insert(QStringLiteral("encrypted"), encryptCheckBox && encryptCheckBox->isChecked());
    } else {
        fields.insert(QStringLiteral("script_file"), filePath);
    }
    return fields;
}

void UploadDialog::onUploadClicked()
{
    if (!api || isUploading)
        return;
    setUploading(true);

    // The client leaves an unreadable file out of the body, and an update without a file would quietly keep the
    // old one; the picture may have changed since it was chosen. Better to stop here and say why.
    QFile file(filePath);
    if (!QFileInfo(filePath).isFile() || !file.open(QIODevice::ReadOnly)) {
        onUploadFinished(false, tr("The file %1 can no longer be read.").arg(QDir::toNativeSeparators(filePath)));
        return;
    }
    if (!imagePath.isEmpty() && !isAcceptableImage(imagePath)) {
        onUploadFinished(
                false,
                tr("The image %1 is no longer a picture of at most 4MB.").arg(QDir::toNativeSeparators(imagePath)));
        return;
    }

    connectClient();
    overallTimer->start(kind == Kind::Weights ? timeouts.weightsMilliseconds : timeouts.scriptMilliseconds);
    processingTimer = new QTimer(this);
    processingTimer->setSingleShot(true);
    processingTimer->setInterval(timeouts.processingMilliseconds);
    connect(processingTimer, &QTimer::timeout, this, &UploadDialog::onProcessingTimeout);

    if (kind == Kind::Weights)
        api->uploadWeights(uploadFields());
    else
        api->uploadScript(uploadFields());
}

void UploadDialog::connectClient()
{
    disconnectClient();
    if (kind == Kind::Weights) {
        clientConnections.append(connect(api, &OnlineResourcesAPI::weightsUploaded, this,
                                         [this](const QString &id) { onUploadFinished(true, id); }));
    } else {
        clientConnections.append(connect(api, &OnlineResourcesAPI::scriptUploaded, this,
                                         [this](const QString &id) { onUploadFinished(true, id); }));
    }
    clientConnections.append(connect(api, &OnlineResourcesAPI::errorOccurred, this, &UploadDialog::onClientError));
    clientConnections.append(connect(api, &OnlineResourcesAPI::uploadProgress, this, &UploadDialog::onUploadProgress));
}

void UploadDialog::disconnectClient()
{
    for (const QMetaObject::Connection &connection : std::as_const(clientConnections))
        disconnect(connection);
    clientConnections.clear();
}

void UploadDialog::onClientError(const QString &error)
{
    // The client reports every request's failure here; only those of this upload end it.
    const QString prefix
            = kind == Kind::Weights ? QStringLiteral("Weights upload failed") : QStringLiteral("Upload failed");
    if (isUploading && error.startsWith(prefix))
        onUploadFinished(false, error);
}

void UploadDialog::onOverallTimeout()
{
    if (isUploading)
        onUploadFinished(false, tr("Upload timeout - Check your connection"));
}

void UploadDialog::onProcessingTimeout()
{
    if (isUploading)
        onUploadFinished(false, tr("Server did not respond after upload completed.\n\nThe file may exceed the "
                                   "server's upload limit."));
}

QString UploadDialog::idleButtonText() const
{
    return updateMode ? tr("Update") : tr("Upload");
}

void UploadDialog::setUploading(bool uploading)
{
    isUploading = uploading;
    nameEdit->setEnabled(!uploading);
    descriptionEdit->setEnabled(!uploading);
    instructionsEdit->setEnabled(!uploading);
    tagsEdit->setEnabled(!uploading);
    imagePicker->setEnabled(!uploading);
    uploadButton->setEnabled(!uploading);
    progressBar->setVisible(uploading);
    if (uploading) {
        errorLabel->hide();
        uploadButton->setText(tr("Uploading..."));
        setStatus(updateMode ? tr("Updating script...") : tr("Uploading script..."), false);
    } else {
        uploadButton->setText(idleButtonText());
    }
}

void UploadDialog::onUploadProgress(qint64 bytesSent, qint64 bytesTotal)
{
    if (!isUploading || bytesTotal <= 0)
        return;
    // Bodies stay below 2 GB: 500 MB of weights plus a 4 MB picture and the form.
    progressBar->setMaximum(int(bytesTotal));
    progressBar->setValue(int(bytesSent));
    if (bytesSent >= bytesTotal) {
        setStatus(tr("Processing on server..."), false);
        if (processingTimer && !processingTimer->isActive())
            processingTimer->start();
        return;
    }
    setStatus(tr("Uploading... %1%").arg(bytesSent * 100 / bytesTotal), false);
}

void UploadDialog::onUploadFinished(bool success, const QString &result)
{
    if (processingTimer) {
        processingTimer->stop();
        processingTimer->deleteLater();
        processingTimer = nullptr;
    }
    overallTimer->stop();
    setUploading(false);
    disconnectClient();
    progressBar->setValue(0);
    progressBar->hide();

    if (success) {
        emit uploadCompleted(result);
        accept();
        return;
    }
    errorLabel->setText(
            tr("Upload failed: %1").arg(result.isEmpty() ? tr("Connection failed - Check your internet") : result));
    errorLabel->show();
    setStatus(tr("Ready to upload"), false);
    uploadButton->setEnabled(true);
    emit uploadFailed(result);
}

void UploadDialog::onCancelClicked()
{
    if (isUploading
        && QMessageBox::question(this, tr("Cancel Upload"), tr("Upload in progress. Are you sure you want to cancel?"),
                                 QMessageBox::Yes | QMessageBox::No, QMessageBox::No)
                   != QMessageBox::Yes)
        return;
    QDialog::reject();
}

void UploadDialog::reject()
{
    // Escape and the window's close button take the same way as Cancel, so an upload is never left unasked.
    onCancelClicked();
}

} // namespace Quorix
