#include "HttpTransport.h"

#include "HttpSession.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/write.hpp>

namespace Quorix {

namespace net = boost::asio;
using tcp = boost::asio::ip::tcp;

namespace {

const std::string overloaded = "HTTP/1.1 503 Service Unavailable\r\nContent-Type: application/json\r\n"
                               "Content-Length: 56\r\nRetry-After: 5\r\nConnection: close\r\n\r\n"
                               "{\"success\":false,\"error\":\"The server is busy, try again\"}";

} // namespace

// Accepts connections and gives each its own strand; beyond the cap a connection gets a short 503 and is closed,
// so a crowd of idle sockets cannot make the server unreachable without telling anyone why.
class HttpTransport::Acceptor : public std::enable_shared_from_this<Acceptor>
{
public:
    Acceptor(net::io_context &ioContext, std::shared_ptr<Context> context)
        : ioContext(ioContext)
        , acceptor(net::make_strand(ioContext))
        , context(std::move(context))
    { }

    bool open(const tcp::endpoint &endpoint, QString *error)
    {
        boost::system::error_code code;
        acceptor.open(endpoint.protocol(), code);
        if (!code)
            acceptor.set_option(net::socket_base::reuse_address(true), code);
        if (!code)
            acceptor.bind(endpoint, code);
        if (!code)
            acceptor.listen(net::socket_base::max_listen_connections, code);
        if (code) {
            *error = QString::fromStdString(code.message());
            return false;
        }
        return true;
    }

    quint16 port() const { return acceptor.local_endpoint().port(); }

    void accept()
    {
        acceptor.async_accept(net::make_strand(ioContext),
                              [self = shared_from_this()](boost::system::error_code error, tcp::socket socket) {
                                  if (error == net::error::operation_aborted || !self->acceptor.is_open())
                                      return;
                                  if (!error)
                                      self->take(std::move(socket));
                                  self->accept();
                              });
    }

    void close()
    {
        net::post(acceptor.get_executor(), [self = shared_from_this()] {
            boost::system::error_code ignored;
            self->acceptor.close(ignored);
        });
    }

private:
    void take(tcp::socket socket)
    {
        if (context->connections.fetch_add(1) >= context->limits.maximumConnections) {
            context->connections.fetch_sub(1);
            auto refused = std::make_shared<tcp::socket>(std::move(socket));
            net::async_write(*refused, net::buffer(overloaded), [refused](boost::system::error_code, std::size_t) {
                boost::system::error_code ignored;
                refused->shutdown(tcp::socket::shutdown_both, ignored);
                refused->close(ignored);
            });
            return;
        }
        boost::system::error_code ignored;
        socket.set_option(tcp::no_delay(true), ignored);
        std::make_shared<HttpSession>(std::move(socket), context)->start();
    }

    net::io_context &ioContext;
    tcp::acceptor acceptor;
    std::shared_ptr<Context> context;
};

HttpTransport::HttpTransport(const Limits &limits, const Handlers &handlers, const QString &stagingDirectory)
    : context(std::make_shared<Context>())
    , ioContext(std::make_unique<net::io_context>(qMax(1, limits.threads)))
{
    context->limits = limits;
    context->handlers = handlers;
    context->stagingDirectory = stagingDirectory;
}

HttpTransport::~HttpTransport()
{
    stop();
    acceptor.reset();
    // Destroying the context destroys the handlers still queued, and with them the connections they hold.
    ioContext.reset();
}

bool HttpTransport::listen(const QHostAddress &address, quint16 port, QString *error)
{
    boost::system::error_code code;
    const net::ip::address ip = net::ip::make_address(address.toString().toStdString(), code);
    if (code) {
        *error = QStringLiteral("Cannot listen on %1: %2")
                         .arg(address.toString(), QString::fromStdString(code.message()));
        return false;
    }
    acceptor = std::make_shared<Acceptor>(*ioContext, context);
    QString reason;
    if (!acceptor->open(tcp::endpoint(ip, port), &reason)) {
        *error = QStringLiteral("Cannot listen on %1:%2: %3").arg(address.toString()).arg(port).arg(reason);
        acceptor.reset();
        return false;
    }
    boundPort = acceptor->port();
    acceptor->accept();
    for (int i = 0; i < qMax(1, context->limits.threads); ++i)
        threads.emplace_back([this] { ioContext->run(); });
    return true;
}

void HttpTransport::stop()
{
    if (acceptor)
        acceptor->close();
    ioContext->stop();
    for (std::thread &thread : threads)
        thread.join();
    threads.clear();
}

} // namespace Quorix
