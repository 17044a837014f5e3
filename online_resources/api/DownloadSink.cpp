#include "DownloadSink.h"

#include <QNetworkReply>
#include <QNetworkRequest>
#include <QSaveFile>

namespace Quorix {

namespace {

// A refusal is a short JSON message; anything beyond this is not one, and must not grow without bound.
constexpr qsizetype maximumRefusalSize = 8 * 1024 * 1024;

} // namespace

DownloadSink::DownloadSink(QNetworkReply *reply, TargetResolver resolver)
    : QObject(reply)
    , reply(reply)
    , resolver(std::move(resolver))
{
    connect(reply, &QNetworkReply::readyRead, this, &DownloadSink::onReplyReadyRead);
}

DownloadSink::~DownloadSink() = default;

bool DownloadSink::isRefusal() const
{
    return mode == Mode::Refusal;
}

QByteArray DownloadSink::refusalBody() const
{
    return refusal;
}

QString DownloadSink::filePath() const
{
    return path;
}

bool DownloadSink::commit()
{
    if (!decide() || !consume())
        return false;
    if (mode != Mode::File)
        return mode == Mode::Refusal;
    if (!file->commit()) {
        file.reset();
        mode = Mode::Failed;
        return false;
    }
    file.reset();
    return true;
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
