#include "BrowserTestData.h"
#include "ModalAnswerer.h"
#include "RecordingHttpServer.h"
#include "TemporaryHome.h"

#include "api/OnlineResourcesAPI.h"
#include "browser/CardGridModel.h"
#include "browser/OnlineResourcesWidget.h"
#include "browser/OnnxCard.h"
#include "browser/QenvCard.h"
#include "browser/ScriptCard.h"

#include <PluginHost.h>
#include <SettingsManager.h>

#include <QAccessible>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QScrollArea>
#include <QScrollBar>
#include <QSet>
#include <QSignalSpy>
#include <QTest>
#include <QToolButton>

#include <algorithm>
#include <functional>
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
    return {discordId, "user" + discordId.right(2), "User", "avatar", "token-" + discordId};
}

// "a1", "a2", ... as BrowserTestData::scripts("a", 1, count) names them.
QStringList idRange(const QString &prefix, int first, int count)
{
    QStringList ids;
    for (int index = first; index < first + count; ++index)
        ids.append(prefix + QString::number(index));
    return ids;
}

QScrollBar *scrollBar(QWidget *page)
{
    return page->findChild<QScrollArea *>()->verticalScrollBar();
}

// The cards a reader sees in the viewport, in reading order.
QList<ResourceCard *> cardsInView(QWidget *page)
{
    QCoreApplication::sendPostedEvents();
    const auto *area = page->findChild<QScrollArea *>();
    const QRect viewport(area->widget()->mapFrom(area->viewport(), QPoint(0, 0)), area->viewport()->size());
    QList<ResourceCard *> cards;
    for (ResourceCard *card : page->findChildren<ResourceCard *>()) {
        if (card->isVisible() && viewport.intersects(card->geometry()))
            cards.append(card);
    }
    std::sort(cards.begin(), cards.end(),
              [](const QWidget *a, const QWidget *b) { return a->y() != b->y() ? a->y() < b->y() : a->x() < b->x(); });
    return cards;
}

QStringList idsInView(QWidget *page)
{
    QStringList ids;
    for (const ResourceCard *card : cardsInView(page))
        ids.append(card->resourceId());
    return ids;
}

// Every item of a fully loaded grid in reading order, as scrolling through it from the top shows them.
QStringList idsScrollingThrough(QWidget *page)
{
    QScrollBar *bar = scrollBar(page);
    QStringList ids;
    for (int value = 0;; value += bar->pageStep()) {
        bar->setValue(value);
        for (const QString &id : idsInView(page)) {
            if (!ids.contains(id))
                ids.append(id);
        }
        if (value >= bar->maximum())
            break;
    }
    bar->setValue(0);
    return ids;
}

int columnsInView(QWidget *page)
{
    QSet<int> lefts;
    for (const ResourceCard *card : cardsInView(page))
        lefts.insert(card->x());
    return int(lefts.size());
}

QString gridMessage(QWidget *page)
{
    const QLabel *label = page->findChild<QLabel *>("gridMessage");
    return label && label->isVisible() ? label->text() : QString();
}

QToolButton *refreshButton(QWidget *page)
{
    return page->findChild<QToolButton *>("refreshButton");
}

void chooseKind(QWidget *page, int index)
{
    page->findChild<QComboBox *>("typeFilter")->setCurrentIndex(index);
}

QPushButton *likeOf(QWidget *card)
{
    return card->findChild<QPushButton *>("scriptCardLikeButton");
}

} // namespace

class OnlineResourcesWidgetTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        home = std::make_unique<TemporaryHome>();
        QVERIFY(server.listen());
        qputenv("QUORIX_ADMIN_IDS", "100000000000000009, 200000000000000009");
        // The server address is read once per process, before the first API client exists.
        qputenv("QUORIX_SERVER_URL", server.origin().toUtf8());
    }

    void init()
    {
        server.reset();
        server.setDefaultResponse(ScriptedResponse::json({{"success", true}}));
        host.signOut();
        SettingsManager::instance()->setValue("developerMode", false);
    }

    void cardsSitInColumnsThatFitTheViewport_data()
    {
        QTest::addColumn<int>("viewportWidth");
        QTest::addColumn<int>("columns");
        // The grid keeps 20 pixels of the viewport for its own margins.
        QTest::newRow("one card") << 294 + 20 << 1;
        QTest::newRow("a pixel short of two") << 574 + 20 << 1;
        QTest::newRow("two cards, exactly") << 575 + 20 << 2;
        QTest::newRow("at most six") << 4000 << 6;
    }

    void cardsSitInColumnsThatFitTheViewport()
    {
        QFETCH(int, viewportWidth);
        QFETCH(int, columns);
        setScriptPage(BrowserTestData::scripts("s", 0, 12), 1, 1, 12);
        auto page = makePage(800, 5000);
        QTRY_COMPARE(idsInView(page.get()).size(), 12);
        QWidget *viewport = page->findChild<QScrollArea *>()->viewport();
        page->resize(page->width() + viewportWidth - viewport->width(), page->height());
        QTRY_COMPARE(columnsInView(page.get()), columns);
        for (const ResourceCard *card : cardsInView(page.get())) {
            const int index = card->resourceId().mid(1).toInt();
            QCOMPARE(card->geometry(), QRect(10 + index % columns * 295, 10 + index / columns * 375, 280, 360));
        }
    }

    void scrollingLoadsFollowingPagesInServerOrderOnlyOnce()
    {
        // Late, so the scroll area learns its real width only when the list arrives from behind the loading dots.
        server.setRule(listPath, ScriptedResponse::json(
                                         BrowserTestData::scriptPage(BrowserTestData::scripts("a", 1, 24), 1, 3, 60))
                                         .withDelay(400));
        auto page = makePage();
        QScrollBar *bar = scrollBar(page.get());
        QTRY_COMPARE(columnsInView(page.get()), 2);
        QCOMPARE(idsInView(page.get()).first(), "a1");

        server.setRule(listPath, ScriptedResponse::json(
                                         BrowserTestData::scriptPage(BrowserTestData::scripts("b", 1, 24), 2, 3, 60))
                                         .withDelay(500));
        const int firstPageEnd = bar->maximum();
        bar->setValue(bar->maximum() - 50);
        QVERIFY(waitForRequestsTo(listPath, 2));
        // Still in flight: reaching the bottom again must not ask for the same page twice.
        bar->setValue(0);
        bar->setValue(bar->maximum());
        QTest::qWait(100);
        QCOMPARE(requestsTo(listPath).size(), 2);
        const QUrlQuery second = requestsTo(listPath).at(1).query();
        QCOMPARE(second.queryItemValue("page"), "2");
        QCOMPARE(second.queryItemValue("limit"), "24");
        QCOMPARE(second.queryItemValue("sort"), "popular");
        QTRY_VERIFY(bar->maximum() > firstPageEnd + 1000);

        setScriptPage(BrowserTestData::scripts("c", 1, 12), 3, 3, 60);
        const int secondPageEnd = bar->maximum();
        bar->setValue(bar->maximum());
        QVERIFY(waitForRequestsTo(listPath, 3));
        QCOMPARE(requestsTo(listPath).last().query().queryItemValue("page"), "3");
        QTRY_VERIFY(bar->maximum() > secondPageEnd + 1000);

        // The last page has arrived: scrolling through everything to the bottom asks for nothing more.
        QCOMPARE(idsScrollingThrough(page.get()), idRange("a", 1, 24) + idRange("b", 1, 24) + idRange("c", 1, 12));
        QTest::qWait(200);
        QCOMPARE(requestsTo(listPath).size(), 3);
    }

    // Emptying a scrolled grid is no bottom reached, and a page of the list before the refresh has no place in it.
    void refreshWhileAPageIsInFlightShowsOnlyTheNewList()
    {
        setScriptPage(BrowserTestData::scripts("a", 1, 24), 1, 3, 60);
        auto page = makePage();
        QScrollBar *bar = scrollBar(page.get());
        QTRY_COMPARE(columnsInView(page.get()), 2);
        server.setRule(listPath, ScriptedResponse::json(
                                         BrowserTestData::scriptPage(BrowserTestData::scripts("b", 1, 24), 2, 3, 60))
                                         .withDelay(400));
        bar->setValue(bar->maximum());
        QVERIFY(waitForRequestsTo(listPath, 2));

        setScriptPage(BrowserTestData::scripts("r", 1, 24), 1, 3, 60);
        refreshButton(page.get())->click();
        QVERIFY(waitForRequestsTo(listPath, 3));
        QTest::qWait(600);
        QCOMPARE(requestsTo(listPath).size(), 3);
        QCOMPARE(requestsTo(listPath).last().query().queryItemValue("page"), "1");
        const CardGridModel *loaded = page->findChild<CardGridModel *>();
        QStringList ids;
        for (int index = 0; index < loaded->count(); ++index)
            ids.append(loaded->item(index).value("id").toString());
        QCOMPARE(ids, idRange("r", 1, 24));
    }

    void onlyRowsNearTheViewportHaveCardsAndTheyShowTheLatestState()
    {
        server.setRule("/thumb.png", ScriptedResponse::bytes(BrowserTestData::png({64, 32}), "image/png"));
        auto page = makePage(1000, 800);
        QVERIFY(waitUntilIdle(page.get()));
        // The pages below are handed over directly; the server never answers the page's own requests for them.
        server.setRule(listPath, ScriptedResponse::json({}).stallingAfter(0));
        QStringList ids;
        for (int number = 1; number <= 10; ++number) {
            QJsonArray items;
            for (int index = 0; index < 24; ++index) {
                ids.append(QString::number((number - 1) * 24 + index));
                items.append(BrowserTestData::record("script", ids.last(),
                                                     {{"thumbnail", server.url("/thumb.png").toString()}}));
            }
            // As the page asks for them: a refresh for the first, reaching the bottom for each next one.
            QMetaObject::invokeMethod(page.get(), number == 1 ? "onRefreshClicked" : "onScrolledToBottom");
            emit page->api()->scriptsLoaded(BrowserTestData::scriptPage(items, number, 10, 240));
        }
        const int columns = columnsInView(page.get());
        QCOMPARE(columns, 3);
        QCOMPARE(idsInView(page.get()), ids.mid(0, idsInView(page.get()).size()));
        const auto cardsMade = [&] {
            return page->findChildren<ResourceCard *>().size();
        };
        // A screen above and below the viewport: no more than seven rows of about 375 pixels for an 800 pixel page.
        QVERIFY2(cardsMade() <= 7 * columns, qPrintable(QString::number(cardsMade())));

        emit page->api()->userLikedScriptsLoaded({"150", "1"});
        emit page->api()->scriptLikeToggled("200", true, 9);
        emit page->api()->scriptLikeToggled("1", false, 2);
        QVERIFY(!likeOf(cardsInView(page.get()).at(1))->isChecked());
        QCOMPARE(likeOf(cardsInView(page.get()).at(1))->text(), "2");
        for (const int index : {150, 200, 239, 0}) {
            scrollBar(page.get())->setValue(10 + index / columns * 375 - 10);
            const QStringList shown = idsInView(page.get());
            QCOMPARE(shown, ids.mid(shown.first().toInt(), shown.size()));
            QVERIFY(cardsMade() <= 7 * columns);
            for (ResourceCard *card : cardsInView(page.get())) {
                const int at = card->resourceId().toInt();
                QCOMPARE(card->geometry(), QRect(10 + at % columns * 295, 10 + at / columns * 375, 280, 360));
                if (at != index)
                    continue;
                QCOMPARE(likeOf(card)->isChecked(), index == 150 || index == 200);
                QCOMPARE(likeOf(card)->text(), index == 200 ? "9" : "3");
                QTRY_VERIFY(!card->findChild<QLabel *>("cardThumbnail")->pixmap().isNull());
            }
            QVERIFY(shown.contains(QString::number(index)));
        }
        QCOMPARE(requestsTo("/thumb.png").size(), 1);
    }

    void messagesInTheGrid_data()
    {
        QTest::addColumn<int>("filterIndex");
        QTest::addColumn<QString>("path");
        QTest::addColumn<QByteArray>("reply");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("message");
        const QByteArray empty = R"({"success": true, "scripts": [], "environments": [], "weights": [],
                                    "pagination": {"current_page": 1, "total_pages": 1, "total_scripts": 0,
                                                   "total_environments": 0, "total_weights": 0}})";
        const struct
        {
            const char *tag;
            int filterIndex;
            const QString &path;
            QByteArray reply;
            int status;
            const char *message;
        } rows[] = {
                {"empty catalogue", 0, listPath, empty, 200, "No scripts available - Be the first to upload!"},
                {"refusal without message", 0, listPath, R"({"success": false, "error": ""})", 200,
                 "Cannot connect to server"},
                {"refusal with message", 0, listPath, R"({"success": false, "error": "Banned"})", 200, "Banned"},
                {"no environments", 3, environmentListPath, empty, 200,
                 "No environments available - Be the first to upload!"},
                // Environment list failures arrive as plain errors, shown in the grid while no script card is there.
                {"environments failing", 3, environmentListPath, "{}", 500, "Error: HTTP 500"},
                {"no weights", 4, weightsListPath, empty, 200, "No weights available - Be the first to upload!"},
                {"weights refused", 4, weightsListPath, R"({"success": false, "error": "Disk full"})", 200,
                 "Failed to load weights: Disk full"},
        };
        for (const auto &row : rows)
            QTest::newRow(row.tag) << row.filterIndex << row.path << row.reply << row.status << QString(row.message);
    }

    void messagesInTheGrid()
    {
        QFETCH(int, filterIndex);
        QFETCH(QString, path);
        QFETCH(QByteArray, reply);
        QFETCH(int, status);
        QFETCH(QString, message);
        setScriptPage(BrowserTestData::scripts("s", 1, 2), 1, 1, 2);
        if (path == listPath)
            server.setRule(path, ScriptedResponse::rawJson(reply, status));
        auto page = makePage();
        QVERIFY(waitUntilIdle(page.get()));
        server.setRule(path, ScriptedResponse::rawJson(reply, status));
        chooseKind(page.get(), filterIndex);
        QTRY_VERIFY2(gridMessage(page.get()).startsWith(message), qPrintable(gridMessage(page.get())));
        QVERIFY(refreshButton(page.get())->isEnabled());
        QVERIFY(cardsInView(page.get()).isEmpty());
    }

    void lateScriptListIsIgnoredAfterKindSwitch_data()
    {
        QTest::addColumn<int>("filterIndex");
        QTest::newRow("QENV") << 3;
        QTest::newRow("ONNX") << 4;
    }

    void lateScriptListIsIgnoredAfterKindSwitch()
    {
        QFETCH(int, filterIndex);
        server.setRule(listPath,
                       ScriptedResponse::json(BrowserTestData::scriptPage(BrowserTestData::scripts("s", 1, 3), 1, 1, 3))
                               .withDelay(400));
        setOtherPages({BrowserTestData::environment("e1"), BrowserTestData::environment("e2")},
                      {BrowserTestData::weights("w1")});
        auto page = makePage();
        QVERIFY(waitForRequestsTo(listPath, 1));
        chooseKind(page.get(), filterIndex);
        QTest::qWait(800);
        QCOMPARE(requestsTo(listPath).size(), 1);
        QCOMPARE(idsInView(page.get()), (filterIndex == 3 ? QStringList{"e1", "e2"} : QStringList{"w1"}));
        QVERIFY(cardsInView(page.get()).first()->inherits(filterIndex == 3 ? "Quorix::QenvCard" : "Quorix::OnnxCard"));
        const QUrlQuery query = requestsTo(filterIndex == 3 ? environmentListPath : weightsListPath).last().query();
        QVERIFY(!query.hasQueryItem("type"));
        QCOMPARE(query.queryItemValue("limit"), "24");
    }

    void kindSwitchAbortsWeightsListInFlight()
    {
        setScriptPage({}, 1, 0, 0);
        auto page = makePage();
        QVERIFY(waitForRequestsTo(listPath, 1));
        // Requests are answered in arrival order: the first weights list is slow and stale, the second one fresh.
        server.enqueue(
                ScriptedResponse::json(BrowserTestData::weightsPage({BrowserTestData::weights("stale")}, 1, 1, 1))
                        .withDelay(400));
        server.enqueue(ScriptedResponse::json(BrowserTestData::environmentPage({}, 1, 0)));
        server.enqueue(
                ScriptedResponse::json(BrowserTestData::weightsPage({BrowserTestData::weights("fresh")}, 1, 1, 1)));
        chooseKind(page.get(), 4);
        QVERIFY(waitForRequestsTo(weightsListPath, 1));
        chooseKind(page.get(), 3);
        QVERIFY(waitForRequestsTo(environmentListPath, 1));
        chooseKind(page.get(), 4);
        QVERIFY(waitForRequestsTo(weightsListPath, 2));
        QTest::qWait(800);
        QCOMPARE(idsInView(page.get()), QStringList{"fresh"});
        QVERIFY(qobject_cast<OnnxCard *>(cardsInView(page.get()).first()));
    }

    void outOfRangeFilterAndSortFallBackToDefaults()
    {
        setScriptPage({}, 1, 0, 0);
        auto page = makePage();
        const auto settle = [&](int requests) {
            return waitForRequestsTo(listPath, requests) && waitUntilIdle(page.get());
        };
        QVERIFY(settle(1));
        page->findChild<QComboBox *>("sortCombo")->setCurrentIndex(1);
        QVERIFY(settle(2));
        chooseKind(page.get(), 2);
        QVERIFY(settle(3));
        QCOMPARE(requestsTo(listPath).last().query().queryItemValue("type"), "py");
        QCOMPARE(requestsTo(listPath).last().query().queryItemValue("sort"), "newest");

        QVERIFY(QMetaObject::invokeMethod(page.get(), "onTypeFilterChanged", Q_ARG(int, 9)));
        QVERIFY(settle(4));
        QVERIFY(!requestsTo(listPath).last().query().hasQueryItem("type"));
        QVERIFY(QMetaObject::invokeMethod(page.get(), "onSortChanged", Q_ARG(int, -1)));
        QVERIFY(settle(5));
        QCOMPARE(requestsTo(listPath).last().query().queryItemValue("sort"), "popular");
        QVERIFY(!requestsTo(listPath).last().query().hasQueryItem("type"));
    }

    void signingInAsAnotherUserResetsLikesAndReloads()
    {
        setScriptPage(BrowserTestData::scripts("s", 1, 3), 1, 1, 3);
        server.setRule(likedPath, ScriptedResponse::json({{"success", true}, {"data", QJsonArray{"s2"}}}));
        auto page = makePage();
        QTRY_COMPARE(idsInView(page.get()).size(), 3);
        QCOMPARE(requestsTo(claimPath).size(), 0);

        host.signIn(user("100000000000000001"));
        QVERIFY(waitForRequestsTo(claimPath, 1));
        QTRY_VERIFY(cardsInView(page.get()).value(1) && cardsInView(page.get()).at(1)->isLiked());
        QCOMPARE(requestsTo(claimPath).first().header("Authorization"), QByteArray("Bearer token-100000000000000001"));
        QVERIFY(likeOf(cardsInView(page.get()).at(0))->isEnabled());
        QCOMPARE(likeOf(cardsInView(page.get()).at(0))->toolTip(), "Like this script");
        QCOMPARE(likeOf(cardsInView(page.get()).at(1))->toolTip(), "Already liked");

        // The next user's likes are slow to arrive: until then nothing may show the previous user's hearts.
        server.setRule(likedPath, ScriptedResponse::json({{"success", true}, {"data", QJsonArray{}}}).withDelay(3000));
        const int listsBefore = requestsTo(listPath).size();
        host.signIn(user("100000000000000002"));
        QVERIFY(waitForRequestsTo(claimPath, 2));
        QCOMPARE(requestsTo(claimPath).last().header("Authorization"), QByteArray("Bearer token-100000000000000002"));
        QVERIFY(waitForRequestsTo(listPath, listsBefore + 1));
        QCOMPARE(requestsTo(listPath).last().query().queryItemValue("page"), "1");
        QTRY_COMPARE(idsInView(page.get()).size(), 3);
        for (const ResourceCard *card : cardsInView(page.get()))
            QVERIFY(!card->isLiked());
    }

    void signingOutResetsLikesAndDisablesLikeButtons()
    {
        setScriptPage(BrowserTestData::scripts("s", 1, 2), 1, 1, 2);
        server.setRule(likedPath, ScriptedResponse::json({{"success", true}, {"data", QJsonArray{"s1"}}}));
        setOtherPages({BrowserTestData::environment("e1")}, {BrowserTestData::weights("w1")});
        host.signIn(user("100000000000000001"));
        auto page = makePage();
        QTRY_VERIFY(!cardsInView(page.get()).isEmpty() && cardsInView(page.get()).first()->isLiked());

        const int listsBefore = requestsTo(listPath).size();
        const int claimsBefore = requestsTo(claimPath).size();
        host.signOut();
        QVERIFY(waitForRequestsTo(listPath, listsBefore + 1));
        const RecordedRequest reload = requestsTo(listPath).last();
        QCOMPARE(reload.query().queryItemValue("page"), "1");
        QVERIFY(!reload.hasHeader("Authorization"));
        QVERIFY(!reload.hasHeader("X-Discord-Username"));
        QCOMPARE(requestsTo(claimPath).size(), claimsBefore);
        for (const auto &[kind, toolTip] :
             {std::pair{0, "Log in to like scripts"}, std::pair{3, "Log in to like environments"},
              std::pair{4, "Log in to like weights"}}) {
            chooseKind(page.get(), kind);
            QTRY_COMPARE(idsInView(page.get()).size(), kind == 0 ? 2 : 1);
            for (ResourceCard *card : cardsInView(page.get())) {
                QVERIFY(!card->isLiked());
                QVERIFY(!likeOf(card)->isEnabled());
                QCOMPARE(likeOf(card)->toolTip(), toolTip);
            }
        }
    }

    void everyWayOfPressingLikeSendsOneRequestAndShowsTheAnswer_data()
    {
        QTest::addColumn<int>("filterIndex");
        QTest::addColumn<QString>("likePath");
        QTest::addColumn<QString>("press");
        QTest::addColumn<QByteArray>("answer");
        QTest::addColumn<QString>("shownCount"); // liked when the answer said so
        // The counts differ from the card's own 3 + 1, so only the server's answer can put them there.
        const QByteArray liked = R"({"success": true, "data": {"liked": true, "like_count": 9}})",
                         unliked = R"({"success": true, "data": {"liked": false, "like_count": 2}})",
                         refused = R"({"success": false, "error": "Slow down"})";
        QTest::newRow("environment") << 3 << "/api/scripts/qenv/like/e1" << "click" << liked << "9";
        QTest::newRow("weights") << 4 << "/api/scripts/onnx/like/w1" << "click" << liked << "9";
        for (const char *press : {"click", "space", "accessible toggle", "accessible press"}) {
            QTest::addRow("%s, liked", press) << 0 << "/api/scripts/like/s1" << press << liked << "9";
            QTest::addRow("%s, server says unliked", press) << 0 << "/api/scripts/like/s1" << press << unliked << "2";
            QTest::addRow("%s, refused", press) << 0 << "/api/scripts/like/s1" << press << refused << "3";
        }
    }

    void everyWayOfPressingLikeSendsOneRequestAndShowsTheAnswer()
    {
        QFETCH(int, filterIndex);
        QFETCH(QString, likePath);
        QFETCH(QString, press);
        QFETCH(QByteArray, answer);
        QFETCH(QString, shownCount);
        const bool liked = answer.contains("\"liked\": true");
        setScriptPage({BrowserTestData::script("s1")}, 1, 1, 1);
        setOtherPages({BrowserTestData::environment("e1")}, {BrowserTestData::weights("w1")});
        server.setRule(likedPath, ScriptedResponse::json({{"success", true}, {"data", QJsonArray{}}}));
        server.setRule(likePath, ScriptedResponse::rawJson(answer));
        host.signIn(user("100000000000000001"));
        auto page = makePage();
        QVERIFY(waitUntilIdle(page.get()));
        chooseKind(page.get(), filterIndex);
        QTRY_COMPARE(cardsInView(page.get()).size(), 1);
        QPushButton *like = likeOf(cardsInView(page.get()).first());
        QTRY_VERIFY(like->isEnabled());
        QCOMPARE(like->text(), "3");

        QSignalSpy toggled(page->api(), &OnlineResourcesAPI::scriptLikeToggled);
        QSignalSpy failed(page->api(), &OnlineResourcesAPI::errorOccurred);
        QAccessibleInterface *element = QAccessible::queryAccessibleInterface(like);
        if (press == "click") {
            QTest::mouseClick(like, Qt::LeftButton);
        } else if (press == "space") {
            QTest::keyClick(like, Qt::Key_Space);
        } else {
            const QString action = press.endsWith("toggle") ? QAccessibleActionInterface::toggleAction()
                                                             : QAccessibleActionInterface::pressAction();
            QVERIFY(element->actionInterface()->actionNames().contains(action));
            element->actionInterface()->doAction(action);
        }
        // Until the server answers, the button keeps showing its last answer.
        QVERIFY(!like->isChecked());
        const auto refusals = [&] {
            return std::count_if(failed.cbegin(), failed.cend(), [](const QList<QVariant> &error) {
                return error.first().toString().startsWith("Like toggle failed");
            });
        };
        if (filterIndex == 0)
            QTRY_COMPARE(toggled.size() + refusals(), 1);
        QTRY_COMPARE(like->text(), shownCount);
        QCOMPARE(requestsTo(likePath).size(), 1);
        QCOMPARE(requestsTo(likePath).first().method, QByteArray("POST"));
        QCOMPARE(like->isChecked(), liked);
        if (liked)
            QCOMPARE(like->toolTip(), "Already liked");
        QCOMPARE(bool(element->state().checked), liked);
        QCOMPARE(element->text(QAccessible::Name), liked ? "Unlike" : "Like");
        QCOMPARE(element->text(QAccessible::Description), shownCount + " likes");
    }

    void silentServerEndsLoadingAfterFiveSeconds()
    {
        server.setRule(listPath, ScriptedResponse::json({}).stallingAfter(0));
        auto page = makePage();
        QVERIFY(waitForRequestsTo(listPath, 1));
        QVERIFY(!refreshButton(page.get())->isEnabled());
        auto *indicator = page->findChild<QLabel *>("loadingIndicator");
        QVERIFY(indicator->isVisible());

        // While waiting the dots cycle one, two, three, one, ... every half second; the counter is shared by every page
        // of the process, so the first frame after the initial three dots may be any of them.
        QStringList frames;
        for (QDeadlineTimer waiting(4000); !waiting.hasExpired(); QTest::qWait(20)) {
            if (frames.isEmpty() || frames.last() != indicator->text())
                frames.append(indicator->text());
        }
        QVERIFY2(frames.size() >= 6, qPrintable(frames.join('|')));
        for (int index = 2; index < frames.size(); ++index)
            QCOMPARE(frames.at(index), QString(frames.at(index - 1).size() % 3 + 1, QChar(0x25CF)));
        QVERIFY(!refreshButton(page.get())->isEnabled());
        QVERIFY(gridMessage(page.get()).isEmpty());
        QTRY_COMPARE_WITH_TIMEOUT(gridMessage(page.get()), "Cannot connect to server", 3000);
        QVERIFY(refreshButton(page.get())->isEnabled());
    }

    void publishingAndAdministrationFollowTheUser()
    {
        setScriptPage({}, 1, 0, 0);
        auto page = makePage();
        auto *publish = page->findChild<QPushButton *>("uploadButton");
        QCOMPARE(publish->text(), "Publish Script");
        QVERIFY(!publish->isEnabled());
        QCOMPARE(publish->toolTip(), "Enable Developer Mode in Preferences to publish scripts");

        SettingsManager::instance()->setValue("developerMode", true);
        page->refreshUserControls();
        QVERIFY(publish->isEnabled());
        QVERIFY(publish->toolTip().isEmpty());
        ModalAnswerer answerer;
        answerer.pressButton(QMessageBox::Ok);
        publish->click();
        QVERIFY(answerer.answered());
        QCOMPARE(answerer.seenTitle(), "Authentication Required");
        QCOMPARE(answerer.seenText(), "Please log in via the Account page in Preferences to use Online Resources.");

        // Administrators are exact matches of the configured Discord IDs.
        QVERIFY(!page->isAdministrator());
        for (const auto &[id, administrator] :
             {std::pair{"200000000000000009", true}, std::pair{"20000000000000000", false},
              std::pair{"100000000000000009", true}}) {
            host.signIn(user(id));
            QCOMPARE(page->isAdministrator(), administrator);
        }
        host.signOut();
        QVERIFY(!page->isAdministrator());
    }

    void moderationOutcomesAreAnnounced()
    {
        setScriptPage({BrowserTestData::script("s1")}, 1, 1, 1);
        host.signIn(user("100000000000000009"));
        auto page = makePage();
        QTRY_COMPARE(idsInView(page.get()), QStringList{"s1"});
        const int listsBefore = requestsTo(listPath).size();
        server.setRule("/api/scripts/s1", ScriptedResponse::json({{"success", false}, {"error", "Not your script"}}));
        server.setRule("/api/scripts/ban/300000000000000003", ScriptedResponse::json({{"success", true}}));
        const auto box = [&](const std::function<void()> &action) {
            ModalAnswerer answerer;
            answerer.pressButton(QMessageBox::Ok);
            action();
            return answerer.waitForAnswer() ? QStringList{answerer.seenTitle(), answerer.seenText()} : QStringList();
        };
        QCOMPARE(box([&] { page->api()->deleteScript("s1"); }),
                 (QStringList{"Delete Failed", "Delete failed: Not your script"}));
        QTest::qWait(100);
        QCOMPARE(requestsTo(listPath).size(), listsBefore);
        QCOMPARE(box([&] { page->api()->banUser("300000000000000003", "spam"); }),
                 (QStringList{"User Banned",
                              "The user has been banned from uploading. Their existing uploads are now hidden."}));
        QVERIFY(waitForRequestsTo(listPath, listsBefore + 1));
        QCOMPARE(requestsTo(listPath).last().query().queryItemValue("page"), "1");
    }

    void showingThePageAgainKeepsItsKind_data()
    {
        QTest::addColumn<int>("filterIndex");
        QTest::addColumn<QString>("kindListPath");
        QTest::addColumn<bool>("withCards");
        for (const auto &[index, path, kind] : {std::tuple{0, listPath, "scripts"},
                                                std::tuple{3, environmentListPath, "environments"},
                                                std::tuple{4, weightsListPath, "weights"}}) {
            QTest::addRow("%s shown", kind) << index << path << true;
            QTest::addRow("no %s", kind) << index << path << false;
        }
    }

    void showingThePageAgainKeepsItsKind()
    {
        QFETCH(int, filterIndex);
        QFETCH(QString, kindListPath);
        QFETCH(bool, withCards);
        const int items = withCards ? 1 : 0;
        const auto some = [&](const QJsonObject &item) { return withCards ? QJsonArray{item} : QJsonArray(); };
        setScriptPage(some(BrowserTestData::script("s1")), 1, 1, items);
        setOtherPages(some(BrowserTestData::environment("e1")), some(BrowserTestData::weights("w1")));
        auto page = makePage();
        chooseKind(page.get(), filterIndex);
        QVERIFY(waitForRequestsTo(kindListPath, 1));
        QVERIFY(waitUntilIdle(page.get()));
        // The page's first script list may be what ended the loading state; the kind's own list can come later.
        QTRY_COMPARE(cardsInView(page.get()).size(), items);
        const int kindListsBefore = requestsTo(kindListPath).size();
        const int scriptListsBefore = requestsTo(listPath).size();

        page->hide();
        page->show();
        if (withCards)
            QTest::qWait(300);
        else
            QVERIFY(waitForRequestsTo(kindListPath, kindListsBefore + 1));
        QVERIFY(waitUntilIdle(page.get()));
        QCOMPARE(requestsTo(kindListPath).size(), kindListsBefore + (withCards ? 0 : 1));
        if (kindListPath != listPath)
            QCOMPARE(requestsTo(listPath).size(), scriptListsBefore);
        QCOMPARE(cardsInView(page.get()).size(), items);
    }

    void typingASearchRestartsAtPageOne()
    {
        setScriptPage(BrowserTestData::scripts("a", 1, 24), 1, 3, 60);
        auto page = makePage();
        QScrollBar *bar = scrollBar(page.get());
        QTRY_COMPARE(columnsInView(page.get()), 2);
        setScriptPage(BrowserTestData::scripts("b", 1, 24), 2, 3, 60);
        const int firstPageEnd = bar->maximum();
        bar->setValue(bar->maximum());
        QTRY_VERIFY(bar->maximum() > firstPageEnd + 1000);

        setScriptPage(BrowserTestData::scripts("c", 1, 2), 1, 1, 2);
        const int listsBefore = requestsTo(listPath).size();
        QTest::keyClicks(page->findChild<QLineEdit *>("searchEdit"), "ai");
        QVERIFY(waitForRequestsTo(listPath, listsBefore + 1));
        // A keystroke made while the first page loads is sent once that page is in: the last text wins.
        QTRY_COMPARE(requestsTo(listPath).last().query().queryItemValue("search"), "ai");
        QCOMPARE(requestsTo(listPath).last().query().queryItemValue("page"), "1");
        QVERIFY(waitUntilIdle(page.get()));
        QCOMPARE(idsScrollingThrough(page.get()), (QStringList{"c1", "c2"}));
    }

    void transportErrorsReachTheGridAndMaySignOut_data()
    {
        QTest::addColumn<QString>("error");
        QTest::addColumn<QString>("shown");
        QTest::addColumn<bool>("signedOut");
        for (const auto &[error, shown, signedOut] :
             {std::tuple{"Network error: Connection refused", "Cannot connect to server", false},
              std::tuple{"NETWORK ERROR", "Cannot connect to server", false},
              std::tuple{"HTTP 500: boom", "Error: HTTP 500: boom", false},
              std::tuple{"HTTP 401: Unauthorized", "Error: HTTP 401: Unauthorized", true},
              std::tuple{"Authentication required", "Error: Authentication required", true}})
            QTest::newRow(error) << QString(error) << QString(shown) << signedOut;
    }

    void transportErrorsReachTheGridAndMaySignOut()
    {
        QFETCH(QString, error);
        QFETCH(QString, shown);
        QFETCH(bool, signedOut);
        setScriptPage({}, 1, 0, 0);
        host.signIn(user("100000000000000001"));
        auto page = makePage();
        QVERIFY(waitForRequestsTo(likedPath, 1));
        QVERIFY(waitUntilIdle(page.get()));
        Q_EMIT page->api()->errorOccurred(error);
        QCOMPARE(gridMessage(page.get()), shown);

        // Only a signed-in page asks for the user's liked list with a reload.
        const int likedBefore = requestsTo(likedPath).size();
        const int listsBefore = requestsTo(listPath).size();
        refreshButton(page.get())->click();
        QVERIFY(waitForRequestsTo(listPath, listsBefore + 1));
        QTest::qWait(100);
        QCOMPARE(requestsTo(likedPath).size(), likedBefore + (signedOut ? 0 : 1));
    }

private:
    std::unique_ptr<OnlineResourcesWidget> makePage(int width = 800, int height = 600)
    {
        auto page = std::make_unique<OnlineResourcesWidget>(nullptr);
        page->setPluginHost(&host);
        page->setSettingsManager(SettingsManager::instance());
        page->resize(width, height);
        page->show();
        return page;
    }

    QList<RecordedRequest> requestsTo(const QString &path) const
    {
        QList<RecordedRequest> matching;
        for (const RecordedRequest &request : server.requests()) {
            if (request.path() == path)
                matching.append(request);
        }
        return matching;
    }

    bool waitForRequestsTo(const QString &path, int count) const
    {
        return QTest::qWaitFor([&] { return requestsTo(path).size() >= count; }, 5000);
    }

    void setScriptPage(const QJsonArray &items, int currentPage, int totalPages, int total)
    {
        server.setRule(listPath,
                       ScriptedResponse::json(BrowserTestData::scriptPage(items, currentPage, totalPages, total)));
    }

    void setOtherPages(const QJsonArray &environments, const QJsonArray &weights)
    {
        server.setRule(environmentListPath, ScriptedResponse::json(BrowserTestData::environmentPage(
                                                    environments, 1, int(environments.size()))));
        server.setRule(weightsListPath,
                       ScriptedResponse::json(BrowserTestData::weightsPage(weights, 1, 1, int(weights.size()))));
    }

    bool waitUntilIdle(QWidget *page) const
    {
        return QTest::qWaitFor([&] { return refreshButton(page)->isEnabled(); }, 5000);
    }

    std::unique_ptr<TemporaryHome> home;
    RecordingHttpServer server;
    PluginHost host;
};

QTEST_MAIN(OnlineResourcesWidgetTest)
#include "tst_online_resources_widget.moc"
