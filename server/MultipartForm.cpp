#include "MultipartForm.h"

#include "Sha256.h"

#include <QFile>
#include <QRegularExpression>
#include <QUuid>

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace Quorix {

namespace {

constexpr int maximumParts = 32;
constexpr qsizetype maximumHeaderBlock = 8192;
constexpr qsizetype maximumPreamble = 65536;
const QString malformed = QStringLiteral("Malformed multipart body");

QByteArray boundaryOf(const QByteArray &contentType)
{
    if (!contentType.trimmed().toLower().startsWith("multipart/form-data"))
        return {};
    static const QRegularExpression pattern(QStringLiteral("boundary=(\"([^\"]+)\"|([^;\\s]+))"),
                                            QRegularExpression::CaseInsensitiveOption);
    const QRegularExpressionMatch match = pattern.match(QString::fromLatin1(contentType));
    if (!match.hasMatch())
        return {};
    const QString value = match.captured(2).isEmpty() ? match.captured(3) : match.captured(2);
    return value.size() <= 70 ? value.toLatin1() : QByteArray();
}

// Reads name="..." style parameters from a Content-Disposition value.
QString dispositionParameter(const QString &disposition, const QString &key)
{
    const QRegularExpression pattern(QStringLiteral("(?:^|;)\\s*%1=\"([^\"]*)\"").arg(key),
                                     QRegularExpression::CaseInsensitiveOption);
    return pattern.match(disposition).captured(1);
}

bool writeAll(int descriptor, const char *data, qint64 size)
{
    while (size > 0) {
        const ssize_t written = ::write(descriptor, data, size_t(size));
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return false;
        data += written;
        size -= written;
    }
    return true;
}

} // namespace

MultipartForm::MultipartForm(const QByteArray &contentType, const Limits &limits, const QString &stagingDirectory)
    : limits(limits)
    , stagingDirectory(stagingDirectory)
{
    const QByteArray boundary = boundaryOf(contentType);
    if (boundary.isEmpty())
        fail(400, QStringLiteral("Expected a multipart/form-data body"));
    else
        delimiter = "\r\n--" + boundary;
}

MultipartForm::~MultipartForm()
{
    if (fileDescriptor >= 0)
        ::close(fileDescriptor);
    for (const Part &staged : std::as_const(parts)) {
        if (!staged.stagedPath.isEmpty())
            QFile::remove(staged.stagedPath);
    }
    if (!current.stagedPath.isEmpty())
        QFile::remove(current.stagedPath);
}

bool MultipartForm::fail(int status, const QString &message)
{
    if (failureStatus == 0) {
        failureStatus = status;
        failure = message;
    }
    pending.clear();
    return false;
}

bool MultipartForm::feed(const char *data, qint64 size)
{
    if (failureStatus != 0)
        return false;
    if (state == State::Done)
        return true;
    pending.append(data, size);
    while (step()) { }
    return failureStatus == 0;
}

bool MultipartForm::finish()
{
    if (failureStatus == 0 && state != State::Done)
        fail(400, malformed);
    return failureStatus == 0;
}

// Consumes what it can of the pending bytes; true when it made progress and may make more.
bool MultipartForm::step()
{
    if (failureStatus != 0)
        return false;
    switch (state) {
    case State::Preamble: {
        // The first delimiter may open the body without the line break that precedes the others.
        const QByteArray opening = delimiter.mid(2);
        const qsizetype at = pending.indexOf(opening);
        if (at < 0) {
            if (pending.size() > maximumPreamble)
                return fail(400, malformed);
            return false;
        }
        pending.remove(0, at + opening.size());
        state = State::AfterDelimiter;
        return true;
    }
    case State::AfterDelimiter:
        if (pending.size() < 2)
            return false;
        if (pending.startsWith("--")) {
            state = State::Done;
            pending.clear();
            return false;
        }
        if (!pending.startsWith("\r\n") || parts.size() >= maximumParts)
            return fail(400, malformed);
        pending.remove(0, 2);
        state = State::Headers;
        return true;
    case State::Headers: {
        const qsizetype end = pending.indexOf("\r\n\r\n");
        if (end < 0 || end > maximumHeaderBlock)
            return pending.size() > maximumHeaderBlock ? fail(400, malformed) : false;
        if (!startPart(pending.left(end)))
            return false;
        pending.remove(0, end + 4);
        state = State::Content;
        return true;
    }
    case State::Content: {
        const qsizetype end = pending.indexOf(delimiter);
        if (end < 0) {
            // Keep enough to recognise a delimiter split across two pieces.
            const qsizetype safe = pending.size() - (delimiter.size() - 1);
            if (safe > 0) {
                if (!appendContent(pending.constData(), safe))
                    return false;
                pending.remove(0, safe);
            }
            return false;
        }
        if (!appendContent(pending.constData(), end) || !endPart())
            return false;
        pending.remove(0, end + delimiter.size());
        state = State::AfterDelimiter;
        return true;
    }
    case State::Done:
        return false;
    }
    return false;
}

bool MultipartForm::startPart(const QByteArray &headerBlock)
{
    current = Part();
    for (const QByteArray &line : headerBlock.split('\n')) {
        const qsizetype colon = line.indexOf(':');
        if (colon < 0 || line.left(colon).trimmed().toLower() != "content-disposition")
            continue;
        const QString disposition = QString::fromUtf8(line.mid(colon + 1).trimmed());
        current.name = dispositionParameter(disposition, QStringLiteral("name"));
        current.isFile = disposition.contains(QStringLiteral("filename="), Qt::CaseInsensitive);
        current.fileName = dispositionParameter(disposition, QStringLiteral("filename"));
    }
    if (current.name.isEmpty())
        return fail(400, malformed);
    currentLimit = -1;
    // A repeated part or a file under a name this route does not take is read past and dropped.
    if (!current.isFile || has(current.name))
        return true;
    for (const FileLimit &limit : std::as_const(limits.files)) {
        if (limit.part == current.name)
            currentLimit = limit.bytes;
    }
    if (currentLimit < 0)
        return true;
    current.stagedPath = stagingDirectory + QStringLiteral("/upload-")
                         + QUuid::createUuid().toString(QUuid::WithoutBraces) + QStringLiteral(".part");
    fileDescriptor
            = ::open(QFile::encodeName(current.stagedPath).constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fileDescriptor < 0) {
        current.stagedPath.clear();
        return fail(507, QStringLiteral("Cannot store the upload"));
    }
    hash = std::make_unique<Sha256>();
    return true;
}

bool MultipartForm::appendContent(const char *data, qint64 size)
{
    if (size <= 0)
        return true;
    if (!current.isFile) {
        textBytes += size;
        if (textBytes > limits.text)
            return fail(413, QStringLiteral("Request body too large"));
        current.value.append(data, size);
        return true;
    }
    if (fileDescriptor < 0)
        return true;
    current.size += size;
    if (current.size > currentLimit) {
        for (const FileLimit &limit : std::as_const(limits.files)) {
            if (limit.part == current.name)
                return fail(413, limit.refusal);
        }
    }
    hash->addData(QByteArrayView(data, size));
    if (!writeAll(fileDescriptor, data, size))
        return fail(507, QStringLiteral("Cannot store the upload"));
    return true;
}

bool MultipartForm::endPart()
{
    if (fileDescriptor >= 0) {
        // The staged bytes must be on disk before anything records them.
        const bool synced = ::fsync(fileDescriptor) == 0;
        ::close(fileDescriptor);
        fileDescriptor = -1;
        if (!synced)
            return fail(507, QStringLiteral("Cannot store the upload"));
        current.sha256 = hash->result();
    }
    if (!has(current.name) && (!current.isFile || !current.stagedPath.isEmpty()))
        parts.append(current);
    else if (!current.stagedPath.isEmpty())
        QFile::remove(current.stagedPath);
    current = Part();
    return true;
}

bool MultipartForm::has(const QString &name) const
{
    return part(name) != nullptr;
}

const MultipartForm::Part *MultipartForm::part(const QString &name) const
{
    for (const Part &candidate : parts) {
        if (candidate.name == name)
            return &candidate;
    }
    return nullptr;
}

QString MultipartForm::text(const QString &name) const
{
    const Part *found = part(name);
    return found && !found->isFile ? QString::fromUtf8(found->value) : QString();
}

QByteArray MultipartForm::contents(const Part &part) const
{
    if (!part.isFile)
        return part.value;
    QFile file(part.stagedPath);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace Quorix
