#include "ModalAnswerer.h"
#include "RecordingHttpServer.h"
#include "TemporaryHome.h"

#include "api/OnlineResourcesAPI.h"
#include "publish/UploadDialog.h"

#include <QDir>
#include <QFile>
#include <QImage>
#include <QLabel>
#include <QLineEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QSignalSpy>
#include <QTest>
#include <QTextEdit>

#include <memory>

using namespace Quorix;
using namespace Quorix::Testing;

namespace {

const QString scriptUploadPath = QStringLiteral("/api/scripts/upload");
const QString weightsUploadPath = QStringLiteral("/api/scripts/onnx/upload");

// The value of one text field of a form-data body; a null array when the field was not sent.
QByteArray formField(const QByteArray &body, const QByteArray &name)
{
    const QByteArray marker = "name=\"" + name + "\"\r\n\r\n";
    const qsizetype start = body.indexOf(marker);
    if (start < 0)
        return QByteArray();
    const qsizetype valueStart = start + marker.size();
    return body.mid(valueStart, body.indexOf("\r\n--", valueStart) - valueStart);
}

ScriptedResponse silence()
{
    ScriptedResponse response;
    response.ending = ScriptedResponse::Ending::Stall;
    return response;
}

ScriptedResponse uploaded(const QString &id, int delayMs = 0)
{
    return ScriptedResponse::json({{"success", true}, {"data", QJsonObject{{"id", id}}}}).withDelay(delayMs);
}

} // namespace

class UploadDialogTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void tagsAreNormalisedOnTheWire_data();
    void tagsAreNormalisedOnTheWire();
    void versionTakesTwoDigitsEachSide_data();
    void versionTakesTwoDigitsEachSide();
    void imagePickerRules_data();
    void imagePickerRules();
    void uploadOutcome_data();
    void uploadOutcome();
    void unrelatedClientErrorDoesNotEndTheUpload();
    void cancelWhileUploadingAsksAndNoKeepsUploading();

private:
    QString writeFile(const QString &name, const QByteArray &content);
    std::unique_ptr<UploadDialog> makeForm(const QString &filePath);
    template<typename T>
    T *child(QWidget *dialog, const char *name)
    {
        return dialog->findChild<T *>(QLatin1String(name));
    }
    void verifyFailureKeepsTheForm(UploadDialog *form, const QString &errorPart);

    std::unique_ptr<TemporaryHome> home;
    std::unique_ptr<OnlineResourcesAPI> api;
    RecordingHttpServer server;
};

void UploadDialogTest::initTestCase()
{
    home = std::make_unique<TemporaryHome>();
    QVERIFY(server.listen());
    qputenv("QUORIX_SERVER_URL", server.origin().toUtf8());
}

void UploadDialogTest::init()
{
    api = std::make_unique<OnlineResourcesAPI>();
    server.reset();
}

QString UploadDialogTest::writeFile(const QString &name, const QByteArray &content)
{
    QFile file(home->filePath(name));
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
        return QString();
    return file.fileName();
}

std::unique_ptr<UploadDialog> UploadDialogTest::makeForm(const QString &filePath)
{
    auto form = std::make_unique<UploadDialog>();
    form->setApi(api.get());
    form->setFile(filePath);
    form->show();
    child<QLineEdit>(form.get(), "nameEdit")->setText(QStringLiteral("Rapid fire"));
    child<QTextEdit>(form.get(), "descriptionEdit")->setPlainText(QStringLiteral("Fires as fast as allowed."));
    return form;
}

void UploadDialogTest::verifyFailureKeepsTheForm(UploadDialog *form, const QString &errorPart)
{
    auto *errorLabel = child<QLabel>(form, "errorLabel");
    QVERIFY(errorLabel->isVisible());
    QVERIFY2(errorLabel->text().startsWith(QStringLiteral("Upload failed: ")), qPrintable(errorLabel->text()));
    QVERIFY2(errorLabel->text().contains(errorPart), qPrintable(errorLabel->text()));
    QVERIFY(form->isVisible());
    QCOMPARE(child<QLabel>(form, "statusLabel")->text(), QStringLiteral("Ready to upload"));
    QVERIFY(child<QPushButton>(form, "uploadButton")->isEnabled());
    QCOMPARE(child<QPushButton>(form, "uploadButton")->text(), QStringLiteral("Upload"));
    QVERIFY(child<QProgressBar>(form, "progressBar")->isHidden());
    QCOMPARE(child<QLineEdit>(form, "nameEdit")->text(), QStringLiteral("Rapid fire"));
    QVERIFY(child<QLineEdit>(form, "nameEdit")->isEnabled());
    QCOMPARE(child<QTextEdit>(form, "descriptionEdit")->toPlainText(), QStringLiteral("Fires as fast as allowed."));
    QCOMPARE(child<QLineEdit>(form, "tagsEdit")->text(), QStringLiteral("aim"));
}

void UploadDialogTest::tagsAreNormalisedOnTheWire_data()
{
    QTest::addColumn<QString>("typed");
    QTest::addColumn<QByteArray>("sent");

    QTest::newRow("example") << "#FPS, , Aim ,combat" << QByteArray("fps,aim,combat");
    QTest::newRow("65 characters dropped") << QString(65, QLatin1Char('a')) + ",ok" << QByteArray("ok");
    QTest::newRow("64 characters kept") << QString(64, QLatin1Char('b')) << QByteArray(64, 'b');
    QTest::newRow("only number signs") << "##, #" << QByteArray();
}

void UploadDialogTest::tagsAreNormalisedOnTheWire()
{
    QFETCH(QString, typed);
    QFETCH(QByteArray, sent);
    server.setRule(scriptUploadPath, uploaded(QStringLiteral("id-1")));
    auto form = makeForm(writeFile(QStringLiteral("tags.gpc3"), "main {}"));
    child<QLineEdit>(form.get(), "tagsEdit")->setText(typed);
    QSignalSpy completed(form.get(), &UploadDialog::uploadCompleted);
    child<QPushButton>(form.get(), "uploadButton")->click();
    QVERIFY(completed.wait());
    QCOMPARE(completed.first().first().toString(), QStringLiteral("id-1"));
    QCOMPARE(formField(server.lastRequest().body, "tags"), sent);
    QCOMPARE(formField(server.lastRequest().body, "name"), QByteArray("Rapid fire"));
}

void UploadDialogTest::versionTakesTwoDigitsEachSide_data()
{
    QTest::addColumn<QString>("typed");
    QTest::addColumn<QString>("shown");

    QTest::newRow("12.34") << "12.34" << "12.34";
    QTest::newRow("123") << "123" << "12";
    QTest::newRow("1.234") << "1.234" << "1.23";
}

void UploadDialogTest::versionTakesTwoDigitsEachSide()
{
    QFETCH(QString, typed);
    QFETCH(QString, shown);
    auto form = makeForm(writeFile(QStringLiteral("version.py"), "print()"));
    form->setAuthorName(QStringLiteral("Ada"));
    auto *version = child<QLineEdit>(form.get(), "versionEdit");
    version->clear();
    QTest::keyClicks(version, typed);
    QCOMPARE(version->text(), shown);
    QCOMPARE(child<QLabel>(form.get(), "versionAuthorLabel")->text(), QStringLiteral("v%1 • Today by Ada").arg(shown));
}

void UploadDialogTest::imagePickerRules_data()
{
    QTest::addColumn<QString>("fileName");
    QTest::addColumn<qint64>("size");
    QTest::addColumn<bool>("picture");
    QTest::addColumn<bool>("accepted");

    QTest::newRow("png of exactly 4 MB") << "header.png" << qint64(4194304) << true << true;
    QTest::newRow("png one byte over") << "large.png" << qint64(4194305) << true << false;
    QTest::newRow("small gif") << "header.gif" << qint64(0) << true << false;
    QTest::newRow("text named png") << "notes.png" << qint64(2000) << false << false;
}

void UploadDialogTest::imagePickerRules()
{
    QFETCH(QString, fileName);
    QFETCH(qint64, size);
    QFETCH(bool, picture);
    QFETCH(bool, accepted);
    QByteArray content = QByteArray(size, 'x');
    if (picture) {
        QImage image(110, 56, QImage::Format_RGB32);
        image.fill(Qt::darkCyan);
        const QString path = home->filePath(fileName);
        QVERIFY(image.save(path, fileName.endsWith(QLatin1String(".gif")) ? "BMP" : "PNG"));
        QFile file(path);
        QVERIFY(file.open(QIODevice::ReadOnly));
        content = file.readAll();
        // Decoders stop at the end of the picture, so padding reaches the size without spoiling it.
        if (size > content.size())
            content.append(QByteArray(size - content.size(), '\0'));
    }
    const QString path = writeFile(fileName, content);
    auto form = makeForm(writeFile(QStringLiteral("image.gpc3"), "main {}"));
    auto *picker = child<QLabel>(form.get(), "imagePicker");

    ModalAnswerer chooser;
    chooser.chooseFile(path);
    ModalAnswerer warning;
    warning.pressButton(QMessageBox::Ok, accepted ? 300 : 5000);
    form->onBrowseImageClicked();
    QVERIFY(chooser.answered());
    QCOMPARE(warning.waitForAnswer(accepted ? 300 : 5000), !accepted);
    QCOMPARE(!picker->pixmap().isNull(), accepted);
    if (!accepted) {
        QCOMPARE(warning.seenTitle(), QStringLiteral("Invalid Image"));
        QCOMPARE(warning.seenText(),
                 QStringLiteral("The selected image is not valid or exceeds size limits (max 4MB)."));
        return;
    }
    server.setRule(scriptUploadPath, uploaded(QStringLiteral("with-image")));
    QSignalSpy completed(form.get(), &UploadDialog::uploadCompleted);
    child<QPushButton>(form.get(), "uploadButton")->click();
    QVERIFY(completed.wait());
    QVERIFY(server.lastRequest().body.contains("name=\"header_image\"; filename=\"" + fileName.toUtf8() + '"'));
}

void UploadDialogTest::uploadOutcome_data()
{
    QTest::addColumn<QString>("fileName");
    QTest::addColumn<QString>("fault");
    QTest::addColumn<int>("overallMs");
    QTest::addColumn<int>("processingMs");
    QTest::addColumn<QString>("error");

    // 30 s and 180 s overall and 30 s of processing, scaled down a hundredfold; the timer not under test is long.
    QTest::newRow("weights silent beyond the script limit") << "model.onnx" << "late" << 300 << 5000 << "";
    QTest::newRow("script silent beyond its limit")
            << "slow.gpc3" << "late" << 300 << 5000 << "Upload timeout - Check your connection";
    QTest::newRow("no answer after the last byte")
            << "stuck.qenv" << "silent" << 5000 << 300 << "Server did not respond after upload completed.";
    QTest::newRow("413") << "big.gbc3" << "413" << 5000 << 5000
                         << "Upload failed - File too large - exceeds server upload limit";
    QTest::newRow("dropped connection") << "drop.gbc3" << "drop" << 5000 << 5000
                                        << "Connection was dropped - file may exceed server upload limit";
    QTest::newRow("file vanished") << "gone.py" << "vanish" << 5000 << 5000 << "can no longer be read";
    QTest::newRow("file became a folder") << "folder.py" << "folder" << 5000 << 5000 << "can no longer be read";
    QTest::newRow("image no longer a picture")
            << "image.py" << "image" << 5000 << 5000 << "is no longer a picture of at most 4MB";
}

void UploadDialogTest::uploadOutcome()
{
    QFETCH(QString, fileName);
    QFETCH(QString, fault);
    QFETCH(int, overallMs);
    QFETCH(int, processingMs);
    QFETCH(QString, error);
    const ScriptedResponse answer = fault == QLatin1String("late")   ? uploaded(QStringLiteral("late"), 900)
                                    : fault == QLatin1String("413")  ? ScriptedResponse::rawJson("{}", 413)
                                    : fault == QLatin1String("drop") ? ScriptedResponse::dropped()
                                                                     : silence();
    server.setRule(fileName.endsWith(QLatin1String(".onnx")) ? weightsUploadPath : scriptUploadPath, answer);
    const QString path = writeFile(fileName, QByteArray(4096, 'q'));
    auto form = makeForm(path);
    child<QLineEdit>(form.get(), "tagsEdit")->setText(QStringLiteral("aim"));
    form->setTimeoutsForTesting({overallMs, overallMs * 6, processingMs});

    if (fault == QLatin1String("image")) {
        QImage image(64, 32, QImage::Format_RGB32);
        image.fill(Qt::red);
        const QString imagePath = home->filePath(QStringLiteral("spoiled.png"));
        QVERIFY(image.save(imagePath));
        ModalAnswerer chooser;
        chooser.chooseFile(imagePath);
        form->onBrowseImageClicked();
        QVERIFY(!child<QLabel>(form.get(), "imagePicker")->pixmap().isNull());
        QVERIFY(!writeFile(QStringLiteral("spoiled.png"), "not a picture any more").isEmpty());
    } else if (fault == QLatin1String("vanish") || fault == QLatin1String("folder")) {
        QVERIFY(QFile::remove(path));
        QVERIFY(fault == QLatin1String("vanish") || QDir().mkpath(path));
    }

    QSignalSpy completed(form.get(), &UploadDialog::uploadCompleted);
    QSignalSpy failed(form.get(), &UploadDialog::uploadFailed);
    child<QPushButton>(form.get(), "uploadButton")->click();
    QTRY_VERIFY_WITH_TIMEOUT(!completed.isEmpty() || !failed.isEmpty(), 5000);
    if (error.isEmpty()) {
        QCOMPARE(completed.first().first().toString(), QStringLiteral("late"));
        QVERIFY(failed.isEmpty());
        return;
    }
    QVERIFY(completed.isEmpty());
    verifyFailureKeepsTheForm(form.get(), error);
    // An answer that comes after all must not overturn the outcome the user was shown.
    QTest::qWait(fault == QLatin1String("late") ? 900 : 100);
    QVERIFY(completed.isEmpty());
    QCOMPARE(failed.size(), 1);
}

void UploadDialogTest::unrelatedClientErrorDoesNotEndTheUpload()
{
    server.setRule(scriptUploadPath, uploaded(QStringLiteral("after-noise"), 600));
    server.setRule(QStringLiteral("/api/scripts/like/other"), ScriptedResponse::rawJson("{}", 500));
    auto form = makeForm(writeFile(QStringLiteral("noise.py"), "print(1)"));
    QSignalSpy completed(form.get(), &UploadDialog::uploadCompleted);
    QSignalSpy clientErrors(api.get(), &OnlineResourcesAPI::errorOccurred);
    child<QPushButton>(form.get(), "uploadButton")->click();
    api->toggleLike(QStringLiteral("other"));
    QVERIFY(clientErrors.wait());
    QVERIFY(child<QLabel>(form.get(), "errorLabel")->isHidden());
    QCOMPARE(child<QPushButton>(form.get(), "uploadButton")->text(), QStringLiteral("Uploading..."));
    QVERIFY(completed.wait());
    QCOMPARE(completed.first().first().toString(), QStringLiteral("after-noise"));
}

void UploadDialogTest::cancelWhileUploadingAsksAndNoKeepsUploading()
{
    server.setRule(scriptUploadPath, silence());
    auto form = makeForm(writeFile(QStringLiteral("cancel.gpc3"), "main {}"));
    QSignalSpy rejected(form.get(), &QDialog::rejected);
    child<QPushButton>(form.get(), "uploadButton")->click();
    QVERIFY(server.waitForRequests(1));

    ModalAnswerer keepGoing;
    keepGoing.pressButton(QMessageBox::No);
    child<QPushButton>(form.get(), "cancelButton")->click();
    QVERIFY(keepGoing.answered());
    QCOMPARE(keepGoing.seenTitle(), QStringLiteral("Cancel Upload"));
    QCOMPARE(keepGoing.seenText(), QStringLiteral("Upload in progress. Are you sure you want to cancel?"));
    QVERIFY(form->isVisible());
    QVERIFY(rejected.isEmpty());
    QCOMPARE(child<QPushButton>(form.get(), "uploadButton")->text(), QStringLiteral("Uploading..."));
    QVERIFY(!child<QLineEdit>(form.get(), "nameEdit")->isEnabled());

    ModalAnswerer stop;
    stop.pressButton(QMessageBox::Yes);
    child<QPushButton>(form.get(), "cancelButton")->click();
    QVERIFY(stop.answered());
    QCOMPARE(rejected.size(), 1);
}

QTEST_MAIN(UploadDialogTest)
#include "tst_upload_dialog.moc"
