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
    void likeStateUpdatesButtonAndCounters();
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

    const auto counts = [](int downloads, int views, int likes) {
        return QJsonObject{{QStringLiteral("downloads"), downloads},
                           {QStringLiteral("views"), views},
                           {QStringLiteral("likes"), likes}};
    };
    QTest::newRow("zero downloads hidden, views and likes abbreviated")
            << int(Records::Script) << counts(0, 1500, 2500000) << "statsLabel"
            << "text"
            << "1.5K views • 2.5M likes";
    QTest::newRow("environment counts installs") << int(Records::Environment) << counts(1200, 0, 7) << "statsLabel"
                                                 << "text"
                                                 << "1.2K installs • 7 likes";
    QTest::newRow("nothing counted") << int(Records::Weights) << counts(0, 0, 0) << "statsLabel"
                                     << "text"
                                     << "";

    const QJsonObject date{{QStringLiteral("created"), QStringLiteral("2024-03-05T10:00:00Z")}};
    QTest::newRow("version as the string 2")
            << int(Records::Script) << QJsonObject{{QStringLiteral("version"), QStringLiteral("2")}}
            << "versionDateLabel"
            << "text"
            << "v2.00 • Mar 5, 2024";
    QTest::newRow("version 0 shows only the date")
            << int(Records::Script) << QJsonObject{{QStringLiteral("version"), 0}} << "versionDateLabel"
            << "text"
            << "Mar 5, 2024";
    QTest::newRow("version absent shows only the date")
            << int(Records::Weights) << QJsonObject{{QStringLiteral("version"), QJsonValue::Null}} << "versionDateLabel"
            << "text"
            << "Mar 5, 2024";
    QTest::newRow("invalid date shows only the version")
            << int(Records::Script)
            << QJsonObject{{QStringLiteral("version"), 1.5}, {QStringLiteral("created"), QStringLiteral("yesterday")}}
            << "versionDateLabel"
            << "text"
            << "v1.50 • ";
    QTest::newRow("environments show no version")
            << int(Records::Environment) << QJsonObject{{QStringLiteral("version"), 3}} << "versionDateLabel"
            << "text"
            << "Mar 5, 2024";

    QTest::newRow("type py") << int(Records::Script) << QJsonObject{{QStringLiteral("type"), QStringLiteral("py")}}
                             << "typeBadge"
                             << "text"
                             << "PYTHON";
    QTest::newRow("environment badge after loading") << int(Records::Environment) << QJsonObject() << "typeBadge"
                                                     << "text"
                                                     << "QENV";
    QTest::newRow("type gpc3") << int(Records::Script) << QJsonObject{{QStringLiteral("type"), QStringLiteral("gpc3")}}
                               << "typeBadge"
                               << "text"
                               << "GPC3";

    const auto size = [](qint64 bytes) {
        return QJsonObject{{QStringLiteral("size"), bytes}};
    };
    QTest::newRow("size 1572864") << int(Records::Weights) << size(1572864) << "sizeBadge"
                                  << "text"
                                  << "1.5 MB";
    QTest::newRow("size 1023") << int(Records::Weights) << size(1023) << "sizeBadge"
                               << "text"
                               << "1023 B";
    QTest::newRow("size 1024") << int(Records::Weights) << size(1024) << "sizeBadge"
                               << "text"
                               << "1.0 KB";
    QTest::newRow("size 0 hidden") << int(Records::Weights) << size(0) << "sizeBadge"
                                   << "visible"
                                   << "no";

    const QJsonObject encryptedAsInteger{{QStringLiteral("is_encrypted"), 1}};
    QTest::newRow("is_encrypted 1 badge") << int(Records::Weights) << encryptedAsInteger << "typeBadge"
                                          << "text"
                                          << "ENNX";
    QTest::newRow("is_encrypted 1 warning") << int(Records::Weights) << encryptedAsInteger << "encryptedLabel"
                                            << "visible"
                                            << "yes";
    QTest::newRow("is_encrypted false") << int(Records::Weights) << QJsonObject{{QStringLiteral("is_encrypted"), false}}
                                        << "typeBadge"
                                        << "text"
                                        << "ONNX";

    QTest::newRow("no qenv_metadata: python") << int(Records::Environment) << QJsonObject() << "pythonBadge"
                                              << "text"
                                              << "Python 3.x";
    QTest::newRow("no qenv_metadata: package count")
            << int(Records::Environment) << QJsonObject() << "packageCountBadge"
            << "text"
            << "0 packages";
    QTest::newRow("no qenv_metadata: packages box") << int(Records::Environment) << QJsonObject() << "packagesBox"
                                                    << "visible"
                                                    << "no";
    QTest::newRow("no qenv_metadata: cuda") << int(Records::Environment) << QJsonObject() << "cudaLabel"
                                            << "visible"
                                            << "no";
    const QJsonObject metadata{{QStringLiteral("qenv_metadata"),
                                QJsonObject{{QStringLiteral("python"), QStringLiteral("3.11")},
                                            {QStringLiteral("package_count"), 2},
                                            {QStringLiteral("packages"),
                                             QJsonArray{QStringLiteral("numpy==1.26.4"), QStringLiteral("torch")}},
                                            {QStringLiteral("cuda"), QStringLiteral("12.1")}}}};
    QTest::newRow("packages listed") << int(Records::Environment) << metadata << "packagesList"
                                     << "text"
                                     << "numpy==1.26.4,torch";
    QTest::newRow("cuda line") << int(Records::Environment) << metadata << "cudaLabel"
                               << "text"
                               << "\U0001F3AE CUDA: 12.1";

    QTest::newRow("private badge") << int(Records::Script)
                                   << QJsonObject{{QStringLiteral("visibility_type"), QStringLiteral("private")}}
                                   << "statusBadge"
                                   << "text"
                                   << "PRIVATE";
    QTest::newRow("purchasable badge") << int(
            Records::Weights) << QJsonObject{{QStringLiteral("visibility_type"), QStringLiteral("purchasable")}}
                                       << "statusBadge"
                                       << "text"
                                       << "LOCKED";
    QTest::newRow("public has no badge") << int(Records::Script) << QJsonObject() << "statusBadge"
                                         << "visible"
                                         << "no";
    QTest::newRow("locked script tool tip")
            << int(Records::Script)
            << QJsonObject{{QStringLiteral("visibility_type"), QStringLiteral("purchasable")},
                           {QStringLiteral("can_download"), false}}
            << "downloadButton"
            << "toolTip"
            << "This script is locked. Contact the author for access.";
    QTest::newRow("private environment cannot be installed")
            << int(Records::Environment)
            << QJsonObject{{QStringLiteral("visibility_type"), QStringLiteral("private")},
                           {QStringLiteral("can_download"), false}}
            << "installButton"
            << "enabled"
            << "no";
    QTest::newRow("private weights tool tip")
            << int(Records::Weights)
            << QJsonObject{{QStringLiteral("visibility_type"), QStringLiteral("private")},
                           {QStringLiteral("can_download"), false}}
            << "downloadButton"
            << "toolTip"
            << "These weights are private. You need authorization from the author.";
    QTest::newRow("can_download absent") << int(Records::Script) << QJsonObject() << "downloadButton"
                                         << "enabled"
                                         << "yes";

    QTest::newRow("empty description") << int(Records::Script)
                                       << QJsonObject{{QStringLiteral("description"), QString()}} << "descriptionView"
                                       << "text"
                                       << "No description provided";
    QTest::newRow("description lines and markup")
            << int(Records::Environment)
            << QJsonObject{{QStringLiteral("description"),
                            QStringLiteral("<b>Fast</b>\nsecond<img src=\"http://127.0.0.1:1/x.png\"> line")}}
            << "descriptionView"
            << "text"
            << "Fast\nsecond line";
    QTest::newRow("no instructions") << int(Records::Script) << QJsonObject() << "instructionsBox"
                                     << "visible"
                                     << "no";
    QTest::newRow("instructions") << int(Records::Script)
                                  << QJsonObject{{QStringLiteral("instructions"), QStringLiteral("Hold L2\nthen R2")}}
                                  << "instructionsBox"
                                  << "visible"
                                  << "yes";
    QTest::newRow("tags") << int(Records::Script) << QJsonObject() << "tagsLabel"
                          << "text"
                          << "#fps  #aim";
    QTest::newRow("own disclaimer") << int(Records::Script)
                                    << QJsonObject{{QStringLiteral("disclaimer"), QStringLiteral("Mine.")}}
                                    << "disclaimerLabel"
                                    << "text"
                                    << "Mine.";
    QTest::newRow("author as plain string")
            << int(Records::Script) << QJsonObject{{QStringLiteral("author"), QStringLiteral("legacy")}}
            << "authorLabel"
            << "text"
            << "by legacy";
    QTest::newRow("author by name") << int(Records::Weights)
                                    << QJsonObject{{QStringLiteral("author"),
                                                    QJsonObject{{QStringLiteral("name"), QStringLiteral("Named")}}}}
                                    << "authorLabel"
                                    << "text"
                                    << "by Named";
    QTest::newRow("script title") << int(Records::Script) << QJsonObject() << "window"
                                  << "text"
                                  << "Script Details - Anti-Recoil Pro";
    QTest::newRow("environment title") << int(Records::Environment) << QJsonObject() << "window"
                                       << "text"
                                       << "Environment Details - Anti-Recoil Pro";
    QTest::newRow("weights title") << int(Records::Weights) << QJsonObject() << "window"
                                   << "text"
                                   << "ONNX Weights - Anti-Recoil Pro";
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
    QTest::addColumn<QString>("expected"); // visible buttons: Delete, Manage access, Ban

    const QJsonObject privateRecord{{QStringLiteral("visibility_type"), QStringLiteral("private")}};
    const QJsonObject lockedRecord{{QStringLiteral("visibility_type"), QStringLiteral("purchasable")}};
    const QJsonObject olderPrivateForm{{QStringLiteral("visibility_type"), QJsonValue::Null},
                                       {QStringLiteral("is_public"), false}};
    const QJsonObject adminOwned{
            {QStringLiteral("visibility_type"), QStringLiteral("private")},
            {QStringLiteral("author"), QJsonObject{{QStringLiteral("username"), QStringLiteral("mod")},
                                                   {QStringLiteral("discordId"), administrator()}}}};
    const QJsonObject noDiscordId{
            {QStringLiteral("author"), QJsonObject{{QStringLiteral("username"), QStringLiteral("ghost")}}}};
    const QJsonObject plainAuthor{{QStringLiteral("author"), QStringLiteral("legacy")}};
    const QString stranger = QString::fromLatin1(Records::strangerDiscordId);

    QTest::newRow("owner, public") << int(Records::Script) << owner() << false << QJsonObject() << false << "D";
    QTest::newRow("owner, private") << int(Records::Script) << owner() << false << privateRecord << false << "DM";
    QTest::newRow("owner, purchasable") << int(Records::Environment) << owner() << false << lockedRecord << false
                                        << "DM";
    QTest::newRow("owner, is_public false")
            << int(Records::Weights) << owner() << false << olderPrivateForm << false << "DM";
    QTest::newRow("owner, while loading") << int(Records::Script) << owner() << false << privateRecord << true << "";
    QTest::newRow("administrator, public")
            << int(Records::Script) << administrator() << true << QJsonObject() << false << "DB";
    QTest::newRow("administrator, private")
            << int(Records::Weights) << administrator() << true << privateRecord << false << "DMB";
    QTest::newRow("administrator viewing their own")
            << int(Records::Script) << administrator() << true << adminOwned << false << "DM";
    QTest::newRow("administrator, author without Discord ID")
            << int(Records::Environment) << administrator() << true << noDiscordId << false << "D";
    QTest::newRow("administrator, plain-string author")
            << int(Records::Script) << administrator() << true << plainAuthor << false << "D";
    QTest::newRow("administrator, while loading")
            << int(Records::Weights) << administrator() << true << privateRecord << true << "";
    QTest::newRow("stranger, public") << int(Records::Script) << stranger << false << QJsonObject() << false << "";
    QTest::newRow("stranger, private") << int(Records::Environment) << stranger << false << privateRecord << false
                                       << "";
    QTest::newRow("stranger, author without Discord ID")
            << int(Records::Script) << stranger << false << noDiscordId << false << "";
    QTest::newRow("signed out, private") << int(Records::Script) << QString() << false << privateRecord << false << "";
    QTest::newRow("signed out administrator flag")
            << int(Records::Script) << QString() << true << privateRecord << false << "";
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

void DetailsDialogsTest::likeStateUpdatesButtonAndCounters()
{
    auto dialog = dialogFor(Records::Script);
    dialog->setRecord(Records::record(Records::Script));
    QCOMPARE(button(dialog.get(), "likeButton")->text(), QStringLiteral("Like"));

    dialog->setLikeState(true, 1200);
    QCOMPARE(button(dialog.get(), "likeButton")->text(), QStringLiteral("Unlike"));
    QCOMPARE(shown(dialog.get(), QStringLiteral("statsLabel"), QStringLiteral("text")),
             QStringLiteral("12 downloads • 40 views • 1.2K likes"));

    dialog->setLikeState(false, 0);
    QCOMPARE(button(dialog.get(), "likeButton")->text(), QStringLiteral("Like"));
    QCOMPARE(shown(dialog.get(), QStringLiteral("statsLabel"), QStringLiteral("text")),
             QStringLiteral("12 downloads • 40 views"));
}

void DetailsDialogsTest::destructiveActionsAskFirst_data()
{
    QTest::addColumn<int>("kind");
    QTest::addColumn<bool>("encrypted");
    QTest::addColumn<QString>("buttonName");
    QTest::addColumn<bool>("yes");
    QTest::addColumn<QString>("title");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("informative");
    QTest::addColumn<QString>("signal");
    QTest::addColumn<QStringList>("arguments");

    const QString deleteSignal = QStringLiteral(SIGNAL(deleteRequested(QString)));
    const QString banSignal = QStringLiteral(SIGNAL(banAuthorRequested(QString, QString)));
    const QStringList id{QStringLiteral("res-1")};
    const QString encryptedWarning
            = QStringLiteral("This action will permanently revoke access for ALL users.\n\n"
                             "• Users who downloaded these weights will no longer be able to use them\n"
                             "• Built engine caches (.eecache) will stop working\n"
                             "• Decryption keys are server-validated and will be rejected\n"
                             "• This cannot be undone\n\nAre you sure you want to delete these weights?");

    QTest::newRow("delete script, yes") << int(Records::Script) << false << "deleteButton" << true << "Delete Script"
                                        << "Are you sure you want to delete this script?"
                                        << "The script will be deleted from the Online Resources." << deleteSignal
                                        << id;
    QTest::newRow("delete script, no") << int(Records::Script) << false << "deleteButton" << false << "Delete Script"
                                       << "Are you sure you want to delete this script?"
                                       << "The script will be deleted from the Online Resources." << deleteSignal
                                       << QStringList();
    QTest::newRow("delete environment, yes")
            << int(Records::Environment) << false << "deleteButton" << true << "Delete Environment"
            << "Are you sure you want to delete this environment?"
            << "The environment definition will be deleted from the Online Resources." << deleteSignal << id;
    QTest::newRow("delete weights, yes") << int(Records::Weights) << false << "deleteButton" << true
                                         << "Delete ONNX Weights"
                                         << "Are you sure you want to delete these ONNX weights?"
                                         << "The weights will be deleted from the Online Resources." << deleteSignal
                                         << id;
    QTest::newRow("delete encrypted weights, no")
            << int(Records::Weights) << true << "deleteButton" << false << "Delete ONNX Weights"
            << "⚠️ WARNING: Deleting encrypted weights!" << encryptedWarning << deleteSignal << QStringList();
    QTest::newRow("delete encrypted weights, yes")
            << int(Records::Weights) << true << "deleteButton" << true << "Delete ONNX Weights"
            << "⚠️ WARNING: Deleting encrypted weights!" << encryptedWarning << deleteSignal << id;
    QTest::newRow("ban script author, yes")
            << int(Records::Script) << false << "banAuthorButton" << true << "Ban User"
            << "Are you sure you want to ban frame_perfect?"
            << "This will prevent them from uploading any new scripts or resources. Their existing uploads will "
               "remain but be hidden from public listings."
            << banSignal
            << QStringList{owner(), QStringLiteral("Banned by administrator from script: Anti-Recoil Pro")};
    QTest::newRow("ban environment author, no")
            << int(Records::Environment) << false << "banAuthorButton" << false << "Ban Author"
            << "Are you sure you want to ban frame_perfect?"
            << "This will prevent them from uploading any new content to Online Resources." << banSignal
            << QStringList();
    QTest::newRow("ban weights author, yes")
            << int(Records::Weights) << false << "banAuthorButton" << true << "Ban Author"
            << "Are you sure you want to ban frame_perfect?"
            << "This will prevent them from uploading any new content to Online Resources." << banSignal
            << QStringList{owner(), QStringLiteral("Banned via admin action")};
}

void DetailsDialogsTest::destructiveActionsAskFirst()
{
    QFETCH(int, kind);
    QFETCH(bool, encrypted);
    QFETCH(QString, buttonName);
    QFETCH(bool, yes);
    QFETCH(QString, title);
    QFETCH(QString, text);
    QFETCH(QString, informative);
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
    QCOMPARE(answerer.seenTitle(), title);
    QCOMPARE(answerer.seenText(), text);
    QCOMPARE(answerer.seenInformativeText(), informative);
    QCOMPARE(answerer.seenButtons(), (QStringList{QStringLiteral("Yes"), QStringLiteral("No")}));

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
    dialog->setRecord(Records::record(Records::Script, {{QStringLiteral("author"), QStringLiteral("legacy")}}));
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
    const auto image = [this](const QString &key, const QString &path) {
        return QJsonObject{{key, QJsonObject{{QStringLiteral("url"), server.url(path).toString()}}}};
    };
    QJsonObject both = image(QStringLiteral("header"), QStringLiteral("/header.png"));
    both.insert(QStringLiteral("thumbnail"),
                QJsonObject{{QStringLiteral("url"), server.url(QStringLiteral("/thumb.png")).toString()}});

    QTest::newRow("header preferred") << both << png << 200 << "/header.png" << true;
    QTest::newRow("thumbnail when no header")
            << image(QStringLiteral("thumbnail"), QStringLiteral("/thumb.png")) << png << 200 << "/thumb.png" << true;
    QTest::newRow("server error") << image(QStringLiteral("header"), QStringLiteral("/header.png")) << png << 404
                                  << "/header.png" << false;
    QTest::newRow("undecodable bytes") << image(QStringLiteral("header"), QStringLiteral("/header.png"))
                                       << QByteArray("not a picture") << 200 << "/header.png" << false;
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
    dialog->setRecord(Records::record(Records::Weights, {{QStringLiteral("images"), images}}));
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
    const auto withHeader = [this](const QString &id, const QString &path) {
        return Records::record(Records::Script,
                               {{QStringLiteral("id"), id},
                                {QStringLiteral("images"),
                                 QJsonObject{{QStringLiteral("header"),
                                              QJsonObject{{QStringLiteral("url"), server.url(path).toString()}}}}}});
    };

    auto dialog = dialogFor(Records::Script);
    dialog->setRecord(withHeader(QStringLiteral("first"), QStringLiteral("/first.png")));
    QVERIFY(server.waitForRequests(1));
    dialog->setRecord(withHeader(QStringLiteral("second"), QStringLiteral("/second.png")));
    // Both replies have arrived once both fetches have released their network managers.
    QTRY_VERIFY_WITH_TIMEOUT(dialog->findChildren<QNetworkAccessManager *>().isEmpty(), 5000);
    QCOMPARE(server.requestCount(), 2);

    const QPixmap shown = dialog->findChild<QLabel *>(QStringLiteral("headerImageLabel"))->pixmap();
    QVERIFY(!shown.isNull());
    QCOMPARE(shown.toImage().pixelColor(shown.width() / 2, shown.height() / 2), QColor(Qt::green));
}

QTEST_MAIN(DetailsDialogsTest)
#include "tst_details_dialogs.moc"
