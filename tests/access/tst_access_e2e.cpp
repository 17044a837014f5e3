#include "BoxAnswers.h"
#include "E2eCatalogue.h"
#include "TemporaryHome.h"
#include "access/AuthorizationManagementDialog.h"

#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QRegularExpression>
#include <QTest>

#include <memory>

using namespace Quorix;
using namespace Quorix::Testing;

// The dialog driving the reference server: pending grants, their claim at sign-in, revocation and bulk import.
class TestAccessEndToEnd : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<TemporaryHome> home;
    std::unique_ptr<E2eCatalogue> catalogue;

    static void waitForList(OnlineResourcesAPI *api, const std::function<void()> &action)
    {
        QSignalSpy loaded(api, &OnlineResourcesAPI::scriptAuthorizationsLoaded);
        action();
        QVERIFY(loaded.wait(E2eCatalogue::replyTimeoutMilliseconds));
    }

    static QString lastBoxAfter(const std::function<void()> &action, const QList<QMessageBox::StandardButton> &buttons)
    {
        return answerBoxes(action, buttons, E2eCatalogue::replyTimeoutMilliseconds).last().last();
    }

    static bool sees(OnlineResourcesAPI *api, const QString &name, const QString &id)
    {
        return E2eCatalogue::idsOf(E2eCatalogue::listScripts(api, {{QStringLiteral("search"), name}})).contains(id);
    }

private slots:
    void initTestCase()
    {
        home = std::make_unique<TemporaryHome>();
        catalogue = std::make_unique<E2eCatalogue>();
        QVERIFY2(catalogue->start(), qPrintable(catalogue->error()));
    }

    void cleanupTestCase()
    {
        catalogue.reset();
        home.reset();
    }

    void pendingGrantIsClaimedAtSignInAndRevoked()
    {
        auto author = catalogue->signIn(E2eCatalogue::newDiscordId(), QStringLiteral("dialog-author"));
        const QString name = QStringLiteral("Dialog private");
        const QString id = catalogue->upload(author.get(), name, QStringLiteral("guarded.gpc3"), "secret",
                                             {{QStringLiteral("visibility_type"), QStringLiteral("private")}});
        AuthorizationManagementDialog dialog(author.get(), id, name);
        auto *list = dialog.findChild<QListWidget *>(QStringLiteral("authorizationList"));
        waitForList(author.get(), [&] { dialog.loadAuthorizations(); });

        const QString latecomerId = E2eCatalogue::newDiscordId();
        dialog.findChild<QLineEdit *>(QStringLiteral("discordIdEdit"))->setText(latecomerId);
        const QString granted = lastBoxAfter(
                [&] { dialog.findChild<QPushButton *>(QStringLiteral("grantButton"))->click(); }, {QMessageBox::Ok});
        QVERIFY2(granted.contains(QRegularExpression(QStringLiteral("\n\nAuthorization code: \\w+$"))),
                 qPrintable(granted));
        QTRY_COMPARE(list->count(), 1);
        QVERIFY(list->item(0)->text().contains(QStringLiteral("[PENDING]")));

        auto latecomer = catalogue->signIn(latecomerId, QStringLiteral("latecomer"));
        QVERIFY(!sees(latecomer.get(), name, id));
        const auto claimed = E2eCatalogue::await(latecomer.get(), &OnlineResourcesAPI::pendingAuthorizationsClaimed,
                                                 [&] { latecomer->claimPendingAuthorizations(); });
        QCOMPARE(claimed.arguments, QList<QVariant>{1});
        QVERIFY(sees(latecomer.get(), name, id));

        waitForList(author.get(), [&] { dialog.findChild<QPushButton *>(QStringLiteral("refreshButton"))->click(); });
        const QString claimedRow = list->item(0)->text().section(QLatin1Char('\n'), 0, 0);
        QVERIFY2(claimedRow.endsWith(QStringLiteral("(@latecomer)")), qPrintable(claimedRow));
        list->setCurrentRow(0);
        const QString revoked
                = lastBoxAfter([&] { dialog.findChild<QPushButton *>(QStringLiteral("revokeButton"))->click(); },
                               {QMessageBox::Yes, QMessageBox::Ok});
        QCOMPARE(revoked, QStringLiteral("Authorization revoked"));
        QVERIFY(!sees(latecomer.get(), name, id));
        QTRY_COMPARE(list->count(), 0);
    }

    void bulkImportReportsTheCounts()
    {
        auto author = catalogue->signIn(E2eCatalogue::newDiscordId(), QStringLiteral("importer"));
        const QString id
                = catalogue->upload(author.get(), QStringLiteral("Dialog locked"), QStringLiteral("locked.gpc3"),
                                    "locked", {{QStringLiteral("visibility_type"), QStringLiteral("purchasable")}});
        const QString regularId = E2eCatalogue::newDiscordId();
        const QString newcomerId = E2eCatalogue::newDiscordId();
        auto regular = catalogue->signIn(regularId, QStringLiteral("regular"));
        auto newcomer = catalogue->signIn(newcomerId, QStringLiteral("newcomer"));
        E2eCatalogue::await(author.get(), &OnlineResourcesAPI::authorizationGranted, [&] {
            author->grantAuthorization(id, {{QStringLiteral("discord_id"), regularId}});
        });
        const QString file = catalogue->writeFile(
                QStringLiteral("ids.csv"), QStringLiteral("discord_id,username\n%1,regular\n%2,newcomer\n%3,stranger\n")
                                                   .arg(regularId, newcomerId, E2eCatalogue::newDiscordId())
                                                   .toUtf8());
        AuthorizationManagementDialog dialog(author.get(), id, QStringLiteral("Dialog locked"));
        waitForList(author.get(), [&] { dialog.loadAuthorizations(); });

        ModalAnswerer chooser;
        chooser.chooseFile(file);
        const QString report
                = lastBoxAfter([&] { dialog.findChild<QPushButton *>(QStringLiteral("importButton"))->click(); },
                               {QMessageBox::Yes, QMessageBox::Ok});
        QCOMPARE(report, QStringLiteral("Import complete:\n• Granted: 1\n• Already authorized: 1\n"
                                        "• Not found (user hasn't signed in): 1"));
        QTRY_COMPARE(dialog.findChild<QListWidget *>(QStringLiteral("authorizationList"))->count(), 2);
    }
};

QTEST_MAIN(TestAccessEndToEnd)
#include "tst_access_e2e.moc"
