#pragma once

#include <QByteArray>
#include <QString>

namespace Quorix {

// Image addresses handed out in records carry a key, so a client can show the pictures of every record it was sent
// with a plain GET, while someone who was never sent the record cannot fetch its pictures by guessing the address.
// The secret lives in the data folder, so addresses stay valid across restarts and clients' caches stay warm.
class ImageLinkSigner
{
public:
    explicit ImageLinkSigner(const QString &dataDirectory);

    QString key(const QString &id, const QString &which) const;
    bool accepts(const QString &id, const QString &which, const QString &key) const;

private:
    static QByteArray loadOrCreateSecret(const QString &path);

    QByteArray secret;
};

} // namespace Quorix
