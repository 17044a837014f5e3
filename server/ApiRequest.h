#pragma once

#include <QByteArray>
#include <QHash>
#include <QString>
#include <QStringList>
#include <QUrlQuery>

namespace Quorix {

// One HTTP request as the catalogue sees it, independent of the HTTP library that received it.
struct ApiRequest
{
    QByteArray method;
    // Path below the API root, split at slashes, empty sections dropped ("details/ID" -> {"details", "ID"}).
    QStringList segments;
    QUrlQuery query;
    // Header names lower-cased.
    QHash<QByteArray, QByteArray> headers;
    QByteArray body;
    // Scheme, host and port this request reached, used to build absolute image addresses.
    QString origin;

    QByteArray header(const QByteArray &name) const { return headers.value(name.toLower()); }
    QString queryValue(const QString &key) const;
    bool hasQueryItem(const QString &key) const { return query.hasQueryItem(key); }
};

} // namespace Quorix
