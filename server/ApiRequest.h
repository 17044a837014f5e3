#pragma once

#include "MultipartForm.h"

#include <QByteArray>
#include <QHash>
#include <QString>
#include <QStringList>
#include <QUrlQuery>

#include <memory>

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
    // A multipart body, read into its fields and staged files as it arrived; null for every other body.
    std::shared_ptr<MultipartForm> form;
    // Scheme, host and port this request reached, used to build absolute image addresses.
    QString origin;

    QByteArray header(const QByteArray &name) const { return headers.value(name.toLower()); }
    QString queryValue(const QString &key) const;
    bool hasQueryItem(const QString &key) const { return query.hasQueryItem(key); }
};

// How the transport reads the body of a request, decided from its method, path and headers alone.
struct BodyPolicy
{
    // Largest body the route takes; a larger Content-Length, or a chunked body growing past it, gets 413 unread.
    qint64 limit = 0;
    QString refusal;
    // The body is a multipart upload: streamed into a form, and the caller is admitted before a byte is read.
    bool multipart = false;
    MultipartForm::Limits formLimits;
};

} // namespace Quorix
