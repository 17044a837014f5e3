#include "ResourceRecord.h"

#include <QCoreApplication>
#include <QJsonValue>

namespace Quorix {

namespace {

constexpr qint64 KiB = 1024;
constexpr qint64 MiB = 1024 * 1024;
constexpr qint64 GiB = 1024 * 1024 * 1024;

QString tr(const char *text)
{
    return QCoreApplication::translate("Quorix::ResourceRecord", text);
}

QJsonObject authorObject(const QJsonObject &record)
{
    return record.value(QLatin1String("author")).toObject();
}

} // namespace

QString ResourceRecord::id(const QJsonObject &record)
{
    const QString value = record.value(QLatin1String("id")).toString();
    return value.isEmpty() ? QStringLiteral("unknown") : value;
}

QString ResourceRecord::type(const QJsonObject &record)
{
    return record.value(QLatin1String("type")).toString().toLower();
}

double ResourceRecord::version(const QJsonObject &record)
{
    const QJsonValue value = record.value(QLatin1String("version"));
    if (value.isDouble())
        return value.toDouble();
    if (value.isString()) {
        bool ok = false;
        const double number = value.toString().trimmed().toDouble(&ok);
        return ok ? number : 0.0;
    }
    return 0.0;
}

QString ResourceRecord::versionText(const QJsonObject &record)
{
    const double number = version(record);
    return number > 0.0 ? QString::number(number, 'f', 2) : QString();
}

QString ResourceRecord::visibility(const QJsonObject &record)
{
    const QJsonValue value = record.value(QLatin1String("visibility_type"));
    if (!value.isUndefined() && !value.isNull())
        return value.toString();
    return record.value(QLatin1String("is_public")).toBool(true) ? QStringLiteral("public")
                                                                 : QStringLiteral("private");
}

bool ResourceRecord::canDownload(const QJsonObject &record)
{
    return record.value(QLatin1String("can_download")).toBool(true);
}

bool ResourceRecord::isEncrypted(const QJsonObject &record)
{
    const QJsonValue value = record.value(QLatin1String("is_encrypted"));
    return value.toBool(false) || (value.isDouble() && value.toDouble() == 1.0);
}

QString ResourceRecord::authorName(const QJsonObject &record)
{
    const QJsonValue author = record.value(QLatin1String("author"));
    if (author.isString())
        return author.toString();
    const QJsonObject object = author.toObject();
    const QString username = object.value(QLatin1String("username")).toString();
    return username.isEmpty() ? object.value(QLatin1String("name")).toString() : username;
}

QString ResourceRecord::ownerDiscordId(const QJsonObject &record)
{
    const QJsonObject author = authorObject(record);
    const QString id = author.value(QLatin1String("discord_id")).toString();
    return id.isEmpty() ? author.value(QLatin1String("discordId")).toString() : id;
}

qint64 ResourceRecord::counter(const QJsonObject &record, const QString &key)
{
    return record.value(key).toInteger(0);
}

QString ResourceRecord::abbreviatedCount(qint64 count)
{
    if (count >= 1000000)
        return QStringLiteral("%1M").arg(QString::number(double(count) / 1000000.0, 'f', 1));
    if (count >= 1000)
        return QStringLiteral("%1K").arg(QString::number(double(count) / 1000.0, 'f', 1));
    return QString::number(count);
}

QString ResourceRecord::relativeDate(const QString &isoDateTime, const QDateTime &now)
{
    const QDateTime created = QDateTime::fromString(isoDateTime, Qt::ISODate);
    if (!created.isValid())
        return isoDateTime;
    // Elapsed whole days, not calendar midnights: the server writes UTC and the user's clock is local, so counting
    // midnights would call a half-hour-old item "Yesterday" east of Greenwich.
    constexpr qint64 secondsPerDay = 24 * 60 * 60;
    const qint64 days = created.secsTo(now) / secondsPerDay;
    if (days == 0)
        return tr("Today");
    if (days == 1)
        return tr("Yesterday");
    if (days < 7)
        return tr("%1 days ago").arg(days);
    if (days < 30)
        return tr("%1 weeks ago").arg(days / 7);
    if (days < 365)
        return tr("%1 months ago").arg(days / 30);
    return tr("%1 years ago").arg(days / 365);
}

QString ResourceRecord::fileSize(qint64 bytes)
{
    if (bytes >= GiB)
        return QStringLiteral("%1 GB").arg(QString::number(double(bytes) / GiB, 'f', 1));
    if (bytes >= MiB)
        return QStringLiteral("%1 MB").arg(QString::number(double(bytes) / MiB, 'f', 1));
    if (bytes < KiB)
        return QStringLiteral("%1 B").arg(bytes);
    return QStringLiteral("%1 KB").arg(QString::number(double(bytes) / KiB, 'f', 1));
}

QString ResourceRecord::progressAmount(qint64 bytes, qint64 total)
{
    if (total < KiB)
        return QStringLiteral("%1 B").arg(bytes);
    if (total < MiB)
        return QStringLiteral("%1 KB").arg(QString::number(double(bytes) / KiB, 'f', 0));
    return QStringLiteral("%1 MB").arg(QString::number(double(bytes) / MiB, 'f', 1));
}

} // namespace Quorix
