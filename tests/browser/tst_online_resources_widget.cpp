#include "BrowserTestData.h"
#include "ModalAnswerer.h"
#include "RecordingHttpServer.h"
#include "TemporaryHome.h"

#include "browser/OnlineResourcesWidget.h"
#include "browser/OnnxCard.h"
#include "browser/QenvCard.h"
#include "browser/ScriptCard.h"

#include <PluginHost.h>
#include <SettingsManager.h>

#include "api/OnlineResourcesAPI.h"

#include <QComboBox>
#include <QLabel>
#include <QLayout>
#include <QLineEdit>
#include <QPushButton>
#include <QScrollArea>
#include <QScrollBar>
#include <QSet>
#include <QTest>
#include <QToolButton>

#include <algorithm>
#include <memory>

using namespace Quorix;
using namespace Quorix::Testing;

namespace {

const QString listPath = QStringLiteral("/api/scripts/");
const QString environmentListPath = QStringLiteral("/api/scripts/qenv/list");
const QString weightsListPath = QStringLiteral("/api/scripts/onnx/list");
const QString likedPath = QStringLiteral("/api/scripts/liked");
const QString claimPath = QStringLiteral("/api/scripts/claim-authorizations");

UserIdentity user(const QString &discordId)
{
    return {discordId, QStringLiteral("user") + discordId.right(2), QStringLiteral("User"), QStringLiteral("avatar"),
            QStringLiteral("token-") + discordId};
}

ScriptedResponse silence()
{
    ScriptedResponse response;
    response.ending = ScriptedResponse::Ending::Stall;
    response.cutAfter = 0;
    return response;
}

// Cards of one class in reading order (rows top to bottom, then left to right), as the user sees them.
template<typename Card>
QList<Card *> cardsInGrid(QWidget *page)
{
    QList<Card *> cards = page->findChildren<Card *>();
    // New cards are shown, and so laid out, by queued events; deliver them before reading positions.
    QCoreApplication::sendPostedEvents();
    if (!cards.isEmpty())
        cards.first()->parentWidget()->layout()->activate();
    std::sort(cards.begin(), cards.end(),
              [](Card *a, Card *b) { return a->y() != b->y() ? a->y() < b->y() : a->x() < b->x(); });
    return cards;
}

QStringList scriptIds(QWidget *page)
{
    QStringList ids;
    for (ScriptCard *card : cardsInGrid<ScriptCard>(page))
        ids.append(card->scriptId());
    return ids;
}

QString gridMessage(QWidget *page)
{
    const QLabel *label = page->findChild<QLabel *>(QStringLiteral("gridMessage"));
    return label ? label->text() : QString();
}

} // namespace

class OnlineResourcesWidgetTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();

    void columnCountFollowsViewportWidth();
    void scrollingLoadsFollowingPagesInServerOrderOnlyOnce();
    void firstPageMessagesInTheGrid_data();
    void firstPageMessagesInTheGrid();
    void lateScriptListIsIgnoredAfterKindSwitch_data();
    void lateScriptListIsIgnoredAfterKindSwitch();
    void kindSwitchAbortsWeightsListInFlight();
    void environmentAndWeightsPagesFillTheGrid();
    void outOfRangeFilterAndSortFallBackToDefaults();
    void signingInAsAnotherUserResetsLikesAndReloads();
    void signingOutResetsLikesAndDisablesLikeButtons();
    void likeReplyUpdatesTheCard_data();
    void likeReplyUpdatesTheCard();
    void silentServerEndsLoadingAfterFiveSeconds();
    void publishingFollowsDeveloperModeAndLogin();
    void administratorIsAnExactDiscordIdMatch();
    void errorsReachTheUser();
    void successfulBanIsAnnouncedAndReloads();
    void showingThePageAgainKeepsItsKind_data();
    void showingThePageAgainKeepsItsKind();
    void typingASearchRestartsAtPageOne();
    void transportErrorsReachTheGridAndMaySignOut_data();
    void transportErrorsReachTheGridAndMaySignOut();

private:
    std::unique_ptr<OnlineResourcesWidget> makePage(int width = 800, int height = 600);
    QList<RecordedRequest> requestsTo(const QString &path) const;
    bool waitForRequestsTo(const QString &path, int count, int timeoutMs = 5000) const;
    void setScriptPage(const QJsonArray &items, int currentPage, int totalPages, int total);

    std::unique_ptr<TemporaryHome> home;
    RecordingHttpServer server;
    PluginHost host;
};

void OnlineResourcesWidgetTest::initTestCase()
{
    home = std::make_unique<TemporaryHome>();
    QVERIFY(server.listen());
    qputenv("QUORIX_ADMIN_IDS", "100000000000000009, 200000000000000009");
    // The server address is read once per process, before the first API client exists.
    qputenv("QUORIX_SERVER_URL", server.origin().toUtf8());
}

void OnlineResourcesWidgetTest::init()
{
    server.reset();
    server.setDefaultResponse(ScriptedResponse::json({{QStringLiteral("success"), true}}));
    host.signOut();
    SettingsManager::instance()->setValue(QStringLiteral("developerMode"), false);
}

std::unique_ptr<OnlineResourcesWidget> OnlineResourcesWidgetTest::makePage(int width, int height)
{
    auto page = std::make_unique<OnlineResourcesWidget>(nullptr);
    page->setPluginHost(&host);
    page->setSettingsManager(SettingsManager::instance());
    page->resize(width, height);
    page->show();
    return page;
}

QList<RecordedRequest> OnlineResourcesWidgetTest::requestsTo(const QString &path) const
{
    QList<RecordedRequest> matching;
    const QList<RecordedRequest> all = server.requests();
    for (const RecordedRequest &request : all) {
        if (request.path() == path)
            matching.append(request);
    }
    return matching;
}

bool OnlineResourcesWidgetTest::waitForRequestsTo(const QString &path, int count, int timeoutMs) const
{
    QDeadlineTimer deadline(timeoutMs);
    while (requestsTo(path).size() < count && !deadline.hasExpired())
        QTest::qWait(10);
    return requestsTo(path).size() >= count;
}

void OnlineResourcesWidgetTest::setScriptPage(const QJsonArray &items, int currentPage, int totalPages, int total)
{
    server.setRule(listPath,
                   ScriptedResponse::json(BrowserTestData::scriptPage(items, currentPage, totalPages, total)));
}

void OnlineResourcesWidgetTest::columnCountFollowsViewportWidth()
{
    setScriptPage(BrowserTestData::scripts(QStringLiteral("s"), 1, 12), 1, 1, 12);
    auto page = makePage(800, 3000);
    QTRY_COMPARE(scriptIds(page.get()).size(), 12);
    auto *viewport = page->findChild<QScrollArea *>()->viewport();

    const auto columns = [&] {
        QSet<int> lefts;
        for (ScriptCard *card : cardsInGrid<ScriptCard>(page.get()))
            lefts.insert(card->x());
        return int(lefts.size());
    };
    const auto resizeViewport = [&](int viewportWidth) {
        page->resize(page->width() + viewportWidth - viewport->width(), page->height());
    };
    // The grid keeps 20 pixels of the viewport for its own margins. Each width changes the count, so waiting for
    // the expected count cannot pass before the reflow.
    resizeViewport(294 + 20);
    QTRY_COMPARE(columns(), 1);
    resizeViewport(590 + 20);
    QTRY_COMPARE(columns(), 2);
    resizeViewport(574 + 20);
    QTRY_COMPARE(columns(), 1);
    resizeViewport(575 + 20);
    QTRY_COMPARE(columns(), 2);
    resizeViewport(4000);
    QTRY_COMPARE(columns(), 6);
}

void OnlineResourcesWidgetTest::scrollingLoadsFollowingPagesInServerOrderOnlyOnce()
{
    setScriptPage(BrowserTestData::scripts(QStringLiteral("a"), 1, 24), 1, 3, 60);
    auto page = makePage();
    QTRY_COMPARE(scriptIds(page.get()).size(), 24);
    QScrollBar *bar = page->findChild<QScrollArea *>()->verticalScrollBar();
    QTRY_VERIFY(bar->maximum() > 1000);

    server.setRule(listPath,
                   ScriptedResponse::json(
                           BrowserTestData::scriptPage(BrowserTestData::scripts(QStringLiteral("b"), 1, 24), 2, 3, 60))
                           .withDelay(500));
    bar->setValue(bar->maximum() - 50);
    QVERIFY(waitForRequestsTo(listPath, 2));
    // Still in flight: reaching the bottom again must not ask for the same page twice.
    bar->setValue(0);
    bar->setValue(bar->maximum());
    QTest::qWait(100);
    QCOMPARE(requestsTo(listPath).size(), 2);
    const QUrlQuery second = requestsTo(listPath).at(1).query();
    QCOMPARE(second.queryItemValue(QStringLiteral("page")), QStringLiteral("2"));
    QCOMPARE(second.queryItemValue(QStringLiteral("limit")), QStringLiteral("24"));
    QCOMPARE(second.queryItemValue(QStringLiteral("sort")), QStringLiteral("popular"));

    QTRY_COMPARE(scriptIds(page.get()).size(), 48);
    QStringList expected;
    for (int index = 1; index <= 24; ++index)
        expected.append(QStringLiteral("a%1").arg(index));
    for (int index = 1; index <= 24; ++index)
        expected.append(QStringLiteral("b%1").arg(index));
    QCOMPARE(scriptIds(page.get()), expected);

    setScriptPage(BrowserTestData::scripts(QStringLiteral("c"), 1, 12), 3, 3, 60);
    QTRY_VERIFY(bar->maximum() > 5000);
    bar->setValue(bar->maximum());
    QTRY_COMPARE(scriptIds(page.get()).size(), 60);
    QCOMPARE(requestsTo(listPath).last().query().queryItemValue(QStringLiteral("page")), QStringLiteral("3"));

    // The last page has arrived: the bottom of the list asks for nothing more.
    bar->setValue(0);
    QTRY_VERIFY(bar->maximum() > 10000);
    bar->setValue(bar->maximum());
    QTest::qWait(200);
    QCOMPARE(requestsTo(listPath).size(), 3);
}

void OnlineResourcesWidgetTest::firstPageMessagesInTheGrid_data()
{
    QTest::addColumn<QJsonObject>("reply");
    QTest::addColumn<QString>("message");
    QTest::newRow("empty catalogue") << BrowserTestData::scriptPage({}, 1, 0, 0)
                                     << QStringLiteral("No scripts available - Be the first to upload!");
    QTest::newRow("refusal without message")
            << QJsonObject{{QStringLiteral("success"), false}, {QStringLiteral("error"), QString()}}
            << QStringLiteral("Cannot connect to server");
    QTest::newRow("refusal with message")
            << QJsonObject{{QStringLiteral("success"), false}, {QStringLiteral("error"), QStringLiteral("Banned")}}
            << QStringLiteral("Banned");
}

void OnlineResourcesWidgetTest::firstPageMessagesInTheGrid()
{
    QFETCH(QJsonObject, reply);
    QFETCH(QString, message);
    server.setRule(listPath, ScriptedResponse::json(reply));
    auto page = makePage();
    QTRY_COMPARE(gridMessage(page.get()), message);
    QVERIFY(page->findChild<QToolButton *>(QStringLiteral("refreshButton"))->isEnabled());
    QVERIFY(page->findChildren<ScriptCard *>().isEmpty());
}

void OnlineResourcesWidgetTest::lateScriptListIsIgnoredAfterKindSwitch_data()
{
    QTest::addColumn<int>("filterIndex");
    QTest::newRow("QENV") << 3;
    QTest::newRow("ONNX") << 4;
}

void OnlineResourcesWidgetTest::lateScriptListIsIgnoredAfterKindSwitch()
{
    QFETCH(int, filterIndex);
    server.setRule(listPath,
                   ScriptedResponse::json(
                           BrowserTestData::scriptPage(BrowserTestData::scripts(QStringLiteral("s"), 1, 3), 1, 1, 3))
                           .withDelay(400));
    server.setRule(environmentListPath, ScriptedResponse::json(BrowserTestData::environmentPage(
                                                {BrowserTestData::environment(QStringLiteral("e1"))}, 1, 1)));
    server.setRule(weightsListPath, ScriptedResponse::json(BrowserTestData::weightsPage(
                                            {BrowserTestData::weights(QStringLiteral("w1"))}, 1, 1, 1)));
    auto page = makePage();
    QVERIFY(waitForRequestsTo(listPath, 1));
    page->findChild<QComboBox *>(QStringLiteral("typeFilter"))->setCurrentIndex(filterIndex);

    QTest::qWait(800);
    QCOMPARE(requestsTo(listPath).size(), 1);
    QVERIFY(page->findChildren<ScriptCard *>().isEmpty());
    QCOMPARE(page->findChildren<QenvCard *>().size() + page->findChildren<OnnxCard *>().size(), 1);
}

void OnlineResourcesWidgetTest::kindSwitchAbortsWeightsListInFlight()
{
    setScriptPage({}, 1, 0, 0);
    auto page = makePage();
    QVERIFY(waitForRequestsTo(listPath, 1));
    auto *filter = page->findChild<QComboBox *>(QStringLiteral("typeFilter"));

    // Requests are answered in arrival order: the first weights list is slow and stale, the second one fresh.
    server.enqueue(ScriptedResponse::json(
                           BrowserTestData::weightsPage({BrowserTestData::weights(QStringLiteral("stale"))}, 1, 1, 1))
                           .withDelay(400));
    server.enqueue(ScriptedResponse::json(BrowserTestData::environmentPage({}, 1, 0)));
    server.enqueue(ScriptedResponse::json(
            BrowserTestData::weightsPage({BrowserTestData::weights(QStringLiteral("fresh"))}, 1, 1, 1)));
    filter->setCurrentIndex(4);
    QVERIFY(waitForRequestsTo(weightsListPath, 1));
    filter->setCurrentIndex(3);
    QVERIFY(waitForRequestsTo(environmentListPath, 1));
    filter->setCurrentIndex(4);
    QVERIFY(waitForRequestsTo(weightsListPath, 2));

    QTest::qWait(800);
    const QList<OnnxCard *> cards = cardsInGrid<OnnxCard>(page.get());
    QCOMPARE(cards.size(), 1);
    QCOMPARE(cards.first()->weightsId(), QStringLiteral("fresh"));
}

void OnlineResourcesWidgetTest::environmentAndWeightsPagesFillTheGrid()
{
    setScriptPage({}, 1, 0, 0);
    auto page = makePage();
    QVERIFY(waitForRequestsTo(listPath, 1));
    auto *filter = page->findChild<QComboBox *>(QStringLiteral("typeFilter"));

    server.setRule(environmentListPath, ScriptedResponse::json(BrowserTestData::environmentPage(
                                                {BrowserTestData::environment(QStringLiteral("e1")),
                                                 BrowserTestData::environment(QStringLiteral("e2"))},
                                                1, 2)));
    filter->setCurrentIndex(3);
    QTRY_COMPARE(cardsInGrid<QenvCard>(page.get()).size(), 2);
    const QUrlQuery environmentQuery = requestsTo(environmentListPath).last().query();
    QVERIFY(!environmentQuery.hasQueryItem(QStringLiteral("type")));
    QCOMPARE(environmentQuery.queryItemValue(QStringLiteral("limit")), QStringLiteral("24"));
    QCOMPARE(cardsInGrid<QenvCard>(page.get()).first()->envId(), QStringLiteral("e1"));

    server.setRule(environmentListPath, ScriptedResponse::json(BrowserTestData::environmentPage({}, 1, 0)));
    page->findChild<QToolButton *>(QStringLiteral("refreshButton"))->click();
    QTRY_COMPARE(gridMessage(page.get()), QStringLiteral("No environments available - Be the first to upload!"));

    server.setRule(weightsListPath, ScriptedResponse::json({{QStringLiteral("success"), false},
                                                            {QStringLiteral("error"), QStringLiteral("Disk full")}}));
    filter->setCurrentIndex(4);
    QTRY_COMPARE(gridMessage(page.get()), QStringLiteral("Failed to load weights: Disk full"));

    server.setRule(weightsListPath, ScriptedResponse::json(BrowserTestData::weightsPage({}, 1, 1, 0)));
    page->findChild<QToolButton *>(QStringLiteral("refreshButton"))->click();
    QTRY_COMPARE(gridMessage(page.get()), QStringLiteral("No weights available - Be the first to upload!"));
}

void OnlineResourcesWidgetTest::outOfRangeFilterAndSortFallBackToDefaults()
{
    setScriptPage({}, 1, 0, 0);
    auto page = makePage();
    auto *refresh = page->findChild<QToolButton *>(QStringLiteral("refreshButton"));
    const auto settle = [&](int requests) {
        return waitForRequestsTo(listPath, requests) && QTest::qWaitFor([&] { return refresh->isEnabled(); });
    };
    QVERIFY(settle(1));

    page->findChild<QComboBox *>(QStringLiteral("sortCombo"))->setCurrentIndex(1);
    QVERIFY(settle(2));
    page->findChild<QComboBox *>(QStringLiteral("typeFilter"))->setCurrentIndex(2);
    QVERIFY(settle(3));
    QUrlQuery query = requestsTo(listPath).last().query();
    QCOMPARE(query.queryItemValue(QStringLiteral("type")), QStringLiteral("py"));
    QCOMPARE(query.queryItemValue(QStringLiteral("sort")), QStringLiteral("newest"));

    QVERIFY(QMetaObject::invokeMethod(page.get(), "onTypeFilterChanged", Q_ARG(int, 9)));
    QVERIFY(settle(4));
    QVERIFY(!requestsTo(listPath).last().query().hasQueryItem(QStringLiteral("type")));

    QVERIFY(QMetaObject::invokeMethod(page.get(), "onSortChanged", Q_ARG(int, -1)));
    QVERIFY(settle(5));
    query = requestsTo(listPath).last().query();
    QCOMPARE(query.queryItemValue(QStringLiteral("sort")), QStringLiteral("popular"));
    QVERIFY(!query.hasQueryItem(QStringLiteral("type")));
}

void OnlineResourcesWidgetTest::signingInAsAnotherUserResetsLikesAndReloads()
{
    setScriptPage(BrowserTestData::scripts(QStringLiteral("s"), 1, 3), 1, 1, 3);
    server.setRule(likedPath, ScriptedResponse::json({{QStringLiteral("success"), true},
                                                      {QStringLiteral("data"), QJsonArray{QStringLiteral("s2")}}}));
    auto page = makePage();
    QTRY_COMPARE(scriptIds(page.get()).size(), 3);
    QCOMPARE(requestsTo(claimPath).size(), 0);

    host.signIn(user(QStringLiteral("100000000000000001")));
    QVERIFY(waitForRequestsTo(claimPath, 1));
    QTRY_VERIFY(cardsInGrid<ScriptCard>(page.get()).value(1) && cardsInGrid<ScriptCard>(page.get()).at(1)->isLiked());
    QCOMPARE(requestsTo(claimPath).first().header("Authorization"), QByteArray("Bearer token-100000000000000001"));
    const auto likeButton = [&](int index) {
        return cardsInGrid<ScriptCard>(page.get())
                .at(index)
                ->findChild<QPushButton *>(QStringLiteral("scriptCardLikeButton"));
    };
    QVERIFY(likeButton(0)->isEnabled());
    QCOMPARE(likeButton(0)->toolTip(), QStringLiteral("Like this script"));
    QCOMPARE(likeButton(1)->toolTip(), QStringLiteral("Already liked"));

    // The next user's likes are slow to arrive: until then nothing may show the previous user's hearts.
    server.setRule(likedPath,
                   ScriptedResponse::json({{QStringLiteral("success"), true}, {QStringLiteral("data"), QJsonArray{}}})
                           .withDelay(3000));
    const int listsBefore = requestsTo(listPath).size();
    host.signIn(user(QStringLiteral("100000000000000002")));
    QVERIFY(waitForRequestsTo(claimPath, 2));
    QCOMPARE(requestsTo(claimPath).last().header("Authorization"), QByteArray("Bearer token-100000000000000002"));
    QVERIFY(waitForRequestsTo(listPath, listsBefore + 1));
    QCOMPARE(requestsTo(listPath).last().query().queryItemValue(QStringLiteral("page")), QStringLiteral("1"));
    QTRY_COMPARE(scriptIds(page.get()).size(), 3);
    for (ScriptCard *card : cardsInGrid<ScriptCard>(page.get()))
        QVERIFY(!card->isLiked());
}

void OnlineResourcesWidgetTest::signingOutResetsLikesAndDisablesLikeButtons()
{
    setScriptPage(BrowserTestData::scripts(QStringLiteral("s"), 1, 2), 1, 1, 2);
    server.setRule(likedPath, ScriptedResponse::json({{QStringLiteral("success"), true},
                                                      {QStringLiteral("data"), QJsonArray{QStringLiteral("s1")}}}));
    host.signIn(user(QStringLiteral("100000000000000001")));
    auto page = makePage();
    QTRY_VERIFY(!cardsInGrid<ScriptCard>(page.get()).isEmpty()
                && cardsInGrid<ScriptCard>(page.get()).first()->isLiked());

    const int listsBefore = requestsTo(listPath).size();
    const int claimsBefore = requestsTo(claimPath).size();
    host.signOut();
    QVERIFY(waitForRequestsTo(listPath, listsBefore + 1));
    const RecordedRequest reload = requestsTo(listPath).last();
    QCOMPARE(reload.query().queryItemValue(QStringLiteral("page")), QStringLiteral("1"));
    QVERIFY(!reload.hasHeader("Authorization"));
    QVERIFY(!reload.hasHeader("X-Discord-Username"));
    QTRY_COMPARE(scriptIds(page.get()).size(), 2);
    for (ScriptCard *card : cardsInGrid<ScriptCard>(page.get())) {
        QVERIFY(!card->isLiked());
        auto *like = card->findChild<QPushButton *>(QStringLiteral("scriptCardLikeButton"));
        QVERIFY(!like->isEnabled());
        QCOMPARE(like->toolTip(), QStringLiteral("Log in to like scripts"));
    }
    QCOMPARE(requestsTo(claimPath).size(), claimsBefore);

    server.setRule(environmentListPath, ScriptedResponse::json(BrowserTestData::environmentPage(
                                                {BrowserTestData::environment(QStringLiteral("e1"))}, 1, 1)));
    page->findChild<QComboBox *>(QStringLiteral("typeFilter"))->setCurrentIndex(3);
    QTRY_COMPARE(cardsInGrid<QenvCard>(page.get()).size(), 1);
    auto *environmentLike = cardsInGrid<QenvCard>(page.get())
                                    .first()
                                    ->findChild<QPushButton *>(QStringLiteral("scriptCardLikeButton"));
    QVERIFY(!environmentLike->isEnabled());
    QCOMPARE(environmentLike->toolTip(), QStringLiteral("Log in to like environments"));

    server.setRule(weightsListPath, ScriptedResponse::json(BrowserTestData::weightsPage(
                                            {BrowserTestData::weights(QStringLiteral("w1"))}, 1, 1, 1)));
    page->findChild<QComboBox *>(QStringLiteral("typeFilter"))->setCurrentIndex(4);
    QTRY_COMPARE(cardsInGrid<OnnxCard>(page.get()).size(), 1);
    auto *weightsLike = cardsInGrid<OnnxCard>(page.get())
                                .first()
                                ->findChild<QPushButton *>(QStringLiteral("scriptCardLikeButton"));
    QVERIFY(!weightsLike->isEnabled());
    QCOMPARE(weightsLike->toolTip(), QStringLiteral("Log in to like weights"));
}

void OnlineResourcesWidgetTest::likeReplyUpdatesTheCard_data()
{
    QTest::addColumn<int>("filterIndex");
    QTest::addColumn<QString>("listRulePath");
    QTest::addColumn<QJsonObject>("listReply");
    QTest::addColumn<QString>("likePath");
    QTest::newRow("script") << 0 << listPath
                            << BrowserTestData::scriptPage({BrowserTestData::script(QStringLiteral("s1"))}, 1, 1, 1)
                            << QStringLiteral("/api/scripts/like/s1");
    QTest::newRow("environment") << 3 << environmentListPath
                                 << BrowserTestData::environmentPage(
                                            {BrowserTestData::environment(QStringLiteral("e1"))}, 1, 1)
                                 << QStringLiteral("/api/scripts/qenv/like/e1");
    QTest::newRow("weights") << 4 << weightsListPath
                             << BrowserTestData::weightsPage({BrowserTestData::weights(QStringLiteral("w1"))}, 1, 1, 1)
                             << QStringLiteral("/api/scripts/onnx/like/w1");
}

void OnlineResourcesWidgetTest::likeReplyUpdatesTheCard()
{
    QFETCH(int, filterIndex);
    QFETCH(QString, listRulePath);
    QFETCH(QJsonObject, listReply);
    QFETCH(QString, likePath);

    setScriptPage({}, 1, 0, 0);
    server.setRule(listRulePath, ScriptedResponse::json(listReply));
    server.setRule(likedPath,
                   ScriptedResponse::json({{QStringLiteral("success"), true}, {QStringLiteral("data"), QJsonArray{}}}));
    server.setRule(likePath,
                   ScriptedResponse::json({{QStringLiteral("success"), true},
                                           {QStringLiteral("data"), QJsonObject{{QStringLiteral("liked"), true},
                                                                                {QStringLiteral("like_count"), 4}}}}));
    host.signIn(user(QStringLiteral("100000000000000001")));
    auto page = makePage();
    auto *refresh = page->findChild<QToolButton *>(QStringLiteral("refreshButton"));
    QVERIFY(QTest::qWaitFor([&] { return refresh->isEnabled(); }));
    page->findChild<QComboBox *>(QStringLiteral("typeFilter"))->setCurrentIndex(filterIndex);
    QTRY_COMPARE(page->findChildren<QPushButton *>(QStringLiteral("scriptCardLikeButton")).size(), 1);
    auto *like = page->findChild<QPushButton *>(QStringLiteral("scriptCardLikeButton"));
    QVERIFY(like->isEnabled());
    QCOMPARE(like->text(), QStringLiteral("3"));
    QVERIFY(!like->isChecked());

    like->click();
    QVERIFY(waitForRequestsTo(likePath, 1));
    QCOMPARE(requestsTo(likePath).first().method, QByteArray("POST"));
    QTRY_COMPARE(like->text(), QStringLiteral("4"));
    QVERIFY(like->isChecked());
    QCOMPARE(like->toolTip(), QStringLiteral("Already liked"));
}

void OnlineResourcesWidgetTest::silentServerEndsLoadingAfterFiveSeconds()
{
    server.setRule(listPath, silence());
    auto page = makePage();
    QVERIFY(waitForRequestsTo(listPath, 1));
    auto *refresh = page->findChild<QToolButton *>(QStringLiteral("refreshButton"));
    QVERIFY(!refresh->isEnabled());
    auto *indicator = page->findChild<QLabel *>(QStringLiteral("loadingIndicator"));
    QVERIFY(indicator->isVisible());

    // While waiting the dots cycle one, two, three, one, ... every half second; the counter is shared by every page
    // of the process, so the first frame after the initial three dots may be any of them.
    QStringList frames;
    QDeadlineTimer waiting(4000);
    while (!waiting.hasExpired()) {
        if (frames.isEmpty() || frames.last() != indicator->text())
            frames.append(indicator->text());
        QTest::qWait(20);
    }
    QVERIFY2(frames.size() >= 6, qPrintable(frames.join(QLatin1Char('|'))));
    for (int index = 2; index < frames.size(); ++index) {
        const qsizetype previous = frames.at(index - 1).size();
        QCOMPARE(frames.at(index), QString(previous % 3 + 1, QChar(0x25CF)));
    }
    QVERIFY(!refresh->isEnabled());
    QVERIFY(gridMessage(page.get()).isEmpty());
    QTRY_COMPARE_WITH_TIMEOUT(gridMessage(page.get()), QStringLiteral("Cannot connect to server"), 3000);
    QVERIFY(refresh->isEnabled());
}

void OnlineResourcesWidgetTest::publishingFollowsDeveloperModeAndLogin()
{
    setScriptPage({}, 1, 0, 0);
    auto page = makePage();
    auto *publish = page->findChild<QPushButton *>(QStringLiteral("uploadButton"));
    QCOMPARE(publish->text(), QStringLiteral("Publish Script"));
    QVERIFY(!publish->isEnabled());
    QCOMPARE(publish->toolTip(), QStringLiteral("Enable Developer Mode in Preferences to publish scripts"));

    SettingsManager::instance()->setValue(QStringLiteral("developerMode"), true);
    page->refreshUserControls();
    QVERIFY(publish->isEnabled());
    QVERIFY(publish->toolTip().isEmpty());

    ModalAnswerer answerer;
    answerer.pressButton(QMessageBox::Ok);
    publish->click();
    QVERIFY(answerer.answered());
    QCOMPARE(answerer.seenTitle(), QStringLiteral("Authentication Required"));
    QCOMPARE(answerer.seenText(),
             QStringLiteral("Please log in via the Account page in Preferences to use Online Resources."));
}

void OnlineResourcesWidgetTest::administratorIsAnExactDiscordIdMatch()
{
    setScriptPage({}, 1, 0, 0);
    auto page = makePage();
    QVERIFY(!page->isAdministrator());
    host.signIn(user(QStringLiteral("200000000000000009")));
    QVERIFY(page->isAdministrator());
    host.signIn(user(QStringLiteral("20000000000000000")));
    QVERIFY(!page->isAdministrator());
    host.signIn(user(QStringLiteral("100000000000000009")));
    QVERIFY(page->isAdministrator());
    host.signOut();
    QVERIFY(!page->isAdministrator());
}

void OnlineResourcesWidgetTest::errorsReachTheUser()
{
    setScriptPage({}, 1, 0, 0);
    auto page = makePage();
    auto *refresh = page->findChild<QToolButton *>(QStringLiteral("refreshButton"));
    QVERIFY(QTest::qWaitFor([&] { return refresh->isEnabled(); }));

    // Environment list failures arrive as plain errors, shown in the grid while no script card is there.
    server.setRule(environmentListPath, ScriptedResponse::rawJson("{}", 500));
    page->findChild<QComboBox *>(QStringLiteral("typeFilter"))->setCurrentIndex(3);
    QTRY_VERIFY(gridMessage(page.get()).startsWith(QStringLiteral("Error: HTTP 500")));
    QVERIFY(refresh->isEnabled());

    server.setRule(QStringLiteral("/api/scripts/s1"),
                   ScriptedResponse::json({{QStringLiteral("success"), false},
                                           {QStringLiteral("error"), QStringLiteral("Not your script")}}));
    ModalAnswerer answerer;
    answerer.pressButton(QMessageBox::Ok);
    page->api()->deleteScript(QStringLiteral("s1"));
    QVERIFY(answerer.waitForAnswer());
    QCOMPARE(answerer.seenTitle(), QStringLiteral("Delete Failed"));
    QCOMPARE(answerer.seenText(), QStringLiteral("Delete failed: Not your script"));
}

void OnlineResourcesWidgetTest::successfulBanIsAnnouncedAndReloads()
{
    setScriptPage({BrowserTestData::script(QStringLiteral("s1"))}, 1, 1, 1);
    host.signIn(user(QStringLiteral("100000000000000009")));
    auto page = makePage();
    QTRY_COMPARE(scriptIds(page.get()).size(), 1);
    const int listsBefore = requestsTo(listPath).size();

    server.setRule(QStringLiteral("/api/scripts/ban/300000000000000003"),
                   ScriptedResponse::json({{QStringLiteral("success"), true}}));
    ModalAnswerer answerer;
    answerer.pressButton(QMessageBox::Ok);
    page->api()->banUser(QStringLiteral("300000000000000003"), QStringLiteral("spam"));
    QVERIFY(answerer.waitForAnswer());
    QCOMPARE(answerer.seenTitle(), QStringLiteral("User Banned"));
    QCOMPARE(answerer.seenText(),
             QStringLiteral("The user has been banned from uploading. Their existing uploads are now hidden."));
    QVERIFY(waitForRequestsTo(listPath, listsBefore + 1));
    QCOMPARE(requestsTo(listPath).last().query().queryItemValue(QStringLiteral("page")), QStringLiteral("1"));
}

void OnlineResourcesWidgetTest::showingThePageAgainKeepsItsKind_data()
{
    QTest::addColumn<int>("filterIndex");
    QTest::addColumn<QString>("kindListPath");
    QTest::addColumn<bool>("withCards");
    QTest::newRow("scripts shown") << 0 << listPath << true;
    QTest::newRow("no scripts") << 0 << listPath << false;
    QTest::newRow("environments shown") << 3 << environmentListPath << true;
    QTest::newRow("no environments") << 3 << environmentListPath << false;
    QTest::newRow("weights shown") << 4 << weightsListPath << true;
    QTest::newRow("no weights") << 4 << weightsListPath << false;
}

void OnlineResourcesWidgetTest::showingThePageAgainKeepsItsKind()
{
    QFETCH(int, filterIndex);
    QFETCH(QString, kindListPath);
    QFETCH(bool, withCards);
    const int items = withCards ? 1 : 0;
    setScriptPage(BrowserTestData::scripts(QStringLiteral("s"), 1, items), 1, 1, items);
    server.setRule(environmentListPath,
                   ScriptedResponse::json(BrowserTestData::environmentPage(
                           withCards ? QJsonArray{BrowserTestData::environment(QStringLiteral("e1"))} : QJsonArray(), 1,
                           items)));
    server.setRule(weightsListPath,
                   ScriptedResponse::json(BrowserTestData::weightsPage(
                           withCards ? QJsonArray{BrowserTestData::weights(QStringLiteral("w1"))} : QJsonArray(), 1, 1,
                           items)));
    auto page = makePage();
    auto *refresh = page->findChild<QToolButton *>(QStringLiteral("refreshButton"));
    page->findChild<QComboBox *>(QStringLiteral("typeFilter"))->setCurrentIndex(filterIndex);
    QVERIFY(waitForRequestsTo(kindListPath, 1));
    QVERIFY(QTest::qWaitFor([&] { return refresh->isEnabled(); }));
    const auto cardsShown = [&] {
        return cardsInGrid<ScriptCard>(page.get()).size() + cardsInGrid<QenvCard>(page.get()).size()
               + cardsInGrid<OnnxCard>(page.get()).size();
    };
    QCOMPARE(cardsShown(), items);
    const int kindListsBefore = requestsTo(kindListPath).size();
    const int scriptListsBefore = requestsTo(listPath).size();

    page->hide();
    page->show();
    if (withCards)
        QTest::qWait(300);
    else
        QVERIFY(waitForRequestsTo(kindListPath, kindListsBefore + 1));
    QVERIFY(QTest::qWaitFor([&] { return refresh->isEnabled(); }));
    QCOMPARE(requestsTo(kindListPath).size(), kindListsBefore + (withCards ? 0 : 1));
    if (kindListPath != listPath)
        QCOMPARE(requestsTo(listPath).size(), scriptListsBefore);
    QCOMPARE(cardsShown(), items);
}

void OnlineResourcesWidgetTest::typingASearchRestartsAtPageOne()
{
    setScriptPage(BrowserTestData::scripts(QStringLiteral("a"), 1, 24), 1, 3, 60);
    auto page = makePage();
    QTRY_COMPARE(scriptIds(page.get()).size(), 24);
    setScriptPage(BrowserTestData::scripts(QStringLiteral("b"), 1, 24), 2, 3, 60);
    QScrollBar *bar = page->findChild<QScrollArea *>()->verticalScrollBar();
    QTRY_VERIFY(bar->maximum() > 0);
    bar->setValue(bar->maximum());
    QTRY_COMPARE(scriptIds(page.get()).size(), 48);

    setScriptPage(BrowserTestData::scripts(QStringLiteral("c"), 1, 2), 1, 1, 2);
    const int listsBefore = requestsTo(listPath).size();
    QTest::keyClicks(page->findChild<QLineEdit *>(QStringLiteral("searchEdit")), QStringLiteral("ai"));
    QVERIFY(waitForRequestsTo(listPath, listsBefore + 1));
    QTRY_COMPARE(scriptIds(page.get()), (QStringList{QStringLiteral("c1"), QStringLiteral("c2")}));
    const QUrlQuery query = requestsTo(listPath).last().query();
    QCOMPARE(query.queryItemValue(QStringLiteral("search")), QStringLiteral("ai"));
    QCOMPARE(query.queryItemValue(QStringLiteral("page")), QStringLiteral("1"));
}

void OnlineResourcesWidgetTest::transportErrorsReachTheGridAndMaySignOut_data()
{
    QTest::addColumn<QString>("error");
    QTest::addColumn<QString>("shown");
    QTest::addColumn<bool>("signedOut");
    QTest::newRow("network") << "Network error: Connection refused" << "Cannot connect to server" << false;
    QTest::newRow("network, other case") << "NETWORK ERROR" << "Cannot connect to server" << false;
    QTest::newRow("server error") << "HTTP 500: boom" << "Error: HTTP 500: boom" << false;
    QTest::newRow("401") << "HTTP 401: Unauthorized" << "Error: HTTP 401: Unauthorized" << true;
    QTest::newRow("authentication") << "Authentication required" << "Error: Authentication required" << true;
}

void OnlineResourcesWidgetTest::transportErrorsReachTheGridAndMaySignOut()
{
    QFETCH(QString, error);
    QFETCH(QString, shown);
    QFETCH(bool, signedOut);
    setScriptPage({}, 1, 0, 0);
    host.signIn(user(QStringLiteral("100000000000000001")));
    auto page = makePage();
    auto *refresh = page->findChild<QToolButton *>(QStringLiteral("refreshButton"));
    QVERIFY(waitForRequestsTo(likedPath, 1));
    QVERIFY(QTest::qWaitFor([&] { return refresh->isEnabled(); }));

    Q_EMIT page->api()->errorOccurred(error);
    QCOMPARE(gridMessage(page.get()), shown);

    // Only a signed-in page asks for the user's liked list with a reload.
    const int likedBefore = requestsTo(likedPath).size();
    const int listsBefore = requestsTo(listPath).size();
    refresh->click();
    QVERIFY(waitForRequestsTo(listPath, listsBefore + 1));
    QTest::qWait(100);
    QCOMPARE(requestsTo(likedPath).size(), likedBefore + (signedOut ? 0 : 1));
}

QTEST_MAIN(OnlineResourcesWidgetTest)
#include "tst_online_resources_widget.moc"
