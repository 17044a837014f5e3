#include "ModalAnswerer.h"
#include "RecordingHttpServer.h"
#include "TemporaryHome.h"
#include "TestFiles.h"

#include "api/OnlineResourcesAPI.h"
#include "publish/ScriptSelectionDialog.h"
#include "publish/UploadDialog.h"

#include <QDir>
#include <QImage>
#include <QJsonDocument>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSignalSpy>
#include <QTest>
#include <QTextEdit>

#include <memory>

using namespace Quorix;
using namespace Quorix::Testing;

namespace {

const QString checkPath = QStringLiteral("/api/scripts/check-existing");
const QString errorStyle = QStringLiteral("QLabel { color: #ff8844; }");
const QString unreachable
        = QStringLiteral("Unable to connect to server. Please check your connection and try again later.");

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

ScriptedResponse uploaded(const QString &id, int delayMs = 0)
{
    return ScriptedResponse::json({{"success", true}, {"data", QJsonObject{{"id", id}}}}).withDelay(delayMs);
}

template<typename T = QWidget>
T *child(QWidget *dialog, const char *name)
{
    return dialog->findChild<T *>(QLatin1String(name));
}

QString text(QWidget *dialog, const char *name)
{
    return child<QLabel>(dialog, name) ? child<QLabel>(dialog, name)->text() : child<QPushButton>(dialog, name)->text();
}

} // namespace

// The two windows of publishing on their own: choosing the file (size limits, and whether the server already
// holds it), and the form (what it sends, what it accepts, and how an upload ends).
class PublishDialogsTest : public QObject
{
    Q_OBJECT

    TemporaryHome home;
    std::unique_ptr<OnlineResourcesAPI> api;
    RecordingHttpServer server;

    // Sparse: the sizes that matter here are far larger than what is worth writing.
    QString makeFile(const QString &name, qint64 size)
    {
        QFile file(home.filePath(name));
        return file.open(QIODevice::WriteOnly) && file.resize(size) ? file.fileName() : QString();
    }

    QString writeFile(const QString &name, const QByteArray &content)
    {
        return TestFiles::write(home.filePath(name), content) ? home.filePath(name) : QString();
    }

    QString writePicture(const QString &name, const char *format)
    {
        QImage image(110, 56, QImage::Format_RGB32);
        image.fill(Qt::darkCyan);
        return image.save(home.filePath(name), format) ? home.filePath(name) : QString();
    }

    std::unique_ptr<ScriptSelectionDialog> makeSelection(const QString &presetPath = {})
    {
        auto dialog = std::make_unique<ScriptSelectionDialog>(api.get());
        dialog->setStartDirectory(home.path());
        if (!presetPath.isEmpty())
            dialog->presetPath(presetPath);
        dialog->show();
        return dialog;
    }

    std::unique_ptr<UploadDialog> makeForm(const QString &filePath)
    {
        auto form = std::make_unique<UploadDialog>();
        form->setApi(api.get());
        form->setFile(filePath);
        form->show();
        child<QLineEdit>(form.get(), "nameEdit")->setText("Rapid fire");
        child<QTextEdit>(form.get(), "descriptionEdit")->setPlainText("Fires as fast as allowed.");
        child<QLineEdit>(form.get(), "tagsEdit")->setText("aim");
        return form;
    }

    // Clicks Upload and waits for the outcome; returns the new ID, or the failure text prefixed with "!".
    static QString upload(UploadDialog *form)
    {
        QSignalSpy completed(form, &UploadDialog::uploadCompleted);
        QSignalSpy failed(form, &UploadDialog::uploadFailed);
        child<QPushButton>(form, "uploadButton")->click();
        if (!QTest::qWaitFor([&] { return !completed.isEmpty() || !failed.isEmpty(); }, 5000))
            return "!no outcome";
        return completed.isEmpty() ? "!" + text(form, "errorLabel") : completed.first().first().toString();
    }

private slots:
    void initTestCase()
    {
        QVERIFY(server.listen());
        qputenv("QUORIX_SERVER_URL", server.origin().toUtf8());
    }

    void init()
    {
        // A fresh client per test, so that a request left hanging by one test cannot fail the next one's check.
        api = std::make_unique<OnlineResourcesAPI>();
        server.reset();
    }

    void presetPathIsCheckedAgainstItsLimit_data()
    {
        QTest::addColumn<QString>("fileName");
        QTest::addColumn<qint64>("size");
        QTest::addColumn<QString>("refusal");
        QTest::addColumn<QString>("checkedType");
        const QString tooLarge = "File must be less than %1.";
        QTest::newRow("script at the limit") << "limit.gpc3" << qint64(10485760) << "" << "gpc3";
        QTest::newRow("script one byte over") << "over.gpc3" << qint64(10485761) << tooLarge.arg("10MB") << "";
        QTest::newRow("environment of 20 MB") << "env.qenv" << qint64(20971520) << tooLarge.arg("10MB") << "";
        QTest::newRow("weights in capitals, 20 MB") << "MODEL.ONNX" << qint64(20971520) << "" << "onnx";
        QTest::newRow("weights one byte over") << "huge.onnx" << qint64(524288001) << tooLarge.arg("500MB") << "";
        QTest::newRow("missing file") << "missing.py" << qint64(-1) << "File not found: %1" << "";
    }

    void presetPathIsCheckedAgainstItsLimit()
    {
        QFETCH(QString, fileName);
        QFETCH(qint64, size);
        QFETCH(QString, refusal);
        QFETCH(QString, checkedType);
        server.setRule(checkPath, ScriptedResponse::json({{"success", true}, {"exists", false}}));
        const QString path = size < 0 ? home.filePath(fileName) : makeFile(fileName, size);
        auto dialog = makeSelection(path);
        QVERIFY(child(dialog.get(), "statusLabel")->isVisible());
        QVERIFY(!child(dialog.get(), "proceedButton")->isEnabled());
        QCOMPARE(child<QLineEdit>(dialog.get(), "pathEdit")->text(), refusal.isEmpty() ? path : QString());
        if (!refusal.isEmpty()) {
            QCOMPARE(text(dialog.get(), "statusLabel"), QString(refusal).replace("%1", path));
            QCOMPARE(child(dialog.get(), "statusLabel")->styleSheet(), errorStyle);
            QVERIFY(!server.waitForRequests(1, 300));
            return;
        }
        QCOMPARE(text(dialog.get(), "statusLabel"), "Checking for existing script...");
        QVERIFY(server.waitForRequests(1));
        const QJsonObject body = QJsonDocument::fromJson(server.lastRequest().body).object();
        QCOMPARE(body, (QJsonObject{{"name", fileName}, {"script_type", checkedType}}));
        QTRY_COMPARE(text(dialog.get(), "statusLabel"), "This will be uploaded as a new script.");
    }

    void checkReplyDecidesUpdateOrNew_data()
    {
        QTest::addColumn<QByteArray>("reply");
        QTest::addColumn<int>("status");
        QTest::addColumn<QStringList>("shown"); // status text, its style, the proceed button's text
        QTest::addColumn<QString>("existingId");
        const QStringList newScript{"This will be uploaded as a new script.", "QLabel { color: #44aa44; }",
                                    "Upload New"};
        QTest::newRow("found") << QByteArray(R"({"success":true,"exists":true,"data":{"id":"abc-1","name":"Aim"}})")
                               << 200
                               << QStringList{"This script already exists. Proceeding will update it.",
                                              "QLabel { color: #4488ff; font-weight: bold; }", "Update Script"}
                               << "abc-1";
        QTest::newRow("success without exists") << QByteArray(R"({"success":true,"exists":false})") << 200 << newScript
                                                << "";
        QTest::newRow("exists without success")
                << QByteArray(R"({"success":false,"exists":true,"data":{"id":"abc-1"}})") << 200 << newScript << "";
        QTest::newRow("server error") << QByteArray(R"({"success":false,"error":"boom"})") << 500
                                      << QStringList{unreachable, errorStyle, "Upload"} << "";
    }

    void checkReplyDecidesUpdateOrNew()
    {
        QFETCH(QByteArray, reply);
        QFETCH(int, status);
        QFETCH(QStringList, shown);
        QFETCH(QString, existingId);
        server.setRule(checkPath, ScriptedResponse::rawJson(reply, status));
        const QString path = makeFile("aim.gpc3", 100);
        auto dialog = std::make_unique<ScriptSelectionDialog>(api.get());
        QSignalSpy completed(dialog.get(), &ScriptSelectionDialog::checkCompleted);
        QSignalSpy selected(dialog.get(), &ScriptSelectionDialog::scriptSelected);
        QSignalSpy found(dialog.get(), &ScriptSelectionDialog::existingScriptFound);
        dialog->presetPath(path);
        dialog->show();
        QVERIFY(completed.wait());
        auto *proceed = child<QPushButton>(dialog.get(), "proceedButton");
        QCOMPARE((QStringList{text(dialog.get(), "statusLabel"), child(dialog.get(), "statusLabel")->styleSheet(),
                              proceed->text()}),
                 shown);
        QVERIFY(child(dialog.get(), "browseButton")->isEnabled());
        QCOMPARE(proceed->isEnabled(), status == 200);
        if (status != 200)
            return;
        proceed->click();
        QCOMPARE(dialog->result(), int(QDialog::Accepted));
        QCOMPARE(selected, QList<QVariantList>{{path}});
        QCOMPARE(found.size(), existingId.isEmpty() ? 0 : 1);
        QCOMPARE(dialog->existingRecord().value("id").toString(), existingId);
    }

    void replyAfterTheTimeoutIsIgnored()
    {
        const int limit = ScriptSelectionDialog::checkTimeoutMilliseconds;
        server.setRule(checkPath, ScriptedResponse::json(
                                          {{"success", true}, {"exists", true}, {"data", QJsonObject{{"id", "late"}}}})
                                          .withDelay(limit + 700));
        QSignalSpy checked(api.get(), &OnlineResourcesAPI::existingScriptChecked);
        auto dialog = makeSelection(makeFile("slow.py", 10));
        QSignalSpy completed(dialog.get(), &ScriptSelectionDialog::checkCompleted);
        QSignalSpy selected(dialog.get(), &ScriptSelectionDialog::scriptSelected);
        // Proceeding while the check runs does nothing.
        QVERIFY(server.waitForRequests(1));
        dialog->onProceedClicked();
        QVERIFY(dialog->isVisible() && selected.isEmpty());
        QCOMPARE(text(dialog.get(), "statusLabel"), "Checking for existing script...");
        QVERIFY(completed.wait(limit + 500));
        QCOMPARE(text(dialog.get(), "statusLabel"), unreachable);
        QVERIFY(checked.wait(3000));
        QCOMPARE(completed.size(), 1);
        QCOMPARE(text(dialog.get(), "statusLabel"), unreachable);
        QVERIFY(!child(dialog.get(), "proceedButton")->isEnabled());
        QVERIFY(dialog->existingRecord().isEmpty());
    }

    void showingAgainResetsUnlessPreset()
    {
        server.setRule(checkPath, ScriptedResponse::json(
                                          {{"success", true}, {"exists", true}, {"data", QJsonObject{{"id", "x"}}}}));
        const QString path = makeFile("again.gpc3", 10);
        auto browsed = makeSelection();
        ModalAnswerer chooser;
        chooser.chooseFile(path);
        QSignalSpy completed(browsed.get(), &ScriptSelectionDialog::checkCompleted);
        browsed->onBrowseClicked();
        QVERIFY(completed.wait());
        QVERIFY(!browsed->existingRecord().isEmpty());
        browsed->hide();
        browsed->show();
        QCOMPARE(child<QLineEdit>(browsed.get(), "pathEdit")->text(), QString());
        QVERIFY(child(browsed.get(), "statusLabel")->isHidden());
        QCOMPARE(text(browsed.get(), "proceedButton"), "Proceed");
        QVERIFY(!child(browsed.get(), "proceedButton")->isEnabled());
        QVERIFY(browsed->existingRecord().isEmpty() && browsed->selectedPath().isEmpty());

        auto preset = makeSelection(path);
        QSignalSpy presetCompleted(preset.get(), &ScriptSelectionDialog::checkCompleted);
        QVERIFY(presetCompleted.wait());
        preset->hide();
        preset->show();
        QCOMPARE(preset->selectedPath(), path);
        QCOMPARE(text(preset.get(), "proceedButton"), "Update Script");
    }

    void shortNameOrDescriptionHoldsUploadBack_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("description");
        QTest::addColumn<QString>("status");
        const QString shortName = "Name must be at least 3 characters";
        QTest::newRow("three characters") << "Aim" << "Ten chars." << "Ready to upload";
        QTest::newRow("two characters") << "Ai" << "Ten chars." << shortName;
        QTest::newRow("spaces do not count") << "  Ai  " << "Ten chars." << shortName;
        QTest::newRow("short description") << "Aim" << "Nine char" << "Description must be at least 10 characters";
    }

    void shortNameOrDescriptionHoldsUploadBack()
    {
        QFETCH(QString, name);
        QFETCH(QString, description);
        QFETCH(QString, status);
        auto form = makeForm(writeFile("gate.gpc3", "main {}"));
        child<QLineEdit>(form.get(), "nameEdit")->setText(name);
        child<QTextEdit>(form.get(), "descriptionEdit")->setPlainText(description);
        QCOMPARE(text(form.get(), "statusLabel"), status);
        QCOMPARE(child(form.get(), "uploadButton")->isEnabled(), status == QLatin1String("Ready to upload"));
    }

    void tagsAreNormalisedOnTheWire_data()
    {
        QTest::addColumn<QString>("typed");
        QTest::addColumn<QByteArray>("sent");
        QTest::newRow("example") << "#FPS, , Aim ,combat" << QByteArray("fps,aim,combat");
        QTest::newRow("65 characters dropped") << QString(65, 'a') + ",ok" << QByteArray("ok");
        QTest::newRow("64 characters kept") << QString(64, 'b') << QByteArray(64, 'b');
        QTest::newRow("only number signs") << "##, #" << QByteArray();
    }

    void tagsAreNormalisedOnTheWire()
    {
        QFETCH(QString, typed);
        QFETCH(QByteArray, sent);
        server.setRule("/api/scripts/upload", uploaded("id-1"));
        auto form = makeForm(writeFile("tags.gpc3", "main {}"));
        child<QLineEdit>(form.get(), "tagsEdit")->setText(typed);
        QCOMPARE(upload(form.get()), "id-1");
        QCOMPARE(formField(server.lastRequest().body, "tags"), sent);
        QCOMPARE(formField(server.lastRequest().body, "name"), QByteArray("Rapid fire"));
    }

    void versionTakesTwoDigitsEachSide_data()
    {
        QTest::addColumn<QString>("typed");
        QTest::addColumn<QString>("shown");
        for (const auto &[typed, shown] : {std::pair{"12.34", "12.34"}, {"123", "12"}, {"1.234", "1.23"}})
            QTest::newRow(typed) << QString(typed) << QString(shown);
    }

    void versionTakesTwoDigitsEachSide()
    {
        QFETCH(QString, typed);
        QFETCH(QString, shown);
        auto form = makeForm(writeFile("version.py", "print()"));
        form->setAuthorName("Ada");
        auto *version = child<QLineEdit>(form.get(), "versionEdit");
        version->clear();
        QTest::keyClicks(version, typed);
        QCOMPARE(version->text(), shown);
        QCOMPARE(text(form.get(), "versionAuthorLabel"), QString("v%1 • Today by Ada").arg(shown));
    }

    void imagePickerRules_data()
    {
        QTest::addColumn<QString>("fileName");
        QTest::addColumn<qint64>("size");
        QTest::addColumn<bool>("accepted");
        QTest::newRow("png of exactly 4 MB") << "header.png" << qint64(4194304) << true;
        QTest::newRow("png one byte over") << "large.png" << qint64(4194305) << false;
        QTest::newRow("gif") << "header.gif" << qint64(0) << false;
        QTest::newRow("text named png") << "notes.png" << qint64(-1) << false;
    }

    void imagePickerRules()
    {
        QFETCH(QString, fileName);
        QFETCH(qint64, size);
        QFETCH(bool, accepted);
        QString path = size < 0 ? writeFile(fileName, QByteArray(2000, 'x'))
                                : writePicture(fileName, fileName.endsWith(".gif") ? "BMP" : "PNG");
        // Decoders stop at the end of the picture, so padding reaches the size without spoiling it.
        QByteArray content = TestFiles::read(path);
        if (size > content.size())
            QVERIFY(TestFiles::write(path, content + QByteArray(size - content.size(), '\0')));
        auto form = makeForm(writeFile("image.gpc3", "main {}"));
        ModalAnswerer chooser, warning;
        chooser.chooseFile(path);
        warning.pressButton(QMessageBox::Ok, accepted ? 300 : 5000);
        form->onBrowseImageClicked();
        QVERIFY(chooser.answered());
        QCOMPARE(warning.waitForAnswer(accepted ? 300 : 5000), !accepted);
        QCOMPARE(!child<QLabel>(form.get(), "imagePicker")->pixmap().isNull(), accepted);
        if (!accepted) {
            QCOMPARE((QStringList{warning.seenTitle(), warning.seenText()}),
                     (QStringList{"Invalid Image",
                                  "The selected image is not valid or exceeds size limits (max 4MB)."}));
            return;
        }
        server.setRule("/api/scripts/upload", uploaded("with-image"));
        QCOMPARE(upload(form.get()), "with-image");
        QVERIFY(server.lastRequest().body.contains("name=\"header_image\"; filename=\"" + fileName.toUtf8() + '"'));
    }

    void uploadOutcome_data()
    {
        QTest::addColumn<QString>("fileName");
        QTest::addColumn<QString>("fault");
        QTest::addColumn<int>("overallMs");
        QTest::addColumn<int>("processingMs");
        QTest::addColumn<QString>("outcome");
        // 30 s and 180 s overall and 30 s of processing, scaled down a hundredfold; the timer not under test is long.
        const struct
        {
            const char *tag, *fileName, *fault;
            int overallMs, processingMs;
            const char *outcome;
        } rows[] = {
                {"weights silent beyond the script limit", "model.onnx", "late", 300, 5000, "late"},
                {"script silent beyond its limit", "slow.gpc3", "late", 300, 5000,
                 "Upload timeout - Check your connection"},
                {"no answer after the last byte", "stuck.qenv", "silent", 5000, 300,
                 "Server did not respond after upload completed."},
                {"413", "big.gbc3", "413", 5000, 5000, "Upload failed - File too large - exceeds server upload limit"},
                {"dropped connection", "drop.gbc3", "drop", 5000, 5000,
                 "Connection was dropped - file may exceed server upload limit"},
                {"file vanished", "gone.py", "vanish", 5000, 5000, "can no longer be read"},
                {"file became a folder", "folder.py", "folder", 5000, 5000, "can no longer be read"},
                {"image no longer a picture", "image.py", "image", 5000, 5000, "is no longer a picture of at most 4MB"},
        };
        for (const auto &row : rows)
            QTest::newRow(row.tag) << QString(row.fileName) << QString(row.fault) << row.overallMs << row.processingMs
                                   << QString(row.outcome);
    }

    void uploadOutcome()
    {
        QFETCH(QString, fileName);
        QFETCH(QString, fault);
        QFETCH(int, overallMs);
        QFETCH(int, processingMs);
        QFETCH(QString, outcome);
        const ScriptedResponse answer = fault == "late"   ? uploaded("late", 900)
                                        : fault == "413"  ? ScriptedResponse::rawJson("{}", 413)
                                        : fault == "drop" ? ScriptedResponse::dropped()
                                                          : ScriptedResponse::json({}).stallingAfter(0);
        server.setRule(fileName.endsWith(".onnx") ? "/api/scripts/onnx/upload" : "/api/scripts/upload", answer);
        const QString path = writeFile(fileName, QByteArray(4096, 'q'));
        auto form = makeForm(path);
        form->setTimeoutsForTesting({overallMs, overallMs * 6, processingMs});
        if (fault == "image") {
            ModalAnswerer chooser;
            chooser.chooseFile(writePicture("spoiled.png", "PNG"));
            form->onBrowseImageClicked();
            QVERIFY(!child<QLabel>(form.get(), "imagePicker")->pixmap().isNull());
            QVERIFY(!writeFile("spoiled.png", "not a picture any more").isEmpty());
        } else if (fault == "vanish" || fault == "folder") {
            QVERIFY(QFile::remove(path) && (fault == "vanish" || QDir().mkpath(path)));
        }
        QSignalSpy completed(form.get(), &UploadDialog::uploadCompleted);
        QSignalSpy failed(form.get(), &UploadDialog::uploadFailed);
        const QString result = upload(form.get());
        if (outcome == "late") {
            QCOMPARE(result, outcome);
            return;
        }
        QVERIFY2(result.startsWith("!Upload failed: ") && result.contains(outcome), qPrintable(result));
        // The form stays as it was, ready for another try.
        QVERIFY(form->isVisible() && child(form.get(), "errorLabel")->isVisible());
        QCOMPARE(text(form.get(), "statusLabel"), "Ready to upload");
        QCOMPARE(text(form.get(), "uploadButton"), "Upload");
        QVERIFY(child(form.get(), "uploadButton")->isEnabled() && child(form.get(), "nameEdit")->isEnabled());
        QVERIFY(child(form.get(), "progressBar")->isHidden());
        QCOMPARE((QStringList{child<QLineEdit>(form.get(), "nameEdit")->text(),
                              child<QTextEdit>(form.get(), "descriptionEdit")->toPlainText(),
                              child<QLineEdit>(form.get(), "tagsEdit")->text()}),
                 (QStringList{"Rapid fire", "Fires as fast as allowed.", "aim"}));
        // An answer that comes after all must not overturn the outcome the user was shown.
        QTest::qWait(fault == "late" ? 900 : 100);
        QVERIFY(completed.isEmpty());
        QCOMPARE(failed.size(), 1);
    }

    void unrelatedClientErrorDoesNotEndTheUpload()
    {
        server.setRule("/api/scripts/upload", uploaded("after-noise", 600));
        server.setRule("/api/scripts/like/other", ScriptedResponse::rawJson("{}", 500));
        auto form = makeForm(writeFile("noise.py", "print(1)"));
        QSignalSpy completed(form.get(), &UploadDialog::uploadCompleted);
        QSignalSpy clientErrors(api.get(), &OnlineResourcesAPI::errorOccurred);
        child<QPushButton>(form.get(), "uploadButton")->click();
        api->toggleLike("other");
        QVERIFY(clientErrors.wait());
        QVERIFY(child(form.get(), "errorLabel")->isHidden());
        QCOMPARE(text(form.get(), "uploadButton"), "Uploading...");
        QVERIFY(completed.wait());
        QCOMPARE(completed.first().first().toString(), "after-noise");
    }

    void cancelWhileUploadingAsksAndNoKeepsUploading()
    {
        server.setRule("/api/scripts/upload", ScriptedResponse::json({}).stallingAfter(0));
        auto form = makeForm(writeFile("cancel.gpc3", "main {}"));
        QSignalSpy rejected(form.get(), &QDialog::rejected);
        child<QPushButton>(form.get(), "uploadButton")->click();
        QVERIFY(server.waitForRequests(1));
        ModalAnswerer keepGoing;
        keepGoing.pressButton(QMessageBox::No);
        child<QPushButton>(form.get(), "cancelButton")->click();
        QCOMPARE((QStringList{keepGoing.seenTitle(), keepGoing.seenText()}),
                 (QStringList{"Cancel Upload", "Upload in progress. Are you sure you want to cancel?"}));
        QVERIFY(form->isVisible() && rejected.isEmpty());
        QCOMPARE(text(form.get(), "uploadButton"), "Uploading...");
        QVERIFY(!child(form.get(), "nameEdit")->isEnabled());
        ModalAnswerer stop;
        stop.pressButton(QMessageBox::Yes);
        child<QPushButton>(form.get(), "cancelButton")->click();
        QVERIFY(stop.answered());
        QCOMPARE(rejected.size(), 1);
    }
};

QTEST_MAIN(PublishDialogsTest)
#include "tst_publish_dialogs.moc"
