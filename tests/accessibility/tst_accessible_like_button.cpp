#include "BrowserTestData.h"
#include "RecordingHttpServer.h"
#include "TemporaryHome.h"

#include "api/OnlineResourcesAPI.h"
#include "browser/OnlineResourcesWidget.h"

#include <PluginHost.h>
#include <SettingsManager.h>

#include <QAccessible>
#include <QPushButton>
#include <QSignalSpy>
#include <QTest>

#include <functional>
#include <memory>

using namespace Quorix;
using namespace Quorix::Testing;

namespace {

const QString likePath = QStringLiteral("/api/scripts/like/s1");

using Trigger = std::function<void(QPushButton *)>;

void accessibleAction(QPushButton *button, const QString &action)
{
    QAccessibleInterface *element = QAccessible::queryAccessibleInterface(button);
    QVERIFY(element->actionInterface());
    QVERIFY(element->actionInterface()->actionNames().contains(action));
    element->actionInterface()->doAction(action);
}

ScriptedResponse likeAnswer(bool liked, int count)
{
    return ScriptedResponse::json({{QStringLiteral("success"), true},
                                   {QStringLiteral("data"), QJsonObject{{QStringLiteral("liked"), liked},
                                                                        {QStringLiteral("like_count"), count}}}});
}

} // namespace

Q_DECLARE_METATYPE(Trigger)
Q_DECLARE_METATYPE(Quorix::Testing::ScriptedResponse)

class LikeButtonTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();

    void everyWayOfPressingSendsOneRequestAndShowsTheAnswer_data();
    void everyWayOfPressingSendsOneRequestAndShowsTheAnswer();

private:
    int likeRequests() const;

    std::unique_ptr<TemporaryHome> home;
    RecordingHttpServer server;
    PluginHost host;
};

void LikeButtonTest::initTestCase()
{
    home = std::make_unique<TemporaryHome>();
    QVERIFY(server.listen());
    qputenv("QUORIX_SERVER_URL", server.origin().toUtf8());
    host.signIn({QStringLiteral("100000000000000001"), QStringLiteral("ada"), QStringLiteral("Ada"), QString(),
                 QStringLiteral("token")});
}

void LikeButtonTest::init()
{
    server.reset();
    server.setDefaultResponse(ScriptedResponse::json({{QStringLiteral("success"), true}}));
    server.setRule(QStringLiteral("/api/scripts/"), ScriptedResponse::json(BrowserTestData::scriptPage(
                                                            {BrowserTestData::script(QStringLiteral("s1"))}, 1, 1, 1)));
    server.setRule(QStringLiteral("/api/scripts/liked"),
                   ScriptedResponse::json({{QStringLiteral("success"), true}, {QStringLiteral("data"), QJsonArray{}}}));
}

int LikeButtonTest::likeRequests() const
{
    int count = 0;
    const QList<RecordedRequest> requests = server.requests();
    for (const RecordedRequest &request : requests)
        count += request.path() == likePath ? 1 : 0;
    return count;
}

void LikeButtonTest::everyWayOfPressingSendsOneRequestAndShowsTheAnswer_data()
{
    QTest::addColumn<Trigger>("press");
    QTest::addColumn<ScriptedResponse>("answer");
    QTest::addColumn<bool>("liked");
    QTest::addColumn<QString>("shownCount");

    const QList<QPair<const char *, Trigger>> triggers{
            {"accessible toggle",
             [](QPushButton *button) {
                 accessibleAction(button, QAccessibleActionInterface::toggleAction());
             }},
            {"accessible press",
             [](QPushButton *button) {
                 accessibleAction(button, QAccessibleActionInterface::pressAction());
             }},
            {"click",
             [](QPushButton *button) {
                 QTest::mouseClick(button, Qt::LeftButton);
             }},
            {"space",
             [](QPushButton *button) {
                 QTest::keyClick(button, Qt::Key_Space);
             }},
    };
    // The counts differ from the card's own 3 + 1, so only the server's answer can put them there.
    for (const auto &[how, press] : triggers) {
        QTest::addRow("%s, liked", how) << press << likeAnswer(true, 9) << true << "9";
        QTest::addRow("%s, server says unliked", how) << press << likeAnswer(false, 2) << false << "2";
        QTest::addRow("%s, refused", how)
                << press
                << ScriptedResponse::json(
                           {{QStringLiteral("success"), false}, {QStringLiteral("error"), QStringLiteral("Slow down")}})
                << false << "3";
    }
}

void LikeButtonTest::everyWayOfPressingSendsOneRequestAndShowsTheAnswer()
{
    QFETCH(Trigger, press);
    QFETCH(ScriptedResponse, answer);
    QFETCH(bool, liked);
    QFETCH(QString, shownCount);
    server.setRule(likePath, answer);

    OnlineResourcesWidget page(nullptr);
    page.setPluginHost(&host);
    page.setSettingsManager(SettingsManager::instance());
    page.show();
    QVERIFY(QTest::qWaitForWindowExposed(&page));
    QPushButton *like = nullptr;
    QTRY_VERIFY((like = page.findChild<QPushButton *>(QStringLiteral("scriptCardLikeButton"))));
    QTRY_VERIFY(like->isEnabled());
    QCOMPARE(like->text(), QStringLiteral("3"));

    QSignalSpy toggled(page.api(), &OnlineResourcesAPI::scriptLikeToggled);
    QSignalSpy failed(page.api(), &OnlineResourcesAPI::errorOccurred);
    press(like);
    // Until the server answers, the button keeps showing its last answer.
    QVERIFY(!like->isChecked());
    const auto answers = [&] {
        qsizetype refusals = 0;
        for (const QList<QVariant> &error : std::as_const(failed))
            refusals += error.first().toString().startsWith(QLatin1String("Like toggle failed")) ? 1 : 0;
        return toggled.size() + refusals;
    };
    QTRY_COMPARE_WITH_TIMEOUT(answers(), 1, 5000);

    QCOMPARE(likeRequests(), 1);
    QCOMPARE(like->isChecked(), liked);
    QCOMPARE(like->text(), shownCount);
    QAccessibleInterface *element = QAccessible::queryAccessibleInterface(like);
    QCOMPARE(bool(element->state().checked), liked);
    QCOMPARE(element->text(QAccessible::Name), liked ? QStringLiteral("Unlike") : QStringLiteral("Like"));
    QCOMPARE(element->text(QAccessible::Description), QStringLiteral("%1 likes").arg(shownCount));
}

QTEST_MAIN(LikeButtonTest)
#include "tst_accessible_like_button.moc"
