#pragma once

#include "ApiRequest.h"
#include "ApiResponse.h"

#include <QHostAddress>
#include <QString>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

namespace boost::asio {
class io_context;
}

namespace Quorix {

// HTTP/1.1 on a small pool of I/O threads. Every limit holds while reading: headers, bodies (refused from their
// Content-Length or as soon as a chunked body passes the route's limit), idle times and the number of connections.
// Requests are handed to the owner complete; answers stream back, files from disk with the socket's pace.
class HttpTransport
{
public:
    struct Limits
    {
        std::size_t headerBytes = 16 * 1024;
        std::chrono::milliseconds headerTimeout{10000};
        std::chrono::milliseconds bodyIdleTimeout{30000};
        std::chrono::milliseconds keepAliveTimeout{30000};
        int maximumConnections = 4096;
        int threads = 2;
    };

    using Completion = std::function<void(ApiResponse)>;
    using AdmissionCompletion = std::function<void(std::optional<ApiResponse>)>;

    // What the transport asks of its owner. policy runs on an I/O thread; admit and handle may hand the work to
    // another thread, and must call their completion exactly once, from any thread.
    struct Handlers
    {
        std::function<BodyPolicy(const ApiRequest &head)> policy;
        std::function<void(ApiRequest head, AdmissionCompletion done)> admit;
        std::function<void(ApiRequest request, Completion done)> handle;
    };

    // Shared by the acceptor and every connection; outlives both.
    struct Context
    {
        Limits limits;
        Handlers handlers;
        QString stagingDirectory;
        QString fallbackOrigin;
        std::atomic<int> connections{0};
    };

    HttpTransport(const Limits &limits, const Handlers &handlers, const QString &stagingDirectory);
    ~HttpTransport();

    HttpTransport(const HttpTransport &) = delete;
    HttpTransport &operator=(const HttpTransport &) = delete;

    bool listen(const QHostAddress &address, quint16 port, QString *error);
    quint16 port() const { return boundPort; }
    void setFallbackOrigin(const QString &origin) { context->fallbackOrigin = origin; }
    // Stops accepting and joins the threads. Connections close when the transport is destroyed; the owner must first
    // drop the requests it was handed and has not answered, since they hold their connections.
    void stop();

private:
    class Acceptor;

    std::shared_ptr<Context> context;
    std::unique_ptr<boost::asio::io_context> ioContext;
    std::shared_ptr<Acceptor> acceptor;
    std::vector<std::thread> threads;
    quint16 boundPort = 0;
};

} // namespace Quorix
