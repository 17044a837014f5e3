#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>

namespace Quorix {

// What the catalogue answers to one request: a JSON document, raw bytes, or a stored file streamed from disk.
struct ApiResponse
{
    int status = 200;
    QByteArray contentType;
    QByteArray body;
    QString filePath;
    QString attachmentName;
    // The Repr-Digest value of a file answer (RFC 9530), sent when not empty.
    QByteArray reprDigest;

    static ApiResponse json(const QJsonObject &object, int status = 200);
    // {"success": true, "data": data}
    static ApiResponse success(const QJsonValue &data);
    // {"success": false, "error": message}
    static ApiResponse error(int status, const QString &message);
    static ApiResponse file(const QString &path, const QByteArray &contentType, const QString &attachmentName);
    static ApiResponse bytes(const QByteArray &data, const QByteArray &contentType);

    // The attachment name as a Content-Disposition value, with characters that could break the header removed.
    QByteArray contentDisposition() const;
};

} // namespace Quorix
