#include "Sha256.h"

#include <QFile>

#include <openssl/evp.h>

namespace Quorix {

Sha256::Sha256()
    : context(EVP_MD_CTX_new())
{
    EVP_DigestInit_ex(context, EVP_sha256(), nullptr);
}

Sha256::~Sha256()
{
    EVP_MD_CTX_free(context);
}

QByteArray Sha256::ofFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    Sha256 hash;
    QByteArray chunk(1 << 20, Qt::Uninitialized);
    for (;;) {
        const qint64 read = file.read(chunk.data(), chunk.size());
        if (read < 0)
            return {};
        if (read == 0)
            return hash.result();
        hash.addData(QByteArrayView(chunk.constData(), read));
    }
}

void Sha256::addData(QByteArrayView data)
{
    EVP_DigestUpdate(context, data.data(), std::size_t(data.size()));
}

QByteArray Sha256::result()
{
    QByteArray digest(EVP_MAX_MD_SIZE, Qt::Uninitialized);
    unsigned int size = 0;
    EVP_DigestFinal_ex(context, reinterpret_cast<unsigned char *>(digest.data()), &size);
    digest.resize(int(size));
    return digest;
}

} // namespace Quorix
