#pragma once

#include <QDateTime>
#include <QJsonObject>
#include <QString>

namespace Quorix {

// Readers for catalogue records (scripts, environment packages, weights). Widgets read records only through these,
// so that every screen applies the same defaults to missing or oddly typed keys.
class ResourceRecord
{
public:
    // "id", or "unknown" when absent or empty.
    static QString id(const QJsonObject &record);
    // "type" lower-cased ("gpc3", "gbc3", "python", ...).
    static QString type(const QJsonObject &record);

    // "version" as a number (a JSON number or a string holding one); 0 when absent or not a number.
    static double version(const QJsonObject &record);
    // The version with two decimals ("2.00"), or empty when it is not above 0.
    static QString versionText(const QJsonObject &record);

    // "visibility_type", falling back to "is_public" (default true) when the key is absent.
    static QString visibility(const QJsonObject &record);
    // "can_download", true when absent.
    static bool canDownload(const QJsonObject &record);
    // "is_encrypted" true, or the integer 1.
    static bool isEncrypted(const QJsonObject &record);

    // The publisher's display name: "username", else "name", else a plain-string "author".
    static QString authorName(const QJsonObject &record);
    // The publisher's Discord ID ("discord_id", else "discordId"); empty for a plain-string author.
    static QString ownerDiscordId(const QJsonObject &record);

    // An integer counter such as "downloads", "views" or "likes"; 0 when absent.
    static qint64 counter(const QJsonObject &record, const QString &key);

    // 999, 1.0K, 1.5M.
    static QString abbreviatedCount(qint64 count);
    // "Today", "Yesterday", "%1 days ago", "%1 weeks ago", ...; the raw text when it is not an ISO 8601 date-time.
    static QString relativeDate(const QString &isoDateTime, const QDateTime &now);

    // A file size in binary units with one decimal ("1.5 MB"); whole bytes below 1024.
    static QString fileSize(qint64 bytes);
    // Download progress: both figures in the unit chosen by the total ("12 / 48 KB" style pair).
    static QString progressAmount(qint64 bytes, qint64 total);
};

} // namespace Quorix
