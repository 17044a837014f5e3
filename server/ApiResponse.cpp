#include "ApiResponse.h"

#include <QJsonDocument>

namespace Quorix {

ApiResponse ApiResponse::json(const QJsonObject &object, int status)
{
    ApiResponse response;
    response.status = status;
    response.contentType = "application/json";
    response.body = QJsonDocument(object).toJson(QJsonDocument::Compact);
    return response;
}

ApiResponse ApiResponse::success(const QJsonValue &data)
{
    return json({{QStringLiteral("success"), true}, {QStringLiteral("data"), data}});
}

ApiResponse ApiResponse::error(int status, const QString &message)
{
    return json({{QStringLiteral("success"), false}, {QStringLiteral("error"), message}}, status);
}

ApiResponse ApiResponse::file(const QString &path, const QByteArray &contentType, const QString &attachmentName)
{
    ApiResponse response;
    response.contentType = contentType;
    response.filePath = path;
    response.attachmentName = attachmentName;
    return response;
}

ApiResponse ApiResponse::bytes(const QByteArray &data, const QByteArray &contentType)
{
    ApiResponse response;
    response.contentType = contentType;
    response.body = data;
    return response;
}

QByteArray ApiResponse::contentDisposition() const
{
    if (attachmentName.isEmpty())
        return {};
    QString safe;
    bool ascii = true;
    for (const QChar c : attachmentName) {
        if (c.unicode() >= 0x20 && c != QLatin1Char('"') && c != QLatin1Char('\\') && c != QLatin1Char('/')
            && c.unicode() != 0x7f)
            safe.append(c);
        ascii = ascii && c.unicode() < 0x80;
    }
    if (ascii)
        return "attachment; filename=\"" + safe.toLatin1() + '"';
    // RFC 6266: clients that know filename* take the UTF-8 name, the others a plain fallback.
    QByteArray fallback;
    for (const QChar c : std::as_const(safe))
        fallback.append(c.unicode() < 0x80 ? char(c.unicode()) : '_');
    return "attachment; filename=\"" + fallback + "\"; filename*=UTF-8''" + safe.toUtf8().toPercentEncoding();
}

} // namespace Quorix
