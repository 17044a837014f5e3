#pragma once

#include <QDialog>
#include <QJsonObject>
#include <QList>
#include <QMetaObject>
#include <QString>

class QCheckBox;
class QComboBox;
class QLabel;
class QLineEdit;
class QNetworkAccessManager;
class QProgressBar;
class QPushButton;
class QTextEdit;
class QTimer;
class QVBoxLayout;

namespace Quorix {

class OnlineResourcesAPI;

// The publish form: metadata of one script, environment package or weights file with a live preview card, the
// upload through the API client, its progress, and two timers that end an upload the server never answers.
class UploadDialog : public QDialog
{
    Q_OBJECT

public:
    struct Timeouts
    {
        int scriptMilliseconds = 30000;
        int weightsMilliseconds = 180000;
        int processingMilliseconds = 30000;
    };

    static constexpr qint64 imageSizeLimit = 4194304;

    explicit UploadDialog(QWidget *parent = nullptr);

    void setFile(const QString &filePath);
    // Switches to update mode and fills the form from the resource being updated.
    void setExistingRecord(const QJsonObject &record);
    void setAuthorName(const QString &name);
    void setApi(OnlineResourcesAPI *api);

    // Minutes of waiting have no place in a test run; the defaults are what users get.
    void setTimeoutsForTesting(const Timeouts &timeouts);

    // Lower-cased, without number signs, 1 to 64 characters each, joined by commas.
    static QString normalisedTags(const QString &text);
    // The picker takes only pictures the server can store: a known extension, at most 4 MB, and content that reads
    // as a picture.
    static bool isAcceptableImage(const QString &path);

Q_SIGNALS:
    void uploadCompleted(const QString &scriptId);
    void uploadFailed(const QString &error);

public Q_SLOTS:
    void onBrowseImageClicked();
    void onUploadClicked();
    void onCancelClicked();
    void onNameChanged(const QString &text);
    void onDescriptionChanged();
    void onVersionChanged();
    void onVisibilityChanged(int index);
    void validateForm();
    void onUploadProgress(qint64 bytesSent, qint64 bytesTotal);
    void onUploadFinished(bool success, const QString &result);

public:
    void reject() override;

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    // A left click, Space or Enter on the image picker.
    static bool isPickerActivation(const QEvent *event);
    enum class Kind { Script, Environment, Weights };

    void buildLayout();
    QWidget *buildPreviewCard();
    QWidget *buildDetails();
    void addEncryptionSection();
    void applyKindTexts();
    void applyExistingRecord();
    void updateTypeBadge();
    void updateVersionAuthorLine();
    void showImage(const QString &path);
    void fetchExistingImage(const QString &address);
    void setStatus(const QString &text, bool isProblem);
    void setUploading(bool uploading);
    QJsonObject uploadFields() const;
    void connectClient();
    void disconnectClient();
    void onClientError(const QString &error);
    void onOverallTimeout();
    void onProcessingTimeout();
    QString idleButtonText() const;

    QString filePath;
    QString fileExtension;
    Kind kind = Kind::Script;
    bool updateMode = false;
    QString existingId;
    QJsonObject existingRecord;
    QString imagePath;
    QString authorName;
    bool isUploading = false;
    Timeouts timeouts;
    OnlineResourcesAPI *api = nullptr;
    QTimer *overallTimer = nullptr;
    QTimer *processingTimer = nullptr;
    QList<QMetaObject::Connection> clientConnections;
    QNetworkAccessManager *imageNetwork = nullptr;

    QWidget *previewCard = nullptr;
    QLabel *imagePicker = nullptr;
    QLineEdit *nameEdit = nullptr;
    QLabel *typeBadge = nullptr;
    QLabel *visibilityBadge = nullptr;
    QLabel *descriptionPreview = nullptr;
    QLabel *versionAuthorLabel = nullptr;
    QLabel *detailsHeading = nullptr;
    QTextEdit *descriptionEdit = nullptr;
    QTextEdit *instructionsEdit = nullptr;
    QLineEdit *tagsEdit = nullptr;
    QComboBox *visibilityCombo = nullptr;
    QLineEdit *versionEdit = nullptr;
    QVBoxLayout *encryptionSlot = nullptr;
    QCheckBox *encryptCheckBox = nullptr;
    QProgressBar *progressBar = nullptr;
    QLabel *statusLabel = nullptr;
    QLabel *errorLabel = nullptr;
    QPushButton *uploadButton = nullptr;
    QPushButton *cancelButton = nullptr;
};

} // namespace Quorix
