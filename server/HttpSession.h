#pragma once

#include "HttpTransport.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/buffer_body.hpp>
#include <boost/beast/http/parser.hpp>

#include <array>
#include <memory>
#include <optional>
#include <string>

namespace Quorix {

// One client connection: reads each request under the transport's limits, hands it to the owner, writes the answer
// and waits for the next. All of its work runs on its own strand, so it needs no locks.
class HttpSession : public std::enable_shared_from_this<HttpSession>
{
public:
    HttpSession(boost::asio::ip::tcp::socket socket, std::shared_ptr<HttpTransport::Context> context);
    ~HttpSession();

    void start();

private:
    using Parser = boost::beast::http::request_parser<boost::beast::http::buffer_body>;

    void readHeader(std::chrono::milliseconds timeout);
    void onHeader(boost::beast::error_code error);
    void buildRequest();
    void onAdmitted(std::optional<ApiResponse> refusal);
    void readBody();
    void onBody(boost::beast::error_code error);
    bool consume(const char *data, std::size_t size);
    void dispatch();

    void respond(const ApiResponse &response);
    void respondWithFile(const ApiResponse &response);
    void writeHead(std::string head, std::string body);
    void streamFile();
    void awaitWritable();
    void onResponseWritten();
    // Answers and closes, reading (and dropping) what the client still sends for a moment so that it sees the answer.
    void refuse(int status, const QString &message);
    void linger();
    void drain();
    void close();

    boost::beast::tcp_stream stream;
    std::shared_ptr<HttpTransport::Context> context;
    boost::beast::flat_buffer buffer;
    std::optional<Parser> parser;
    ApiRequest request;
    BodyPolicy policy;
    std::array<char, 64 * 1024> chunk{};
    bool keepAlive = false;
    bool closeAfterResponse = false;

    std::string responseHead;
    std::string responseBody;
    int fileDescriptor = -1;
    qint64 fileOffset = 0;
    qint64 fileRemaining = 0;
    // The deadline of each wait for room in the socket while a file goes out through sendfile.
    boost::asio::steady_timer fileDeadline;
};

} // namespace Quorix
