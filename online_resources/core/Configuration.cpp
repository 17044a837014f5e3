#include "Configuration.h"

#include <QtGlobal>

namespace Quorix {

namespace {

QString environmentOr(const char *variable, const QString &fallback)
{
    const QString value = qEnvironmentVariable(variable).trimmed();
    return value.isEmpty() ? fallback : value;
}

QStringList splitIds(const QString &text)
{
    QStringList ids;
    for (const QString &part : text.split(QLatin1Char(','), Qt::SkipEmptyParts)) {
        const QString id = part.trimmed();
        if (!id.isEmpty())
            ids.append(id);
    }
    return ids;
}

} // namespace

QString Configuration::serverOrigin()
{
    static const QString origin = [] {
        QString value = environmentOr("QUORIX_SERVER_URL", QStringLiteral(ONLINE_RESOURCES_SERVER_URL));
        while (value.endsWith(QLatin1Char('/')))
            value.chop(1);
        return value;
    }();
    return origin;
}

QStringList Configuration::administratorIds()
{
    static const QStringList ids
            = splitIds(environmentOr("QUORIX_ADMIN_IDS", QStringLiteral(ONLINE_RESOURCES_ADMIN_IDS)));
    return ids;
}

QString Configuration::uvDownloadUrlOverride()
{
    static const QString url = qEnvironmentVariable("QUORIX_UV_DOWNLOAD_URL").trimmed();
    return url;
}

} // namespace Quorix
