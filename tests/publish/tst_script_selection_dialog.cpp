#include "ModalAnswerer.h"
#include "RecordingHttpServer.h"
#include "TemporaryHome.h"

#include "api/OnlineResourcesAPI.h"
#include "publish/ScriptSelectionDialog.h"

#include <QFile>
#include <QJsonDocument>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSignalSpy>
#include <QTest>

#include <memory>

using namespace Quorix;
using namespace Quorix::Testing;

namespace {

const QString checkPath = QStringLiteral("/api/scripts/check-existing");
const QString errorStyle = QStringLiteral("QLabel { color: #ff8844; }");
const QString unreachable
        = QStringLiteral("Unable to connect to server. Please check your connection and try again later.");

} // namespace

// Choosing the file to publish: size limits, and whether the server already holds it (update) or not (new).
class ScriptSelectionDialogTest : public QObject
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

    std::unique_ptr<ScriptSelectionDialog> makeDialog(const QString &presetPath = {})
    {
        auto dialog = std::make_unique<ScriptSelectionDialog>(api.get());
        dialog->setStartDirectory(home.path());
        if (!presetPath.isEmpty())
            dialog->presetPath(presetPath);
        dialog->show();
        return dialog;
    }

    template<typename T = QWidget>
    static T *child(QWidget *dialog, const char *name)
    {
        return dialog->findChild<T *>(QLatin1String(name));
    }

    static QString status(QWidget *dialog) { return child<QLabel>(dialog, "statusLabel")->text(); }

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
        auto dialog = makeDialog(path);
        QVERIFY(child(dialog.get(), "statusLabel")->isVisible());
        QVERIFY(!child(dialog.get(), "proceedButton")->isEnabled());
        if (!refusal.isEmpty()) {
            QCOMPARE(status(dialog.get()), QString(refusal).replace("%1", path));
            QCOMPARE(child(dialog.get(), "statusLabel")->styleSheet(), errorStyle);
            QCOMPARE(child<QLineEdit>(dialog.get(), "pathEdit")->text(), QString());
            QVERIFY(!server.waitForRequests(1, 300));
            return;
        }
        QCOMPARE(status(dialog.get()), "Checking for existing script...");
        QCOMPARE(child<QLineEdit>(dialog.get(), "pathEdit")->text(), path);
        QVERIFY(server.waitForRequests(1));
        const QJsonObject body = QJsonDocument::fromJson(server.lastRequest().body).object();
        QCOMPARE(body.value("name").toString(), fileName);
        QCOMPARE(body.value("script_type").toString(), checkedType);
        QTRY_COMPARE(status(dialog.get()), "This will be uploaded as a new script.");
    }

    void checkReplyDecidesUpdateOrNew_data()
    {
        QTest::addColumn<QByteArray>("reply");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("message");
        QTest::addColumn<QString>("style");
        QTest::addColumn<QString>("proceedText");
        QTest::addColumn<QString>("existingId");
        const QString newScript = "This will be uploaded as a new script.", newStyle = "QLabel { color: #44aa44; }";
        QTest::newRow("found") << QByteArray(R"({"success":true,"exists":true,"data":{"id":"abc-1","name":"Aim"}})")
                               << 200 << "This script already exists. Proceeding will update it."
                               << "QLabel { color: #4488ff; font-weight: bold; }" << "Update Script" << "abc-1";
        QTest::newRow("success without exists")
                << QByteArray(R"({"success":true,"exists":false})") << 200 << newScript << newStyle << "Upload New"
                << "";
        QTest::newRow("exists without success")
                << QByteArray(R"({"success":false,"exists":true,"data":{"id":"abc-1"}})") << 200 << newScript
                << newStyle << "Upload New" << "";
        QTest::newRow("server error") << QByteArray(R"({"success":false,"error":"boom"})") << 500 << unreachable
                                      << errorStyle << "Upload" << "";
    }

    void checkReplyDecidesUpdateOrNew()
    {
        QFETCH(QByteArray, reply);
        QFETCH(int, status);
        QFETCH(QString, message);
        QFETCH(QString, style);
        QFETCH(QString, proceedText);
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
        QCOMPARE(this->status(dialog.get()), message);
        QCOMPARE(child(dialog.get(), "statusLabel")->styleSheet(), style);
        QCOMPARE(proceed->text(), proceedText);
        QVERIFY(child(dialog.get(), "browseButton")->isEnabled());
        QCOMPARE(proceed->isEnabled(), status == 200);
        if (status != 200)
            return;
        proceed->click();
        QCOMPARE(dialog->result(), int(QDialog::Accepted));
        QCOMPARE(selected.size(), 1);
        QCOMPARE(selected.first().first().toString(), path);
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
        auto dialog = makeDialog(makeFile("slow.py", 10));
        QSignalSpy completed(dialog.get(), &ScriptSelectionDialog::checkCompleted);
        QVERIFY(completed.wait(limit + 500));
        QCOMPARE(status(dialog.get()), unreachable);
        QVERIFY(checked.wait(3000));
        QCOMPARE(completed.size(), 1);
        QCOMPARE(status(dialog.get()), unreachable);
        QVERIFY(!child(dialog.get(), "proceedButton")->isEnabled());
        QVERIFY(dialog->existingRecord().isEmpty());
    }

    void nextWhileCheckingDoesNothing()
    {
        server.setRule(checkPath, ScriptedResponse::json({}).stallingAfter(0));
        auto dialog = makeDialog(makeFile("wait.gpc3", 10));
        QSignalSpy selected(dialog.get(), &ScriptSelectionDialog::scriptSelected);
        QVERIFY(server.waitForRequests(1));
        dialog->onProceedClicked();
        QVERIFY(dialog->isVisible() && selected.isEmpty());
        QCOMPARE(status(dialog.get()), "Checking for existing script...");
    }

    void showingAgainResetsUnlessPreset()
    {
        server.setRule(checkPath, ScriptedResponse::json(
                                          {{"success", true}, {"exists", true}, {"data", QJsonObject{{"id", "x"}}}}));
        const QString path = makeFile("again.gpc3", 10);
        auto browsed = makeDialog();
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
        QCOMPARE(child<QPushButton>(browsed.get(), "proceedButton")->text(), "Proceed");
        QVERIFY(!child(browsed.get(), "proceedButton")->isEnabled());
        QVERIFY(browsed->existingRecord().isEmpty() && browsed->selectedPath().isEmpty());

        auto preset = makeDialog(path);
        QSignalSpy presetCompleted(preset.get(), &ScriptSelectionDialog::checkCompleted);
        QVERIFY(presetCompleted.wait());
        preset->hide();
        preset->show();
        QCOMPARE(preset->selectedPath(), path);
        QCOMPARE(child<QPushButton>(preset.get(), "proceedButton")->text(), "Update Script");
    }
};

QTEST_MAIN(ScriptSelectionDialogTest)
#include "tst_script_selection_dialog.moc"
