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
    for (const QChar c : attachmentName) {
        if (c.unicode() >= 0x20 && c != QLatin1Char('"') && c != QLatin1Char('\\') && c != QLatin1Char('/')
            && c.unicode() != 0x7f)
            safe.append(c);
    }
    return "attachment; filename=\"" + safe.toUtf8() + '"';
}

} // namespace Quorix
