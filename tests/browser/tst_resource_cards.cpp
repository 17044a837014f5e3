#include "BrowserTestData.h"
#include "RecordingHttpServer.h"

#include "browser/OnnxCard.h"
#include "browser/QenvCard.h"
#include "browser/ScriptCard.h"
#include "browser/ThumbnailCache.h"

#include <QDateTime>
#include <QGuiApplication>
#include <QLabel>
#include <QPushButton>
#include <QScreen>
#include <QSignalSpy>
#include <QTest>
#include <QTextDocument>

#include <memory>

using namespace Quorix;
using namespace Quorix::Testing;

namespace {

const QString pageGlyph = QStringLiteral("\U0001F4C4");

std::unique_ptr<ResourceCard> makeCard(const QString &kind, const QJsonObject &item)
{
    if (kind == QLatin1String("qenv"))
        return std::make_unique<QenvCard>(item);
    if (kind == QLatin1String("onnx"))
        return std::make_unique<OnnxCard>(item);
    return std::make_unique<ScriptCard>(item);
}

QStringList visibleLabelTexts(const QWidget *card)
{
    QStringList texts;
    for (const QLabel *label : card->findChildren<QLabel *>()) {
        if (label->isVisibleTo(card) && !label->text().isEmpty())
            texts.append(label->text());
    }
    return texts;
}

const QLabel *labelWithText(const QWidget *card, const QString &text)
{
    for (const QLabel *label : card->findChildren<QLabel *>()) {
        if (label->text() == text)
            return label;
    }
    return nullptr;
}

QPushButton *likeButton(const QWidget *card)
{
    return card->findChild<QPushButton *>(QStringLiteral("scriptCardLikeButton"));
}

QPushButton *actionButton(const QWidget *card)
{
    auto *install = card->findChild<QPushButton *>(QStringLiteral("qenvCardInstallButton"));
    return install ? install : card->findChild<QPushButton *>(QStringLiteral("scriptCardDownloadButton"));
}

// Everything a reader can see or hover on a card, in widget order.
QStringList appearance(const QWidget *card)
{
    QStringList shown;
    for (const QWidget *child : card->findChildren<QWidget *>()) {
        const auto *label = qobject_cast<const QLabel *>(child);
        const auto *button = qobject_cast<const QAbstractButton *>(child);
        shown.append(QStringLiteral("%1|%2|%3|%4|%5|%6|%7")
                             .arg(child->objectName(),
                                  label    ? label->text()
                                  : button ? button->text()
                                           : QString(),
                                  child->toolTip(), child->styleSheet())
                             .arg(child->isVisibleTo(card))
                             .arg(child->isEnabled())
                             .arg(button && button->isChecked()));
    }
    return shown;
}

// Differs from the records of the tables in every field a card shows.
QJsonObject contrastingRecord(const QString &kind)
{
    return BrowserTestData::record(
            kind, QStringLiteral("other"),
            {{QStringLiteral("name"), QStringLiteral("A name far too long to fit on one card without being cut")},
             {QStringLiteral("type"), kind == QLatin1String("script") ? QStringLiteral("python") : kind},
             {QStringLiteral("visibility_type"), QStringLiteral("purchasable")},
             {QStringLiteral("can_download"), false},
             {QStringLiteral("likes"), 0},
             {QStringLiteral("downloads"), 5},
             {QStringLiteral("is_encrypted"), true},
             {QStringLiteral("size"), 10},
             {QStringLiteral("thumbnail"), QStringLiteral("http://127.0.0.1:9/none.png")},
             {QStringLiteral("qenv_metadata"), QJsonObject{{QStringLiteral("python"), QStringLiteral("2.7")}}}});
}

} // namespace

class ResourceCardsTest : public QObject
{
    Q_OBJECT

private slots:
    void cardShowsTheRecord_data();
    void cardShowsTheRecord();
    void visibilityDecidesBadgeAndDownload_data();
    void visibilityDecidesBadgeAndDownload();
    void likeStatesAndCounts();
    void cardSignalsCarryTheId();
    void thumbnailsAreFetchedOnceWhileCached();
    void authorTextsAreNeverRenderedAsMarkup();
};

void ResourceCardsTest::cardShowsTheRecord_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QJsonObject>("changes");
    QTest::addColumn<QStringList>("texts");
    QTest::addColumn<QString>("pillColour");
    QTest::addColumn<QString>("action");
    const QString weekAgo = QDateTime::currentDateTime().addDays(-7).toString(Qt::ISODate);
    const QJsonObject script{{"name", "Aim Assist"},
                             {"version", "2"},
                             {"downloads", 1500000},
                             {"created", weekAgo},
                             {"description", QString(201, 'd')}};
    const QJsonObject plain{{"description", QString(200, 'e')}, {"version", 0},          {"downloads", 999},
                            {"created", "last spring"},         {"author", "plain author"}, {"type", "gbc3"}};
    const struct
    {
        const char *tag, *kind;
        QJsonObject changes;
        QStringList texts;
        const char *pillColour, *action;
    } rows[] = {
            {"script", "script", script,
             {"GPC3", "Aim Assist", "v2.00 • 1 weeks ago by ada", "1.5M downloads", QString(197, 'd') + "..."}, "#666",
             "Download"},
            {"script, plain fields", "script", plain,
             {"GBC3", QString(200, 'e'), "last spring by plain author", "999 downloads"}, "#666", "Download"},
            {"python script", "script", {{"type", "python"}}, {"PYTHON"}, "#666", "Download"},
            {"script without type or counters", "script", {{"type", QJsonValue()}, {"downloads", QJsonValue()}},
             {"SCRIPT", "0 downloads"}, "#666", "Download"},
            {"environment", "qenv", {}, {"QENV", "Python 3.11", "12 downloads • 7 packages", "Today by ada"}, "#666",
             "Install"},
            {"environment without metadata", "qenv", {{"qenv_metadata", QJsonValue()}},
             {"QENV", "Python 3.x", "12 downloads • 0 packages"}, "#666", "Install"},
            {"weights", "onnx", {}, {"ONNX", "v1.00 • Today by ada"}, "#00a0b0", "Download (1.5 MB)"},
            {"encrypted weights", "onnx", {{"is_encrypted", 1}, {"size", 1023}}, {"ENNX"}, "#8e44ad",
             "Download (1023 B)"},
            {"large weights", "onnx", {{"size", qint64(3) * 1073741824}}, {"ONNX"}, "#00a0b0", "Download (3.0 GB)"},
    };
    for (const auto &row : rows)
        QTest::newRow(row.tag) << QString(row.kind) << row.changes << row.texts << QString(row.pillColour)
                               << QString(row.action);
}

// A card that the grid reuses for another record must look exactly like a card made for that record.
void ResourceCardsTest::cardShowsTheRecord()
{
    QFETCH(QString, kind);
    QFETCH(QJsonObject, changes);
    QFETCH(QStringList, texts);
    QFETCH(QString, pillColour);
    QFETCH(QString, action);
    const QJsonObject item = BrowserTestData::record(kind, QStringLiteral("r1"), changes);
    const auto card = makeCard(kind, item);
    const QStringList shown = visibleLabelTexts(card.get());
    for (const QString &text : std::as_const(texts))
        QVERIFY2(shown.contains(text), qPrintable(text + QLatin1String(" in ") + shown.join(QLatin1Char('|'))));
    QVERIFY(labelWithText(card.get(), texts.first())->styleSheet().contains(pillColour));
    QVERIFY(!shown.contains(kind == QLatin1String("onnx") && texts.first() == "ENNX" ? "ONNX" : "ENNX"));
    QCOMPARE(actionButton(card.get())->text(), action);
    QCOMPARE(likeButton(card.get())->toolTip(), kind == QLatin1String("qenv")   ? "Like this environment"
                                                : kind == QLatin1String("onnx") ? "Like these weights"
                                                                                : "Like this script");

    const auto reused = makeCard(kind, contrastingRecord(kind));
    reused->setLiked(true);
    reused->bind(item);
    QCOMPARE(reused->resourceId(), QStringLiteral("r1"));
    QCOMPARE(appearance(reused.get()), appearance(card.get()));
}

void ResourceCardsTest::visibilityDecidesBadgeAndDownload_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QJsonObject>("changes");
    QTest::addColumn<QString>("badge");
    QTest::addColumn<QString>("badgeColour");
    QTest::addColumn<bool>("downloadEnabled");
    QTest::addColumn<QString>("downloadToolTip");
    const QString hidden = "%1 private. You need authorization from the author.",
                  locked = "%1 purchasable. Contact the author for access.";
    const QJsonObject privateRefused{{"visibility_type", "private"}, {"can_download", false}},
            lockedRefused{{"visibility_type", "purchasable"}, {"can_download", false}};
    const struct
    {
        const char *tag, *kind;
        QJsonObject changes;
        QString badge, badgeColour;
        bool downloadEnabled;
        QString downloadToolTip;
    } rows[] = {
            {"public", "script", {}, {}, {}, true, {}},
            {"older public flag false", "script", {{"visibility_type", QJsonValue()}, {"is_public", false}}, "PRIVATE",
             "#f9a825", true, {}},
            {"private, authorized", "script", {{"visibility_type", "private"}, {"can_download", true}}, "PRIVATE",
             "#f9a825", true, {}},
            {"private, not authorized", "script", privateRefused, "PRIVATE", "#f9a825", false,
             hidden.arg("This script is")},
            {"locked", "script", lockedRefused, "LOCKED", "#e53935", false, locked.arg("This script is")},
            {"unknown visibility", "script", {{"visibility_type", "unlisted"}}, "UNLISTED", "#666", true, {}},
            {"locked environment", "qenv", lockedRefused, "LOCKED", "#e53935", false,
             locked.arg("This environment is")},
            {"private weights", "onnx", privateRefused, "PRIVATE", "#f9a825", false, hidden.arg("These weights are")},
    };
    for (const auto &row : rows)
        QTest::newRow(row.tag) << QString(row.kind) << row.changes << row.badge << row.badgeColour
                               << row.downloadEnabled << row.downloadToolTip;
}

void ResourceCardsTest::visibilityDecidesBadgeAndDownload()
{
    QFETCH(QString, kind);
    QFETCH(QJsonObject, changes);
    QFETCH(QString, badge);
    QFETCH(QString, badgeColour);
    QFETCH(bool, downloadEnabled);
    QFETCH(QString, downloadToolTip);
    const QJsonObject item = BrowserTestData::record(kind, QStringLiteral("r1"), changes);
    const auto fresh = makeCard(kind, item);
    const auto reused = makeCard(kind, contrastingRecord(kind));
    reused->bind(item);
    for (const ResourceCard *card : {fresh.get(), reused.get()}) {
        const QStringList texts = visibleLabelTexts(card);
        for (const QString &other : {QStringLiteral("PRIVATE"), QStringLiteral("LOCKED"), QStringLiteral("PUBLIC")})
            QVERIFY2(other == badge || !texts.contains(other), qPrintable(other));
        if (!badge.isEmpty()) {
            QVERIFY(texts.contains(badge));
            QVERIFY(labelWithText(card, badge)->styleSheet().contains(badgeColour));
        }
        QCOMPARE(actionButton(card)->isEnabled(), downloadEnabled);
        QCOMPARE(actionButton(card)->toolTip(), downloadToolTip);
    }
}

// Counts, the liked look and the answer to a click are checked on the page; here what the card keeps by itself.
void ResourceCardsTest::likeStatesAndCounts()
{
    ScriptCard card(BrowserTestData::record(QStringLiteral("script"), QStringLiteral("s1"), {{"likes", 0}}));
    QPushButton *like = likeButton(&card);
    QVERIFY(like->text().isEmpty());
    card.setLiked(true);
    card.updateLikeButton();
    // A click asks the server; the heart keeps the last known state until the answer comes.
    like->click();
    QVERIFY(like->isChecked());
    // Reused for another record, the card keeps the sign-in state but not the previous record's like.
    card.setLikeEnabled(false, QStringLiteral("Log in to like scripts"));
    card.bind(BrowserTestData::script(QStringLiteral("s2")));
    QVERIFY(!like->isChecked());
    QVERIFY(!like->isEnabled());
    QCOMPARE(like->toolTip(), QStringLiteral("Log in to like scripts"));
}

void ResourceCardsTest::cardSignalsCarryTheId()
{
    QenvCard environment(BrowserTestData::environment(QStringLiteral("e7")));
    QSignalSpy installs(&environment, &QenvCard::installClicked);
    actionButton(&environment)->click();
    QCOMPARE(installs.size(), 1);
    QCOMPARE(installs.first().first().toString(), QStringLiteral("e7"));

    OnnxCard weights(BrowserTestData::weights(QStringLiteral("w7")));
    weights.bind(BrowserTestData::weights(QStringLiteral("w8")));
    QSignalSpy downloads(&weights, &OnnxCard::downloadClicked);
    actionButton(&weights)->click();
    QCOMPARE(downloads.first().first().toString(), QStringLiteral("w8"));
}

void ResourceCardsTest::thumbnailsAreFetchedOnceWhileCached()
{
    RecordingHttpServer server;
    QVERIFY(server.listen());
    server.setRule(QStringLiteral("/wide.png"), ScriptedResponse::bytes(BrowserTestData::png({800, 200}), "image/png"));
    server.setRule(QStringLiteral("/other.png"), ScriptedResponse::bytes(BrowserTestData::png({300, 300}), "image/png"));
    server.setRule(QStringLiteral("/garbage.png"), ScriptedResponse::bytes("not an image", "image/png"));
    server.setRule(QStringLiteral("/missing.png"), ScriptedResponse::bytes("gone", "text/plain", 404));
    const auto picture = [&](const QString &path) {
        const QString address = path.isEmpty() ? QString() : server.url(path).toString();
        auto card = std::make_unique<ScriptCard>(BrowserTestData::record("script", "s1", {{"thumbnail", address}}));
        return std::make_pair(std::move(card), card->findChild<QLabel *>(QStringLiteral("cardThumbnail")));
    };
    const auto fetches = [&](const QString &path) {
        int count = 0;
        for (const RecordedRequest &request : server.requests())
            count += request.path() == path;
        return count;
    };

    QCOMPARE(picture(QString()).second->text(), pageGlyph);
    auto [first, wide] = picture(QStringLiteral("/wide.png"));
    QCOMPARE(wide->text(), QStringLiteral("\u23F3"));
    auto [second, waiting] = picture(QStringLiteral("/wide.png"));
    QTRY_VERIFY(!wide->pixmap().isNull());
    const qreal ratio = QGuiApplication::primaryScreen()->devicePixelRatio();
    QCOMPARE(wide->pixmap().size(), QSize(int(wide->width() * ratio), int(wide->height() * ratio)));
    QCOMPARE(wide->pixmap().devicePixelRatio(), ratio);
    QVERIFY(!waiting->pixmap().isNull());
    QVERIFY(!picture(QStringLiteral("/wide.png")).second->pixmap().isNull());
    QCOMPARE(fetches(QStringLiteral("/wide.png")), 1);

    auto [garbageCard, garbage] = picture(QStringLiteral("/garbage.png"));
    auto [missingCard, missing] = picture(QStringLiteral("/missing.png"));
    QTRY_COMPARE(garbage->text(), pageGlyph);
    QTRY_COMPARE(missing->text(), pageGlyph);
    QVERIFY(missing->pixmap().isNull());

    // The budget counts bytes: room for one picture only pushes the first one out when the second arrives.
    const QImage one = wide->pixmap().toImage();
    ThumbnailCache::instance()->setBudget(one.sizeInBytes());
    auto [otherCard, other] = picture(QStringLiteral("/other.png"));
    QTRY_VERIFY(!other->pixmap().isNull());
    auto [again, refetched] = picture(QStringLiteral("/wide.png"));
    QTRY_VERIFY(!refetched->pixmap().isNull());
    QCOMPARE(fetches(QStringLiteral("/wide.png")), 2);
    ThumbnailCache::instance()->setBudget(ThumbnailCache::defaultBudget);
}

void ResourceCardsTest::authorTextsAreNeverRenderedAsMarkup()
{
    const QString name = QStringLiteral("<h1 style='color:red'>Warning</h1><a href='x'>Click here to update now</a>");
    const QJsonObject fields{{"name", name},
                             {"description", "<img src='x'><b>System alert</b>"},
                             {"author", "<i>Quorix Team</i>"},
                             {"type", "<u>gpc3</u>"},
                             {"visibility_type", "<b>odd</b>"},
                             {"qenv_metadata", QJsonObject{{"python", "<b>3</b>"}}}};
    for (const QString kind : {"script", "qenv", "onnx"}) {
        const auto card = makeCard(kind, fields);
        const QLabel *nameLabel = nullptr;
        for (const QLabel *label : card->findChildren<QLabel *>()) {
            QVERIFY2(label->textFormat() == Qt::PlainText || !Qt::mightBeRichText(label->text()),
                     qPrintable(label->text()));
            if (!label->toolTip().isEmpty())
                nameLabel = label;
        }
        // The elided name's tool tip shows the name as written.
        QVERIFY(nameLabel);
        QTextDocument shown;
        shown.setHtml(nameLabel->toolTip());
        QCOMPARE(shown.toPlainText(), name);
    }
}

QTEST_MAIN(ResourceCardsTest)
#include "tst_resource_cards.moc"
