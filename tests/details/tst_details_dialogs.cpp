#include "DetailsTestRecords.h"
#include "ModalAnswerer.h"
#include "RecordingHttpServer.h"

#include "details/OnnxDetailsDialog.h"
#include "details/QenvDetailsDialog.h"
#include "details/ScriptDetailsDialog.h"

#include <QApplication>
#include <QClipboard>
#include <QGroupBox>
#include <QJsonArray>
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

namespace {

using Records = DetailsTestRecords;

const QString pictureGlyph = QStringLiteral("\U0001F5BC\uFE0F");
const QString hourglassGlyph = QStringLiteral("\u23F3");

QString owner()
{
    return QString::fromLatin1(Records::authorDiscordId);
}

QString administrator()
{
    return QString::fromLatin1(Records::administratorDiscordId);
}

// What the named widget shows for one aspect: "text", "visible", "enabled" or "toolTip".
QString shown(QWidget *dialog, const QString &widgetName, const QString &aspect)
{
    if (widgetName == QLatin1String("window"))
        return dialog->windowTitle();
    QWidget *widget = dialog->findChild<QWidget *>(widgetName);
    if (!widget)
        return QStringLiteral("<no %1>").arg(widgetName);
    if (aspect == QLatin1String("visible"))
        return widget->isVisibleTo(dialog) ? QStringLiteral("yes") : QStringLiteral("no");
    if (aspect == QLatin1String("enabled"))
        return widget->isEnabled() ? QStringLiteral("yes") : QStringLiteral("no");
    if (aspect == QLatin1String("toolTip"))
        return widget->toolTip();
    if (auto *label = qobject_cast<QLabel *>(widget))
        return label->text();
    if (auto *view = qobject_cast<QTextBrowser *>(widget))
        return view->toPlainText();
    if (auto *button = qobject_cast<QPushButton *>(widget))
        return button->text();
    if (auto *list = qobject_cast<QListWidget *>(widget)) {
        QStringList items;
        for (int row = 0; row < list->count(); ++row)
            items.append(list->item(row)->text());
        return items.join(QLatin1Char(','));
    }
    return QStringLiteral("<unreadable %1>").arg(widgetName);
}

std::unique_ptr<ResourceDetailsDialog> dialogFor(int kind)
{
    return std::unique_ptr<ResourceDetailsDialog>(Records::createDialog(Records::Kind(kind)));
}

QPushButton *button(QWidget *dialog, const char *name)
{
    return dialog->findChild<QPushButton *>(QLatin1String(name));
}

} // namespace

// The details dialogs as the user meets them: what a record looks like on screen, which buttons the user gets,
// the confirmations before destructive actions, and the header picture.
class DetailsDialogsTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();

    void recordIsShown_data();
    void recordIsShown();
    void loadingStateHidesThePreviousRecord_data();
    void loadingStateHidesThePreviousRecord();
    void ownerButtonsFollowUserAndVisibility_data();
    void ownerButtonsFollowUserAndVisibility();
    void destructiveActionsAskFirst_data();
    void destructiveActionsAskFirst();
    void copyingTheMentionTwiceRestoresTheLabelOnce();
    void authorWithoutDiscordIdCopiesNothing();
    void paletteChangeRefetchesTheIcons();
    void headerImageOrPlaceholder_data();
    void headerImageOrPlaceholder();
    void headerReplyForAReplacedRecordIsIgnored();

private:
    RecordingHttpServer server;
};

void DetailsDialogsTest::initTestCase()
{
    QVERIFY(server.listen());
}

void DetailsDialogsTest::recordIsShown_data()
{
    QTest::addColumn<int>("kind");
    QTest::addColumn<QJsonObject>("changes");
    QTest::addColumn<QString>("widget");
    QTest::addColumn<QString>("aspect");
    QTest::addColumn<QString>("expected");
    const auto row = [](const char *name, int kind, const QJsonObject &changes, const char *widget, const char *aspect,
                        const QString &expected) {
        QTest::newRow(name) << kind << changes << QString(widget) << QString(aspect) << expected;
    };
    const int script = Records::Script, environment = Records::Environment, weights = Records::Weights;

    const QJsonObject counts{{"downloads", 0}, {"views", 1500}, {"likes", 2500000}};
    row("zero downloads hidden, others abbreviated", script, counts, "statsLabel", "text", "1.5K views • 2.5M likes");
    row("environments count installs", environment, {{"downloads", 1200}, {"views", 0}, {"likes", 7}}, "statsLabel",
        "text", "1.2K installs • 7 likes");

    row("version as the string 2", script, {{"version", "2"}}, "versionDateLabel", "text", "v2.00 • Mar 5, 2024");
    row("version 0", script, {{"version", 0}}, "versionDateLabel", "text", "Mar 5, 2024");
    row("version absent", weights, {{"version", QJsonValue::Null}}, "versionDateLabel", "text", "Mar 5, 2024");
    row("invalid date", script, {{"version", 1.5}, {"created", "yesterday"}}, "versionDateLabel", "text", "v1.50 • ");
    row("environments show no version", environment, {{"version", 3}}, "versionDateLabel", "text", "Mar 5, 2024");

    row("type py", script, {{"type", "py"}}, "typeBadge", "text", "PYTHON");
    row("type gpc3", script, {{"type", "gpc3"}}, "typeBadge", "text", "GPC3");
    row("environment badge after loading", environment, {}, "typeBadge", "text", "QENV");

    row("size 1572864", weights, {{"size", 1572864}}, "sizeBadge", "text", "1.5 MB");
    row("size 1023", weights, {{"size", 1023}}, "sizeBadge", "text", "1023 B");
    row("size 1024", weights, {{"size", 1024}}, "sizeBadge", "text", "1.0 KB");
    row("size 0", weights, {{"size", 0}}, "sizeBadge", "visible", "no");
    row("is_encrypted 1: badge", weights, {{"is_encrypted", 1}}, "typeBadge", "text", "ENNX");
    row("is_encrypted 1: warning", weights, {{"is_encrypted", 1}}, "encryptedLabel", "visible", "yes");
    row("not encrypted", weights, {{"is_encrypted", false}}, "encryptedLabel", "visible", "no");

    row("no qenv_metadata: python", environment, {}, "pythonBadge", "text", "Python 3.x");
    row("no qenv_metadata: package count", environment, {}, "packageCountBadge", "text", "0 packages");
    row("no qenv_metadata: packages box", environment, {}, "packagesBox", "visible", "no");
    row("no qenv_metadata: cuda", environment, {}, "cudaLabel", "visible", "no");
    const QJsonObject metadata{
            {"qenv_metadata", QJsonObject{{"packages", QJsonArray{"numpy==1.26.4", "torch"}}, {"cuda", "12.1"}}}};
    row("packages listed", environment, metadata, "packagesList", "text", "numpy==1.26.4,torch");
    row("cuda line", environment, metadata, "cudaLabel", "text", "\U0001F3AE CUDA: 12.1");

    row("private badge", script, {{"visibility_type", "private"}}, "statusBadge", "text", "PRIVATE");
    row("purchasable badge", weights, {{"visibility_type", "purchasable"}}, "statusBadge", "text", "LOCKED");
    row("public has no badge", script, {}, "statusBadge", "visible", "no");
    row("locked script", script, {{"visibility_type", "purchasable"}, {"can_download", false}}, "downloadButton",
        "toolTip", "This script is locked. Contact the author for access.");
    row("private environment", environment, {{"visibility_type", "private"}, {"can_download", false}}, "installButton",
        "enabled", "no");
    row("private weights", weights, {{"visibility_type", "private"}, {"can_download", false}}, "downloadButton",
        "toolTip", "These weights are private. You need authorization from the author.");

    row("empty description", script, {{"description", ""}}, "descriptionView", "text", "No description provided");
    row("description lines and markup", environment,
        {{"description", "<b>Fast</b>\nsecond<img src=\"http://127.0.0.1:1/x.png\"> line"}}, "descriptionView", "text",
        "Fast\nsecond line");
    row("no instructions", script, {}, "instructionsBox", "visible", "no");
    row("instructions", script, {{"instructions", "Hold L2\nthen R2"}}, "instructionsBox", "visible", "yes");
    row("tags", script, {}, "tagsLabel", "text", "#fps  #aim");
    row("own disclaimer", script, {{"disclaimer", "Mine."}}, "disclaimerLabel", "text", "Mine.");
    row("author as plain string", script, {{"author", "legacy"}}, "authorLabel", "text", "by legacy");
    row("script title", script, {}, "window", "text", "Script Details - Anti-Recoil Pro");
    row("weights title", weights, {}, "window", "text", "ONNX Weights - Anti-Recoil Pro");
}

void DetailsDialogsTest::recordIsShown()
{
    QFETCH(int, kind);
    QFETCH(QJsonObject, changes);
    QFETCH(QString, widget);
    QFETCH(QString, aspect);
    QFETCH(QString, expected);

    auto dialog = dialogFor(kind);
    dialog->showLoadingState();
    dialog->setRecord(Records::record(Records::Kind(kind), changes));
    QCOMPARE(shown(dialog.get(), widget, aspect), expected);
}

void DetailsDialogsTest::loadingStateHidesThePreviousRecord_data()
{
    QTest::addColumn<int>("kind");
    QTest::addColumn<QString>("title");
    QTest::addColumn<QString>("action");
    QTest::newRow("script") << int(Records::Script) << "Loading Script Details..."
                            << "downloadButton";
    QTest::newRow("environment") << int(Records::Environment) << "Loading Environment Details..."
                                 << "installButton";
    QTest::newRow("weights") << int(Records::Weights) << "Loading ONNX Weights Details..."
                             << "downloadButton";
}

void DetailsDialogsTest::loadingStateHidesThePreviousRecord()
{
    QFETCH(int, kind);
    QFETCH(QString, title);
    QFETCH(QString, action);

    auto dialog = dialogFor(kind);
    dialog->setCurrentUser(owner(), false);
    dialog->setRecord(
            Records::record(Records::Kind(kind), {{QStringLiteral("visibility_type"), QStringLiteral("private")},
                                                  {QStringLiteral("is_encrypted"), true}}));
    dialog->showLoadingState();

    QCOMPARE(dialog->windowTitle(), title);
    QCOMPARE(shown(dialog.get(), QStringLiteral("headerImageLabel"), QStringLiteral("text")), hourglassGlyph);
    QCOMPARE(shown(dialog.get(), QStringLiteral("titleLabel"), QStringLiteral("text")), QStringLiteral("Loading..."));
    QCOMPARE(shown(dialog.get(), QStringLiteral("descriptionView"), QStringLiteral("text")),
             QStringLiteral("Loading description..."));
    for (const char *emptied : {"authorLabel", "statsLabel", "versionDateLabel"})
        QCOMPARE(shown(dialog.get(), QLatin1String(emptied), QStringLiteral("text")), QString());
    for (const char *hidden : {"statusBadge", "deleteButton", "manageAccessButton", "banAuthorButton"})
        QCOMPARE(shown(dialog.get(), QLatin1String(hidden), QStringLiteral("visible")), QStringLiteral("no"));
    for (const QString &disabled : {action, QStringLiteral("authorButton"), QStringLiteral("likeButton")})
        QCOMPARE(shown(dialog.get(), disabled, QStringLiteral("enabled")), QStringLiteral("no"));
    QVERIFY(dialog->resourceId().isEmpty());
    if (auto *encrypted = dialog->findChild<QLabel *>(QStringLiteral("encryptedLabel")))
        QVERIFY(!encrypted->isVisibleTo(dialog.get()));
}

void DetailsDialogsTest::ownerButtonsFollowUserAndVisibility_data()
{
    QTest::addColumn<int>("kind");
    QTest::addColumn<QString>("user");
    QTest::addColumn<bool>("isAdministrator");
    QTest::addColumn<QJsonObject>("changes");
    QTest::addColumn<bool>("loading");
    QTest::addColumn<QString>("expected"); // visible: Delete, Manage access, Ban
    const auto row = [](const char *name, int kind, const QString &user, bool isAdministrator,
                        const QJsonObject &changes, bool loading, const char *expected) {
        QTest::newRow(name) << kind << user << isAdministrator << changes << loading << QString(expected);
    };
    const int script = Records::Script, environment = Records::Environment, weights = Records::Weights;
    const QString stranger = Records::strangerDiscordId;
    const QJsonObject isPrivate{{"visibility_type", "private"}};
    const QJsonObject adminOwned{{"visibility_type", "private"},
                                 {"author", QJsonObject{{"username", "mod"}, {"discordId", administrator()}}}};
    const QJsonObject noDiscordId{{"author", QJsonObject{{"username", "ghost"}}}};

    row("owner, public", script, owner(), false, {}, false, "D");
    row("owner, private", script, owner(), false, isPrivate, false, "DM");
    row("owner, purchasable", environment, owner(), false, {{"visibility_type", "purchasable"}}, false, "DM");
    row("owner, is_public false", weights, owner(), false,
        {{"visibility_type", QJsonValue::Null}, {"is_public", false}}, false, "DM");
    row("owner, while loading", script, owner(), false, isPrivate, true, "");
    row("administrator, public", script, administrator(), true, {}, false, "DB");
    row("administrator, private", weights, administrator(), true, isPrivate, false, "DMB");
    row("administrator viewing their own", script, administrator(), true, adminOwned, false, "DM");
    row("administrator, author without Discord ID", environment, administrator(), true, noDiscordId, false, "D");
    row("administrator, plain-string author", script, administrator(), true, {{"author", "legacy"}}, false, "D");
    row("administrator, while loading", weights, administrator(), true, isPrivate, true, "");
    row("stranger, public", script, stranger, false, {}, false, "");
    row("stranger, private", environment, stranger, false, isPrivate, false, "");
    row("stranger, author without Discord ID", script, stranger, false, noDiscordId, false, "");
    row("signed out", script, QString(), false, isPrivate, false, "");
    row("signed out with the administrator flag", script, QString(), true, isPrivate, false, "");
}

void DetailsDialogsTest::ownerButtonsFollowUserAndVisibility()
{
    QFETCH(int, kind);
    QFETCH(QString, user);
    QFETCH(bool, isAdministrator);
    QFETCH(QJsonObject, changes);
    QFETCH(bool, loading);
    QFETCH(QString, expected);

    auto dialog = dialogFor(kind);
    dialog->setRecord(Records::record(Records::Kind(kind), changes));
    if (loading)
        dialog->showLoadingState();
    // The user arrives after the record, as when the host reports a sign-in while the dialog is open.
    dialog->setCurrentUser(user, isAdministrator);

    QString visible;
    if (button(dialog.get(), "deleteButton")->isVisibleTo(dialog.get()))
        visible += QLatin1Char('D');
    if (button(dialog.get(), "manageAccessButton")->isVisibleTo(dialog.get()))
        visible += QLatin1Char('M');
    if (button(dialog.get(), "banAuthorButton")->isVisibleTo(dialog.get()))
        visible += QLatin1Char('B');
    QCOMPARE(visible, expected);
}

void DetailsDialogsTest::destructiveActionsAskFirst_data()
{
    QTest::addColumn<int>("kind");
    QTest::addColumn<bool>("encrypted");
    QTest::addColumn<QString>("buttonName");
    QTest::addColumn<bool>("yes");
    QTest::addColumn<QStringList>("box"); // title, text, informative text
    QTest::addColumn<QString>("signal");
    QTest::addColumn<QStringList>("arguments"); // empty when nothing may be emitted
    const auto row = [](const char *name, int kind, bool encrypted, const char *button, bool yes,
                        const QStringList &box, const char *signal, const QStringList &arguments) {
        QTest::newRow(name) << kind << encrypted << QString(button) << yes << box << QString(signal) << arguments;
    };
    const int script = Records::Script, environment = Records::Environment, weights = Records::Weights;
    const char *deleteSignal = SIGNAL(deleteRequested(QString));
    const char *banSignal = SIGNAL(banAuthorRequested(QString, QString));
    const QStringList id{"res-1"};
    const QStringList deleteScript{"Delete Script", "Are you sure you want to delete this script?",
                                   "The script will be deleted from the Online Resources."};
    const QStringList deleteEncrypted{"Delete ONNX Weights", "⚠️ WARNING: Deleting encrypted weights!",
                                      "This action will permanently revoke access for ALL users.\n\n"
                                      "• Users who downloaded these weights will no longer be able to use them\n"
                                      "• Built engine caches (.eecache) will stop working\n"
                                      "• Decryption keys are server-validated and will be rejected\n"
                                      "• This cannot be undone\n\nAre you sure you want to delete these weights?"};
    const QStringList banOther{"Ban Author", "Are you sure you want to ban frame_perfect?",
                               "This will prevent them from uploading any new content to Online Resources."};

    row("delete script, yes", script, false, "deleteButton", true, deleteScript, deleteSignal, id);
    row("delete script, no", script, false, "deleteButton", false, deleteScript, deleteSignal, {});
    row("delete environment, yes", environment, false, "deleteButton", true,
        {"Delete Environment", "Are you sure you want to delete this environment?",
         "The environment definition will be deleted from the Online Resources."},
        deleteSignal, id);
    row("delete weights, yes", weights, false, "deleteButton", true,
        {"Delete ONNX Weights", "Are you sure you want to delete these ONNX weights?",
         "The weights will be deleted from the Online Resources."},
        deleteSignal, id);
    row("delete encrypted weights, no", weights, true, "deleteButton", false, deleteEncrypted, deleteSignal, {});
    row("delete encrypted weights, yes", weights, true, "deleteButton", true, deleteEncrypted, deleteSignal, id);
    row("ban script author, yes", script, false, "banAuthorButton", true,
        {"Ban User", "Are you sure you want to ban frame_perfect?",
         "This will prevent them from uploading any new scripts or resources. Their existing uploads will remain but "
         "be hidden from public listings."},
        banSignal, {owner(), "Banned by administrator from script: Anti-Recoil Pro"});
    row("ban environment author, no", environment, false, "banAuthorButton", false, banOther, banSignal, {});
    row("ban weights author, yes", weights, false, "banAuthorButton", true, banOther, banSignal,
        {owner(), "Banned via admin action"});
}

void DetailsDialogsTest::destructiveActionsAskFirst()
{
    QFETCH(int, kind);
    QFETCH(bool, encrypted);
    QFETCH(QString, buttonName);
    QFETCH(bool, yes);
    QFETCH(QStringList, box);
    QFETCH(QString, signal);
    QFETCH(QStringList, arguments);

    auto dialog = dialogFor(kind);
    dialog->setCurrentUser(administrator(), true);
    dialog->setRecord(Records::record(Records::Kind(kind), {{QStringLiteral("is_encrypted"), encrypted}}));
    dialog->show();
    QVERIFY(QTest::qWaitForWindowExposed(dialog.get()));
    QSignalSpy requested(dialog.get(), signal.toLatin1().constData());

    ModalAnswerer answerer;
    answerer.pressButton(yes ? QMessageBox::Yes : QMessageBox::No);
    dialog->findChild<QPushButton *>(buttonName)->click();
    QVERIFY(answerer.answered());
    QCOMPARE((QStringList{answerer.seenTitle(), answerer.seenText(), answerer.seenInformativeText()}), box);
    QCOMPARE(answerer.seenButtons(), (QStringList{"Yes", "No"}));

    if (arguments.isEmpty()) {
        QCOMPARE(requested.count(), 0);
        QVERIFY(dialog->isVisible());
        return;
    }
    QCOMPARE(requested.count(), 1);
    QStringList emitted;
    for (const QVariant &argument : requested.first())
        emitted.append(argument.toString());
    QCOMPARE(emitted, arguments);
    QVERIFY(!dialog->isVisible());
}

void DetailsDialogsTest::copyingTheMentionTwiceRestoresTheLabelOnce()
{
    auto dialog = dialogFor(Records::Environment);
    dialog->setRecord(Records::record(Records::Environment));
    QPushButton *author = button(dialog.get(), "authorButton");

    author->click();
    author->click();
    QCOMPARE(QApplication::clipboard()->text(), QStringLiteral("<@%1>").arg(owner()));
    QCOMPARE(author->text(), QStringLiteral("Copied"));
    const QList<QTimer *> timers = dialog->findChildren<QTimer *>(QStringLiteral("copyFeedbackTimer"));
    QCOMPARE(timers.size(), 2);
    for (QTimer *timer : timers) {
        QVERIFY(timer->isActive());
        QCOMPARE(timer->interval(), 2000);
    }
    QTRY_COMPARE_WITH_TIMEOUT(author->text(), QStringLiteral("Author"), 5000);
    QTRY_VERIFY_WITH_TIMEOUT(dialog->findChildren<QTimer *>(QStringLiteral("copyFeedbackTimer")).isEmpty(), 5000);
    QCOMPARE(author->text(), QStringLiteral("Author"));
}

void DetailsDialogsTest::authorWithoutDiscordIdCopiesNothing()
{
    auto dialog = dialogFor(Records::Script);
    dialog->setRecord(Records::record(Records::Script, {{"author", "legacy"}}));
    QApplication::clipboard()->setText(QStringLiteral("untouched"));
    button(dialog.get(), "authorButton")->click();
    QCOMPARE(QApplication::clipboard()->text(), QStringLiteral("untouched"));
    QCOMPARE(button(dialog.get(), "authorButton")->text(), QStringLiteral("Author"));
}

void DetailsDialogsTest::paletteChangeRefetchesTheIcons()
{
    auto dialog = dialogFor(Records::Environment);
    dialog->setRecord(Records::record(Records::Environment));
    dialog->setLikeState(true, 4);
    const char *themed[] = {"authorButton", "installButton", "likeButton"};
    QList<qint64> before;
    for (const char *name : themed)
        before.append(button(dialog.get(), name)->icon().cacheKey());

    QPalette dark = dialog->palette();
    dark.setColor(QPalette::Window, QColor(0x20, 0x22, 0x25));
    dark.setColor(QPalette::Text, Qt::white);
    dialog->setPalette(dark);

    for (int index = 0; index < 3; ++index)
        QVERIFY2(button(dialog.get(), themed[index])->icon().cacheKey() != before.at(index), themed[index]);
    QCOMPARE(button(dialog.get(), "likeButton")->text(), QStringLiteral("Unlike"));
}

void DetailsDialogsTest::headerImageOrPlaceholder_data()
{
    QTest::addColumn<QJsonObject>("images");
    QTest::addColumn<QByteArray>("served");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("requestedPath");
    QTest::addColumn<bool>("picture");

    const QByteArray png = Records::pngBytes(Qt::red);
    const auto image = [this](const char *key, const char *path) {
        return QJsonObject{{key, QJsonObject{{"url", server.url(path).toString()}}}};
    };
    QJsonObject both = image("header", "/header.png");
    both.insert("thumbnail", image("thumbnail", "/thumb.png").value("thumbnail"));

    QTest::newRow("header preferred") << both << png << 200 << "/header.png" << true;
    QTest::newRow("thumbnail when no header") << image("thumbnail", "/thumb.png") << png << 200 << "/thumb.png" << true;
    QTest::newRow("server error") << image("header", "/header.png") << png << 404 << "/header.png" << false;
    QTest::newRow("undecodable bytes") << image("header", "/header.png") << QByteArray("not a picture") << 200
                                       << "/header.png" << false;
    QTest::newRow("no address") << QJsonObject() << png << 200 << "" << false;
}

void DetailsDialogsTest::headerImageOrPlaceholder()
{
    QFETCH(QJsonObject, images);
    QFETCH(QByteArray, served);
    QFETCH(int, status);
    QFETCH(QString, requestedPath);
    QFETCH(bool, picture);

    server.reset();
    server.setDefaultResponse(ScriptedResponse::bytes(served, "image/png", status));
    auto dialog = dialogFor(Records::Weights);
    dialog->showLoadingState();
    dialog->setRecord(Records::record(Records::Weights, {{"images", images}}));
    auto *header = dialog->findChild<QLabel *>(QStringLiteral("headerImageLabel"));

    if (!requestedPath.isEmpty()) {
        QVERIFY(server.waitForRequests(1));
        QCOMPARE(server.lastRequest().path(), requestedPath);
        QTRY_VERIFY(dialog->findChildren<QNetworkAccessManager *>().isEmpty());
    }
    QCOMPARE(server.requestCount(), requestedPath.isEmpty() ? 0 : 1);
    if (picture) {
        QVERIFY(!header->pixmap().isNull());
        QCOMPARE(header->pixmap().toImage().pixelColor(header->pixmap().width() / 2, header->pixmap().height() / 2),
                 QColor(Qt::red));
        QVERIFY(header->styleSheet().isEmpty());
    } else {
        QCOMPARE(header->text(), pictureGlyph);
        QVERIFY(header->pixmap().isNull());
    }
}

void DetailsDialogsTest::headerReplyForAReplacedRecordIsIgnored()
{
    server.reset();
    server.setRule(QStringLiteral("/first.png"),
                   ScriptedResponse::bytes(Records::pngBytes(Qt::blue), "image/png").withDelay(600));
    server.setRule(QStringLiteral("/second.png"), ScriptedResponse::bytes(Records::pngBytes(Qt::green), "image/png"));
    const auto withHeader = [this](const char *id, const char *path) {
        const QJsonObject header{{"url", server.url(path).toString()}};
        return Records::record(Records::Script, {{"id", id}, {"images", QJsonObject{{"header", header}}}});
    };

    auto dialog = dialogFor(Records::Script);
    dialog->setRecord(withHeader("first", "/first.png"));
    QVERIFY(server.waitForRequests(1));
    dialog->setRecord(withHeader("second", "/second.png"));
    // Both replies have arrived once both fetches have released their network managers.
    QTRY_VERIFY_WITH_TIMEOUT(dialog->findChildren<QNetworkAccessManager *>().isEmpty(), 5000);
    QCOMPARE(server.requestCount(), 2);

    const QPixmap shown = dialog->findChild<QLabel *>(QStringLiteral("headerImageLabel"))->pixmap();
    QVERIFY(!shown.isNull());
    QCOMPARE(shown.toImage().pixelColor(shown.width() / 2, shown.height() / 2), QColor(Qt::green));
}

QTEST_MAIN(DetailsDialogsTest)
#include "tst_details_dialogs.moc"
