#include "core/ResourceRecord.h"

#include <QJsonDocument>
#include <QtTest>

#include <ctime>

using Quorix::ResourceRecord;

namespace {

QString yesNo(bool value)
{
    return value ? QStringLiteral("yes") : QStringLiteral("no");
}

const QStringList fields{"version", "visibility", "download", "encrypted", "author", "id", "type", "likes"};

// Every reading of a record, in the order of `fields`.
QStringList readings(const QJsonObject &r)
{
    return {ResourceRecord::versionText(r),
            ResourceRecord::visibility(r),
            yesNo(ResourceRecord::canDownload(r)),
            yesNo(ResourceRecord::isEncrypted(r)),
            ResourceRecord::authorName(r) + '/' + ResourceRecord::ownerDiscordId(r),
            ResourceRecord::id(r),
            ResourceRecord::type(r),
            QString::number(ResourceRecord::counter(r, "likes"))};
}

} // namespace

// What the cards and dialogs make of a record's fields, and how they write counts, sizes and dates.
class TestResourceRecord : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void fieldsAreRead_data();
    void fieldsAreRead();
    void amountsAreWritten_data();
    void amountsAreWritten();
    void relativeDates_data();
    void relativeDates();
};

void TestResourceRecord::fieldsAreRead_data()
{
    QTest::addColumn<QString>("reader");
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<QString>("expected");
    const struct
    {
        const char *tag, *reader, *json, *expected;
    } rows[] = {
            {"version string", "version", R"({"version": "2"})", "2.00"},
            {"version number", "version", R"({"version": 1.5})", "1.50"},
            {"version zero", "version", R"({"version": 0})", ""},
            {"version not a number", "version", R"({"version": "beta"})", ""},
            {"version wrong type", "version", R"({"version": [2]})", ""},
            {"visibility wins over is_public", "visibility", R"({"visibility_type": "purchasable", "is_public": true})",
             "purchasable"},
            {"is_public false", "visibility", R"({"is_public": false})", "private"},
            {"no visibility", "visibility", "{}", "public"},
            {"download by default", "download", "{}", "yes"},
            {"download refused", "download", R"({"can_download": false})", "no"},
            {"encrypted 1", "encrypted", R"({"is_encrypted": 1})", "yes"},
            {"encrypted 2", "encrypted", R"({"is_encrypted": 2})", "no"},
            {"encrypted as text", "encrypted", R"({"is_encrypted": "true"})", "no"},
            {"author object", "author", R"({"author": {"username": "neo", "name": "T", "discord_id": "12"}})",
             "neo/12"},
            {"older author object", "author", R"({"author": {"name": "Thomas", "discordId": "22"}})", "Thomas/22"},
            {"author as text", "author", R"({"author": "Trinity"})", "Trinity/"},
            {"empty id", "id", R"({"id": ""})", "unknown"},
            {"type in capitals", "type", R"({"type": "GPC3"})", "gpc3"},
            {"counter", "likes", R"({"likes": 42})", "42"},
            {"counter as text", "likes", R"({"likes": "many"})", "0"},
    };
    for (const auto &row : rows)
        QTest::newRow(row.tag) << QString(row.reader) << QByteArray(row.json) << QString(row.expected);
}

void TestResourceRecord::fieldsAreRead()
{
    QFETCH(QString, reader);
    QFETCH(QByteArray, json);
    QFETCH(QString, expected);
    QCOMPARE(readings(QJsonDocument::fromJson(json).object()).value(fields.indexOf(reader)), expected);
}

void TestResourceRecord::amountsAreWritten_data()
{
    QTest::addColumn<QString>("writer");
    QTest::addColumn<qint64>("amount");
    QTest::addColumn<qint64>("total");
    QTest::addColumn<QString>("expected");
    const auto row = [](const char *writer, qint64 amount, qint64 total, const char *expected) {
        QTest::addRow("%s %lld", writer, amount) << QString(writer) << amount << total << QString(expected);
    };
    row("count", 999, 0, "999");
    row("count", 1000, 0, "1.0K");
    row("count", 999999, 0, "1000.0K");
    row("count", 1500000, 0, "1.5M");
    row("size", 1023, 0, "1023 B");
    row("size", 1024, 0, "1.0 KB");
    row("size", 1073741823, 0, "1024.0 MB");
    row("size", 5368709120, 0, "5.0 GB");
    row("progress", 500, 1023, "500 B");
    row("progress", 300, 2048, "0 KB");
    row("progress", 1572864, 10485760, "1.5 MB");
}

void TestResourceRecord::amountsAreWritten()
{
    QFETCH(QString, writer);
    QFETCH(qint64, amount);
    QFETCH(qint64, total);
    QFETCH(QString, expected);
    const QString written = writer == "count"  ? ResourceRecord::abbreviatedCount(amount)
                            : writer == "size" ? ResourceRecord::fileSize(amount)
                                               : ResourceRecord::progressAmount(amount, total);
    QCOMPARE(written, expected);
}

void TestResourceRecord::relativeDates_data()
{
    // Server times are UTC; "now" is the user's local clock in the row's zone.
    QTest::addColumn<QByteArray>("zone");
    QTest::addColumn<QString>("created");
    QTest::addColumn<QString>("nowUtc");
    QTest::addColumn<QString>("shown");
    const QString now = QStringLiteral("2026-11-22T15:00:00Z");
    const auto back = [&](const char *tag, const char *zone, qint64 hours, const char *shown) {
        const QString created = QDateTime::fromString(now, Qt::ISODate).addSecs(-hours * 3600).toString(Qt::ISODate);
        QTest::newRow(tag) << QByteArray(zone) << created << now << QString(shown);
    };
    back("23 h", "UTC", 23, "Today");
    back("1 day", "UTC", 24, "Yesterday");
    back("6 days 23 h, Tokyo", "Asia/Tokyo", 7 * 24 - 1, "6 days ago");
    back("7 days", "UTC", 7 * 24, "1 weeks ago");
    back("29 days", "UTC", 29 * 24, "4 weeks ago");
    back("30 days", "UTC", 30 * 24, "1 months ago");
    back("360 days", "UTC", 360 * 24, "12 months ago");
    back("365 days", "UTC", 365 * 24, "1 years ago");
    back("three days ahead", "UTC", -3 * 24, "-3 days ago");
    // Half an hour old, just after local midnight west and east of Greenwich.
    QTest::newRow("30 min, Los Angeles") << QByteArray("America/Los_Angeles") << "2026-11-23T07:40:00Z"
                                         << "2026-11-23T08:10:00Z"
                                         << "Today";
    QTest::newRow("30 min, Kiritimati") << QByteArray("Pacific/Kiritimati") << "2026-11-22T09:40:00Z"
                                        << "2026-11-22T10:10:00Z"
                                        << "Today";
    QTest::newRow("local time without zone") << QByteArray("America/Los_Angeles") << "2026-11-22T23:50:00"
                                             << "2026-11-23T08:10:00Z"
                                             << "Today";
    QTest::newRow("clock behind the server") << QByteArray("UTC") << "2026-11-22T15:05:00Z" << now << "Today";
    QTest::newRow("milliseconds") << QByteArray("UTC") << "2026-11-20T10:00:00.123Z" << now << "2 days ago";
    QTest::newRow("unparsable") << QByteArray("UTC") << "last Tuesday" << now << "last Tuesday";
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
    const QString text
            = ResourceRecord::relativeDate(created, QDateTime::fromString(nowUtc, Qt::ISODate).toLocalTime());
    qputenv("TZ", previousZone);
    tzset();
    QCOMPARE(text, shown);
}

QTEST_GUILESS_MAIN(TestResourceRecord)
#include "tst_resource_record.moc"
