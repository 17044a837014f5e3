#include "DownloadSink.h"

#include <QFutureWatcher>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QSaveFile>
#include <QtConcurrent/QtConcurrentRun>

#include <optional>

namespace Quorix {

namespace {

// A refusal is a short JSON message; anything beyond this is not one, and must not grow without bound.
constexpr qsizetype maximumRefusalSize = 8 * 1024 * 1024;
constexpr qsizetype sha256Size = 32;

// The sha-256 member of a Repr-Digest dictionary such as "sha-512=:...:, sha-256=:...:". A member that is there but
// cannot be read is returned as it is, so it matches no hash and the file is refused rather than trusted unchecked.
std::optional<QByteArray> claimedSha256(const QByteArray &header)
{
    for (const QByteArray &member : header.split(',')) {
        const QByteArray item = member.trimmed();
        const qsizetype equals = item.indexOf('=');
        if (equals < 0 || item.left(equals).trimmed().toLower() != "sha-256")
            continue;
        const QByteArray value = item.mid(equals + 1).split(';').first().trimmed();
        if (value.size() < 2 || !value.startsWith(':') || !value.endsWith(':'))
            return value;
        const auto decoded = QByteArray::fromBase64Encoding(value.mid(1, value.size() - 2),
                                                            QByteArray::AbortOnBase64DecodingErrors);
        return decoded && decoded.decoded.size() == sha256Size ? decoded.decoded : value;
    }
    return std::nullopt;
}

} // namespace

DownloadSink::DownloadSink(QNetworkReply *reply, TargetResolver resolver)
    : QObject(reply)
    , reply(reply)
    , resolver(std::move(resolver))
{
    connect(reply, &QNetworkReply::readyRead, this, &DownloadSink::onReplyReadyRead);
}

DownloadSink::~DownloadSink() = default;

QByteArray DownloadSink::refusalBody() const
{
    return refusal;
}

QString DownloadSink::filePath() const
{
    return path;
}

DownloadSink::Outcome DownloadSink::finish()
{
    if (!decide() || !consume())
        return Outcome::Failed;
    if (mode == Mode::Refusal)
        return Outcome::Refusal;
    if (mode != Mode::File)
        return Outcome::Failed;
    if (!matchesClaimedDigest()) {
        fail();
        return Outcome::Damaged;
    }
    return Outcome::Ready;
}

bool DownloadSink::matchesClaimedDigest() const
{
    return !digestClaimed || hash.result() == claimedDigest;
}

void DownloadSink::commitInBackground(QObject *context, CommitDone done)
{
    std::shared_ptr<QSaveFile> saving(file.release());
    mode = Mode::Ignored;
    auto *watcher = new QFutureWatcher<bool>(context);
    // The file is released on this thread, after the worker has let go of it.
    connect(watcher, &QFutureWatcher<bool>::finished, context, [watcher, saving, done = std::move(done)] {
        watcher->deleteLater();
        done(watcher->result());
    });
    watcher->setFuture(QtConcurrent::run([saving] { return saving->commit(); }));
}

void DownloadSink::discard()
{
    if (file)
        file->cancelWriting();
    file.reset();
    if (mode == Mode::File)
        mode = Mode::Ignored;
}

void DownloadSink::onReplyReadyRead()
{
    if (mode == Mode::Failed) {
        reply->readAll();
        return;
    }
    if (!decide() || !consume())
        emit saveFailed();
}

bool DownloadSink::decide()
{
    if (mode != Mode::Undecided)
        return mode != Mode::Failed;

    if (reply->header(QNetworkRequest::ContentTypeHeader).toString().contains(QLatin1String("application/json"))) {
        mode = Mode::Refusal;
        return true;
    }
    // An HTTP error page is reported from the status, never saved as the resource.
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (status >= 400) {
        mode = Mode::Ignored;
        return true;
    }

    if (const std::optional<QByteArray> claimed = claimedSha256(reply->rawHeader("Repr-Digest"))) {
        digestClaimed = true;
        claimedDigest = *claimed;
    }
    path = resolver(reply->rawHeader("Content-Disposition"));
    if (path.isEmpty()) {
        fail();
        return false;
    }
    file = std::make_unique<QSaveFile>(path);
    if (!file->open(QIODevice::WriteOnly)) {
        fail();
        return false;
    }
    mode = Mode::File;
    return true;
}

bool DownloadSink::consume()
{
    switch (mode) {
    case Mode::File: {
        const QByteArray chunk = reply->readAll();
        if (!chunk.isEmpty() && file->write(chunk) != chunk.size()) {
            fail();
            return false;
        }
        hash.addData(chunk);
        return true;
    }
    case Mode::Refusal: {
        const QByteArray chunk = reply->readAll();
        if (refusalOversized)
            return true;
        if (refusal.size() + chunk.size() > maximumRefusalSize) {
            // Left empty, it reads as no message at all, which is what an oversized one is worth.
            refusalOversized = true;
            refusal.clear();
        } else {
            refusal.append(chunk);
        }
        return true;
    }
    case Mode::Ignored:
        reply->readAll();
        return true;
    case Mode::Undecided:
    case Mode::Failed:
        break;
    }
    return mode != Mode::Failed;
}

void DownloadSink::fail()
{
    if (file)
        file->cancelWriting();
    file.reset();
    mode = Mode::Failed;
}

} // namespace Quorix
