#include "ImageLinkSigner.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMessageAuthenticationCode>
#include <QRandomGenerator>
#include <QSaveFile>

namespace Quorix {

namespace {

constexpr qsizetype secretSize = 32;
// 128 bits of the MAC are plenty against guessing and keep the addresses short.
constexpr qsizetype keySize = 16;

} // namespace

ImageLinkSigner::ImageLinkSigner(const QString &dataDirectory)
    : secret(loadOrCreateSecret(dataDirectory + QStringLiteral("/image-links.key")))
{ }

QByteArray ImageLinkSigner::loadOrCreateSecret(const QString &path)
{
    QFile existing(path);
    if (existing.open(QIODevice::ReadOnly)) {
        const QByteArray stored = existing.read(secretSize + 1);
        if (stored.size() == secretSize)
            return stored;
    }
    QByteArray fresh(secretSize, Qt::Uninitialized);
    QRandomGenerator::system()->generate(reinterpret_cast<quint32 *>(fresh.data()),
                                         reinterpret_cast<quint32 *>(fresh.data() + secretSize));
    // An unwritable folder stops the server at start anyway; until then the addresses hold for this run.
    QDir().mkpath(QFileInfo(path).absolutePath());
    QSaveFile file(path);
    if (file.open(QIODevice::WriteOnly) && file.write(fresh) == secretSize)
        file.commit();
    return fresh;
}

QString ImageLinkSigner::key(const QString &id, const QString &which) const
{
    const QByteArray mac = QMessageAuthenticationCode::hash((id + QLatin1Char('/') + which).toUtf8(), secret,
                                                            QCryptographicHash::Sha256);
    return QString::fromLatin1(
            mac.left(keySize).toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals));
}

bool ImageLinkSigner::accepts(const QString &id, const QString &which, const QString &key) const
{
    const QByteArray expected = this->key(id, which).toLatin1();
    const QByteArray given = key.toLatin1();
    if (given.size() != expected.size())
        return false;
    // Compared in full whatever the first difference, so timing tells nothing about the key.
    char difference = 0;
    for (qsizetype i = 0; i < expected.size(); ++i)
        difference |= char(expected.at(i) ^ given.at(i));
    return difference == 0;
}

} // namespace Quorix
