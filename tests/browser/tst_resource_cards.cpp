#include "BrowserTestData.h"
#include "RecordingHttpServer.h"

#include "browser/OnnxCard.h"
#include "browser/QenvCard.h"
#include "browser/ScriptCard.h"

#include <QBuffer>
#include <QDateTime>
#include <QGuiApplication>
#include <QImage>
#include <QLabel>
#include <QPushButton>
#include <QScreen>
#include <QSignalSpy>
#include <QTest>
#include <QTextDocument>

using namespace Quorix;
using namespace Quorix::Testing;

namespace {

QStringList visibleLabelTexts(const QWidget *card)
{
    QStringList texts;
    const auto labels = card->findChildren<QLabel *>();
    for (const QLabel *label : labels) {
        if (label->isVisibleTo(card) && !label->text().isEmpty())
            texts.append(label->text());
    }
    return texts;
}

const QLabel *labelWithText(const QWidget *card, const QString &text)
{
    const auto labels = card->findChildren<QLabel *>();
    for (const QLabel *label : labels) {
        if (label->text() == text)
            return label;
    }
    return nullptr;
}

QPushButton *button(const QWidget *card, const char *objectName)
{
    return card->findChild<QPushButton *>(QLatin1String(objectName));
}

QByteArray pngBytes(const QSize &size)
{
    QImage image(size, QImage::Format_RGB32);
    image.fill(Qt::red);
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG");
    return bytes;
}

} // namespace

class ResourceCardsTest : public QObject
{
    Q_OBJECT

private slots:
    void scriptCardShowsTheRecord();
    void scriptSubtypesGetTheirPill_data();
    void scriptSubtypesGetTheirPill();
    void visibilityDecidesBadgeAndDownload_data();
    void visibilityDecidesBadgeAndDownload();
    void likeStatesAndCounts();
    void defaultsForMissingKeys();
    void environmentCardWithAndWithoutMetadata();
    void weightsCardsPlainAndEncrypted();
    void restrictedEnvironmentsAndWeightsExplainTheirDownload();
    void cardSignalsCarryTheId();
    void thumbnails();
    void authorTextsAreNeverRenderedAsMarkup();
};

void ResourceCardsTest::scriptCardShowsTheRecord()
{
    QJsonObject item = BrowserTestData::script(QStringLiteral("s1"));
    item.insert(QStringLiteral("name"), QStringLiteral("Aim Assist"));
    item.insert(QStringLiteral("version"), QStringLiteral("2"));
    item.insert(QStringLiteral("downloads"), 1500000);
    item.insert(QStringLiteral("created"), QDateTime::currentDateTime().addDays(-7).toString(Qt::ISODate));
    item.insert(QStringLiteral("description"), QString(201, QLatin1Char('d')));
    ScriptCard card(item);

    QCOMPARE(card.width(), 280);
    const QStringList texts = visibleLabelTexts(&card);
    QVERIFY(texts.contains(QStringLiteral("Aim Assist")));
    QVERIFY(texts.contains(QStringLiteral("v2.00 • 1 weeks ago by ada")));
    QVERIFY(texts.contains(QStringLiteral("1.5M downloads")));
    QVERIFY(texts.contains(QString(197, QLatin1Char('d')) + QStringLiteral("...")));

    item.insert(QStringLiteral("description"), QString(200, QLatin1Char('e')));
    item.insert(QStringLiteral("version"), 0);
    item.insert(QStringLiteral("downloads"), 999);
    item.insert(QStringLiteral("created"), QStringLiteral("last spring"));
    item.insert(QStringLiteral("author"), QStringLiteral("plain author"));
    ScriptCard second(item);
    const QStringList secondTexts = visibleLabelTexts(&second);
    QVERIFY(secondTexts.contains(QString(200, QLatin1Char('e'))));
    QVERIFY(secondTexts.contains(QStringLiteral("last spring by plain author")));
    QVERIFY(secondTexts.contains(QStringLiteral("999 downloads")));
}

void ResourceCardsTest::scriptSubtypesGetTheirPill_data()
{
    QTest::addColumn<QString>("type");
    QTest::addColumn<QString>("pill");
    QTest::newRow("gpc3") << QStringLiteral("GPC3") << QStringLiteral("GPC3");
    QTest::newRow("gbc3") << QStringLiteral("gbc3") << QStringLiteral("GBC3");
    QTest::newRow("python") << QStringLiteral("python") << QStringLiteral("PYTHON");
    QTest::newRow("missing") << QString() << QStringLiteral("SCRIPT");
}

void ResourceCardsTest::scriptSubtypesGetTheirPill()
{
    QFETCH(QString, type);
    QFETCH(QString, pill);
    ScriptCard card(BrowserTestData::script(QStringLiteral("s1"), type));
    const QLabel *label = labelWithText(&card, pill);
    QVERIFY(label);
    QVERIFY(label->styleSheet().contains(QLatin1String("border: 1px solid #666")));
}

void ResourceCardsTest::visibilityDecidesBadgeAndDownload_data()
{
    QTest::addColumn<QJsonObject>("changes");
    QTest::addColumn<QString>("badge");
    QTest::addColumn<QString>("badgeColour");
    QTest::addColumn<bool>("downloadEnabled");
    QTest::addColumn<QString>("downloadToolTip");
    QTest::newRow("public") << QJsonObject{} << QString() << QString() << true << QString();
    QTest::newRow("older public flag false")
            << QJsonObject{{QStringLiteral("visibility_type"), QJsonValue()}, {QStringLiteral("is_public"), false}}
            << QStringLiteral("PRIVATE") << QStringLiteral("#f9a825") << true << QString();
    QTest::newRow("private, authorized") << QJsonObject{{QStringLiteral("visibility_type"), QStringLiteral("private")},
                                                        {QStringLiteral("can_download"), true}}
                                         << QStringLiteral("PRIVATE") << QStringLiteral("#f9a825") << true << QString();
    QTest::newRow("private, not authorized")
            << QJsonObject{{QStringLiteral("visibility_type"), QStringLiteral("private")},
                           {QStringLiteral("can_download"), false}}
            << QStringLiteral("PRIVATE") << QStringLiteral("#f9a825") << false
            << QStringLiteral("This script is private. You need authorization from the author.");
    QTest::newRow("locked") << QJsonObject{{QStringLiteral("visibility_type"), QStringLiteral("purchasable")},
                                           {QStringLiteral("can_download"), false}}
                            << QStringLiteral("LOCKED") << QStringLiteral("#e53935") << false
                            << QStringLiteral("This script is purchasable. Contact the author for access.");
    QTest::newRow("unknown visibility") << QJsonObject{{QStringLiteral("visibility_type"), QStringLiteral("unlisted")}}
                                        << QStringLiteral("UNLISTED") << QStringLiteral("#666") << true << QString();
}

void ResourceCardsTest::visibilityDecidesBadgeAndDownload()
{
    QFETCH(QJsonObject, changes);
    QFETCH(QString, badge);
    QFETCH(QString, badgeColour);
    QFETCH(bool, downloadEnabled);
    QFETCH(QString, downloadToolTip);

    QJsonObject item = BrowserTestData::script(QStringLiteral("s1"));
    for (auto it = changes.begin(); it != changes.end(); ++it) {
        if (it.value().isNull())
            item.remove(it.key());
        else
            item.insert(it.key(), it.value());
    }
    ScriptCard card(item);
    const QStringList texts = visibleLabelTexts(&card);
    for (const QString &hidden : {QStringLiteral("PRIVATE"), QStringLiteral("LOCKED"), QStringLiteral("PUBLIC")}) {
        if (hidden != badge)
            QVERIFY2(!texts.contains(hidden), qPrintable(hidden));
    }
    if (!badge.isEmpty()) {
        QVERIFY(texts.contains(badge));
        QVERIFY(labelWithText(&card, badge)->styleSheet().contains(badgeColour));
    }
    QPushButton *download = button(&card, "scriptCardDownloadButton");
    QCOMPARE(download->isEnabled(), downloadEnabled);
    QCOMPARE(download->toolTip(), downloadToolTip);
}

void ResourceCardsTest::likeStatesAndCounts()
{
    QJsonObject item = BrowserTestData::script(QStringLiteral("s1"));
    item.insert(QStringLiteral("likes"), 0);
    ScriptCard card(item);
    QPushButton *like = button(&card, "scriptCardLikeButton");
    QVERIFY(like->text().isEmpty());
    QVERIFY(!like->isChecked());
    QCOMPARE(like->toolTip(), QStringLiteral("Like this script"));

    card.setLiked(true);
    card.setLikeCount(1);
    card.updateLikeButton();
    QCOMPARE(like->text(), QStringLiteral("1"));
    QVERIFY(like->isChecked());
    QCOMPARE(like->toolTip(), QStringLiteral("Already liked"));

    // A click asks the server; the heart keeps the last known state until the answer comes.
    QSignalSpy likes(&card, &ScriptCard::likeClicked);
    like->click();
    QCOMPARE(likes.size(), 1);
    QVERIFY(like->isChecked());

    card.setLikeEnabled(false, QStringLiteral("Log in to like scripts"));
    QVERIFY(!like->isEnabled());
    QCOMPARE(like->toolTip(), QStringLiteral("Log in to like scripts"));
    card.setLiked(false);
    card.updateLikeButton();
    QCOMPARE(like->toolTip(), QStringLiteral("Log in to like scripts"));
}

void ResourceCardsTest::defaultsForMissingKeys()
{
    ScriptCard card(QJsonObject{{QStringLiteral("name"), QStringLiteral("Bare")}});
    QCOMPARE(card.scriptId(), QStringLiteral("unknown"));
    QVERIFY(button(&card, "scriptCardDownloadButton")->isEnabled());
    QVERIFY(button(&card, "scriptCardLikeButton")->text().isEmpty());
    QVERIFY(visibleLabelTexts(&card).contains(QStringLiteral("0 downloads")));
}

void ResourceCardsTest::environmentCardWithAndWithoutMetadata()
{
    QenvCard card(BrowserTestData::environment(QStringLiteral("e1")));
    QStringList texts = visibleLabelTexts(&card);
    QVERIFY(texts.contains(QStringLiteral("QENV")));
    QVERIFY(texts.contains(QStringLiteral("Python 3.11")));
    QVERIFY(texts.contains(QStringLiteral("12 downloads • 7 packages")));
    // Environments show no version in the meta line.
    QVERIFY(texts.contains(QStringLiteral("Today by ada")));
    QPushButton *install = button(&card, "qenvCardInstallButton");
    QVERIFY(install);
    QVERIFY(!button(&card, "scriptCardDownloadButton"));
    QCOMPARE(button(&card, "scriptCardLikeButton")->toolTip(), QStringLiteral("Like this environment"));

    QJsonObject bare = BrowserTestData::environment(QStringLiteral("e2"));
    bare.remove(QStringLiteral("qenv_metadata"));
    QenvCard withoutMetadata(bare);
    texts = visibleLabelTexts(&withoutMetadata);
    QVERIFY(texts.contains(QStringLiteral("Python 3.x")));
    QVERIFY(texts.contains(QStringLiteral("12 downloads • 0 packages")));
}

void ResourceCardsTest::weightsCardsPlainAndEncrypted()
{
    OnnxCard plain(BrowserTestData::weights(QStringLiteral("w1")));
    const QLabel *onnx = labelWithText(&plain, QStringLiteral("ONNX"));
    QVERIFY(onnx);
    QVERIFY(onnx->styleSheet().contains(QLatin1String("#00a0b0")));
    QCOMPARE(button(&plain, "scriptCardDownloadButton")->text(), QStringLiteral("Download (1.5 MB)"));
    QCOMPARE(button(&plain, "scriptCardLikeButton")->toolTip(), QStringLiteral("Like these weights"));
    QVERIFY(visibleLabelTexts(&plain).contains(QStringLiteral("v1.00 • Today by ada")));

    QJsonObject item = BrowserTestData::weights(QStringLiteral("w2"));
    item.insert(QStringLiteral("is_encrypted"), 1);
    item.insert(QStringLiteral("size"), 1023);
    OnnxCard encrypted(item);
    const QLabel *ennx = labelWithText(&encrypted, QStringLiteral("ENNX"));
    QVERIFY(ennx);
    QVERIFY(ennx->styleSheet().contains(QLatin1String("#8e44ad")));
    QVERIFY(!labelWithText(&encrypted, QStringLiteral("ONNX")));
    QCOMPARE(button(&encrypted, "scriptCardDownloadButton")->text(), QStringLiteral("Download (1023 B)"));

    item.insert(QStringLiteral("size"), qint64(3) * 1073741824);
    OnnxCard large(item);
    QCOMPARE(button(&large, "scriptCardDownloadButton")->text(), QStringLiteral("Download (3.0 GB)"));
}

void ResourceCardsTest::restrictedEnvironmentsAndWeightsExplainTheirDownload()
{
    QJsonObject environment = BrowserTestData::environment(QStringLiteral("e1"));
    environment.insert(QStringLiteral("visibility_type"), QStringLiteral("purchasable"));
    environment.insert(QStringLiteral("can_download"), false);
    QenvCard lockedEnvironment(environment);
    QCOMPARE(button(&lockedEnvironment, "qenvCardInstallButton")->toolTip(),
             QStringLiteral("This environment is purchasable. Contact the author for access."));
    QVERIFY(!button(&lockedEnvironment, "qenvCardInstallButton")->isEnabled());

    QJsonObject weights = BrowserTestData::weights(QStringLiteral("w1"));
    weights.insert(QStringLiteral("visibility_type"), QStringLiteral("private"));
    weights.insert(QStringLiteral("can_download"), false);
    OnnxCard privateWeights(weights);
    QCOMPARE(button(&privateWeights, "scriptCardDownloadButton")->toolTip(),
             QStringLiteral("These weights are private. You need authorization from the author."));
    QVERIFY(visibleLabelTexts(&privateWeights).contains(QStringLiteral("PRIVATE")));
}

void ResourceCardsTest::cardSignalsCarryTheId()
{
    QenvCard environment(BrowserTestData::environment(QStringLiteral("e7")));
    QSignalSpy installs(&environment, &QenvCard::installClicked);
    QSignalSpy clicks(&environment, &QenvCard::clicked);
    button(&environment, "qenvCardInstallButton")->click();
    QTest::mouseClick(&environment, Qt::LeftButton, {}, QPoint(140, 60));
    QCOMPARE(installs.size(), 1);
    QCOMPARE(installs.first().first().toString(), QStringLiteral("e7"));
    QCOMPARE(clicks.size(), 1);
    QCOMPARE(clicks.first().first().toString(), QStringLiteral("e7"));

    OnnxCard weights(BrowserTestData::weights(QStringLiteral("w7")));
    QSignalSpy downloads(&weights, &OnnxCard::downloadClicked);
    button(&weights, "scriptCardDownloadButton")->click();
    QCOMPARE(downloads.first().first().toString(), QStringLiteral("w7"));
}

void ResourceCardsTest::thumbnails()
{
    RecordingHttpServer server;
    QVERIFY(server.listen());
    server.setRule(QStringLiteral("/wide.png"), ScriptedResponse::bytes(pngBytes(QSize(800, 200)), "image/png"));
    server.setRule(QStringLiteral("/garbage.png"), ScriptedResponse::bytes("not an image", "image/png"));
    server.setRule(QStringLiteral("/missing.png"), ScriptedResponse::bytes("gone", "text/plain", 404));

    const auto cardWith = [&](const QString &address) {
        QJsonObject item = BrowserTestData::script(QStringLiteral("s1"));
        item.insert(QStringLiteral("thumbnail"), address);
        return std::make_unique<ScriptCard>(item);
    };
    const QString page = QStringLiteral("\U0001F4C4");
    const QString hourglass = QStringLiteral("\u23F3");

    auto none = cardWith(QString());
    QCOMPARE(none->findChild<QLabel *>(QStringLiteral("cardThumbnail"))->text(), page);

    auto wide = cardWith(server.url(QStringLiteral("/wide.png")).toString());
    const QLabel *picture = wide->findChild<QLabel *>(QStringLiteral("cardThumbnail"));
    QCOMPARE(picture->text(), hourglass);
    QTRY_VERIFY(!picture->pixmap().isNull());
    const qreal ratio = QGuiApplication::primaryScreen()->devicePixelRatio();
    QCOMPARE(picture->pixmap().size(), QSize(int(picture->width() * ratio), int(picture->height() * ratio)));
    QCOMPARE(picture->pixmap().devicePixelRatio(), ratio);

    auto garbage = cardWith(server.url(QStringLiteral("/garbage.png")).toString());
    auto missing = cardWith(server.url(QStringLiteral("/missing.png")).toString());
    QTRY_COMPARE(garbage->findChild<QLabel *>(QStringLiteral("cardThumbnail"))->text(), page);
    QTRY_COMPARE(missing->findChild<QLabel *>(QStringLiteral("cardThumbnail"))->text(), page);
    QVERIFY(missing->findChild<QLabel *>(QStringLiteral("cardThumbnail"))->pixmap().isNull());
}

void ResourceCardsTest::authorTextsAreNeverRenderedAsMarkup()
{
    const QString name = QStringLiteral("<h1 style='color:red'>Warning</h1><a href='x'>Click here to update now</a>");
    QJsonObject fields{
            {QStringLiteral("name"), name},
            {QStringLiteral("description"), QStringLiteral("<img src='x'><b>System alert</b>")},
            {QStringLiteral("author"), QStringLiteral("<i>Quorix Team</i>")},
            {QStringLiteral("type"), QStringLiteral("<u>gpc3</u>")},
            {QStringLiteral("visibility_type"), QStringLiteral("<b>odd</b>")},
            {QStringLiteral("qenv_metadata"), QJsonObject{{QStringLiteral("python"), QStringLiteral("<b>3</b>")}}}};
    const auto withId = [&](const QString &id) {
        QJsonObject record = fields;
        record.insert(QStringLiteral("id"), id);
        return record;
    };
    const std::vector<std::unique_ptr<QWidget>> cards = [&] {
        std::vector<std::unique_ptr<QWidget>> made;
        made.push_back(std::make_unique<ScriptCard>(withId(QStringLiteral("s")), nullptr));
        made.push_back(std::make_unique<QenvCard>(withId(QStringLiteral("e")), nullptr));
        made.push_back(std::make_unique<OnnxCard>(withId(QStringLiteral("w")), nullptr));
        return made;
    }();
    for (const auto &card : cards) {
        const auto labels = card->findChildren<QLabel *>();
        for (const QLabel *label : labels) {
            QVERIFY2(label->textFormat() == Qt::PlainText || !Qt::mightBeRichText(label->text()),
                     qPrintable(label->text()));
        }
        // The elided name's tool tip shows the name as written.
        const QLabel *nameLabel = nullptr;
        for (const QLabel *label : labels) {
            if (!label->toolTip().isEmpty())
                nameLabel = label;
        }
        QVERIFY(nameLabel);
        QTextDocument shown;
        shown.setHtml(nameLabel->toolTip());
        QCOMPARE(shown.toPlainText(), name);
    }
}

QTEST_MAIN(ResourceCardsTest)
#include "tst_resource_cards.moc"
