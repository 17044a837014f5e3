#include "HttpSession.h"

#include <QFile>
#include <QRegularExpression>
#include <QUrl>

#include <boost/asio/dispatch.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/status.hpp>

#include <cerrno>
#include <algorithm>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#ifdef __linux__
#include <sys/sendfile.h>
#endif

namespace Quorix {

namespace beast = boost::beast;
namespace http = boost::beast::http;
namespace net = boost::asio;

namespace {

// One sendfile call sends at most what the socket buffer takes; this only caps a call on a very fast socket, so that
// the other connections of the thread get their turn.
constexpr std::size_t fileChunkBytes = 4 * 1024 * 1024;
constexpr auto lingerTime = std::chrono::seconds(2);

// Linux hands the page cache to the socket. Elsewhere a piece goes through a small buffer, and what the socket did not
// take is read again next time. Either way errno says why nothing went out.
ssize_t sendFilePiece(int socket, int file, off_t *offset, std::size_t count)
{
#ifdef __linux__
    return ::sendfile(socket, file, offset, count);
#else
    char buffer[64 * 1024];
    const ssize_t got = ::pread(file, buffer, std::min(count, sizeof buffer), *offset);
    if (got <= 0)
        return got;
    const ssize_t sent = ::write(socket, buffer, std::size_t(got));
    if (sent > 0)
        *offset += sent;
    return sent;
#endif
}

std::string statusLine(int status)
{
    const beast::string_view reason = http::obsolete_reason(static_cast<http::status>(status));
    return "HTTP/1.1 " + std::to_string(status) + ' ' + std::string(reason.data(), reason.size()) + "\r\n";
}

std::string field(const char *name, const QByteArray &value)
{
    return std::string(name) + ": " + value.toStdString() + "\r\n";
}

struct ByteRange
{
    qint64 first = 0;
    qint64 last = -1;
};

enum class RangeOutcome { Whole, Partial, Unsatisfiable };

// One "bytes=" range of a file of the given size; several ranges, or a unit we do not know, get the whole file.
RangeOutcome parseRange(const QByteArray &header, qint64 size, ByteRange *range)
{
    static const QRegularExpression pattern(QStringLiteral("^\\s*bytes\\s*=\\s*(\\d*)\\s*-\\s*(\\d*)\\s*$"));
    const QRegularExpressionMatch match = pattern.match(QString::fromLatin1(header));
    if (header.isEmpty() || !match.hasMatch() || (match.captured(1).isEmpty() && match.captured(2).isEmpty()))
        return RangeOutcome::Whole;
    bool ok = true;
    if (match.captured(1).isEmpty()) {
        const qint64 suffix = match.captured(2).toLongLong(&ok);
        if (!ok || suffix == 0 || size == 0)
            return RangeOutcome::Unsatisfiable;
        range->first = qMax<qint64>(0, size - suffix);
        range->last = size - 1;
        return RangeOutcome::Partial;
    }
    range->first = match.captured(1).toLongLong(&ok);
    if (!ok || range->first >= size)
        return RangeOutcome::Unsatisfiable;
    range->last = size - 1;
    if (!match.captured(2).isEmpty()) {
        const qint64 last = match.captured(2).toLongLong(&ok);
        if (!ok || last < range->first)
            return RangeOutcome::Whole;
        range->last = qMin(last, size - 1);
    }
    return RangeOutcome::Partial;
}

} // namespace

HttpSession::HttpSession(net::ip::tcp::socket socket, std::shared_ptr<HttpTransport::Context> context)
    : stream(std::move(socket))
    , context(std::move(context))
    , fileDeadline(stream.get_executor())
{ }

HttpSession::~HttpSession()
{
    if (fileDescriptor >= 0)
        ::close(fileDescriptor);
    context->connections.fetch_sub(1);
}

void HttpSession::start()
{
    net::dispatch(stream.get_executor(),
                  [self = shared_from_this()] { self->readHeader(self->context->limits.headerTimeout); });
}

void HttpSession::readHeader(std::chrono::milliseconds timeout)
{
    parser.emplace();
    parser->header_limit(std::uint32_t(context->limits.headerBytes));
    // The route's own limit is applied once the path is known; until then only the largest limit of all holds.
    parser->body_limit(std::numeric_limits<std::uint64_t>::max());
    request = ApiRequest();
    stream.expires_after(timeout);
    http::async_read_header(stream, buffer, *parser, [self = shared_from_this()](beast::error_code error, std::size_t) {
        self->onHeader(error);
    });
}

void HttpSession::onHeader(beast::error_code error)
{
    if (error == http::error::header_limit)
        return refuse(431, QStringLiteral("Request header fields too large"));
    if (error == http::error::bad_transfer_encoding || error == http::error::bad_content_length)
        return refuse(400, QStringLiteral("Conflicting or invalid message length"));
    if (error == http::error::end_of_stream || error == beast::error::timeout || error == net::error::eof
        || error == net::error::connection_reset || error == net::error::operation_aborted)
        return close();
    if (error)
        return refuse(400, QStringLiteral("Malformed request"));
    buildRequest();
    policy = context->handlers.policy(request);
    const auto length = parser->content_length();
    if (length && qint64(*length) > policy.limit)
        return refuse(413, policy.refusal);
    // Beast counts a chunked body down from this as it arrives.
    parser->body_limit(std::uint64_t(policy.limit));
    keepAlive = parser->get().keep_alive();
    if (!policy.multipart || parser->is_done())
        return onAdmitted(std::nullopt);
    request.form = std::make_shared<MultipartForm>(request.header("content-type"), policy.formLimits,
                                                   context->stagingDirectory);
    context->handlers.admit(request, [self = shared_from_this()](std::optional<ApiResponse> refusal) {
        net::post(self->stream.get_executor(), [self, refusal = std::move(refusal)] { self->onAdmitted(refusal); });
    });
}

void HttpSession::buildRequest()
{
    const auto &head = parser->get();
    request.method = QByteArray(head.method_string().data(), int(head.method_string().size()));
    const QByteArray target(head.target().data(), int(head.target().size()));
    const QUrl url = QUrl::fromEncoded(target.startsWith('/') ? "http://host" + target : target);
    request.segments = url.path().split(QLatin1Char('/'), Qt::SkipEmptyParts);
    request.query = QUrlQuery(url);
    for (const auto &entry : head) {
        const QByteArray name = QByteArray(entry.name_string().data(), int(entry.name_string().size())).toLower();
        request.headers.insert(name, QByteArray(entry.value().data(), int(entry.value().size())));
    }
    static const QRegularExpression hostPattern(
            QStringLiteral("^[A-Za-z0-9.\\-]+(:\\d{1,5})?$|^\\[[0-9a-fA-F:.]+\\](:\\d{1,5})?$"));
    const QString host = QString::fromLatin1(request.header("host"));
    request.origin = hostPattern.match(host).hasMatch() ? QStringLiteral("http://") + host : context->fallbackOrigin;
}

void HttpSession::onAdmitted(std::optional<ApiResponse> refusal)
{
    if (refusal) {
        closeAfterResponse = true;
        return respond(*refusal);
    }
    if (parser->is_done())
        return dispatch();
    if (beast::iequals(parser->get()[http::field::expect], "100-continue")) {
        responseHead = "HTTP/1.1 100 Continue\r\n\r\n";
        stream.expires_after(context->limits.bodyIdleTimeout);
        return net::async_write(stream, net::buffer(responseHead),
                                [self = shared_from_this()](beast::error_code error, std::size_t) {
                                    if (error)
                                        return self->close();
                                    self->readBody();
                                });
    }
    readBody();
}

void HttpSession::readBody()
{
    // Beast reads no more than the buffer's free capacity, and a buffer sized by a request head took bodies in
    // reads of about 512 bytes: a system call, a timer and a staging write for each.
    buffer.reserve(chunk.size());
    auto &body = parser->get().body();
    body.data = chunk.data();
    body.size = chunk.size();
    stream.expires_after(context->limits.bodyIdleTimeout);
    http::async_read_some(stream, buffer, *parser,
                          [self = shared_from_this()](beast::error_code error, std::size_t) { self->onBody(error); });
}

void HttpSession::onBody(beast::error_code error)
{
    if (error == http::error::need_buffer)
        error = {};
    if (error == http::error::body_limit)
        return refuse(413, policy.refusal);
    if (error == beast::error::timeout || error == net::error::eof || error == http::error::end_of_stream
        || error == net::error::connection_reset || error == net::error::operation_aborted)
        return close();
    if (error)
        return refuse(400, QStringLiteral("Malformed request body"));
    const std::size_t received = chunk.size() - parser->get().body().size;
    if (!consume(chunk.data(), received))
        return;
    if (!parser->is_done())
        return readBody();
    if (request.form)
        request.form->finish();
    dispatch();
}

bool HttpSession::consume(const char *data, std::size_t size)
{
    if (!request.form) {
        request.body.append(data, qsizetype(size));
        return true;
    }
    if (request.form->feed(data, qint64(size)) || request.form->status() == 400)
        return true;
    // A part over its limit or a full disk: answer now instead of reading the rest.
    refuse(request.form->status(), request.form->error());
    return false;
}

void HttpSession::dispatch()
{
    // A connection that waits for its next request keeps no more than that request's head needs.
    buffer.shrink_to_fit();
    stream.expires_never();
    context->handlers.handle(std::move(request), [self = shared_from_this()](ApiResponse response) {
        net::post(self->stream.get_executor(), [self, response = std::move(response)] { self->respond(response); });
    });
    request = ApiRequest();
}

void HttpSession::respond(const ApiResponse &response)
{
    if (!response.filePath.isEmpty() && response.status == 200)
        return respondWithFile(response);
    std::string head = statusLine(response.status) + field("Content-Type", response.contentType)
                       + "Content-Length: " + std::to_string(response.body.size()) + "\r\n";
    const bool headOnly = parser && parser->get().method() == http::verb::head;
    writeHead(std::move(head), headOnly ? std::string() : response.body.toStdString());
}

void HttpSession::respondWithFile(const ApiResponse &response)
{
    fileDescriptor = ::open(QFile::encodeName(response.filePath).constData(), O_RDONLY | O_CLOEXEC);
    struct stat info
    {
    };
    if (fileDescriptor < 0 || ::fstat(fileDescriptor, &info) != 0)
        return respond(ApiResponse::error(404, QStringLiteral("File not found")));
    const qint64 size = info.st_size;
    std::string head;
    std::string extra = field("Content-Type", response.contentType) + "Accept-Ranges: bytes\r\n";
    if (!response.attachmentName.isEmpty())
        extra += field("Content-Disposition", response.contentDisposition());
    if (!response.reprDigest.isEmpty())
        extra += field("Repr-Digest", response.reprDigest);
    ByteRange range;
    const beast::string_view rangeHeader = parser->get()[http::field::range];
    switch (parseRange(QByteArray(rangeHeader.data(), int(rangeHeader.size())), size, &range)) {
    case RangeOutcome::Unsatisfiable:
        ::close(fileDescriptor);
        fileDescriptor = -1;
        return writeHead(
                statusLine(416) + "Content-Range: bytes */" + std::to_string(size) + "\r\nContent-Length: 0\r\n", {});
    case RangeOutcome::Partial:
        head = statusLine(206) + extra + "Content-Range: bytes " + std::to_string(range.first) + '-'
               + std::to_string(range.last) + '/' + std::to_string(size) + "\r\n";
        fileOffset = range.first;
        fileRemaining = range.last - range.first + 1;
        break;
    case RangeOutcome::Whole:
        head = statusLine(200) + extra;
        fileOffset = 0;
        fileRemaining = size;
        break;
    }
    head += "Content-Length: " + std::to_string(fileRemaining) + "\r\n";
    if (parser->get().method() == http::verb::head)
        fileRemaining = 0;
    writeHead(std::move(head), {});
}

void HttpSession::writeHead(std::string head, std::string body)
{
    const bool keep = keepAlive && !closeAfterResponse;
    responseHead = std::move(head) + (keep ? "Connection: keep-alive\r\n\r\n" : "Connection: close\r\n\r\n");
    responseBody = std::move(body);
    stream.expires_after(context->limits.bodyIdleTimeout);
    const std::array<net::const_buffer, 2> buffers{net::buffer(responseHead), net::buffer(responseBody)};
    net::async_write(stream, buffers, [self = shared_from_this()](beast::error_code error, std::size_t) {
        if (error)
            return self->close();
        if (self->fileDescriptor >= 0) {
            // The file's pieces keep their own deadlines, outside the stream's.
            self->stream.expires_never();
            return self->streamFile();
        }
        self->onResponseWritten();
    });
}

void HttpSession::streamFile()
{
    if (fileRemaining <= 0) {
        ::close(fileDescriptor);
        fileDescriptor = -1;
        return onResponseWritten();
    }
    // No copy through our memory where the system allows it, and a slow reader never holds a buffer.
    beast::error_code error;
    stream.socket().native_non_blocking(true, error);
    if (error)
        return close();
    off_t offset = off_t(fileOffset);
    const ssize_t sent = sendFilePiece(stream.socket().native_handle(), fileDescriptor, &offset,
                                       std::size_t(qMin<qint64>(fileRemaining, fileChunkBytes)));
    if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
        return awaitWritable();
    // A file that shrank under us cannot honour its Content-Length any more; the client must see a cut.
    if (sent <= 0)
        return close();
    fileOffset += sent;
    fileRemaining -= sent;
    awaitWritable();
}

void HttpSession::awaitWritable()
{
    // Each wait has its own deadline: a slow reader is fine, a reader that stops is not.
    fileDeadline.expires_after(context->limits.bodyIdleTimeout);
    fileDeadline.async_wait([self = shared_from_this()](beast::error_code error) {
        // A deadline that was moved on since this wait began is not the one that passed.
        if (!error && self->fileDeadline.expiry() <= std::chrono::steady_clock::now())
            self->close();
    });
    stream.socket().async_wait(net::socket_base::wait_write, [self = shared_from_this()](beast::error_code error) {
        self->fileDeadline.cancel();
        if (error)
            return self->close();
        self->streamFile();
    });
}

void HttpSession::onResponseWritten()
{
    responseBody.clear();
    if (closeAfterResponse)
        return linger();
    if (!keepAlive)
        return close();
    readHeader(context->limits.keepAliveTimeout);
}

void HttpSession::refuse(int status, const QString &message)
{
    closeAfterResponse = true;
    request.form.reset();
    respond(ApiResponse::error(status, message));
}

void HttpSession::linger()
{
    beast::error_code ignored;
    stream.socket().shutdown(net::ip::tcp::socket::shutdown_send, ignored);
    stream.expires_after(lingerTime);
    drain();
}

void HttpSession::drain()
{
    stream.async_read_some(net::buffer(chunk), [self = shared_from_this()](beast::error_code error, std::size_t) {
        if (error)
            return self->close();
        self->drain();
    });
}

void HttpSession::close()
{
    beast::error_code ignored;
    stream.socket().shutdown(net::ip::tcp::socket::shutdown_both, ignored);
    stream.socket().close(ignored);
}

} // namespace Quorix
