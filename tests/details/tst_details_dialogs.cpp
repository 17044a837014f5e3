#include "DetailsTestRecords.h"
#include "ModalAnswerer.h"
#include "RecordingHttpServer.h"

#include <QApplication>
#include <QClipboard>
#include <QJsonDocument>
#include <QLabel>
#include <QListWidget>
#include <QNetworkAccessManager>
#include <QPushButton>
#include <QSignalSpy>
#include <QTest>
#include <QTextBrowser>
#include <QTimer>

#include <memory>

using namespace Quorix;
using namespace Quorix::Testing;
namespace Records = DetailsTestRecords;

namespace {

constexpr int S = Records::Script, E = Records::Environment, W = Records::Weights;

// What the named widget shows for one aspect: "text", "visible", "enabled" or "tip".
QString shown(QWidget *dialog, const QString &name, const QString &aspect)
{
    auto *widget = dialog->findChild<QWidget *>(name);
    if (!widget)
        return "<no " + name + ">";
    if (aspect != "text")
        return aspect == "tip"                                                             ? widget->toolTip()
               : (aspect == "visible" ? widget->isVisibleTo(dialog) : widget->isEnabled()) ? "yes"
                                                                                           : "no";
    if (auto *label = qobject_cast<QLabel *>(widget))
        return label->text();
    if (auto *view = qobject_cast<QTextBrowser *>(widget))
        return view->toPlainText();
    if (auto *button = qobject_cast<QPushButton *>(widget))
        return button->text();
    QStringList items;
    for (int row = 0; row < qobject_cast<QListWidget *>(widget)->count(); ++row)
        items.append(qobject_cast<QListWidget *>(widget)->item(row)->text());
    return items.join(',');
}

QJsonObject json(const QByteArray &text)
{
    return QJsonDocument::fromJson(text).object();
}

std::unique_ptr<ResourceDetailsDialog> dialogFor(int kind, const QJsonObject &changes = {}, bool loadingFirst = true)
{
    std::unique_ptr<ResourceDetailsDialog> dialog(Records::createDialog(kind));
    if (loadingFirst)
        dialog->showLoadingState();
    dialog->setRecord(Records::record(kind, changes));
    return dialog;
}

} // namespace

// The details dialogs as the user meets them: what a record looks like, which buttons the user gets, the
// confirmations before destructive actions, and the header picture.
class DetailsDialogsTest : public QObject
{
    Q_OBJECT

    RecordingHttpServer server;

private slots:
    void initTestCase() { QVERIFY(server.listen()); }

    void recordIsShown_data()
    {
        QTest::addColumn<int>("kind");
        QTest::addColumn<QByteArray>("changes");
        QTest::addColumn<QString>("widget");
        QTest::addColumn<QString>("aspect");
        QTest::addColumn<QString>("expected");
        const char *metadata = R"({"qenv_metadata": {"packages": ["numpy==1.26.4", "torch"], "cuda": "12.1"}})";
        const struct
        {
            const char *tag;
            int kind;
            const char *changes, *widget, *aspect, *expected;
        } rows[] = {
                {"counts", S, R"({"downloads": 0, "views": 1500, "likes": 2500000})", "statsLabel", "text",
                 "1.5K views • 2.5M likes"},
                {"installs", E, R"({"downloads": 1200, "views": 0, "likes": 7})", "statsLabel", "text",
                 "1.2K installs • 7 likes"},
                {"version as text", S, R"({"version": "2"})", "versionDateLabel", "text", "v2.00 • Mar 5, 2024"},
                {"version 0", S, R"({"version": 0})", "versionDateLabel", "text", "Mar 5, 2024"},
                {"invalid date", S, R"({"version": 1.5, "created": "x"})", "versionDateLabel", "text", "v1.50 • "},
                {"environments show no version", E, R"({"version": 3})", "versionDateLabel", "text", "Mar 5, 2024"},
                {"type py", S, R"({"type": "py"})", "typeBadge", "text", "PYTHON"},
                {"environment badge", E, "{}", "typeBadge", "text", "QENV"},
                {"size", W, R"({"size": 1572864})", "sizeBadge", "text", "1.5 MB"},
                {"size 0", W, R"({"size": 0})", "sizeBadge", "visible", "no"},
                {"encrypted badge", W, R"({"is_encrypted": 1})", "typeBadge", "text", "ENNX"},
                {"encrypted warning", W, R"({"is_encrypted": 1})", "encryptedLabel", "visible", "yes"},
                {"not encrypted", W, R"({"is_encrypted": false})", "encryptedLabel", "visible", "no"},
                {"no metadata: python", E, "{}", "pythonBadge", "text", "Python 3.x"},
                {"no metadata: packages", E, "{}", "packageCountBadge", "text", "0 packages"},
                {"no metadata: packages box", E, "{}", "packagesBox", "visible", "no"},
                {"no metadata: cuda", E, "{}", "cudaLabel", "visible", "no"},
                {"packages listed", E, metadata, "packagesList", "text", "numpy==1.26.4,torch"},
                {"cuda line", E, metadata, "cudaLabel", "text", "\U0001F3AE CUDA: 12.1"},
                {"private badge", S, R"({"visibility_type": "private"})", "statusBadge", "text", "PRIVATE"},
                {"purchasable badge", W, R"({"visibility_type": "purchasable"})", "statusBadge", "text", "LOCKED"},
                {"public has no badge", S, "{}", "statusBadge", "visible", "no"},
                {"locked script", S, R"({"visibility_type": "purchasable", "can_download": false})", "downloadButton",
                 "tip", "This script is locked. Contact the author for access."},
                {"private environment", E, R"({"visibility_type": "private", "can_download": false})", "installButton",
                 "enabled", "no"},
                {"private weights", W, R"({"visibility_type": "private", "can_download": false})", "downloadButton",
                 "tip", "These weights are private. You need authorization from the author."},
                {"empty description", S, R"({"description": ""})", "descriptionView", "text",
                 "No description provided"},
                {"description markup", E,
                 "{\"description\": \"<b>Fast</b>\\nsecond<img src='http://127.0.0.1:1/x.png'> line\"}",
                 "descriptionView", "text", "Fast\nsecond line"},
                {"no instructions", S, "{}", "instructionsBox", "visible", "no"},
                {"instructions", S, R"({"instructions": "Hold L2\nthen R2"})", "instructionsBox", "visible", "yes"},
                {"tags", S, "{}", "tagsLabel", "text", "#fps  #aim"},
                {"own disclaimer", S, R"({"disclaimer": "Mine."})", "disclaimerLabel", "text", "Mine."},
                {"author as plain text", S, R"({"author": "legacy"})", "authorLabel", "text", "by legacy"},
        };
        for (const auto &row : rows)
            QTest::newRow(row.tag) << row.kind << QByteArray(row.changes) << QString(row.widget) << QString(row.aspect)
                                   << QString(row.expected);
    }

    void recordIsShown()
    {
        QFETCH(int, kind);
        QFETCH(QByteArray, changes);
        QFETCH(QString, widget);
        QFETCH(QString, aspect);
        QFETCH(QString, expected);
        QCOMPARE(shown(dialogFor(kind, json(changes)).get(), widget, aspect), expected);
    }

    // The loading titles of each kind are checked where the page opens the dialogs.
    void loadingStateHidesThePreviousRecord()
    {
        auto dialog = dialogFor(W, json(R"({"visibility_type": "private", "is_encrypted": true})"), false);
        dialog->setCurrentUser(Records::authorId, false);
        dialog->showLoadingState();
        QVERIFY(dialog->resourceId().isEmpty());
        QStringList seen;
        for (const char *name : {"headerImageLabel", "titleLabel", "descriptionView", "authorLabel", "statsLabel"})
            seen << shown(dialog.get(), name, "text");
        for (const char *name :
             {"statusBadge", "encryptedLabel", "deleteButton", "manageAccessButton", "banAuthorButton"})
            seen << shown(dialog.get(), name, "visible");
        for (const char *name : {"downloadButton", "authorButton", "likeButton"})
            seen << shown(dialog.get(), name, "enabled");
        QCOMPARE(seen, (QStringList{"\u23F3", "Loading...", "Loading description...", "", "", "no", "no", "no", "no",
                                    "no", "no", "no", "no"}));
        QCOMPARE(shown(dialog.get(), "versionDateLabel", "text"), QString());
    }

    void ownerButtonsFollowUserAndVisibility_data()
    {
        QTest::addColumn<int>("kind");
        QTest::addColumn<QString>("user");
        QTest::addColumn<bool>("isAdministrator");
        QTest::addColumn<QByteArray>("changes");
        QTest::addColumn<bool>("loading");
        QTest::addColumn<QString>("expected"); // visible: Delete, Manage access, Ban
        const QString owner = Records::authorId, admin = Records::administratorId, stranger = "300000000000000003";
        const char *isPrivate = R"({"visibility_type": "private"})";
        const char *noDiscordId = R"({"author": {"username": "ghost"}})";
        const QByteArray adminOwned
                = QStringLiteral(R"({"visibility_type": "private", "author": {"username": "mod", "discordId": "%1"}})")
                          .arg(admin)
                          .toUtf8();
        QTest::newRow("owner, public") << S << owner << false << QByteArray("{}") << false << "D";
        QTest::newRow("owner, private") << S << owner << false << QByteArray(isPrivate) << false << "DM";
        QTest::newRow("owner, purchasable")
                << E << owner << false << QByteArray(R"({"visibility_type": "purchasable"})") << false << "DM";
        QTest::newRow("owner, is_public false")
                << W << owner << false << QByteArray(R"({"visibility_type": null, "is_public": false})") << false
                << "DM";
        QTest::newRow("owner, while loading") << S << owner << false << QByteArray(isPrivate) << true << "";
        QTest::newRow("administrator, public") << S << admin << true << QByteArray("{}") << false << "DB";
        QTest::newRow("administrator, private") << W << admin << true << QByteArray(isPrivate) << false << "DMB";
        QTest::newRow("administrator's own") << S << admin << true << adminOwned << false << "DM";
        QTest::newRow("administrator, author without ID")
                << E << admin << true << QByteArray(noDiscordId) << false << "D";
        QTest::newRow("stranger, private") << E << stranger << false << QByteArray(isPrivate) << false << "";
        QTest::newRow("stranger, author without ID")
                << S << stranger << false << QByteArray(noDiscordId) << false << "";
        QTest::newRow("signed out administrator flag")
                << S << QString() << true << QByteArray(isPrivate) << false << "";
    }

    void ownerButtonsFollowUserAndVisibility()
    {
        QFETCH(int, kind);
        QFETCH(QString, user);
        QFETCH(bool, isAdministrator);
        QFETCH(QByteArray, changes);
        QFETCH(bool, loading);
        QFETCH(QString, expected);
        auto dialog = dialogFor(kind, json(changes), false);
        if (loading)
            dialog->showLoadingState();
        // The user arrives after the record, as when the host reports a sign-in while the dialog is open.
        dialog->setCurrentUser(user, isAdministrator);
        QString visible;
        for (const char *name : {"deleteButton", "manageAccessButton", "banAuthorButton"}) {
            if (shown(dialog.get(), name, "visible") == "yes")
                visible += QChar(name[0]).toUpper();
        }
        QCOMPARE(visible, expected);
    }

    void destructiveActionsAskFirst_data()
    {
        QTest::addColumn<int>("kind");
        QTest::addColumn<bool>("encrypted");
        QTest::addColumn<QString>("button");
        QTest::addColumn<bool>("yes");
        QTest::addColumn<QStringList>("box"); // title, text, informative text
        QTest::addColumn<QStringList>("emitted"); // empty when nothing may be emitted
        const QStringList id{"res-1"};
        const QStringList banOther{"Ban Author", "Are you sure you want to ban frame_perfect?",
                                   "This will prevent them from uploading any new content to Online Resources."};
        QTest::newRow("delete script, yes")
                << S << false << "deleteButton" << true
                << QStringList{"Delete Script", "Are you sure you want to delete this script?",
                               "The script will be deleted from the Online Resources."}
                << id;
        QTest::newRow("delete environment, no")
                << E << false << "deleteButton" << false
                << QStringList{"Delete Environment", "Are you sure you want to delete this environment?",
                               "The environment definition will be deleted from the Online Resources."}
                << QStringList();
        QTest::newRow("delete weights, yes")
                << W << false << "deleteButton" << true
                << QStringList{"Delete ONNX Weights", "Are you sure you want to delete these ONNX weights?",
                               "The weights will be deleted from the Online Resources."}
                << id;
        QTest::newRow("delete encrypted weights, yes")
                << W << true << "deleteButton" << true
                << QStringList{"Delete ONNX Weights", "⚠️ WARNING: Deleting encrypted weights!",
                               "This action will permanently revoke access for ALL users.\n\n"
                               "• Users who downloaded these weights will no longer be able to use them\n"
                               "• Built engine caches (.eecache) will stop working\n"
                               "• Decryption keys are server-validated and will be rejected\n"
                               "• This cannot be undone\n\nAre you sure you want to delete these weights?"}
                << id;
        QTest::newRow("ban script author, yes")
                << S << false << "banAuthorButton" << true
                << QStringList{"Ban User", "Are you sure you want to ban frame_perfect?",
                               "This will prevent them from uploading any new scripts or resources. Their existing "
                               "uploads will "
                               "remain but be hidden from public listings."}
                << QStringList{Records::authorId, "Banned by administrator from script: Anti-Recoil Pro"};
        QTest::newRow("ban environment author, no")
                << E << false << "banAuthorButton" << false << banOther << QStringList();
        QTest::newRow("ban weights author, yes") << W << false << "banAuthorButton" << true << banOther
                                                 << QStringList{Records::authorId, "Banned via admin action"};
    }

    void destructiveActionsAskFirst()
    {
        QFETCH(int, kind);
        QFETCH(bool, encrypted);
        QFETCH(QString, button);
        QFETCH(bool, yes);
        QFETCH(QStringList, box);
        QFETCH(QStringList, emitted);
        auto dialog = dialogFor(kind, {{"is_encrypted", encrypted}}, false);
        dialog->setCurrentUser(Records::administratorId, true);
        dialog->show();
        QVERIFY(QTest::qWaitForWindowExposed(dialog.get()));
        QSignalSpy deleted(dialog.get(), SIGNAL(deleteRequested(QString)));
        QSignalSpy banned(dialog.get(), SIGNAL(banAuthorRequested(QString, QString)));

        ModalAnswerer answerer;
        answerer.pressButton(yes ? QMessageBox::Yes : QMessageBox::No);
        dialog->findChild<QPushButton *>(button)->click();
        QVERIFY(answerer.answered());
        QCOMPARE((QStringList{answerer.seenTitle(), answerer.seenText(), answerer.seenInformativeText()}), box);
        QCOMPARE(answerer.seenButtons(), (QStringList{"Yes", "No"}));
        QStringList arguments;
        for (const QVariant &argument : deleted.isEmpty() ? banned.value(0) : deleted.first())
            arguments.append(argument.toString());
        QCOMPARE(deleted.size() + banned.size(), emitted.isEmpty() ? 0 : 1);
        QCOMPARE(arguments, emitted);
        QCOMPARE(dialog->isVisible(), emitted.isEmpty());
    }

    void copyingTheMentionShowsCopiedForTwoSeconds()
    {
        auto plain = dialogFor(S, {{"author", "legacy"}});
        QApplication::clipboard()->setText("untouched");
        plain->findChild<QPushButton *>("authorButton")->click();
        QCOMPARE(QApplication::clipboard()->text(), "untouched");

        auto dialog = dialogFor(E);
        auto *author = dialog->findChild<QPushButton *>("authorButton");
        QCOMPARE(author->text(), "Author");
        author->click();
        author->click();
        QCOMPARE(QApplication::clipboard()->text(), "<@" + Records::authorId + ">");
        QCOMPARE(author->text(), "Copied");
        const QList<QTimer *> timers = dialog->findChildren<QTimer *>("copyFeedbackTimer");
        QCOMPARE(timers.size(), 2);
        for (QTimer *timer : timers)
            QVERIFY(timer->isActive() && timer->interval() == 2000);
        QTRY_COMPARE_WITH_TIMEOUT(author->text(), "Author", 5000);
        QTRY_VERIFY_WITH_TIMEOUT(dialog->findChildren<QTimer *>("copyFeedbackTimer").isEmpty(), 5000);
        QCOMPARE(author->text(), "Author");
    }

    void paletteChangeRefetchesTheIcons()
    {
        auto dialog = dialogFor(E);
        dialog->setLikeState(true, 4);
        const char *themed[] = {"authorButton", "installButton", "likeButton"};
        QList<qint64> before;
        for (const char *name : themed)
            before.append(dialog->findChild<QPushButton *>(name)->icon().cacheKey());
        QPalette dark = dialog->palette();
        dark.setColor(QPalette::Window, QColor(0x20, 0x22, 0x25));
        dark.setColor(QPalette::Text, Qt::white);
        dialog->setPalette(dark);
        for (int index = 0; index < 3; ++index)
            QVERIFY2(dialog->findChild<QPushButton *>(themed[index])->icon().cacheKey() != before.at(index),
                     themed[index]);
        QCOMPARE(shown(dialog.get(), "likeButton", "text"), "Unlike");
    }

    void headerImageOrPlaceholder_data()
    {
        QTest::addColumn<QByteArray>("images");
        QTest::addColumn<QByteArray>("served");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("requested");
        const QByteArray png = Records::pngBytes(Qt::red);
        const QByteArray header = R"({"header": {"url": "%1/header.png"}})";
        QTest::newRow("header preferred")
                << QByteArray(R"({"header": {"url": "%1/header.png"}, "thumbnail": {"url": "%1/t.png"}})") << png << 200
                << "/header.png";
        QTest::newRow("thumbnail without header")
                << QByteArray(R"({"thumbnail": {"url": "%1/t.png"}})") << png << 200 << "/t.png";
        QTest::newRow("server error") << header << png << 404 << "/header.png";
        QTest::newRow("undecodable bytes") << header << QByteArray("not a picture") << 200 << "/header.png";
        QTest::newRow("no address") << QByteArray("{}") << png << 200 << "";
    }

    void headerImageOrPlaceholder()
    {
        QFETCH(QByteArray, images);
        QFETCH(QByteArray, served);
        QFETCH(int, status);
        QFETCH(QString, requested);
        server.reset();
        server.setDefaultResponse(ScriptedResponse::bytes(served, "image/png", status));
        auto dialog = dialogFor(W, {{"images", json(QString(images).arg(server.origin()).toUtf8())}});
        auto *header = dialog->findChild<QLabel *>("headerImageLabel");
        if (!requested.isEmpty()) {
            QVERIFY(server.waitForRequests(1));
            QCOMPARE(server.lastRequest().path(), requested);
            QTRY_VERIFY(dialog->findChildren<QNetworkAccessManager *>().isEmpty());
        }
        QCOMPARE(server.requestCount(), requested.isEmpty() ? 0 : 1);
        const QImage picture = header->pixmap().toImage();
        if (status == 200 && served == Records::pngBytes(Qt::red) && !requested.isEmpty())
            QCOMPARE(picture.pixelColor(picture.width() / 2, picture.height() / 2), QColor(Qt::red));
        else
            QVERIFY(picture.isNull() && header->text() == "\U0001F5BC\uFE0F");
    }

    void headerReplyForAReplacedRecordIsIgnored()
    {
        server.reset();
        server.setRule("/first.png", ScriptedResponse::bytes(Records::pngBytes(Qt::blue), "image/png").withDelay(600));
        server.setRule("/second.png", ScriptedResponse::bytes(Records::pngBytes(Qt::green), "image/png"));
        const auto withHeader = [this](const char *id, const char *path) {
            return Records::record(
                    S, {{"id", id},
                        {"images", QJsonObject{{"header", QJsonObject{{"url", server.url(path).toString()}}}}}});
        };
        auto dialog = dialogFor(S);
        dialog->setRecord(withHeader("first", "/first.png"));
        QVERIFY(server.waitForRequests(1));
        dialog->setRecord(withHeader("second", "/second.png"));
        // Both replies have arrived once both fetches have released their network managers.
        QTRY_VERIFY_WITH_TIMEOUT(dialog->findChildren<QNetworkAccessManager *>().isEmpty(), 5000);
        QCOMPARE(server.requestCount(), 2);
        const QImage picture = dialog->findChild<QLabel *>("headerImageLabel")->pixmap().toImage();
        QCOMPARE(picture.pixelColor(picture.width() / 2, picture.height() / 2), QColor(Qt::green));
    }
};

QTEST_MAIN(DetailsDialogsTest)
#include "tst_details_dialogs.moc"
