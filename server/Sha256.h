#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QString>

typedef struct evp_md_ctx_st EVP_MD_CTX;

namespace Quorix {

// SHA-256 through OpenSSL's libcrypto, which uses the processor's SHA instructions where QCryptographicHash (Qt 6.4)
// runs portable C. Uploads are hashed as they arrive, and with the portable code hashing was most of what a large
// upload cost the I/O threads.
class Sha256
{
public:
    Sha256();
    ~Sha256();

    Sha256(const Sha256 &) = delete;
    Sha256 &operator=(const Sha256 &) = delete;

    // The raw digest of a file's bytes, or empty when it cannot be read.
    static QByteArray ofFile(const QString &path);

    void addData(QByteArrayView data);
    // The raw 32-byte digest; the hash takes no more data afterwards.
    QByteArray result();

private:
    EVP_MD_CTX *context;
};

} // namespace Quorix
