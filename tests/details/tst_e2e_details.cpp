#include "CatalogueServerFixture.h"
#include "ModalAnswerer.h"
#include "TemporaryHome.h"

#include "browser/OnlineResourcesWidget.h"
#include "browser/ScriptCard.h"
#include "details/ScriptDetailsDialog.h"

#include <PluginHost.h>
#include <SettingsManager.h>

#include <QLabel>
#include <QPushButton>
#include <QTest>

#include <memory>

using namespace Quorix;
using namespace Quorix::Testing;

namespace {

const QString administratorId = QStringLiteral("100000000000000009");

ScriptCard *card(QWidget *page, const QString &id)
{
    const QList<ScriptCard *> cards = page->findChildren<ScriptCard *>();
    for (ScriptCard *candidate : cards) {
        if (candidate->scriptId() == id)
            return candidate;
    }
    return nullptr;
}

} // namespace

// The details dialog's actions carried out by the page against the reference server, as a signed-in user sees them.
class E2eDetailsTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();

    void ownerOfAPrivateScriptMayManageAccess();
    void administratorBansTheAuthorAndTheirCardsDisappear();
    void deletingFromTheDialogRemovesCardAndRecord();
    void likingFromTheDialogChangesTheCardsCount();

private:
    QString signIn(const QString &username);
    QString upload(const QString &token, const QString &visibility = QStringLiteral("public"));
    std::unique_ptr<OnlineResourcesWidget> openPage(const QStringList &expectedIds);
    ScriptDetailsDialog *openDetails(OnlineResourcesWidget *page, const QString &id);

    std::unique_ptr<TemporaryHome> home;
    std::unique_ptr<CatalogueServerFixture> server;
    PluginHost host;
    int users = 0;
    int uploads = 0;
};

void E2eDetailsTest::initTestCase()
{
    home = std::make_unique<TemporaryHome>();
    server = std::make_unique<CatalogueServerFixture>(false, QStringList{administratorId});
    QVERIFY2(server->start(), qPrintable(server->error()));
    // Both are read once per process, before the first page exists.
    qputenv("QUORIX_SERVER_URL", server->origin().toUtf8());
    qputenv("QUORIX_ADMIN_IDS", administratorId.toUtf8());
}

void E2eDetailsTest::cleanupTestCase()
{
    server.reset();
    home.reset();
}

// Signs the host in as a new user (the administrator for "admin") and returns the session token.
QString E2eDetailsTest::signIn(const QString &username)
{
    const QString discordId
            = username == QLatin1String("admin") ? administratorId : QString::number(320000000000000000LL + ++users);
    const QString token = server->signIn(discordId, username);
    host.signIn({discordId, username, username, QString(), token});
    return token;
}

QString E2eDetailsTest::upload(const QString &token, const QString &visibility)
{
    const CatalogueServerFixture::Reply reply
            = server->uploadScript(token, QStringLiteral("details%1.gpc3").arg(++uploads), "int x = 1;", visibility);
    return reply.json.value(QStringLiteral("data")).toObject().value(QStringLiteral("id")).toVariant().toString();
}

std::unique_ptr<OnlineResourcesWidget> E2eDetailsTest::openPage(const QStringList &expectedIds)
{
    auto page = std::make_unique<OnlineResourcesWidget>(nullptr);
    page->setPluginHost(&host);
    page->setSettingsManager(SettingsManager::instance());
    page->resize(1000, 800);
    page->show();
    const bool complete = QTest::qWaitFor(
            [&] {
                return std::all_of(expectedIds.begin(), expectedIds.end(),
                                   [&](const QString &id) { return card(page.get(), id) != nullptr; });
            },
            10000);
    return complete ? std::move(page) : nullptr;
}

ScriptDetailsDialog *E2eDetailsTest::openDetails(OnlineResourcesWidget *page, const QString &id)
{
    QTest::mouseClick(card(page, id), Qt::LeftButton);
    auto *dialog = page->findChild<ScriptDetailsDialog *>();
    if (!dialog || !QTest::qWaitFor([&] { return dialog->resourceId() == id; }, 10000))
        return nullptr;
    return dialog;
}

void E2eDetailsTest::ownerOfAPrivateScriptMayManageAccess()
{
    const QString id = upload(signIn(QStringLiteral("keeper")), QStringLiteral("private"));
    QVERIFY(!id.isEmpty());
    auto page = openPage({id});
    QVERIFY(page);
    ScriptDetailsDialog *dialog = openDetails(page.get(), id);
    QVERIFY(dialog);

    QCOMPARE(dialog->findChild<QLabel *>(QStringLiteral("statusBadge"))->text(), QStringLiteral("PRIVATE"));
    QVERIFY(dialog->findChild<QPushButton *>(QStringLiteral("manageAccessButton"))->isVisible());
    QVERIFY(dialog->findChild<QPushButton *>(QStringLiteral("deleteButton"))->isVisible());
    QVERIFY(!dialog->findChild<QPushButton *>(QStringLiteral("banAuthorButton"))->isVisible());
}

void E2eDetailsTest::administratorBansTheAuthorAndTheirCardsDisappear()
{
    const QString authorToken = signIn(QStringLiteral("spammer"));
    const QString first = upload(authorToken);
    const QString second = upload(authorToken);
    const QString kept = upload(signIn(QStringLiteral("bystander")));
    signIn(QStringLiteral("admin"));
    auto page = openPage({first, second, kept});
    QVERIFY(page);
    ScriptDetailsDialog *dialog = openDetails(page.get(), first);
    QVERIFY(dialog);
    auto *ban = dialog->findChild<QPushButton *>(QStringLiteral("banAuthorButton"));
    QVERIFY(ban->isVisible());

    ModalAnswerer confirmation;
    confirmation.pressButton(QMessageBox::Yes);
    ban->click();
    QCOMPARE(confirmation.seenTitle(), QStringLiteral("Ban User"));
    ModalAnswerer announcement;
    announcement.pressButton(QMessageBox::Ok, 10000);
    QVERIFY(announcement.waitForAnswer(10000));
    QCOMPARE(announcement.seenTitle(), QStringLiteral("User Banned"));

    QTRY_VERIFY_WITH_TIMEOUT(!card(page.get(), first) && !card(page.get(), second) && card(page.get(), kept), 10000);
    QVERIFY(!dialog->isVisible());
}

void E2eDetailsTest::deletingFromTheDialogRemovesCardAndRecord()
{
    const QString token = signIn(QStringLiteral("tidy"));
    const QString id = upload(token);
    auto page = openPage({id});
    QVERIFY(page);
    ScriptDetailsDialog *dialog = openDetails(page.get(), id);
    QVERIFY(dialog);

    ModalAnswerer confirmation;
    confirmation.pressButton(QMessageBox::Yes);
    dialog->findChild<QPushButton *>(QStringLiteral("deleteButton"))->click();
    QCOMPARE(confirmation.seenTitle(), QStringLiteral("Delete Script"));
    QTRY_VERIFY_WITH_TIMEOUT(!card(page.get(), id), 10000);
    QVERIFY(!server->get(QStringLiteral("details/") + id, token).json.value(QStringLiteral("success")).toBool());
}

void E2eDetailsTest::likingFromTheDialogChangesTheCardsCount()
{
    const QString id = upload(signIn(QStringLiteral("liked_author")));
    signIn(QStringLiteral("fan"));
    auto page = openPage({id});
    QVERIFY(page);
    auto *cardLike = card(page.get(), id)->findChild<QPushButton *>(QStringLiteral("scriptCardLikeButton"));
    QCOMPARE(cardLike->text(), QString());
    ScriptDetailsDialog *dialog = openDetails(page.get(), id);
    QVERIFY(dialog);

    auto *like = dialog->findChild<QPushButton *>(QStringLiteral("likeButton"));
    like->click();
    QTRY_COMPARE_WITH_TIMEOUT(cardLike->text(), QStringLiteral("1"), 10000);
    QCOMPARE(like->text(), QStringLiteral("Unlike"));
    QVERIFY(dialog->findChild<QLabel *>(QStringLiteral("statsLabel"))->text().endsWith(QLatin1String("1 likes")));

    like->click();
    QTRY_COMPARE_WITH_TIMEOUT(cardLike->text(), QString(), 10000);
    QCOMPARE(like->text(), QStringLiteral("Like"));
}

QTEST_MAIN(E2eDetailsTest)
#include "tst_e2e_details.moc"
