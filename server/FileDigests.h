#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QHash>
#include <QString>

namespace Quorix {

// The SHA-256 of stored files, for the Repr-Digest header of downloads (RFC 9530). Each file is hashed on its first
// download and again only when its size or modification time has changed, so a large file costs one read, not one
// per download.
class FileDigests
{
public:
    // "sha-256=:BASE64:", or empty when the file cannot be read.
    QByteArray reprDigest(const QString &path);

private:
    struct Entry
    {
        qint64 size = -1;
        QDateTime modified;
        QByteArray value;
    };

    QHash<QString, Entry> cache;
};

} // namespace Quorix
