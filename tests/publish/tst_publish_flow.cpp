#include "CatalogueServerFixture.h"
#include "TemporaryHome.h"

#include "browser/OnlineResourcesWidget.h"
#include "browser/ResourceCard.h"
#include "publish/ScriptSelectionDialog.h"
#include "publish/UploadDialog.h"

#include <PluginHost.h>
#include <SettingsManager.h>

#include <QCheckBox>
#include <QComboBox>
#include <QFile>
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

namespace {

const QString publisherId = QStringLiteral("412000000000000001");

} // namespace

// Publishing through the page on the reference server: selection, form, upload, and the page showing the result.
class PublishFlowTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void publishThenPublishAgainUpdates_data();
    void publishThenPublishAgainUpdates();

private:
    QString writeFile(const QString &name, const QByteArray &content);
    // Runs the selection for the file and returns the form it leads to, after checking what the selection said.
    UploadDialog *openForm(const QString &path, const QString &expectedProceedText);
    // Uploads the form and returns the new resource ID, empty when it failed.
    QString upload(UploadDialog *form);
    bool gridShows(const QString &id);

    std::unique_ptr<TemporaryHome> home;
    std::unique_ptr<CatalogueServerFixture> server;
    PluginHost host;
    std::unique_ptr<OnlineResourcesWidget> page;
};

void PublishFlowTest::initTestCase()
{
    home = std::make_unique<TemporaryHome>();
    server = std::make_unique<CatalogueServerFixture>();
    QVERIFY2(server->start(), qPrintable(server->error()));
    qputenv("QUORIX_SERVER_URL", server->origin().toUtf8());
    const QString token = server->signIn(publisherId, QStringLiteral("publisher"), QStringLiteral("Pub Lisher"));
    QVERIFY(!token.isEmpty());
    host.signIn({publisherId, QStringLiteral("publisher"), QStringLiteral("Pub Lisher"), QString(), token});
    SettingsManager::instance()->setValue(QStringLiteral("developerMode"), true);

    page = std::make_unique<OnlineResourcesWidget>(nullptr);
    page->setPluginHost(&host);
    page->setSettingsManager(SettingsManager::instance());
    page->resize(1000, 700);
    page->show();
}

void PublishFlowTest::cleanupTestCase()
{
    page.reset();
    server.reset();
    home.reset();
}

QString PublishFlowTest::writeFile(const QString &name, const QByteArray &content)
{
    QFile file(home->filePath(name));
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
        return QString();
    return file.fileName();
}

UploadDialog *PublishFlowTest::openForm(const QString &path, const QString &expectedProceedText)
{
    page->startPublishing(path);
    QPointer<ScriptSelectionDialog> selection = page->findChild<ScriptSelectionDialog *>();
    if (!selection)
        return nullptr;
    auto *proceed = selection->findChild<QPushButton *>(QStringLiteral("proceedButton"));
    if (!QTest::qWaitFor([&] { return proceed->isEnabled(); }, 10000) || proceed->text() != expectedProceedText)
        return nullptr;
    proceed->click();
    // The selection deletes itself once closed.
    if (!QTest::qWaitFor([&] { return selection.isNull(); }, 5000))
        return nullptr;
    return page->findChild<UploadDialog *>();
}

QString PublishFlowTest::upload(UploadDialog *form)
{
    QSignalSpy completed(form, &UploadDialog::uploadCompleted);
    QSignalSpy failed(form, &UploadDialog::uploadFailed);
    form->findChild<QPushButton *>(QStringLiteral("uploadButton"))->click();
    if (!QTest::qWaitFor([&] { return !completed.isEmpty() || !failed.isEmpty(); }, 20000) || completed.isEmpty())
        return QString();
    return completed.first().first().toString();
}

bool PublishFlowTest::gridShows(const QString &id)
{
    return QTest::qWaitFor(
            [&] {
                const QList<ResourceCard *> cards = page->findChildren<ResourceCard *>();
                return std::any_of(cards.cbegin(), cards.cend(),
                                   [&](const ResourceCard *card) { return card->resourceId() == id; });
            },
            10000);
}

void PublishFlowTest::publishThenPublishAgainUpdates_data()
{
    QTest::addColumn<QString>("fileName");
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<int>("kindFilter");
    QTest::addColumn<bool>("encrypt");
    QTest::addColumn<QString>("title");
    QTest::addColumn<QString>("badge");
    QTest::addColumn<QString>("kindPath");
    QTest::addColumn<QString>("downloadedName");

    QTest::newRow("script") << "recoil.gpc3" << QByteArray("main { set_val(PS5_R2, 100); }\n") << 0 << false << "Script"
                            << "GPC3" << "" << "recoil.gpc3";
    QTest::newRow("environment package") << "vision.qenv"
                                         << QByteArray(
                                                    R"({"name":"vision","python":"3.11","packages":["numpy==1.26.4"]})")
                                         << 3 << false << "Environment" << "QENV" << "qenv/" << "vision.qenv";
    QTest::newRow("encrypted weights") << "detector.onnx" << QByteArray(70000, '\x07') << 4 << true << "ONNX Weights"
                                       << "ENNX" << "onnx/" << "detector.ennx";
}

void PublishFlowTest::publishThenPublishAgainUpdates()
{
    QFETCH(QString, fileName);
    QFETCH(QByteArray, content);
    QFETCH(int, kindFilter);
    QFETCH(bool, encrypt);
    QFETCH(QString, title);
    QFETCH(QString, badge);
    QFETCH(QString, kindPath);
    QFETCH(QString, downloadedName);
    page->findChild<QComboBox *>(QStringLiteral("typeFilter"))->setCurrentIndex(kindFilter);

    UploadDialog *form = openForm(writeFile(fileName, content), QStringLiteral("Upload New"));
    QVERIFY(form);
    QCOMPARE(form->windowTitle(), QStringLiteral("Publish ") + title);
    QCOMPARE(form->findChild<QLabel *>(QStringLiteral("versionAuthorLabel"))->text(),
             QStringLiteral("v1.00 • Today by Pub Lisher"));
    form->findChild<QLineEdit *>(QStringLiteral("nameEdit"))->setText(QStringLiteral("Published ") + fileName);
    form->findChild<QTextEdit *>(QStringLiteral("descriptionEdit"))->setPlainText(QStringLiteral("Shared for tests."));
    form->findChild<QLineEdit *>(QStringLiteral("tagsEdit"))->setText(QStringLiteral("#Shared, , Test"));
    if (encrypt)
        form->findChild<QCheckBox *>(QStringLiteral("encryptCheckBox"))->setChecked(true);
    QCOMPARE(form->findChild<QLabel *>(QStringLiteral("typeBadge"))->text(), badge);

    const QString id = upload(form);
    QVERIFY(!id.isEmpty());
    QVERIFY(gridShows(id));

    const CatalogueServerFixture::Reply download
            = server->get(kindPath + QStringLiteral("download/") + id, host.getAuthSessionToken());
    QCOMPARE(download.status, 200);
    QVERIFY2(download.header("content-disposition").contains(downloadedName.toUtf8()),
             download.header("content-disposition").constData());
    QCOMPARE(download.body, content);

    // The same file again: the selection finds it, the form opens filled in update mode, the ID stays.
    form = openForm(home->filePath(fileName), QStringLiteral("Update Script"));
    QVERIFY(form);
    QCOMPARE(form->windowTitle(), QStringLiteral("Update ") + title);
    QCOMPARE(form->findChild<QPushButton *>(QStringLiteral("uploadButton"))->text(), QStringLiteral("Update"));
    QCOMPARE(form->findChild<QLabel *>(QStringLiteral("typeBadge"))->text(), badge);
    QCOMPARE(form->findChild<QLineEdit *>(QStringLiteral("nameEdit"))->text(), QStringLiteral("Published ") + fileName);
    QCOMPARE(form->findChild<QLineEdit *>(QStringLiteral("tagsEdit"))->text(), QStringLiteral("shared, test"));
    form->findChild<QLineEdit *>(QStringLiteral("versionEdit"))->setText(QStringLiteral("2.5"));
    QCOMPARE(upload(form), id);
    const QJsonObject record = server->get(kindPath + QStringLiteral("details/") + id, host.getAuthSessionToken())
                                       .json.value("data")
                                       .toObject();
    QCOMPARE(record.value(QStringLiteral("version")).toDouble(), 2.5);
}

QTEST_MAIN(PublishFlowTest)
#include "tst_publish_flow.moc"
