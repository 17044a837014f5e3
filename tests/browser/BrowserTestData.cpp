#include "BrowserTestData.h"

#include <QBuffer>
#include <QDateTime>
#include <QImage>

namespace Quorix::Testing {

namespace {

QJsonObject baseRecord(const QString &id, const QString &type)
{
    return {{QStringLiteral("id"), id},
            {QStringLiteral("name"), QStringLiteral("Item %1").arg(id)},
            {QStringLiteral("type"), type},
            {QStringLiteral("description"), QStringLiteral("Description of %1").arg(id)},
            {QStringLiteral("created"), QDateTime::currentDateTime().toString(Qt::ISODate)},
            {QStringLiteral("downloads"), 12},
            {QStringLiteral("likes"), 3},
            {QStringLiteral("version"), 1},
            {QStringLiteral("visibility_type"), QStringLiteral("public")},
            {QStringLiteral("author"),
             QJsonObject{{QStringLiteral("username"), QStringLiteral("ada")},
                         {QStringLiteral("discord_id"), QStringLiteral("111111111111111111")}}}};
}

QJsonObject envelope(const QString &key, const QJsonArray &items, const QJsonObject &pagination)
{
    return {{QStringLiteral("success"), true}, {key, items}, {QStringLiteral("pagination"), pagination}};
}

} // namespace

QJsonObject BrowserTestData::script(const QString &id, const QString &type)
{
    return baseRecord(id, type);
}

QJsonObject BrowserTestData::environment(const QString &id)
{
    QJsonObject item = baseRecord(id, QStringLiteral("qenv"));
    item.insert(QStringLiteral("qenv_metadata"),
                QJsonObject{{QStringLiteral("python"), QStringLiteral("3.11")}, {QStringLiteral("package_count"), 7}});
    return item;
}

QJsonObject BrowserTestData::weights(const QString &id, bool encrypted)
{
    QJsonObject item = baseRecord(id, QStringLiteral("onnx"));
    item.insert(QStringLiteral("is_encrypted"), encrypted);
    item.insert(QStringLiteral("size"), 1572864);
    return item;
}

QJsonObject BrowserTestData::record(const QString &kind, const QString &id, const QJsonObject &changes)
{
    QJsonObject item = kind == QLatin1String("qenv")   ? environment(id)
                       : kind == QLatin1String("onnx") ? weights(id)
                                                       : script(id);
    for (auto it = changes.begin(); it != changes.end(); ++it) {
        if (it.value().isNull())
            item.remove(it.key());
        else
            item.insert(it.key(), it.value());
    }
    return item;
}

QJsonArray BrowserTestData::scripts(const QString &prefix, int first, int count)
{
    QJsonArray items;
    for (int index = first; index < first + count; ++index)
        items.append(script(prefix + QString::number(index)));
    return items;
}

QJsonObject BrowserTestData::scriptPage(const QJsonArray &items, int currentPage, int totalPages, int totalScripts)
{
    return envelope(QStringLiteral("scripts"), items,
                    {{QStringLiteral("current_page"), currentPage},
                     {QStringLiteral("total_pages"), totalPages},
                     {QStringLiteral("total_scripts"), totalScripts}});
}

QJsonObject BrowserTestData::environmentPage(const QJsonArray &items, int totalPages, int totalEnvironments)
{
    return envelope(
            QStringLiteral("environments"), items,
            {{QStringLiteral("total_pages"), totalPages}, {QStringLiteral("total_environments"), totalEnvironments}});
}

QJsonObject BrowserTestData::weightsPage(const QJsonArray &items, int currentPage, int totalPages, int totalWeights)
{
    return envelope(QStringLiteral("weights"), items,
                    {{QStringLiteral("current_page"), currentPage},
                     {QStringLiteral("total_pages"), totalPages},
                     {QStringLiteral("total_weights"), totalWeights}});
}

QByteArray BrowserTestData::png(const QSize &size, const QColor &colour)
{
    QImage image(size, QImage::Format_RGB32);
    image.fill(colour);
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG");
    return bytes;
}

} // namespace Quorix::Testing
