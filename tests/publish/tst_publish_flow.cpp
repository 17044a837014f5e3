#include "CatalogueServerFixture.h"
#include "TemporaryHome.h"
#include "TestFiles.h"

#include "browser/OnlineResourcesWidget.h"
#include "browser/ResourceCard.h"
#include "publish/ScriptSelectionDialog.h"
#include "publish/UploadDialog.h"

#include <PluginHost.h>
#include <SettingsManager.h>

#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QPointer>
#include <QPushButton>
#include <QSignalSpy>
#include <QTest>
#include <QTextEdit>

#include <memory>

using namespace Quorix;
using namespace Quorix::Testing;

// Publishing through the page on the reference server: selection, form, upload, and the page showing the result.
class PublishFlowTest : public QObject
{
    Q_OBJECT

    TemporaryHome home;
    CatalogueServerFixture server;
    PluginHost host;
    std::unique_ptr<OnlineResourcesWidget> page;

    // Runs the selection for the file and returns the form it leads to, after checking what the selection offered.
    UploadDialog *openForm(const QString &path, const QString &expectedProceedText)
    {
        page->startPublishing(path);
        QPointer<ScriptSelectionDialog> selection = page->findChild<ScriptSelectionDialog *>();
        if (!selection)
            return nullptr;
        auto *proceed = selection->findChild<QPushButton *>("proceedButton");
        if (!QTest::qWaitFor([&] { return proceed->isEnabled(); }, 10000) || proceed->text() != expectedProceedText)
            return nullptr;
        proceed->click();
        // The selection deletes itself once closed.
        return QTest::qWaitFor([&] { return selection.isNull(); }, 5000) ? page->findChild<UploadDialog *>() : nullptr;
    }

    // Uploads the form and returns the resource ID, empty when it failed.
    static QString upload(UploadDialog *form)
    {
        QSignalSpy completed(form, &UploadDialog::uploadCompleted);
        QSignalSpy failed(form, &UploadDialog::uploadFailed);
        form->findChild<QPushButton *>("uploadButton")->click();
        const bool ended = QTest::qWaitFor([&] { return !completed.isEmpty() || !failed.isEmpty(); }, 20000);
        return ended && !completed.isEmpty() ? completed.first().first().toString() : QString();
    }

    static QString text(QWidget *form, const char *name)
    {
        if (auto *edit = form->findChild<QLineEdit *>(name))
            return edit->text();
        if (auto *label = form->findChild<QLabel *>(name))
            return label->text();
        return form->findChild<QPushButton *>(name)->text();
    }

private slots:
    void initTestCase()
    {
        QVERIFY2(server.start(), qPrintable(server.error()));
        qputenv("QUORIX_SERVER_URL", server.origin().toUtf8());
        const QString id = "412000000000000001", token = server.signIn(id, "publisher", "Pub Lisher");
        QVERIFY(!token.isEmpty());
        host.signIn({id, "publisher", "Pub Lisher", QString(), token});
        SettingsManager::instance()->setValue("developerMode", true);
        page = std::make_unique<OnlineResourcesWidget>(nullptr);
        page->setPluginHost(&host);
        page->setSettingsManager(SettingsManager::instance());
        page->resize(1000, 700);
        page->show();
    }

    void cleanupTestCase() { page.reset(); }

    void publishThenPublishAgainUpdates_data()
    {
        QTest::addColumn<QString>("fileName");
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<int>("kindFilter");
        QTest::addColumn<QString>("title");
        QTest::addColumn<QString>("badge");
        QTest::addColumn<QString>("kindPath");
        QTest::addColumn<QString>("downloadedName");
        const QByteArray environment = R"({"name":"vision","python":"3.11","packages":["numpy"]})";
        QTest::newRow("script") << "recoil.gpc3" << QByteArray("main { set_val(PS5_R2, 100); }\n") << 0 << "Script"
                                << "GPC3" << "" << "recoil.gpc3";
        QTest::newRow("environment package")
                << "vision.qenv" << environment << 3 << "Environment" << "QENV" << "qenv/" << "vision.qenv";
        QTest::newRow("encrypted weights") << "detector.onnx" << QByteArray(70000, '\x07') << 4 << "ONNX Weights"
                                           << "ENNX" << "onnx/" << "detector.ennx";
    }

    void publishThenPublishAgainUpdates()
    {
        QFETCH(QString, fileName);
        QFETCH(QByteArray, content);
        QFETCH(int, kindFilter);
        QFETCH(QString, title);
        QFETCH(QString, badge);
        QFETCH(QString, kindPath);
        QFETCH(QString, downloadedName);
        page->findChild<QComboBox *>("typeFilter")->setCurrentIndex(kindFilter);
        QVERIFY(TestFiles::write(home.filePath(fileName), content));

        UploadDialog *form = openForm(home.filePath(fileName), "Upload New");
        QVERIFY(form);
        QCOMPARE(form->windowTitle(), "Publish " + title);
        QCOMPARE(text(form, "versionAuthorLabel"), "v1.00 • Today by Pub Lisher");
        form->findChild<QLineEdit *>("nameEdit")->setText("Published " + fileName);
        form->findChild<QTextEdit *>("descriptionEdit")->setPlainText("Shared for tests.");
        form->findChild<QLineEdit *>("tagsEdit")->setText("#Shared, , Test");
        if (badge == "ENNX")
            form->findChild<QCheckBox *>("encryptCheckBox")->setChecked(true);
        QCOMPARE(text(form, "typeBadge"), badge);
        const QString id = upload(form);
        QVERIFY(!id.isEmpty());
        QVERIFY(QTest::qWaitFor(
                [&] {
                    const QList<ResourceCard *> cards = page->findChildren<ResourceCard *>();
                    return std::any_of(cards.cbegin(), cards.cend(),
                                       [&](const ResourceCard *card) { return card->resourceId() == id; });
                },
                10000));
        const auto download = server.get(kindPath + "download/" + id, host.getAuthSessionToken());
        QCOMPARE(download.status, 200);
        QVERIFY2(download.header("content-disposition").contains(downloadedName.toUtf8()),
                 download.header("content-disposition"));
        QCOMPARE(download.body, content);

        // The same file again: the selection finds it, the form opens filled in update mode, the ID stays.
        form = openForm(home.filePath(fileName), "Update Script");
        QVERIFY(form);
        QCOMPARE(form->windowTitle(), "Update " + title);
        QCOMPARE((QStringList{text(form, "uploadButton"), text(form, "typeBadge"), text(form, "nameEdit"),
                              text(form, "tagsEdit")}),
                 (QStringList{"Update", badge, "Published " + fileName, "shared, test"}));
        form->findChild<QLineEdit *>("versionEdit")->setText("2.5");
        QCOMPARE(upload(form), id);
        const QJsonObject record
                = server.get(kindPath + "details/" + id, host.getAuthSessionToken()).json.value("data").toObject();
        QCOMPARE(record.value("version").toDouble(), 2.5);
    }
};

QTEST_MAIN(PublishFlowTest)
#include "tst_publish_flow.moc"
