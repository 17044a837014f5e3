#include "FileDigests.h"

#include <QCryptographicHash>
#include <QFile>
#include <QFileInfo>

namespace Quorix {

QByteArray FileDigests::reprDigest(const QString &path)
{
    const QFileInfo info(path);
    const auto cached = cache.constFind(path);
    if (cached != cache.cend() && cached->size == info.size() && cached->modified == info.lastModified())
        return cached->value;

    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QCryptographicHash hash(QCryptographicHash::Sha256);
    if (!hash.addData(&file))
        return {};
    const QByteArray value = "sha-256=:" + hash.result().toBase64() + ':';
    cache.insert(path, Entry{info.size(), info.lastModified(), value});
    return value;
}

} // namespace Quorix
