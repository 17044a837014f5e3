// Downloads one large file from a local server through OnlineResourcesAPI and through curl, and prints the
// throughput and peak memory growth of each. The server runs on its own thread and hands the file to the kernel
// with sendfile(), so it is never what limits either client.

#include "api/OnlineResourcesAPI.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTimer>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <string>
#include <thread>

namespace {

constexpr qint64 fileSize = 200LL * 1024 * 1024;
constexpr double megabyte = 1024.0 * 1024.0;

// A minimal HTTP/1.1 file server: every request, whatever its path, gets the one file.
class FileServer
{
public:
    explicit FileServer(const QString &path)
        : filePath(path.toStdString())
    {
        listener = ::socket(AF_INET, SOCK_STREAM, 0);
        const int yes = 1;
        ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address);
        ::listen(listener, 8);
        socklen_t length = sizeof address;
        ::getsockname(listener, reinterpret_cast<sockaddr *>(&address), &length);
        port = ntohs(address.sin_port);
        worker = std::thread([this] { run(); });
    }

    ~FileServer()
    {
        stopping = true;
        ::shutdown(listener, SHUT_RDWR);
        ::close(listener);
        worker.join();
    }

    quint16 serverPort() const { return port; }

private:
    void run()
    {
        while (!stopping) {
            const int client = ::accept(listener, nullptr, nullptr);
            if (client < 0)
                return;
            serve(client);
            ::close(client);
        }
    }

    void serve(int client)
    {
        std::string pending;
        char buffer[8192];
        for (;;) {
            const std::size_t headerEnd = pending.find("\r\n\r\n");
            if (headerEnd == std::string::npos) {
                const ssize_t received = ::recv(client, buffer, sizeof buffer, 0);
                if (received <= 0)
                    return;
                pending.append(buffer, std::size_t(received));
                continue;
            }
            pending.erase(0, headerEnd + 4);
            const int file = ::open(filePath.c_str(), O_RDONLY);
            const std::string header = "HTTP/1.1 200 OK\r\nContent-Type: application/octet-stream\r\n"
                                       "Content-Disposition: attachment; filename=\"large.gpc3\"\r\n"
                                       "Content-Length: "
                                       + std::to_string(fileSize) + "\r\n\r\n";
            ::send(client, header.data(), header.size(), MSG_NOSIGNAL);
            off_t offset = 0;
            while (offset < fileSize) {
                if (::sendfile(client, file, &offset, std::size_t(fileSize - offset)) <= 0)
                    break;
            }
            ::close(file);
        }
    }

    std::string filePath;
    int listener = -1;
    quint16 port = 0;
    std::atomic<bool> stopping{false};
    std::thread worker;
};

qint64 statusKilobytes(const char *field)
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : status.readAll().split('\n')) {
        if (line.startsWith(field))
            return line.mid(qstrlen(field)).trimmed().split(' ').first().toLongLong();
    }
    return -1;
}

// Makes VmHWM start again from the current resident size.
void resetPeakResidentSize()
{
    QFile clearRefs(QStringLiteral("/proc/self/clear_refs"));
    if (clearRefs.open(QIODevice::WriteOnly))
        clearRefs.write("5");
}

bool writeTestFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    QByteArray chunk(1024 * 1024, Qt::Uninitialized);
    for (qint64 written = 0; written < fileSize; written += chunk.size()) {
        for (qsizetype i = 0; i < chunk.size(); ++i)
            chunk[i] = char((written + i) * 131 >> 3);
        if (file.write(chunk) != chunk.size())
            return false;
    }
    return true;
}

struct Measurement
{
    double seconds = 0;
    double peakGrowthMegabytes = 0;
    double secondsWithSync = 0;
    bool ok = false;
};

Measurement downloadThroughApi(const QString &directory)
{
    Quorix::OnlineResourcesAPI api;
    QEventLoop loop;
    bool ok = false;
    QObject::connect(&api, &Quorix::OnlineResourcesAPI::scriptDownloaded, &loop, [&](const QString &path) {
        ok = QFileInfo(path).size() == fileSize;
        loop.quit();
    });
    QObject::connect(&api, &Quorix::OnlineResourcesAPI::errorOccurred, &loop, [&](const QString &error) {
        std::fprintf(stderr, "API download failed: %s\n", qPrintable(error));
        loop.quit();
    });

    resetPeakResidentSize();
    const qint64 residentBefore = statusKilobytes("VmHWM:");
    QElapsedTimer timer;
    timer.start();
    api.downloadScript(QStringLiteral("large"), directory);
    loop.exec();
    Measurement measurement;
    measurement.seconds = timer.nsecsElapsed() / 1e9;
    measurement.peakGrowthMegabytes = (statusKilobytes("VmHWM:") - residentBefore) / 1024.0;
    measurement.ok = ok;
    return measurement;
}

// The same transfer through a bare QNetworkAccessManager that throws the bytes away: the ceiling that the network
// library itself sets for any client built on it.
Measurement downloadThroughBareManager(const QString &url)
{
    QNetworkAccessManager manager;
    QNetworkRequest request{QUrl(url)};
    request.setAttribute(QNetworkRequest::Http2AllowedAttribute, false);
    QNetworkReply *reply = manager.get(request);
    reply->setReadBufferSize(1024 * 1024);
    qint64 received = 0;
    QObject::connect(reply, &QNetworkReply::readyRead, reply, [&] { received += reply->readAll().size(); });
    QEventLoop loop;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    QElapsedTimer timer;
    timer.start();
    loop.exec();
    received += reply->readAll().size();
    Measurement measurement;
    measurement.seconds = timer.nsecsElapsed() / 1e9;
    measurement.ok = reply->error() == QNetworkReply::NoError && received == fileSize;
    reply->deleteLater();
    return measurement;
}

Measurement downloadThroughCurl(const QString &url, const QString &target)
{
    QProcess curl;
    QElapsedTimer timer;
    timer.start();
    curl.start(QStringLiteral("curl"), {QStringLiteral("-s"), QStringLiteral("-o"), target, url});
    curl.waitForFinished(-1);
    Measurement measurement;
    measurement.seconds = timer.nsecsElapsed() / 1e9;
    rusage usage{};
    ::getrusage(RUSAGE_CHILDREN, &usage);
    // curl starts from nothing, so its whole peak is its growth.
    measurement.peakGrowthMegabytes = usage.ru_maxrss / 1024.0;
    measurement.ok = curl.exitCode() == 0 && QFileInfo(target).size() == fileSize;
    // The API's file is synced to disk before it takes its final name; this is the same transfer held to that.
    const int written = ::open(QFile::encodeName(target).constData(), O_RDONLY);
    ::fsync(written);
    ::close(written);
    measurement.secondsWithSync = timer.nsecsElapsed() / 1e9;
    return measurement;
}

} // namespace

int main(int argc, char *argv[])
{
    QTemporaryDir workspace;
    const QString source = workspace.filePath(QStringLiteral("served.bin"));
    if (!writeTestFile(source)) {
        std::fprintf(stderr, "cannot write the %lld-byte test file\n", fileSize);
        return 1;
    }
    FileServer server(source);
    const QString origin = QStringLiteral("http://127.0.0.1:%1").arg(server.serverPort());
    qputenv("QUORIX_SERVER_URL", origin.toUtf8());
    QStandardPaths::setTestModeEnabled(true);
    QCoreApplication app(argc, argv);

    const QString apiDirectory = workspace.filePath(QStringLiteral("api"));
    const QString curlTarget = workspace.filePath(QStringLiteral("curl.bin"));
    QDir().mkpath(apiDirectory);

    const Measurement curl = downloadThroughCurl(origin + QStringLiteral("/api/scripts/download/large"), curlTarget);
    QFile::remove(curlTarget);
    const Measurement api = downloadThroughApi(apiDirectory);
    const Measurement bare = downloadThroughBareManager(origin + QStringLiteral("/api/scripts/download/large"));
    if (!curl.ok || !api.ok) {
        std::fprintf(stderr, "a download did not complete (curl %d, API %d)\n", curl.ok, api.ok);
        return 1;
    }

    const double sizeMegabytes = fileSize / megabyte;
    const double apiRate = sizeMegabytes / api.seconds;
    const double curlRate = sizeMegabytes / curl.seconds;
    std::printf("file size:              %.0f MB, written under %s\n", sizeMegabytes, qPrintable(workspace.path()));
    std::printf("OnlineResourcesAPI:     %8.1f MB/s  (%.3f s), peak RSS growth %.1f MB\n", apiRate, api.seconds,
                api.peakGrowthMegabytes);
    std::printf("curl -o:                %8.1f MB/s  (%.3f s), peak RSS %.1f MB\n", curlRate, curl.seconds,
                curl.peakGrowthMegabytes);
    if (bare.ok)
        std::printf("bare QNetworkAccessManager, bytes discarded: %8.1f MB/s  (%.3f s)\n", sizeMegabytes / bare.seconds,
                    bare.seconds);
    std::printf("curl -o, then fsync:    %8.1f MB/s  (%.3f s)\n", sizeMegabytes / curl.secondsWithSync,
                curl.secondsWithSync);
    std::printf("throughput ratio API/curl: %.2f (target >= 0.90)\n", apiRate / curlRate);
    std::printf("throughput ratio API/(curl + fsync): %.2f\n", apiRate * curl.secondsWithSync / sizeMegabytes);
    std::printf("API peak memory growth under 64 MB: %s\n", api.peakGrowthMegabytes < 64.0 ? "yes" : "no");
    return 0;
}
