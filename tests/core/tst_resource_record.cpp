#include "core/ResourceRecord.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QtTest>

#include <ctime>

using Quorix::ResourceRecord;

namespace {

QJsonObject record(const char *json)
{
    return QJsonDocument::fromJson(json).object();
}

} // namespace

class TestResourceRecord : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void versionShownOnlyAboveZero_data();
    void versionShownOnlyAboveZero();
    void visibilityFallsBackToIsPublic_data();
    void visibilityFallsBackToIsPublic();
    void downloadAllowedUnlessRefused();
    void encryptionAcceptsBooleanAndOne();
    void authorFromObjectOrPlainString();
    void idAndCountersHaveDefaults();
    void countsAreAbbreviated_data();
    void countsAreAbbreviated();
    void relativeDates_data();
    void relativeDates();
    void fileSizesUseBinaryUnits_data();
    void fileSizesUseBinaryUnits();
    void progressUsesTheTotalsUnit_data();
    void progressUsesTheTotalsUnit();
};

void TestResourceRecord::versionShownOnlyAboveZero_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<QString>("shown");
    QTest::newRow("string 2") << QByteArray(R"({"version": "2"})") << "2.00";
    QTest::newRow("number 1.5") << QByteArray(R"({"version": 1.5})") << "1.50";
    QTest::newRow("string with blanks") << QByteArray(R"({"version": " 3.25 "})") << "3.25";
    QTest::newRow("zero") << QByteArray(R"({"version": 0})") << "";
    QTest::newRow("negative") << QByteArray(R"({"version": -1})") << "";
    QTest::newRow("absent") << QByteArray(R"({})") << "";
    QTest::newRow("not a number") << QByteArray(R"({"version": "beta"})") << "";
    QTest::newRow("wrong type") << QByteArray(R"({"version": [2]})") << "";
}

void TestResourceRecord::versionShownOnlyAboveZero()
{
    QFETCH(QByteArray, json);
    QFETCH(QString, shown);
    QCOMPARE(ResourceRecord::versionText(record(json)), shown);
}

void TestResourceRecord::visibilityFallsBackToIsPublic_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<QString>("visibility");
    QTest::newRow("explicit locked") << QByteArray(R"({"visibility_type": "purchasable", "is_public": true})")
                                     << "purchasable";
    QTest::newRow("is_public false") << QByteArray(R"({"is_public": false})") << "private";
    QTest::newRow("is_public true") << QByteArray(R"({"is_public": true})") << "public";
    QTest::newRow("neither key") << QByteArray(R"({})") << "public";
}

void TestResourceRecord::visibilityFallsBackToIsPublic()
{
    QFETCH(QByteArray, json);
    QFETCH(QString, visibility);
    QCOMPARE(ResourceRecord::visibility(record(json)), visibility);
}

void TestResourceRecord::downloadAllowedUnlessRefused()
{
    QVERIFY(ResourceRecord::canDownload(record("{}")));
    QVERIFY(ResourceRecord::canDownload(record(R"({"can_download": true})")));
    QVERIFY(!ResourceRecord::canDownload(record(R"({"can_download": false})")));
}

void TestResourceRecord::encryptionAcceptsBooleanAndOne()
{
    QVERIFY(ResourceRecord::isEncrypted(record(R"({"is_encrypted": true})")));
    QVERIFY(ResourceRecord::isEncrypted(record(R"({"is_encrypted": 1})")));
    QVERIFY(!ResourceRecord::isEncrypted(record(R"({"is_encrypted": 0})")));
    QVERIFY(!ResourceRecord::isEncrypted(record(R"({"is_encrypted": 2})")));
    QVERIFY(!ResourceRecord::isEncrypted(record(R"({"is_encrypted": "true"})")));
    QVERIFY(!ResourceRecord::isEncrypted(record("{}")));
}

void TestResourceRecord::authorFromObjectOrPlainString()
{
    const QJsonObject full
            = record(R"({"author": {"username": "neo", "name": "Thomas", "discord_id": "123456789012345678"}})");
    QCOMPARE(ResourceRecord::authorName(full), QStringLiteral("neo"));
    QCOMPARE(ResourceRecord::ownerDiscordId(full), QStringLiteral("123456789012345678"));

    const QJsonObject older = record(R"({"author": {"name": "Thomas", "discordId": "223456789012345678"}})");
    QCOMPARE(ResourceRecord::authorName(older), QStringLiteral("Thomas"));
    QCOMPARE(ResourceRecord::ownerDiscordId(older), QStringLiteral("223456789012345678"));

    const QJsonObject plain = record(R"({"author": "Trinity"})");
    QCOMPARE(ResourceRecord::authorName(plain), QStringLiteral("Trinity"));
    QVERIFY(ResourceRecord::ownerDiscordId(plain).isEmpty());

    QVERIFY(ResourceRecord::authorName(record("{}")).isEmpty());
}

void TestResourceRecord::idAndCountersHaveDefaults()
{
    QCOMPARE(ResourceRecord::id(record("{}")), QStringLiteral("unknown"));
    QCOMPARE(ResourceRecord::id(record(R"({"id": ""})")), QStringLiteral("unknown"));
    QCOMPARE(ResourceRecord::id(record(R"({"id": "abc"})")), QStringLiteral("abc"));
    QCOMPARE(ResourceRecord::type(record(R"({"type": "GPC3"})")), QStringLiteral("gpc3"));
    QCOMPARE(ResourceRecord::counter(record("{}"), QStringLiteral("downloads")), 0);
    QCOMPARE(ResourceRecord::counter(record(R"({"likes": 42})"), QStringLiteral("likes")), 42);
    QCOMPARE(ResourceRecord::counter(record(R"({"likes": "many"})"), QStringLiteral("likes")), 0);
    QCOMPARE(ResourceRecord::counter(record(R"({"size": 5368709120})"), QStringLiteral("size")), Q_INT64_C(5368709120));
}

void TestResourceRecord::countsAreAbbreviated_data()
{
    QTest::addColumn<qint64>("count");
    QTest::addColumn<QString>("shown");
    QTest::newRow("0") << qint64(0) << "0";
    QTest::newRow("999") << qint64(999) << "999";
    QTest::newRow("1000") << qint64(1000) << "1.0K";
    QTest::newRow("1500") << qint64(1500) << "1.5K";
    QTest::newRow("999999") << qint64(999999) << "1000.0K";
    QTest::newRow("1000000") << qint64(1000000) << "1.0M";
    QTest::newRow("1500000") << qint64(1500000) << "1.5M";
}

void TestResourceRecord::countsAreAbbreviated()
{
    QFETCH(qint64, count);
    QFETCH(QString, shown);
    QCOMPARE(ResourceRecord::abbreviatedCount(count), shown);
}

void TestResourceRecord::relativeDates_data()
{
    // Server times are UTC; "now" is the user's local clock, in the zone of the row.
    QTest::addColumn<QByteArray>("zone");
    QTest::addColumn<QString>("created");
    QTest::addColumn<QString>("nowUtc");
    QTest::addColumn<QString>("shown");
    const QString now = QStringLiteral("2026-11-22T15:00:00Z");
    const QDateTime nowInstant = QDateTime::fromString(now, Qt::ISODate);
    const auto back = [&](qint64 seconds) {
        return nowInstant.addSecs(-seconds).toString(Qt::ISODate);
    };
    const qint64 hour = 3600;
    const qint64 day = 24 * hour;
    QTest::newRow("today") << QByteArray("UTC") << back(0) << now << "Today";
    QTest::newRow("23 h") << QByteArray("UTC") << back(23 * hour) << now << "Today";
    QTest::newRow("yesterday") << QByteArray("UTC") << back(day) << now << "Yesterday";
    QTest::newRow("6 days") << QByteArray("UTC") << back(6 * day) << now << "6 days ago";
    QTest::newRow("6 days 23 h") << QByteArray("Asia/Tokyo") << back(7 * day - hour) << now << "6 days ago";
    QTest::newRow("7 days") << QByteArray("UTC") << back(7 * day) << now << "1 weeks ago";
    QTest::newRow("29 days") << QByteArray("UTC") << back(29 * day) << now << "4 weeks ago";
    QTest::newRow("30 days") << QByteArray("UTC") << back(30 * day) << now << "1 months ago";
    QTest::newRow("360 days") << QByteArray("UTC") << back(360 * day) << now << "12 months ago";
    QTest::newRow("365 days") << QByteArray("UTC") << back(365 * day) << now << "1 years ago";
    // Half an hour old, just after local midnight west and east of Greenwich.
    QTest::newRow("30 min, Los Angeles") << QByteArray("America/Los_Angeles") << QStringLiteral("2026-11-23T07:40:00Z")
                                         << QStringLiteral("2026-11-23T08:10:00Z") << "Today";
    QTest::newRow("30 min, Tokyo") << QByteArray("Asia/Tokyo") << QStringLiteral("2026-11-22T14:40:00Z")
                                   << QStringLiteral("2026-11-22T15:10:00Z") << "Today";
    QTest::newRow("30 min, Kiritimati") << QByteArray("Pacific/Kiritimati") << QStringLiteral("2026-11-22T09:40:00Z")
                                        << QStringLiteral("2026-11-22T10:10:00Z") << "Today";
    QTest::newRow("local time without zone")
            << QByteArray("America/Los_Angeles") << QStringLiteral("2026-11-22T23:50:00")
            << QStringLiteral("2026-11-23T08:10:00Z") << "Today";
    QTest::newRow("clock a little behind the server")
            << QByteArray("UTC") << QStringLiteral("2026-11-22T15:05:00Z") << now << "Today";
    QTest::newRow("three days ahead") << QByteArray("UTC") << back(-3 * day) << now << "-3 days ago";
    QTest::newRow("with milliseconds") << QByteArray("UTC") << QStringLiteral("2026-11-20T10:00:00.123Z") << now
                                       << "2 days ago";
    QTest::newRow("unparsable") << QByteArray("UTC") << QStringLiteral("last Tuesday") << now << "last Tuesday";
    QTest::newRow("empty") << QByteArray("UTC") << QString() << now << "";
}

void TestResourceRecord::relativeDates()
{
    QFETCH(QByteArray, zone);
    QFETCH(QString, created);
    QFETCH(QString, nowUtc);
    QFETCH(QString, shown);
    const QByteArray previousZone = qgetenv("TZ");
    qputenv("TZ", zone);
    tzset();
    const QDateTime now = QDateTime::fromString(nowUtc, Qt::ISODate).toLocalTime();
    const QString text = ResourceRecord::relativeDate(created, now);
    qputenv("TZ", previousZone);
    tzset();
    QCOMPARE(text, shown);
}

void TestResourceRecord::fileSizesUseBinaryUnits_data()
{
    QTest::addColumn<qint64>("bytes");
    QTest::addColumn<QString>("shown");
    QTest::newRow("1023") << qint64(1023) << "1023 B";
    QTest::newRow("1024") << qint64(1024) << "1.0 KB";
    QTest::newRow("1.5 MB") << qint64(1572864) << "1.5 MB";
    QTest::newRow("just below 1 GB") << qint64(1073741823) << "1024.0 MB";
    QTest::newRow("1 GB") << qint64(1073741824) << "1.0 GB";
    QTest::newRow("5 GB") << qint64(5368709120) << "5.0 GB";
}

void TestResourceRecord::fileSizesUseBinaryUnits()
{
    QFETCH(qint64, bytes);
    QFETCH(QString, shown);
    QCOMPARE(ResourceRecord::fileSize(bytes), shown);
}

void TestResourceRecord::progressUsesTheTotalsUnit_data()
{
    QTest::addColumn<qint64>("received");
    QTest::addColumn<qint64>("total");
    QTest::addColumn<QString>("shown");
    QTest::newRow("bytes") << qint64(500) << qint64(1023) << "500 B";
    QTest::newRow("KB below 1024 received") << qint64(300) << qint64(2048) << "0 KB";
    QTest::newRow("KB total") << qint64(2048) << qint64(2048) << "2 KB";
    QTest::newRow("MB") << qint64(1572864) << qint64(10485760) << "1.5 MB";
}

void TestResourceRecord::progressUsesTheTotalsUnit()
{
    QFETCH(qint64, received);
    QFETCH(qint64, total);
    QFETCH(QString, shown);
    QCOMPARE(ResourceRecord::progressAmount(received, total), shown);
}

QTEST_GUILESS_MAIN(TestResourceRecord)
#include "tst_resource_record.moc"
