#include "DetailsTestRecords.h"

#include "details/OnnxDetailsDialog.h"
#include "details/QenvDetailsDialog.h"
#include "details/ScriptDetailsDialog.h"

#include <QBuffer>
#include <QColor>
#include <QImage>
#include <QJsonArray>

namespace Quorix::Testing {

QJsonObject DetailsTestRecords::record(Kind kind, const QJsonObject &changes)
{
    QJsonObject record{
            {QStringLiteral("id"), QStringLiteral("res-1")},
            {QStringLiteral("name"), QStringLiteral("Anti-Recoil Pro")},
            {QStringLiteral("description"), QStringLiteral("Smooth recoil compensation.")},
            {QStringLiteral("created"), QStringLiteral("2024-03-05T10:00:00Z")},
            {QStringLiteral("version"), 1},
            {QStringLiteral("downloads"), 12},
            {QStringLiteral("views"), 40},
            {QStringLiteral("likes"), 3},
            {QStringLiteral("visibility_type"), QStringLiteral("public")},
            {QStringLiteral("author"),
             QJsonObject{{QStringLiteral("username"), QStringLiteral("frame_perfect")},
                         {QStringLiteral("discord_id"), QString::fromLatin1(authorDiscordId)}}},
    };
    if (kind == Script) {
        record.insert(QStringLiteral("type"), QStringLiteral("gpc3"));
        record.insert(QStringLiteral("tags"), QJsonArray{QStringLiteral("fps"), QStringLiteral("aim")});
    } else if (kind == Environment) {
        record.insert(QStringLiteral("type"), QStringLiteral("qenv"));
    } else {
        record.insert(QStringLiteral("type"), QStringLiteral("onnx"));
        record.insert(QStringLiteral("size"), 98304);
    }
    for (auto it = changes.begin(); it != changes.end(); ++it) {
        if (it.value().isNull())
            record.remove(it.key());
        else
            record.insert(it.key(), it.value());
    }
    return record;
}

ResourceDetailsDialog *DetailsTestRecords::createDialog(Kind kind, QWidget *parent)
{
    if (kind == Script)
        return new ScriptDetailsDialog(parent);
    if (kind == Environment)
        return new QenvDetailsDialog(parent);
    return new OnnxDetailsDialog(parent);
}

QByteArray DetailsTestRecords::pngBytes(const QColor &colour)
{
    QImage image(270, 100, QImage::Format_ARGB32);
    image.fill(colour);
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG");
    return bytes;
}

} // namespace Quorix::Testing
