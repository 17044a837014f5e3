#include "WeightsLibrary.h"

#include "api/OnlineResourcesAPI.h"
#include "core/ResourceRecord.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QSaveFile>

namespace Quorix {

namespace {

const QStringList weightsExtensions{QStringLiteral("onnx"), QStringLiteral("ennx")};

// A manifest larger than this was not written by us; reading it whole is not worth the memory.
constexpr qint64 maximumManifestSize = 16 * 1024 * 1024;

} // namespace

WeightsLibrary::WeightsLibrary()
    : directory(OnlineResourcesAPI::weightsDirectory())
{ }

QString WeightsLibrary::folder() const
{
    return directory;
}

QString WeightsLibrary::manifestPath() const
{
    return directory + QStringLiteral("/manifest.json");
}

bool WeightsLibrary::isPlainId(const QString &uuid)
{
    static const QRegularExpression plain(QStringLiteral("^[A-Za-z0-9_-]([A-Za-z0-9._-]*[A-Za-z0-9_-])?$"));
    return plain.match(uuid).hasMatch();
}

QString WeightsLibrary::existingFile(const QString &uuid) const
{
    if (!isPlainId(uuid))
        return {};
    for (const QString &extension : weightsExtensions) {
        const QString path = directory + QLatin1Char('/') + uuid + QLatin1Char('.') + extension;
        if (QFileInfo(path).isFile())
            return path;
    }
    return {};
}

void WeightsLibrary::removeOtherCopies(const QString &uuid, const QString &keptPath) const
{
    if (!isPlainId(uuid))
        return;
    for (const QString &extension : weightsExtensions) {
        const QString path = directory + QLatin1Char('/') + uuid + QLatin1Char('.') + extension;
        if (QFileInfo(path) != QFileInfo(keptPath))
            QFile::remove(path);
    }
}

QJsonObject WeightsLibrary::entries() const
{
    QFile file(manifestPath());
    if (!file.open(QIODevice::ReadOnly) || file.size() > maximumManifestSize)
        return {};
    const QJsonObject stored = QJsonDocument::fromJson(file.readAll()).object();
    QJsonObject kept;
    for (auto it = stored.constBegin(); it != stored.constEnd(); ++it) {
        if (isPlainId(it.key()) && it.value().isObject() && isWellFormedEntry(it.value().toObject()))
            kept.insert(it.key(), it.value());
    }
    return kept;
}

bool WeightsLibrary::record(const QString &uuid, const QJsonObject &entry) const
{
    if (!isPlainId(uuid) || !isWellFormedEntry(entry))
        return false;
    QJsonObject all = entries();
    all.insert(uuid, entry);
    QSaveFile file(manifestPath());
    if (!file.open(QIODevice::WriteOnly))
        return false;
    file.write(QJsonDocument(all).toJson(QJsonDocument::Indented));
    return file.commit();
}

QJsonObject WeightsLibrary::entryFor(const QJsonObject &record, qint64 size, const QDateTime &downloadedAt)
{
    return QJsonObject{
            {QStringLiteral("name"), record.value(QLatin1String("name")).toString()},
            {QStringLiteral("author"), ResourceRecord::authorName(record)},
            {QStringLiteral("author_id"), ResourceRecord::ownerDiscordId(record)},
            {QStringLiteral("visibility"), ResourceRecord::visibility(record)},
            {QStringLiteral("version"), ResourceRecord::version(record)},
            {QStringLiteral("is_encrypted"), ResourceRecord::isEncrypted(record)},
            {QStringLiteral("size"), size},
            {QStringLiteral("downloaded_at"), downloadedAt.toUTC().toString(Qt::ISODate)},
    };
}

bool WeightsLibrary::isWellFormedEntry(const QJsonObject &entry)
{
    const auto isText = [&entry](const char *key) {
        return entry.value(QLatin1String(key)).isString();
    };
    const QJsonValue size = entry.value(QLatin1String("size"));
    const QJsonValue version = entry.value(QLatin1String("version"));
    return isText("name") && isText("author") && isText("author_id") && isText("visibility") && version.isDouble()
           && entry.value(QLatin1String("is_encrypted")).isBool() && size.isDouble() && size.toDouble() >= 0
           && QDateTime::fromString(entry.value(QLatin1String("downloaded_at")).toString(), Qt::ISODate).isValid();
}

} // namespace Quorix
