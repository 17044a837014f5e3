#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

#include <memory>

namespace Quorix {

class Sha256;

// A multipart/form-data body read as it arrives: text fields stay in memory, file parts go straight to staging files
// under the staging folder and are hashed on the way, so an upload costs a buffer, not its size. Staged files that
// nobody took are removed with the form.
class MultipartForm
{
public:
    struct FileLimit
    {
        QString part;
        qint64 bytes = 0;
        // The message of the 413 once the part passes its limit.
        QString refusal;
    };

    struct Limits
    {
        // The file parts a route takes; files under other names are read past and dropped.
        QList<FileLimit> files;
        // All text fields together.
        qint64 text = 1024 * 1024;
    };

    struct Part
    {
        QString name;
        QString fileName;
        bool isFile = false;
        QByteArray value;
        QString stagedPath;
        qint64 size = 0;
        // Raw SHA-256 of a file part's content.
        QByteArray sha256;
    };

    MultipartForm(const QByteArray &contentType, const Limits &limits, const QString &stagingDirectory);
    ~MultipartForm();

    MultipartForm(const MultipartForm &) = delete;
    MultipartForm &operator=(const MultipartForm &) = delete;

    // Takes the next piece of the body; false once the form has failed (see status() and error()).
    bool feed(const char *data, qint64 size);
    // The body has ended; false when the form is incomplete or failed.
    bool finish();

    // 400 for a malformed form, 413 for a part over its limit, 507 when a staging file cannot be written.
    int status() const { return failureStatus; }
    QString error() const { return failure; }

    bool has(const QString &name) const;
    QString text(const QString &name) const;
    const Part *part(const QString &name) const;
    // Reads a staged file part back, for the small parts (images, packages) that are checked in memory.
    QByteArray contents(const Part &part) const;

private:
    enum class State { Preamble, AfterDelimiter, Headers, Content, Done };

    bool fail(int status, const QString &message);
    bool step();
    bool startPart(const QByteArray &headerBlock);
    bool appendContent(const char *data, qint64 size);
    bool endPart();

    Limits limits;
    QString stagingDirectory;
    QByteArray delimiter;
    QByteArray pending;
    State state = State::Preamble;
    QList<Part> parts;
    Part current;
    qint64 currentLimit = 0;
    qint64 textBytes = 0;
    int fileDescriptor = -1;
    std::unique_ptr<Sha256> hash;
    int failureStatus = 0;
    QString failure;
};

} // namespace Quorix
