#include "FileDigests.h"

#include "Sha256.h"

#include <QFileInfo>

namespace Quorix {

QByteArray FileDigests::reprDigest(const QString &path)
{
    const QFileInfo info(path);
    const auto cached = cache.constFind(path);
    if (cached != cache.cend() && cached->size == info.size() && cached->modified == info.lastModified())
        return cached->value;

    const QByteArray digest = Sha256::ofFile(path);
    if (digest.isEmpty())
        return {};
    const QByteArray value = "sha-256=:" + digest.toBase64() + ':';
    cache.insert(path, Entry{info.size(), info.lastModified(), value});
    return value;
}

} // namespace Quorix
