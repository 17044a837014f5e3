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
const QString foundStyle = QStringLiteral("QLabel { color: #4488ff; font-weight: bold; }");
const QString newStyle = QStringLiteral("QLabel { color: #44aa44; }");
const QString errorStyle = QStringLiteral("QLabel { color: #ff8844; }");
const QString unreachable
        = QStringLiteral("Unable to connect to server. Please check your connection and try again later.");

ScriptedResponse silence()
{
    ScriptedResponse response;
    response.ending = ScriptedResponse::Ending::Stall;
    return response;
}

} // namespace

class ScriptSelectionDialogTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void presetPathIsCheckedAgainstItsLimit_data();
    void presetPathIsCheckedAgainstItsLimit();
    void checkReplyDecidesUpdateOrNew_data();
    void checkReplyDecidesUpdateOrNew();
    void replyAfterTheTimeoutIsIgnored();
    void nextWhileCheckingDoesNothing();
    void showingAgainResetsUnlessPreset();

private:
    QString makeFile(const QString &name, qint64 size);
    std::unique_ptr<ScriptSelectionDialog> makeDialog();
    template<typename T>
    T *child(QWidget *dialog, const char *name)
    {
        return dialog->findChild<T *>(QLatin1String(name));
    }

    std::unique_ptr<TemporaryHome> home;
    std::unique_ptr<OnlineResourcesAPI> api;
    RecordingHttpServer server;
};

void ScriptSelectionDialogTest::initTestCase()
{
    home = std::make_unique<TemporaryHome>();
    QVERIFY(server.listen());
    qputenv("QUORIX_SERVER_URL", server.origin().toUtf8());
}

void ScriptSelectionDialogTest::init()
{
    // A fresh client per test, so that a request left hanging by one test cannot fail the next one's check.
    api = std::make_unique<OnlineResourcesAPI>();
    server.reset();
}

QString ScriptSelectionDialogTest::makeFile(const QString &name, qint64 size)
{
    // Sparse: the sizes that matter here are far larger than what is worth writing.
    QFile file(home->filePath(name));
    if (!file.open(QIODevice::WriteOnly) || !file.resize(size))
        return QString();
    return file.fileName();
}

std::unique_ptr<ScriptSelectionDialog> ScriptSelectionDialogTest::makeDialog()
{
    auto dialog = std::make_unique<ScriptSelectionDialog>(api.get());
    dialog->setStartDirectory(home->path());
    return dialog;
}

void ScriptSelectionDialogTest::presetPathIsCheckedAgainstItsLimit_data()
{
    QTest::addColumn<QString>("fileName");
    QTest::addColumn<qint64>("size");
    QTest::addColumn<QString>("status");
    QTest::addColumn<QString>("checkedType");

    QTest::newRow("script at the limit") << "limit.gpc3" << qint64(10485760) << "Checking for existing script..."
                                         << "gpc3";
    QTest::newRow("script one byte over") << "over.gpc3" << qint64(10485761) << "File must be less than 10MB." << "";
    QTest::newRow("environment of 20 MB") << "env.qenv" << qint64(20971520) << "File must be less than 10MB." << "";
    QTest::newRow("weights of 20 MB") << "model.onnx" << qint64(20971520) << "Checking for existing script..."
                                      << "onnx";
    QTest::newRow("weights in capitals") << "MODEL.ONNX" << qint64(20971520) << "Checking for existing script..."
                                         << "onnx";
    QTest::newRow("weights one byte over") << "huge.onnx" << qint64(524288001) << "File must be less than 500MB."
                                           << "";
    QTest::newRow("missing file") << "missing.py" << qint64(-1) << "File not found: %1" << "";
}

void ScriptSelectionDialogTest::presetPathIsCheckedAgainstItsLimit()
{
    QFETCH(QString, fileName);
    QFETCH(qint64, size);
    QFETCH(QString, status);
    QFETCH(QString, checkedType);
    server.setRule(checkPath, ScriptedResponse::json({{"success", true}, {"exists", false}}));
    const QString path = size < 0 ? home->filePath(fileName) : makeFile(fileName, size);
    QVERIFY(!path.isEmpty());

    auto dialog = makeDialog();
    dialog->presetPath(path);
    dialog->show();
    auto *statusLabel = child<QLabel>(dialog.get(), "statusLabel");
    QCOMPARE(statusLabel->text(), QString(status).replace(QLatin1String("%1"), path));
    QVERIFY(statusLabel->isVisible());
    QVERIFY(!child<QPushButton>(dialog.get(), "proceedButton")->isEnabled());

    if (checkedType.isEmpty()) {
        QCOMPARE(statusLabel->styleSheet(), errorStyle);
        QCOMPARE(child<QLineEdit>(dialog.get(), "pathEdit")->text(), QString());
        QVERIFY(!server.waitForRequests(1, 300));
        return;
    }
    QCOMPARE(child<QLineEdit>(dialog.get(), "pathEdit")->text(), path);
    QVERIFY(server.waitForRequests(1));
    const QJsonObject body = QJsonDocument::fromJson(server.lastRequest().body).object();
    QCOMPARE(body.value("name").toString(), fileName);
    QCOMPARE(body.value("script_type").toString(), checkedType);
    QTRY_COMPARE(statusLabel->text(), QStringLiteral("This will be uploaded as a new script."));
}

void ScriptSelectionDialogTest::checkReplyDecidesUpdateOrNew_data()
{
    QTest::addColumn<QByteArray>("reply");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("message");
    QTest::addColumn<QString>("style");
    QTest::addColumn<QString>("proceedText");
    QTest::addColumn<QString>("existingId");

    QTest::newRow("found") << QByteArray(R"({"success":true,"exists":true,"data":{"id":"abc-1","name":"Aim"}})") << 200
                           << "This script already exists. Proceeding will update it." << foundStyle << "Update Script"
                           << "abc-1";
    QTest::newRow("success without exists") << QByteArray(R"({"success":true,"exists":false})") << 200
                                            << "This will be uploaded as a new script." << newStyle << "Upload New"
                                            << "";
    QTest::newRow("exists without success")
            << QByteArray(R"({"success":false,"exists":true,"data":{"id":"abc-1"}})") << 200
            << "This will be uploaded as a new script." << newStyle << "Upload New" << "";
    QTest::newRow("server error") << QByteArray(R"({"success":false,"error":"boom"})") << 500 << unreachable
                                  << errorStyle << "Upload" << "";
}

void ScriptSelectionDialogTest::checkReplyDecidesUpdateOrNew()
{
    QFETCH(QByteArray, reply);
    QFETCH(int, status);
    QFETCH(QString, message);
    QFETCH(QString, style);
    QFETCH(QString, proceedText);
    QFETCH(QString, existingId);
    server.setRule(checkPath, ScriptedResponse::rawJson(reply, status));
    const QString path = makeFile(QStringLiteral("aim.gpc3"), 100);

    auto dialog = makeDialog();
    QSignalSpy completed(dialog.get(), &ScriptSelectionDialog::checkCompleted);
    QSignalSpy selected(dialog.get(), &ScriptSelectionDialog::scriptSelected);
    QSignalSpy found(dialog.get(), &ScriptSelectionDialog::existingScriptFound);
    dialog->presetPath(path);
    dialog->show();
    QVERIFY(completed.wait());
    auto *statusLabel = child<QLabel>(dialog.get(), "statusLabel");
    auto *proceed = child<QPushButton>(dialog.get(), "proceedButton");
    QCOMPARE(statusLabel->text(), message);
    QCOMPARE(statusLabel->styleSheet(), style);
    QCOMPARE(proceed->text(), proceedText);
    QVERIFY(child<QPushButton>(dialog.get(), "browseButton")->isEnabled());

    const bool failed = status != 200;
    QCOMPARE(proceed->isEnabled(), !failed);
    if (failed)
        return;
    proceed->click();
    QCOMPARE(dialog->result(), int(QDialog::Accepted));
    QCOMPARE(selected.size(), 1);
    QCOMPARE(selected.first().first().toString(), path);
    QCOMPARE(found.size(), existingId.isEmpty() ? 0 : 1);
    QCOMPARE(dialog->existingRecord().value("id").toString(), existingId);
}

void ScriptSelectionDialogTest::replyAfterTheTimeoutIsIgnored()
{
    server.setRule(checkPath,
                   ScriptedResponse::json({{"success", true}, {"exists", true}, {"data", QJsonObject{{"id", "late"}}}})
                           .withDelay(ScriptSelectionDialog::checkTimeoutMilliseconds + 700));
    auto dialog = makeDialog();
    QSignalSpy completed(dialog.get(), &ScriptSelectionDialog::checkCompleted);
    QSignalSpy checked(api.get(), &OnlineResourcesAPI::existingScriptChecked);
    dialog->presetPath(makeFile(QStringLiteral("slow.py"), 10));
    dialog->show();
    QVERIFY(completed.wait(ScriptSelectionDialog::checkTimeoutMilliseconds + 500));
    QCOMPARE(child<QLabel>(dialog.get(), "statusLabel")->text(), unreachable);

    QVERIFY(checked.wait(3000));
    QCOMPARE(completed.size(), 1);
    QCOMPARE(child<QLabel>(dialog.get(), "statusLabel")->text(), unreachable);
    QVERIFY(!child<QPushButton>(dialog.get(), "proceedButton")->isEnabled());
    QVERIFY(dialog->existingRecord().isEmpty());
}

void ScriptSelectionDialogTest::nextWhileCheckingDoesNothing()
{
    server.setRule(checkPath, silence());
    auto dialog = makeDialog();
    QSignalSpy selected(dialog.get(), &ScriptSelectionDialog::scriptSelected);
    dialog->presetPath(makeFile(QStringLiteral("wait.gpc3"), 10));
    dialog->show();
    QVERIFY(server.waitForRequests(1));
    dialog->onProceedClicked();
    QVERIFY(dialog->isVisible());
    QCOMPARE(selected.size(), 0);
    QCOMPARE(child<QLabel>(dialog.get(), "statusLabel")->text(), QStringLiteral("Checking for existing script..."));
}

void ScriptSelectionDialogTest::showingAgainResetsUnlessPreset()
{
    server.setRule(checkPath,
                   ScriptedResponse::json({{"success", true}, {"exists", true}, {"data", QJsonObject{{"id", "x"}}}}));
    const QString path = makeFile(QStringLiteral("again.gpc3"), 10);

    auto browsed = makeDialog();
    browsed->show();
    ModalAnswerer chooser;
    chooser.chooseFile(path);
    QSignalSpy completed(browsed.get(), &ScriptSelectionDialog::checkCompleted);
    browsed->onBrowseClicked();
    QVERIFY(completed.wait());
    QVERIFY(!browsed->existingRecord().isEmpty());
    browsed->hide();
    browsed->show();
    QCOMPARE(child<QLineEdit>(browsed.get(), "pathEdit")->text(), QString());
    QVERIFY(child<QLabel>(browsed.get(), "statusLabel")->isHidden());
    QCOMPARE(child<QPushButton>(browsed.get(), "proceedButton")->text(), QStringLiteral("Proceed"));
    QVERIFY(!child<QPushButton>(browsed.get(), "proceedButton")->isEnabled());
    QVERIFY(browsed->existingRecord().isEmpty());
    QVERIFY(browsed->selectedPath().isEmpty());

    auto preset = makeDialog();
    QSignalSpy presetCompleted(preset.get(), &ScriptSelectionDialog::checkCompleted);
    preset->presetPath(path);
    preset->show();
    QVERIFY(presetCompleted.wait());
    preset->hide();
    preset->show();
    QCOMPARE(preset->selectedPath(), path);
    QCOMPARE(child<QPushButton>(preset.get(), "proceedButton")->text(), QStringLiteral("Update Script"));
}

QTEST_MAIN(ScriptSelectionDialogTest)
#include "tst_script_selection_dialog.moc"
